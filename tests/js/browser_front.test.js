'use strict';
// The browser front: an HTTP proxy whose requests become loads of a web
// component (bound to Velora or not), streamed back as they arrive.
const { test, before, after } = require('node:test');
const assert = require('node:assert/strict');
const crypto = require('node:crypto');
const http = require('node:http');
const { promisify } = require('node:util');
const execFile = promisify(require('node:child_process').execFile);
const net = require('node:net');
const path = require('node:path');
const { inProcessSuite, ROOT } = require('./helpers');
const { pattern } = require('../origin/server.js');

const { startBrowserFront, isMainFrame, isLoopbackHost } = require(path.join(ROOT, 'tools', 'browser_front.js'));

const suite = inProcessSuite('velora-front-');
const { host, velora, events } = suite;
const components = {};
let current = null;
let front = null;
const records = [];
const refused = [];
const logged = [];
const MAX_BUFFERED = 32 << 20;  // the front's default

before(async () => {
  components.velora = host.createWebComponent('front-velora');
  velora.webviewNativeInit({ webTag: 'front-velora', prefetchId: '', prefetchUrl: '' });
  velora.webviewNativeAttach({ webTag: 'front-velora' });
  components.engine = host.createWebComponent('front-engine');
  front = await startBrowserFront({ component: () => current, onRequest: (r) => records.push(r),
    onRefused: (url) => refused.push(url), log: (line) => logged.push(line) });
});

after(async () => {
  await front.close();
  components.velora.destroy();
  components.engine.destroy();
});

// A request through the front as a browser sends it: the absolute URL as target.
function viaFront(url, { method = 'GET', headers = {}, body, onResponse, onData } = {}) {
  return new Promise((resolve, reject) => {
    const req = http.request({ host: '127.0.0.1', port: front.port, path: url, method, headers });
    req.on('response', (res) => {
      if (onResponse) onResponse(res, req);
      const pieces = [];
      res.on('data', (piece) => {
        pieces.push(piece);
        if (onData) onData(piece, req);
      });
      res.on('end', () => resolve({ status: res.statusCode, headers: res.headers, rawHeaders: res.rawHeaders,
        body: Buffer.concat(pieces) }));
      res.on('error', reject);
    });
    req.on('error', reject);
    req.end(body);
  });
}

const waitFor = async (check, ms = 5000) => {
  for (const end = Date.now() + ms; Date.now() < end;) {
    if (await check()) return;
    await new Promise((resolve) => setTimeout(resolve, 10));
  }
  assert.fail('timed out waiting');
};

for (const kind of ['velora', 'engine']) {
  test(`${kind}: status and headers come before the body, the body piece by piece`, async () => {
    current = components[kind];
    const url = suite.origin.url(`/bytes/300000?chunk=60000&delay=80&via=${kind}`);
    let headersAt = 0;
    const arrivals = [];
    const res = await viaFront(url, {
      onResponse() { headersAt = Date.now(); },
      onData() { arrivals.push(Date.now()); },
    });
    const doneAt = Date.now();
    assert.equal(res.status, 200);
    assert.ok(res.body.equals(pattern(0, 300000)));
    assert.ok(doneAt - headersAt >= 250, `headers came ${doneAt - headersAt} ms before the end`);
    assert.ok(arrivals.length >= 3 && arrivals[arrivals.length - 1] - arrivals[0] >= 200,
      'the body was held back and sent at once');
    await waitFor(() => records.some((r) => r.url === url));
    const record = records.find((r) => r.url === url);
    assert.equal(record.intercepted, kind === 'velora');
    assert.equal(record.bytes, 300000);
    assert.equal(record.error, null);
  });
}

test('repeated response headers pass through; per-connection ones do not', async () => {
  current = components.velora;
  const res = await viaFront(suite.origin.url('/headers'), { headers: { 'Proxy-Connection': 'keep-alive',
    'X-Client': 'one', Connection: 'X-Hop', 'X-Hop': 'secret' } });
  assert.equal(res.status, 200);
  assert.deepEqual(res.headers['set-cookie'], ['a=1; Path=/', 'b=2; Path=/', 'c=3; Path=/']);
  const seen = JSON.parse(res.body);
  assert.equal(seen['x-client'], 'one');
  assert.equal(seen['proxy-connection'], undefined);
  assert.equal(seen['x-hop'], undefined);
});

