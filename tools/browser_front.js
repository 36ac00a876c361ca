'use strict';
// The browser front of the host engine: an HTTP proxy for Chromium
// (--proxy-server) that turns every request it receives into a load of a web
// component, so the page's requests reach the engine's scheme handler (and
// Velora, when the component is bound) exactly as a device page's would.
// The response streams back as it arrives: status and headers first, then
// the body piece by piece, so a cached first chunk paints before the live
// body comes.
//
//   const front = await startBrowserFront({ component: () => web, onRequest(record) {} });
//   // chromium --proxy-server=http://127.0.0.1:${front.port} --proxy-bypass-list='<-loopback>'
//   await front.close();
//
// Only loopback targets are forwarded; anything else (Chromium's own update
// and sync hosts among them) is refused with 403, and CONNECT is refused too.
// The engine cannot be paused, so a client that reads slower than the
// origin sends has the difference buffered here.
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
  res.writeHead(status, { 'Content-Type': 'text/plain', Connection: 'close' });
  res.end(`${message}\n`);
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
async function forward(req, res, target, options) {
  const web = options.component();
  if (!web) return refuse(res, 503, 'no web component to load into');
  const record = { url: target.href, method: req.method, mainFrame: isMainFrame(req.headers),
    status: 0, intercepted: false, error: null, bytes: 0, headers: [], aborted: false, timing: null };
  const abort = new AbortController();
  let clientGone = false;
  res.on('close', () => {
    if (!res.writableFinished) {
      clientGone = true;
      record.aborted = true;
      abort.abort();
    }
  });
  let body;
  try {
    body = await readBody(req);
  } catch (error) {
    if (error instanceof UploadTooLarge) return refuse(res, 413, error.message);
    return res.destroy();
  }
  if (clientGone) return undefined;
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
      if (!clientGone) res.write(chunk);
    },
  };
  if (body.length > 0 || BODY_METHODS.has(req.method)) load.body = body;
  let result;
  try {
    result = await web.load(load);
  } catch (error) {
    result = { error: -2, status: 0, intercepted: false, bodySize: 0, timing: null, message: error.message };
  }
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
  if (options.onRequest) options.onRequest(record);
  return undefined;
}

function startBrowserFront(options) {
  const server = http.createServer((req, res) => {
    const target = targetOf(req);
    if (!target) {
      if (options.onRefused) options.onRefused(req.url);
      return refuse(res, 403, 'only loopback http targets are forwarded');
    }
    forward(req, res, target, options).catch((error) => {
      if (!res.headersSent) refuse(res, 500, error.message);
      else res.destroy();
    });
    return undefined;
  });
  server.on('connect', (req, socket) => {
    if (options.onRefused) options.onRefused(req.url);
    // The server no longer watches a socket it handed over: a browser that
    // resets it must not take the process down.
    socket.on('error', () => socket.destroy());
    socket.end('HTTP/1.1 403 Forbidden\r\nConnection: close\r\n\r\n');
  });
  server.on('clientError', (error, socket) => socket.destroy());
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
