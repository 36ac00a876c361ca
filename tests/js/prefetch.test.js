'use strict';
// prefetch() from script: ids, the callbacks and their arguments, and pages
// taking a prefetch over.
const fs = require('node:fs');
const { test } = require('node:test');
const assert = require('node:assert/strict');
const { inProcessSuite } = require('./helpers');
const { TRANSPORTS } = require('./origin');

const suite = inProcessSuite('velora-prefetch-');
const { host, velora, events } = suite;

// Resolves once `predicate()` holds, polling the event loop.
async function until(predicate, ms = 10000) {
  const end = Date.now() + ms;
  while (!predicate()) {
    if (Date.now() > end) throw new Error('timed out');
    await new Promise((resolve) => setTimeout(resolve, 5));
  }
}

function recorder() {
  const seen = [];
  const callbacks = {
    onResponse(status, headers) { seen.push({ kind: 'response', self: this, args: [status, headers] }); },
    onNetResponse(...args) { seen.push({ kind: 'netResponse', args }); },
    onData(...args) { seen.push({ kind: 'data', args }); },
    onFinish(...args) { seen.push({ kind: 'finish', args }); },
    onError(...args) { seen.push({ kind: 'error', args }); },
  };
  return { seen, callbacks };
}

test('callbacks get the documented arguments, in order, on the script thread', async () => {
  const { seen, callbacks } = recorder();
  const id = velora.prefetch({ url: suite.origin.url('/headers'), method: 'GET',
    headers: [{ key: 'X-Dup', value: 'first' }, { key: 'X-Dup', value: 'second' }] }, callbacks);
  assert.equal(typeof id, 'string');
  assert.match(id, /^[0-9]+$/);
  await until(() => seen.some((e) => e.kind === 'finish'));
  assert.deepEqual(seen.map((e) => e.kind).filter((k, i, a) => k !== 'data' || a[i - 1] !== 'data'),
    ['response', 'data', 'finish']);
  const [status, headers] = seen[0].args;
  assert.equal(status, 200);
  assert.equal(seen[0].self, callbacks);
  assert.deepEqual(headers.find((h) => h.key === 'Set-Cookie').value,
    ['a=1; Path=/', 'b=2; Path=/', 'c=3; Path=/']);
  assert.deepEqual(headers.map((h) => h.key), [...headers.map((h) => h.key)].sort());
  const chunks = seen.filter((e) => e.kind === 'data');
  assert.ok(chunks.every((e) => e.args.length === 1 && e.args[0] instanceof ArrayBuffer));
  const sent = JSON.parse(Buffer.concat(chunks.map((e) => Buffer.from(e.args[0]))).toString());
  assert.equal(sent['x-dup'], 'second');  // the later element wins
  assert.deepEqual(seen.find((e) => e.kind === 'finish').args, []);
});

test('an error reaches onError with a code and a message only', async () => {
  const { seen, callbacks } = recorder();
  velora.prefetch({ url: 'http://127.0.0.1:9/unreachable', method: 'GET', headers: [] }, callbacks);
  await until(() => seen.some((e) => e.kind === 'error'));
  const error = seen.find((e) => e.kind === 'error');
  assert.equal(error.args.length, 2);
  assert.equal(typeof error.args[0], 'number');
  assert.equal(typeof error.args[1], 'string');
  assert.ok(error.args[1].length > 0);
});

test('prefetches without callbacks or with malformed arguments still start', async () => {
  const url = suite.origin.url('/bytes/10');
  const ids = [
    velora.prefetch({ url, method: 'GET', headers: [] }),
    velora.prefetch({ url, method: 'GET', headers: [] }, undefined),
    velora.prefetch({ url, method: 'GET', headers: [] }, null),
    velora.prefetch({ url, headers: 'not an array' }, {}),
    velora.prefetch({ url, headers: [null, 5, { key: 7 }, { value: 'v' }] }, { onFinish: 'nope' }),
    velora.prefetch(),
  ];
  assert.equal(new Set(ids).size, ids.length);
  ids.slice(0, -1).forEach((id) => assert.match(id, /^[0-9]+$/));
  velora.removePrefetch();
  velora.removePrefetch(ids[0]);
  assert.ok(events('removePrefetch').some((e) => e.id === 'null'));
  assert.ok(fs.readFileSync(process.env.VELORA_HILOG, 'utf8').includes('removePrefetch param null'));
  await until(() => events('removePrefetch').some((e) => e.fields && e.fields.id === ids[0] && e.fields.removed));
});

