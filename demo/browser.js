'use strict';
// Headless Chromium (Debian's), talking to the network only through a proxy:
// what a person sees of a page load. HTTPS goes through the proxy too
// (CONNECT), to a front that ends TLS itself with a certificate Chromium is
// told to trust by its key. playwright-core drives the visits straight to a
// page; puppeteer-core drives the two-page flow, because Chromium prerenders
// only for DevTools clients that attach through the tab's target, as
// puppeteer does and playwright does not (PrerenderingDisabledByDevTools).
const crypto = require('node:crypto');
const fs = require('node:fs');

const CHROMIUM = process.env.VELORA_CHROMIUM || '/usr/bin/chromium';
// Chromium's background traffic goes nowhere on a closed network; keep it off.
const FLAGS = ['--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
  '--disable-component-update', '--disable-sync', '--disable-default-apps',
  '--disable-features=Translate,OptimizationHints,MediaRouter'];
// Sanitizer runtimes preloaded into our own process must not reach the browser.
const SANITIZER_ENV = ['LD_PRELOAD', 'ASAN_OPTIONS', 'LSAN_OPTIONS', 'UBSAN_OPTIONS', 'TSAN_OPTIONS'];

// Why Chromium cannot be used here, or null when it can.
function chromiumMissing() {
  if (!fs.existsSync(CHROMIUM)) return `no Chromium at ${CHROMIUM} (apt-get install chromium)`;
  for (const name of ['playwright-core', 'puppeteer-core']) {
    try {
      require.resolve(name);
    } catch {
      return `${name} is not installed (npm ci)`;
    }
  }
  return null;
}

// Our environment without the sanitizer runtimes, and Chromium's flags with
// the proxy's key trusted.
function browserEnv() {
  const env = { ...process.env };
  for (const name of SANITIZER_ENV) delete env[name];
  return env;
}
function browserArgs(trustKey) {
  return trustKey ? [...FLAGS, `--ignore-certificate-errors-spki-list=${trustKey}`] : FLAGS;
}

// `trustKey`: the base64 SHA-256 of the public key the proxy's TLS
// certificate holds; certificates with that key are taken whatever they say.
// With `profile` (a folder) the browser keeps its profile there, service
// workers and their caches included, from one launch to the next; it is then
// a browser context of its own (playwright's persistent context).
async function launchBrowser(proxy, { trustKey, profile } = {}) {
  const { chromium } = require('playwright-core');
  // Playwright proxies loopback too ("<-loopback>" in the bypass list).
  const common = { executablePath: CHROMIUM, headless: true, args: browserArgs(trustKey), env: browserEnv(),
    proxy: { server: proxy }, timeout: 60000 };
  if (profile) return chromium.launchPersistentContext(profile, { ...common, viewport: VIEWPORT });
  return chromium.launch(common);
}

const VIEWPORT = { width: 1100, height: 860 };

// The browser for visitFlow: as launchBrowser, driven by puppeteer.
async function launchFlowBrowser(proxy, { trustKey, profile } = {}) {
  const puppeteer = require('puppeteer-core');
  const args = [...browserArgs(trustKey), '--no-sandbox', `--proxy-server=${proxy}`, '--proxy-bypass-list=<-loopback>'];
  return puppeteer.launch({ executablePath: CHROMIUM, headless: true, args, env: browserEnv(), userDataDir: profile,
    defaultViewport: VIEWPORT, timeout: 60000 });
}

// The page's paint and load times and what it shows. The last
// largest-contentful-paint candidate comes from the buffer Chromium keeps
// for it, so no script of ours needs to run in the page before it loads.
async function readMetrics() {
  const lcp = await new Promise((resolve) => {
    new PerformanceObserver((list, observer) => {
      const entries = list.getEntries();
      observer.disconnect();
      resolve(entries[entries.length - 1].startTime);
    }).observe({ type: 'largest-contentful-paint', buffered: true });
    setTimeout(() => resolve(null), 2000);
  });
  const nav = performance.getEntriesByType('navigation')[0];
  const fcp = performance.getEntriesByName('first-contentful-paint')[0];
  const timing = (entry) => ({ url: entry.name, start: entry.startTime, connectStart: entry.connectStart,
    secureConnectionStart: entry.secureConnectionStart, connectEnd: entry.connectEnd,
    requestStart: entry.requestStart, responseStart: entry.responseStart, end: entry.responseEnd,
    workerStart: entry.workerStart });
  return {
    fcp: fcp ? fcp.startTime : null,
    lcp,
    dcl: nav.domContentLoadedEventEnd,
    load: nav.loadEventEnd,
    resources: [timing(nav), ...performance.getEntriesByType('resource').map(timing)],
    dom: {
      title: document.title,
      headline: (document.getElementById('headline') || {}).textContent || null,
      comments: document.body.dataset.comments || null,
      images: [...document.images].filter((img) => img.complete && img.naturalWidth > 0).length,
    },
  };
}

