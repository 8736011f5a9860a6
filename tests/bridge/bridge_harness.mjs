// Loads the page side of the web-view bridge (bridge/bridge.js) for its tests.
//
// The script is evaluated the way a page would run it, but against a
// stand-in `window`, a manual clock and a console that records its lines.
// Everything runs in this realm, so errors and objects made by the script
// compare normally with the test's own.
//
//   load(options)        evaluates the script; returns the window, what was
//                        posted to native code, the clock, the console lines,
//                        the building blocks and fromNative(data, channel)
//   attachNative(win, posted)  gives `win` the native message handler
//   settle(), track(p)   await and observe promise outcomes

import { readFileSync } from 'node:fs';
import { createClock } from '../js_support/manual_clock.mjs';

const source = readFileSync(new URL('../../bridge/bridge.js', import.meta.url), 'utf8');

// Direct eval inside the function gives the script the injected globals and
// yields its completion value (the building blocks it exposes).
const evaluate = new Function(
  'window', 'setTimeout', 'clearTimeout', 'console', 'Date', 'Math', 'source',
  'return eval(source);'
);

export function attachNative(win, posted) {
  win.webkit = { messageHandlers: { Webview_Bridge: { postMessage: (m) => posted.push(m) } } };
}

export function load({ native = true, win = {}, clock = createClock(), logs = [], date = Date, math = Math } = {}) {
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
export const settle = () => new Promise((resolve) => setImmediate(resolve));

// Tracks a promise's outcome without leaving rejections unhandled.
export function track(promise) {
  const state = { status: 'pending', value: undefined };
  promise.then(
    (v) => Object.assign(state, { status: 'resolved', value: v }),
    (e) => Object.assign(state, { status: 'rejected', value: e }),
  );
  return state;
}
