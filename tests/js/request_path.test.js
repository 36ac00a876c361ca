'use strict';
// Pages loading through the module from script: the host engine's driver
// (arkweb_host.node) and the module (velora.node) in one process.
const { test } = require('node:test');
const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const path = require('node:path');
const { inProcessSuite, BUILD } = require('./helpers');
const { TRANSPORTS } = require('./origin');

const suite = inProcessSuite('velora-path-');
const { host, velora, events } = suite;

function bind(tag, extra = {}) {
  const web = host.createWebComponent(tag);
  velora.webviewNativeInit({ webTag: tag, prefetchId: '', prefetchUrl: '', ...extra });
  velora.webviewNativeAttach({ webTag: tag });
  return web;
}

const SITE = ['/site/index.html', '/site/assets/style.css', '/site/assets/app.js',
  '/site/assets/logo.svg'];

for (const transport of TRANSPORTS) {
  test(`a bound page loads the site through Velora with the same bytes as the network, over ${transport}`, async () => {
    const page = bind(`site-${transport}`);
    const direct = host.createWebComponent(`direct-${transport}`);
    for (const asset of SITE) {
      const mainFrame = asset.endsWith('.html');
      const url = suite.origin.urlOver(transport, asset);
      const through = await page.load({ url, mainFrame });
      const plain = await direct.load({ url, mainFrame });
      assert.equal(through.intercepted, true, asset);
      assert.equal(plain.intercepted, false, asset);
      assert.equal(through.status, 200);
      assert.ok(through.body.equals(plain.body), asset);
      assert.ok(through.timing.finish >= through.timing.start);
    }
    page.destroy();
    direct.destroy();
    const destroyed = events('nativeDestroy').find((e) => e.id === `site-${transport}`);
    assert.equal(destroyed.fields.removed, true);
  });
}

test('over HTTPS/2 a page and its engine share one connection for parallel requests', async () => {
  const page = bind('h2-shared');
  const direct = host.createWebComponent('h2-direct');
  const before = await suite.origin.tls();
  const urls = Array.from({ length: 50 }, (_, i) => suite.origin.urlOver('https_h2', `/delay?ms=30&size=${100 + i}`));
  const loads = urls.map((url, i) => (i % 5 ? page : direct).load({ url }));
  const results = await Promise.all(loads);
  results.forEach((res, i) => assert.equal(res.body.length, 100 + i));
  const after = await suite.origin.tls();
  assert.equal(after.h2Streams - before.h2Streams, 50);
  assert.ok(after.handshakes - before.handshakes <= 1, 'more than one handshake for one origin');
  page.destroy();
  direct.destroy();
});

test('servers a browser refuses fail a load once with no status, bound or not', async () => {
  const page = bind('refusing');
  const direct = host.createWebComponent('refusing-direct');
  for (const fault of ['untrusted', 'selfSigned', 'expired', 'wrongHost', 'tls10']) {
    for (const web of [page, direct]) {
      let responses = 0;
      const res = await web.load({ url: suite.origin.faultUrl(fault), onResponse: () => { responses += 1; } });
      assert.equal(res.error, -2, fault);  // ARKWEB_ERR_FAILED
      assert.equal(res.status, null, fault);
      assert.equal(responses, 0, fault);
    }
  }
  assert.equal((await suite.origin.tls()).refusedReached, 0);
  page.destroy();
  direct.destroy();
});

test('body pieces reach onData in order as they arrive, and stay as they came', async () => {
  const page = bind('stream');
  const pieces = [];
  let last = 0;
  // Several blocks of the driver's body memory, each piece kept as handed
  // over while later ones are written.
  const size = 3 << 20;
  const res = await page.load({
    url: suite.origin.url(`/bytes/${size}?chunk=65536&delay=2&random=1`),
    onData(chunk, atMs) {
      assert.ok(atMs >= last);
      last = atMs;
      pieces.push(chunk);
    },
  });
  assert.ok(pieces.length > 1);
  assert.equal(res.body.length, size);
  assert.ok(Buffer.concat(pieces).equals(res.body), 'a piece held by script was overwritten');
  page.destroy();
});

