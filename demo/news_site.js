'use strict';
// Harbor News, the demo site: a server-rendered article page with a
// stylesheet, two scripts, five images and a JSON call, about 350 KiB in all,
// from three origins as a news site has them: the page's own, one for static
// files and one for the API (HOSTS; the ports are chosen per run). The
// hand-written files live in demo/site/static; the images and the vendor
// script are generated here, the same bytes on every run.
const crypto = require('node:crypto');
const fs = require('node:fs');
const path = require('node:path');
const zlib = require('node:zlib');

const STATIC_SOURCE = path.join(__dirname, 'site', 'static');
const PAGE_PATH = '/news/harbor-lights';
const MARKER = '<div><!--fcc--></div>';
const PAGE_VERSION = '3';
// The page's shell as the service worker keeps it: the first chunk alone.
const SHELL_PATH = '/shell/harbor-lights';
// The Workbox builds the worker loads, from the page's own origin.
const WORKBOX_PATH = '/workbox/';
const WORKBOX_MODULES = ['sw', 'core', 'precaching', 'routing', 'strategies', 'streams', 'navigation-preload'];
// Host names of the three origins; .test never resolves on the internet.
const HOSTS = { page: 'news.harbor.test', static: 'static.harbor.test', api: 'api.harbor.test' };

// Deterministic pseudo-random numbers (mulberry32).
function random(seed) {
  let state = seed >>> 0;
  return () => {
    state = (state + 0x6d2b79f5) >>> 0;
    let t = state;
    t = Math.imul(t ^ (t >>> 15), t | 1);
    t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
  };
}

function pngChunk(type, data) {
  const length = Buffer.alloc(4);
  length.writeUInt32BE(data.length);
  const typed = Buffer.concat([Buffer.from(type, 'latin1'), data]);
  const crc = Buffer.alloc(4);
  crc.writeUInt32BE(zlib.crc32(typed));
  return Buffer.concat([length, typed, crc]);
}

// An RGB picture of a harbour at dusk: sky, hills, water, a grain of noise
// (photographs do not compress to nothing).
const GRAIN = 1;

function harbourPng(width, height, seed) {
  const rnd = random(seed);
  const hue = rnd();
  const sky = [40 + 120 * hue, 90 + 60 * rnd(), 170 + 60 * (1 - hue)];
  const hill = [30 + 40 * rnd(), 70 + 60 * rnd(), 50 + 30 * rnd()];
  const water = [20 + 30 * hue, 60 + 40 * rnd(), 110 + 60 * rnd()];
  const phase = rnd() * 6.28;
  const stride = width * 3 + 1;
  const rows = Buffer.alloc(stride * height);
  const line = Buffer.alloc(width * 3);
  for (let y = 0; y < height; y++) {
    let at = 0;
    for (let x = 0; x < width; x++) {
      const ridge = height * (0.55 + 0.08 * Math.sin(x / width * 7 + phase) +
        0.04 * Math.sin(x / width * 23 + phase * 2));
      const shore = height * 0.72;
      let base;
      let shade;
      if (y < ridge) {
        base = sky;
        shade = 0.55 + 0.45 * (y / ridge);
      } else if (y < shore) {
        base = hill;
        shade = 0.8 + 0.2 * Math.sin(x / 11 + y / 7);
      } else {
        base = water;
        shade = 0.7 + 0.3 * Math.sin(y * 0.9 + Math.sin(x / 17) * 2);
      }
      for (let c = 0; c < 3; c++) {
        const grain = (rnd() - 0.5) * GRAIN;
        line[at++] = Math.max(0, Math.min(255, Math.round(base[c] * shade + grain)));
      }
    }
    // The "Sub" filter: each byte as the difference to the pixel before it.
    const row = y * stride;
    rows[row] = 1;
    for (let i = 0; i < line.length; i++) rows[row + 1 + i] = (line[i] - (i >= 3 ? line[i - 3] : 0)) & 255;
  }
  const header = Buffer.alloc(13);
  header.writeUInt32BE(width, 0);
  header.writeUInt32BE(height, 4);
  header[8] = 8;  // bits per channel
  header[9] = 2;  // RGB
  return Buffer.concat([Buffer.from([0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a]),
    pngChunk('IHDR', header), pngChunk('IDAT', zlib.deflateSync(rows, { level: 6 })),
    pngChunk('IEND', Buffer.alloc(0))]);
}

// A library-sized script the page loads before its own: text helpers the
// page script uses, padded out with the table a real one would carry.
function vendorScript() {
  const rnd = random(7);
  const words = ['tide', 'quay', 'berth', 'hull', 'mast', 'keel', 'buoy', 'pier', 'dock', 'helm'];
  const lines = ['/* harbor-vendor 2.4.1: text helpers */', '(function (root) {', '  const table = ['];
  for (let i = 0; i < 1800; i++) {
    const word = words[Math.floor(rnd() * words.length)];
    lines.push(`    [${i}, '${word}-${Math.floor(rnd() * 1e6).toString(36)}', ${(rnd() * 100).toFixed(3)}],`);
  }
  lines.push('  ];', '  root.harborFormat = (text) => text.replace(/\\s+/g, \' \').trim();',
    '  root.harborTable = table;', '}(window));', '');
  return lines.join('\n');
}

