'use strict';
// The script bridge's lifetime: receivers go after their last event, and a
// process that exits with prefetches in flight exits cleanly.
const { test, before, after } = require('node:test');
const assert = require('node:assert/strict');
const { Sandbox } = require('./helpers');
const { startOrigin } = require('./origin');

let origin;
before(async () => { origin = await startOrigin(); });
after(() => origin.stop());

test('receivers are freed once their prefetch has ended and is removed', () => {
  const box = new Sandbox();
  box.env.VELORA_HILOG_LEVEL = 'debug';
  box.run(`
    // Alive until the receivers had their chance to go, however long that takes.
    const alive = setInterval(() => {}, 1000);
    const ids = [];
    let ended = 0;
    const end = () => {
      if (++ended < 20) return;
      ids.forEach((id) => velora.removePrefetch(id));
      setTimeout(() => clearInterval(alive), 200);
    };
    for (let i = 0; i < 20; i++) {
      const url = ${JSON.stringify(origin.url('/bytes/1000?i='))} + i;
      ids.push(velora.prefetch({ url, method: 'GET', headers: [] }, { onFinish: end, onError: end }));
    }
  `);
  const released = box.hilog().split('\n').filter((l) => l.includes('~ArkTsPrefetchRequestCallBack'));
  assert.equal(released.length, 20);
  box.remove();
});

test('exiting with prefetches in flight exits cleanly, every time', () => {
  for (let run = 0; run < 10; run++) {
    const box = new Sandbox();
    box.run(`
      for (let i = 0; i < 10; i++) {
        velora.prefetch({ url: ${JSON.stringify(origin.url('/bytes/10485760?chunk=65536&delay=5&i='))} + i,
                          method: 'GET', headers: [] },
                        { onData() {}, onFinish() {}, onError() {} });
      }
      // Half the runs exit at once; half keep the script busy while events
      // queue up, then simply end, so the runtime tears down with them queued.
      if (${run} % 2 === 0) {
        setTimeout(() => process.exit(0), 20 + ${run} * 5);
      } else {
        const until = Date.now() + 200;
        while (Date.now() < until);
      }
    `);
    box.remove();
  }
});
