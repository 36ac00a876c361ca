'use strict';
// A large body through the host driver from script, against curl's
// command-line client fetching the same bytes from the same native origin
// (bench/fast_origin, in a process of its own) in the same run. Variants are
// interleaved in rotated order over the rounds; medians of wall time and of
// CPU time (the script process for the driver, curl's own for curl).
//
//   node bench/js_driver_bench.js [--mib 200] [--rounds 5]
//
// The driver loads with keepBody off and counts the bytes in onData, as the
// browser front does; "keepBody" keeps the whole body in one Buffer instead.
const { spawn, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');

const ROOT = path.resolve(__dirname, '..');
const BUILD = path.resolve(ROOT, process.env.VELORA_BUILD_DIR || 'build');
const dataDir = fs.mkdtempSync(path.join(os.tmpdir(), 'velora-bench-'));
process.env.VELORA_DATA_DIR = dataDir;
process.env.VELORA_HILOG = path.join(dataDir, 'hilog.txt');

function arg(name, fallback) {
  const i = process.argv.indexOf(name);
  return i >= 0 ? Number(process.argv[i + 1]) : fallback;
}

function startOrigin() {
  const child = spawn(path.join(BUILD, 'bench', 'request_path_bench'), ['--serve-origin'],
    { stdio: ['pipe', 'pipe', 'inherit'] });
  return new Promise((resolve, reject) => {
    child.stdout.once('data', (text) => resolve({ port: Number(String(text).trim()), stop: () => child.stdin.end() }));
    child.once('exit', (code) => reject(new Error(`origin exited with ${code}`)));
  });
}

// curl's wall time as seen from here, and its CPU time from the shell's `times`.
function curlOnce(url, size) {
  const start = process.hrtime.bigint();
  const run = spawnSync('bash', ['-c', 'curl -sS -o /dev/null -w "%{size_download}\\n" "$1"; times', 'bash', url],
    { encoding: 'utf8' });
  const wall = Number(process.hrtime.bigint() - start) / 1e6;
  const lines = run.stdout.trim().split('\n');
  if (run.status !== 0 || Number(lines[0].split(/\s/)[0]) !== size) throw new Error(`curl: ${run.stderr}`);
  const seconds = (text) => {
    const [, m, s] = /(\d+)m([\d.]+)s/.exec(text);
    return Number(m) * 60 + Number(s);
  };
  const [user, sys] = lines[lines.length - 1].trim().split(/\s+/);
  return { wall, cpu: (seconds(user) + seconds(sys)) * 1000 };
}

async function driverOnce(web, url, size, keepBody) {
  const cpuBefore = process.cpuUsage();
  const start = process.hrtime.bigint();
  let received = 0;
  const res = await web.load({ url, keepBody, onData: keepBody ? undefined : (chunk) => { received += chunk.length; } });
  const wall = Number(process.hrtime.bigint() - start) / 1e6;
  const cpu = process.cpuUsage(cpuBefore);
  if (keepBody) received = res.body.length;
  if (res.error !== null || received !== size) throw new Error(`driver: error ${res.error}, ${received} bytes`);
  return { wall, cpu: (cpu.user + cpu.system) / 1000 };
}

function median(values) {
  const sorted = [...values].sort((a, b) => a - b);
  const mid = Math.floor(sorted.length / 2);
  return sorted.length % 2 ? sorted[mid] : (sorted[mid - 1] + sorted[mid]) / 2;
}

async function main() {
  const mib = arg('--mib', 200);
  const rounds = arg('--rounds', 5);
  const size = mib * 1024 * 1024;
  const host = require(path.join(BUILD, 'arkweb_host.node'));
  const velora = require(path.join(BUILD, 'velora.node'));
  velora.sdkInit({ appTag: 'bench', appVersion: '1.0.0', isDebug: false });
  const engine = host.createWebComponent('bench-engine');
  const bound = host.createWebComponent('bench-velora');
  velora.webviewNativeInit({ webTag: 'bench-velora', prefetchId: '', prefetchUrl: '' });
  velora.webviewNativeAttach({ webTag: 'bench-velora' });
  const origin = await startOrigin();
  const url = `http://127.0.0.1:${origin.port}/bytes/${size}`;
  const variants = [
    ['curl', () => curlOnce(url, size)],
    ['driver, engine network', () => driverOnce(engine, url, size, false)],
    ['driver, through Velora', () => driverOnce(bound, url, size, false)],
    ['driver, through Velora, keepBody', () => driverOnce(bound, url, size, true)],
  ];
  try {
    for (const [, run] of variants) await run();  // warm-up: connections, page cache
    const samples = new Map(variants.map(([name]) => [name, []]));
    for (let round = 0; round < rounds; round++) {
      for (let i = 0; i < variants.length; i++) {
        const [name, run] = variants[(i + round) % variants.length];
        samples.get(name).push(await run());
      }
    }
    console.log(`${mib} MiB from the native origin, ${rounds} rounds interleaved; ` +
      `load average ${os.loadavg().map((l) => l.toFixed(2)).join(' ')}`);
    const base = samples.get('curl');
    const baseWall = median(base.map((s) => s.wall));
    const baseCpu = median(base.map((s) => s.cpu));
    console.log(`${'variant'.padEnd(34)} ${'wall ms'.padStart(8)} ${'CPU ms'.padStart(8)} ` +
      `${'MiB/s'.padStart(7)}  throughput vs curl  CPU vs curl`);
    for (const [name] of variants) {
      const list = samples.get(name);
      const wall = median(list.map((s) => s.wall));
      const cpu = median(list.map((s) => s.cpu));
      console.log(`${name.padEnd(34)} ${wall.toFixed(0).padStart(8)} ${cpu.toFixed(0).padStart(8)} ` +
        `${(mib / (wall / 1000)).toFixed(0).padStart(7)}  ${(baseWall / wall).toFixed(2).padStart(18)}  ` +
        `${(baseCpu / cpu).toFixed(2).padStart(11)}`);
    }
  } finally {
    origin.stop();
    engine.destroy();
    bound.destroy();
    fs.rmSync(dataDir, { recursive: true, force: true });
  }
}

main().catch((error) => {
  console.error(error);
  process.exitCode = 1;
});