test('a response HTTP cannot carry is a 502; a body cut short stays cut short', async () => {
  for (const kind of ['velora', 'engine']) {
    current = components[kind];
    // A Latin-1 byte in a header reaches script as U+FFFD, which no header may hold.
    const bad = await viaFront(suite.origin.url(`/ctype?value=%C3%A9&via=${kind}`));
    assert.equal(bad.status, 502, kind);
    assert.match(String(bad.body), /unsendable response/);

    const cut = await new Promise((resolve, reject) => {
      const req = http.request({ host: '127.0.0.1', port: front.port,
        path: suite.origin.url(`/reset?after=1000&via=${kind}`) });
      req.on('response', (res) => {
        let bytes = 0;
        let ended = false;
        res.on('data', (piece) => { bytes += piece.length; });
        res.on('end', () => { ended = true; });
        res.on('error', () => {});
        res.on('close', () => resolve({ status: res.statusCode, bytes, ended,
          length: Number(res.headers['content-length']) }));
      });
      req.on('error', reject);
      req.end();
    });
    assert.equal(cut.status, 200, kind);
    assert.equal(cut.ended, false, `${kind}: a cut-short body looked complete`);
    assert.ok(cut.bytes < cut.length, kind);
  }
});

test('uploads reach the origin byte-exact, and an empty POST stays a POST', async () => {
  for (const kind of ['velora', 'engine']) {
    current = components[kind];
    const body = crypto.randomBytes(200000);
    const res = await viaFront(suite.origin.url('/echo'), { method: 'POST', body,
      headers: { 'Content-Type': 'application/octet-stream', 'Content-Length': body.length } });
    const echo = JSON.parse(res.body);
    assert.equal(echo.method, 'POST', kind);
    assert.equal(echo.length, body.length, kind);
    assert.equal(echo.sha256, crypto.createHash('sha256').update(body).digest('hex'), kind);
    const empty = JSON.parse((await viaFront(suite.origin.url('/echo'), { method: 'POST' })).body);
    assert.equal(empty.method, 'POST', kind);
    assert.equal(empty.length, 0, kind);
  }
  const huge = await viaFront(suite.origin.url('/echo?huge=1'), { method: 'POST', body: Buffer.alloc(65 << 20) });
  assert.equal(huge.status, 413);
  assert.equal(await suite.origin.count('/echo'), 4, 'an oversized upload was forwarded');
});

test('only loopback http targets are forwarded', async () => {
  current = components.velora;
  const before = records.length;
  for (const target of ['http://example.com/', 'http://10.0.0.1:8080/x', 'http://127.0.0.1.example.com/',
    '/relative/path']) {
    const res = await viaFront(target);
    assert.equal(res.status, 403, target);
  }
  // CONNECT (https) is refused before any tunnel opens; a browser that then
  // resets the connection leaves the front running.
  const status = await new Promise((resolve, reject) => {
    const req = http.request({ host: '127.0.0.1', port: front.port, method: 'CONNECT',
      path: 'update.example.com:443' });
    req.on('connect', (res, socket) => {
      socket.resetAndDestroy();
      resolve(res.statusCode);
    });
    req.on('response', (res) => resolve(res.statusCode));
    req.on('error', reject);
    req.end();
  });
  assert.equal(status, 403);
  await new Promise((resolve) => setTimeout(resolve, 50));
  assert.equal(records.length, before, 'a refused request was loaded');
  assert.ok(refused.includes('http://example.com/') && refused.includes('update.example.com:443'));

  const cases = [['localhost', true], ['LOCALHOST', true], ['app.localhost', false], ['127.0.0.1', true],
    ['127.9.8.7', true], ['[::1]', true], ['::1', true], ['example.com', false],
    ['localhost.example.com', false], ['128.0.0.1', false], ['[::2]', false], ['0.0.0.0', false]];
  for (const [name, loopback] of cases) assert.equal(isLoopbackHost(name), loopback, name);
});

