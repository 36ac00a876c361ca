'use strict';
// The origins of the demo site under realistic conditions, as a process of
// its own so that their timers keep time whatever the browser side is doing.
//
//   node demo/site_server.js --site DIR [--cert PEM --key PEM] [--rtt 80] [--kbps 10000]
//                            [--render 400] [--lifetime 3600]
//
// Three origins, each on a loopback port of its own: the page's
// (news.harbor.test), static files (static.harbor.test) and the API
// (api.harbor.test). With --cert and --key (the run's leaf, tests/origin/certs.js) they speak
// HTTPS, HTTP/2 with HTTP/1.1 for clients that do not offer h2; without,
// cleartext HTTP/1.1. A control listener (cleartext, no latency)
// answers /__count?path=P and /__stats. Prints
// {"port": control, "origins": {"page", "static", "api"}, "transport"} as its
// first line and stops when stdin closes.
//   --rtt MS     round trip: every response starts one RTT after its request;
//                a new connection costs the handshakes before its first byte
//                moves: one RTT for TCP, one more for TLS 1.3
//   --kbps K     one downlink of K kbit/s shared by all responses of all
//                origins, round robin
//   --render MS  the server's render time for the article page
//   --lifetime S stops by itself after S seconds (3600)
// Routes: the article page on the page's origin (server-rendered,
// first-chunk headers; a request with "x-s-first-chunk: true" gets the first
// chunk alone), with the site's service worker (/sw.js), the Workbox files it
// loads (/workbox/...) and the page's shell for its precache, and the home
// page (/, with ?speculate=prefetch|prerender its speculation rules), /static/... from the built site on the static origin,
// /api/comments (30 ms of server time, CORS for the page's origin) on the
// API's. Any other route, or one asked of the wrong origin, is a 404.
const fs = require('node:fs');
const http = require('node:http');
const http2 = require('node:http2');
const net = require('node:net');
const path = require('node:path');
const site = require('./news_site.js');

const MIME = { '.css': 'text/css', '.js': 'text/javascript', '.png': 'image/png',
  '.json': 'application/json' };

