'use strict';
// The main job: the Harbor News demo site loaded in headless Chromium under
// realistic conditions, every request going through the host engine, once
// per scenario (harness.js lists them): Velora's features alone and together,
// beside what the browser and the site do without it (a Workbox service
// worker, speculation rules), on a first-ever visit straight to the article,
// on a later one, and on the two-page flow from the home page. Prints the
// medians and per request where it was answered from; checks each
// scenario's final page and screenshot; writes report.json, the screenshots
// and a waterfall.
// The site's three origins speak HTTPS with HTTP/2; --http serves them in
// cleartext HTTP/1.1 instead, for comparison.
//
//   node demo/main.js [--rtt 80] [--kbps 10000] [--render 400] [--runs 5]
//                     [--prefetch-lead 300] [--http] [--out build/demo-report]
//
// Without a Chromium that starts it says why and runs the host-engine job
// instead.
const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { CHROMIUM, chromiumMissing, launchBrowser } = require('./browser.js');
const { SCENARIOS, prepareSite, runScenario, checkPage } = require('./harness.js');
const { comparePixels, describe } = require('./pixels.js');
const { waterfallHtml } = require('./waterfall.js');

const ROOT = path.resolve(__dirname, '..');
const BUILD = path.resolve(ROOT, process.env.VELORA_BUILD_DIR || 'build');

function options() {
  const args = process.argv.slice(2);
  const value = (name, fallback) => {
    const i = args.indexOf(name);
    return i >= 0 && i + 1 < args.length ? args[i + 1] : fallback;
  };
  const number = (name, fallback) => {
    const n = Number(value(name, fallback));
    if (!Number.isFinite(n) || n < 0) throw new Error(`${name} needs a number, not ${value(name)}`);
    if (name === '--kbps' && n === 0) throw new Error('--kbps must be above 0');
    return n;
  };
  const withValue = new Set(['--rtt', '--kbps', '--render', '--runs', '--prefetch-lead', '--out']);
  for (let i = 0; i < args.length; i++) {
    if (withValue.has(args[i])) i++;
    else if (args[i] !== '--http') throw new Error(`unknown option ${args[i]}`);
  }
  return { rtt: number('--rtt', 80), kbps: number('--kbps', 10000), render: number('--render', 400),
    runs: Math.max(1, Math.round(number('--runs', 5))), prefetchLeadMs: number('--prefetch-lead', 300),
    transport: args.includes('--http') ? 'http' : 'https',
    out: path.resolve(value('--out', path.join(BUILD, 'demo-report'))) };
}

const median = (values) => {
  const sorted = values.filter((v) => v !== null).sort((a, b) => a - b);
  if (sorted.length === 0) return null;
  const mid = Math.floor(sorted.length / 2);
  return sorted.length % 2 ? sorted[mid] : (sorted[mid - 1] + sorted[mid]) / 2;
};
const ms = (value) => (value === null ? '-' : String(Math.round(value)));
const pad = (columns, widths) => columns.map((c, i) => String(c).padEnd(widths[i])).join(' ');

const TRANSPORTS = { https: 'HTTPS (HTTP/2, TLS 1.3)', http: 'cleartext HTTP/1.1' };

// The groups of rows, each with its plain row: the same visit with no help
// at all.
const GROUPS = [
  { id: 'first', plain: 'direct',
    title: 'First-ever visit straight to the article (empty cache, no worker, no stored first chunk)' },
  { id: 'repeat', plain: 'direct', title: 'A later visit straight to the article' },
  { id: 'flow', plain: 'home>article', title: 'Home page, then the click to the article (times from the click)' },
];
// The visit that installs the service worker is a first visit of its own.
const SW_FIRST_VISIT = { name: 'sw (first visit)', group: 'first', peer: true };
const ROWS = SCENARIOS.flatMap((s) => (s.name === 'direct' ? [s, SW_FIRST_VISIT] : [s]));

// How the site was reached, for the report.
function transportOf(setup, opts) {
  const https = setup.transport === 'https';
  return { scheme: setup.transport, origins: setup.origins,
    engineToSite: https ? 'HTTP/2 (HTTP/1.1 offered too), TLS 1.3' : 'HTTP/1.1',
    browserToFront: https ? 'CONNECT tunnels, TLS ended at the front, HTTP/2' : 'HTTP/1.1 proxy requests',
    newConnectionMs: (https ? 2 : 1) * opts.rtt,
    newConnection: https ? 'one RTT for TCP, one for TLS 1.3' : 'one RTT for TCP' };
}

// The run whose FCP is the median one stands for its scenario in the
// per-request table and the waterfall.
function representative(runs, fcp) {
  return runs.reduce((best, run) => (Math.abs(run.fcp - fcp) < Math.abs(best.fcp - fcp) ? run : best));
}

async function renderWaterfall(htmlFile, pngFile) {
  const browser = await launchBrowser('http://127.0.0.1:9');  // a local file needs no network
  try {
    const page = await browser.newPage({ viewport: { width: 960, height: 600 } });
    await page.goto(`file://${htmlFile}`);
    await page.screenshot({ path: pngFile, fullPage: true });
  } finally {
    await browser.close();
  }
}

// Why Chromium does not start here, or null when it does.
async function launchProblem() {
  try {
    const browser = await launchBrowser('http://127.0.0.1:9');
    await browser.close();
    return null;
  } catch (error) {
    return `it does not start (${error.message.split('\n')[0]})`;
  }
}