const CARDS = [
  ['Night ferries return to the north quay', 'Timetables change from Monday as the winter service begins.'],
  ['The lighthouse keeper\'s last logbook', 'Forty years of weather, ships and visitors in one volume.'],
  ['Fish market moves to the old warehouse', 'Traders welcome the roof; regulars miss the view.'],
  ['Rowing club wins the estuary race', 'A lead of two lengths held from the bridge to the finish.'],
];

// Writes the site's static folder (what the offline package holds) to `dir`.
function buildSite(dir) {
  const out = path.join(dir, 'static');
  fs.mkdirSync(path.join(out, 'img'), { recursive: true });
  for (const name of fs.readdirSync(STATIC_SOURCE)) {
    fs.copyFileSync(path.join(STATIC_SOURCE, name), path.join(out, name));
  }
  fs.writeFileSync(path.join(out, 'vendor.js'), vendorScript());
  fs.writeFileSync(path.join(out, 'img', 'hero.png'), harbourPng(800, 336, 1));
  CARDS.forEach((_, i) => {
    fs.writeFileSync(path.join(out, 'img', `card-${i + 1}.png`), harbourPng(240, 147, 10 + i));
  });
  // Workbox as the site ships it next to its worker (workbox-sw loads the
  // others by name from modulePathPrefix).
  const workbox = path.join(dir, 'workbox');
  fs.mkdirSync(workbox, { recursive: true });
  for (const name of WORKBOX_MODULES) {
    const file = name === 'sw' ? 'workbox-sw.js' : `workbox-${name}.prod.js`;
    fs.copyFileSync(require.resolve(`workbox-${name}/build/${file}`), path.join(workbox, file));
  }
  return out;
}

// What the worker precaches: every file of the static folder (what the
// offline package holds) with a revision from its bytes, as workbox-build's
// manifest has them, and the page's shell.
function precacheManifest(dir, origins) {
  const out = path.join(dir, 'static');
  const revision = (bytes) => crypto.createHash('sha256').update(bytes).digest('hex').slice(0, 16);
  const files = [];
  const walk = (sub) => {
    for (const entry of fs.readdirSync(path.join(out, sub), { withFileTypes: true })) {
      const name = sub ? `${sub}/${entry.name}` : entry.name;
      if (entry.isDirectory()) walk(name);
      else files.push(name);
    }
  };
  walk('');
  return [...files.sort().map((name) => ({ url: `${origins.static}/static/${name}`,
    revision: revision(fs.readFileSync(path.join(out, name))) })),
  { url: SHELL_PATH, revision: revision(firstChunk(origins)) }];
}

// The site's service worker, set up with Workbox: the precache, and for the
// article a streamed answer, the shell from the precache at once and then
// the live page from its marker on (through navigation preload when the
// browser has it).
function serviceWorker(manifest) {
  return `importScripts('${WORKBOX_PATH}workbox-sw.js');
workbox.setConfig({ modulePathPrefix: '${WORKBOX_PATH}', debug: false });
workbox.core.skipWaiting();
workbox.core.clientsClaim();
workbox.navigationPreload.enable();
workbox.precaching.precacheAndRoute(${JSON.stringify(manifest)});

const MARKER = new TextEncoder().encode(${JSON.stringify(MARKER)});

// The bytes of \`body\` after the marker; all of them if it has none.
function afterMarker(body) {
  let held = new Uint8Array(0);
  let found = false;
  return body.pipeThrough(new TransformStream({
    transform(chunk, out) {
      if (found) return out.enqueue(chunk);
      const bytes = new Uint8Array(held.length + chunk.length);
      bytes.set(held);
      bytes.set(chunk, held.length);
      for (let i = 0; i + MARKER.length <= bytes.length; i++) {
        let j = 0;
        while (j < MARKER.length && bytes[i + j] === MARKER[j]) j++;
        if (j === MARKER.length) {
          found = true;
          held = null;
          if (i + j < bytes.length) out.enqueue(bytes.subarray(i + j));
          return undefined;
        }
      }
      held = bytes;
      return undefined;
    },
    flush(out) {
      if (!found && held.length) out.enqueue(held);
    },
  }));
}

workbox.routing.registerRoute(
  ({ request, url }) => request.mode === 'navigate' && url.pathname === ${JSON.stringify(PAGE_PATH)},
  workbox.streams.strategy([
    () => workbox.precaching.matchPrecache(${JSON.stringify(SHELL_PATH)}),
    async ({ event, request }) => {
      const live = (event && await event.preloadResponse) || await fetch(request.url, { credentials: 'include' });
      return afterMarker(live.body);
    },
  ], { 'Content-Type': 'text/html; charset=utf-8' }));
`;
}

