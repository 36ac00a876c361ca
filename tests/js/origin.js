'use strict';
// Starts a server script as a child process and hands back its address. The
// script prints {"port": N, ...} as its first stdout line (every field of it
// is handed back, and whole as `info`) and stops when its stdin closes.
const { spawn } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { makeCerts } = require('../origin/certs');

// How a test reaches the origin: cleartext HTTP/1.1, HTTPS to a listener
// that speaks HTTP/1.1 alone, or HTTPS/2.
const TRANSPORTS = ['http', 'https_h1', 'https_h2'];

function startServer(script, args = []) {
  const child = spawn(process.execPath, [script, ...args], { stdio: ['pipe', 'pipe', 'inherit'] });
  return new Promise((resolve, reject) => {
    let text = '';
    child.stdout.on('data', (piece) => {
      text += piece;
      const newline = text.indexOf('\n');
      if (newline >= 0) {
        const info = JSON.parse(text.slice(0, newline));
        resolve({ ...info, info, stop: () => child.stdin.end() });
      }
    });
    child.once('exit', (code) => reject(new Error(`${path.basename(script)} exited with ${code}`)));
  });
}

// The run's TLS certificates: the folder VELORA_TEST_CERTS names (the test
// command makes one per run), or one made now for this process alone. Points
// VELORA_CA_FILE at their root, for the host libraries loaded after this.
function ensureTestCerts() {
  if (!process.env.VELORA_TEST_CERTS) {
    const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'velora-certs-'));
    process.on('exit', () => fs.rmSync(dir, { recursive: true, force: true }));
    process.env.VELORA_TEST_CERTS = path.join(dir, 'certs');
  }
  const certs = makeCerts(process.env.VELORA_TEST_CERTS);
  if (!process.env.VELORA_CA_FILE) process.env.VELORA_CA_FILE = certs.ca;
  return certs;
}

// The local origin every test and the host-engine demo talk to
// (tests/origin/server.js), over each transport.
async function startOrigin() {
  ensureTestCerts();
  const server = await startServer(path.join(__dirname, '..', 'origin', 'server.js'));
  const { info } = server;
  const url = (p) => `http://127.0.0.1:${info.port}${p}`;
  const ask = async (p) => (await fetch(url(p))).json();
  const portOf = { http: info.port, https_h1: info.https1Port, https_h2: info.httpsPort };
  return {
    port: info.port,
    httpsPort: info.httpsPort,  // HTTP/2 and HTTP/1.1
    https1Port: info.https1Port,  // HTTP/1.1 alone
    url,
    // `p` on the listener of `transport`, one of TRANSPORTS.
    urlOver(transport, p) {
      return `${transport === 'http' ? 'http' : 'https'}://127.0.0.1:${portOf[transport]}${p}`;
    },
    // A listener a careful client refuses: untrusted, selfSigned, expired,
    // wrongHost, tls10 or stall.
    faultUrl(name, p = '/') {
      return `https://${name === 'wrongHost' ? 'localhost' : '127.0.0.1'}:${info.faults[name]}${p}`;
    },
    async count(p) {
      return (await ask(`/__count?path=${encodeURIComponent(p)}`)).count;
    },
    tls: () => ask('/__tls'),
    stop: server.stop,
  };
}

module.exports = { startOrigin, startServer, ensureTestCerts, TRANSPORTS };
