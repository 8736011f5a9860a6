// The SDK end to end on real WebKit: the probe extension (SDK.appex, with
// sdk/*.js copied in by the build) runs under `appex run --control`, and
// each of its parts records what it receives on `window.seen`, which these
// tests read with `eval`. One host serves every case, in order: the popup
// is shown before storage is written so that it can hear the change. The
// httpRequest cases talk to a server of the test's own on 127.0.0.1.
//
// Environment (set by the ctest registration sdk_e2e): APPEX_BIN,
// APPEX_SDK_BUNDLE (the assembled probe), APPEX_SDK_SITE (its page folder).
// Without them (`node --test tests/sdk/` runs the stand-in tests) the suite
// is skipped.

import assert from 'node:assert/strict';
import { cpSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { createServer } from 'node:http';
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

// Runs `extension` with the site's index.html open in tab t1, its data
// under `scratch`.
async function start(extension, scratch) {
  const host = new Host(['run', extension, '--control', '--serve', site, '--data-dir', join(scratch, 'data'),
    '--open', 'index.html']);
  await host.waitFor('ready', {}, { timeoutMs: 30_000 });
  await host.waitFor('tabOpened', { tab: 't1' });
  return host;
}

async function stop(host) {
  if (!host) return;
  host.closeInput();
  await host.exit(10_000);
  host.kill();
}

// What the probe's content script heard back from the background page.
function contentHeard(host) {
  return host.until(async () => {
    const s = await seenIn(host, 't1');
    return s && s.answers.length + s.failures.length > 0 ? s : null;
  }, 15_000, 'the content script to hear from the background page');
}

const skip = configured ? false : 'run through ctest (sdk_e2e)';

describe('the SDK on WebKit', { skip }, () => {
  let host;
  let scratch;
  let pageUrl;

  before(async () => {
    scratch = mkdtempSync(join(tmpdir(), 'appex-sdk-e2e-'));
    host = await start(bundle, scratch);
    pageUrl = (await host.call('listTabs'))[0].url;
    assert.match(pageUrl, /^http:\/\/127\.0\.0\.1:\d+\/index\.html$/);
  });

  after(async () => {
    await stop(host);
    if (scratch) rmSync(scratch, { recursive: true, force: true });
  });

  it('a content script\'s sendMessage("background") resolves with the background page\'s answer', async () => {
    const seen = await contentHeard(host);
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

  it('asks made together in one millisecond each settle with their own answer', async () => {
    // More asks than a millisecond has uids ("ipcp_<ms>_<0..1000>"), all
    // made while the clock stands still; each one's answer names its key.
    const code = `(() => {
      const now = Date.now;
      Date.now = () => 1700000000000;
      let asks;
      try {
        asks = Array.from({ length: 1100 }, (_, i) => appex.storage.local.get('k' + i));
      } finally {
        Date.now = now;
      }
      const heard = asks.map(() => 'unsettled');
      asks.forEach((ask, i) => ask.then((v) => { heard[i] = v; }, (e) => { heard[i] = e.message; }));
      const wrong = () => heard.flatMap((v, i) => (JSON.stringify(v) === '{"k' + i + '":null}' ? [] : [[i, v]]));
      // Past the asks' own 5000 ms time-out, only an ask left behind is pending.
      const limit = new Promise((resolve) => setTimeout(resolve, 6000));
      return Promise.race([Promise.allSettled(asks), limit]).then(() => wrong().slice(0, 3));
    })()`;
    assert.deepEqual(await host.call('eval', { code }), []);
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

  it('a content script loads bundle resources into a web page: fetch, XHR, img and style sheet', async () => {
    const probe = `(async () => {
      const base = safari.extension.baseURI + 'Assets/extension/media/';
      const loaded = (element) => new Promise((resolve) => {
        element.onload = () => resolve(true);
        element.onerror = () => resolve(false);
      });
      const image = document.createElement('img');
      const imageLoaded = loaded(image);
      image.src = base + 'dot.svg';
      document.body.append(image);
      const sheet = document.createElement('link');
      const sheetLoaded = loaded(sheet);
      sheet.rel = 'stylesheet';
      sheet.href = base + 'probe.css';
      document.head.append(sheet);
      const styled = document.body.appendChild(document.createElement('p'));
      styled.className = 'appex-probe';

      const json = await fetch(base + 'data.json')
        .then(async (r) => [r.status, r.headers.get('Content-Type'), await r.json()], (e) => e.message);
      const text = await new Promise((resolve) => {
        const request = new XMLHttpRequest();
        request.open('GET', base + 'note.txt');
        request.onload = () => resolve([request.status, request.getResponseHeader('Content-Type'), request.responseText]);
        request.onerror = () => resolve('failed');
        request.send();
      });
      const statuses = await Promise.all(['missing.txt', '..%2f..%2f..%2f..%2fInfo.plist', '../../../../Info.plist']
        .map((path) => fetch(base + path).then((r) => r.status, (e) => e.message)));
      const withCredentials = await fetch(base + 'note.txt', { credentials: 'include' }).then((r) => r.status, (e) => e.message);
      return {
        json,
        text,
        image: [await imageLoaded, image.naturalWidth, image.naturalHeight],
        sheet: [await sheetLoaded, getComputedStyle(styled).color],
        statuses,
        withCredentials,
      };
    })()`;
    assert.deepEqual(await host.call('eval', { in: 'tab', tab: 't1', code: probe }), {
      json: [200, 'application/json', { from: 'bundle', n: [1, 2] }],
      text: [200, 'text/plain', 'bundle text\n'],
      // An SVG image decodes only when it is served as one.
      image: [true, 3, 2],
      sheet: [true, 'rgb(4, 5, 6)'],
      // Readable failures, and nothing from outside the resources: the page
      // resolves the plain dots itself, to the resources' top.
      statuses: [404, 403, 404],
      withCredentials: 200,
    });
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

  describe('httpRequest', () => {
    // Refuses requests without a User-Agent, reports the one it got and the
    // cookie sent, and sets a cookie on /login.
    let server;
    let origin;
    before(async () => {
      server = createServer((request, response) => {
        const agent = request.headers['user-agent'];
        if (!agent) {
          response.writeHead(403).end('no user agent');
          return;
        }
        if (request.url === '/login') response.setHeader('Set-Cookie', 'session=s3cret; Path=/; HttpOnly');
        response.setHeader('Content-Type', 'application/json');
        response.end(JSON.stringify({ agent, cookie: request.headers.cookie ?? null }));
      });
      await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
      origin = `http://127.0.0.1:${server.address().port}`;
    });
    after(() => {
      server?.closeAllConnections();
      server?.close();
    });

    const ask = (where, details) => host.call('eval', { ...where, code: `appex.httpRequest(${JSON.stringify(details)})` });

    it('names the extension as User-Agent unless the caller sets one', async () => {
      const { status, data } = await ask({ in: 'background' }, { url: `${origin}/who` });
      assert.equal(status, 200);
      assert.match(data.agent, /^appex\/\d+\.\d+\.\d+ libcurl\/\d+\.\d+\.\d+/);
      const own = await ask({ in: 'background' }, { url: `${origin}/who`, headers: { 'User-Agent': 'probe/2' } });
      assert.equal(own.data.agent, 'probe/2');
    });

    it('keeps the cookies a server sets for later requests from every part of the extension', async () => {
      assert.equal((await ask({ in: 'background' }, { url: `${origin}/before` })).data.cookie, null);
      await ask({ in: 'background' }, { url: `${origin}/login` });
      assert.equal((await ask({ in: 'background' }, { url: `${origin}/after` })).data.cookie, 'session=s3cret');
      assert.equal((await ask({ in: 'tab', tab: 't1' }, { url: `${origin}/after` })).data.cookie, 'session=s3cret');
    });
  });
});

// A background page that never installs its listener: the content script's
// message fails as documented, instead of resolving.
describe('the SDK on WebKit, with a broken background page', { skip }, () => {
  let scratch;
  before(() => { scratch = mkdtempSync(join(tmpdir(), 'appex-sdk-e2e-broken-')); });
  after(() => { if (scratch) rmSync(scratch, { recursive: true, force: true }); });

  const script = (extension) => join(extension, 'Contents/Resources/Assets/extension/background.js');
  const breakages = [
    ['its script throws at load', (extension) => writeFileSync(script(extension), "throw new Error('broken');\n")],
    ['its script src names a missing file', (extension) => rmSync(script(extension))],
  ];
  for (const [index, [label, breakIt]] of breakages.entries()) {
    it(`a content script's sendMessage("background") rejects when ${label}`, async () => {
      const dir = join(scratch, String(index));
      const extension = join(dir, 'SDK.appex');
      cpSync(bundle, extension, { recursive: true });
      breakIt(extension);
      let host;
      try {
        host = await start(extension, dir);
        const seen = await contentHeard(host);
        assert.deepEqual(seen.answers, []);
        assert.deepEqual(seen.failures, ['[appex] no listener answered "hello"']);
      } finally {
        await stop(host);
      }
    });
  }
});
