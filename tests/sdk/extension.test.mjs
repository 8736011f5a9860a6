// Tests of the appex API (sdk/extension.js) in its two settings: a content
// script over content.js, and a background or popup page over the real
// injected bridge (bridge/bridge.js). Native code is played by the tests.

import { describe, it } from 'node:test';
import assert from 'node:assert/strict';
import { createTab, createHostedPage, settle, track } from './harness.mjs';

const BACKGROUND = '/Contents/Resources/Assets/extension/safari_background.html';
const POPUP = '/Contents/Resources/Assets/extension/popup.html';

// A tab page with content.js and extension.js in each frame, validated.
function contentWorld(frameCount = 1) {
  const tab = createTab();
  for (let i = 0; i < frameCount; i++) tab.addFrame();
  for (const { message } of tab.asks('VALIDATE_TAB')) tab.answer(message, { data: true });
  tab.sent.length = 0;
  return tab;
}

// The same view of both settings: the API, the routed asks it sent, and
// native code's answer to one of them.
const settings = {
  content() {
    const tab = contentWorld();
    return {
      appex: tab.frames[0].win.appex,
      clock: tab.clock,
      sentAsks: () => tab.asks('messaging').map((s) => s.message),
      answer: (ask, reply) => tab.answer(ask, reply),
    };
  },
  background() {
    const page = createHostedPage({ preinjected: true });
    return {
      appex: page.appex,
      clock: page.clock,
      sentAsks: () => page.asks('messaging'),
      answer: page.answer,
    };
  },
};

const NONE = Symbol('no args');
const url = 'https://example.test/';

// [what the extension calls, the command, the arguments it must carry]
const commands = [
  [(a) => a.tabs.get('T1'), 'tabs.get', 'T1'],
  [(a) => a.tabs.query({ active: true, url: 'example' }), 'tabs.query', { active: true, url: 'example' }],
  [(a) => a.tabs.query(), 'tabs.query', {}],
  [(a) => a.tabs.create({ url, active: false }), 'tabs.create', { url, active: false }],
  [(a) => a.tabs.update('T1', { url, active: true }), 'tabs.update', { id: 'T1', url, active: true }],
  [(a) => a.tabs.update({ id: 'T1', url }), 'tabs.update', { id: 'T1', url }],
  [(a) => a.tabs.remove('T1'), 'tabs.remove', 'T1'],
  [(a) => a.tabs.all(), 'tabs.all', NONE],
  [(a) => a.windows.get('W1'), 'windows.get', 'W1'],
  [(a) => a.windows.getLastFocused(), 'windows.getLastFocused', NONE],
  [(a) => a.windows.getAll({ populate: true }), 'windows.getAll', { populate: true }],
  [(a) => a.windows.getAll(), 'windows.getAll', {}],
  [(a) => a.windows.create({ url }), 'windows.create', { url }],
  [(a) => a.windows.remove('W1'), 'windows.remove', 'W1'],
  [(a) => a.windows.all(), 'windows.all', NONE],
  [(a) => a.storage.local.get(['a', 'b']), 'storage.local.get', ['a', 'b']],
  [(a) => a.storage.local.get('a'), 'storage.local.get', ['a']],
  [(a) => a.storage.local.set({ a: '1' }), 'storage.local.set', { a: '1' }],
  [(a) => a.storage.local.remove('a'), 'storage.local.remove', ['a']],
  [(a) => a.storage.local.remove(['a', 'b']), 'storage.local.remove', ['a', 'b']],
  [(a) => a.storage.local.clear(), 'storage.local.clear', NONE],
  [(a) => a.storage.local.all(), 'storage.local.all', NONE],
  [(a) => a.browserAction.setIcon({ path: 'icons/on.png', tabId: 'T1' }), 'browserAction.setIcon',
    { path: 'icons/on.png', tabId: 'T1' }],
  [(a) => a.browserAction.setBadgeText({ text: '3' }), 'browserAction.setBadgeText', { text: '3' }],
  [(a) => a.extension.info(), 'extension.info', NONE],
  [(a) => a.extension.closePopup(), 'extension.closePopup', NONE],
  [(a) => a.extension.setPopupHeight(300), 'extension.setPopupHeight', 300],
  [(a) => a.httpRequest({ url, method: 'POST', data: { q: 1 } }), 'httpRequest', { url, method: 'POST', data: { q: 1 } }],
];

