'use strict';
// velora-pack as a user runs it, on folders a stranger could hand over.
const { test } = require('node:test');
const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { BUILD } = require('./helpers');

function pack(args, env = {}) {
  return spawnSync(path.join(BUILD, 'velora-pack'), args,
    { encoding: 'utf8', env: { ...process.env, ...env } });
}

test('build refuses links and leaves out names that are not UTF-8', () => {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'velora-pack-'));
  const site = path.join(dir, 'site');
  fs.mkdirSync(site);
  fs.writeFileSync(path.join(site, 'a.css'), 'a{}');
  fs.writeFileSync(Buffer.concat([Buffer.from(site + '/'), Buffer.from([0xff, 0xfe, 0x2e, 0x6a, 0x73])]), 'x');
  const built = pack(['build', site, 'https://h/s', path.join(dir, 'out')]);
  assert.equal(built.status, 0, built.stderr);
  assert.match(built.stderr, /not UTF-8/);
  const manifest = JSON.parse(fs.readFileSync(path.join(dir, 'out', 'manifest.json'), 'utf8'));
  assert.deepEqual(manifest.resources.map((r) => r.file), ['a.css']);

  fs.symlinkSync('/etc/hostname', path.join(site, 'linked.txt'));
  const refused = pack(['build', site, 'https://h/s', path.join(dir, 'out2')]);
  assert.equal(refused.status, 1);
  assert.match(refused.stderr, /symbolic link/);

  // Removing something that is no package id touches nothing.
  const data = path.join(dir, 'data');
  fs.mkdirSync(data);
  for (const id of ['..', '', '../site']) {
    const removed = pack(['remove', id], { VELORA_DATA_DIR: data, VELORA_PACKAGES_DIR: path.join(data, 'packages') });
    assert.equal(removed.status, 1, id);
  }
  assert.ok(fs.existsSync(path.join(site, 'a.css')));
  assert.ok(fs.existsSync(data));
  fs.rmSync(dir, { recursive: true, force: true });
});

test('build serves every file with the headers given, and refuses what is no header line', () => {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'velora-pack-'));
  const site = path.join(dir, 'site');
  fs.mkdirSync(site);
  fs.writeFileSync(path.join(site, 'a.css'), 'a{}');
  fs.writeFileSync(path.join(site, 'b.png'), 'png');
  const built = pack(['build', site, 'https://static.h.test:8443/s', path.join(dir, 'out'),
    '--header', 'Timing-Allow-Origin:  https://h.test:8443 ', '--header', 'X-Served-By: package']);
  assert.equal(built.status, 0, built.stderr);
  const manifest = JSON.parse(fs.readFileSync(path.join(dir, 'out', 'manifest.json'), 'utf8'));
  for (const resource of manifest.resources) {
    assert.equal(resource.headers['Timing-Allow-Origin'], 'https://h.test:8443', resource.file);
    assert.equal(resource.headers['X-Served-By'], 'package', resource.file);
  }
  assert.equal(manifest.resources.find((r) => r.file === 'a.css').headers['Content-Type'], 'text/css');
  for (const line of ['No-Colon', ': empty name', 'Bad Name: x', 'X-Split: a\r\nInjected: yes']) {
    const refused = pack(['build', site, 'https://h/s', path.join(dir, 'bad'), '--header', line]);
    assert.equal(refused.status, 2, JSON.stringify(line));
    assert.match(refused.stderr, /not a header line/);
  }
  assert.equal(pack(['build', site, 'https://h/s', path.join(dir, 'bad'), '--header']).status, 2);
  assert.ok(!fs.existsSync(path.join(dir, 'bad')), 'a refused build wrote its output');
  fs.rmSync(dir, { recursive: true, force: true });
});
