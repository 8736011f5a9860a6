// The browser behaviour an extension meets in appex is the one it meets in
// users' hands: its toolbar button as drawn (PDF icons at 1x and 2x, the
// badge pill, the label), the popover's life, pages that open tabs and
// windows, private windows' shared session. Driven through `appex run
// --control` on real WebKit (under xvfb-run), with the example bundle.
//
// Environment (set by the ctest registration): APPEX_BIN, APPEX_EXAMPLE,
// APPEX_SITE.

import assert from 'node:assert/strict';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, before, describe, it } from 'node:test';
import { inflateSync } from 'node:zlib';

import { Host, appexBin, exampleBundle, exampleSite } from './appex_host.mjs';

assert.ok(appexBin && exampleBundle && exampleSite, 'APPEX_BIN, APPEX_EXAMPLE and APPEX_SITE must be set');

const scratch = mkdtempSync(join(tmpdir(), 'appex-fidelity-'));
after(() => rmSync(scratch, { recursive: true, force: true }));

// An 8-bit RGB or RGBA PNG (what cairo writes) as {width, height, at(x, y) -> [r, g, b]}.
function readPNG(path) {
  const file = readFileSync(path);
  let width = 0;
  let height = 0;
  let channels = 0;
  const data = [];
  for (let at = 8; at < file.length;) {
    const length = file.readUInt32BE(at);
    const type = file.toString('latin1', at + 4, at + 8);
    const body = file.subarray(at + 8, at + 8 + length);
    if (type === 'IHDR') {
      [width, height] = [body.readUInt32BE(0), body.readUInt32BE(4)];
      assert.ok(body[8] === 8 && [2, 6].includes(body[9]) && body[12] === 0, 'an 8-bit RGB(A) PNG, not interlaced');
      channels = body[9] === 6 ? 4 : 3;
    }
    if (type === 'IDAT') data.push(body);
    at += 12 + length;
  }
  const raw = inflateSync(Buffer.concat(data));
  const stride = width * channels;
  const pixels = Buffer.alloc(stride * height);
  for (let y = 0; y < height; ++y) {
    const filter = raw[y * (stride + 1)];
    const line = raw.subarray(y * (stride + 1) + 1, (y + 1) * (stride + 1));
    for (let i = 0; i < stride; ++i) {
      const left = i >= channels ? pixels[y * stride + i - channels] : 0;
      const up = y > 0 ? pixels[(y - 1) * stride + i] : 0;
      const corner = i >= channels && y > 0 ? pixels[(y - 1) * stride + i - channels] : 0;
      const p = left + up - corner;
      const [pa, pb, pc] = [Math.abs(p - left), Math.abs(p - up), Math.abs(p - corner)];
      const paeth = pa <= pb && pa <= pc ? left : pb <= pc ? up : corner;
      const predicted = [0, left, up, (left + up) >> 1, paeth][filter];
      pixels[y * stride + i] = (line[i] + predicted) & 0xff;
    }
  }
  return { width, height, at: (x, y) => [...pixels.subarray(y * stride + x * channels, y * stride + x * channels + 3)] };
}

// The bounding box of the pixels `match` accepts, within rows [0, maxY).
function boxOf(png, match, maxY = png.height) {
  let box = null;
  for (let y = 0; y < maxY; ++y) {
    for (let x = 0; x < png.width; ++x) {
      if (!match(png.at(x, y))) continue;
      box ??= { left: x, top: y, right: x, bottom: y };
      box.left = Math.min(box.left, x);
      box.right = Math.max(box.right, x);
      box.bottom = y;
    }
  }
  return box && { ...box, width: box.right - box.left + 1, height: box.bottom - box.top + 1 };
}

// The example's icon, logo-grey.pdf: a 50% grey square of 24 x 24 points on
// a 32-point page, so 12 x 12 points on the 16-point button.
const iconGrey = ([r, g, b]) => Math.abs(r - 128) <= 2 && Math.abs(g - 128) <= 2 && Math.abs(b - 128) <= 2;
const badgeRed = ([r, g, b]) => r > 200 && g < 90 && b < 90;

