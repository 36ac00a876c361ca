'use strict';
// Certificates for one run of the tests, the benchmarks or the demo, made
// fresh with the openssl command into a folder of that run; no key is ever
// kept in the tree.
//
//   node tests/origin/certs.js DIR     makes them (once) and prints their paths as JSON
//
// In DIR:
//   ca.pem                 the run's root; VELORA_CA_FILE points at it
//   leaf.pem, leaf.key     signed by the root for localhost, harbor.test, *.harbor.test,
//                          *.velora.test, 127.0.0.1 and ::1
//   untrusted.pem/.key     a good-looking leaf signed by a root nobody trusts
//   self-signed.pem/.key   a leaf that signs itself
//   expired.pem/.key       signed by the run's root, expired a day before it was made
//   wrong-host.pem/.key    signed by the run's root for wrong-host.invalid only
const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');

// A wildcard covers one label under at least two ("*.test" would cover nothing).
const HOSTS = 'DNS:localhost,DNS:harbor.test,DNS:*.harbor.test,DNS:*.velora.test,IP:127.0.0.1,IP:::1';

function openssl(dir, args) {
  // The sanitizer runtime a test suite preloads has no business in openssl.
  const env = { ...process.env };
  delete env.LD_PRELOAD;
  execFileSync('openssl', args, { cwd: dir, env, stdio: ['ignore', 'ignore', 'pipe'] });
}

function key(dir, name) {
  openssl(dir, ['ecparam', '-name', 'prime256v1', '-genkey', '-noout', '-out', `${name}.key`]);
}

function root(dir, name) {
  key(dir, name);
  openssl(dir, ['req', '-x509', '-new', '-key', `${name}.key`, '-subj', `/CN=Velora test root ${name}`,
    '-days', '30', '-addext', 'basicConstraints=critical,CA:TRUE',
    '-addext', 'keyUsage=critical,keyCertSign,cRLSign', '-out', `${name}.pem`]);
}

// A server leaf for `hosts`, signed by root `ca` (or by itself), valid for `days`.
function leaf(dir, name, { ca, hosts = HOSTS, days = 30 }) {
  key(dir, name);
  const extensions = `${name}.ext`;
  fs.writeFileSync(path.join(dir, extensions),
    `subjectAltName=${hosts}\nextendedKeyUsage=serverAuth\nbasicConstraints=CA:FALSE\n`);
  if (!ca) {
    openssl(dir, ['req', '-x509', '-new', '-key', `${name}.key`, '-subj', `/CN=${name}`,
      '-days', String(days), '-addext', `subjectAltName=${hosts}`, '-out', `${name}.pem`]);
    return;
  }
  openssl(dir, ['req', '-new', '-key', `${name}.key`, '-subj', `/CN=${name}`, '-out', `${name}.csr`]);
  openssl(dir, ['x509', '-req', '-in', `${name}.csr`, '-CA', `${ca}.pem`, '-CAkey', `${ca}.key`,
    '-CAcreateserial', '-days', String(days), '-extfile', extensions, '-out', `${name}.pem`]);
}

function paths(dir) {
  const file = (name) => path.join(dir, name);
  const pair = (name) => ({ cert: file(`${name}.pem`), key: file(`${name}.key`) });
  return {
    dir,
    ca: file('ca.pem'),
    leaf: pair('leaf'),
    untrusted: pair('untrusted'),
    selfSigned: pair('self-signed'),
    expired: pair('expired'),
    wrongHost: pair('wrong-host'),
  };
}

// Makes the run's certificates in `dir` unless they are there already, and
// returns their paths. Processes that race to make them agree on one set:
// each makes its own beside `dir` and the first to rename it into place wins.
function makeCerts(dir) {
  dir = path.resolve(dir);
  if (fs.existsSync(path.join(dir, 'ca.pem'))) return paths(dir);
  fs.mkdirSync(path.dirname(dir), { recursive: true });
  const own = fs.mkdtempSync(`${dir}.making-`);
  try {
    root(own, 'ca');
    leaf(own, 'leaf', { ca: 'ca' });
    root(own, 'rogue-ca');
    leaf(own, 'untrusted', { ca: 'rogue-ca' });
    leaf(own, 'self-signed', {});
    leaf(own, 'expired', { ca: 'ca', days: -1 });
    leaf(own, 'wrong-host', { ca: 'ca', hosts: 'DNS:wrong-host.invalid' });
    try {
      if (fs.existsSync(dir) && fs.readdirSync(dir).length === 0) fs.rmdirSync(dir);
      fs.renameSync(own, dir);
    } catch (error) {
      if (!fs.existsSync(path.join(dir, 'ca.pem'))) throw error;
    }
  } finally {
    fs.rmSync(own, { recursive: true, force: true });
  }
  return paths(dir);
}

if (require.main === module) {
  if (process.argv.length < 3) {
    process.stderr.write('usage: node certs.js DIR\n');
    process.exit(2);
  }
  process.stdout.write(`${JSON.stringify(makeCerts(path.resolve(process.argv[2])))}\n`);
}

module.exports = { makeCerts };
