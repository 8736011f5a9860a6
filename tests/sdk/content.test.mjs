// Tests of the content-script endpoint (sdk/content.js): asks and their
// answers per frame, time-outs, start-up validation, and which frame
// answers the asks native code sends to a tab.

import { describe, it } from 'node:test';
import assert from 'node:assert/strict';
import { createTab, settle, track } from './harness.mjs';

// A tab whose frames run content.js only; validation asks are answered and
// dropped from `sent` so each test sees its own traffic.
function contentTab(frameCount = 1) {
  const tab = createTab();
  for (let i = 0; i < frameCount; i++) tab.addFrame({ scripts: ['content'] });
  for (const { message } of tab.asks('VALIDATE_TAB')) tab.answer(message, { data: true });
  tab.sent.length = 0;
  return tab;
}

const endpoint = (frame) => frame.win.AppexContent;

describe('asks from a frame', () => {
  it('sends one message per ask and settles it with the matching answer', async () => {
    const tab = contentTab();
    const reply = track(endpoint(tab.frames[0]).ask('messaging', { target: 'api', action: { cmd: 'tabs.all' } }));

    assert.equal(tab.sent.length, 1);
    const { name, message } = tab.sent[0];
    assert.equal(name, '__APP_EXTENSION__');
    assert.deepEqual(Object.keys(message).sort(), ['args', 'cmd', 'frameId', 'type', 'uid']);
    assert.equal(message.type, 'ASK');
    assert.equal(message.frameId, 0);
    assert.equal(typeof message.uid, 'string');

    tab.answer(message, { data: [{ id: 'T1' }] });
    await settle();
    assert.deepEqual(reply, { status: 'resolved', value: [{ id: 'T1' }], error: undefined });
  });

  it('leaves "args" out when the ask has none', () => {
    const tab = contentTab();
    endpoint(tab.frames[0]).ask('ping');
    assert.equal('args' in tab.sent[0].message, false);
  });

  it('matches concurrent asks by uid, whatever the order of the answers', async () => {
    const tab = contentTab();
    const ep = endpoint(tab.frames[0]);
    const replies = ['a', 'b', 'c'].map((cmd) => track(ep.ask(cmd)));
    const asks = tab.asks().map((s) => s.message);
    assert.equal(new Set(asks.map((a) => a.uid)).size, 3, 'a uid per ask');

    tab.answer(asks[2], { data: 'C' });
    tab.answer(asks[0], { data: 'A' });
    tab.answer(asks[1], { err: 'B failed' });
    await settle();
    assert.equal(replies[0].value, 'A');
    assert.equal(replies[1].error.message, 'B failed');
    assert.equal(replies[2].value, 'C');
    assert.equal(tab.clock.pending, 0, 'no time-out left running');
  });

  it('rejects with an Error carrying native code\'s text exactly', async () => {
    const tab = contentTab();
    const reply = track(endpoint(tab.frames[0]).ask('messaging', {}));
    tab.answer(tab.sent[0].message, { err: '[tabs.get] id is required' });
    await settle();
    assert.ok(reply.error instanceof Error);
    assert.equal(reply.error.message, '[tabs.get] id is required');
  });

  it('ignores an answer that names another frame, even with its uid', async () => {
    const tab = contentTab();
    const reply = track(endpoint(tab.frames[0]).ask('x'));
    const ask = tab.sent[0].message;
    tab.broadcast({ type: 'ANSWER', uid: ask.uid, frameId: 12345, data: 'not yours' });
    tab.broadcast({ type: 'ANSWER', uid: ask.uid, data: 'no frame' });
    await settle();
    assert.equal(reply.status, 'pending');
    tab.answer(ask, { data: 'yours' });
    await settle();
    assert.equal(reply.value, 'yours');
  });

  it('keeps answers of a subframe away from the top frame and the other way round', async () => {
    const tab = contentTab(2);
    const [top, sub] = tab.frames;
    const topReply = track(endpoint(top).ask('same'));
    const subReply = track(endpoint(sub).ask('same'));
    const [topAsk, subAsk] = tab.asks().map((s) => s.message);
    assert.equal(topAsk.frameId, 0);
    assert.ok(Number.isInteger(subAsk.frameId) && subAsk.frameId > 0);

    tab.answer(subAsk, { data: 'for the subframe' });
    await settle();
    assert.equal(topReply.status, 'pending');
    assert.equal(subReply.value, 'for the subframe');

    tab.answer(topAsk, { data: 'for the top frame' });
    await settle();
    assert.equal(topReply.value, 'for the top frame');
  });

  it('times out after 5000 ms by default, or the time-out given, naming the command', async () => {
    const tab = contentTab();
    const ep = endpoint(tab.frames[0]);
    const byDefault = track(ep.ask('tabs.slow'));
    const short = track(ep.ask('quick', undefined, 100));

    tab.clock.tick(100);
    await settle();
    assert.equal(short.error.message, '[appex] no answer to "quick" within 100 ms');
    assert.equal(byDefault.status, 'pending');

    tab.clock.tick(4899);
    await settle();
    assert.equal(byDefault.status, 'pending');
    tab.clock.tick(1);
    await settle();
    assert.equal(byDefault.error.message, '[appex] no answer to "tabs.slow" within 5000 ms');

    // A late answer finds nothing to settle.
    tab.answer(tab.sent[0].message, { data: 'late' });
    await settle();
    assert.equal(byDefault.status, 'rejected');
  });

  it('rejects at once when the browser refuses the message', async () => {
    const tab = contentTab();
    const ep = endpoint(tab.frames[0]);
    const reply = track(ep.ask('x', { big: 1n }));
    await settle();
    assert.equal(reply.status, 'rejected');
    assert.equal(tab.clock.pending, 0);
  });

  it('ignores page messages under any other name', async () => {
    const tab = contentTab();
    const reply = track(endpoint(tab.frames[0]).ask('x'));
    const ask = tab.sent[0].message;
    tab.frames[0].deliver({ type: 'ANSWER', uid: ask.uid, frameId: 0, data: 1 }, '__app_extension__');
    await settle();
    assert.equal(reply.status, 'pending');
  });

  it('fails the asks in flight and stops listening when destroyed', async () => {
    const tab = contentTab();
    const ep = endpoint(tab.frames[0]);
    const reply = track(ep.ask('x'));
    ep.destroy();
    await settle();
    assert.equal(reply.error.message, '[appex] the content endpoint has been shut down');
    assert.equal(tab.frames[0].listeners.length, 0);
    assert.equal(tab.clock.pending, 0);
  });
});

