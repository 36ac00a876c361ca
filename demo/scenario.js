'use strict';
// One measured visit of the demo page in Chromium, in a process of its own so
// that the module's state, connections and packages start fresh as in a
// newly started app. Every request of the page goes through the browser
// front into a web component: bound to Velora, or not bound for the direct
// scenario.
//
//   node demo/scenario.js '{"scenario": {...}, "pageUrl": ..., "front": {"names", "tls"}, ...}'
//
// Prints the result as one JSON line: the page's paint and load times, and
// per request where it was answered from and its time to first byte. With
// "firstVisit": true it is an earlier session's visit straight to the page:
// for the service worker scenarios the measured visit that installs it; for
// the others an unmeasured one that returns once the first chunk is stored.
const fs = require('node:fs');
const path = require('node:path');
const { visit, visitFlow, launchBrowser, launchFlowBrowser } = require('./browser.js');

const ROOT = path.resolve(__dirname, '..');

function readLog(file, offset) {
  if (!fs.existsSync(file)) return [];
  const text = fs.readFileSync(file).subarray(offset).toString('utf8');
  return text.split('\n').filter(Boolean).map((line) => JSON.parse(line));
}

function hasHeader(headers, name) {
  return headers.some(([key]) => key.toLowerCase() === name);
}

// Where a request the browser made but the front never saw was answered
// from: the worker's caches or the browser's own.
function cacheOf(entry) {
  return entry.workerStart > 0 ? 'sw cache' : 'browser cache';
}

// Where a request was answered from, as the module's log and the response
// headers tell.
function sourceOf(record, log) {
  if (!record.intercepted) return 'engine';
  const entries = log.filter((entry) => entry.fields && entry.fields.url === record.url);
  const firstChunk = hasHeader(record.headers, 'x-first-chunk-cache');
  if (entries.some((entry) => entry.event === 'request' && entry.fields.prefetchHit)) {
    return firstChunk ? 'prefetch+first chunk' : 'prefetch';
  }
  if (entries.some((entry) => entry.event === 'strataSuccess')) return 'package';
  return firstChunk ? 'first chunk' : 'network';
}

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// Waits until the module logged that it stored the page's first chunk.
async function firstChunkStored(logFile) {
  for (let i = 0; i < 500; i++) {
    if (readLog(logFile, 0).some((entry) => entry.tag === 'Velora/first_chunk_storage' &&
      entry.event === 'write' && entry.fields && entry.fields.result === true)) return true;
    await sleep(10);
  }
  return false;
}

