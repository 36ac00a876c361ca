'use strict';
// What the main job and its end-to-end test share: the scenarios, the demo
// site under its conditions with the offline package built for it, and one
// scenario run in a child process.
const { execFileSync, spawn } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { buildSite, PAGE_PATH } = require('./news_site.js');
const { startServer } = require('../tests/js/origin.js');

const SCENARIOS = [
  { name: 'direct' },
  { name: 'velora', velora: true },
  { name: 'velora+package', velora: true, package: true },
  { name: 'velora+prefetch', velora: true, prefetch: true },
  { name: 'velora+first-chunk', velora: true, firstChunk: true },
  { name: 'combined', velora: true, package: true, prefetch: true, firstChunk: true },
];

function startSite(siteDir, opts) {
  return startServer(path.join(__dirname, 'site_server.js'), ['--site', siteDir, '--rtt', String(opts.rtt),
    '--kbps', String(opts.kbps), '--render', String(opts.render)]);
}

// Runs one scenario in a child process; its result, or { failed } with why.
function runScenario(scenario, setup, screenshot) {
  const dataDir = fs.mkdtempSync(path.join(setup.workDir, 'run-'));
  const env = { ...process.env, VELORA_DATA_DIR: dataDir, VELORA_LOG: path.join(dataDir, 'log.jsonl'),
    VELORA_HILOG: path.join(dataDir, 'hilog.txt'), VELORA_STATS: path.join(dataDir, 'stats.jsonl'),
    VELORA_PACKAGES_DIR: scenario.package ? setup.packages : setup.noPackages,
    VELORA_SSR_RULES: `${setup.origin}/news/` };
  const input = { scenario, pageUrl: setup.pageUrl, prefetchLeadMs: setup.prefetchLeadMs, screenshot,
    build: setup.build };
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
        resolve({ scenario: scenario.name, failed: `${error.message}\n${err.slice(-2000)}` });
      }
    });
  });
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

// Builds the site into a fresh folder, starts its origin and packages its
// static folder. `conditions`: { rtt, kbps, render, prefetchLeadMs }.
async function prepareSite(build, conditions) {
  const workDir = fs.mkdtempSync(path.join(os.tmpdir(), 'velora-demo-'));
  buildSite(workDir);
  let site;
  try {
    site = await startSite(workDir, conditions);
    const origin = `http://localhost:${site.port}`;
    const setup = { build, workDir, origin, pageUrl: `${origin}${PAGE_PATH}`,
      prefetchLeadMs: conditions.prefetchLeadMs, packages: path.join(workDir, 'packages'),
      noPackages: path.join(workDir, 'no-packages') };
    fs.mkdirSync(setup.noPackages);
    // The site's static folder as the app team would ship it.
    const pack = path.join(build, 'velora-pack');
    const zip = path.join(workDir, 'harbor-static.zip');
    execFileSync(pack, ['build', path.join(workDir, 'static'), `${origin}/static`, zip, '--id',
      'harbor-static', '--version', '1.0.0'], { stdio: 'ignore' });
    execFileSync(pack, ['install', zip], { stdio: 'ignore', env: { ...process.env,
      VELORA_PACKAGES_DIR: setup.packages, VELORA_DATA_DIR: workDir,
      VELORA_HILOG: path.join(workDir, 'hilog.txt') } });
    setup.count = async (p) => (await (await fetch(`${origin}/__count?path=${encodeURIComponent(p)}`)).json()).count;
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