describe('start-up', () => {
  it('asks "VALIDATE_TAB" from every frame, each with its own frame id', async () => {
    const tab = createTab();
    const top = tab.addFrame({ scripts: ['content'] });
    const sub = tab.addFrame({ scripts: ['content'], random: () => 0.5 });
    const asks = tab.asks('VALIDATE_TAB');
    assert.deepEqual(asks.map((s) => s.frame), [top, sub]);
    assert.equal(asks[0].message.frameId, 0);
    assert.equal(asks[1].message.frameId, endpoint(sub).frameId);
    assert.ok(endpoint(sub).frameId > 0 && !endpoint(sub).isTopFrame);
    assert.ok(endpoint(top).isTopFrame);

    tab.answer(asks[0].message, { data: true });
    tab.answer(asks[1].message, { data: false });
    assert.equal(await endpoint(top).validated, true);
    assert.equal(await endpoint(sub).validated, false);
  });

  it('counts a failed or missing validation as no page', async () => {
    const tab = createTab();
    const frame = tab.addFrame({ scripts: ['content'] });
    tab.clock.tick(5000);
    assert.equal(await endpoint(frame).validated, false);
  });

  it('installs once per world, however often the script runs', () => {
    const tab = createTab();
    const frame = tab.addFrame({ scripts: ['content'] });
    const first = endpoint(frame);
    frame.load('content');
    assert.equal(endpoint(frame), first);
    assert.equal(frame.listeners.length, 1);
    assert.equal(tab.asks('VALIDATE_TAB').length, 1);
  });

});