// The part of the page that does not depend on the request: head and
// masthead, ending in the first-chunk marker. `origins`: { static, api },
// each "scheme://host:port"; the page script finds the API in data-api.
function firstChunk(origins) {
  const assets = `${origins.static}/static`;
  return '<!DOCTYPE html><html lang="en"><head><meta charset="utf-8">' +
    '<meta name="viewport" content="width=device-width,initial-scale=1">' +
    '<title>Harbor Lights — Harbor News</title><link rel="icon" href="data:,">' +
    `<link rel="stylesheet" href="${assets}/site.css">` +
    `<script src="${assets}/vendor.js" defer></script><script src="${assets}/app.js" defer></script>` +
    `</head><body data-api="${origins.api}"><header class="masthead">` +
    '<div class="brand">Harbor<span>News</span></div>' +
    '<nav><a href="#">Local</a><a href="#">Maritime</a><a href="#">Culture</a><a href="#">Sport</a></nav>' +
    `<div class="date">Edition ${PAGE_VERSION}</div></header>${MARKER}`;
}

// What the server renders per request.
function renderedRest(origins) {
  const assets = `${origins.static}/static`;
  const paragraphs = [
    'The harbour lights came back on at dusk for the first time in three winters, after the ' +
      'port authority finished rewiring the breakwater and the old signal tower.',
    'Pilots had asked for the work since the storm of the last decade tore out the cables; the ' +
      'new lamps use a fraction of the power and can be seen from the far side of the bay.',
    'At the quay, a small crowd waited with flasks of tea. When the first beam swept across the ' +
      'water, the ferry crew sounded the horn and the fishermen answered from the market steps.',
  ];
  const cards = CARDS.map(([title, text], i) => '<article class="card">' +
    `<img src="${assets}/img/card-${i + 1}.png" width="240" height="147" alt="">` +
    `<h3>${title}</h3><p>${text}</p></article>`).join('');
  return '<main><article class="lead">' +
    `<img class="hero" src="${assets}/img/hero.png" width="800" height="336" alt="The harbour at dusk">` +
    '<h1 id="headline">Harbour lights return after three dark winters</h1>' +
    '<p class="standfirst">The breakwater and the signal tower are lit again, ' +
    'rewired for a fraction of the power.</p><p class="byline">By the harbour desk</p>' +
    paragraphs.map((text) => `<p>${text}</p>`).join('') + '</article>' +
    `<section class="grid">${cards}</section>` +
    '<section class="comments"><h2>Readers\' comments</h2>' +
    '<div id="comment-list"><p class="loading">Loading comments…</p></div></section></main>' +
    '<footer>Harbor News — a demo site for Velora</footer></body></html>';
}

// The site's home page: the headlines, the lead one the article. With
// `speculate` ('prefetch' or 'prerender') it carries speculation rules for
// the article, as a site does that wants the browser to fetch or render it
// before the click.
function homePage(origins, speculate) {
  const assets = `${origins.static}/static`;
  const rules = speculate
    ? `<script type="speculationrules">${JSON.stringify({ [speculate]: [{ source: 'list', urls: [PAGE_PATH] }] })}</script>`
    : '';
  const items = [['Harbour lights return after three dark winters', PAGE_PATH], ...CARDS.map(([title]) => [title, '#'])];
  return '<!DOCTYPE html><html lang="en"><head><meta charset="utf-8">' +
    '<meta name="viewport" content="width=device-width,initial-scale=1">' +
    `<title>Harbor News</title><link rel="icon" href="data:,"><link rel="stylesheet" href="${assets}/site.css">` +
    `${rules}</head><body><header class="masthead"><div class="brand">Harbor<span>News</span></div></header>` +
    '<main><section class="comments"><h2>Today</h2>' +
    items.map(([title, href], i) => `<p><a id="${i === 0 ? 'lead' : `story-${i}`}" href="${href}">${title}</a></p>`).join('') +
    '</section></main></body></html>';
}

function comments() {
  return {
    article: 'harbor-lights',
    comments: [
      { author: 'Mara', text: 'Saw it from the ferry. Lovely to have them back.' },
      { author: 'Tobias', text: 'The old lamps were brighter, if you ask me.' },
      { author: 'Quayside Cafe', text: 'Open late tonight for anyone who wants to watch.' },
    ],
  };
}

module.exports = { buildSite, firstChunk, renderedRest, homePage, comments, precacheManifest, serviceWorker, PAGE_PATH,
  PAGE_VERSION, MARKER, HOSTS, SHELL_PATH, WORKBOX_PATH };
