// The SDK end to end on real WebKit: the probe extension (SDK.appex, with
// sdk/*.js copied in by the build) runs under `appex run --control`, and
// each of its parts records what it receives on `window.seen`, which these
// tests read with `eval`. One host serves every case, in order: the popup
// is shown before storage is written so that it can hear the change.
//
// Environment (set by the ctest registration sdk_e2e): APPEX_BIN,
// APPEX_SDK_BUNDLE (the assembled probe), APPEX_SDK_SITE (its page folder).
// Without them (`node --test tests/sdk/` runs the stand-in tests) the suite
// is skipped.

import assert from 'node:assert/strict';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, before, describe, it } from 'node:test';

import { Host, appexBin } from '../../app/appex_host.mjs';

const bundle = process.env.APPEX_SDK_BUNDLE;
const site = process.env.APPEX_SDK_SITE;
const configured = Boolean(appexBin || bundle || site);
if (configured) assert.ok(appexBin && bundle && site, 'APPEX_BIN, APPEX_SDK_BUNDLE and APPEX_SDK_SITE must all be set');

// `window.seen` of a part: "background", "popup", or a tab handle.
function seenIn(host, part) {
  const where = part === 'background' || part === 'popup' ? { in: part } : { in: 'tab', tab: part };
  return host.call('eval', { ...where, code: 'window.seen' });
}

