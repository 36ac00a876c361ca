'use strict';
// Runs script snippets against the built module in a child Node process with
// its own data folder and log files, and reads back what they left behind.
const { execFileSync, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');

const ROOT = path.resolve(__dirname, '..', '..');
const BUILD = path.resolve(ROOT, process.env.VELORA_BUILD_DIR || 'build');

function readJsonLines(file) {
  if (!fs.existsSync(file)) return [];
  return fs.readFileSync(file, 'utf8').split('\n').filter(Boolean).map((line) => JSON.parse(line));
}

// A fresh data folder with the module's log, statistics and config files.
class Sandbox {
  constructor() {
    this.dir = fs.mkdtempSync(path.join(os.tmpdir(), 'velora-js-'));
    this.env = {
      VELORA_DATA_DIR: this.dir,
      VELORA_LOG: path.join(this.dir, 'log.jsonl'),
      VELORA_STATS: path.join(this.dir, 'stats.jsonl'),
      VELORA_HILOG: path.join(this.dir, 'hilog.txt'),
      VELORA_CONFIG: path.join(this.dir, 'config.json'),
    };
  }

  writeConfig(namespaces) {
    fs.writeFileSync(this.env.VELORA_CONFIG, JSON.stringify(namespaces));
  }

  // Runs `body` (source text; `velora` is the loaded module) in a new process.
  run(body) {
    const script = `const velora = require(${JSON.stringify(path.join(BUILD, 'velora.node'))});\n${body}`;
    const result = spawnSync(process.execPath, ['-e', script], {
      env: { ...process.env, ...this.env },
      encoding: 'utf8',
      timeout: 60000,
    });
    if (result.status !== 0) {
      throw new Error(`child exited with ${result.status} (${result.signal})\n${result.stderr}`);
    }
    return result.stdout;
  }

  log() {
    return readJsonLines(this.env.VELORA_LOG);
  }

  events(name) {
    return this.log().filter((entry) => entry.event === name);
  }

  hilog() {
    return fs.existsSync(this.env.VELORA_HILOG) ? fs.readFileSync(this.env.VELORA_HILOG, 'utf8') : '';
  }

  // The value of `key` in the persistent store `store`, or null.
  store(store, key) {
    const db = path.join(this.dir, 'store.db');
    if (!fs.existsSync(db)) return null;
    const out = execFileSync('sqlite3', ['-json', db,
      `SELECT value FROM kv WHERE store = '${store}' AND key = '${key}'`],
      { encoding: 'utf8', maxBuffer: 256 << 20 });
    const rows = out.trim() ? JSON.parse(out) : [];
    return rows.length ? rows[0].value : null;
  }

  remove() {
    fs.rmSync(this.dir, { recursive: true, force: true });
  }
}

// For suites that load both addons into the test process itself: a fresh
// data folder and log (set before the addons read them), the local origin,
// and the structured log's entries by event name. With `tls`, the origin
// serves HTTPS as well from the run's certificates (VELORA_TEST_CERTS, or
// made here), which the host libraries trust (suite.certs).
function inProcessSuite(prefix, { tls = false } = {}) {
  const { before, after, afterEach } = require('node:test');
  const assert = require('node:assert/strict');
  const { startOrigin, ensureTestCerts } = require('./origin');
  ensureTestCerts();  // before the addons: flume reads VELORA_CA_FILE once
  const dataDir = fs.mkdtempSync(path.join(os.tmpdir(), prefix));
  process.env.VELORA_DATA_DIR = dataDir;
  process.env.VELORA_LOG = path.join(dataDir, 'log.jsonl');
  process.env.VELORA_HILOG = path.join(dataDir, 'hilog.txt');
  process.env.VELORA_CONFIG = path.join(dataDir, 'config.json');
  let certs = null;
  if (tls) {
    const { makeCerts } = require('../origin/certs');
    certs = makeCerts(process.env.VELORA_TEST_CERTS || path.join(dataDir, 'certs'));
    process.env.VELORA_TEST_CERTS = certs.dir;
    process.env.VELORA_CA_FILE = certs.ca;
  }
  const suite = {
    certs,
    host: require(path.join(BUILD, 'arkweb_host.node')),
    velora: require(path.join(BUILD, 'velora.node')),
    origin: null,
    events: (name) => readJsonLines(process.env.VELORA_LOG).filter((e) => e.event === name),
  };
  before(async () => { suite.origin = await startOrigin(); });
  // The host engine counts the calls that break the ArkWeb SDK's rules, which
  // a device would let through: every test must leave none.
  afterEach(() => {
    const broken = suite.host.takeRuleViolations();
    assert.equal(broken.count, 0, `calls broke the ArkWeb SDK's rules; the first: ${broken.first}`);
  });
  after(() => {
    suite.origin.stop();
    fs.rmSync(dataDir, { recursive: true, force: true });
  });
  return suite;
}

module.exports = { Sandbox, BUILD, ROOT, readJsonLines, inProcessSuite };