async function run(options) {
  const { scenario, pageUrl } = options;
  const build = path.resolve(ROOT, options.build || 'build');
  const velora = require(path.join(build, 'velora.node'));
  const host = require(path.join(build, 'arkweb_host.node'));
  const { startBrowserFront, spkiHash } = require(path.join(ROOT, 'tools', 'browser_front.js'));

  velora.sdkInit({ appTag: 'harbor', appVersion: '1.0.0', isDebug: false });
  velora.setClientInfo({ displayWith: 1100, displayHeight: 860, safeAreaHeight: 0, deviceRatio: 1,
    landscape: true });
  velora.setNetworkIntercept(true);
  velora.setFccEnable(Boolean(scenario.firstChunk));

  let component = null;
  const records = [];
  const given = options.front || {};
  const tls = given.tls ? { cert: fs.readFileSync(given.tls.cert), key: fs.readFileSync(given.tls.key) } : null;
  // The site has its service worker only in the scenarios that measure it
  // (playwright blocks it in the others, but cannot in a prerendered page).
  const front = await startBrowserFront({ component: () => component, onRequest: (r) => records.push(r),
    names: given.names || [], tls, missing: (url) => !scenario.sw && url.pathname === '/sw.js' });
  let browser = null;
  const bind = (tag, prefetchId = '', prefetchUrl = '') => {
    const web = host.createWebComponent(tag);
    if (scenario.velora) {
      velora.webviewNativeInit({ webTag: tag, prefetchId, prefetchUrl });
      velora.webviewNativeAttach({ webTag: tag });
    }
    return web;
  };
  const logSize = () => (fs.existsSync(process.env.VELORA_LOG) ? fs.statSync(process.env.VELORA_LOG).size : 0);
  try {
    // The site's service worker lives in a browser profile kept across the
    // visits, as a person's browser keeps it; other scenarios start empty.
    // An earlier session's visit goes straight to the article.
    const sw = Boolean(scenario.sw);
    const flow = Boolean(scenario.flow) && !options.firstVisit;
    browser = await (flow ? launchFlowBrowser : launchBrowser)(front.proxy,
      { trustKey: tls ? spkiHash(tls.cert) : undefined, profile: sw ? options.profile : undefined });
    // The browser's own start-up (first renderer) is not the page's time.
    if (flow || sw) {
      const blank = await browser.newPage();
      await blank.goto('about:blank');
      await blank.close();
    } else {
      const context = await browser.newContext();
      await (await context.newPage()).goto('about:blank');
      await context.close();
    }

    if (options.firstVisit && !sw) {  // stores the first chunk for a later session
      component = bind('first-visit');
      await visit(browser, pageUrl);
      if (!await firstChunkStored(process.env.VELORA_LOG)) throw new Error('the first chunk was not stored');
      return { scenario: scenario.name, firstVisit: true };
    }
    let logOffset = 0;
    const beforeNavigate = async () => {
      let prefetchId = '';
      if (scenario.prefetch) {  // started while the app sets up its page
        prefetchId = velora.prefetch({ url: pageUrl, method: 'GET', headers: [] });
      }
      component = bind('page', prefetchId, scenario.prefetch ? pageUrl : '');
      if (scenario.prefetch) await sleep(options.prefetchLeadMs);
      records.length = 0;
      logOffset = logSize();
    };
    let metrics;
    if (flow) {  // home page first, then the click to the article
      const home = new URL('/', pageUrl);
      if (scenario.speculate) home.searchParams.set('speculate', scenario.speculate);
      metrics = await visitFlow(browser, home.href, { screenshot: options.screenshot, persistent: sw,
        dwellMs: options.dwellMs || 1000,
        beforeNavigate: async () => { component = bind('page'); },
        onHomeShown: async () => {
          // What follows is the article's: the home page's requests are over.
          records.length = 0;
          logOffset = logSize();
          if (scenario.prefetch) {  // the app's counterpart of a speculation rule
            const prefetchId = velora.prefetch({ url: pageUrl, method: 'GET', headers: [] });
            velora.webviewNativeInit({ webTag: 'page', prefetchId, prefetchUrl: pageUrl });
          }
        } });
      const article = metrics.resources.findIndex((entry) => new URL(entry.url).pathname === new URL(pageUrl).pathname);
      if (article > 0) metrics.resources.unshift(...metrics.resources.splice(article, 1));
    } else {
      metrics = await visit(browser, pageUrl, { screenshot: options.screenshot, beforeNavigate,
        serviceWorkers: sw });
    }
    // The front records a request when its load has ended, just after the
    // browser got the last byte.
    for (let i = 0; i < 100 && records.length < metrics.resources.length; i++) await sleep(10);
    const log = readLog(process.env.VELORA_LOG, logOffset);
    const timings = new Map(metrics.resources.map((entry) => [entry.url, entry]));
    // In the flow, the article's own (the worker it registers fetches more).
    const requests = records.filter((record) => !flow || timings.has(record.url)).map((record) => ({
      url: record.url,
      path: new URL(record.url).pathname,
      mainFrame: record.mainFrame,
      protocol: record.protocol,
      source: sourceOf(record, log),
      status: record.status,
      error: record.error,
      bytes: record.bytes,
      ttfb: record.timing && record.timing.firstByte !== null
        ? record.timing.firstByte - record.timing.start : null,
      browser: timings.get(record.url) || null,
    }));
    // What a cache answered never reached the front.
    const seen = new Set(records.map((record) => record.url));
    for (const entry of metrics.resources) {
      if (seen.has(entry.url)) continue;
      requests.push({ url: entry.url, path: new URL(entry.url).pathname, mainFrame: entry === metrics.resources[0],
        protocol: null, source: cacheOf(entry), status: null, error: null, bytes: null, ttfb: null, browser: entry });
    }
    delete metrics.resources;
    return { scenario: scenario.name, firstVisit: Boolean(options.firstVisit), ...metrics, requests };
  } finally {
    if (component) component.destroy();
    try {
      if (browser) await browser.close();
    } finally {
      await front.close();
    }
  }
}

if (require.main === module) {
  const options = JSON.parse(process.argv[2]);
  run(options).then((result) => {
    process.stdout.write(`${JSON.stringify(result)}\n`);
  }).catch((error) => {
    process.stderr.write(`${error.stack || error}\n`);
    process.exitCode = 1;
  });
}

module.exports = { run, sourceOf };
