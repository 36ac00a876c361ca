'use strict';
// The local origin every test, benchmark and the demo talk to. Listens on a
// free loopback port, prints {"port": N} as its first stdout line, and stops
// by itself when its stdin closes (the parent went away) or after --lifetime
// seconds.
//
// Routes:
//   /bytes/N[?chunk=S&delay=MS&random=1]  N bytes of a fixed pattern (byte i =
//                                (i*31+7)&255), or random ones that never repeat
//                                where the pattern would, in pieces of S bytes MS ms apart
//   /site/...                    files of the demo site (tests/origin/site)
//   /delay?ms=MS[&size=N&chunk=S&every=E]  answers after MS ms, the body in
//                                pieces of S bytes E ms apart
//   /echo[?raw=1]                any method: JSON {method, length, sha256, chunked, headers},
//                                or with raw=1 the uploaded bytes themselves
//   /headers                     three Set-Cookie lines, repeated X-Multi, request headers as JSON
//   /ctype?value=V               Content-Type: V
//   /gzip?size=N                 gzip-encoded pattern body
//   /redirect?to=URL&code=C      C (302) with Location
//   /status/C                    status C with a short body
//   /reset?after=N               headers and N body bytes, then the connection is reset
//                                (over HTTP/2: the connection under every stream on it)
//   /rst?after=N                 headers and N body bytes, then this stream alone is reset
//                                (RST_STREAM; over HTTP/1.1 the connection)
//   /hold?group=G&n=N[&goaway=K] held until N requests of group G arrived, then
//                                answered; over HTTP/2 with goaway=K the connection gets a
//                                GOAWAY naming the K-th of them as the last processed,
//                                and the later ones are never answered on it
//   /stall?after=N               headers and N body bytes, then nothing
//   /ssr?chunks=N&delay=MS       a streamed HTML page
//   /fcc/NAME?...                a server-rendered page with a first chunk (see renderFcc)
//   /__count?path=P              how many requests reached path P so far
//   /__seen?path=P               the request headers of the last request to path P
//   /__sent?path=P               body bytes written so far to requests of path P
//   /__connections               connections open now, on every listener
//   /__tls                       TLS counters: handshakes, resumed, h2Sessions, h2Streams,
//                                h1Requests (over TLS), refusedReached (faulty listeners)
//   /__hold?group=G              {arrived, answered} of a /hold group
const http = require('node:http');
const http2 = require('node:http2');
const crypto = require('node:crypto');
const fs = require('node:fs');
const path = require('node:path');
const zlib = require('node:zlib');
const { makeCerts } = require('./certs');
const tls = require('./tls');

const SITE = path.join(__dirname, 'site');
const counts = new Map();
const seen = new Map();
const sentBytes = new Map();
let openConnections = 0;
const tcpSockets = new Map();  // client port: the TCP socket of each open connection
const holds = new Map();
const FCC_MARKER = '<div><!--fcc--></div>';

function pattern(offset, size) {
  const bytes = Buffer.allocUnsafe(size);
  for (let i = 0; i < size; i++) bytes[i] = ((offset + i) * 31 + 7) & 255;
  return bytes;
}

const MIME = { '.html': 'text/html; charset=utf-8', '.css': 'text/css', '.js': 'text/javascript',
  '.json': 'application/json', '.png': 'image/png', '.svg': 'image/svg+xml', '.txt': 'text/plain' };

// Writes stop when the client goes away; what was written is counted by path.
function sendPattern(res, size, chunk, delay, extraHeaders = {}, bytes = pattern) {
  res.writeHead(200, { 'Content-Type': 'application/octet-stream', 'Content-Length': size,
    ...extraHeaders });
  let sent = 0;
  const piece = chunk > 0 ? chunk : 256 * 1024;
  const countPath = res.req ? new URL(res.req.url, 'http://origin').pathname : '';
  let gone = false;
  res.on('close', () => { gone = true; });
  const writeMore = () => {
    while (sent < size) {
      if (gone) return undefined;
      const n = Math.min(piece, size - sent);
      const ok = res.write(bytes(sent, n));
      sent += n;
      sentBytes.set(countPath, (sentBytes.get(countPath) || 0) + n);
      if (delay > 0 && sent < size) return setTimeout(writeMore, delay);
      if (!ok) return res.once('drain', writeMore);
    }
    res.end();
  };
  writeMore();
}

// The first chunk of server-rendered page NAME at VERSION: the part of the
// page that does not depend on the request, ending in the marker.
function fccFirstChunk(name, version) {
  return `<!DOCTYPE html><html><head><meta charset="utf-8"><title>${name}</title>` +
    `<style>body{font-family:sans-serif;margin:0}header{background:#234;color:#fff;padding:12px}` +
    `</style></head><body><header id="shell">${name} (version ${version})</header>${FCC_MARKER}`;
}