describe('the SDK on WebKit', { skip: configured ? false : 'run through ctest (sdk_e2e)' }, () => {
  let host;
  let scratch;
  let pageUrl;

  before(async () => {
    scratch = mkdtempSync(join(tmpdir(), 'appex-sdk-e2e-'));
    host = new Host(['run', bundle, '--control', '--serve', site, '--data-dir', join(scratch, 'data'),
      '--open', 'index.html']);
    await host.waitFor('ready', {}, { timeoutMs: 30_000 });
    await host.waitFor('tabOpened', { tab: 't1' });
    pageUrl = (await host.call('listTabs'))[0].url;
    assert.match(pageUrl, /^http:\/\/127\.0\.0\.1:\d+\/index\.html$/);
  });

  after(async () => {
    if (host) {
      host.closeInput();
      await host.exit(10_000);
      host.kill();
    }
    if (scratch) rmSync(scratch, { recursive: true, force: true });
  });

  it('a content script\'s sendMessage("background") resolves with the background page\'s answer', async () => {
    const seen = await host.until(async () => {
      const s = await seenIn(host, 't1');
      return s && s.answers.length + s.failures.length > 0 ? s : null;
    }, 15_000, 'the content script to hear from the background page');
    assert.deepEqual(seen.failures, []);
    // The answer is the listener's promise settled, after its own API call.
    assert.deepEqual(seen.answers, [{ reply: 'hi probe', tabUrl: pageUrl }]);

    // The background page got the payload untouched and a sender naming the tab.
    const { messages } = await seenIn(host, 'background');
    assert.equal(messages.length, 1);
    const [message] = messages;
    assert.deepEqual(message.payload, { name: 'probe', list: [1, 'two', null], nested: { ok: true } });
    assert.equal(message.sender.tabUrl, pageUrl);
    const [tab] = await host.call('eval', { code: 'appex.tabs.query({})' });
    assert.equal(message.sender.tabId, tab.id);
  });

  it('tabs.query in the background page describes the open tab as it is now, and filters', async () => {
    const tabs = await host.call('eval', { code: 'appex.tabs.query()' });
    assert.equal(tabs.length, 1);
    const [tab] = tabs;
    assert.equal(typeof tab.id, 'string');
    assert.deepEqual({ ...tab, id: undefined },
      { id: undefined, title: 'Probe page', url: pageUrl, isActive: true, isPrivate: false });
    assert.deepEqual(await host.call('eval', { code: 'appex.tabs.query({active: true, currentWindow: true})' }), [tab]);
    assert.deepEqual(await host.call('eval', { code: "appex.tabs.query({url: 'http://nowhere.invalid/*'})" }), []);

    // The page renames itself and moves to an anchor, telling no one: the
    // next populated window list shows both, so do the next query and
    // tabs.get after them.
    await host.call('eval', { in: 'tab', tab: 't1', world: 'page', code: "document.title = 'Renamed'; location.hash = 'end'; 0" });
    const now = await host.until(async () => {
      const [{ tabs: [t] }] = await host.call('eval', { code: 'appex.windows.getAll({populate: true})' });
      return t.title === 'Renamed' && t.url === `${pageUrl}#end` ? t : null;
    }, 10_000, 'the window list to show the new title and address');
    assert.deepEqual(await host.call('eval', { code: 'appex.tabs.query()' }), [now]);
    assert.deepEqual(await host.call('eval', { code: `appex.tabs.get(${JSON.stringify(tab.id)})` }), now);
  });

  it('storage.local.set in the background page stores, and storage.onChanged fires in every part', async () => {
    // The popup must be up, its bridge answering, before the change.
    const since = host.mark();
    assert.equal(await host.call('clickToolbar'), true);
    await host.waitFor('popover', { shown: true }, { since });
    await host.until(async () => (await seenIn(host, 'popup'))?.ready, 10_000, 'the popup\'s bridge');

    assert.equal(await host.call('eval', { code: "appex.storage.local.set({colour: 'red'})" }), true);
    assert.equal(await host.call('eval', { code: "appex.storage.local.set({colour: 'blue', size: 'L'})" }), true);
    assert.deepEqual(await host.call('eval', { code: "appex.storage.local.get(['colour', 'size', 'absent'])" }),
      { colour: 'blue', size: 'L', absent: null });
    const stored = await host.call('defaults');
    assert.equal(stored.colour, 'blue');
    assert.equal(stored.size, 'L');

    // Every part hears both changes, in order, with old and new values.
    const expected = [
      { changes: { colour: { oldValue: null, newValue: 'red' } }, area: 'local' },
      { changes: { colour: { oldValue: 'red', newValue: 'blue' }, size: { oldValue: null, newValue: 'L' } }, area: 'local' },
    ];
    for (const part of ['background', 'popup', 't1']) {
      const changes = await host.until(async () => {
        const s = await seenIn(host, part);
        return s.changes.length >= expected.length ? s.changes : null;
      }, 10_000, `storage.onChanged in ${part}`);
      assert.deepEqual(changes, expected, part);
    }
  });

  it('tabs.onCreated fires in the background page when a tab opens', async () => {
    assert.deepEqual((await seenIn(host, 'background')).created, []);
    const since = host.mark();
    assert.deepEqual(await host.call('openTab', { url: `${pageUrl}?second`, active: false }), { tab: 't2', window: 'w1' });
    await host.waitFor('tabOpened', { tab: 't2' }, { since });
    const created = await host.until(async () => {
      const c = (await seenIn(host, 'background')).created;
      return c.length ? c : null;
    }, 10_000, 'tabs.onCreated in the background page');
    assert.equal(created.length, 1);
    // The tab it announces is the new one, as the API knows it.
    const tabs = await host.call('eval', { code: 'appex.tabs.query()' });
    assert.equal(tabs.length, 2);
    const fresh = tabs.find((t) => t.url === `${pageUrl}?second`);
    assert.ok(fresh, JSON.stringify(tabs));
    assert.equal(created[0].id, fresh.id);
    assert.equal(fresh.isActive, false);
  });

  it('a native failure rejects with native code\'s text exactly, in every part', async () => {
    const probe = "appex.tabs.get(5).then((tab) => ['resolved', tab], (e) => [e instanceof Error, e.message])";
    for (const where of [{ in: 'background' }, { in: 'popup' }, { in: 'tab', tab: 't1' }]) {
      assert.deepEqual(await host.call('eval', { ...where, code: probe }), [true, '[tabs.get] id is required'],
        JSON.stringify(where));
    }
  });

  it('tabs.create, tabs.update and windows.create take every absolute URL a browser takes, and nothing else', async () => {
    const { port } = new URL(pageUrl);
    const settle = (call) => host.call('eval', { code: `${call}.then((r) => ['ok', r], (e) => ['failed', e.message])` });
    // What web code passes, the address the browser is given for it, and
    // whether the served page shows there (the site listens on IPv4 only).
    const taken = [
      [`${pageUrl}?q=a b&r=2#top`, `${pageUrl}?q=a%20b&r=2#top`, true],
      [`http://bücher.localhost:${port}/index.html?ü#ö`, `http://xn--bcher-kva.localhost:${port}/index.html?%C3%BC#%C3%B6`, true],
      [`http://[::1]:${port}/ä#top`, `http://[::1]:${port}/%C3%A4#top`, false],
    ];
    for (const [url, loaded, shows] of taken) {
      const [outcome, tab] = await settle(`appex.tabs.create({url: ${JSON.stringify(url)}, active: false})`);
      assert.equal(outcome, 'ok', `${url}: ${tab}`);
      assert.equal(tab.url, loaded);
      if (shows) {
        await host.until(async () => (await host.call('eval', { code: 'appex.tabs.query({})' }))
          .some((t) => t.id === tab.id && t.title === 'Probe page'), 10_000, `${url} to show the page`);
      }
      assert.equal((await settle(`appex.tabs.update(${JSON.stringify(tab.id)}, {url: ${JSON.stringify(url)}})`))[0],
        'ok', url);
      const [made, win] = await settle(`appex.windows.create({url: ${JSON.stringify(url)}})`);
      assert.equal(made, 'ok', `${url}: ${win}`);
      await settle(`appex.windows.remove(${JSON.stringify(win.id)})`);
      await settle(`appex.tabs.remove(${JSON.stringify(tab.id)})`);
    }
    const [t1] = await host.call('eval', { code: 'appex.tabs.query({active: true})' });
    for (const url of ['not a url', '', 'index.html', '/index.html', 'http://exa mple.com/']) {
      const arg = JSON.stringify(url);
      assert.deepEqual(await settle(`appex.tabs.create({url: ${arg}})`),
        ['failed', '[tabs.create] Failed to create tab for unknown reason'], arg);
      assert.deepEqual(await settle(`appex.tabs.update(${JSON.stringify(t1.id)}, {url: ${arg}})`),
        ['failed', '[tabs.update] Failed to create tab for unknown reason'], arg);
      assert.deepEqual(await settle(`appex.windows.create({url: ${arg}})`),
        ['failed', '[windows.create] Failed to create window for unknown reason'], arg);
    }
  });
});
