'use strict';
// The browser front of the host engine: an HTTP proxy for Chromium
// (--proxy-server) that turns every request it receives into a load of a web
// component, so the page's requests reach the engine's scheme handler (and
// Velora, when the component is bound) exactly as a device page's would.
// The response streams back as it arrives: status and headers first, then
// the body piece by piece, so a cached first chunk paints before the live
// body comes.
//
//   const front = await startBrowserFront({ component: () => web, onRequest(record) {},
//     log(line) {} /* stderr by default */, maxBufferedBytes: 32 << 20 /* the default */,
//     names: ['news.harbor.test'] /* forwarded besides loopback */,
//     tls: { key, cert } /* PEM: answers CONNECT for those names, loopback too */,
//     missing: (url) => false /* true: answered 404 here, as if the site had no such file */ });
//   // chromium --proxy-server=http://127.0.0.1:${front.port} --proxy-bypass-list='<-loopback>'
//   //   --ignore-certificate-errors-spki-list=<SHA-256 of the key of tls.cert, base64>
//   await front.close();
//
// Only loopback targets and the given names are forwarded; names must be
// under .test, which never resolves on the internet: the engine reaches them
// through VELORA_RESOLVE. Anything else (Chromium's own update and sync hosts
// among them) is refused with 403. With `tls`, CONNECT to an allowed host and
// port opens a tunnel the front ends itself: it answers the TLS handshake
// with tls.cert, speaks HTTP/2 or HTTP/1.1 in it as the browser chose (ALPN),
// and loads each request as https://host:port/path, so that the engine and
// Velora fetch over HTTPS. A request in the tunnel for another origin than
// the one the tunnel was opened for gets 421. Without `tls` every CONNECT is
// refused.
// The engine cannot be paused, so body bytes a client has not taken yet wait
// here, about 32 MiB of them at most per response (maxBufferedBytes): past the
// limit the load is stopped and the connection (over HTTP/2 the stream)
// dropped, so a client that stops reading cannot make this process hold a
// whole body. A client that goes away (or resets its stream) has its load
// stopped at once. The margin is wide because a client reading as fast as it
// can falls up to ~17 MiB behind a local origin at times.
// HTTP/1.1 requests Node cannot parse get a status (431 for oversize headers)
// rather than a reset, in a tunnel too; an HTTP/2 stream whose header block is
// too large is refused by Node itself. Failures are logged, never thrown.
const crypto = require('node:crypto');
const http = require('node:http');
const http2 = require('node:http2');
const net = require('node:net');
const tls = require('node:tls');

// Per-connection fields, and those the engine sets itself.
const DROPPED_REQUEST_HEADERS = new Set(['connection', 'keep-alive', 'proxy-connection',
  'proxy-authorization', 'te', 'trailer', 'transfer-encoding', 'upgrade', 'host',
  'content-length', 'expect']);
const DROPPED_RESPONSE_HEADERS = new Set(['connection', 'keep-alive', 'proxy-connection',
  'proxy-authenticate', 'transfer-encoding', 'trailer', 'upgrade']);
const BODY_METHODS = new Set(['POST', 'PUT', 'PATCH', 'DELETE']);
const MAX_UPLOAD_BYTES = 64 * 1024 * 1024;
const MAX_BUFFERED_BYTES = 32 * 1024 * 1024;
// How long a connection answered for a malformed request still reads (and
// drops) what its client sends, so that closing it does not reset the
// connection before the client has read the answer.
const CLIENT_ERROR_LINGER_MS = 1000;
const MAX_TUNNEL_ORIGINS = 64;
const CLIENT_ERROR_STATUS = { HPE_HEADER_OVERFLOW: 431, HPE_CHUNK_EXTENSIONS_OVERFLOW: 413,
  ERR_HTTP_REQUEST_TIMEOUT: 408 };

// Names other than "localhost" are not trusted to resolve to loopback.
function isLoopbackHost(hostname) {
  const host = hostname.replace(/^\[|\]$/g, '').toLowerCase();
  if (host === 'localhost') return true;
  if (net.isIPv4(host)) return host.split('.')[0] === '127';
  if (net.isIPv6(host)) return host === '::1' || host === '0:0:0:0:0:0:0:1';
  return false;
}