// The rest of the page: `size` bytes of rendered content, closing the document.
function fccRest(name, size) {
  const head = `<main id="content"><h1>${name}</h1><p id="rendered">rendered at the server</p>`;
  const tail = '</main></body></html>';
  const fill = Math.max(0, size - head.length - tail.length);
  const line = '<p>lorem ipsum dolor sit amet, consectetur adipiscing elit.</p>\n';
  return head + line.repeat(Math.ceil(fill / line.length)).slice(0, fill) + tail;
}

// A server-rendered page with the first-chunk headers. Query:
//   version=V (1)          fcc-version; the first chunk names it, so versions differ in bytes
//   enable=TEXT (true)     fcc-enable as given; "omit" leaves the header out
//   rule=R                 fcc-url-query-rule
//   expire=MS | ttl=MS     fcc-expire-time, absolute or from now; none by default
//   wait=MS (0)            render time before the status line and the first chunk
//   delay=MS (50)          between the first chunk and the rest
//   size=N (2048)          bytes of the rest; piece=S writes it in pieces of S bytes
//   marker=0               the page carries no marker (an error page, a new template)
//   pad=N                  N filler bytes before the marker: a first chunk that large
//   latin1=1               the first chunk and the version hold bytes that are not UTF-8
//   cut=N                  the connection is reset after N bytes of the rest
//   stall=1                after the first chunk nothing more is sent
//   every=MS               MS ms between the pieces of the rest
// A request with "x-s-first-chunk: true" gets the first chunk alone. Body
// bytes written are counted under the path, as for /bytes.

const fccRestCache = new Map();
function fccHead(name, version, q) {
  let head = fccFirstChunk(name, version);
  if (q.has('pad')) {
    const pad = `<!--${'p'.repeat(Math.max(0, Number(q.get('pad'))))}-->`;
    head = head.slice(0, -FCC_MARKER.length) + pad + FCC_MARKER;
  }
  if (q.get('marker') === '0') head = head.slice(0, -FCC_MARKER.length);
  // Latin-1 bytes: "é" is 0xE9 alone, never valid UTF-8.
  return Buffer.from(head, q.get('latin1') ? 'latin1' : 'utf8');
}

function renderFcc(req, res, url, num) {
  const q = url.searchParams;
  const name = url.pathname.slice('/fcc/'.length) || 'page';
  const version = (q.get('version') || '1') + (q.get('latin1') ? '\u00e9' : '');
  const headers = { 'Content-Type': 'text/html; charset=utf-8' };
  if (q.get('enable') !== 'omit') headers['fcc-enable'] = q.get('enable') || 'true';
  if (q.has('rule')) headers['fcc-url-query-rule'] = q.get('rule');
  if (q.has('expire')) headers['fcc-expire-time'] = q.get('expire');
  if (q.has('ttl')) headers['fcc-expire-time'] = String(Date.now() + num('ttl', 0));
  const size = num('size', 2048);
  const restKey = `${name}/${size}`;
  if (!fccRestCache.has(restKey)) fccRestCache.set(restKey, Buffer.from(fccRest(name, size)));
  const rest = fccRestCache.get(restKey);
  const piece = num('piece', 0) > 0 ? num('piece', 0) : rest.length || 1;
  const justFirstChunk = req.headers['x-s-first-chunk'] === 'true';
  const cut = num('cut', -1);
  let gone = false;
  res.on('close', () => { gone = true; });
  const count = (n) => sentBytes.set(url.pathname, (sentBytes.get(url.pathname) || 0) + n);
  setTimeout(() => {
    if (gone) return undefined;
    const head = fccHead(name, version, q);
    // Header values go out as Latin-1: "é" is the single byte 0xE9.
    res.writeHead(200, { ...headers, 'fcc-version': version });
    res.write(head);
    count(head.length);
    if (justFirstChunk) return res.end();
    if (q.get('stall') === '1') return undefined;
    return setTimeout(() => {
      let sent = 0;
      const writeMore = () => {
        while (sent < rest.length) {
          if (gone) return undefined;
          if (cut >= 0 && sent >= cut) return setTimeout(() => dropConnection(req), 50);
          const end = Math.min(rest.length, sent + piece, cut >= 0 ? Math.max(cut, sent + 1) : Infinity);
          const part = rest.subarray(sent, end);
          sent += part.length;
          count(part.length);
          const ok = res.write(part);
          if (num('every', 0) > 0 && sent < rest.length) return setTimeout(writeMore, num('every', 0));
          if (!ok) return res.once('drain', writeMore);
        }
        return res.end();
      };
      writeMore();
    }, num('delay', 50));
  }, num('wait', 0));
}

