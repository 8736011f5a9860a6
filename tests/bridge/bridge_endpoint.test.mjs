// Tests of the bridge's building blocks and teardown: destroy() of the
// installed endpoint, an endpoint on its own channel, and the registry that
// routes messages to listeners.

import { describe, it } from 'node:test';
import assert from 'node:assert/strict';
import { load, settle, track } from './bridge_harness.mjs';

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
