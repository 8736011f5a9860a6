// Tests of the bridge script's install and its outgoing side: the globals it
// installs, callBridge's buffering until the native handler exists, and
// ask() with its answers, errors and time-outs.

import { describe, it, beforeEach } from 'node:test';
import assert from 'node:assert/strict';
import { load, attachNative, settle, track } from './bridge_harness.mjs';

describe('install', () => {
  it('installs exactly the three globals', () => {
    const { win, bridge } = load({ native: false });
    assert.deepEqual(Object.keys(win).sort(), ['WKWebViewBridge', 'callBridge', 'onWebViewCall']);
    assert.equal(typeof bridge.ask, 'function');
    assert.equal(typeof bridge.onAsk, 'function');
    assert.equal(typeof bridge.destroy, 'function');
  });

  it('a second evaluation leaves the first endpoint and its pending asks untouched', async () => {
    const first = load();
    const { win, bridge, posted } = first;
    const { onWebViewCall, callBridge } = win;
    const pending = track(bridge.ask('tabs.query', {}));

    load({ win, native: false, clock: first.clock });
    assert.equal(win.WKWebViewBridge, bridge);
    assert.equal(win.onWebViewCall, onWebViewCall);
    assert.equal(win.callBridge, callBridge);
    assert.equal(posted.length, 1);

    first.fromNative({ type: 'ANSWER', uid: posted[0].uid, data: [1] });
    await settle();
    assert.deepEqual(pending, { status: 'resolved', value: [1] });
  });
});

describe('callBridge', () => {
  it('buffers while any link to the native handler is missing', () => {
    const { win } = load({ native: false });
    assert.equal(win.callBridge({ n: 1 }), false);
    win.webkit = {};
    assert.equal(win.callBridge({ n: 2 }), false);
    win.webkit.messageHandlers = {};
    assert.equal(win.callBridge({ n: 3 }), false);
  });

  it('flushes the buffer oldest first ahead of the next successful post', () => {
    const { win } = load({ native: false });
    win.callBridge({ n: 1 });
    win.callBridge({ n: 2 });
    const posted = [];
    attachNative(win, posted);
    assert.equal(win.callBridge({ n: 3 }), true);
    assert.deepEqual(posted, [{ n: 1 }, { n: 2 }, { n: 3 }]);
    win.callBridge({ n: 4 });
    assert.deepEqual(posted.at(-1), { n: 4 });
    assert.equal(posted.length, 4);
  });

  it('posts with the handler as receiver', () => {
    const { win } = load({ native: false });
    const handler = {
      seen: [],
      postMessage(m) { this.seen.push(m); },
    };
    win.webkit = { messageHandlers: { Webview_Bridge: handler } };
    win.callBridge('x');
    assert.deepEqual(handler.seen, ['x']);
  });

  it('carries asks made before the handler exists, in order', () => {
    const { win, bridge } = load({ native: false });
    track(bridge.ask('a'));
    track(bridge.ask('b'));
    const posted = [];
    attachNative(win, posted);
    track(bridge.ask('c'));
    assert.deepEqual(posted.map((m) => m.cmd), ['a', 'b', 'c']);
  });
});