// Resets the TCP connection under `req`, with no word at the TLS or HTTP/2
// level: over HTTP/2 every stream on it goes.
function dropConnection(req) {
  const socket = tcpSockets.get(req.socket.remotePort);
  if (socket) socket.resetAndDestroy();
}

function hold(req, res, q) {
  const name = q.get('group') || '';
  if (!holds.has(name)) holds.set(name, { arrived: 0, answered: 0, waiting: [], released: false });
  const group = holds.get(name);
  group.arrived += 1;
  const answer = (r) => {
    group.answered += 1;
    r.writeHead(200, { 'Content-Type': 'text/plain' });
    r.end(`held ${name}`);
  };
  if (group.released) return answer(res);
  group.waiting.push({ req, res });
  if (group.waiting.length < Number(q.get('n') || 1)) return undefined;
  group.released = true;
  const waiting = group.waiting.sort((a, b) => (a.req.stream ? a.req.stream.id - b.req.stream.id : 0));
  group.waiting = [];
  const goaway = Number(q.get('goaway') || 0);
  if (goaway > 0 && req.stream) {
    const last = waiting[Math.min(goaway, waiting.length) - 1].req.stream.id;
    req.stream.session.goaway(http2.constants.NGHTTP2_NO_ERROR, last);
    for (const held of waiting) if (held.req.stream.id <= last) answer(held.res);
    return undefined;
  }
  for (const held of waiting) answer(held.res);
  return undefined;
}

