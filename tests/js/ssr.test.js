'use strict';
// Server-rendered pages from script: the first-chunk switch, two visits of
// one page, and the SSR ability driven through the host's ability calls.
const { test } = require('node:test');
const assert = require('node:assert/strict');
const path = require('node:path');
const { inProcessSuite, BUILD } = require('./helpers');
const { TRANSPORTS } = require('./origin');
const { fccFirstChunk, fccRest } = require('../origin/server');

const suite = inProcessSuite('velora-ssr-');
const { host, velora, events } = suite;

// Once the origin runs: the gateway's rules (read when it first validates a
// URL) and the ability.
let ready = false;
function bind(tag) {
  if (!ready) {
    process.env.VELORA_SSR_RULES = TRANSPORTS.map((t) => suite.origin.urlOver(t, '/fcc/')).join(',');
    assert.equal(host.loadAbility(path.join(BUILD, 'velora.node'), 'SSRAbility'), true);
    ready = true;
  }
  const web = host.createWebComponent(tag);
  velora.webviewNativeInit({ webTag: tag, prefetchId: '', prefetchUrl: '' });
  velora.webviewNativeAttach({ webTag: tag });
  return web;
}

const header = (res, name) => res.headers.filter(([n]) => n.toLowerCase() === name).map(([, v]) => v);
const page = (name, version = '1') => fccFirstChunk(name, version) + fccRest(name, 2048);

for (const transport of TRANSPORTS) {
  test(`with the switch on, the second visit starts from the stored chunk, over ${transport}`, async () => {
    velora.setFccEnable(true);
    const web = bind(`fcc-visits-${transport}`);
    const url = suite.origin.urlOver(transport, `/fcc/visits?wait=100&over=${transport}`);
    const handled = () => events('request').filter((e) => e.tag === 'Velora/first_chunk_handler' &&
      e.id.startsWith(`[fcc-visits-${transport}|`)).map((e) => e.fields.useFirstChunkCache);
    const first = await web.load({ url });
    assert.equal(first.body.toString(), page('visits'));
    assert.deepEqual(header(first, 'x-first-chunk-cache'), []);

    const pieces = [];
    const second = await web.load({ url, onData: (chunk) => pieces.push(Buffer.from(chunk)) });
    assert.equal(second.body.toString(), page('visits'));
    assert.deepEqual(header(second, 'x-first-chunk-cache'), ['true']);
    assert.equal(pieces[0].toString(), fccFirstChunk('visits', '1'));
    assert.deepEqual(handled(), [false, true]);

    velora.setFccEnable(false);
    const off = await web.load({ url });
    assert.deepEqual(header(off, 'x-first-chunk-cache'), []);
    web.destroy();
  });
}

test('the SSR ability sets, serves, removes and preloads first chunks', async () => {
  velora.setFccEnable(true);
  const web = bind('fcc-ability');
  const url = suite.origin.url('/fcc/ability');

  for (const [api, data] of [['setFirstChunkCache', { html: '<p>x</p>' }],
    ['removeFirstChunkCache', {}], ['preloadFirstChunk', { url: '' }]]) {
    const result = await host.callAbility('SSRAbility', api, {}, data);
    assert.deepEqual([result.type, result.code, result.msg], ['error', 'INVALID_PARAM', 'url empty'],
      api);
  }

  // A chunk written by the app is served; the server's differs in version,
  // so the page is cleaned and re-rendered from the live chunk.
  const set = await host.callAbility('SSRAbility', 'setFirstChunkCache', { pageUrl: url },
    { html: '<p>from the app</p>', version: 'app' });
  assert.equal(set.type, 'result');
  const served = await web.load({ url });
  const script = '<script>document.getRootNode().activeElement.innerHTML=null;' +
    'document.head.innerHTML=null</script>';
  assert.equal(served.body.toString(), `<p>from the app</p>${script}${page('ability')}`);

  const removed = await host.callAbility('SSRAbility', 'removeFirstChunkCache', { pageUrl: url });
  assert.equal(removed.type, 'result');
  assert.deepEqual(header(await web.load({ url }), 'x-first-chunk-cache'), []);

  const preloaded = await host.callAbility('SSRAbility', 'preloadFirstChunk', {},
    { url: suite.origin.url('/fcc/warm'), forceUpdate: true, method: 'GET' });
  assert.equal(preloaded.type, 'result');
  assert.deepEqual(preloaded.data, { status: 200, stored: true });
  const warm = await web.load({ url: suite.origin.url('/fcc/warm') });
  assert.deepEqual(header(warm, 'x-first-chunk-cache'), ['true']);
  assert.equal(warm.body.toString(), page('warm'));

  const unknown = await host.callAbility('NoSuchAbility', 'x', {}, null);
  assert.equal(unknown.code, 'NOT_FOUND');
  web.destroy();
  velora.setFccEnable(false);
});
