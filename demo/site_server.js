'use strict';
// The origin of the demo site under realistic conditions, as a process of
// its own so that its timers keep time whatever the browser side is doing.
//
//   node demo/site_server.js --site DIR [--rtt 80] [--kbps 10000] [--render 400] [--lifetime 600]
//
// Prints {"port": N} as its first line and stops when stdin closes.
//   --rtt MS     round trip: every response starts one RTT after its request,
//                and a request on a new connection waits one more (the handshake)
//   --kbps K     one downlink of K kbit/s shared by all responses, round robin
//   --render MS  the server's render time for the article page
//   --lifetime S stops by itself after S seconds (3600)
// Routes: the article page (server-rendered, first-chunk headers; a request
// with "x-s-first-chunk: true" gets the first chunk alone), /static/... from
// the built site, /api/comments (30 ms of server time), and /__count?path=P.
const http = require('node:http');
const fs = require('node:fs');
const path = require('node:path');
const site = require('./news_site.js');

const MIME = { '.css': 'text/css', '.js': 'text/javascript', '.png': 'image/png',
  '.json': 'application/json' };

// The shared downlink: responses take turns sending one slice each, paced
// to the bandwidth.
class Link {
  constructor(kbps) {
    this.bytesPerMs = kbps / 8;
    // Timers fire every millisecond at best: fast links send larger slices.
    this.slice = Math.max(8 * 1024, Math.ceil(this.bytesPerMs * 2));
    this.queue = [];
    this.busy = false;
  }

  // Sends `buffer` on `res`; `end` after the last byte.
  send(res, buffer, end) {
    this.queue.push({ res, buffer, offset: 0, end });
    if (!this.busy) this.pump();
  }

  pump() {
    const stream = this.queue.shift();
    if (!stream) {
      this.busy = false;
      return;
    }
    this.busy = true;
    if (stream.res.destroyed) {
      setImmediate(() => this.pump());
      return;
    }
    const slice = stream.buffer.subarray(stream.offset, stream.offset + this.slice);
    stream.offset += slice.length;
    stream.res.write(slice);
    if (stream.offset < stream.buffer.length) this.queue.push(stream);
    else if (stream.end) stream.res.end();
    setTimeout(() => this.pump(), slice.length / this.bytesPerMs);
  }
}

function main() {
  const args = process.argv.slice(2);
  const arg = (name, fallback) => {
    const i = args.indexOf(name);
    return i >= 0 ? args[i + 1] : fallback;
  };
  const rtt = Number(arg('--rtt', 80));
  const render = Number(arg('--render', 400));
  const kbps = Number(arg('--kbps', 10000));
  if (!(kbps > 0)) throw new Error('--kbps must be a positive number');
  const link = new Link(kbps);
  const staticDir = path.resolve(arg('--site', ''), 'static');
  const counts = new Map();
  const firstChunk = Buffer.from(site.firstChunk());
  const rest = Buffer.from(site.renderedRest());

  const server = http.createServer((req, res) => {
    let url;
    let file;
    try {
      url = new URL(req.url, 'http://origin');
      if (url.pathname.startsWith('/static/')) {
        file = path.resolve(staticDir, `.${decodeURIComponent(url.pathname.slice('/static'.length))}`);
      }
    } catch {
      res.writeHead(400, { 'Content-Type': 'text/plain' });
      return res.end('bad request target');
    }
    counts.set(url.pathname, (counts.get(url.pathname) || 0) + 1);
    // One RTT for the request and its answer, one more for a new connection.
    const socket = req.socket;
    const wait = rtt * (socket.served ? 1 : 2);
    socket.served = true;
    const respond = (ms, fn) => setTimeout(fn, wait + ms);

    if (url.pathname === site.PAGE_PATH) {
      return respond(render, () => {
        res.writeHead(200, { 'Content-Type': 'text/html; charset=utf-8', 'Cache-Control': 'no-store',
          'fcc-enable': 'true', 'fcc-version': site.PAGE_VERSION });
        if (req.headers['x-s-first-chunk'] === 'true') return link.send(res, firstChunk, true);
        return link.send(res, Buffer.concat([firstChunk, rest]), true);
      });
    }
    if (url.pathname === '/api/comments') {
      return respond(30, () => {
        res.writeHead(200, { 'Content-Type': 'application/json', 'Cache-Control': 'no-store' });
        link.send(res, Buffer.from(JSON.stringify(site.comments())), true);
      });
    }
    if (url.pathname.startsWith('/static/')) {
      const inside = file.startsWith(staticDir + path.sep);
      return respond(0, () => {
        if (!inside || !fs.existsSync(file) || !fs.statSync(file).isFile()) {
          res.writeHead(404, { 'Content-Type': 'text/plain' });
          return res.end('not found');
        }
        const body = fs.readFileSync(file);
        res.writeHead(200, { 'Content-Type': MIME[path.extname(file)] || 'application/octet-stream',
          'Content-Length': body.length, 'Cache-Control': 'max-age=600' });
        return link.send(res, body, true);
      });
    }
    if (url.pathname === '/__count') {
      res.writeHead(200, { 'Content-Type': 'application/json' });
      return res.end(JSON.stringify({ count: counts.get(url.searchParams.get('path')) || 0 }));
    }
    return respond(0, () => {
      res.writeHead(404, { 'Content-Type': 'text/plain' });
      res.end('not found');
    });
  });
  server.keepAliveTimeout = 30000;
  server.listen(0, '127.0.0.1', () => {
    process.stdout.write(`${JSON.stringify({ port: server.address().port })}\n`);
  });
  const stop = () => process.exit(0);
  setTimeout(stop, Number(arg('--lifetime', 3600)) * 1000).unref();
  process.stdin.on('end', stop);
  process.stdin.on('close', stop);
  process.stdin.resume();
}

main();
