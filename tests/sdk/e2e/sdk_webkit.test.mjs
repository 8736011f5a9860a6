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

  it('tabs.query in the background page describes the open tab and filters', async () => {
    const tabs = await host.call('eval', { code: 'appex.tabs.query()' });
    assert.equal(tabs.length, 1);
    const [tab] = tabs;
    assert.equal(typeof tab.id, 'string');
    // The title is whatever the page had when its content script started.
    assert.equal(typeof tab.title, 'string');
    assert.deepEqual({ ...tab, id: undefined, title: undefined },
      { id: undefined, title: undefined, url: pageUrl, isActive: true, isPrivate: false });
    assert.deepEqual(await host.call('eval', { code: 'appex.tabs.query({active: true, currentWindow: true})' }), [tab]);
    assert.deepEqual(await host.call('eval', { code: "appex.tabs.query({url: 'http://nowhere.invalid/*'})" }), []);
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
    assert.deepEqual(await host.call('openTab', { url: `${pageUrl}?second`, active: false, wait: 'none' }), { tab: 't2', window: 'w1' });
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
});