for (const [name, setting] of Object.entries(settings)) {
  describe(`API commands in a ${name} script`, () => {
    for (const [invoke, cmd, args] of commands) {
      it(`${invoke.toString().slice(6)} asks the API for "${cmd}"`, async () => {
        const world = setting();
        const reply = track(invoke(world.appex));
        const [ask] = world.sentAsks();
        assert.equal(ask.cmd, 'messaging');
        assert.deepEqual(ask.args, { target: 'api', action: args === NONE ? { cmd } : { cmd, args } });

        world.answer(ask, { data: { answered: cmd } });
        await settle();
        assert.deepEqual(reply.value, { answered: cmd });
      });
    }

    it('rejects with native code\'s failure text exactly', async () => {
      const world = setting();
      const reply = track(world.appex.tabs.get(5));
      world.answer(world.sentAsks()[0], { err: '[tabs.get] id is required' });
      await settle();
      assert.ok(reply.error instanceof Error);
      assert.equal(reply.error.message, '[tabs.get] id is required');
    });

    it('takes a time-out as the last argument of any method', async () => {
      const world = setting();
      const reply = track(world.appex.httpRequest({ url }, { timeout: 20000 }));
      world.clock.tick(19999);
      await settle();
      assert.equal(reply.status, 'pending');
      world.clock.tick(1);
      await settle();
      assert.equal(reply.status, 'rejected');
      assert.match(reply.error.message, /20000/);
    });
  });
}