// Loads `url` in a fresh context (empty cache) and measures it once the page
// has loaded and its comments came in. `beforeNavigate` runs when the tab is
// ready, just before the navigation starts. The site's service worker
// registers only with `serviceWorkers`; given a persistent context
// (`browser` from launchBrowser with a profile) the visit opens a tab in it.
async function visit(browser, url, { screenshot, beforeNavigate, serviceWorkers = false } = {}) {
  const persistent = typeof browser.newContext !== 'function';
  const context = persistent ? browser
    : await browser.newContext({ viewport: VIEWPORT, serviceWorkers: serviceWorkers ? 'allow' : 'block' });
  try {
    const page = await context.newPage();
    // The document as the browser got it (from the worker, when one answered).
    let documentResponse = null;
    page.on('response', (response) => {
      if (!documentResponse && response.request().isNavigationRequest() && response.url() === url) {
        documentResponse = response;
      }
    });
    if (beforeNavigate) await beforeNavigate();
    await page.goto(url, { waitUntil: 'load', timeout: 30000 });
    await page.waitForFunction(() => document.body.dataset.comments, null, { timeout: 15000 });
    // Two frames for the last paint entries to come in.
    await page.evaluate(() => new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(done))));
    const metrics = await page.evaluate(readMetrics);
    if (screenshot) await page.screenshot({ path: await settled(page, screenshot) });
    metrics.controlled = await page.evaluate(() => Boolean(navigator.serviceWorker && navigator.serviceWorker.controller));
    if (serviceWorkers) {
      metrics.worker = await page.evaluate(workerState);
      if (documentResponse) {
        const body = await documentResponse.body();
        metrics.document = { fromWorker: documentResponse.fromServiceWorker(), bytes: body.length,
          sha256: crypto.createHash('sha256').update(body).digest('hex') };
      }
    }
    if (persistent) await page.close();
    return metrics;
  } finally {
    if (!persistent) await context.close();
  }
}

// The two-page flow, in a browser from launchFlowBrowser: the visitor opens
// the home page, reads it for `dwellMs`, then clicks the lead headline to
// the article. The article's times, its requests' among them, count from
// the click (its event's time, on the clock every document of the browser
// shares): FCP and LCP are when they painted after the click; DCL and load,
// for a page prerendered before the click, are 0. `prerendered` tells whether the article was activated
// from a prerender (its navigation entry has an activationStart). With
// `persistent` the visit runs in the profile the browser was launched with;
// otherwise in a fresh context (empty cache, no worker). `onHomeShown` runs
// once the home page has loaded.
async function visitFlow(browser, homeUrl, { dwellMs = 1000, screenshot, beforeNavigate, onHomeShown,
  persistent = false } = {}) {
  const context = persistent ? browser.defaultBrowserContext() : await browser.createBrowserContext();
  const page = await context.newPage();
  try {
    let clickAt = null;
    await page.exposeFunction('__veloraClick', (at) => { clickAt = at; });
    await page.evaluateOnNewDocument(() => {
      document.addEventListener('click', (event) => window.__veloraClick(performance.timeOrigin + event.timeStamp),
        true);
    });
    if (beforeNavigate) await beforeNavigate();
    await page.goto(homeUrl, { waitUntil: 'load', timeout: 30000 });
    if (onHomeShown) await onHomeShown();
    await new Promise((resolve) => setTimeout(resolve, dwellMs));
    await page.click('#lead');
    // The home page has no comments; waiting survives the change of document.
    await page.waitForFunction(() => document.body && document.body.dataset.comments, { timeout: 20000 });
    await page.evaluate(() => new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(done))));
    const metrics = await page.evaluate(readMetrics);
    const origin = await page.evaluate(() => ({ timeOrigin: performance.timeOrigin,
      activationStart: performance.getEntriesByType('navigation')[0].activationStart || 0,
      deliveryType: performance.getEntriesByType('navigation')[0].deliveryType || '' }));
    if (clickAt === null) throw new Error('the click was not seen');
    const sinceClick = (at) => (at === null ? null : Math.max(0, origin.timeOrigin + at - clickAt));
    for (const key of ['fcp', 'lcp', 'dcl', 'load']) metrics[key] = sinceClick(metrics[key]);
    // The requests' times too, those made before the click negative.
    for (const entry of metrics.resources) {
      for (const key of ['start', 'responseStart', 'end']) entry[key] += origin.timeOrigin - clickAt;
    }
    metrics.prerendered = origin.activationStart > 0;
    // 'navigational-prefetch' when the article came from a speculative prefetch.
    metrics.deliveryType = origin.deliveryType;
    metrics.activationFromClick = metrics.prerendered ? sinceClick(origin.activationStart) : null;
    if (screenshot) await page.screenshot({ path: await settled(page, screenshot) });
    metrics.controlled = await page.evaluate(() => Boolean(navigator.serviceWorker && navigator.serviceWorker.controller));
    return metrics;
  } finally {
    if (persistent) await page.close();
    else await context.close();
  }
}

// Once every image is decoded and drawn at its final quality (Chromium
// may first draw a scaled image with a cheaper filter), for a screenshot
// that compares pixel for pixel; returns `file`.
async function settled(page, file) {
  await page.evaluate(async () => {
    await Promise.all([...document.images].map((img) => img.decode().catch(() => {})));
    await new Promise((done) => setTimeout(done, 300));
    await new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(done)));
  });
  return file;
}

// Waits for the site's worker to be active (its precache filled) and tells
// what its caches hold.
async function workerState() {
  const registration = await navigator.serviceWorker.ready;
  const cached = [];
  for (const name of await caches.keys()) {
    for (const request of await (await caches.open(name)).keys()) cached.push(request.url);
  }
  return { scope: registration.scope, active: registration.active.state, cached };
}

module.exports = { chromiumMissing, launchBrowser, launchFlowBrowser, visit, visitFlow, CHROMIUM };