async function main() {
  const missing = chromiumMissing() || await launchProblem();
  if (missing) {
    console.log(`Chromium cannot be used here: ${missing}.`);
    console.log('Running the host-engine job instead.\n');
    require('./engine_run.js');
    return;
  }
  const opts = options();
  fs.mkdirSync(opts.out, { recursive: true });
  const setup = await prepareSite(BUILD, opts);
  try {
    const title = `Harbor News in Chromium over ${TRANSPORTS[opts.transport]}: RTT ${opts.rtt} ms, ` +
      `${opts.kbps / 1000} Mbit/s, server render ${opts.render} ms, prefetch started ` +
      `${opts.prefetchLeadMs} ms before navigation`;
    console.log(`${title}\n${opts.runs} runs per scenario, interleaved; load average ` +
      `${os.loadavg().map((l) => l.toFixed(2)).join(' ')}\n`);
    const runs = new Map(ROWS.map((s) => [s.name, []]));
    const failures = [];
    const keep = (name, run) => {
      const problem = checkPage(run);
      if (problem) failures.push(`${name}: ${problem}`);
      else runs.get(name).push(run);
    };
    for (let round = 0; round < opts.runs; round++) {
      for (let i = 0; i < SCENARIOS.length; i++) {
        const scenario = SCENARIOS[(i + round) % SCENARIOS.length];
        const shot = round === opts.runs - 1 ? path.join(opts.out, `${scenario.name}.png`) : undefined;
        const run = await runScenario(scenario, setup, shot);
        keep(scenario.name, run);
        if (run.firstVisit) keep(SW_FIRST_VISIT.name, { ...run.firstVisit, scenario: SW_FIRST_VISIT.name });
        process.stdout.write('.');
      }
    }
    process.stdout.write('\n');

    const summary = [];
    for (const row of ROWS) {
      const list = runs.get(row.name);
      if (list.length === 0) continue;
      const med = {};
      for (const key of ['fcp', 'lcp', 'dcl', 'load']) med[key] = median(list.map((run) => run[key]));
      summary.push({ scenario: row.name, group: row.group, peer: Boolean(row.peer), median: med, runs: list,
        representative: representative(list, med.fcp) });
    }
    const ratio = (base, s) => (base && s.median.fcp ? base / s.median.fcp : null);
    const times = (value) => (value === null ? '-' : `${value.toFixed(1)}×`);
    const widths = [30, 6, 6, 6, 6, 8, 11, 16];
    for (const group of GROUPS) {
      const rows = summary.filter((s) => s.group === group.id);
      if (rows.length === 0) continue;
      const plain = summary.find((s) => s.scenario === group.plain);
      const peers = rows.filter((s) => s.peer && s.median.fcp !== null);
      const best = peers.length ? peers.reduce((a, b) => (b.median.fcp < a.median.fcp ? b : a)) : null;
      console.log(`\n${group.title}; best peer ${best ? best.scenario : '-'}`);
      console.log(pad(['scenario (ms)', 'FCP', 'LCP', 'DCL', 'load', '×plain', '×best peer', 'pixels'], widths));
      for (const s of rows) {
        s.fcpVsPlain = s === plain ? null : ratio(plain && plain.median.fcp, s);
        s.fcpVsBestPeer = ratio(best && best.median.fcp, s);
        s.bestPeer = best ? best.scenario : null;
        // The last round's screenshot against direct's.
        const shot = path.join(opts.out, `${s.scenario}.png`);
        const reference = path.join(opts.out, 'direct.png');
        if (s.scenario !== 'direct' && fs.existsSync(shot) && fs.existsSync(reference)) {
          const compared = comparePixels(reference, shot);
          s.pixels = { ...compared, text: describe(compared) };
          if (!compared.same) failures.push(`${s.scenario}: screenshot ${s.pixels.text} from direct's`);
        }
        console.log(pad([s.scenario, ms(s.median.fcp), ms(s.median.lcp), ms(s.median.dcl), ms(s.median.load),
          times(s.fcpVsPlain), times(s.fcpVsBestPeer), s.pixels ? s.pixels.text : ''], widths));
      }
    }
    for (const s of summary) {
      console.log(`\n${s.scenario}: request            answered from          status  bytes    ttfb ms`);
      const requests = [...s.representative.requests].sort((a, b) =>
        (a.browser ? a.browser.start : 0) - (b.browser ? b.browser.start : 0));
      for (const r of requests) {
        console.log(`  ${pad([r.path, r.source, r.error === null ? (r.status ?? '-') : `err ${r.error}`, r.bytes ?? '-',
          ms(r.ttfb)], [30, 22, 7, 8, 7])}`);
      }
    }

    const report = { title, conditions: { rttMs: opts.rtt, kbps: opts.kbps, renderMs: opts.render,
      prefetchLeadMs: opts.prefetchLeadMs, runs: opts.runs }, transport: transportOf(setup, opts),
    loadAverage: os.loadavg(),
    chromium: execFileSync(CHROMIUM, ['--version'], { encoding: 'utf8', stdio: ['ignore', 'pipe', 'ignore'] }).trim(),
    groups: GROUPS, scenarios: summary.map(({ representative: _, ...rest }) => rest), failures };
    fs.writeFileSync(path.join(opts.out, 'report.json'), `${JSON.stringify(report, null, 2)}\n`);
    const htmlFile = path.join(opts.out, 'waterfall.html');
    fs.writeFileSync(htmlFile, waterfallHtml(summary.map((s) => s.representative), title));
    await renderWaterfall(htmlFile, path.join(opts.out, 'waterfall.png'));
    console.log(`\nreport, screenshots and waterfall: ${opts.out}`);
    if (failures.length > 0) {
      console.error(`\n${failures.length} run(s) failed:\n${failures.join('\n')}`);
      process.exitCode = 1;
    }
  } finally {
    setup.stop();
  }
}

main().catch((error) => {
  console.error(error);
  process.exitCode = 1;
});
