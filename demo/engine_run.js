'use strict';
// The main job: a small site loaded by a web component bound to Velora and by
// one that is not, side by side. The page is prefetched before its component
// is bound, the assets come from an offline package. For each request: where
// it was answered from, its status, size, time to first byte and to finish.
// Then a server-rendered page (400 ms to render) visited with the first-chunk
// cache on: the second visit starts from the stored chunk, and a new version
// of the page is cleaned up in place; every body is checked byte for byte.
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
const { fccFirstChunk } = require(path.join(ROOT, 'tests', 'origin', 'server.js'));
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
  const widths = [12, 30, 22, 7, 9, 9, 9];
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

// What a page sees after a stale first chunk: the stored chunk, the script
// that empties the document, then the live page.
const INVALIDATE_SCRIPT = '<script>document.getRootNode().activeElement.innerHTML=null;' +
  'document.head.innerHTML=null</script>';

async function visitServerRenderedPage(origin) {
  velora.setFccEnable(true);
  const web = host.createWebComponent('demo-ssr');
  velora.webviewNativeInit({ webTag: 'demo-ssr', prefetchId: '', prefetchUrl: '' });
  velora.webviewNativeAttach({ webTag: 'demo-ssr' });
  const visits = [
    { label: 'first visit', version: '1', stored: null },
    { label: 'second visit', version: '1', stored: '1' },
    { label: 'new version', version: '2', stored: '1' },
  ];
  const lines = [];
  let allMatch = true;
  for (const visit of visits) {
    const url = origin.url(`/fcc/news?wait=400&delay=100&size=20000&version=${visit.version}`);
    const live = Buffer.from(await (await fetch(url)).arrayBuffer());
    const res = await web.load({ url, mainFrame: true });
    const fromCache = res.headers.some(([name]) => name.toLowerCase() === 'x-first-chunk-cache');
    let expected = live;
    if (visit.stored && visit.stored !== visit.version) {
      expected = Buffer.concat([Buffer.from(fccFirstChunk('news', visit.stored)),
        Buffer.from(INVALIDATE_SCRIPT), live]);
    }
    const match = res.body.equals(expected);
    allMatch = allMatch && match;
    const ttfb = (res.timing.firstByte - res.timing.start).toFixed(1);
    const total = (res.timing.finish - res.timing.start).toFixed(1);
    lines.push(row([visit.label, `/fcc/news (version ${visit.version})`,
      fromCache ? 'Velora: first chunk' : 'Velora: SSR gateway', res.status, res.body.length, ttfb,
      total]) + (match ? ' bytes ok' : ' BYTES DIFFER'));
  }
  web.destroy();
  return { lines, allMatch };
}

async function main() {
  const origin = await startOrigin();
  process.env.VELORA_SSR_RULES = origin.url('/fcc/');
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

    console.log('\nserver-rendered page, first-chunk cache on (the server renders for 400 ms):');
    const ssr = await visitServerRenderedPage(origin);
    for (const line of ssr.lines) console.log(line);
    if (!ssr.allMatch) {
      console.error('the engine received other bytes than the live page');
      process.exitCode = 1;
    }
  } finally {
    origin.stop();
  }
}

main().catch((error) => {
  console.error(error);
  process.exitCode = 1;
});