for (const transport of TRANSPORTS) {
  test(`a page bound to the prefetch takes it over: one origin request, byte-exact body, over ${transport}`, async () => {
    const url = suite.origin.urlOver(transport, `/bytes/2000000?chunk=65536&delay=2&page=${transport}`);
    const { seen, callbacks } = recorder();
    const before = await suite.origin.count('/bytes/2000000');
    const tlsBefore = await suite.origin.tls();
    const id = velora.prefetch({ url, method: 'GET', headers: [] }, callbacks);
    await until(() => seen.some((e) => e.kind === 'data'));
    const tag = `takeover-${transport}`;
    const web = host.createWebComponent(tag);
    velora.webviewNativeInit({ webTag: tag, prefetchId: id, prefetchUrl: url });
    velora.webviewNativeAttach({ webTag: tag });
    const res = await web.load({ url, mainFrame: true });
    assert.equal(res.intercepted, true);
    assert.equal(res.body.length, 2000000);
    for (let i = 0; i < res.body.length; i += 99991) assert.equal(res.body[i], (i * 31 + 7) & 255);
    assert.equal(await suite.origin.count('/bytes/2000000'), before + 1);
    await until(() => seen.some((e) => e.kind === 'finish'));
    const script = Buffer.concat(seen.filter((e) => e.kind === 'data').map((e) => Buffer.from(e.args[0])));
    assert.ok(script.equals(res.body));
    // The page's next request rides the connection the prefetch opened.
    assert.equal((await web.load({ url: suite.origin.urlOver(transport, '/bytes/10') })).body.length, 10);
    if (transport !== 'http') assert.equal((await suite.origin.tls()).handshakes - tlsBefore.handshakes, 1);
    web.destroy();
  });
}

test('header lists are walked by their elements and bounded', async () => {
  const many = Array.from({ length: 32768 }, (_, i) => ({ key: `X-H${i}`, value: String(i) }));
  const sparse = [];
  sparse[4294967294] = { key: 'X-Far', value: 'far' };
  for (const headers of [many, sparse]) {
    const { seen, callbacks } = recorder();
    const id = velora.prefetch({ url: suite.origin.url('/headers'), method: 'GET', headers }, callbacks);
    await until(() => seen.some((e) => e.kind === 'finish' || e.kind === 'error'));
    velora.removePrefetch(id);
    const sent = JSON.parse(Buffer.concat(seen.filter((e) => e.kind === 'data')
      .map((e) => Buffer.from(e.args[0]))).toString());
    if (headers === many) {
      assert.equal(Object.keys(sent).filter((name) => name.startsWith('x-h')).length, 256);
    } else {
      assert.equal(sent['x-far'], 'far');
    }
  }
});

test('the host driver refuses header lists it cannot read instead of crashing', async () => {
  const web = host.createWebComponent('bad-headers');
  for (const headers of [[null], [7], [{ 0: 'A', 1: 'b' }], 'text']) {
    await assert.rejects(async () => web.load({ url: suite.origin.url('/bytes/1'), headers }),
      TypeError, JSON.stringify(headers));
  }
  const ok = await web.load({ url: suite.origin.url('/headers'), headers: [['X-A', '1']] });
  assert.equal(JSON.parse(ok.body)['x-a'], '1');
  web.destroy();
});

test('removing a prefetch that has not ended stops it and tells its callbacks', async () => {
  const { seen, callbacks } = recorder();
  const id = velora.prefetch({ url: suite.origin.url('/bytes/10485760?chunk=65536&delay=20'),
    method: 'GET', headers: [] }, callbacks);
  await until(() => seen.some((e) => e.kind === 'data'));
  velora.removePrefetch(id);
  await until(() => seen.some((e) => e.kind === 'error'));
  await new Promise((resolve) => setTimeout(resolve, 100));
  // One end, an error: the stopped transfer's, or the removal's if it came first.
  const ends = seen.filter((e) => e.kind === 'error' || e.kind === 'finish');
  assert.equal(ends.length, 1);
  assert.equal(ends[0].kind, 'error');
  assert.equal(typeof ends[0].args[0], 'number');
  assert.equal(typeof ends[0].args[1], 'string');
});
