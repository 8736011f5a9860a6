// Stand-ins for what the SDK scripts talk to, shared by the SDK tests.
//
// The scripts are evaluated the way a browser runs them, against injected
// globals: a fake `window`, a fake `safari` (content scripts), a manual
// clock and a recording console. Messages that cross to "native code" go
// through a JSON round trip, as they would on the way through the browser,
// so a value that cannot travel is noticed.
//
//   createClock()       timers that only run on tick(ms) (js_support/)
//   createTab()         one page of a tab: frames with content.js (and
//                       extension.js), and the native side of their messages
//   createHostedPage()  a background or popup page: the native
//                       "Webview_Bridge" handler, which injects the real
//                       bridge/bridge.js on request, and native asks

import { readFileSync } from 'node:fs';
import { createClock } from '../js_support/manual_clock.mjs';

export { createClock };

const read = (path) => readFileSync(new URL(path, import.meta.url), 'utf8');
export const sources = {
  content: read('../../sdk/content.js'),
  extension: read('../../sdk/extension.js'),
  bridge: read('../../bridge/bridge.js'),
};

// Direct eval inside the function gives the script the injected globals and
// yields its completion value (the building blocks it exposes).
const evaluate = new Function(
  'window', 'safari', 'setTimeout', 'clearTimeout', 'console', 'Date', 'Math', 'source',
  'return eval(source);'
);

export function run(source, { win, safari, clock, console: fakeConsole, math = Math }) {
  return evaluate(win, safari, clock.setTimeout, clock.clearTimeout, fakeConsole, clock.Date, math, source);
}

export const wire = (value) => (value === undefined ? undefined : JSON.parse(JSON.stringify(value)));

// Lets every pending promise reaction run.
export const settle = () => new Promise((resolve) => setImmediate(resolve));

// Tracks a promise's outcome without leaving rejections unhandled.
export function track(promise) {
  const state = { status: 'pending', value: undefined, error: undefined };
  promise.then(
    (value) => Object.assign(state, { status: 'resolved', value }),
    (error) => Object.assign(state, { status: 'rejected', error })
  );
  return state;
}

export function createConsole() {
  const lines = [];
  const record = (...args) => lines.push(args.join(' '));
  return { lines, error: record, log: record, warn: record };
}

// ---------------------------------------------------------------------
// Content scripts.
// ---------------------------------------------------------------------

// One page of a tab. Every frame added runs content.js (and extension.js
// unless told not to) in its own world. `sent` lists what the frames sent
// to native code, oldest first: { frame, name, message }.
export function createTab({ clock = createClock() } = {}) {
  const sent = [];
  const frames = [];
  let topWindow = null;

  function addFrame({ top = frames.length === 0, scripts = ['content', 'extension'], random } = {}) {
    const listeners = [];
    const logs = createConsole();
    const win = {};
    if (top) topWindow = win;
    win.top = top ? win : topWindow;
    const frame = { win, logs, listeners, parts: {} };
    frame.safari = {
      extension: {
        dispatchMessage(name, message) {
          sent.push({ frame, name, message: wire(message) });
        },
      },
      self: {
        addEventListener(type, fn) {
          if (type === 'message') listeners.push(fn);
        },
        removeEventListener(type, fn) {
          const i = listeners.indexOf(fn);
          if (type === 'message' && i !== -1) listeners.splice(i, 1);
        },
      },
    };
    const math = random ? Object.assign(Object.create(Math), { random }) : Math;
    frame.load = (name) => {
      frame.parts[name] = run(sources[name], { win, safari: frame.safari, clock, console: logs, math });
    };
    // What native code's page dispatch does for this frame.
    frame.deliver = (message, name = '__APP_EXTENSION__') => {
      for (const fn of listeners.slice()) fn({ name, message: wire(message) });
    };
    scripts.forEach(frame.load);
    frames.push(frame);
    return frame;
  }

  return {
    clock, frames, sent, addFrame,
    // Native code dispatches to a page: every frame's scripts see it.
    broadcast(message) {
      for (const frame of frames) frame.deliver(message);
    },
    // Messages sent so far with type "ASK" (and cmd, when given).
    asks(cmd) {
      return sent.filter((s) => s.message.type === 'ASK' && (cmd === undefined || s.message.cmd === cmd));
    },
    answers(uid) {
      return sent.filter((s) => s.message.type === 'ANSWER' && (uid === undefined || s.message.uid === uid));
    },
    // Native code's answer to a page's ask: uid and frameId copied.
    answer(ask, { data, err } = {}) {
      const message = { type: 'ANSWER', uid: ask.uid, frameId: ask.frameId };
      if (err !== undefined) message.err = err;
      else message.data = data;
      this.broadcast(message);
    },
  };
}

// ---------------------------------------------------------------------
// Hosted pages.
// ---------------------------------------------------------------------

// A background or popup page. The native "Webview_Bridge" handler records
// every post in `posted` and evaluates the real bridge script on "INJECT";
// `preinjected` installs the bridge before the SDK loads.
export function createHostedPage({
  path = '/Contents/Resources/Assets/extension/safari_background.html',
  preinjected = false,
  handler = true,
  load = true,
  clock = createClock(),
} = {}) {
  const posted = [];
  const logs = createConsole();
  const win = { location: { pathname: path } };
  const page = { win, posted, logs, clock, injections: 0 };

  page.injectBridge = () => {
    page.injections += 1;
    run(sources.bridge, { win, clock, console: logs });
  };
  page.attachHandler = () => {
    win.webkit = {
      messageHandlers: {
        Webview_Bridge: {
          postMessage(message) {
            const copy = wire(message);
            posted.push(copy);
            if (copy.type === 'INJECT') page.injectBridge();
          },
        },
      },
    };
  };
  page.loadSdk = () => {
    page.parts = run(sources.extension, { win, clock, console: logs });
    page.appex = win.appex;
  };

  // The page's asks to native code.
  page.asks = (cmd) => posted.filter((m) => m.type === 'ASK' && (cmd === undefined || m.cmd === cmd));
  // Native code answers an ask: a failure travels as its text.
  page.answer = (ask, { data, err } = {}) => {
    win.onWebViewCall('__default__', wire({
      channelName: '__default__', uid: ask.uid, type: 'ANSWER',
      err: err === undefined ? null : err, data: err === undefined ? data : null,
    }));
  };
  // Native code asks the page; resolves with { err, data } of its answer as
  // native code keeps it (an "err" that is not text is dropped), or
  // undefined without one.
  let nextUid = 1;
  page.ask = async (cmd, args) => {
    const uid = `native_${nextUid++}`;
    win.onWebViewCall('__default__', wire({ channelName: '__default__', uid, cmd, args, type: 'ASK' }));
    for (let i = 0; i < 20; i++) {
      await settle();
      const answer = posted.find((m) => m.type === 'ANSWER' && m.uid === uid);
      if (answer) {
        return { err: typeof answer.err === 'string' ? answer.err : null, data: answer.data };
      }
    }
    return undefined;
  };

  if (handler) page.attachHandler();
  if (preinjected) page.injectBridge();
  if (load) page.loadSdk();
  return page;
}