describe('the toolbar button as drawn', () => {
  let host;
  before(async () => {
    host = new Host(['run', exampleBundle, '--control', '--data-dir', join(scratch, 'toolbar-data'), '--serve',
      exampleSite, '--open', 'index.html']);
    await host.waitFor('ready', {}, { timeoutMs: 30_000 });
  });
  after(() => host?.kill());

  it('draws the PDF icon at 1x and 2x, the badge as a red pill at its top-right, the label under it', async () => {
    await host.waitEvent((e) => e.event === 'toolbar' && /^\d+$/.test(e.badgeText ?? ''), { what: 'the badge' });
    const shapes = {};
    for (const scale of [1, 2]) {
      const path = join(scratch, `toolbar@${scale}x.png`);
      const result = await host.call('snapshot', { of: 'toolbar', path, scale });
      const png = readPNG(path);
      assert.deepEqual([png.width, png.height], [result.width, result.height]);
      // The icon, rendered for this scale: sharp edges at 12 points.
      const icon = boxOf(png, iconGrey, 21 * scale);
      assert.ok(icon, `no icon drawn at ${scale}x`);
      assert.deepEqual([icon.width, icon.height], [12 * scale, 12 * scale], `icon at ${scale}x`);
      // The badge: a pill above and right of the icon's middle.
      const badge = boxOf(png, badgeRed);
      assert.ok(badge, `no badge at ${scale}x`);
      assert.ok(badge.top < icon.top && badge.left > icon.left + 4 * scale && badge.right > icon.right,
        `badge ${JSON.stringify(badge)} is not at the top-right of icon ${JSON.stringify(icon)}`);
      // White text on it.
      assert.ok(boxOf(png, ([r, g, b]) => r > 240 && g > 240 && b > 240, badge.bottom), 'no badge text');
      shapes[scale] = png;
    }
    assert.deepEqual([shapes[2].width, shapes[2].height], [shapes[1].width * 2, shapes[1].height * 2]);

    // A new window's button still has the label of Info.plist ("Word Count"):
    // dark text under the icon, wider than it; no badge.
    const { window } = await host.call('openWindow', { url: 'about:blank' });
    const labelled = join(scratch, 'toolbar-label.png');
    await host.call('snapshot', { of: 'toolbar', path: labelled, window, scale: 1 });
    const png = readPNG(labelled);
    const icon = boxOf(png, iconGrey, 21);
    const label = boxOf(png, ([r, g, b]) => r < 90 && g < 90 && b < 90);
    assert.ok(icon && label && label.top > icon.bottom && label.width > 2 * icon.width,
      `label ${JSON.stringify(label)} under icon ${JSON.stringify(icon)}`);
    assert.equal(boxOf(png, badgeRed), null, 'a badge without badge text');
    await host.call('closeWindow', { window });

    // A PNG icon set by the extension replaces the PDF.
    await host.call('eval', { code: `appex.tabs.query({active: true, currentWindow: true})
      .then(([tab]) => appex.browserAction.setIcon({path: 'icons/active.png', tabId: tab.id}))` });
    await host.waitEvent((e) => e.event === 'toolbar' && /active\.png$/.test(e.image ?? ''), { what: 'the new icon' });
    const path = join(scratch, 'toolbar-png-icon.png');
    await host.call('snapshot', { of: 'toolbar', path, scale: 1 });
    assert.equal(boxOf(readPNG(path), iconGrey, 21), null, 'the PDF icon is still drawn');

    assert.match(await host.failure('snapshot', { of: 'toolbar', path, scale: 3 }), /"scale" is 1 or 2/);
    assert.match(await host.failure('snapshot', { of: 'toolbar', path, window: 'w9' }), /no window w9/);
  });
});

describe('the popover closes as the real one does', () => {
  let host;
  before(async () => {
    host = new Host(['run', exampleBundle, '--control', '--data-dir', join(scratch, 'popover-data')]);
    await host.waitFor('ready', {}, { timeoutMs: 30_000 });
  });
  after(() => host?.kill());

  async function open() {
    const since = host.mark();
    await host.call('clickToolbar', { window: 'w1' });
    await host.waitFor('popover', { shown: true }, { since });
  }
  async function closedBy(what, action) {
    const since = host.mark();
    await action();
    await host.waitFor('popover', { shown: false }, { since, timeoutMs: 5_000 }).catch(() => {
      throw new Error(`${what} left the popover open`);
    });
    assert.equal((await host.call('popover')).shown, false, what);
  }

  it('on a click outside it, another active tab or window; the next opening starts afresh', async () => {
    assert.match(await host.failure('clickOutside'), /the popover is not shown/);

    await open();
    await host.call('eval', { in: 'popup', code: 'window.kept = 1' });
    await closedBy('a click outside', () => host.call('clickOutside'));
    // Its page is hidden, and starts over when shown again.
    await host.until(async () => await host.call('eval', { in: 'popup', code: 'document.visibilityState' }) === 'hidden',
      5_000, 'the closed popup page to be hidden');
    await open();
    await host.until(() => host.call('eval', { in: 'popup', code: 'typeof window.kept === "undefined"' }), 5_000,
      'a fresh popup page');
    await closedBy('a click outside', () => host.call('clickOutside', { window: 'w1' }));

    const { tab } = await host.call('openTab', { url: 'about:blank', active: false });
    await open();
    await closedBy('another active tab', () => host.call('activateTab', { tab }));

    await open();
    const { window } = await host.call('openWindow', { url: 'about:blank' });
    await host.until(async () => !(await host.call('popover')).shown, 5_000, 'a new window to close the popover');
    // A click in another window.
    await host.call('activateTab', { tab: 't1' });
    await open();
    await closedBy('a click in another window', () => host.call('clickOutside', { window }));
    assert.match(await host.failure('clickOutside', { window: 'w9' }), /no window w9/);
  });
});

