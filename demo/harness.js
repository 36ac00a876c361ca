'use strict';
// What the main job and its end-to-end test share: the scenarios, the demo
// site under its conditions with the offline package built for it, and one
// scenario run in a child process.
const { execFileSync, spawn } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { buildSite, PAGE_PATH, HOSTS } = require('./news_site.js');
const { makeCerts } = require('../tests/origin/certs.js');
const { startServer } = require('../tests/js/origin.js');

// Each scenario belongs to a group of rows that compare with each other:
// 'first', the first-ever visit straight to the article (an app opened from
// a notification: empty cache, no worker yet, no stored first chunk);
// 'repeat', a later visit straight to it; 'flow', the home page and then
// the click to the article, timed from the click. `peer`: what the browser
// and the site do without Velora (the component not bound).
const SCENARIOS = [
  { name: 'direct', group: 'first', peer: true },
  { name: 'velora', group: 'first', velora: true },
  { name: 'velora+package', group: 'first', velora: true, package: true },
  { name: 'velora+prefetch', group: 'first', velora: true, prefetch: true },
  { name: 'velora+package+prefetch', group: 'first', velora: true, package: true, prefetch: true },
  { name: 'velora+first-chunk', group: 'repeat', velora: true, firstChunk: true },
  { name: 'combined', group: 'repeat', velora: true, package: true, prefetch: true, firstChunk: true },
  // The site's Workbox service worker: the first visit installs it (its
  // figures are the 'sw (first visit)' row), the second is measured.
  { name: 'sw', group: 'repeat', peer: true, sw: true },
  { name: 'home>article', group: 'flow', peer: true, flow: true },
  { name: 'speculation-prefetch', group: 'flow', peer: true, flow: true, speculate: 'prefetch' },
  { name: 'speculation-prerender', group: 'flow', peer: true, flow: true, speculate: 'prerender' },
  { name: 'sw+speculation', group: 'flow', peer: true, flow: true, sw: true, speculate: 'prerender' },
  // Velora's prefetch of the article starts when the home page shows.
  { name: 'home>article velora+prefetch', group: 'flow', flow: true, velora: true, prefetch: true },
  { name: 'home>article combined', group: 'flow', flow: true, velora: true, package: true, prefetch: true,
    firstChunk: true },
];

function startSite(siteDir, opts, certs) {
  const args = ['--site', siteDir, '--rtt', String(opts.rtt), '--kbps', String(opts.kbps),
    '--render', String(opts.render)];
  if (certs) args.push('--cert', certs.cert, '--key', certs.key);
  return startServer(path.join(__dirname, 'site_server.js'), args);
}

// Runs scenario.js once in a child process with `input`; its result, or
// { failed } with why.
function runChild(input, env) {
  return new Promise((resolve) => {
    const child = spawn(process.execPath, [path.join(__dirname, 'scenario.js'), JSON.stringify(input)],
      { env, stdio: ['ignore', 'pipe', 'pipe'] });
    let out = '';
    let err = '';
    child.stdout.on('data', (piece) => { out += piece; });
    child.stderr.on('data', (piece) => { err += piece; });
    // SIGTERM first: playwright closes the browser it started on it.
    const timer = setTimeout(() => {
      child.kill('SIGTERM');
      setTimeout(() => child.kill('SIGKILL'), 5000).unref();
    }, 180000);
    child.on('close', (code) => {
      clearTimeout(timer);
      try {
        if (code !== 0) throw new Error(`exit ${code}`);
        resolve(JSON.parse(out.trim().split('\n').pop()));
      } catch (error) {
        resolve({ scenario: input.scenario.name, failed: `${error.message}\n${err.slice(-2000)}` });
      }
    });
  });
}

// What the origins counted between two /__stats answers: per origin, the
// connections opened and the requests per HTTP version.
function statsDelta(before, after) {
  const delta = {};
  for (const [name, counts] of Object.entries(after.origins)) {
    delta[name] = Object.fromEntries(Object.entries(counts).map(([key, n]) => [key, n - before.origins[name][key]]));
  }
  return delta;
}

