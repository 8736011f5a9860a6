// Tests of the page side of the web-view bridge (bridge/bridge.js).
//
// The script is evaluated the way a page would run it, but against a
// stand-in `window`, a manual clock and a console that records its lines.
// Everything runs in this realm, so errors and objects made by the script
// compare normally with the test's own.

import { describe, it, beforeEach } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';

const source = readFileSync(new URL('../../bridge/bridge.js', import.meta.url), 'utf8');

// Direct eval inside the function gives the script the injected globals and
// yields its completion value (the building blocks it exposes).
const evaluate = new Function(
  'window', 'setTimeout', 'clearTimeout', 'console', 'Date', 'Math', 'source',
  'return eval(source);'
);

function createClock() {
  let now = 0;
  let nextId = 1;
  const timers = new Map();
  return {
    setTimeout(fn, ms) {
      const id = nextId++;
      timers.set(id, { fn, at: now + ms });
      return id;
    },
    clearTimeout(id) {
      timers.delete(id);
    },
    // Runs every timer due within `ms`, earliest first.
    tick(ms) {
      const end = now + ms;
      for (;;) {
        let due = null;
        for (const [id, t] of timers) {
          if (t.at <= end && (due === null || t.at < due[1].at)) due = [id, t];
        }
        if (due === null) break;
        timers.delete(due[0]);
        now = due[1].at;
        due[1].fn();
      }
      now = end;
    },
    get pending() {
      return timers.size;
    },
  };
}

function attachNative(win, posted) {
  win.webkit = { messageHandlers: { Webview_Bridge: { postMessage: (m) => posted.push(m) } } };
}

function load({ native = true, win = {}, clock = createClock(), logs = [], date = Date, math = Math } = {}) {
  const posted = [];
  if (native) attachNative(win, posted);
  const fakeConsole = {
    error: (...a) => logs.push(a.join(' ')),
    log: (...a) => logs.push(a.join(' ')),
    warn: (...a) => logs.push(a.join(' ')),
  };
  const parts = evaluate(win, clock.setTimeout, clock.clearTimeout, fakeConsole, date, math, source);
  return {
    win, posted, clock, logs, parts,
    bridge: win.WKWebViewBridge,
    fromNative: (data, channel = '__default__') => win.onWebViewCall(channel, data),
  };
}

// Lets every pending promise reaction run.
const settle = () => new Promise((resolve) => setImmediate(resolve));

// Tracks a promise's outcome without leaving rejections unhandled.
function track(promise) {
  const state = { status: 'pending', value: undefined };
  promise.then(
    (v) => Object.assign(state, { status: 'resolved', value: v }),
    (e) => Object.assign(state, { status: 'rejected', value: e }),
  );
  return state;
}

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