describe('pages that open tabs and windows', () => {
  let host;
  before(async () => {
    host = new Host(['run', exampleBundle, '--control', '--data-dir', join(scratch, 'open-data'), '--serve', exampleSite,
      '--open', 'index.html']);
    await host.waitFor('ready', {}, { timeoutMs: 30_000 });
    await host.until(async () => (await host.call('listTabs'))[0]?.title === 'A page to count', 10_000, 'the page');
  });
  after(() => host?.kill());

  // What `code` opens from t1's page: the new tab, its window, and the
  // extension's content script running in it.
  async function opened(code, query) {
    const since = host.mark();
    await host.call('eval', { in: 'tab', tab: 't1', world: 'page', code: `${code}; 0` });
    const { tab, window } = await host.waitFor('tabOpened', {}, { since });
    await host.until(async () => (await host.call('listTabs')).find((t) => t.tab === tab && t.active &&
      t.url?.endsWith(query)), 10_000, `the tab at ${query}, active`);
    // The tab's first document (about:blank) may go away under the probe.
    await host.until(async () => await host.call('eval', { in: 'tab', tab, code: 'typeof appex' })
      .catch(() => null) === 'object', 10_000, `the content script in ${query}`);
    // The extension hears of the tab (the example logs tabs.onCreate).
    await host.waitEvent((e) => e.event === 'console' && e.source === 'background' && e.text.startsWith('tab opened: '),
      { since, what: 'tabs.onCreate' });
    return window;
  }

  it('a link with target=_blank and window.open open a tab in the same window, a popup-style window.open a window', async () => {
    assert.equal(await opened(`const a = document.createElement('a'); a.href = 'index.html?blank'; a.target = '_blank';
      document.body.append(a); a.click()`, '?blank'), 'w1');
    assert.equal(await opened("window.open('index.html?tab')", '?tab'), 'w1');
    const popup = await opened("window.open('index.html?popup', 'pop', 'width=400,height=300')", '?popup');
    assert.notEqual(popup, 'w1');
    assert.deepEqual((await host.call('listTabs')).filter((t) => t.window === popup).map((t) => t.url.split('?')[1]),
      ['popup']);
  });
});

describe('private windows', () => {
  let host;
  let base;
  before(async () => {
    host = new Host(['run', exampleBundle, '--control', '--data-dir', join(scratch, 'private-data'), '--serve',
      exampleSite, '--open', 'index.html']);
    await host.waitFor('ready', {}, { timeoutMs: 30_000 });
    base = await host.until(async () => (await host.call('listTabs'))[0]?.url?.replace(/index\.html$/, ''), 10_000,
      'the page');
  });
  after(() => host?.kill());

  // What a page of `tab` keeps: [its cookies, its local storage's "k"].
  const kept = (tab) => host.call('eval', { in: 'tab', tab, world: 'page',
    code: "[document.cookie, localStorage.getItem('k')]" });
  async function privateTab() {
    const { tab, window } = await host.call('openWindow', { url: `${base}index.html?private`, private: true });
    await host.until(async () => (await host.call('listTabs')).find((t) => t.tab === tab)?.title === 'A page to count',
      10_000, 'the private page');
    return { tab, window };
  }

  it('share one session among themselves, apart from other tabs, until the last one closes', async () => {
    const one = await privateTab();
    const two = await privateTab();
    await host.call('eval', { in: 'tab', tab: one.tab, world: 'page',
      code: "document.cookie = 'c=1'; localStorage.setItem('k', 'v'); 0" });
    assert.deepEqual(await kept(two.tab), ['c=1', 'v']);
    assert.deepEqual(await kept('t1'), ['', null]);
    assert.equal(await host.call('eval', { code: 'appex.tabs.query({}).then((tabs) => tabs.filter((t) => t.isPrivate).length)' }), 2);

    await host.call('closeWindow', { window: one.window });
    assert.deepEqual(await kept(two.tab), ['c=1', 'v'], 'the session outlives one of its windows');
    await host.call('closeWindow', { window: two.window });
    assert.deepEqual(await kept((await privateTab()).tab), ['', null], 'the session outlives its last window');
  });
});
