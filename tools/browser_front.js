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
//     log(line) {} /* stderr by default */, maxBufferedBytes: 32 << 20 /* the default */ });
//   // chromium --proxy-server=http://127.0.0.1:${front.port} --proxy-bypass-list='<-loopback>'
//   await front.close();
//
// Only loopback targets are forwarded; anything else (Chromium's own update
// and sync hosts among them) is refused with 403, and CONNECT is refused too.
// The engine cannot be paused, so body bytes a client has not taken yet wait
// here, about 32 MiB of them at most per response (maxBufferedBytes): past the
// limit the load is stopped and the connection dropped, so a client that stops
// reading cannot make this process hold a whole body. A client that goes away
// has its load stopped at once. The margin is wide because a client reading as
// fast as it can falls up to ~17 MiB behind a local origin at times.
// Requests Node cannot parse get a status (431 for oversize headers) rather
// than a reset. Failures are logged, never thrown.
const http = require('node:http');
const net = require('node:net');

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

// The target of a proxied request, or null when it must not be forwarded.
function targetOf(req) {
  let url;
  try {
    url = new URL(req.url);
  } catch {
    return null;  // origin-form: a request for the proxy itself
  }
  if (url.protocol !== 'http:' || !isLoopbackHost(url.hostname)) return null;
  return url;
}

// Fields named in Connection are per-connection too.
function connectionFields(value) {
  return new Set(String(value || '').split(',').map((name) => name.trim().toLowerCase()).filter(Boolean));
}

function requestHeaders(rawHeaders, connection) {
  const perConnection = connectionFields(connection);
  const headers = [];
  for (let i = 0; i + 1 < rawHeaders.length; i += 2) {
    const name = rawHeaders[i].toLowerCase();
    if (!DROPPED_REQUEST_HEADERS.has(name) && !perConnection.has(name)) {
      headers.push([rawHeaders[i], rawHeaders[i + 1]]);
    }
  }
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

function refuse(res, status, message) {
  try {
    res.writeHead(status, { 'Content-Type': 'text/plain', Connection: 'close' });
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
// is the most body bytes that waited for the client at once while it lagged.
async function forward(req, res, target, options) {
  const web = options.component();
  if (!web) return refuse(res, 503, 'no web component to load into');
  const record = { url: target.href, method: req.method, mainFrame: isMainFrame(req.headers),
    status: 0, intercepted: false, error: null, bytes: 0, headers: [], aborted: false, stopped: null,
    buffered: 0, timing: null };
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
  // Once the load has ended there is nothing left to stop: a client leaving
  // now does not change what the load was.
  res.on('close', () => {
    if (loading && !res.writableFinished) stop('disconnected');
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
      if (res.socket && !res.socket.writable) {
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

function startBrowserFront(givenOptions) {
  const options = { ...givenOptions, maxBufferedBytes: givenOptions.maxBufferedBytes || MAX_BUFFERED_BYTES,
    log: givenOptions.log || ((line) => console.error(`browser front: ${line}`)) };
  const state = { log: options.log, lingering: new WeakSet(), responding: new WeakMap() };
  const server = http.createServer((req, res) => {
    countResponse(state.responding, req.socket, res);
    const target = targetOf(req);
    if (!target) {
      notify(options, 'onRefused', req.url);
      return refuse(res, 403, 'only loopback http targets are forwarded');
    }
    forward(req, res, target, options).catch((error) => {
      options.log(`${target.href}: ${error.stack || error.message}`);
      if (!res.headersSent) refuse(res, 500, error.message);
      else res.destroy();
    });
    return undefined;
  });
  server.on('connect', (req, socket) => {
    notify(options, 'onRefused', req.url);
    // The server no longer watches a socket it handed over: a browser that
    // resets it must not take the process down.
    socket.on('error', () => socket.destroy());
    socket.end('HTTP/1.1 403 Forbidden\r\nConnection: close\r\n\r\n');
  });
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
          for (const socket of sockets) socket.destroy();
          return new Promise((done) => server.close(() => done()));
        },
      });
    });
  });
}

module.exports = { startBrowserFront, isMainFrame, isLoopbackHost };