describe('incoming asks', () => {
  let env;
  beforeEach(() => {
    env = load();
  });

  const askFromNative = (uid, cmd, args) => env.fromNative({ type: 'ASK', uid, cmd, args });
  const answers = () => env.posted.filter((m) => m.type === 'ANSWER');

  describe('with a handler registered', () => {
    it('answers with a returned value and passes (cmd, args)', async () => {
      const calls = [];
      env.bridge.onAsk((cmd, args) => { calls.push([cmd, args]); return { tabs: 3 }; });
      askFromNative('U1', 'tabs.onCreate', { id: 'T' });
      await settle();
      assert.deepEqual(calls, [['tabs.onCreate', { id: 'T' }]]);
      assert.deepEqual(answers(), [{ channelName: '__default__', uid: 'U1', err: null, data: { tabs: 3 }, type: 'ANSWER' }]);
      assert.deepEqual(Object.keys(answers()[0]), ['channelName', 'uid', 'err', 'data', 'type']);
      assert.equal(env.clock.pending, 0);
    });

    it('answers with the value of a returned promise', async () => {
      env.bridge.onAsk(() => Promise.resolve('done'));
      askFromNative('U1', 'c');
      await settle();
      assert.deepEqual(answers().map((a) => [a.err, a.data]), [[null, 'done']]);
    });

    it('answers null and other non-undefined values', async () => {
      env.bridge.onAsk((cmd) => (cmd === 'n' ? null : false));
      askFromNative('U1', 'n');
      askFromNative('U2', 'f');
      await settle();
      assert.deepEqual(answers().map((a) => a.data), [null, false]);
    });

    it('encodes a thrown Error, with null data', async () => {
      const boom = new TypeError('no such tab');
      env.bridge.onAsk(() => { throw boom; });
      askFromNative('U1', 'c');
      await settle();
      const [answer] = answers();
      assert.deepEqual(answer.err, { isError: true, name: 'TypeError', message: 'no such tab', stack: boom.stack });
      assert.equal(answer.data, null);
    });

    it('encodes a rejection with a non-Error value, without a stack', async () => {
      env.bridge.onAsk(() => Promise.reject('denied'));
      askFromNative('U1', 'c');
      await settle();
      const [answer] = answers();
      assert.deepEqual(answer.err, { isError: false, name: 'Error', message: 'denied' });
      assert.ok(!('stack' in answer.err));
      assert.equal(answer.data, null);
    });

    it('lets the next handler try when one returns undefined, and stops at the first answer', async () => {
      const order = [];
      env.bridge.onAsk(() => { order.push(1); });
      env.bridge.onAsk(() => { order.push(2); return 'second'; });
      env.bridge.onAsk(() => { order.push(3); return 'third'; });
      askFromNative('U1', 'c');
      await settle();
      assert.deepEqual(order, [1, 2]);
      assert.deepEqual(answers().map((a) => a.data), ['second']);
    });

    it('stops at a handler that throws', async () => {
      let later = false;
      env.bridge.onAsk(() => { throw new Error('first'); });
      env.bridge.onAsk(() => { later = true; return 1; });
      askFromNative('U1', 'c');
      await settle();
      assert.equal(later, false);
      assert.equal(answers()[0].err.message, 'first');
    });

    it('never answers an ask that every handler declines, nor replays it', async () => {
      env.bridge.onAsk(() => undefined);
      env.bridge.onAsk(() => undefined);
      askFromNative('U1', 'c');
      env.clock.tick(10000);
      await settle();
      let replayed = false;
      env.bridge.onAsk(() => { replayed = true; return 1; });
      await settle();
      assert.equal(replayed, false);
      assert.deepEqual(answers(), []);
    });

    it('sends no time-out answer while a handler is still working on the ask', async () => {
      env.bridge.onAsk(() => new Promise((resolve) => env.clock.setTimeout(() => resolve('slow'), 6000)));
      askFromNative('U1', 'c');
      env.clock.tick(5000);
      await settle();
      assert.deepEqual(answers(), []);
      env.clock.tick(1000);
      await settle();
      assert.deepEqual(answers().map((a) => [a.err, a.data]), [[null, 'slow']]);
    });

    it('answers a promise resolving to undefined with the answer time-out error', async () => {
      env.bridge.onAsk(() => Promise.resolve(undefined));
      askFromNative('U1', 'storage.onChanged', 'k');
      await settle();
      assert.deepEqual(answers(), []);
      env.clock.tick(5000);
      const [answer] = answers();
      assert.ok(answer.err instanceof Error);
      assert.equal(answer.err.message, 'ipcPromise: answer timeout 5000 for cmd "storage.onChanged", args "k"');
      // Its message is an own property: an engine posts an Error's own
      // enumerable properties only, and would otherwise send {}.
      assert.deepEqual(JSON.parse(JSON.stringify(answer.err)), {
        message: 'ipcPromise: answer timeout 5000 for cmd "storage.onChanged", args "k"',
      });
      assert.equal(answer.data, undefined);
      assert.deepEqual(Object.keys(answer), ['channelName', 'uid', 'err', 'data', 'type']);
    });
  });

  describe('with no handler registered', () => {
    it('answers with the answer time-out error, unencoded, and no data', () => {
      askFromNative('U1', 'tabs.onUpdate', { id: 1 });
      env.clock.tick(4999);
      assert.deepEqual(answers(), []);
      env.clock.tick(1);
      const [answer] = answers();
      assert.equal(answer.uid, 'U1');
      assert.ok(answer.err instanceof Error);
      assert.equal(answer.err.message, 'ipcPromise: answer timeout 5000 for cmd "tabs.onUpdate", args "[object Object]"');
      assert.ok('data' in answer);
      assert.equal(answer.data, undefined);
    });

    it('replays queued asks when a handler registers within the time-out', async () => {
      askFromNative('U1', 'a', 1);
      askFromNative('U2', 'b', 2);
      env.clock.tick(1000);
      const seen = [];
      env.bridge.onAsk((cmd, args) => { seen.push([cmd, args]); return cmd + args; });
      await settle();
      assert.deepEqual(seen, [['a', 1], ['b', 2]]);
      assert.deepEqual(answers().map((a) => [a.uid, a.err, a.data]), [['U1', null, 'a1'], ['U2', null, 'b2']]);
      assert.equal(env.clock.pending, 0);
      env.clock.tick(10000);
      assert.equal(answers().length, 2);
    });

    it('answers a failed replay with the failure as it is and null data', async () => {
      askFromNative('U1', 'a');
      askFromNative('U2', 'b');
      const boom = new Error('thrown');
      env.bridge.onAsk((cmd) => {
        if (cmd === 'a') throw boom;
        return Promise.reject('rejected');
      });
      await settle();
      assert.deepEqual(answers().map((a) => [a.uid, a.err, a.data]), [['U1', boom, null], ['U2', 'rejected', null]]);
    });

    it('keeps a replayed ask queued while handlers decline it', async () => {
      askFromNative('U1', 'a');
      const offSync = env.bridge.onAsk(() => undefined);
      const offAsync = env.bridge.onAsk(() => Promise.resolve(undefined));
      await settle();
      assert.deepEqual(answers(), []);
      offSync();
      offAsync();
      env.bridge.onAsk(() => 'late');
      await settle();
      assert.deepEqual(answers().map((a) => a.data), ['late']);
    });

    it('stays queued after its time-out answer, so a later handler answers again', async () => {
      askFromNative('U1', 'a');
      env.clock.tick(5000);
      env.bridge.onAsk(() => 'value');
      await settle();
      assert.deepEqual(answers().map((a) => a.data), [undefined, 'value']);
    });

    it('queues asks again once every handler is unregistered', async () => {
      const unregister = env.bridge.onAsk(() => 'x');
      unregister();
      askFromNative('U1', 'a');
      env.clock.tick(5000);
      assert.match(answers()[0].err.message, /^ipcPromise: answer timeout 5000/);
    });
  });

  it('unregister removes only its own handler', async () => {
    const calls = [];
    const offA = env.bridge.onAsk(() => { calls.push('a'); });
    env.bridge.onAsk(() => { calls.push('b'); return 1; });
    offA();
    offA();
    askFromNative('U1', 'c');
    await settle();
    assert.deepEqual(calls, ['b']);
    assert.equal(answers().length, 1);
  });

  it('ignores messages of other types and other channels', async () => {
    let called = false;
    env.bridge.onAsk(() => { called = true; return 1; });
    env.fromNative({ type: 'LOG', uid: 'U1', cmd: 'c' });
    env.fromNative({ type: 'ask', uid: 'U2', cmd: 'c' });
    env.fromNative({ type: 'ASK', uid: 'U3', cmd: 'c' }, 'other');
    env.clock.tick(10000);
    await settle();
    assert.equal(called, false);
    assert.deepEqual(env.posted, []);
    assert.deepEqual(env.logs, []);
  });

  it('reports a malformed call as a failed listener and keeps going', () => {
    env.fromNative(null);
    assert.equal(env.logs.length, 2);
    for (const line of env.logs) assert.match(line, /^in process, /);
  });
});

