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