describe('ask', () => {
  let env;
  beforeEach(() => {
    env = load();
  });

  it('posts an ask with a time-based uid and [] for missing args', () => {
    const math = Object.create(Math, { random: { value: () => 0.417 } });
    const { bridge, posted } = load({ date: { now: () => 1700000000000 }, math });
    track(bridge.ask('tabs.query'));
    assert.deepEqual(posted, [{
      channelName: '__default__', uid: 'ipcp_1700000000000_417', cmd: 'tabs.query', args: [], type: 'ASK',
    }]);
    assert.deepEqual(Object.keys(posted[0]), ['channelName', 'uid', 'cmd', 'args', 'type']);
  });

  it('never hands out a uid still pending or awaiting its late answer', async () => {
    const math = Object.create(Math, { random: { value: () => 1 } });
    const { bridge, posted, clock, fromNative } = load({ date: { now: () => 5 }, math });
    const first = track(bridge.ask('a', undefined, 10));
    clock.tick(10);  // times out: its uid waits for the late answer
    const asks = Array.from({ length: 1002 }, (_, i) => track(bridge.ask('b', i)));
    const uids = posted.map((m) => m.uid);
    assert.deepEqual(uids.slice(0, 4), ['ipcp_5_1000', 'ipcp_5_0', 'ipcp_5_1', 'ipcp_5_2']);
    assert.equal(new Set(uids).size, uids.length);
    assert.deepEqual(uids.slice(-2), ['ipcp_6_1000', 'ipcp_6_0'], 'past a full millisecond, the next one');
    for (const m of posted.slice(1).reverse()) fromNative({ type: 'ANSWER', uid: m.uid, data: m.args });
    await settle();
    assert.equal(first.status, 'rejected');
    assert.deepEqual(asks.map((p) => p.value), asks.map((_, i) => i));
  });

  it('passes given args through unchanged', () => {
    track(env.bridge.ask('storage.local.get', { keys: ['a'] }));
    assert.deepEqual(env.posted[0].args, { keys: ['a'] });
  });

  it('resolves with the answer data and clears its timer', async () => {
    const p = track(env.bridge.ask('x', 1));
    env.fromNative({ type: 'ANSWER', uid: env.posted[0].uid, data: { ok: true } });
    await settle();
    assert.deepEqual(p, { status: 'resolved', value: { ok: true } });
    assert.equal(env.clock.pending, 0);
  });

  it('resolves when err is present but falsy', async () => {
    const p = track(env.bridge.ask('x'));
    env.fromNative({ type: 'ANSWER', uid: env.posted[0].uid, err: null, data: 7 });
    await settle();
    assert.deepEqual(p, { status: 'resolved', value: 7 });
  });

  describe('rejects with the decoded error', () => {
    const cases = [
      ['an encoded error object', { isError: true, name: 'TypeError', message: 'bad tab', stack: 's' }, 'bad tab'],
      ['a native failure text', '[tabs.get] id is required', '[tabs.get] id is required'],
      ['any other truthy value', 42, '42'],
    ];
    for (const [label, err, message] of cases) {
      it(label, async () => {
        const p = track(env.bridge.ask('x'));
        env.fromNative({ type: 'ANSWER', uid: env.posted[0].uid, err, data: 'ignored' });
        await settle();
        assert.equal(p.status, 'rejected');
        assert.ok(p.value instanceof Error);
        assert.equal(p.value.message, message);
        assert.equal(p.value.name, 'Error');
      });
    }
  });

  it('ignores answers with an unknown or empty uid', async () => {
    const p = track(env.bridge.ask('x'));
    env.fromNative({ type: 'ANSWER', uid: 'nope', data: 1 });
    env.fromNative({ type: 'ANSWER', uid: '', data: 1 });
    env.fromNative({ type: 'ANSWER', data: 1 });
    await settle();
    assert.equal(p.status, 'pending');
    assert.deepEqual(env.logs, []);
  });

  it('times out with the exact message after the default 5000 ms', async () => {
    const p = track(env.bridge.ask('tabs.query', { active: true }));
    env.clock.tick(4999);
    await settle();
    assert.equal(p.status, 'pending');
    env.clock.tick(1);
    await settle();
    assert.equal(p.status, 'rejected');
    assert.equal(p.value.message, 'ipcPromise: onAsk timeout 5000 for cmd "tabs.query", args "[object Object]"');
  });

  it('names the args as given when none were given', async () => {
    const p = track(env.bridge.ask('ping'));
    env.clock.tick(5000);
    await settle();
    assert.equal(p.value.message, 'ipcPromise: onAsk timeout 5000 for cmd "ping", args "undefined"');
  });

  it('honours a given time-out; 0 means the default', async () => {
    const short = track(env.bridge.ask('a', [1, 2], 250));
    const zero = track(env.bridge.ask('b', 'x', 0));
    env.clock.tick(250);
    await settle();
    assert.equal(short.value.message, 'ipcPromise: onAsk timeout 250 for cmd "a", args "1,2"');
    assert.equal(zero.status, 'pending');
    env.clock.tick(4750);
    await settle();
    assert.equal(zero.value.message, 'ipcPromise: onAsk timeout 5000 for cmd "b", args "x"');
  });

  it('swallows a late answer, and a second copy of it, after a time-out', async () => {
    const p = track(env.bridge.ask('x'));
    env.clock.tick(5000);
    await settle();
    const uid = env.posted[0].uid;
    env.fromNative({ type: 'ANSWER', uid, data: 1 });
    env.fromNative({ type: 'ANSWER', uid, err: 'late' });
    await settle();
    assert.equal(p.status, 'rejected');
    assert.match(p.value.message, /onAsk timeout/);
    assert.deepEqual(env.logs, []);
  });

  it('settles once even when the answer arrives twice', async () => {
    const p = track(env.bridge.ask('x'));
    const uid = env.posted[0].uid;
    env.fromNative({ type: 'ANSWER', uid, data: 1 });
    env.fromNative({ type: 'ANSWER', uid, err: 'second' });
    env.clock.tick(5000);
    await settle();
    assert.deepEqual(p, { status: 'resolved', value: 1 });
  });
});
