// End-to-end tests of the appex program: its command line, and `appex run
// --control` driven over the automation protocol as a child process, on
// real WebKit (under xvfb-run). The example bundle and its page are the
// extension under test: the page's words are counted by the content
// script, the background page shows the count as the toolbar badge.
//
// Few hosts are started (each takes seconds): one long session exercises
// every command and event, a second one (same data folder) checks what the
// first stored, a third runs without the protocol, and the demo runs last.
//
// Environment (set by the ctest registration): APPEX_BIN, APPEX_EXAMPLE
// (the assembled example bundle), APPEX_SITE (the example's page folder).

import assert from 'node:assert/strict';
import { cpSync, existsSync, mkdirSync, mkdtempSync, readFileSync, rmSync, unlinkSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { createServer } from 'node:net';
import { join } from 'node:path';
import { after, before, describe, it } from 'node:test';

import { Host, appexBin, eventsSeen, exampleBundle, exampleSite, runAppex } from './appex_host.mjs';

assert.ok(appexBin && exampleBundle && exampleSite, 'APPEX_BIN, APPEX_EXAMPLE and APPEX_SITE must be set');

const scratch = mkdtempSync(join(tmpdir(), 'appex-e2e-'));
after(() => rmSync(scratch, { recursive: true, force: true }));

const dataDir = join(scratch, 'data');
const isPNG = (path) => readFileSync(path).subarray(0, 8).equals(Buffer.from([0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a]));

// The host has exited cleanly and left no process behind.
async function assertCleanExit(host, expected = 0) {
  const { code, signal } = await host.exit();
  assert.equal(signal, null, `killed by ${signal}; stderr:\n${host.stderr}`);
  assert.equal(code, expected, `exit ${code}; stderr:\n${host.stderr}`);
  const left = await host.leftovers();
  assert.deepEqual(left.map((p) => `${p.pid} ${p.comm}`), [], 'processes left behind');
  assert.deepEqual(host.badLines, [], 'stdout carries only JSON lines');
}

describe('command line', () => {
  it('documents every command, its options and the exit codes', () => {
    const top = runAppex(['--help']);
    assert.equal(top.code, 0);
    assert.match(top.stdout, /run \[BUNDLE\]/);
    assert.match(top.stdout, /check BUNDLE/);
    assert.match(top.stdout, /exit codes: 0 ok, 1 run failed, 2 bad command line, 3 bad bundle, 4 no display/);

    const run = runAppex(['run', '--help']);
    assert.equal(run.code, 0);
    for (const option of ['--open', '--serve', '--data-dir', '--control', '--trace', '--snapshot', '--timeout',
      '--private', '--verbose', '--quiet']) {
      assert.ok(run.stdout.includes(option), `run --help lacks ${option}`);
    }
    assert.match(run.stdout, /exit codes: 0 ok/);

    const check = runAppex(['check', '--help']);
    assert.equal(check.code, 0);
    assert.match(check.stdout, /appex check BUNDLE/);
    assert.match(check.stdout, /exit codes: 0 ok, 2 bad command line, 3 bad bundle/);
  });

  it('exits 1 when the extension never comes up, 4 without a display to be had', () => {
    // A background script that never returns: the page never answers.
    const hung = join(scratch, 'hung', 'Hung.appex');
    cpSync(exampleBundle, hung, { recursive: true });
    writeFileSync(join(hung, 'Contents/Resources/Assets/extension/background.js'), 'while (true) {}\n');
    const never = runAppex(['run', hung, '--data-dir', join(scratch, 'data-hung'), '--timeout', '2'], { input: '' });
    assert.equal(never.code, 1, never.stderr);
    assert.match(never.stderr, /^appex run: the background page never became ready \(.*\)\n/m);

    const env = { ...process.env, PATH: join(scratch, 'empty-path') };
    delete env.DISPLAY;
    const noDisplay = runAppex(['run', exampleBundle, '--control'], { input: '', env });
    assert.equal(noDisplay.code, 4, noDisplay.stderr);
    assert.match(noDisplay.stderr, /set DISPLAY, or install .*xvfb/);
  });

  it('rejects a bad command line with exit code 2', () => {
    for (const args of [[], ['teleport'], ['run', '--no-such-option'], ['run', '--timeout', '-1'],
      ['run', '--timeout', 'soon'], ['run', '--snapshot', 'popover'], ['run', '--snapshot', 'everything=x.png'],
      ['run', '--serve', join(scratch, 'no-such-site')], ['run', exampleBundle, '--open', 'index.html'],
      ['run', exampleBundle, '--open', 'ftp://example.com/'], ['run', '--verbose', '--quiet'], ['check'], ['check', '--verbose']]) {
      const result = runAppex(args, { input: '' });
      assert.equal(result.code, 2, `appex ${args.join(' ')}: exit ${result.code}\n${result.stderr}`);
      assert.notEqual(result.stderr.trim(), '', `appex ${args.join(' ')} says nothing`);
      assert.ok(result.stderr.endsWith('\n'), `appex ${args.join(' ')}: no newline at the end of ${JSON.stringify(result.stderr)}`);
    }
  });

  it('check describes a good bundle', () => {
    const result = runAppex(['check', exampleBundle]);
    assert.equal(result.code, 0, result.stderr);
    assert.match(result.stdout, /identifier: +dev\.appex\.example\.wordcount/);
    assert.match(result.stdout, /version: +1\.0\.0\.3/);
    assert.match(result.stdout, /content scripts: .*Assets\/extension\/content\.js/);
    assert.match(result.stdout, /toolbar item: +Popover/);
  });

  describe('a bad bundle is refused by check and run, naming the file', () => {
    // Each case breaks a fresh copy of the example; `names` is what the
    // message must point at.
    const cases = {
      'missing Info.plist': { breakIt: (b) => unlinkSync(join(b, 'Contents/Info.plist')), names: 'Info.plist' },
      'unreadable Info.plist': {
        breakIt: (b) => writeFileSync(join(b, 'Contents/Info.plist'), '<plist><dict><key>oops'),
        names: 'Info.plist',
      },
      'missing background page': {
        breakIt: (b) => unlinkSync(join(b, 'Contents/Resources/Assets/extension/safari_background.html')),
        names: 'safari_background.html',
      },
      'missing declared script': {
        breakIt: (b) => unlinkSync(join(b, 'Contents/Resources/Assets/extension/content.js')),
        names: 'Assets/extension/content.js',
      },
      'no such folder': { breakIt: (b) => rmSync(b, { recursive: true }), names: 'Nowhere.appex' },
    };
    for (const [name, { breakIt, names }] of Object.entries(cases)) {
      it(name, () => {
        const bundle = join(scratch, name.replaceAll(' ', '-'), name === 'no such folder' ? 'Nowhere.appex' : 'Broken.appex');
        cpSync(exampleBundle, bundle, { recursive: true, dereference: true });
        breakIt(bundle);
        for (const args of [['check', bundle], ['run', bundle, '--control', '--data-dir', dataDir]]) {
          const result = runAppex(args, { input: '' });
          assert.equal(result.code, 3, `appex ${args[0]}: exit ${result.code}\n${result.stderr}`);
          assert.ok(result.stderr.includes(names), `appex ${args[0]} does not name ${names}: ${result.stderr}`);
          assert.equal(result.stdout, '', `appex ${args[0]} wrote to stdout`);
        }
      });
    }
  });
});

describe('requests sent before ready, quit and the end of input', () => {
  // Each case writes its lines at once, before the extension is up, and
  // expects one reply per request, then a clean exit.
  const cases = {
    'quit waits for the requests before it and refuses those after': {
      args: [],
      lines: [
        { cmd: 'eval', in: 'background', code: 'appex.tabs.query({}).then((tabs) => tabs.length)' },
        { cmd: 'eval', code: 'new Promise((r) => setTimeout(r, 60000))', timeout: 300 },
        { cmd: 'quit' },
        { cmd: 'listTabs' },
      ],
      replies: [{ ok: true, result: 1 }, { ok: false, error: /^eval in the background page timed out after 300 ms$/ },
        { ok: true, result: true }, { ok: false, error: /^listTabs: not run, the host is quitting$/ }],
    },
    'the end of input answers everything; --open pages have loaded; relative URLs open from the served site': {
      args: ['--serve', exampleSite, '--open', 'index.html'],
      lines: [
        { cmd: 'eval', in: 'tab', tab: 't1', code: 'typeof appex' },
        { cmd: 'openTab', url: 'index.html' },
        { cmd: 'eval', in: 'tab', tab: 't2', code: 'typeof appex' },
      ],
      close: true,
      replies: [{ ok: true, result: 'object' }, { ok: true, result: { tab: 't2', window: 'w1', url: /^http:\/\/127\.0\.0\.1:\d+\/index\.html$/, title: 'A page to count' } },
        { ok: true, result: 'object' }],
    },
  };
  for (const [name, { args, lines, close, replies }] of Object.entries(cases)) {
    it(name, async () => {
      const host = new Host(['run', exampleBundle, '--control', '--data-dir', join(scratch, 'data-early'), ...args]);
      try {
        host.child.stdin.write(lines.map((line, i) => JSON.stringify({ id: i + 1, ...line }) + '\n').join(''));
        if (close) host.closeInput();
        await assertCleanExit(host);
        // Requests run one at a time: the replies come in request order.
        const got = host.lines.filter((l) => 'id' in l);
        assert.deepEqual(got.map((l) => l.id), replies.map((_, i) => i + 1), 'one reply per request, in order');
        replies.forEach((want, i) => {
          assert.equal(got[i].ok, want.ok, JSON.stringify(got[i]));
          if (want.error) assert.match(got[i].error, want.error);
          if ('result' in want) matchShape(got[i].result, want.result);
        });
        const { serve } = host.events.find((e) => e.event === 'ready');
        if (args.includes('--serve')) assert.ok(got[1].result.url.startsWith(serve), serve); else assert.equal(serve, null);
      } finally {
        host.kill();
      }
    });
  }
});

// What the host says its commands are (from an unknown command's error).
let commandsKnown = [];

// `actual` equals `expected`, where regular expressions in `expected` match strings.
function matchShape(actual, expected) {
  if (expected instanceof RegExp) return assert.match(actual, expected);
  if (expected === null || typeof expected !== 'object') return assert.equal(actual, expected);
  assert.deepEqual(Object.keys(actual).sort(), Object.keys(expected).sort(), JSON.stringify(actual));
  for (const key of Object.keys(expected)) matchShape(actual[key], expected[key]);
}

describe('appex run --control', () => {
  let host;
  let base;  // the served site's URL
  const pngs = join(scratch, 'png');
  mkdirSync(pngs);

  before(async () => {
    host = new Host(['run', exampleBundle, '--control', '--data-dir', dataDir, '--serve', exampleSite,
      '--open', 'index.html', '--trace']);
    await host.waitFor('ready', {}, { timeoutMs: 30_000 });
  });
  after(() => host?.kill());

  it('announces the first window and tab, then the counted page on the toolbar', async () => {
    const opened = await host.waitFor('tabOpened', { tab: 't1' });
    assert.equal(opened.window, 'w1');
    // The content script counts the words, the background page sets the badge.
    const counted = await host.waitEvent((e) => e.event === 'toolbar' && e.window === 'w1' && /^\d+$/.test(e.badgeText ?? ''),
      { what: 'the badge' });
    assert.equal(counted.enabled, true);
    assert.match(counted.image, /logo-grey\.pdf$/);
    // The badge comes on top of the bundle's label, which stays.
    assert.equal(counted.label, 'Word Count');
    assert.deepEqual(await host.call('toolbar'), {
      image: counted.image, badgeText: counted.badgeText, label: 'Word Count', enabled: true,
    });
    assert.equal(host.events.filter((e) => e.event === 'ready').length, 1, 'ready comes once');
    // --trace: the routed messages, on stderr.
    assert.match(host.stderr, /\[trace\] page -> background pageCounted/);
  });

  it('lists tabs by host handle', async () => {
    const tabs = await host.call('listTabs');
    assert.equal(tabs.length, 1);
    const [t1] = tabs;
    assert.equal(t1.tab, 't1');
    assert.equal(t1.window, 'w1');
    assert.equal(t1.title, 'A page to count');
    assert.equal(t1.active, true);
    assert.match(t1.url, /^http:\/\/127\.0\.0\.1:\d+\/index\.html$/);
    base = t1.url.replace(/index\.html$/, '');
  });

  it('reports console messages of the background page and content scripts', async () => {
    // The example's background page logs the tab it sees.
    const own = await host.waitEvent((e) => e.event === 'console' && e.source === 'background' &&
      e.text.startsWith('active tab now shows'), { what: 'the background page\'s console line' });
    assert.equal(own.level, 'log');
    assert.equal('tab' in own, false);

    let since = host.mark();
    await host.call('eval', { in: 'tab', tab: 't1', code: "console.warn('%s has %d words', 'page', 44.7, {a: [1]}); 0" });
    const warned = await host.waitFor('console', { source: 'tab' }, { since });
    assert.deepEqual(warned, { event: 'console', source: 'tab', tab: 't1', level: 'warn', text: 'page has 44 words {"a":[1]}' });

    // The page's own scripts are not the extension's: not reported.
    since = host.mark();
    await host.call('eval', { in: 'tab', tab: 't1', world: 'page', code: "console.log('from the page itself'); 0" });
    await host.call('eval', { in: 'tab', tab: 't1', code: "console.log('content marker'); 0" });
    await host.waitFor('console', { text: 'content marker' }, { since });
    assert.equal(host.events.slice(since).some((e) => e.text === 'from the page itself'), false);

    // Page text is data: printf directives without arguments stay as they are.
    since = host.mark();
    await host.call('eval', { code: "console.error('%n%s%x %p'); console.debug(); console.info(undefined, null, 3); 0" });
    assert.equal((await host.waitFor('console', { level: 'error' }, { since })).text, '%n%s%x %p');
    assert.equal((await host.waitFor('console', { level: 'debug' }, { since })).text, '');
    assert.equal((await host.waitFor('console', { level: 'info' }, { since })).text, 'undefined null 3');
  });

  it('reports the extension\'s log lines', async () => {
    assert.ok(host.events.some((e) => e.event === 'log' && typeof e.line === 'string' && e.line.length > 0));
    const since = host.mark();
    assert.match(await host.failure('openTab', { url: 'ftp://example.com/' }), /cannot open ftp:\/\/example\.com\//);
    await host.waitEvent((e) => e.event === 'log' && e.line.includes('not opening a tab at ftp://example.com/'),
      { since, what: 'the log line of the refused tab' });
  });

  it('evaluates in the background page and both worlds of a tab', async () => {
    assert.equal(await host.call('eval', { in: 'background', code: '6 * 7' }), 42);
    assert.equal(await host.call('eval', { code: 'document.title' }), 'Word Count: background');  // background by default
    assert.deepEqual(await host.call('eval', { code: 'new Promise((r) => setTimeout(() => r({list: [1, "two"]}), 50))' }),
      { list: [1, 'two'] });
    assert.equal(await host.call('eval', { code: 'undefined' }), null);
    // The content world has the extension's API, the page world does not.
    assert.equal(await host.call('eval', { in: 'tab', tab: 't1', code: 'typeof appex' }), 'object');
    assert.equal(await host.call('eval', { in: 'tab', tab: 't1', world: 'content', code: 'typeof appex' }), 'object');
    assert.equal(await host.call('eval', { in: 'tab', tab: 't1', world: 'page', code: 'typeof appex' }), 'undefined');
    assert.equal(await host.call('eval', { in: 'tab', tab: 't1', world: 'page', code: 'document.title' }), 'A page to count');

    for (const [request, error] of [
      [{ code: "throw new Error('deliberate')" }, /deliberate/],
      [{ code: "Promise.reject(new Error('refused'))" }, /refused/],
      [{ code: '(' }, /error/i],
      [{ in: 'nowhere', code: '1' }, /"in" is "background", "popup" or "tab"/],
      [{ in: 'tab', code: '1' }, /"tab" is required/],
      [{ in: 'tab', tab: 't99', code: '1' }, /no tab t99/],
      [{ in: 'tab', tab: 't1', world: 'other', code: '1' }, /"world" is "content" or "page"/],
      [{}, /"code" is required/],
      // Values without a JSON form are refused rather than sent as {}.
      [{ in: 'tab', tab: 't1', code: 'document.body' }, /holds a DOM node \(BODY\), which has no JSON form/],
      [{ in: 'tab', tab: 't1', world: 'page', code: '({ all: [window] })' }, /holds a window at "0"/],
      [{ code: '({ n: 10n })' }, /holds a BigInt at "n"/],
      [{ code: 'const a = {}; a.self = a; a' }, /cyclic/],
      // A time-out names where it ran.
      [{ in: 'tab', tab: 't1', code: 'new Promise((r) => setTimeout(r, 60000))', timeout: 200 }, /^eval in tab t1 timed out after 200 ms$/],
      [{ code: '1', timeout: 'soon' }, /"timeout" is a positive number of milliseconds/],
      // A message no one answers is named, with where it went (the popup is not loaded yet).
      [{ code: "appex.runtime.sendMessage('popup', 'title', {}, { timeout: 300 })" }, /no answer to "title" from the popup within 300 ms$/],
      [{ in: 'tab', tab: 't1', code: "appex.runtime.sendMessage('popup', 'title', {}, { timeout: 300 })" },
        /no answer to "title" from the popup within 300 ms$/],
    ]) {
      assert.match(await host.failure('eval', request), error, JSON.stringify(request));
    }
  });

  it('opens, activates, navigates and closes tabs', async () => {
    let since = host.mark();
    // Replies once the page has loaded: its content scripts are in place.
    const second = await host.call('openTab', { url: 'index.html?second', active: false });
    assert.deepEqual(second, { tab: 't2', window: 'w1', url: `${base}index.html?second`, title: 'A page to count' });
    assert.equal(await host.call('eval', { in: 'tab', tab: 't2', code: 'typeof appex' }), 'object');
    const opened = await host.waitFor('tabOpened', { tab: 't2' }, { since });
    assert.equal(opened.window, 'w1');
    let tabs = await host.call('listTabs');
    assert.deepEqual(tabs.map((t) => [t.tab, t.active]), [['t1', true], ['t2', false]]);

    assert.equal(await host.call('activateTab', { tab: 't2' }), true);
    tabs = await host.call('listTabs');
    assert.deepEqual(tabs.map((t) => [t.tab, t.active]), [['t1', false], ['t2', true]]);

    assert.deepEqual(await host.call('navigate', { tab: 't2', url: '/index.html?moved' }),
      { tab: 't2', url: `${base}index.html?moved`, title: 'A page to count' });
    assert.equal((await host.waitFor('tabLoaded', { tab: 't2', url: `${base}index.html?moved` })).title, 'A page to count');

    since = host.mark();
    assert.equal(await host.call('closeTab', { tab: 't2' }), true);
    await host.waitFor('tabClosed', { tab: 't2' }, { since });
    tabs = await host.call('listTabs');
    assert.deepEqual(tabs.map((t) => t.tab), ['t1']);

    // Failures: missing or unknown handles and URLs no tab loads.
    assert.match(await host.failure('openTab', {}), /"url" is required/);
    assert.match(await host.failure('openTab', { url: base, window: 'w99' }), /no window w99/);
    assert.match(await host.failure('activateTab', { tab: 't2' }), /no tab t2/);
    assert.match(await host.failure('activateTab', {}), /"tab" is required/);
    assert.match(await host.failure('navigate', { tab: 't1', url: 'javascript:alert(1)' }), /cannot load javascript:alert\(1\)/);
    assert.match(await host.failure('navigate', { tab: 't1' }), /"url" is required/);
    assert.match(await host.failure('navigate', { tab: 't9', url: base }), /no tab t9/);
    assert.match(await host.failure('closeTab', { tab: 't2' }), /no tab t2/);
  });

  it('opens and closes windows, private ones too', async () => {
    let since = host.mark();
    const opened = await host.call('openWindow', { url: `${base}index.html?window`, wait: 'none' });
    assert.deepEqual(opened, { window: 'w2', tab: 't3' });
    assert.equal((await host.waitFor('tabOpened', { tab: 't3' }, { since })).window, 'w2');
    await host.waitFor('toolbar', { window: 'w2' }, { since });
    assert.deepEqual(Object.keys(await host.call('toolbar', { window: 'w2' })).sort(), ['badgeText', 'enabled', 'image', 'label']);

    since = host.mark();
    assert.deepEqual(await host.call('openTab', { url: 'about:blank', window: 'w2' }),
      { tab: 't4', window: 'w2', url: 'about:blank', title: null });
    assert.equal((await host.waitFor('tabOpened', { tab: 't4' }, { since })).window, 'w2');

    const secret = await host.call('openWindow', { url: 'about:blank', private: true });
    assert.deepEqual(secret, { window: 'w3', tab: 't5', url: 'about:blank', title: null });
    // The extension sees the window as private.
    assert.equal(await host.call('eval', { code: 'appex.tabs.query({}).then((tabs) => tabs.filter((t) => t.isPrivate).length)' }), 1);

    since = host.mark();
    assert.equal(await host.call('closeWindow', { window: 'w2' }), true);
    assert.equal(await host.call('closeWindow', { window: 'w3' }), true);
    for (const tab of ['t3', 't4', 't5']) await host.waitFor('tabClosed', { tab }, { since });
    assert.deepEqual((await host.call('listTabs')).map((t) => [t.tab, t.window]), [['t1', 'w1']]);

    assert.match(await host.failure('openWindow', { url: 'gopher://old' }), /cannot open gopher:\/\/old/);
    assert.match(await host.failure('openWindow', {}), /"url" is required/);
    assert.match(await host.failure('closeWindow', { window: 'w2' }), /no window w2/);
    assert.match(await host.failure('closeWindow', {}), /"window" is required/);
    assert.match(await host.failure('toolbar', { window: 'w2' }), /no window w2/);
  });

  it('reports loads that fail, and waits for none when asked', async () => {
    const closed = await new Promise((resolve) => {
      const server = createServer().listen(0, '127.0.0.1', () => {
        const { port } = server.address();
        server.close(() => resolve(port));
      });
    });
    for (const [url, error] of [
      [`${base}no-such-page.html`, /^HTTP 404$/],
      [`http://127.0.0.1:${closed}/`, /refused/i],
      ['http://no-such-host.invalid/', /resolve|host/i],
    ]) {
      const since = host.mark();
      const reason = await host.failure('openTab', { url });
      const [, tab] = reason.match(/^tab (t\d+) did not load /) ?? [];
      assert.ok(tab, reason);
      const failed = await host.waitFor('loadFailed', { tab }, { since });
      assert.equal(failed.url, url);
      assert.match(failed.error, error);
      assert.ok(reason.endsWith(`${url}: ${failed.error}`), reason);
      assert.equal(host.events.slice(since).some((e) => e.event === 'tabLoaded' && e.tab === tab), false);
      await host.call('closeTab', { tab });
    }
    const since = host.mark();
    const { tab } = await host.call('openTab', { url: 'index.html?later', wait: 'none', active: false });
    assert.equal((await host.waitFor('tabLoaded', { tab }, { since })).url, `${base}index.html?later`);
    await host.call('closeTab', { tab });
    // An evaluation whose page goes away is answered.
    const last = await host.call('openTab', { url: 'index.html?closing', active: false });
    for (const [leave, error] of [
      ["location.replace('?gone')", new RegExp(`^the page in tab ${last.tab} went away \\(the tab loads .*\\?gone\\)$`)],
      ['window.close()', new RegExp(`^tab ${last.tab} closed$`)],
    ]) {
      assert.match(await host.failure('eval', { in: 'tab', tab: last.tab, world: 'page', timeout: 20_000,
        code: `setTimeout(() => ${leave}, 50); new Promise((r) => setTimeout(r, 60000))` }), error);
    }
    assert.match(await host.failure('openTab', { url: 'index.html', wait: 'soon' }), /"wait" is "load" or "none"/);
  });

  it('shows and dismisses the popover from the toolbar button', async () => {
    await host.call('activateTab', { tab: 't1' });
    let since = host.mark();
    assert.equal(await host.call('clickToolbar'), true);
    const shown = await host.waitFor('popover', { shown: true }, { since });
    assert.ok(shown.width > 0 && shown.height > 0, JSON.stringify(shown));
    // The popup sizes itself to its content once it has run.
    const state = await host.until(async () => {
      const s = await host.call('popover');
      return s.shown && s.height < 400 ? s : null;
    }, 10_000, 'the popup to size itself');
    assert.equal(state.width, 430);
    await host.waitFor('popover', { shown: true, height: state.height }, { since });

    // The popup page: evaluation and its console. It names the active tab
    // by its title, as the extension's API reports it.
    assert.equal(await host.call('eval', { in: 'popup', code: 'document.title' }), 'Word Count');
    assert.equal(await host.call('eval', { in: 'popup', code: "document.querySelector('#title').textContent" }),
      'A page to count');
    since = host.mark();
    await host.call('eval', { in: 'popup', code: "console.error(new Error('popup trouble')); console.assert(1 > 2, 'math'); 0" });
    assert.deepEqual(await host.waitFor('console', { source: 'popup', text: 'Error: popup trouble' }, { since }),
      { event: 'console', source: 'popup', level: 'error', text: 'Error: popup trouble' });
    await host.waitFor('console', { source: 'popup', text: 'Assertion failed: math' }, { since });

    since = host.mark();
    assert.equal(await host.call('closePopover'), true);
    await host.waitFor('popover', { shown: false }, { since });
    assert.equal((await host.call('popover')).shown, false);

    // A second click on a shown popover's button dismisses it.
    since = host.mark();
    await host.call('clickToolbar', { window: 'w1' });
    await host.waitFor('popover', { shown: true }, { since });
    await host.call('clickToolbar', { window: 'w1' });
    await host.waitFor('popover', { shown: false }, { since });

    assert.match(await host.failure('clickToolbar', { window: 'w42' }), /no window w42/);
  });

  it('writes snapshots of the background page, the popover and a tab', async () => {
    for (const [request, file] of [[{ of: 'background' }, 'background.png'], [{ of: 'popover' }, 'popover.png'],
      [{ of: 'tab', tab: 't1' }, 'tab.png']]) {
      const path = join(pngs, file);
      const result = await host.call('snapshot', { ...request, path });
      assert.equal(result.path, path);
      assert.ok(result.width > 0 && result.height > 0, JSON.stringify(result));
      assert.ok(isPNG(path), `${file} is not a PNG`);
    }
    // The popover snapshot opened it.
    assert.equal((await host.call('popover')).shown, true);
    await host.call('closePopover');

    assert.match(await host.failure('snapshot', { of: 'background' }), /"of" and "path" are required/);
    assert.match(await host.failure('snapshot', { of: 'everything', path: join(pngs, 'x.png') }), /"of" is "background", "popover", "toolbar" or "tab"/);
    assert.match(await host.failure('snapshot', { of: 'tab', path: join(pngs, 'x.png') }), /"tab" is required/);
    assert.match(await host.failure('snapshot', { of: 'tab', tab: 't99', path: join(pngs, 'x.png') }), /no tab t99/);
    assert.match(await host.failure('snapshot', { of: 'background', path: join(scratch, 'no/such/dir/x.png') }), /snapshot failed/);
  });

  it('shows the stored values, including what the extension sets', async () => {
    await host.call('eval', { code: "appex.storage.local.set({persisted: 'across runs'}).then(() => true)" });
    const defaults = await host.call('defaults');
    assert.equal(defaults.persisted, 'across runs');
    // What the example counted for its page.
    assert.match(defaults[`visits:${base}index.html`] ?? '', /^\d+$/);
  });

  it('answers bad lines with errors and keeps running', async () => {
    for (const line of ['not json', '[1,2]', '"cmd"', '{"cmd": "listTabs"', '{}']) {
      const reply = await host.sendRaw(line);
      assert.equal(reply.ok, false, line);
      assert.match(reply.error, /malformed request/, line);
    }
    const unknown = await host.failure('teleport');
    const [, known] = unknown.match(/^unknown command: teleport \(commands: (.*)\)$/) ?? [];
    assert.ok(known, unknown);
    commandsKnown = known.split(', ');
    assert.deepEqual(await host.sendRaw('{"id": "n", "cmd": 7}', 'n'),
      { id: 'n', ok: false, error: 'malformed request: "cmd" must be a string' });
    host.child.stdin.write('\n   \n');  // blank lines are no requests
    assert.deepEqual((await host.call('listTabs')).map((t) => t.tab), ['t1']);
  });

  it('quits on request: exit 0, nothing left running', async () => {
    assert.ok([...host.seen.values()].some((comm) => /WebKit/.test(comm)), `no web process seen: ${[...host.seen.values()]}`);
    assert.equal(await host.call('quit'), true);
    const asked = Date.now();
    await host.exited;
    assert.ok(Date.now() - asked < 2_000, `took ${Date.now() - asked} ms to exit`);  // the site lets go promptly
    await assertCleanExit(host);
  });
});

describe('the extension\'s errors', () => {
  // A copy of the example whose background script throws at start, whose
  // background page names a script that is not there, whose content script
  // throws and leaves a rejection unhandled, and with a content script that
  // does not parse.
  const bundle = join(scratch, 'errors', 'Failing.appex');
  const extension = join(bundle, 'Contents/Resources/Assets/extension');
  before(() => {
    cpSync(exampleBundle, bundle, { recursive: true });
    const append = (file, text) => writeFileSync(join(extension, file), readFileSync(join(extension, file), 'utf8') + text);
    append('background.js', "\nthrow new Error('background start');\n");
    append('safari_background.html', '<script src="missing.js"></script>\n');
    append('content.js', "\nPromise.reject(new Error('content rejects'));\nthrow new Error('content start');\n");
    writeFileSync(join(extension, 'broken.js'), '// fine\nvar x = (;\n');
    const plist = join(bundle, 'Contents/Info.plist');
    writeFileSync(plist, readFileSync(plist, 'utf8').replace('<string>Assets/extension/content.js</string></dict>',
      '<string>Assets/extension/content.js</string></dict>\n<dict><key>Script</key><string>Assets/extension/broken.js</string></dict>'));
  });

  it('become error events: background, popup and content scripts, never the page\'s own', async () => {
    const host = new Host(['run', bundle, '--control', '--data-dir', join(scratch, 'data-errors'), '--serve', exampleSite]);
    try {
      await host.waitFor('ready', {}, { timeoutMs: 30_000 });
      const { tab } = await host.call('openTab', { url: 'index.html' });
      await host.call('eval', { in: 'popup', code: "setTimeout(() => { throw new TypeError('popup late'); }); 0" });
      await host.call('eval', { in: 'tab', tab, world: 'page', code: "setTimeout(() => { throw new Error('the page own'); }); Promise.reject(new Error('page rejects')); 0" });
      const expected = [
        { in: 'content', message: /^SyntaxError: /, source: /^Assets\/extension\/broken\.js$/, line: (n) => n === 2 },
        { in: 'background', message: /^Error: background start$/, source: /\/background\.js$/, line: (n) => n > 0 },
        { in: 'background', message: /^cannot load script .*\/missing\.js$/, source: /\/missing\.js$/ },
        { in: 'popup', message: /^TypeError: popup late$/ },
        { in: 'content', tab, message: /^Unhandled rejection: Error: content rejects$/, source: /^user-script:/, line: (n) => n > 0 },
        // The engine withholds the details of a user script's uncaught error.
        { in: 'content', tab, message: /^Script error\.$/ },
      ];
      for (const want of expected) {
        const match = (e) => e.event === 'error' && Object.entries(want).every(([k, v]) =>
          (v instanceof RegExp ? v.test(e[k]) : typeof v === 'function' ? v(e[k]) : e[k] === v));
        const found = await host.waitEvent(match, { what: `error ${JSON.stringify(want, (k, v) => (v instanceof RegExp ? String(v) : v))}` });
        assert.deepEqual(Object.keys(found).sort(), ['column', 'event', 'in', 'line', 'message', 'source', ...(want.tab ? ['tab'] : [])].sort());
      }
      await host.call('eval', { code: 'new Promise((r) => setTimeout(r, 300))' });
      const errors = host.events.filter((e) => e.event === 'error');
      assert.equal(errors.some((e) => /the page own|page rejects/.test(e.message)), false, JSON.stringify(errors));
      host.closeInput();
      await assertCleanExit(host);
    } finally {
      host.kill();
    }
  });

  it('become [error] lines on stderr without --control; --quiet prints nothing else', async () => {
    const host = new Host(['run', bundle, '--data-dir', join(scratch, 'data-errors'), '--serve', exampleSite,
      '--open', 'index.html', '--timeout', '5', '--quiet']);
    try {
      host.closeInput();  // --timeout keeps it running
      await assertCleanExit(host);
      assert.match(host.stderr, /^\[error\] background: Error: background start \(.*\/background\.js:\d+:\d+\)$/m);
      assert.match(host.stderr, /^\[error\] t1 content: Unhandled rejection: Error: content rejects \(user-script:\d+:\d+:\d+\)$/m);
      // --quiet: errors only.
      const others = host.stderr.split('\n').filter((l) => /^\[/.test(l) && !/^\[error\] |^\[console\] \S+ error: /.test(l));
      assert.deepEqual(others, []);
    } finally {
      host.kill();
    }
  });
});

describe('a second run on the same data folder', () => {
  it('finds what the first stored; ends when stdin closes', async () => {
    const host = new Host(['run', exampleBundle, '--control', '--data-dir', dataDir, '--private']);
    try {
      await host.waitFor('ready', {}, { timeoutMs: 30_000 });
      assert.equal((await host.call('defaults')).persisted, 'across runs');
      assert.deepEqual(await host.call('eval', { code: "appex.storage.local.get('persisted')" }), { persisted: 'across runs' });
      // The popup, never shown yet, is loaded for an evaluation and waited for.
      const since = host.mark();
      assert.deepEqual(await host.call('eval', { in: 'popup', code: "console.log('popup up'); [document.title, typeof appex]" }),
        ['Word Count', 'object']);
      await host.waitFor('console', { source: 'popup', level: 'log', text: 'popup up' }, { since });
      // --private: the first window is.
      assert.equal(await host.call('eval', { code: 'appex.tabs.query({}).then((tabs) => tabs.map((t) => t.isPrivate))' })
        .then(JSON.stringify), '[true]');
      host.closeInput();
      await assertCleanExit(host);
    } finally {
      host.kill();
    }
  });
});

describe('Ctrl-C', () => {
  it('ends a run (the example, without a bundle named) with exit 0; its first popover shows at the height set before', async () => {
    const host = new Host(['run', '--control', '--data-dir', join(scratch, 'data-3')]);
    try {
      await host.waitFor('ready', {}, { timeoutMs: 30_000 });
      assert.equal(await host.call('eval', { code: 'appex.extension.info().then((info) => info.version)' }), '1.0.0.3');
      // A height the background page sets before the popover ever showed is
      // the height it first shows at.
      assert.equal(await host.call('eval', { code: 'appex.extension.setPopupHeight(250)' }), true);
      const since = host.mark();
      await host.call('clickToolbar');
      const shown = await host.waitFor('popover', { shown: true }, { since });
      assert.deepEqual([shown.width, shown.height], [430, 250]);
      process.kill(-host.pid, 'SIGINT');  // as a terminal sends it: to the whole group
      await assertCleanExit(host);
    } finally {
      host.kill();
    }
  });
});

describe('appex run without --control', () => {
  it('prints events on stderr, writes snapshots, stops at --timeout', async () => {
    const background = join(scratch, 'run-background.png');
    const tab = join(scratch, 'run-tab.png');
    const started = Date.now();
    const host = new Host(['run', exampleBundle, '--data-dir', join(scratch, 'data-2'), '--serve', exampleSite,
      '--open', 'index.html', '--snapshot', `background=${background}`, '--snapshot', `t1=${tab}`, '--timeout', '6',
      '--verbose']);
    try {
      await assertCleanExit(host);
      assert.ok(Date.now() - started >= 5_000, 'stopped before --timeout');
      assert.ok(isPNG(background) && isPNG(tab), host.stderr);
      assert.match(host.stderr, /\[ready\]/);
      assert.match(host.stderr, /\[console\] background log: active tab now shows http:\/\/127\.0\.0\.1:\d+\/index\.html/);
      assert.match(host.stderr, /\[snapshot\] t1: /);
      assert.match(host.stderr, /^\[log\] /m);  // --verbose
    } finally {
      host.kill();
    }
  });

  it('runs the demo without a display of its own: Xvfb, the popover snapshot, exit 0', async () => {
    const cwd = join(scratch, 'demo');
    mkdirSync(cwd);
    const env = { ...process.env, XDG_DATA_HOME: join(scratch, 'xdg') };
    delete env.DISPLAY;
    const host = new Host(['run'], { env, cwd });
    try {
      await assertCleanExit(host);
      assert.ok(existsSync(join(cwd, 'appex-popover.png')), host.stderr);
      assert.ok(isPNG(join(cwd, 'appex-popover.png')));
      assert.ok([...host.seen.values()].includes('Xvfb'), `no Xvfb seen: ${[...host.seen.values()]}`);
      assert.match(host.stderr, /\[snapshot\] popover: /);
      // What the README shows: no diagnostic lines, no paths of this machine.
      assert.doesNotMatch(host.stderr, /^\[log\]/m);
      for (const path of [exampleBundle, exampleSite]) assert.equal(host.stderr.includes(path), false, host.stderr);
    } finally {
      host.kill();
    }
  });
});

describe('docs/protocol.md', () => {
  it('lists exactly the commands the host knows and the events these runs have seen', () => {
    const doc = readFileSync(new URL('../../docs/protocol.md', import.meta.url), 'utf8');
    const section = (title) => {
      const body = doc.split(/^## /m).find((part) => part.startsWith(title)) ?? '';
      return [...body.matchAll(/^### `(\w+)`$/gm)].map((m) => m[1]).sort();
    };
    assert.deepEqual(section('Commands'), [...commandsKnown].sort());
    // `reloaded` comes only with --watch (its own test: dev_loop.test.mjs).
    assert.deepEqual(section('Events'), [...eventsSeen, 'reloaded'].sort());
  });
});