describe('asks from native code', () => {
  // A native ask reaches every frame of the page, without a frame id.
  const nativeAsk = (tab, cmd, args, uid = 'N1') => tab.broadcast({ type: 'ASK', uid, cmd, args });

  it('is answered by the top frame with its handler\'s value, uid and frame id', async () => {
    const tab = contentTab();
    endpoint(tab.frames[0]).onAsk((cmd, args) => (cmd === 'sum' ? args.a + args.b : undefined));
    nativeAsk(tab, 'sum', { a: 2, b: 3 });
    await settle();
    assert.deepEqual(tab.answers('N1').map((s) => s.message), [
      { type: 'ANSWER', uid: 'N1', frameId: 0, data: 5 },
    ]);
  });

  it('answers promises when they settle, and failures with their text', async () => {
    const tab = contentTab();
    const ep = endpoint(tab.frames[0]);
    ep.onAsk((cmd) => {
      if (cmd === 'later') return Promise.resolve('done');
      if (cmd === 'nothing') return Promise.resolve(undefined);
      if (cmd === 'throws') throw new Error('broken handler');
      if (cmd === 'rejects') return Promise.reject(new Error('rejected handler'));
      return undefined;
    });
    nativeAsk(tab, 'later', undefined, 'U1');
    nativeAsk(tab, 'nothing', undefined, 'U2');
    nativeAsk(tab, 'throws', undefined, 'U3');
    nativeAsk(tab, 'rejects', undefined, 'U4');
    await settle();
    const byUid = Object.fromEntries(tab.answers().map((s) => [s.message.uid, s.message]));
    assert.equal(byUid.U1.data, 'done');
    assert.equal(byUid.U2.data, null, 'an answer always carries data or err');
    assert.equal(byUid.U3.err, 'broken handler');
    assert.equal(byUid.U4.err, 'rejected handler');
  });

  it('fails an ask nobody claims from the top frame, after a grace period', async () => {
    const tab = contentTab();
    const unregister = endpoint(tab.frames[0]).onAsk(() => 'gone');
    unregister();
    nativeAsk(tab, 'tabs.ping');
    tab.clock.tick(249);
    assert.equal(tab.answers().length, 0);
    tab.clock.tick(1);
    assert.deepEqual(tab.answers().map((s) => s.message), [
      { type: 'ANSWER', uid: 'N1', frameId: 0, err: '[appex] no listener answered "tabs.ping"' },
    ]);
  });

  it('has a subframe answer only what its handlers claim', async () => {
    const tab = contentTab(2);
    const [top, sub] = tab.frames;
    endpoint(sub).onAsk((cmd) => (cmd === 'frame.only' ? 'from the subframe' : undefined));

    nativeAsk(tab, 'frame.only', undefined, 'S1');
    nativeAsk(tab, 'elsewhere', undefined, 'S2');
    await settle();
    tab.clock.tick(1000);

    const answers = tab.answers().map((s) => [s.frame === top ? 'top' : 'sub', s.message.uid, s.message.data ?? s.message.err]);
    assert.deepEqual(answers, [
      ['sub', 'S1', 'from the subframe'],
      ['top', 'S1', '[appex] no listener answered "frame.only"'],
      ['top', 'S2', '[appex] no listener answered "elsewhere"'],
    ], 'the subframe is heard first; native code keeps the first answer');
  });

  it('has only the named frame answer an ask that names one', async () => {
    const tab = contentTab(2);
    const [top, sub] = tab.frames;
    const seen = [];
    endpoint(top).onAsk(() => { seen.push('top'); return 'top'; });
    tab.broadcast({ type: 'ASK', uid: 'F1', cmd: 'frame.ask', frameId: endpoint(sub).frameId });
    await settle();
    tab.clock.tick(1000);
    assert.deepEqual(seen, []);
    assert.deepEqual(tab.answers().map((s) => [s.frame === sub, s.message.frameId, s.message.err]), [
      [true, endpoint(sub).frameId, '[appex] no listener answered "frame.ask"'],
    ]);
  });

  it('turns an answer the browser cannot carry into a failure', async () => {
    const tab = contentTab();
    endpoint(tab.frames[0]).onAsk(() => 10n);
    nativeAsk(tab, 'big');
    await settle();
    const [answer] = tab.answers('N1');
    assert.equal(typeof answer.message.err, 'string');
    assert.equal('data' in answer.message, false);
  });
});
