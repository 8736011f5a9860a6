// Tests of asks arriving from native code: how registered handlers answer
// them, and how asks with no handler are queued, replayed and timed out.

import { describe, it, beforeEach } from 'node:test';
import assert from 'node:assert/strict';
import { load, settle } from './bridge_harness.mjs';

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