// A response whose client went away (HTTP/1.1) or whose stream is gone (HTTP/2).
const gone = (res) => res.destroyed || (res.stream !== undefined && res.stream.destroyed);

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
    if (gone(stream.res)) {
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

function options() {
  const args = process.argv.slice(2);
  const arg = (name, fallback) => {
    const i = args.indexOf(name);
    return i >= 0 && i + 1 < args.length ? args[i + 1] : fallback;
  };
  const number = (name, fallback) => {
    const n = Number(arg(name, fallback));
    if (!Number.isFinite(n) || n < 0) throw new Error(`${name} needs a number, not ${arg(name)}`);
    return n;
  };
  const opts = { site: arg('--site', ''), cert: arg('--cert', ''), key: arg('--key', ''), rtt: number('--rtt', 80),
    render: number('--render', 400), kbps: number('--kbps', 10000), lifetime: number('--lifetime', 3600) };
  if (!(opts.kbps > 0)) throw new Error('--kbps must be above 0');
  if (!opts.site) throw new Error('--site DIR is required');
  if (Boolean(opts.cert) !== Boolean(opts.key)) throw new Error('--cert and --key go together');
  return opts;
}

// The routes of the three origins. `origins`: name -> "scheme://host:port".
function siteHandler(opts, origins, link, stats) {
  const staticDir = path.resolve(opts.site, 'static');
  const firstChunk = Buffer.from(site.firstChunk(origins));
  const rest = Buffer.from(site.renderedRest(origins));
  const worker = Buffer.from(site.serviceWorker(site.precacheManifest(opts.site, origins)));
  const workboxDir = path.resolve(opts.site, 'workbox');
  const respond = (ms, fn) => setTimeout(fn, opts.rtt + ms);
  const notFound = (res) => respond(0, () => {
    res.writeHead(404, { 'Content-Type': 'text/plain' });
    res.end('not found');
  });
  // The page's origin may read the API and time every file (Resource Timing).
  const shared = { 'Access-Control-Allow-Origin': origins.page, 'Timing-Allow-Origin': origins.page,
    Vary: 'Origin' };

  const routes = {
    page(req, res, url) {
      if (url.pathname === '/') {
        const speculate = url.searchParams.get('speculate');
        const body = Buffer.from(site.homePage(origins, ['prefetch', 'prerender'].includes(speculate) ? speculate : null));
        return respond(opts.render / 2, () => {
          res.writeHead(200, { 'Content-Type': 'text/html; charset=utf-8', 'Cache-Control': 'no-store' });
          link.send(res, body, true);
        });
      }
      if (url.pathname === '/sw.js') {
        return respond(0, () => {
          res.writeHead(200, { 'Content-Type': 'text/javascript', 'Cache-Control': 'no-cache' });
          link.send(res, worker, true);
        });
      }
      if (url.pathname === site.SHELL_PATH) {
        return respond(0, () => {
          res.writeHead(200, { 'Content-Type': 'text/html; charset=utf-8', 'Cache-Control': 'no-cache' });
          link.send(res, firstChunk, true);
        });
      }
      if (url.pathname.startsWith(site.WORKBOX_PATH)) {
        const file = path.join(workboxDir, path.basename(url.pathname));
        if (!/^workbox-[a-z-]+(\.prod)?\.js$/.test(path.basename(file)) || !fs.existsSync(file)) return notFound(res);
        return respond(0, () => {
          const body = fs.readFileSync(file);
          res.writeHead(200, { 'Content-Type': 'text/javascript', 'Content-Length': body.length,
            'Cache-Control': 'max-age=600' });
          link.send(res, body, true);
        });
      }
      if (url.pathname !== site.PAGE_PATH) return notFound(res);
      return respond(opts.render, () => {
        res.writeHead(200, { 'Content-Type': 'text/html; charset=utf-8', 'Cache-Control': 'no-store',
          'fcc-enable': 'true', 'fcc-version': site.PAGE_VERSION });
        if (req.headers['x-s-first-chunk'] === 'true') return link.send(res, firstChunk, true);
        return link.send(res, Buffer.concat([firstChunk, rest]), true);
      });
    },
    static(req, res, url) {
      if (!url.pathname.startsWith('/static/')) return notFound(res);
      let file;
      try {
        file = path.resolve(staticDir, `.${decodeURIComponent(url.pathname.slice('/static'.length))}`);
      } catch {
        file = '';
      }
      return respond(0, () => {
        if (!file.startsWith(staticDir + path.sep) || !fs.existsSync(file) || !fs.statSync(file).isFile()) {
          res.writeHead(404, { 'Content-Type': 'text/plain' });
          return res.end('not found');
        }
        const body = fs.readFileSync(file);
        res.writeHead(200, { ...shared, 'Content-Type': MIME[path.extname(file)] || 'application/octet-stream',
          'Content-Length': body.length, 'Cache-Control': 'max-age=600' });
        return link.send(res, body, true);
      });
    },
    api(req, res, url) {
      if (url.pathname !== '/api/comments') return notFound(res);
      if (req.method === 'OPTIONS') {  // a preflight, should the page ever need one
        return respond(0, () => {
          res.writeHead(204, { ...shared, 'Access-Control-Allow-Methods': 'GET',
            'Access-Control-Allow-Headers': 'Accept, Content-Type', 'Access-Control-Max-Age': '600' });
          res.end();
        });
      }
      return respond(30, () => {
        res.writeHead(200, { ...shared, 'Content-Type': 'application/json', 'Cache-Control': 'no-store' });
        link.send(res, Buffer.from(JSON.stringify(site.comments())), true);
      });
    },
  };

  return (name) => (req, res) => {
    let url;
    try {
      url = new URL(req.url, origins[name]);
    } catch {
      res.writeHead(400, { 'Content-Type': 'text/plain' });
      return res.end('bad request target');
    }
    stats.count(name, req, url);
    return routes[name](req, res, url);
  };
}

// One origin: a TCP listener that holds each new connection for its
// handshakes' round trips (the client's bytes wait in the kernel meanwhile),
// then hands it to the HTTP server that serves it.
function listenOrigin(name, opts, tlsPair, handler, stats) {
  let server;
  if (tlsPair) {
    server = http2.createSecureServer({ ...tlsPair, allowHTTP1: true, minVersion: 'TLSv1.2' }, handler);
    server.on('session', () => { stats.origins[name].h2Sessions += 1; });
    server.on('tlsClientError', (error) => {
      if (error.code !== 'ECONNRESET') console.error(`site ${name}: TLS handshake failed: ${error.message}`);
    });
  } else {
    server = http.createServer(handler);
  }
  server.keepAliveTimeout = 30000;
  const handshakes = (tlsPair ? 2 : 1) * opts.rtt;
  const door = net.createServer({ pauseOnConnect: true }, (socket) => {
    stats.origins[name].connections += 1;
    socket.on('error', () => socket.destroy());
    setTimeout(() => {
      if (socket.destroyed) return;
      server.emit('connection', socket);
      if (!tlsPair) socket.resume();
    }, handshakes);
  });
  return new Promise((resolve, reject) => {
    door.once('error', reject);
    door.listen(0, '127.0.0.1', () => resolve(door.address().port));
  });
}

async function main() {
  const opts = options();
  const tlsPair = opts.cert ? { key: fs.readFileSync(opts.key), cert: fs.readFileSync(opts.cert) } : null;
  const scheme = tlsPair ? 'https' : 'http';
  const counts = new Map();
  const stats = {
    origins: Object.fromEntries(Object.keys(site.HOSTS).map((name) =>
      [name, { connections: 0, h2Sessions: 0, h2Streams: 0, h1Requests: 0 }])),
    count(name, req, url) {
      counts.set(url.pathname, (counts.get(url.pathname) || 0) + 1);
      if (req.httpVersionMajor === 2) this.origins[name].h2Streams += 1;
      else this.origins[name].h1Requests += 1;
    },
  };
  const link = new Link(opts.kbps);
  // The pages name every origin with its port: the ports come first.
  const origins = {};
  const serve = {};
  for (const name of Object.keys(site.HOSTS)) {
    const port = await listenOrigin(name, opts, tlsPair, (req, res) => serve[name](req, res), stats);
    origins[name] = `${scheme}://${site.HOSTS[name]}:${port}`;
  }
  const handler = siteHandler(opts, origins, link, stats);
  for (const name of Object.keys(site.HOSTS)) serve[name] = handler(name);

  const control = http.createServer((req, res) => {
    const url = new URL(req.url, 'http://control');
    let answer = null;
    if (url.pathname === '/__count') answer = { count: counts.get(url.searchParams.get('path')) || 0 };
    if (url.pathname === '/__stats') answer = { origins: stats.origins };
    res.writeHead(answer ? 200 : 404, { 'Content-Type': 'application/json' });
    res.end(JSON.stringify(answer));
  });
  control.listen(0, '127.0.0.1', () => {
    process.stdout.write(`${JSON.stringify({ port: control.address().port, origins, transport: scheme })}\n`);
  });
  const stop = () => process.exit(0);
  setTimeout(stop, opts.lifetime * 1000).unref();
  process.stdin.on('end', stop);
  process.stdin.on('close', stop);
  process.stdin.resume();
}

main().catch((error) => {
  console.error(`site server: ${error.message}`);
  process.exit(2);
});
