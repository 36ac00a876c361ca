'use strict';
// Certificates for one run of the demo: the run's root from
// tests/origin/certs.js, and a leaf it signs for every name under
// harbor.test. The root's own leaf names "*.test", which OpenSSL (and so
// flume) never matches: a wildcard must have two labels after it.
const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { makeCerts } = require('../tests/origin/certs.js');

const SITE_NAMES = 'DNS:*.harbor.test,DNS:harbor.test';

function openssl(dir, args) {
  // A sanitizer runtime preloaded into the caller has no business in openssl.
  const env = { ...process.env };
  delete env.LD_PRELOAD;
  execFileSync('openssl', args, { cwd: dir, env, stdio: ['ignore', 'ignore', 'pipe'] });
}

// Makes the run's root in `dir` and the site's leaf beside it; returns
// { ca, cert, key } (file paths).
function makeSiteCerts(dir) {
  const certs = makeCerts(dir);
  const file = (name) => path.join(certs.dir, name);
  if (!fs.existsSync(file('site.pem'))) {
    fs.writeFileSync(file('site.ext'),
      `subjectAltName=${SITE_NAMES}\nextendedKeyUsage=serverAuth\nbasicConstraints=CA:FALSE\n`);
    openssl(certs.dir, ['ecparam', '-name', 'prime256v1', '-genkey', '-noout', '-out', 'site.key']);
    openssl(certs.dir, ['req', '-new', '-key', 'site.key', '-subj', '/CN=harbor.test', '-out', 'site.csr']);
    openssl(certs.dir, ['x509', '-req', '-in', 'site.csr', '-CA', 'ca.pem', '-CAkey', 'ca.key',
      '-CAcreateserial', '-days', '7', '-extfile', 'site.ext', '-out', 'site.pem']);
  }
  return { ca: certs.ca, cert: file('site.pem'), key: file('site.key') };
}

module.exports = { makeSiteCerts };