// Runs one scenario; its result, or { failed } with why. The visit that
// stores the first chunk runs in a process of its own before the measured
// one, as in an earlier session of the app: the measured visit opens its
// own connections, and pays for them, as every other scenario does.
async function runScenario(scenario, setup, screenshot) {
  const dataDir = fs.mkdtempSync(path.join(setup.workDir, 'run-'));
  const env = { ...process.env, VELORA_DATA_DIR: dataDir, VELORA_LOG: path.join(dataDir, 'log.jsonl'),
    VELORA_HILOG: path.join(dataDir, 'hilog.txt'), VELORA_STATS: path.join(dataDir, 'stats.jsonl'),
    VELORA_PACKAGES_DIR: scenario.package ? setup.packages : setup.noPackages,
    VELORA_SSR_RULES: `${setup.origins.page}/news/`, VELORA_RESOLVE: setup.resolve };
  if (setup.certs) env.VELORA_CA_FILE = setup.certs.ca;
  const input = { scenario, pageUrl: setup.pageUrl, prefetchLeadMs: setup.prefetchLeadMs, screenshot,
    build: setup.build, front: { names: setup.names, tls: setup.certs }, profile: path.join(dataDir, 'profile') };
  let firstVisit = null;
  if (scenario.sw) {  // installs the worker in the profile the measured visit uses
    firstVisit = await runChild({ ...input, screenshot: undefined, firstVisit: true }, env);
    if (firstVisit.failed) return { scenario: scenario.name, failed: `first visit: ${firstVisit.failed}` };
  }
  if (scenario.firstChunk) {
    const first = await runChild({ ...input, screenshot: undefined, firstVisit: true }, env);
    if (first.failed) return { scenario: scenario.name, failed: `first visit: ${first.failed}` };
  }
  const before = await setup.stats();
  const run = await runChild(input, env);
  if (!run.failed) run.origins = statsDelta(before, await setup.stats());
  if (firstVisit && !run.failed) run.firstVisit = firstVisit;
  return run;
}

// What the page must show when it loaded right.
function checkPage(run) {
  if (run.failed) return run.failed;
  const { dom } = run;
  if (dom.headline !== 'Harbour lights return after three dark winters') return 'headline missing';
  if (dom.comments !== '3') return `comments: ${dom.comments}`;
  if (dom.images !== 5) return `${dom.images} of 5 images`;
  if (run.fcp === null) return 'no first contentful paint';
  return null;
}

// Builds the site into a fresh folder, starts its origins and packages its
// static folder. `conditions`: { rtt, kbps, render, prefetchLeadMs, transport }:
// 'https' (the default; certificates made for the run) or 'http'.
async function prepareSite(build, conditions) {
  const workDir = fs.mkdtempSync(path.join(os.tmpdir(), 'velora-demo-'));
  let site;
  try {
    buildSite(workDir);
    const transport = conditions.transport || 'https';
    if (transport !== 'https' && transport !== 'http') throw new Error(`no transport ${transport}`);
    // The run's root, and its leaf for localhost and every name under harbor.test.
    const made = transport === 'https' ? makeCerts(path.join(workDir, 'certs')) : null;
    const certs = made && { ca: made.ca, cert: made.leaf.cert, key: made.leaf.key };
    site = await startSite(workDir, conditions, certs);
    const { origins } = site;
    const control = `http://127.0.0.1:${site.port}`;
    const names = Object.values(HOSTS);
    const setup = { build, workDir, transport, origins, pageUrl: `${origins.page}${PAGE_PATH}`, certs, names,
      // The host libraries find the site's names here, not in DNS.
      resolve: names.map((name) => `${name}=127.0.0.1`).join(','),
      prefetchLeadMs: conditions.prefetchLeadMs, packages: path.join(workDir, 'packages'),
      noPackages: path.join(workDir, 'no-packages') };
    fs.mkdirSync(setup.noPackages);
    // The site's static folder as the app team would ship it, with the
    // headers the static origin sends: the page may time its files, and the
    // browser may keep them as long as it keeps the origin's.
    const pack = path.join(build, 'velora-pack');
    const zip = path.join(workDir, 'harbor-static.zip');
    execFileSync(pack, ['build', path.join(workDir, 'static'), `${origins.static}/static`, zip, '--id',
      'harbor-static', '--version', '1.0.0', '--header', `Timing-Allow-Origin: ${origins.page}`,
      '--header', 'Cache-Control: max-age=600'],
    { stdio: 'ignore' });
    execFileSync(pack, ['install', zip], { stdio: 'ignore', env: { ...process.env,
      VELORA_PACKAGES_DIR: setup.packages, VELORA_DATA_DIR: workDir,
      VELORA_HILOG: path.join(workDir, 'hilog.txt') } });
    const ask = async (p) => (await fetch(`${control}${p}`)).json();
    setup.count = async (p) => (await ask(`/__count?path=${encodeURIComponent(p)}`)).count;
    setup.stats = () => ask('/__stats');
    setup.stop = () => {
      site.stop();
      fs.rmSync(workDir, { recursive: true, force: true });
    };
    return setup;
  } catch (error) {
    if (site) site.stop();
    fs.rmSync(workDir, { recursive: true, force: true });
    throw error;
  }
}

module.exports = { SCENARIOS, prepareSite, runScenario, checkPage };
