'use strict';
// The main job: a small site loaded by a web component bound to Velora and by
// one that is not, side by side. The page is prefetched before its component
// is bound, the assets come from an offline package. For each request: where
// it was answered from, its status, size, time to first byte and to finish.
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');

const ROOT = path.resolve(__dirname, '..');
const BUILD = path.resolve(ROOT, process.env.VELORA_BUILD_DIR || 'build');
const dataDir = fs.mkdtempSync(path.join(os.tmpdir(), 'velora-demo-'));
process.env.VELORA_DATA_DIR = process.env.VELORA_DATA_DIR || dataDir;
process.env.VELORA_LOG = process.env.VELORA_LOG || path.join(dataDir, 'log.jsonl');
process.env.VELORA_HILOG = process.env.VELORA_HILOG || path.join(dataDir, 'hilog.txt');
process.env.VELORA_PACKAGES_DIR = process.env.VELORA_PACKAGES_DIR || path.join(dataDir, 'packages');

const { execFileSync } = require('node:child_process');
const { startOrigin } = require(path.join(ROOT, 'tests', 'js', 'origin.js'));
const host = require(path.join(BUILD, 'arkweb_host.node'));
const velora = require(path.join(BUILD, 'velora.node'));

const SITE = [
  { path: '/site/index.html', mainFrame: true },
  { path: '/site/assets/style.css' },
  { path: '/site/assets/app.js' },
  { path: '/site/assets/logo.svg' },
  { path: '/site/assets/data.json' },
];

function row(columns) {
  const widths = [10, 30, 22, 7, 9, 9, 9];
  return columns.map((c, i) => String(c).padEnd(widths[i])).join(' ');
}

// The structured log says where Velora answered from.
let logOffset = 0;
function newLogEntries() {
  if (!fs.existsSync(process.env.VELORA_LOG)) return [];
  const text = fs.readFileSync(process.env.VELORA_LOG, 'utf8');
  const fresh = text.slice(logOffset);
  logOffset = text.length;
  return fresh.split('\n').filter(Boolean).map((line) => JSON.parse(line));
}

function sourceOf(result, entries) {
  if (!result.intercepted) return 'engine network';
  if (entries.some((e) => e.event === 'request' && e.fields.prefetchHit)) return 'Velora: prefetch';
  if (entries.some((e) => e.event === 'strataSuccess')) return 'Velora: package';
  return 'Velora: network';
}

// Packages the site's assets, as an app team would ship them.
function installAssetsPackage(origin) {
  const pack = path.join(BUILD, 'velora-pack');
  const out = path.join(dataDir, 'demo-assets.zip');
  execFileSync(pack, ['build', path.join(ROOT, 'tests', 'origin', 'site', 'assets'),
    origin.url('/site/assets'), out, '--id', 'demo-assets', '--version', '1.0.0']);
  execFileSync(pack, ['install', out], { stdio: ['ignore', 'ignore', 'ignore'] });
}

async function loadSite(label, web, origin) {
  const lines = [];
  for (const asset of SITE) {
    newLogEntries();
    const res = await web.load({ url: origin.url(asset.path), mainFrame: !!asset.mainFrame });
    const entries = newLogEntries();
    const ttfb = res.timing.firstByte === null ? '-' : (res.timing.firstByte - res.timing.start).toFixed(1);
    const total = (res.timing.finish - res.timing.start).toFixed(1);
    lines.push(row([label, asset.path, sourceOf(res, entries), res.error === null ? res.status : `err ${res.error}`,
      res.body.length, ttfb, total]));
  }
  return lines;
}

async function main() {
  const origin = await startOrigin();
  try {
    installAssetsPackage(origin);
    velora.sdkInit({ appTag: 'demo', appVersion: '1.0.0', isDebug: true });
    velora.setClientInfo({ displayWith: 1260, displayHeight: 2720, safeAreaHeight: 120,
      deviceRatio: 3.25, landscape: false });
    velora.setNetworkIntercept(true);

    // The page is prefetched while the app is still setting up its component.
    const pageUrl = origin.url(SITE[0].path);
    const prefetchId = velora.prefetch({ url: pageUrl, method: 'GET', headers: [] });
    await new Promise((resolve) => setTimeout(resolve, 50));
    const bound = host.createWebComponent('demo-page');
    velora.webviewNativeInit({ webTag: 'demo-page', prefetchId, prefetchUrl: pageUrl });
    velora.webviewNativeAttach({ webTag: 'demo-page' });
    const plain = host.createWebComponent('plain-page');

    console.log(`origin http://127.0.0.1:${origin.port}, logs in ${path.dirname(process.env.VELORA_LOG)}`);
    console.log(row(['page', 'request', 'answered from', 'status', 'bytes', 'ttfb ms', 'total ms']));
    for (const line of await loadSite('velora', bound, origin)) console.log(line);
    for (const line of await loadSite('direct', plain, origin)) console.log(line);
    bound.destroy();
    plain.destroy();
  } finally {
    origin.stop();
  }
}

main().catch((error) => {
  console.error(error);
  process.exitCode = 1;
});