// A main frame is a top-level navigation. Chromium names the destination on
// potentially trustworthy origins (loopback among them); elsewhere a
// navigation still asks for an upgrade and for HTML.
function isMainFrame(headers) {
  const dest = headers['sec-fetch-dest'];
  if (dest !== undefined) return dest === 'document';
  return headers['upgrade-insecure-requests'] === '1' && /text\/html/i.test(headers.accept || '');
}

// A host name a front may be told to forward: one under .test (RFC 6761),
// so that no configuration can send the engine to a real server.
function isTestName(name) {
  return typeof name === 'string' && name.length <= 253 &&
    /^([a-z0-9]([a-z0-9-]*[a-z0-9])?\.)+test$/.test(name);
}

// Whether `hostname` (as URL parses it) may be forwarded to.
function allowedHost(hostname, names) {
  return isLoopbackHost(hostname) || names.has(hostname.toLowerCase());
}

// The target of a proxied request, or null when it must not be forwarded.
function targetOf(req, names) {
  let url;
  try {
    url = new URL(req.url);
  } catch {
    return null;  // origin-form: a request for the proxy itself
  }
  if (url.protocol !== 'http:' || !allowedHost(url.hostname, names)) return null;
  return url;
}

// The origin a CONNECT request asks a tunnel to ("host:port", the port
// required), or null when it is malformed or not allowed.
function tunnelOrigin(authority, names) {
  const match = /^(\[[0-9a-fA-F:.]+\]|[^\s:/?#@[\]]+):([0-9]{1,5})$/.exec(String(authority));
  if (!match || Number(match[2]) < 1 || Number(match[2]) > 65535) return null;
  let url;
  try {
    url = new URL(`https://${match[1]}:${match[2]}/`);
  } catch {
    return null;
  }
  return allowedHost(url.hostname, names) ? url.origin : null;
}

// Fields named in Connection are per-connection too.
function connectionFields(value) {
  return new Set(String(value || '').split(',').map((name) => name.trim().toLowerCase()).filter(Boolean));
}

// HTTP/2 pseudo-header fields (":path") stay here; the cookie fields HTTP/2
// sends one per cookie become one line, as HTTP/1.1 has it.
function requestHeaders(rawHeaders, connection) {
  const perConnection = connectionFields(connection);
  const headers = [];
  const cookies = [];
  for (let i = 0; i + 1 < rawHeaders.length; i += 2) {
    const name = rawHeaders[i].toLowerCase();
    if (name.startsWith(':') || DROPPED_REQUEST_HEADERS.has(name) || perConnection.has(name)) continue;
    if (name === 'cookie') cookies.push(rawHeaders[i + 1]);
    else headers.push([rawHeaders[i], rawHeaders[i + 1]]);
  }
  if (cookies.length > 0) headers.push(['Cookie', cookies.join('; ')]);
  return headers;
}

// Engine headers as the flat list writeHead takes, without per-connection
// fields; values with CR or LF never reach the wire.
function responseHeaders(pairs) {
  const connection = pairs.filter(([name]) => name.toLowerCase() === 'connection').map(([, v]) => v);
  const perConnection = connectionFields(connection.join(','));
  const flat = [];
  for (const [name, value] of pairs) {
    const lower = name.toLowerCase();
    if (DROPPED_RESPONSE_HEADERS.has(lower) || perConnection.has(lower) || /[\r\n\0]/.test(name + value)) {
      continue;
    }
    flat.push(name, value);
  }
  return flat;
}

// An HTTP/2 response (res.stream) ends its stream; it has no Connection field.
function refuse(res, status, message) {
  try {
    res.writeHead(status, res.stream ? { 'Content-Type': 'text/plain' }
      : { 'Content-Type': 'text/plain', Connection: 'close' });
    res.end(`${message}\n`);
  } catch {
    res.destroy();
  }
}

// A caller's callback that throws is logged; the proxy goes on.
function notify(options, name, value) {
  if (!options[name]) return;
  try {
    options[name](value);
  } catch (error) {
    options.log(`${name} threw: ${error.stack || error.message}`);
  }
}

class UploadTooLarge extends Error {}

function readBody(req) {
  return new Promise((resolve, reject) => {
    const pieces = [];
    let size = 0;
    const onData = (piece) => {
      size += piece.length;
      if (size > MAX_UPLOAD_BYTES) {
        req.off('data', onData);
        req.resume();  // the rest is read and dropped while the answer goes out
        reject(new UploadTooLarge(`uploads are limited to ${MAX_UPLOAD_BYTES} bytes`));
        return;
      }
      pieces.push(piece);
    };
    req.on('data', onData);
    req.on('end', () => resolve(Buffer.concat(pieces, size)));
    req.on('error', reject);
  });
}

// One proxied request: the load, its streaming, and what it became.
// record.stopped says why the front stopped a load ('disconnected': the
// client went away; 'backpressure': it fell too far behind); record.buffered
// is the most body bytes that waited for the client at once while it lagged;
// record.protocol is what the browser spoke to the front ('h2', 'http/1.1').
async function forward(req, res, target, options) {
  if (options.missing && options.missing(target)) return refuse(res, 404, 'not part of this site');
  const web = options.component();
  if (!web) return refuse(res, 503, 'no web component to load into');
  const record = { url: target.href, method: req.method, mainFrame: isMainFrame(req.headers),
    protocol: req.httpVersionMajor === 2 ? 'h2' : 'http/1.1', status: 0, intercepted: false,
    error: null, bytes: 0, headers: [], aborted: false, stopped: null, buffered: 0, timing: null };
  const abort = new AbortController();
  let clientGone = false;
  let loading = true;
  // Destroying the response destroys its connection, and with it every body
  // byte queued for the client.
  const stop = (reason) => {
    if (record.stopped) return;
    clientGone = true;
    record.aborted = true;
    record.stopped = reason;
    abort.abort();
    res.destroy();
  };
  // Once the load has ended, or the front itself answered, there is nothing
  // left to stop: a client leaving now does not change what the load was.
  // (An HTTP/2 stream the client reset reads as finished: what counts is
  // whether the front ended it.)
  res.on('close', () => {
    if (loading && !res.writableEnded) stop('disconnected');
  });
  let body;
  try {
    body = await readBody(req);
  } catch (error) {
    if (error instanceof UploadTooLarge) return refuse(res, 413, error.message);
    return res.destroy();
  }
  if (clientGone) return undefined;
  const maxBuffered = options.maxBufferedBytes;
  const load = {
    url: target.href,
    method: req.method,
    headers: requestHeaders(req.rawHeaders, req.headers.connection),
    mainFrame: record.mainFrame,
    followRedirects: false,  // the browser follows them itself
    keepBody: false,
    signal: abort.signal,
    onResponse(status, headers) {
      if (clientGone) return;
      record.status = status;
      record.headers = headers;
      try {
        res.writeHead(status, responseHeaders(headers));
        res.flushHeaders();
      } catch (error) {  // a status or header value HTTP cannot carry
        record.error = `unsendable response: ${error.message}`;
        clientGone = true;
        abort.abort();
        refuse(res, 502, record.error);
      }
    },
    onData(chunk) {
      if (clientGone) return;
      // A client that half-closed had its connection ended by the server;
      // nothing written from now on would reach it.
      if (!res.stream && res.socket && !res.socket.writable) {
        stop('disconnected');
        return;
      }
      if (res.write(chunk)) return;
      const waiting = res.writableLength;
      if (waiting > record.buffered) record.buffered = waiting;
      if (waiting > maxBuffered) {
        options.log(`${target.href}: stopped, ${waiting} bytes waiting for a client that fell behind`);
        stop('backpressure');
      }
    },
  };
  if (body.length > 0 || BODY_METHODS.has(req.method)) load.body = body;
  let result;
  try {
    result = await web.load(load);
  } catch (error) {
    result = { error: -2, status: 0, intercepted: false, bodySize: 0, timing: null, message: error.message };
  }
  loading = false;
  record.intercepted = result.intercepted;
  record.error = record.error || result.error;
  record.bytes = result.bodySize;
  record.timing = result.timing;
  if (result.error === null) record.status = result.status;
  if (!clientGone) {
    if (result.error === null && !res.headersSent) {
      res.writeHead(result.status, responseHeaders(result.headers));
      res.end();
    } else if (result.error === null) {
      res.end();
    } else if (!res.headersSent) {
      refuse(res, 502, `load failed: ${result.message || `net error ${result.error}`}`);
    } else {
      res.destroy();  // a body cut short must look cut short
    }
  }
  notify(options, 'onRequest', record);
  return undefined;
}

// Node answers a request it cannot parse itself only while nobody listens
// for 'clientError'; the front listens (to log it), so it answers the same
// way. A connection with a response under way is reset instead: bytes
// written now would land inside that response.
function answerClientError(error, socket, state) {
  if (state.lingering.has(socket)) return;  // the parser repeats itself on what still arrives
  if (error.code !== 'ECONNRESET') state.log(`client error: ${error.code || error.message}`);
  if (!socket.writable || state.responding.get(socket)) {
    socket.destroy();
    return;
  }
  const status = CLIENT_ERROR_STATUS[error.code] || 400;
  const message = `${http.STATUS_CODES[status]}\n`;
  state.lingering.add(socket);
  try {
    socket.end(`HTTP/1.1 ${status} ${http.STATUS_CODES[status]}\r\nContent-Type: text/plain\r\n` +
      `Content-Length: ${message.length}\r\nConnection: close\r\n\r\n${message}`);
  } catch {
    socket.destroy();
    return;
  }
  socket.resume();
  const timer = setTimeout(() => socket.destroy(), CLIENT_ERROR_LINGER_MS);
  timer.unref();
  socket.once('close', () => clearTimeout(timer));
}

// How many responses each connection has under way.
function countResponse(responding, socket, res) {
  responding.set(socket, (responding.get(socket) || 0) + 1);
  res.once('close', () => responding.set(socket, responding.get(socket) - 1));
}

// Serves one tunnel origin's requests: those naming another origin get 421,
// as a connection the browser wrongly reused for a second origin should.
function tunnelRequest(req, res, origin, options, state) {
  if (req.httpVersionMajor === 1) countResponse(state.responding, req.socket, res);
  const authority = req.headers[':authority'] || req.headers.host || '';
  let target = null;
  try {
    if (new URL(`https://${authority}/`).origin === origin && req.url.startsWith('/')) {
      target = new URL(req.url, origin);
    }
  } catch {
    target = null;
  }
  if (!target) {
    notify(options, 'onRefused', `${origin} ${authority} ${req.url}`);
    return refuse(res, 421, `this connection serves ${origin} only`);
  }
  forward(req, res, target, options).catch((error) => {
    options.log(`${target.href}: ${error.stack || error.message}`);
    if (!res.headersSent) refuse(res, 500, error.message);
    else res.destroy();
  });
  return undefined;
}

// The TLS server of one tunnel origin, made on its first CONNECT: it never
// listens, CONNECT hands it the browser's connections. Its handler knows the
// one origin those may ask for. All servers take the same session tickets,
// so a server made again for an origin still resumes its sessions.
function tunnelServer(origin, options, state) {
  let server = state.tunnels.get(origin);
  if (server) return server;
  server = http2.createSecureServer({ ...state.tls, ticketKeys: state.ticketKeys, allowHTTP1: true,
    minVersion: 'TLSv1.2' },
  (req, res) => tunnelRequest(req, res, origin, options, state));
  server.keepAliveTimeout = 30000;
  server.on('clientError', (error, socket) => answerClientError(error, socket, state));
  server.on('tlsClientError', (error) => {
    if (error.code !== 'ECONNRESET') options.log(`TLS with the browser for ${origin} failed: ${error.message}`);
  });
  server.on('sessionError', (error) => {
    if (error.code !== 'ECONNRESET') options.log(`HTTP/2 session for ${origin}: ${error.message}`);
  });
  server.on('session', (session) => {
    state.sessions.add(session);
    session.once('close', () => state.sessions.delete(session));
  });
  // Tunnels to many loopback ports are possible: only the latest origins'
  // servers are kept (one dropped here still serves its open connections).
  if (state.tunnels.size >= MAX_TUNNEL_ORIGINS) state.tunnels.delete(state.tunnels.keys().next().value);
  state.tunnels.set(origin, server);
  return server;
}

// CONNECT host:port: a tunnel the front ends itself when it has a key and
// the target is allowed; a 403 otherwise, before any tunnel opens.
function answerConnect(req, socket, head, options, state) {
  // The server no longer watches a socket it handed over: a browser that
  // resets it must not take the process down.
  socket.on('error', () => socket.destroy());
  const origin = state.tls ? tunnelOrigin(req.url, state.names) : null;
  if (!origin) {
    notify(options, 'onRefused', req.url);
    socket.end('HTTP/1.1 403 Forbidden\r\nConnection: close\r\n\r\n');
    return;
  }
  socket.write('HTTP/1.1 200 Connection Established\r\n\r\n');
  if (head.length > 0) socket.unshift(head);
  tunnelServer(origin, options, state).emit('connection', socket);
}

function startBrowserFront(givenOptions) {
  const options = { ...givenOptions, maxBufferedBytes: givenOptions.maxBufferedBytes || MAX_BUFFERED_BYTES,
    log: givenOptions.log || ((line) => console.error(`browser front: ${line}`)) };
  const names = (givenOptions.names || []).map((name) => String(name).toLowerCase());
  const notTest = names.filter((name) => !isTestName(name));
  if (notTest.length > 0) {
    return Promise.reject(new Error(`browser front: only names under .test are forwarded, not ${notTest.join(', ')}`));
  }
  const state = { log: options.log, lingering: new WeakSet(), responding: new WeakMap(),
    names: new Set(names), tunnels: new Map(), sessions: new Set(), tls: null, ticketKeys: null };
  if (givenOptions.tls) {
    try {
      state.tls = { key: givenOptions.tls.key, cert: givenOptions.tls.cert };
      tls.createSecureContext(state.tls);  // throws now rather than at the first CONNECT
    } catch (error) {
      return Promise.reject(new Error(`browser front: the TLS key or certificate is unusable: ${error.message}`));
    }
    state.ticketKeys = crypto.randomBytes(48);
  }
  const server = http.createServer((req, res) => {
    countResponse(state.responding, req.socket, res);
    const target = targetOf(req, state.names);
    if (!target) {
      notify(options, 'onRefused', req.url);
      return refuse(res, 403, 'only loopback and configured .test http targets are forwarded');
    }
    forward(req, res, target, options).catch((error) => {
      options.log(`${target.href}: ${error.stack || error.message}`);
      if (!res.headersSent) refuse(res, 500, error.message);
      else res.destroy();
    });
    return undefined;
  });
  server.on('connect', (req, socket, head) => answerConnect(req, socket, head, options, state));
  server.on('clientError', (error, socket) => answerClientError(error, socket, state));
  const sockets = new Set();
  server.on('connection', (socket) => {
    sockets.add(socket);
    socket.on('close', () => sockets.delete(socket));
  });
  return new Promise((resolve, reject) => {
    server.once('error', reject);
    server.listen(0, '127.0.0.1', () => {
      resolve({
        port: server.address().port,
        proxy: `http://127.0.0.1:${server.address().port}`,
        close() {
          for (const session of state.sessions) session.destroy();
          for (const socket of sockets) socket.destroy();
          return new Promise((done) => server.close(() => done()));
        },
      });
    });
  });
}

// The pin Chromium takes for the front's certificate
// (--ignore-certificate-errors-spki-list): SHA-256 of its public key, base64.
function spkiHash(certPem) {
  const spki = crypto.createPublicKey(certPem).export({ type: 'spki', format: 'der' });
  return crypto.createHash('sha256').update(spki).digest('base64');
}

module.exports = { startBrowserFront, isMainFrame, isLoopbackHost, isTestName, tunnelOrigin, spkiHash };
