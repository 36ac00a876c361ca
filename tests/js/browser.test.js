'use strict';
// End to end in Chromium: the demo page, from its three HTTPS origins,
// loaded through the browser front: with every Velora feature, directly,
// on a second visit through the site's service worker, and on the two-page
// flow with speculation rules and with Velora's prefetch.
const { test, before, after } = require('node:test');
const assert = require('node:assert/strict');
const crypto = require('node:crypto');
const fs = require('node:fs');
const path = require('node:path');
const { BUILD, ROOT } = require('./helpers');

const { chromiumMissing } = require(path.join(ROOT, 'demo', 'browser.js'));
const { SCENARIOS, prepareSite, runScenario, checkPage } = require(path.join(ROOT, 'demo', 'harness.js'));
const site = require(path.join(ROOT, 'demo', 'news_site.js'));
const { comparePixels } = require(path.join(ROOT, 'demo', 'pixels.js'));

const missing = chromiumMissing();
const scenario = (name) => SCENARIOS.find((s) => s.name === name);
let setup = null;
let shots = null;

before(async () => {
  if (missing) return;
  setup = await prepareSite(BUILD, { rtt: 20, kbps: 200000, render: 150, prefetchLeadMs: 50 });
  shots = fs.mkdtempSync(path.join(setup.workDir, 'shots-'));
});
after(() => {
  if (setup) setup.stop();
});
const shot = (name) => path.join(shots, `${name.replace(/[^a-z0-9+-]/g, '_')}.png`);

// Which of the site's origins served `url`.
const originOf = (url) => Object.keys(setup.origins).find((name) => new URL(url).origin === setup.origins[name]);

test('the demo page paints through Velora from prefetch, first chunk and package', { skip: missing || false }, async () => {
  const run = await runScenario(scenario('combined'), setup, shot('combined'));
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
  // The measured visit opened no connection to the static origin, and its
  // own to the page's (the first visit's ended with its process).
  assert.equal(run.origins.static.connections, 0);
  assert.equal(run.origins.page.connections, 1);
});

test('the same page loads directly over HTTPS, one HTTP/2 connection per origin', { skip: missing || false }, async () => {
  const run = await runScenario(scenario('direct'), setup, shot('direct'));
  assert.equal(checkPage(run), null, run.failed);
  const paths = run.requests.map((r) => r.path);
  for (const file of ['/news/harbor-lights', '/static/site.css', '/static/img/hero.png', '/api/comments']) {
    assert.ok(paths.includes(file), file);
  }
  assert.ok(run.requests.every((r) => r.source === 'engine'), JSON.stringify(run.requests.map((r) => r.source)));
  assert.equal(await setup.count('/static/site.css'), 1);
  // Chromium spoke HTTP/2 to the front in its tunnels; the engine fetched
  // every file over HTTPS from the origin the page names, one multiplexed
  // connection each.
  const perOrigin = { page: 0, static: 0, api: 0 };
  for (const request of run.requests) {
    assert.match(request.url, /^https:\/\//);
    assert.equal(request.protocol, 'h2', request.url);
    perOrigin[originOf(request.url)] += 1;
  }
  assert.deepEqual(perOrigin, { page: 1, static: 8, api: 1 });
  for (const [name, count] of Object.entries(perOrigin)) {
    assert.deepEqual(run.origins[name], { connections: 1, h2Sessions: 1, h2Streams: count, h1Requests: 0 }, name);
  }
});

test('the service worker installs, then serves the static files and streams shell plus live page', { skip: missing || false }, async () => {
  const run = await runScenario(scenario('sw'), setup);
  assert.equal(checkPage(run), null, run.failed);
  // The first visit installed it with the whole static folder and the shell.
  const manifest = site.precacheManifest(setup.workDir, setup.origins);
  const stripped = (urls) => urls.map((url) => url.replace(/\?__WB_REVISION__=.*$/, '')).sort();
  const expected = manifest.map((entry) => new URL(entry.url, setup.origins.page).href).sort();
  assert.deepEqual(stripped(run.firstVisit.worker.cached), expected);
  assert.equal(run.controlled, true);
  // The measured visit took every static file from the precache: the static
  // origin saw nothing of it.
  const sources = Object.fromEntries(run.requests.map((r) => [r.path, r.source]));
  for (const file of ['/static/site.css', '/static/app.js', '/static/vendor.js', '/static/img/hero.png']) {
    assert.equal(sources[file], 'sw cache', file);
  }
  assert.equal(run.origins.static.connections + run.origins.static.h2Streams, 0);
  assert.equal(sources['/api/comments'], 'engine');
  // The page came from the worker: its shell then the live page from the
  // marker on, byte for byte the page the server renders.
  const live = Buffer.from(site.firstChunk(setup.origins) + site.renderedRest(setup.origins));
  assert.equal(run.document.fromWorker, true);
  assert.deepEqual({ bytes: run.document.bytes, sha256: run.document.sha256 },
    { bytes: live.length, sha256: crypto.createHash('sha256').update(live).digest('hex') });
  assert.ok(run.origins.page.h2Streams >= 1, 'the live page was asked of the origin');
});

test('speculation rules on the home page prefetch the article the click then shows', { skip: missing || false }, async () => {
  const before = await setup.count('/news/harbor-lights');
  const run = await runScenario(scenario('speculation-prefetch'), setup);
  assert.equal(checkPage(run), null, run.failed);
  assert.equal(run.deliveryType, 'navigational-prefetch');
  assert.equal(run.prerendered, false);
  // Without the worker scenarios' site the article registers no worker.
  assert.equal(run.controlled, false);
  // Asked once, before the click; the times count from the click.
  assert.equal(await setup.count('/news/harbor-lights') - before, 1);
  assert.ok(run.fcp > 0, JSON.stringify(run));
});

test('a prerender rule renders the article before the click, which then activates it', { skip: missing || false }, async () => {
  const before = await setup.count('/news/harbor-lights');
  const run = await runScenario(scenario('speculation-prerender'), setup, shot('speculation-prerender'));
  assert.equal(checkPage(run), null, run.failed);
  assert.equal(run.prerendered, true, JSON.stringify(run));
  assert.ok(run.activationFromClick !== null && run.activationFromClick < 1000, JSON.stringify(run));
  // Everything the article needed was fetched before the click.
  assert.equal(run.dcl, 0);
  assert.equal(await setup.count('/news/harbor-lights') - before, 1);
});

test('Velora\'s prefetch started when the home page shows serves the click', { skip: missing || false }, async () => {
  const before = await setup.count('/news/harbor-lights');
  const run = await runScenario(scenario('home>article velora+prefetch'), setup, shot('velora-flow'));
  assert.equal(checkPage(run), null, run.failed);
  const article = run.requests.find((r) => r.path === '/news/harbor-lights');
  assert.equal(article.source, 'prefetch');
  assert.equal(article.mainFrame, true);
  assert.equal(await setup.count('/news/harbor-lights') - before, 1);
  // Only the article's requests are listed, not the home page's.
  assert.ok(!run.requests.some((r) => r.path === '/'), JSON.stringify(run.requests.map((r) => r.path)));
});

test('every scenario above shows what the direct load shows', { skip: missing || false }, async () => {
  for (const name of ['combined', 'speculation-prerender', 'velora-flow']) {
    const compared = comparePixels(shot('direct'), shot(name));
    assert.ok(compared.same, `${name}: ${JSON.stringify(compared)}`);
  }
});