test('a main frame is what Chromium marks as a document, or an HTML navigation', async () => {
  const cases = [
    [{ 'sec-fetch-dest': 'document' }, true],
    [{ 'sec-fetch-dest': 'iframe', accept: 'text/html', 'upgrade-insecure-requests': '1' }, false],
    [{ 'sec-fetch-dest': 'image' }, false],
    [{ 'upgrade-insecure-requests': '1', accept: 'text/html,application/xhtml+xml' }, true],
    [{ 'upgrade-insecure-requests': '1', accept: 'image/avif' }, false],
    [{ accept: 'text/html' }, false],
  ];
  for (const [headers, main] of cases) assert.equal(isMainFrame(headers), main, JSON.stringify(headers));

  // The flag reaches the module: a document request is intercepted as the page's HTML.
  current = components.velora;
  const page = suite.origin.url('/site/index.html?frame=main');
  const image = suite.origin.url('/site/assets/logo.svg?frame=sub');
  await viaFront(page, { headers: { 'Sec-Fetch-Dest': 'document' } });
  await viaFront(image, { headers: { 'Sec-Fetch-Dest': 'image' } });
  const logged = (url) => events('request').find((e) => e.fields.url === url);
  assert.equal(logged(page).fields.isHTML, true);
  assert.equal(logged(image).fields.isHTML, false);
});

// Sends raw bytes to the front; resolves with what came back before the
// connection closed (empty when it was reset).
function rawExchange(text) {
  return new Promise((resolve) => {
    const socket = net.connect(front.port, '127.0.0.1');
    const pieces = [];
    socket.on('data', (piece) => pieces.push(piece));
    socket.on('error', () => {});
    socket.on('close', () => resolve(Buffer.concat(pieces).toString('latin1')));
    socket.write(text);
  });
}

test('a request Node cannot parse gets a status and a closed connection, not a reset', async () => {
  // Its own URL: records of earlier tests may still be arriving.
  const target = suite.origin.url('/bytes/10?unparsed=1');
  const oversize = await rawExchange(`GET ${target} HTTP/1.1\r\nHost: x\r\nX-Big: ${'a'.repeat(100000)}\r\n\r\n`);
  assert.match(oversize, /^HTTP\/1\.1 431 Request Header Fields Too Large\r\n/);
  assert.match(oversize, /\r\nConnection: close\r\n/i);
  const malformed = await rawExchange(`GET ${target} HTTP/1.1\r\nHost: x\r\nno colon here\r\n\r\n`);
  assert.match(malformed, /^HTTP\/1\.1 400 Bad Request\r\n/);
  assert.ok(!records.some((r) => r.url === target), 'a request that could not be parsed was loaded');
  assert.ok(logged.some((line) => /HPE_HEADER_OVERFLOW/.test(line)), 'the oversize request was not logged');
});

// A GET written on a raw connection, as a client that may stop reading sends it.
function rawGet(url) {
  const socket = net.connect(front.port, '127.0.0.1');
  socket.on('error', () => {});
  socket.write(`GET ${url} HTTP/1.1\r\nHost: ${new URL(url).host}\r\n\r\n`);
  return socket;
}

// Body bytes the origin has written so far to requests of `pathname`.
const sentByOrigin = async (pathname) =>
  (await (await fetch(suite.origin.url(`/__sent?path=${pathname}`))).json()).bytes;

// The origin wrote nothing more over 300 ms: the load is over at its end too.
async function originStopped(pathname) {
  const first = await sentByOrigin(pathname);
  await new Promise((resolve) => setTimeout(resolve, 300));
  return { first, stopped: (await sentByOrigin(pathname)) === first };
}