describe('destroy', () => {
  it('rejects pending asks, forgets them and stops listening', async () => {
    const env = load();
    const a = track(env.bridge.ask('a'));
    const b = track(env.bridge.ask('b'));
    const late = track(env.bridge.ask('c', null, 10));
    env.clock.tick(10);
    let handled = false;
    env.bridge.onAsk(() => { handled = true; return 1; });

    env.bridge.destroy();
    await settle();
    for (const p of [a, b]) {
      assert.equal(p.status, 'rejected');
      assert.equal(p.value.message, 'IPC Promise has been Destroyed.');
    }
    assert.match(late.value.message, /onAsk timeout 10/);
    assert.equal(env.clock.pending, 0);

    env.fromNative({ type: 'ASK', uid: 'U1', cmd: 'x' });
    env.fromNative({ type: 'ANSWER', uid: env.posted[0].uid, data: 1 });
    await settle();
    assert.equal(handled, false);
    assert.equal(env.posted.filter((m) => m.type === 'ANSWER').length, 0);
  });
});

describe('endpoint on its own channel', () => {
  it('uses the creator\'s time-out and detaches from the registry on destroy', async () => {
    const { parts, clock } = load({ native: false });
    const registry = parts.createRegistry({ process: (listener, data) => listener(data) });
    const posted = [];
    const endpoint = parts.createEndpoint(registry, (m) => posted.push(m), 'side', 100);
    assert.deepEqual(registry.keys(), ['side']);

    const p = track(endpoint.ask('a'));
    assert.equal(posted[0].channelName, 'side');
    assert.equal(registry.fire('__default__', { type: 'ANSWER', uid: posted[0].uid, data: 1 }), false);
    registry.fire('side', { type: 'ANSWER', uid: posted[0].uid, data: 1 });
    await settle();
    assert.deepEqual(p, { status: 'resolved', value: 1 });

    const slow = track(endpoint.ask('b'));
    registry.fire('side', { type: 'ASK', uid: 'U1', cmd: 'c' });
    clock.tick(100);
    await settle();
    assert.equal(slow.value.message, 'ipcPromise: onAsk timeout 100 for cmd "b", args "undefined"');
    assert.equal(posted.at(-1).err.message, 'ipcPromise: answer timeout 100 for cmd "c", args "undefined"');

    endpoint.destroy();
    assert.equal(registry.has('side'), false);
  });
});

