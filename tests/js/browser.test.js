'use strict';
// End to end in Chromium: the demo page loaded through the browser front,
// once with every Velora feature and once directly.
const { test, before, after } = require('node:test');
const assert = require('node:assert/strict');
const path = require('node:path');
const { BUILD, ROOT } = require('./helpers');

const { chromiumMissing } = require(path.join(ROOT, 'demo', 'browser.js'));
const { SCENARIOS, prepareSite, runScenario, checkPage } = require(path.join(ROOT, 'demo', 'harness.js'));

const missing = chromiumMissing();
const scenario = (name) => SCENARIOS.find((s) => s.name === name);
let setup = null;

before(async () => {
  if (!missing) setup = await prepareSite(BUILD, { rtt: 20, kbps: 200000, render: 150, prefetchLeadMs: 50 });
});
after(() => {
  if (setup) setup.stop();
});

test('the demo page paints through Velora from prefetch, first chunk and package', { skip: missing || false }, async () => {
  const run = await runScenario(scenario('combined'), setup);
  assert.equal(checkPage(run), null, run.failed);
  const sources = Object.fromEntries(run.requests.map((r) => [r.path, r.source]));
  assert.equal(sources['/news/harbor-lights'], 'prefetch+first chunk');
  for (const file of ['/static/site.css', '/static/app.js', '/static/vendor.js', '/static/img/hero.png']) {
    assert.equal(sources[file], 'package', file);
  }
  assert.equal(sources['/api/comments'], 'network');
  assert.ok(run.requests.every((r) => r.status === 200 && r.error === null));
  const page = run.requests.find((r) => r.path === '/news/harbor-lights');
  assert.equal(page.mainFrame, true);
  assert.ok(run.requests.filter((r) => r.mainFrame).length === 1);
  // Packaged files never reached the origin; the page did (prefetch, first visit).
  assert.equal(await setup.count('/static/site.css'), 0);
  assert.ok(await setup.count('/news/harbor-lights') >= 2);
});

test('the same page loads directly, every request left to the engine', { skip: missing || false }, async () => {
  const run = await runScenario(scenario('direct'), setup);
  assert.equal(checkPage(run), null, run.failed);
  const paths = run.requests.map((r) => r.path);
  for (const file of ['/news/harbor-lights', '/static/site.css', '/static/img/hero.png', '/api/comments']) {
    assert.ok(paths.includes(file), file);
  }
  assert.ok(run.requests.every((r) => r.source === 'engine'), JSON.stringify(run.requests.map((r) => r.source)));
  assert.equal(await setup.count('/static/site.css'), 1);
});