function handle(req, res) {
  const url = new URL(req.url, 'http://origin');
  const q = url.searchParams;
  const num = (name, fallback) => (q.has(name) ? Number(q.get(name)) : fallback);
  counts.set(url.pathname, (counts.get(url.pathname) || 0) + 1);
  if (url.pathname !== '/__seen') seen.set(url.pathname, req.headers);
  const route = url.pathname.split('/')[1];

  switch (route) {
    case 'bytes':
      return sendPattern(res, Number(url.pathname.split('/')[2] || 0), num('chunk', 0), num('delay', 0), {},
        q.get('random') ? (offset, n) => crypto.randomBytes(n) : pattern);
    case 'site': {
      const file = path.normalize(path.join(SITE, url.pathname.slice('/site'.length)));
      if (!file.startsWith(SITE) || !fs.existsSync(file) || fs.statSync(file).isDirectory()) {
        res.writeHead(404, { 'Content-Type': 'text/plain' });
        return res.end('not found');
      }
      const body = fs.readFileSync(file);
      res.writeHead(200, { 'Content-Type': MIME[path.extname(file)] || 'application/octet-stream',
        'Content-Length': body.length, 'Cache-Control': 'max-age=60' });
      return res.end(body);
    }
    case 'delay':
      return setTimeout(() => sendPattern(res, num('size', 16), num('chunk', 0), num('every', 0)),
        num('ms', 100));
    case 'echo': {
      const hash = crypto.createHash('sha256');
      const pieces = [];
      let length = 0;
      req.on('data', (piece) => {
        hash.update(piece);
        length += piece.length;
        if (q.has('raw')) pieces.push(piece);
      });
      req.on('end', () => {
        if (q.has('raw')) {
          res.writeHead(200, { 'Content-Type': 'application/octet-stream',
            'X-Upload-Chunked': String(req.headers['transfer-encoding'] === 'chunked'),
            'X-Upload-Expect': req.headers.expect || 'none' });
          return res.end(Buffer.concat(pieces));
        }
        const body = JSON.stringify({ method: req.method, length, sha256: hash.digest('hex'),
          chunked: req.headers['transfer-encoding'] === 'chunked', headers: req.headers });
        res.writeHead(200, { 'Content-Type': 'application/json' });
        res.end(body);
      });
      return undefined;
    }
    case 'headers':
      res.setHeader('Set-Cookie', ['a=1; Path=/', 'b=2; Path=/', 'c=3; Path=/']);
      res.setHeader('X-Multi', ['first', 'second']);
      res.writeHead(200, { 'Content-Type': 'application/json' });
      return res.end(JSON.stringify(req.headers));
    case 'ctype':
      res.writeHead(200, { 'Content-Type': q.get('value') || '' });
      return res.end('typed');
    case 'gzip': {
      const body = zlib.gzipSync(pattern(0, num('size', 100000)));
      res.writeHead(200, { 'Content-Type': 'application/octet-stream', 'Content-Encoding': 'gzip',
        'Content-Length': body.length });
      return res.end(body);
    }
    case 'redirect':
      res.writeHead(num('code', 302), { Location: q.get('to') || '/bytes/10' });
      return res.end();
    case 'status': {
      const code = Number(url.pathname.split('/')[2] || 500);
      res.writeHead(code, { 'Content-Type': 'text/plain' });
      return res.end(`status ${code}`);
    }
    case 'reset': {
      const after = num('after', 1000);
      res.writeHead(200, { 'Content-Type': 'application/octet-stream', 'Content-Length': after * 10 });
      return res.write(pattern(0, after), () => setTimeout(() => dropConnection(req), 50));
    }
    case 'rst': {
      const after = num('after', 1000);
      res.writeHead(200, { 'Content-Type': 'application/octet-stream', 'Content-Length': after * 10 });
      // Reset once the bytes have left: a stream closed with data still
      // queued would drop it.
      return res.write(pattern(0, after), () => setTimeout(() => (req.stream
        ? req.stream.close(http2.constants.NGHTTP2_INTERNAL_ERROR) : dropConnection(req)), 50));
    }
    case 'hold':
      return hold(req, res, q);
    case '__hold': {
      const group = holds.get(q.get('group')) || { arrived: 0, answered: 0 };
      res.writeHead(200, { 'Content-Type': 'application/json' });
      return res.end(JSON.stringify({ arrived: group.arrived, answered: group.answered }));
    }
    case '__tls':
      res.writeHead(200, { 'Content-Type': 'application/json' });
      return res.end(JSON.stringify(tls.stats));
    case 'stall': {
      res.writeHead(200, { 'Content-Type': 'application/octet-stream' });
      res.write(pattern(0, num('after', 100)));
      return undefined;  // never ends; the client gives up
    }
    case 'ssr': {
      res.writeHead(200, { 'Content-Type': 'text/html; charset=utf-8' });
      const chunks = num('chunks', 3);
      let i = 0;
      const next = () => {
        if (i === chunks) return res.end('</body></html>');
        res.write(i === 0 ? '<html><head><title>ssr</title></head><body>' : `<p>part ${i}</p>`);
        i += 1;
        return setTimeout(next, num('delay', 50));
      };
      return next();
    }
    case 'fcc':
      return renderFcc(req, res, url, num);
    case '__seen':
      res.writeHead(200, { 'Content-Type': 'application/json' });
      return res.end(JSON.stringify(seen.get(q.get('path')) || null));
    case '__sent':
      res.writeHead(200, { 'Content-Type': 'application/json' });
      return res.end(JSON.stringify({ bytes: sentBytes.get(q.get('path')) || 0 }));
    case '__connections':
      res.writeHead(200, { 'Content-Type': 'application/json' });
      return res.end(JSON.stringify({ count: openConnections }));
    case '__count':
      res.writeHead(200, { 'Content-Type': 'application/json' });
      return res.end(JSON.stringify({ count: counts.get(q.get('path')) || 0 }));
    default:
      res.writeHead(404, { 'Content-Type': 'text/plain' });
      return res.end('no such route');
  }
}

function trackConnection(socket) {
  openConnections += 1;
  const port = socket.remotePort;
  tcpSockets.set(port, socket);
  socket.once('close', () => {
    openConnections -= 1;
    tcpSockets.delete(port);
  });
}

async function main() {
  const args = process.argv.slice(2);
  const text = (name, fallback) => {
    const i = args.indexOf(name);
    return i >= 0 ? args[i + 1] : fallback;
  };
  const arg = (name, fallback) => Number(text(name, fallback));
  const server = http.createServer(handle);
  server.keepAliveTimeout = 30000;
  server.headersTimeout = 31000;
  server.on('connection', trackConnection);
  await new Promise((resolve) => server.listen(arg('--port', 0), '127.0.0.1', resolve));
  const ports = { port: server.address().port };
  const certsDir = text('--certs', process.env.VELORA_TEST_CERTS);
  if (certsDir) {
    const listening = await tls.listenTls(handle, makeCerts(certsDir), trackConnection);
    Object.assign(ports, { httpsPort: listening.https, https1Port: listening.https1,
      faults: listening.faults });
  }
  process.stdout.write(`${JSON.stringify(ports)}\n`);
  const stop = () => process.exit(0);
  setTimeout(stop, arg('--lifetime', 600) * 1000).unref();
  if (!process.stdin.isTTY) {
    process.stdin.on('end', stop);
    process.stdin.on('close', stop);
    process.stdin.resume();
  }
}

if (require.main === module) main();
module.exports = { pattern, handle, fccFirstChunk, fccRest, FCC_MARKER };
