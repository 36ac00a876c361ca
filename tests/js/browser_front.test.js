'use strict';
// The browser front: an HTTP proxy whose requests become loads of a web
// component (bound to Velora or not), streamed back as they arrive.
const { test, before, after } = require('node:test');
const assert = require('node:assert/strict');
const crypto = require('node:crypto');
const http = require('node:http');
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

before(async () => {
  components.velora = host.createWebComponent('front-velora');
  velora.webviewNativeInit({ webTag: 'front-velora', prefetchId: '', prefetchUrl: '' });
  velora.webviewNativeAttach({ webTag: 'front-velora' });
  components.engine = host.createWebComponent('front-engine');
  front = await startBrowserFront({ component: () => current, onRequest: (r) => records.push(r),
    onRefused: (url) => refused.push(url) });
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
    if (check()) return;
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

test('a browser that goes away mid-body stops the load and the transfer', async () => {
  for (const [kind, size] of [['velora', 200 << 20], ['engine', (200 << 20) + 1]]) {
    current = components[kind];
    const pathname = `/bytes/${size}`;
    const url = suite.origin.url(`${pathname}?chunk=65536&delay=10`);
    await dropAfterFirstPiece(url);
    await waitFor(() => records.some((r) => r.url === url));
    const record = records.find((r) => r.url === url);
    assert.equal(record.aborted, true, kind);
    assert.notEqual(record.error, null, kind);
    const sent = async () => (await (await fetch(suite.origin.url(`/__sent?path=${pathname}`))).json()).bytes;
    const first = await sent();
    await new Promise((resolve) => setTimeout(resolve, 300));
    assert.equal(await sent(), first, `${kind}: the origin kept sending`);
    assert.ok(first < 50 << 20, `${kind}: ${first} bytes went out`);
  }
});
