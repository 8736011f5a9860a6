#!/usr/bin/env node
// One extension author's scenario, end to end, timed as a user waits for it:
// start appex on the example extension with its page served, open the page,
// wait for the tab's badge, click the toolbar button, read the popup, take a
// snapshot of the popover, quit. Several runs; prints each step's time from
// the start (minimum and median) and the whole run.
//
//   bench/scenario.mjs [--runs N] [--appex PATH] [--bundle B] [--site DIR]
//
// Defaults: 5 runs of build/release/appex on examples/Example.appex. Needs a
// display (DISPLAY set or xvfb-run), like any appex run measured here.

import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';
import { parseArgs } from 'node:util';

import { launch } from '../clients/node/index.js';

const root = resolve(dirname(fileURLToPath(import.meta.url)), '..');
const { values } = parseArgs({
  options: {
    runs: { type: 'string', default: '5' },
    appex: { type: 'string', default: join(root, 'build/release/appex') },
    bundle: { type: 'string', default: join(root, 'examples/Example.appex') },
    site: { type: 'string', default: join(root, 'examples/site') },
  },
});
const runs = Number(values.runs);
if (!Number.isInteger(runs) || runs < 1) {
  console.error('bench/scenario: --runs takes a positive whole number');
  process.exit(2);
}

const steps = ['ready', 'badge', 'popover', 'popup read', 'snapshot', 'exit'];

async function once() {
  const scratch = mkdtempSync(join(tmpdir(), 'appex-scenario-'));
  const marks = {};
  const start = performance.now();
  const mark = (step) => { marks[step] = performance.now() - start; };
  let appex;
  try {
    appex = await launch({ appex: values.appex, bundle: values.bundle, serve: values.site,
                           open: 'index.html', dataDir: join(scratch, 'data') });
    mark('ready');
    await appex.waitForBadge('44', { tab: 't1' });
    mark('badge');
    const since = appex.mark();
    await appex.clickToolbar();
    await appex.waitForEvent('popover', (e) => e.shown, 10_000, { since });
    mark('popover');
    const words = await appex.eval(
      `new Promise((done) => {
         const poll = () => {
           const text = document.querySelector('#words').textContent;
           text !== '–' ? done(text) : setTimeout(poll, 5);
         };
         poll();
       })`, { in: 'popup' });
    if (words !== '44') throw new Error(`the popup read ${words}`);
    mark('popup read');
    await appex.snapshot('popover', join(scratch, 'popover.png'));
    mark('snapshot');
    const exit = await appex.quit();
    if (exit.code !== 0) throw new Error(`appex exited with ${exit.signal ?? exit.code}`);
    mark('exit');
  } finally {
    await appex?.close();
    rmSync(scratch, { recursive: true, force: true });
  }
  return marks;
}

const all = [];
for (let i = 0; i < runs; i++) all.push(await once());

const ms = (v) => `${(v / 1000).toFixed(3)} s`;
const median = (xs) => {
  const s = [...xs].sort((a, b) => a - b);
  return s.length % 2 ? s[(s.length - 1) / 2] : (s[s.length / 2 - 1] + s[s.length / 2]) / 2;
};
console.log(`scenario: ${runs} runs of ${values.appex}`);
console.log('step (time from start)   min        median     max');
for (const step of steps) {
  const xs = all.map((m) => m[step]);
  console.log(`${step.padEnd(24)} ${ms(Math.min(...xs)).padEnd(10)} ${ms(median(xs)).padEnd(10)} ${ms(Math.max(...xs))}`);
}