for (const transport of TRANSPORTS) {
  test(`uploads from script arrive byte-exact, sized, chunked and empty; an unreadable one never goes out, over ${transport}`, async () => {
    const page = bind(`upload-${transport}`);
    const at = (p) => suite.origin.urlOver(transport, p);
    const body = Buffer.alloc(100000);
    for (let i = 0; i < body.length; i++) body[i] = (i * 7) & 255;
    for (const chunked of [false, true]) {
      const res = await page.load({ url: at('/echo?raw=1'), method: 'POST', body, chunked });
      assert.equal(res.intercepted, true);
      assert.ok(res.body.equals(body), `chunked=${chunked}`);
    }
    const empty = await page.load({ url: at('/echo'), method: 'POST', body: Buffer.alloc(0) });
    assert.equal(JSON.parse(empty.body).length, 0);
    const sent = await suite.origin.count('/echo');
    const unreadable = await page.load({ url: at('/echo'), method: 'POST', body: 'x',
      bodyInitError: -6 /* ARKWEB_ERR_FILE_NOT_FOUND */ });
    assert.equal(unreadable.error, -2);  // ARKWEB_ERR_FAILED
    assert.equal(unreadable.status, null);
    assert.equal(await suite.origin.count('/echo'), sent);
    page.destroy();
  });
}

test('a page navigating away mid-body ends the load, and the switch declines silently', async () => {
  const page = bind('cancel');
  const cancelled = await page.load({ url: suite.origin.url('/stall?after=100'), cancelAfterMs: 100 });
  assert.equal(cancelled.error, -3);
  assert.equal(cancelled.intercepted, true);

  velora.setNetworkIntercept(false);
  const declined = await page.load({ url: suite.origin.url('/bytes/10') });
  velora.setNetworkIntercept(true);
  assert.equal(declined.intercepted, false);
  assert.equal(declined.body.length, 10);
  page.destroy();
});

test('attach without init installs nothing; a second attach replaces the handler', async () => {
  const lone = host.createWebComponent('lone');
  velora.webviewNativeAttach({ webTag: 'lone' });
  assert.equal((await lone.load({ url: suite.origin.url('/bytes/1') })).intercepted, false);
  assert.ok(events('nativeAttach').some((e) => e.id === 'lone'));
  assert.ok(!events('setSchemeHandler').some((e) => e.id === 'lone'));
  lone.destroy();

  const twice = bind('twice');
  velora.webviewNativeAttach({ webTag: 'twice' });
  assert.equal(events('setSchemeHandler').filter((e) => e.id === 'twice').length, 2);
  assert.equal((await twice.load({ url: suite.origin.url('/bytes/1') })).intercepted, true);
  twice.destroy();
});

test('a bound page registered again takes the new prefetch over; the one it had is dropped', async () => {
  const web = bind('flow');
  assert.equal((await web.load({ url: suite.origin.url('/bytes/1101'), mainFrame: true })).intercepted, true);
  const stale = velora.prefetch({ url: suite.origin.url('/bytes/1202'), method: 'GET', headers: [] });
  velora.webviewNativeInit({ webTag: 'flow', prefetchId: stale, prefetchUrl: suite.origin.url('/bytes/1202') });
  // The page the visitor will open next, fetched while the first one shows.
  const next = suite.origin.url('/bytes/1300');
  const id = velora.prefetch({ url: next, method: 'GET', headers: [] });
  velora.webviewNativeInit({ webTag: 'flow', prefetchId: id, prefetchUrl: next });
  const dropped = events('removePrefetch').filter((e) => e.fields.id === stale);
  assert.deepEqual(dropped.map((e) => e.fields.removed), [true]);
  assert.deepEqual(events('rebind').filter((e) => e.id === 'flow').map((e) => e.fields),
    [{ attached: true, droppedPrefetchId: '' }, { attached: true, droppedPrefetchId: stale }]);

  const res = await web.load({ url: next, mainFrame: true });
  assert.equal(res.intercepted, true);
  assert.equal(res.body.length, 1300);
  assert.ok(events('request').some((e) => e.fields.url === next && e.fields.prefetchHit && e.fields.prefetchId === id));
  assert.equal(await suite.origin.count('/bytes/1300'), 1);
  // The handler was not attached again, and the component still goes away whole.
  assert.equal(events('setSchemeHandler').filter((e) => e.id === 'flow').length, 1);
  web.destroy();
  assert.ok(events('removePrefetch').some((e) => e.fields.id === id));
  assert.equal((await web.load({ url: suite.origin.url('/bytes/1101') })).intercepted, false);
});

