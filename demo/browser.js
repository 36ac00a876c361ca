'use strict';
// Headless Chromium (Debian's) driven by playwright-core, talking to the
// network only through a proxy: what a person sees of a page load. HTTPS
// goes through the proxy too (CONNECT), to a front that ends TLS itself with
// a certificate Chromium is told to trust by its key.
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
  try {
    require.resolve('playwright-core');
  } catch {
    return 'playwright-core is not installed (npm ci)';
  }
  return null;
}

// `trustKey`: the base64 SHA-256 of the public key the proxy's TLS
// certificate holds; certificates with that key are taken whatever they say.
async function launchBrowser(proxy, { trustKey } = {}) {
  const { chromium } = require('playwright-core');
  const env = { ...process.env };
  for (const name of SANITIZER_ENV) delete env[name];
  const args = trustKey ? [...FLAGS, `--ignore-certificate-errors-spki-list=${trustKey}`] : FLAGS;
  // Playwright proxies loopback too ("<-loopback>" in the bypass list).
  return chromium.launch({ executablePath: CHROMIUM, headless: true, args, env,
    proxy: { server: proxy }, timeout: 60000 });
}

// Records the last largest-contentful-paint candidate before any page script runs.
function observePaints() {
  window.__velora = { lcp: null };
  new PerformanceObserver((list) => {
    const entries = list.getEntries();
    window.__velora.lcp = entries[entries.length - 1].startTime;
  }).observe({ type: 'largest-contentful-paint', buffered: true });
}

function readMetrics() {
  const nav = performance.getEntriesByType('navigation')[0];
  const fcp = performance.getEntriesByName('first-contentful-paint')[0];
  const timing = (entry) => ({ url: entry.name, start: entry.startTime, connectStart: entry.connectStart,
    secureConnectionStart: entry.secureConnectionStart, connectEnd: entry.connectEnd,
    requestStart: entry.requestStart, responseStart: entry.responseStart, end: entry.responseEnd });
  return {
    fcp: fcp ? fcp.startTime : null,
    lcp: window.__velora.lcp,
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
// ready, just before the navigation starts.
async function visit(browser, url, { screenshot, beforeNavigate } = {}) {
  const context = await browser.newContext({ viewport: { width: 1100, height: 860 } });
  try {
    const page = await context.newPage();
    await page.addInitScript(observePaints);
    if (beforeNavigate) await beforeNavigate();
    await page.goto(url, { waitUntil: 'load', timeout: 30000 });
    await page.waitForFunction(() => document.body.dataset.comments, null, { timeout: 15000 });
    // Two frames for the last paint entries to come in.
    await page.evaluate(() => new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(done))));
    const metrics = await page.evaluate(readMetrics);
    if (screenshot) await page.screenshot({ path: screenshot });
    return metrics;
  } finally {
    await context.close();
  }
}

module.exports = { chromiumMissing, launchBrowser, visit, CHROMIUM };