test('what waits for a slow client is bounded: a reader gets a fast body whole, a non-reader is dropped',
  { timeout: 150000 }, async () => {
    for (const [kind, offset] of [['velora', 0], ['engine', 1]]) {
      current = components[kind];
      // A client reading as fast as it can lags a local origin by megabytes
      // at times; that must not cost it the body. It reads in a process of
      // its own, as a browser does, not on the front's event loop.
      const whole = (64 << 20) + offset;
      const readUrl = suite.origin.url(`/bytes/${whole}?reader=${kind}`);
      // Without the sanitizer runtime the suites may preload: curl is not
      // built for it.
      const env = { ...process.env };
      delete env.LD_PRELOAD;
      const { stdout } = await execFile('curl', ['-s', '-o', '/dev/null', '-w', '%{size_download}',
        '--max-time', '50', '-x', `http://127.0.0.1:${front.port}`, readUrl],
      { env, timeout: 60000 });
      assert.equal(Number(stdout), whole, `${kind}: a reading client lost its body`);

      const size = (128 << 20) + offset;
      const pathname = `/bytes/${size}`;
      const url = suite.origin.url(`${pathname}?stalled=${kind}`);
      const socket = rawGet(url);
      socket.pause();
      try {
        await waitFor(() => records.some((r) => r.url === url), 20000);
        const origin = await originStopped(pathname);
        assert.ok(origin.stopped, `${kind}: the origin kept sending`);
        assert.ok(origin.first < size / 2, `${kind}: ${origin.first} of ${size} bytes went out`);
        const record = records.find((r) => r.url === url);
        assert.notEqual(record.error, null, kind);
        assert.equal(record.stopped, 'backpressure', kind);
        // Checked after every write that found the client behind: at most one
        // engine piece (up to 1 MiB) past the limit.
        assert.ok(record.buffered > MAX_BUFFERED && record.buffered <= MAX_BUFFERED + (1 << 20),
          `${kind}: ${record.buffered} bytes waited`);
        // The connection was dropped: the client finds its end once it reads.
        const got = await new Promise((resolve) => {
          let bytes = 0;
          socket.on('data', (piece) => { bytes += piece.length; });
          socket.on('close', () => resolve(bytes));
          socket.resume();
        });
        assert.ok(got < size, `${kind}: the whole body reached a client that was dropped`);
      } finally {
        socket.destroy();
      }
    }
  });

// Reads until the first body piece, then drops the connection.
function dropAfterFirstPiece(url) {
  return new Promise((resolve, reject) => {
    const req = http.request({ host: '127.0.0.1', port: front.port, path: url });
    req.on('response', (res) => {
      res.once('data', () => req.destroy());
      res.on('close', resolve);
    });
    req.on('error', () => {});
    req.on('close', resolve);
    setTimeout(() => reject(new Error('no body came')), 10000).unref();
    req.end();
  });
}

// Sends the request, reads nothing, and half-closes once more of the body
// has come than the kernel's socket buffers hold (a few MiB). The server ends
// such a connection from its side, but what it still has queued for the
// client keeps the connection open.
async function stopReadingThenHalfClose(url) {
  const socket = rawGet(url);
  socket.pause();
  const pathname = new URL(url).pathname;
  await waitFor(async () => (await sentByOrigin(pathname)) > 12 << 20);
  socket.end();
  return socket;
}

test('a browser that goes away mid-body stops the load and the transfer', async () => {
  let offset = 0;
  for (const kind of ['velora', 'engine']) {
    for (const leave of [stopReadingThenHalfClose, dropAfterFirstPiece]) {
      current = components[kind];
      const size = (200 << 20) + offset;
      offset += 1;
      const pathname = `/bytes/${size}`;
      const url = suite.origin.url(`${pathname}?chunk=262144&delay=10`);
      const how = `${kind}, ${leave.name}`;
      const socket = await leave(url);
      try {
        await waitFor(() => records.some((r) => r.url === url));
      } finally {
        if (socket) socket.destroy();
      }
      const record = records.find((r) => r.url === url);
      assert.equal(record.aborted, true, how);
      assert.notEqual(record.error, null, how);
      const origin = await originStopped(pathname);
      assert.ok(origin.stopped, `${how}: the origin kept sending`);
      assert.ok(origin.first < 50 << 20, `${how}: ${origin.first} bytes went out`);
      assert.equal(record.stopped, 'disconnected', how);
    }
  }
});