describe('runtime messages', () => {
  it('send the payload in an envelope the native side fills with the sender', async () => {
    const world = settings.content();
    world.appex.runtime.sendMessage('background', 'greet', { name: 'x' });
    world.appex.runtime.sendMessage('popup', 'bare');
    const [withPayload, without] = world.sentAsks();
    assert.deepEqual(withPayload.args, {
      target: 'background', action: { cmd: 'greet', args: { payload: { name: 'x' }, meta: {} } },
    });
    assert.deepEqual(without.args, { target: 'popup', action: { cmd: 'bare', args: { meta: {} } } });
  });

  it('address a tab, or one page of it, from the background page', () => {
    const page = createHostedPage({ preinjected: true });
    page.appex.runtime.sendMessage('T1', 'a');
    page.appex.runtime.sendMessage('T1/P2', 'b');
    page.appex.runtime.sendMessage({ tabId: 'T1', pageId: 'P2' }, 'c');
    page.appex.runtime.sendMessage('popup', 'd');
    assert.deepEqual(page.asks().map((a) => a.args.target), ['T1', 'T1/P2', 'T1/P2', 'popup']);
  });

  it('fail at once, sending nothing, where native code would never answer', async () => {
    const content = settings.content().appex;
    const background = createHostedPage({ preinjected: true });
    const popup = createHostedPage({ path: POPUP, preinjected: true });
    const cases = [
      [content.runtime.sendMessage('T1', 'x'), /content scripts cannot message tabs/],
      [content.runtime.sendMessage({ tabId: 'T1' }, 'x'), /content scripts cannot message tabs/],
      [background.appex.runtime.sendMessage('background', 'x'), /the background page cannot message itself/],
      [popup.appex.runtime.sendMessage('popup', 'x'), /the popup page cannot message itself/],
      [background.appex.runtime.sendMessage('api', 'tabs.all'), /appex methods/],
      [background.appex.runtime.sendMessage('', 'x'), /needs a target/],
      [background.appex.runtime.sendMessage({ tabId: 'T1', pageId: 7 }, 'x'), /needs a target/],
      [background.appex.runtime.sendMessage('T1', undefined), /needs a command name/],
    ];
    for (const [promise, text] of cases) {
      await assert.rejects(promise, (e) => e instanceof Error && /^\[appex\] /.test(e.message) && text.test(e.message));
    }
    assert.equal(background.asks().length + popup.asks().length, 0);
  });

  it('reach onMessage listeners with the payload and sender, and carry back their answer', async () => {
    const page = createHostedPage({ preinjected: true });
    const seen = [];
    page.appex.runtime.onMessage((cmd, payload, sender) => {
      seen.push([cmd, payload, sender]);
      return cmd === 'double' ? payload * 2 : undefined;
    });
    const answer = await page.ask('double', { payload: 21, meta: { tabId: 'T1', tabUrl: url } });
    assert.deepEqual(answer, { err: null, data: 42 });
    assert.deepEqual(seen, [['double', 21, { tabId: 'T1', tabUrl: url }]]);
  });

  it('are answered by the first listener that claims them, promises included', async () => {
    const page = createHostedPage({ preinjected: true });
    const { onMessage } = page.appex.runtime;
    onMessage((cmd) => (cmd === 'first' ? 'one' : undefined));
    onMessage((cmd) => (cmd === 'later' ? Promise.resolve('two') : undefined));
    onMessage.addListener(() => 'fallback');
    assert.equal((await page.ask('first', { meta: {} })).data, 'one');
    assert.equal((await page.ask('later', { meta: {} })).data, 'two');
    assert.equal((await page.ask('other', { meta: {} })).data, 'fallback');
  });

  it('tell envelopes from bare asks and events', async () => {
    const page = createHostedPage({ preinjected: true });
    const messages = [];
    const events = [];
    page.appex.runtime.onMessage((cmd, payload, sender) => { messages.push([cmd, payload, sender]); return true; });
    page.appex.storage.onChanged.addListener((changes) => events.push(changes));

    await page.ask('storage.onChanged', { payload: 'named like an event', meta: {} });
    await page.ask('custom', { plain: 1 });
    await page.ask('custom', { payload: 1, meta: {}, extra: 2 });
    assert.deepEqual(messages, [
      ['storage.onChanged', 'named like an event', {}],
      ['custom', { plain: 1 }, {}],
      ['custom', { payload: 1, meta: {}, extra: 2 }, {}],
    ]);
    assert.deepEqual(events, []);
  });

  // A content script's message to the background page, and native code's
  // part in it: fill the meta, ask the page, hand its answer to the frame.
  async function fromContentToBackground(tab, page, cmd, payload) {
    const reply = track(tab.frames[0].win.appex.runtime.sendMessage('background', cmd, payload));
    const ask = tab.asks('messaging').at(-1).message;
    const { action } = ask.args;
    action.args.meta = { tabId: 'T9', tabUrl: url };
    const answer = await page.ask(action.cmd, action.args);
    tab.answer(ask, answer.err ? { err: answer.err } : { data: answer.data });
    await settle();
    return reply;
  }

  it('travel from a content script to the background page and back, with the tab as sender', async () => {
    const tab = contentWorld();
    const page = createHostedPage({ preinjected: true });
    page.appex.runtime.onMessage((cmd, payload, sender) => ({ cmd, payload, from: sender.tabId }));
    const reply = await fromContentToBackground(tab, page, 'hello', [1, 2]);
    assert.deepEqual(reply.value, { cmd: 'hello', payload: [1, 2], from: 'T9' });
  });

  it('fail at the sender with the listener\'s error, or when no listener claims them', async () => {
    const tab = contentWorld();
    const page = createHostedPage({ preinjected: true });
    const unregister = page.appex.runtime.onMessage((cmd) => {
      if (cmd === 'throws') throw new Error('listener broke');
      if (cmd === 'rejects') return Promise.reject(new Error('listener rejected'));
      return undefined;
    });
    const failures = async (cmds) => {
      const texts = [];
      for (const cmd of cmds) {
        const reply = await fromContentToBackground(tab, page, cmd);
        texts.push(reply.status === 'rejected' ? reply.error.message : reply);
      }
      return texts;
    };
    assert.deepEqual(await failures(['throws', 'rejects', 'unknown']),
      ['listener broke', 'listener rejected', '[appex] no listener answered "unknown"']);
    unregister();
    assert.deepEqual(await failures(['throws']), ['[appex] no listener answered "throws"']);
  });

  it('travel from the background page to a tab, answered by the top frame', async () => {
    const tab = contentWorld(2);
    const [top, sub] = tab.frames;
    const page = createHostedPage({ preinjected: true });
    const heard = [];
    top.win.appex.runtime.onMessage((cmd, payload) => { heard.push(['top', payload]); return 'top answer'; });
    sub.win.appex.runtime.onMessage((cmd, payload) => { heard.push(['sub', payload]); return undefined; });

    const reply = track(page.appex.runtime.sendMessage('T1', 'scan', { depth: 1 }));
    const routed = page.asks('messaging')[0];
    // The native side: ask every frame of the tab, keep the first answer.
    tab.broadcast({ type: 'ASK', uid: 'N1', cmd: routed.args.action.cmd, args: routed.args.action.args });
    await settle();
    tab.clock.tick(1000);
    const answers = tab.answers('N1');
    assert.equal(answers.length, 1, 'the unclaiming subframe stays silent');
    page.answer(routed, { data: answers[0].message.data });
    await settle();
    assert.equal(reply.value, 'top answer');
    assert.deepEqual(heard, [['top', { depth: 1 }], ['sub', { depth: 1 }]]);
  });
});

