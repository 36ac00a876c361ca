'use strict';
// Starts a server script as a child process and hands back its address. The
// script prints {"port": N} as its first stdout line and stops when its
// stdin closes.
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
        resolve({ port: JSON.parse(text.slice(0, newline)).port, stop: () => child.stdin.end() });
      }
    });
    child.once('exit', (code) => reject(new Error(`${path.basename(script)} exited with ${code}`)));
  });
}

// The local origin every test and the host-engine demo talk to
// (tests/origin/server.js).
async function startOrigin() {
  const server = await startServer(path.join(__dirname, '..', 'origin', 'server.js'));
  const url = (p) => `http://127.0.0.1:${server.port}${p}`;
  return {
    port: server.port,
    url,
    async count(p) {
      const res = await fetch(url(`/__count?path=${encodeURIComponent(p)}`));
      return (await res.json()).count;
    },
    stop: server.stop,
  };
}

module.exports = { startOrigin, startServer };
