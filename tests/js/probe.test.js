'use strict';
// The module's script-side pieces through the probe addon: value reading,
// the prefetch callbacks bridge, and the platform-module lookup.
const path = require('node:path');
const fs = require('node:fs');
const os = require('node:os');
const { test, after } = require('node:test');
const assert = require('node:assert/strict');
const { BUILD } = require('./helpers');

const dataDir = fs.mkdtempSync(path.join(os.tmpdir(), 'velora-probe-'));
process.env.VELORA_DATA_DIR = dataDir;
process.env.VELORA_HILOG = path.join(dataDir, 'hilog.txt');
after(() => fs.rmSync(dataDir, { recursive: true, force: true }));

const host = require(path.join(BUILD, 'arkweb_host.node'));
const probe = require(path.join(BUILD, 'velora_probe.node'));

test('script values read as their zero value when missing or mistyped', () => {
  const read = probe.readValues({ a: 'x', b: 2, n: 5 }, 4294967297);
  assert.deepEqual(read.map, { a: 'x', b: '', n: '' });
  assert.equal(read.int64, 1);  // the low 32 bits
  assert.equal(read.stringOfNumber, '');
  const lines = fs.readFileSync(process.env.VELORA_HILOG, 'utf8').split('\n')
    .filter((line) => line.includes('getNapiStringMapFromObj'));
  assert.equal(lines.length, 3);
  assert.match(lines[0], / E A00000\/Velora\/napi_helper: getNapiStringMapFromObj, key:a, value:x$/);
  assert.deepEqual(probe.readValues(7, 'text').map, {});
  assert.equal(probe.argumentIsNull(1), true);
  assert.equal(probe.argumentIsNull(1, 'x'), false);
});

test('the prefetch bridge calls each script callback with its documented arguments', async () => {
  const seen = [];
  const callbacks = {
    onResponse(status, headers) { seen.push(['response', this === callbacks, status, headers]); },
    onData(buffer) { seen.push(['data', buffer instanceof ArrayBuffer, Buffer.from(buffer).toString()]); },
    onError(...args) { seen.push(['error', ...args]); },
    onFinish(...args) { seen.push(['finish', args.length]); },
  };
  probe.feedPrefetchCallbacks(callbacks);
  const end = Date.now() + 5000;
  while (seen.length < 4 && Date.now() < end) await new Promise((resolve) => setTimeout(resolve, 5));
  await new Promise((resolve) => setTimeout(resolve, 50));
  // Each kind arrives in posting order (kinds travel apart); nothing is
  // delivered for the finish that came after the error.
  assert.deepEqual(seen.filter(([kind]) => kind === 'data'), [['data', true, ''], ['data', true, 'xyz']]);
  assert.deepEqual(seen.filter(([kind]) => kind !== 'data').sort(), [
    ['error', 7, 'refused'],
    ['response', true, 200, [{ key: 'a', value: ['1', '2'] }, { key: 'b', value: ['3'] }]],
  ]);
});

test('a cookie lookup that fails logs why and answers no cookie, throwing nothing', () => {
  const failures = () => fs.readFileSync(process.env.VELORA_HILOG, 'utf8').split('\n')
    .filter((line) => / E A00000\/Velora\/prefetch_network: cookie lookup: /.test(line));
  assert.equal(probe.getCookie('https://h.test/page'), '');  // nothing registered yet
  assert.match(failures()[0], /loading @ohos\.web\.webview failed/);
  host.registerPlatformModule('@ohos.web.webview', { WebCookieManager: {
    fetchCookieSync() { throw new Error('17100002: invalid url'); } } });
  assert.equal(probe.getCookie('not a url'), '');
  assert.match(failures()[1], /WebCookieManager\.fetchCookieSync failed/);
});

test('the cookie lookup reads the platform module the host registered', () => {
  const calls = [];
  host.registerPlatformModule('@ohos.web.webview', { WebCookieManager: {
    fetchCookieSync(url) { calls.push([this === undefined, url]); return 'sid=1; theme=dark'; } } });
  assert.equal(probe.getCookie('https://h.test/page'), 'sid=1; theme=dark');
  assert.deepEqual(calls, [[false, 'https://h.test/page']]);
});