describe('events', () => {
  const tabState = { id: 'T1', url, title: 'Example', isActive: true, isPrivate: false };

  it('feed the tab events of the background page, each answered true', async () => {
    const page = createHostedPage({ preinjected: true });
    const seen = [];
    page.appex.tabs.onCreated.addListener((tab) => seen.push(['created', tab.id]));
    page.appex.tabs.onUpdated.addListener((tab) => seen.push(['updated', tab.title]));
    page.appex.tabs.onActivated.addListener((tab) => seen.push(['activated', tab.isActive]));

    assert.deepEqual(await page.ask('tabs.onCreate', tabState), { err: null, data: true });
    assert.deepEqual(await page.ask('tabs.onUpdate', tabState), { err: null, data: true });
    assert.deepEqual(await page.ask('tabs.onActivate', tabState), { err: null, data: true });
    assert.deepEqual(seen, [['created', 'T1'], ['updated', 'Example'], ['activated', true]]);
  });

  it('feed storage changes with the area name, to every listener until removed', async () => {
    const page = createHostedPage({ path: POPUP, preinjected: true });
    const changes = { a: { oldValue: null, newValue: '1' } };
    const first = [];
    const second = [];
    const one = (c, area) => first.push([c, area]);
    page.appex.storage.onChanged.addListener(one);
    page.appex.storage.onChanged.addListener((c) => second.push(c));
    page.appex.storage.onChanged.addListener(one);

    await page.ask('storage.onChanged', changes);
    page.appex.storage.onChanged.removeListener(one);
    assert.equal(page.appex.storage.onChanged.hasListener(one), false);
    await page.ask('storage.onChanged', changes);
    assert.deepEqual(first, [[changes, 'local']], 'added once, however often');
    assert.deepEqual(second, [changes, changes]);
  });

  it('reach the other listeners when one throws, and still answer', async () => {
    const page = createHostedPage({ preinjected: true });
    const seen = [];
    page.appex.tabs.onUpdated.addListener(() => { throw new Error('bad listener'); });
    page.appex.tabs.onUpdated.addListener((tab) => seen.push(tab.id));
    assert.equal((await page.ask('tabs.onUpdate', tabState)).data, true);
    assert.deepEqual(seen, ['T1']);
    assert.ok(page.logs.lines.some((l) => l.includes('tabs.onUpdated') && l.includes('bad listener')));
  });

  it('fire in every frame of a tab, with only the top frame answering', async () => {
    const tab = contentWorld(2);
    const fired = [];
    tab.frames.forEach((frame, i) => frame.win.appex.storage.onChanged.addListener(() => fired.push(i)));
    tab.broadcast({ type: 'ASK', uid: 'E1', cmd: 'storage.onChanged', args: { a: { oldValue: '1', newValue: null } } });
    await settle();
    tab.clock.tick(1000);
    assert.deepEqual(fired, [0, 1]);
    assert.deepEqual(tab.answers('E1').map((s) => [s.frame === tab.frames[0], s.message.data]), [[true, true]]);
  });
});

