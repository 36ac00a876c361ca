'use strict';
// Starts tests/origin/server.js as a child and hands back its address.
const { spawn } = require('node:child_process');
const path = require('node:path');

async function startOrigin() {
  const child = spawn(process.execPath, [path.join(__dirname, '..', 'origin', 'server.js')], {
    stdio: ['pipe', 'pipe', 'inherit'],
  });
  const port = await new Promise((resolve, reject) => {
    let text = '';
    child.stdout.on('data', (piece) => {
      text += piece;
      const newline = text.indexOf('\n');
      if (newline >= 0) resolve(JSON.parse(text.slice(0, newline)).port);
    });
    child.once('exit', (code) => reject(new Error(`origin exited with ${code}`)));
  });
  const url = (p) => `http://127.0.0.1:${port}${p}`;
  return {
    port,
    url,
    async count(p) {
      const res = await fetch(url(`/__count?path=${encodeURIComponent(p)}`));
      return (await res.json()).count;
    },
    stop() {
      child.stdin.end();
    },
  };
}

module.exports = { startOrigin };
