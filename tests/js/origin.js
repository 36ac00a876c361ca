'use strict';
// Starts a server script as a child process and hands back its address. The
// script prints {"port": N, ...} as its first stdout line (every field of it
// is handed back) and stops when its stdin closes.
const { spawn } = require('node:child_process');
const path = require('node:path');

function startServer(script, args = []) {
  const child = spawn(process.execPath, [script, ...args], { stdio: ['pipe', 'pipe', 'inherit'] });
  return new Promise((resolve, reject) => {
    let text = '';
    child.stdout.on('data', (piece) => {
      text += piece;
      const newline = text.indexOf('\n');
      if (newline >= 0) {
        resolve({ ...JSON.parse(text.slice(0, newline)), stop: () => child.stdin.end() });
      }
    });
    child.once('exit', (code) => reject(new Error(`${path.basename(script)} exited with ${code}`)));
  });
}

// The local origin every test and the host-engine demo talk to
// (tests/origin/server.js). It serves HTTPS too (httpsPort) when
// VELORA_TEST_CERTS names a folder of certificates.
async function startOrigin() {
  const server = await startServer(path.join(__dirname, '..', 'origin', 'server.js'));
  const url = (p) => `http://127.0.0.1:${server.port}${p}`;
  return {
    port: server.port,
    httpsPort: server.httpsPort,  // HTTP/2 and HTTP/1.1
    https1Port: server.https1Port,  // HTTP/1.1 alone
    url,
    async count(p) {
      const res = await fetch(url(`/__count?path=${encodeURIComponent(p)}`));
      return (await res.json()).count;
    },
    stop: server.stop,
  };
}

module.exports = { startOrigin, startServer };