describe('loading', () => {
  it('asks native code for the bridge once and sends what was asked meanwhile', async () => {
    const page = createHostedPage();
    assert.deepEqual(page.posted.filter((m) => m.type === 'INJECT').map((m) => m.channelName), ['__default__']);
    assert.equal(page.injections, 1);

    const reply = track(page.appex.tabs.all());
    await settle();
    const [ask] = page.asks('messaging');
    page.answer(ask, { data: [] });
    await settle();
    assert.deepEqual(reply.value, []);
    page.clock.tick(10000);
    assert.equal(page.posted.filter((m) => m.type === 'INJECT').length, 1);
  });

  it('hears native asks through listeners added before the bridge arrived', async () => {
    const page = createHostedPage({ handler: false });
    const seen = [];
    page.appex.tabs.onCreated.addListener((tab) => seen.push(tab.id));
    page.attachHandler();
    page.clock.tick(25);
    await settle();
    assert.equal(page.injections, 1, 'the injection is asked for once the handler is there');
    assert.equal((await page.ask('tabs.onCreate', { id: 'T7' })).data, true);
    assert.deepEqual(seen, ['T7']);
  });

  it('uses a bridge that is already there without asking for one', () => {
    const page = createHostedPage({ preinjected: true });
    assert.equal(page.posted.filter((m) => m.type === 'INJECT').length, 0);
    assert.equal(page.injections, 1);
  });

  it('fails calls when no bridge arrives in time', async () => {
    const page = createHostedPage({ handler: false });
    const reply = track(page.appex.extension.info());
    page.clock.tick(5000);
    await settle();
    assert.equal(reply.error.message, '[appex] the native bridge did not load within 5000 ms');
    assert.equal(page.clock.pending, 0, 'no polling left behind');
  });

  it('names the part of the extension it runs in', () => {
    assert.equal(createHostedPage({ path: BACKGROUND }).appex.runtime.context, 'background');
    assert.equal(createHostedPage({ path: POPUP }).appex.runtime.context, 'popup');
    assert.equal(createHostedPage({ path: '/other.html' }).appex.runtime.context, 'page');
    assert.equal(contentWorld().frames[0].win.appex.runtime.context, 'content');
  });

  it('installs once per world', () => {
    const tab = contentWorld();
    const frame = tab.frames[0];
    const first = frame.win.appex;
    frame.load('content');
    frame.load('extension');
    assert.equal(frame.win.appex, first);
    assert.equal(frame.listeners.length, 1);
  });

  it('explains itself in a content script without content.js', async () => {
    const tab = createTab();
    const frame = tab.addFrame({ scripts: ['extension'] });
    await assert.rejects(frame.win.appex.tabs.all(), /content\.js must be declared before extension\.js/);
    assert.equal(tab.sent.length, 0);
  });
});