test('only main frames are intercepted when asked, and the reason is logged', async () => {
  const page = bind('mainonly');
  velora.setNetworkInterceptOnlyMain(true);
  const sub = await page.load({ url: suite.origin.url('/site/assets/style.css'), mainFrame: false });
  const main = await page.load({ url: suite.origin.url('/site/index.html'), mainFrame: true });
  velora.setNetworkInterceptOnlyMain(false);
  assert.equal(sub.intercepted, false);
  assert.equal(main.intercepted, true);
  const ignored = events('ignoreIntercept').filter((e) => e.id === 'mainonly');
  assert.deepEqual(ignored.map((e) => e.fields.reason), ['onlyMainHtml']);
  page.destroy();
});

test('the driver streams: the response first, then body pieces batched while the script is busy', async () => {
  const page = bind('streaming');
  const seen = [];
  const size = 4 << 20;
  const res = await page.load({
    url: suite.origin.url(`/redirect?to=${encodeURIComponent(`/bytes/${size}?chunk=16384`)}`),
    keepBody: false,
    onResponse(status, headers) { seen.push(['response', status, headers]); },
    onData(chunk) {
      if (seen.length === 1) { const until = Date.now() + 150; while (Date.now() < until); }
      seen.push(['data', Buffer.from(chunk)]);
    },
  });
  assert.equal(res.status, 200);
  assert.equal(res.body.length, 0);
  assert.equal(res.bodySize, size);
  assert.equal(seen[0][0], 'response');
  assert.equal(seen.filter(([kind]) => kind === 'response').length, 1);  // not the 302
  assert.equal(seen[0][1], 200);
  assert.ok(seen[0][2].some(([name, value]) => name.toLowerCase() === 'content-length' &&
    value === String(size)));
  const pieces = seen.slice(1).map(([, bytes]) => bytes);
  const body = Buffer.concat(pieces);
  assert.equal(body.length, size);
  for (const at of [0, 12345, size - 1]) assert.equal(body[at], ((at * 31 + 7) & 255));
  // While the first piece kept the script busy, what came meanwhile queued up
  // into larger ones than the origin wrote.
  const largest = Math.max(...pieces.map((piece) => piece.length));
  assert.ok(largest > 4 * 16384, `largest piece ${largest} bytes`);
  page.destroy();
});

test('a load of the driver is cancelled by its signal, before or during the load', async () => {
  const web = host.createWebComponent('signalled');
  const early = new AbortController();
  early.abort();
  const stopped = await web.load({ url: suite.origin.url('/bytes/11'), signal: early.signal });
  assert.notEqual(stopped.error, null);
  assert.equal(await suite.origin.count('/bytes/11'), 0, 'an aborted load went out');
  const late = new AbortController();
  setTimeout(() => late.abort(), 100);
  const res = await web.load({ url: suite.origin.url('/delay?ms=2000'), signal: late.signal });
  assert.notEqual(res.error, null);
  assert.ok(res.timing.finish - res.timing.start < 1500);
  assert.throws(() => web.load({ url: suite.origin.url('/bytes/10'), signal: {} }), TypeError);
  web.destroy();
});

test('a callback that throws is the script\'s uncaught exception; the load still ends', () => {
  const script = `
    const http = require('node:http');
    const host = require(${JSON.stringify(path.join(BUILD, 'arkweb_host.node'))});
    process.on('uncaughtException', (error) => console.log('uncaught', error.message));
    const server = http.createServer((q, r) => r.end('hello')).listen(0, '127.0.0.1', async () => {
      const web = host.createWebComponent('thrower');
      const res = await web.load({ url: 'http://127.0.0.1:' + server.address().port + '/',
        onResponse() { throw new Error('from onResponse'); },
        onData() { throw new Error('from onData'); } });
      console.log('done', res.error, res.status, res.body.toString());
      web.destroy();
      server.close();
    });`;
  const run = spawnSync(process.execPath, ['-e', script], { encoding: 'utf8', timeout: 30000 });
  assert.match(run.stdout, /uncaught from onResponse/, run.stderr);
  assert.match(run.stdout, /uncaught from onData/, run.stderr);
  assert.match(run.stdout, /done null 200 hello/, run.stderr);
});
