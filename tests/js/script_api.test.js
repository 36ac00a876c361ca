'use strict';
// The script functions as an app calls them, good arguments and bad.
const { test } = require('node:test');
const assert = require('node:assert/strict');
const { Sandbox } = require('./helpers');

const BAD_ARGUMENTS = `[undefined, null, 0, -1, 1.5, NaN, true, 'text', '', {}, [], () => 1,
  Symbol('s'), 10n, { appTag: 5, displayWith: 'x', landscape: 'yes' }, 'x'.repeat(8 << 20)]`;

function withSandbox(fn) {
  const sandbox = new Sandbox();
  try {
    return fn(sandbox);
  } finally {
    sandbox.remove();
  }
}

test('the module exposes its script functions and each returns undefined', () => withSandbox((sb) => {
  const out = sb.run(`
    const names = Object.getOwnPropertyNames(velora).sort();
    const results = names.map((name) => velora[name]({}));
    console.log(JSON.stringify({ names, results: results.map((r) => typeof r) }));
  `);
  const { names, results } = JSON.parse(out);
  assert.deepEqual(names, ['sdkInit', 'setClientInfo', 'setFccEnable', 'setNetworkIntercept',
    'setNetworkInterceptOnlyMain', 'setSafeAreaHeight', 'setUserAgent', 'webviewNativeAttach',
    'webviewNativeInit', 'prefetch', 'removePrefetch'].sort());
  // Only prefetch answers: its id.
  names.forEach((name, i) => assert.equal(results[i], name === 'prefetch' ? 'string' : 'undefined'));
}));

test('every function survives missing, mistyped and huge arguments', () => withSandbox((sb) => {
  sb.run(`
    for (const name of Object.getOwnPropertyNames(velora)) {
      velora[name]();  // the page-binding functions read undefined as an empty tag
      for (const arg of ${BAD_ARGUMENTS}) {
        const result = velora[name](arg);
        if (name !== 'prefetch' && result !== undefined) throw new Error(name + ' returned a value');
        velora[name](arg, arg, arg);
      }
    }
  `);
  // A mistyped user agent is read as empty and ignored; the huge one is kept.
  assert.equal(sb.store('Velora', 'userAgent'), 'x'.repeat(8 << 20));
}));

test('setClientInfo logs the values it stored, read under their exact keys', () => withSandbox((sb) => {
  sb.run(`
    velora.setClientInfo({ displayWith: 1260, displayHeight: 2720, safeAreaHeight: 120,
                           deviceRatio: 3.25, landscape: true });
    velora.setClientInfo({ displayWidth: 99, displayHeight: '5', deviceRatio: 'big' });
    velora.setSafeAreaHeight(12.9);
    velora.setSafeAreaHeight();
    velora.setClientInfo();
  `);
  const fields = sb.events('setClientInfo').map((entry) => entry.fields);
  assert.equal(fields.length, 3);
  assert.deepEqual(fields[0], { displayWith: 1260, displayHeight: 2720, safeAreaHeight: 120,
    deviceRatio: 3.25, landscape: true });
  assert.deepEqual(fields[1], { displayWith: 0, displayHeight: 0, safeAreaHeight: 0,
    deviceRatio: 0, landscape: false });
  // Without an argument nothing is stored, but the entry is still written.
  assert.deepEqual(fields[2], { ...fields[1], safeAreaHeight: 12 });
  assert.equal(sb.events('setClientInfo')[0].tag, 'Velora/web');
  assert.equal(sb.events('setClientInfo')[0].level, 3);
}));

test('setUserAgent persists the last non-empty text for the next process', () => withSandbox((sb) => {
  sb.run(`velora.setUserAgent('First/1'); velora.setUserAgent('Second/2'); velora.setUserAgent('');`);
  assert.equal(sb.store('Velora', 'userAgent'), 'Second/2');
  sb.run(`velora.setUserAgent(); velora.setUserAgent(42);`);
  assert.equal(sb.store('Velora', 'userAgent'), 'Second/2');
}));

test('sdkInit applies and saves the remote configuration, with or without its argument', () =>
  withSandbox((sb) => {
    sb.writeConfig({ velora_kpnet_intercept_config: { enable: 'false', whiteList: '["/api/"]' } });
    sb.run(`velora.sdkInit();`);
    assert.deepEqual(JSON.parse(sb.store('InterceptManager', 'tessera_config')), {
      enable: 'false', whiteList: '["/api/"]', onlyMainHtml: '', interceptMimeType: '', methodList: '',
      apiInfoAllowList: '',
    });
    const logged = sb.events('updateWhiteListConfig');
    assert.equal(logged.length, 1);
    assert.deepEqual(logged[0].fields, { config: '["/api/"]', enable: 'false', from: 'remote' });
  }));

test('a remote list that is not JSON is logged and changes nothing saved', () => withSandbox((sb) => {
  sb.writeConfig({ velora_kpnet_intercept_config: { whiteList: '[not json', methodList: '{}' } });
  sb.run(`velora.sdkInit({ appTag: 'demo', appVersion: '3.1.0', isDebug: true });`);
  const failures = sb.events('updateWhiteListConfig').filter((entry) => entry.level === 2);
  assert.equal(failures.length, 1);
  assert.match(failures[0].fields.what, /parse error/);
  assert.equal(failures[0].fields.from, 'remote');
}));

test('a stored copy that is not JSON is reported when the remote has nothing', () =>
  withSandbox((sb) => {
    sb.run(`velora.sdkInit();`);  // creates the store
    const { execFileSync } = require('node:child_process');
    execFileSync('sqlite3', [`${sb.dir}/store.db`,
      "INSERT OR REPLACE INTO kv VALUES ('InterceptManager', 'tessera_config', '{broken')"]);
    sb.run(`velora.sdkInit({});`);
    const failures = sb.events('updateTesseraConfigFromLocal');
    assert.equal(failures.length, 1);
    assert.ok(failures[0].fields.what.length > 0);
  }));
