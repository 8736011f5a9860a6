// The example extension as its author would test it: the Node client's
// fixture runs it on WebKit with its page served, and each test checks what
// a user of the extension sees: the badge, the popup, the highlighting, the
// stored visit count.
//
// Environment: APPEX_BIN (the appex program), APPEX_EXAMPLE (the bundle)
// and APPEX_SITE (examples/site); ctest sets them (example_test).

import assert from 'node:assert/strict';
import { existsSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, test } from 'node:test';

import { useAppex } from '../../clients/node/test.js';

const scratch = mkdtempSync(join(tmpdir(), 'appex-example-'));
after(() => rmSync(scratch, { recursive: true, force: true }));

const appex = useAppex({
  bundle: process.env.APPEX_EXAMPLE,
  serve: process.env.APPEX_SITE,
  open: 'index.html',
  dataDir: join(scratch, 'data'),
});

// Words on examples/site/index.html, inner frame aside.
const WORDS = '44';

test('the badge shows the word count of the page', { timeout: 30_000 }, async () => {
  const toolbar = await appex.waitForBadge(WORDS, { tab: 't1' });
  assert.equal(toolbar.enabled, true);
});

test('the popup shows the count and the page title, and sizes itself', { timeout: 30_000 }, async () => {
  await appex.waitForBadge(WORDS);
  const since = appex.mark();
  await appex.clickToolbar();
  await appex.waitForEvent('popover', (e) => e.shown, 10_000, { since });
  const shown = await appex.eval(
    `new Promise((resolve) => {
       const read = () => ({ words: document.querySelector('#words').textContent,
                             title: document.querySelector('#title').textContent });
       const poll = () => (read().words !== '–' ? resolve(read()) : setTimeout(poll, 20));
       poll();
     })`, { in: 'popup' });
  assert.deepEqual(shown, { words: WORDS, title: 'A page to count' });
  // The popup asks for its content's height; the popover follows.
  const sized = await appex.waitForEvent('popover', (e) => e.shown && e.height !== 566, 10_000, { since });
  assert.ok(sized.height > 100 && sized.height < 566, `height ${sized.height}`);
});

test('the popup\'s button highlights the long words in the page', { timeout: 30_000 }, async () => {
  const marked = await appex.eval(
    `new Promise((resolve) => {
       document.querySelector('#highlight').click();
       resolve(true);
     })`, { in: 'popup' });
  assert.equal(marked, true);
  const count = await appex.evalInTab('t1',
    `new Promise((resolve) => {
       const poll = () => {
         const n = document.querySelectorAll('mark.appex-long-word').length;
         n ? resolve(n) : setTimeout(poll, 20);
       };
       poll();
     })`, { world: 'page' });
  assert.ok(count >= 3, `${count} words marked`);
});

test('the visit count is stored, and a snapshot shows the popover', { timeout: 30_000 }, async () => {
  const [tab] = await appex.listTabs();
  const stored = await appex.defaults();
  assert.equal(stored[`visits:${tab.url}`], '1');

  const path = join(scratch, 'popover.png');
  const shot = await appex.snapshot('popover', path);
  assert.equal(shot.width, 430);
  assert.ok(existsSync(path));
  assert.equal(readFileSync(path).subarray(1, 4).toString(), 'PNG');
});
