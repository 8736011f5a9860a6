// The console hook (platform/webkit/console_hook.h) on its own, in a Node
// VM context standing in for a page's global: how it renders what pages
// log, that the page's console still gets every call, and that a failing
// report never breaks the page. The end-to-end tests see it in WebKit.

import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { describe, it } from 'node:test';
import vm from 'node:vm';

const header = readFileSync(new URL('../../platform/webkit/console_hook.h', import.meta.url), 'utf8');
const hookSource = header.match(/kConsoleHook\[\] = R"JS\(([\s\S]*?)\)JS";/)[1];

// A global with a recording console; `report` gets what the hook reports.
function page({ errors, report } = {}) {
  const calls = [];
  const listeners = {};
  const console = {};
  for (const level of ['log', 'info', 'warn', 'error', 'debug', 'assert']) {
    console[level] = (...args) => calls.push([level, args]);
  }
  const context = vm.createContext({
    console,
    addEventListener: (type, listener) => { listeners[type] = listener; },
  });
  const reported = [];
  const hook = vm.runInContext(hookSource, context);
  hook(report ?? ((level, text) => reported.push([level, text])), errors);
  const run = (code) => vm.runInContext(code, context);
  return { run, calls, reported, listeners };
}

describe('console hook', () => {
  it('renders arguments the way a console shows them', () => {
    const { run, reported } = page();
    run(`
      console.log('plain');
      console.log('%s=%d (%i) %f%%', 'n', '42.9px', 7.8, '2.5');
      console.info('%c styled', 'color: red', 'extra');
      console.warn('%s and %s', 'one');
      console.error({ a: [1, null] }, [2], 'x', 3, true, undefined, null);
      console.debug();
      const cyclic = {}; cyclic.self = cyclic;
      console.log(cyclic, Object.create(null), new TypeError('bad input'), Symbol('s'), 10n);
      console.log({ get x() { throw new Error('no'); } }, { toJSON() { throw 1; }, toString() { throw 2; } });
      console.log('%n%x %p');
      console.log('%o|%O', { k: 1 }, 'str');
    `);
    assert.deepEqual(reported, [
      ['log', 'plain'],
      ['log', 'n=42 (7) 2.5%'],
      ['info', ' styled extra'],
      ['warn', 'one and %s'],
      ['error', '{"a":[1,null]} [2] x 3 true undefined null'],
      ['debug', ''],
      ['log', '[object Object] {} TypeError: bad input Symbol(s) 10'],
      ['log', '[object Object] [unprintable]'],
      ['log', '%n%x %p'],
      ['log', '{"k":1}|str'],
    ]);
  });

  it('passes every call on to the page\'s console, and reports failed assertions only', () => {
    const { run, calls, reported } = page();
    run("console.log('a', 1); console.assert(true, 'fine'); console.assert(0, 'broken %s', 'here'); console.assert(false);");
    assert.deepEqual(calls, [['log', ['a', 1]], ['assert', [true, 'fine']], ['assert', [0, 'broken %s', 'here']],
      ['assert', [false]]]);
    assert.deepEqual(reported, [['log', 'a 1'], ['error', 'Assertion failed: broken here'], ['error', 'Assertion failed']]);
  });

  it('never lets a failing report break the page', () => {
    const { run, calls } = page({ report: () => { throw new Error('host gone'); } });
    assert.equal(run("console.warn('still'); 'went on'"), 'went on');
    assert.deepEqual(calls, [['warn', ['still']]]);
  });

  it('reports uncaught errors, rejections and scripts that did not load only when asked to', () => {
    assert.deepEqual(page().listeners, {});
    // Each case: the event, then what "all" and "own" (a content world) report of it.
    const script = { tagName: 'SCRIPT', src: 'file:///ext/missing.js' };
    const cases = [
      [['error', { message: 'TypeError: x is undefined', filename: 'file:///ext/background.js', lineno: 12, colno: 3 }],
        ['TypeError: x is undefined', 'file:///ext/background.js', 12, 3], null],
      [['error', { message: 'Error: from eval', filename: 'undefined', lineno: 1 }], ['Error: from eval', '', 1, 0], null],
      [['error', { message: '', error: new RangeError('deep') }], ['RangeError: deep', '', 0, 0], null],
      [['error', { message: 'Script error.', filename: '' }], ['Script error.', '', 0, 0], ['Script error.', '', 0, 0]],
      [['error', { message: 'Error: mine', filename: 'user-script:3', lineno: 4, colno: 5 }],
        ['Error: mine', 'user-script:3', 4, 5], ['Error: mine', 'user-script:3', 4, 5]],
      [['error', { target: script }], ['cannot load script file:///ext/missing.js', 'file:///ext/missing.js', 0, 0], null],
      [['error', { target: { tagName: 'IMG', src: 'x.png' } }], null, null],
      [['unhandledrejection', { reason: Object.assign(new Error('nobody caught me'), { sourceURL: 'user-script:2', line: 7, column: 9 }) }],
        ['Unhandled rejection: Error: nobody caught me', 'user-script:2', 7, 9], ['Unhandled rejection: Error: nobody caught me', 'user-script:2', 7, 9]],
      [['unhandledrejection', { reason: { code: 7 } }], ['Unhandled rejection: {"code":7}', '', 0, 0], null],
    ];
    for (const errors of ['all', 'own']) {
      const { listeners, reported } = page({ errors });
      const want = [];
      for (const [[type, event], all, own] of cases) {
        listeners[type](event);
        const expected = errors === 'all' ? all : own;
        if (expected) want.push(['uncaught', JSON.stringify(expected)]);
      }
      assert.deepEqual(reported, want, errors);
    }
  });
});