describe('registry', () => {
  function setup() {
    const { parts, logs } = load({ native: false });
    const events = [];
    const registry = parts.createRegistry({
      process: (item, data, id) => events.push(['process', item, data, id]),
      onOne: (id) => events.push(['onOne', id]),
      onZero: (id) => events.push(['onZero', id]),
    });
    return { registry, events, logs, parts };
  }

  it('calls onOne when a list gets its first item and onZero when it empties', () => {
    const { registry, events } = setup();
    assert.equal(registry.add('a', 1), true);
    registry.add('a', 2);
    registry.remove('a', 1);
    registry.remove('a', 2);
    registry.add('a', 3);
    assert.deepEqual(events, [['onOne', 'a'], ['onZero', 'a'], ['onOne', 'a']]);
  });

  it('remove drops every occurrence and reports unknown ids', () => {
    const { registry, events } = setup();
    assert.equal(registry.remove('a', 1), false);
    registry.add('a', 1);
    registry.add('a', 2);
    registry.add('a', 1);
    assert.equal(registry.remove('a', 1), true);
    registry.fire('a', 'd');
    assert.deepEqual(events.filter((e) => e[0] === 'process'), [['process', 2, 'd', 'a']]);
  });

  it('fires items in order with (item, data, id) and reports unknown ids', () => {
    const { registry, events } = setup();
    assert.equal(registry.fire('a', 'd'), false);
    registry.add('a', 'x');
    registry.add('a', 'y');
    assert.equal(registry.fire('a', 'd'), true);
    assert.deepEqual(events.slice(1), [['process', 'x', 'd', 'a'], ['process', 'y', 'd', 'a']]);
  });

  it('has and keys report only ids that hold items', () => {
    const { registry } = setup();
    registry.add('a', 1);
    registry.add('b', 2);
    registry.remove('b', 2);
    assert.equal(registry.has('a'), true);
    assert.equal(registry.has('b'), false);
    assert.equal(registry.has('c'), false);
    assert.deepEqual(registry.keys(), ['a']);
    // An emptied id is still known to fire and remove.
    assert.equal(registry.fire('b', 'd'), true);
  });

  it('removeAllWithData removes an item everywhere without hooks', () => {
    const { registry, events } = setup();
    registry.add('a', 'x');
    registry.add('a', 'y');
    registry.add('a', 'x');
    registry.add('b', 'x');
    events.length = 0;
    registry.removeAllWithData('x');
    assert.deepEqual(events, []);
    assert.deepEqual(registry.keys(), ['a']);
    registry.fire('a', 'd');
    assert.deepEqual(events, [['process', 'y', 'd', 'a']]);
  });

  it('destroy calls onZero for every id and empties the map', () => {
    const { registry, events } = setup();
    registry.add('a', 1);
    registry.add('b', 2);
    events.length = 0;
    registry.destroy();
    assert.deepEqual(events, [['onZero', 'a'], ['onZero', 'b']]);
    assert.deepEqual(registry.keys(), []);
    assert.equal(registry.fire('a', 'd'), false);
  });

  it('logs exceptions from hooks and process, and carries on', () => {
    const { parts, logs } = setup();
    const seen = [];
    const registry = parts.createRegistry({
      process: (item) => { if (item === 'bad') throw new Error('p failed'); seen.push(item); },
      onOne: () => { throw new Error('one failed'); },
      onZero: () => { throw 'zero failed'; },
    });
    assert.equal(registry.add('a', 'bad'), true);
    registry.add('a', 'good');
    assert.equal(registry.fire('a', 'd'), true);
    assert.deepEqual(seen, ['good']);
    registry.remove('a', 'bad');
    registry.remove('a', 'good');
    registry.destroy();
    assert.deepEqual(logs, [
      'in onOne, one failed',
      'in process, p failed',
      'in onZero, zero failed',
      'in onZero, zero failed',
    ]);
  });
});
