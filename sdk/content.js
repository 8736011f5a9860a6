/*
 * appex content-script endpoint.
 *
 * Declare this file first among an extension's content scripts. It gives the
 * scripts of one frame a promise-style ask/answer endpoint to the extension's
 * native side, with the same shape as the `WKWebViewBridge` endpoint of the
 * background and popup pages, so that `extension.js` (declared after it) can
 * offer the same `appex` API in content scripts.
 *
 * Transport. The browser gives content scripts two one-way channels:
 *
 *   script -> native  safari.extension.dispatchMessage("__APP_EXTENSION__", message)
 *   native -> script  safari.self.addEventListener("message", e)  with
 *                     e.name === "__APP_EXTENSION__" and e.message the message
 *
 * Every message is one plain dictionary:
 *
 *   ask     { type: "ASK", uid, cmd, args, frameId }
 *   answer  { type: "ANSWER", uid, err, data, frameId }   (err: failure text)
 *
 * Frames. Every frame of a page runs its own copy of the content scripts and
 * sees every message that native code sends to the tab. A frame identifies
 * itself with "frameId": 0 in the top frame, a random positive integer in a
 * subframe. Native code copies the asker's uid and frameId into the answer
 * and sends it to the asking frame; this endpoint also only accepts answers
 * that carry both its uid and its own frameId, so an answer meant for one
 * frame never settles an ask of another frame, whatever the browser
 * delivers.
 *
 * Asks from native code (a message sent to the tab, or an event) carry no
 * frameId and reach every frame. Native code keeps the first answer it gets
 * for a uid and waits for one forever otherwise, so exactly this rule holds:
 *
 *   - a subframe answers only when one of its handlers claims the ask
 *     (returns something other than undefined);
 *   - the top frame answers every ask: with its handlers' value when one
 *     claims it, otherwise, after UNCLAIMED_DELAY_MS (time for a subframe
 *     that claimed it to be heard first), with the failure
 *     `[appex] no listener answered "<cmd>"`.
 *   An ask that names a frame in "frameId" is for that frame alone, which
 *   answers it as the top frame would.
 *
 * On start-up every frame asks "VALIDATE_TAB"; the answer (whether the tab
 * has a page) settles `AppexContent.validated`. Native code takes the top
 * frame's request as the signal to refresh its snapshot of the tab, so the
 * top frame asks again whenever its title or address changes.
 *
 * The script installs one global in the content-script world:
 *
 *   AppexContent  { ask(cmd, args, timeout), onAsk(fn), frameId, isTopFrame,
 *                   validated, destroy() }
 *
 * Several content scripts share one world per frame, so the script may run
 * more than once: when AppexContent already exists it installs nothing. It
 * uses only the ambient `window`, `safari`, `setTimeout`/`clearTimeout`,
 * `Math` and `console`, so it can run against stand-ins. The value of the
 * script is its building blocks, for tests and embedders.
 */
(function () {
  'use strict';

  var MESSAGE_NAME = '__APP_EXTENSION__';
  var DEFAULT_TIMEOUT_MS = 5000;
  var UNCLAIMED_DELAY_MS = 250;
  // Subframe ids stay well inside the integers every layer on the way to
  // native code represents exactly.
  var MAX_SUBFRAME_ID = 0x7fffffff;
  // Failures made here (not by native code) carry this prefix.
  var PREFIX = '[appex] ';

  function failureText(failure) {
    if (typeof failure === 'string') return failure;
    if (failure && typeof failure.message === 'string') return failure.message;
    return String(failure);
  }

  function noAnswerText(cmd) {
    return PREFIX + 'no listener answered "' + cmd + '"';
  }

  function isTopFrame(win) {
    try {
      return win.top === win;
    } catch (e) {
      // Reading `top` is allowed across origins; should a browser refuse it,
      // the frame cannot be the top one.
      return false;
    }
  }

  function newFrameId(random) {
    return 1 + Math.floor(random() * (MAX_SUBFRAME_ID - 1));
  }

  // Runs the handlers in registration order. The first one that throws or
  // returns something other than undefined decides: the result is a promise
  // of its value (rejected if it threw). When every handler returns
  // undefined the result is undefined: nobody claims the ask.
  function runHandlers(list, cmd, args) {
    var snapshot = list.slice();
    for (var i = 0; i < snapshot.length; i++) {
      var result;
      try {
        result = snapshot[i](cmd, args);
      } catch (e) {
        return Promise.reject(e);
      }
      if (result !== undefined) return Promise.resolve(result);
    }
    return undefined;
  }

  // Creates the endpoint of one frame over `host` (the `safari` object).
  //
  // options:
  //   host            { extension: { dispatchMessage }, self: { addEventListener, removeEventListener } }
  //   frameId         0 for the top frame, a positive integer otherwise
  //   timeout         default time-out of asks in ms (DEFAULT_TIMEOUT_MS)
  //   unclaimedDelay  ms before the top frame fails an unclaimed ask
  //   validate        ask "VALIDATE_TAB" now (default true)
  function createContentEndpoint(options) {
    var host = options.host;
    var frameId = options.frameId;
    var timeout = options.timeout || DEFAULT_TIMEOUT_MS;
    var unclaimedDelay = options.unclaimedDelay === undefined ? UNCLAIMED_DELAY_MS : options.unclaimedDelay;

    var pending = new Map(); // uid -> { resolve, reject, timer } of our asks in flight
    var handlers = [];
    var counter = 0;
    var destroyed = false;

    function post(message) {
      host.extension.dispatchMessage(MESSAGE_NAME, message);
    }

    function makeUid() {
      counter += 1;
      return 'cs_' + frameId + '_' + counter + '_' + Math.floor(Math.random() * 1e9);
    }

    // ask(cmd, args, timeout) -> Promise of native code's answer. Rejects
    // with an Error carrying native code's failure text, or on time-out; a
    // timeout of 0 (or none) means the endpoint's default.
    function ask(cmd, args, askTimeout) {
      var ms = askTimeout || timeout;
      return new Promise(function (resolve, reject) {
        if (destroyed) {
          reject(new Error(PREFIX + 'the content endpoint has been shut down'));
          return;
        }
        var uid = makeUid();
        var entry = { resolve: resolve, reject: reject, timer: undefined };
        entry.timer = setTimeout(function () {
          if (pending.get(uid) !== entry) return;
          pending.delete(uid);
          reject(new Error(PREFIX + 'no answer to "' + cmd + '" within ' + ms + ' ms'));
        }, ms);
        pending.set(uid, entry);

        var message = { type: 'ASK', uid: uid, cmd: cmd, frameId: frameId };
        if (args !== undefined) message.args = args;
        try {
          post(message);
        } catch (e) {
          // The browser refused the message (for one, arguments it cannot
          // carry): fail now rather than at the time-out.
          clearTimeout(entry.timer);
          pending.delete(uid);
          reject(e instanceof Error ? e : new Error(failureText(e)));
        }
      });
    }

    // Sends the answer to a native ask: the failure's text when `failure`
    // is given, else `data`. Never throws: it runs where nobody could catch.
    function answer(uid, failure, data) {
      var message = { type: 'ANSWER', uid: uid, frameId: frameId };
      if (failure !== undefined) message.err = failureText(failure);
      // Native code needs one of err or data to be present.
      else message.data = data === undefined ? null : data;
      try {
        post(message);
        return;
      } catch (e) {
        failure = e;
      }
      // The value could not be carried; tell the asker why.
      try {
        post({ type: 'ANSWER', uid: uid, frameId: frameId, err: failureText(failure) });
      } catch (e) {
        console.error('appex: cannot answer "' + uid + '": ' + failureText(e));
      }
    }

    function receiveAnswer(message) {
      if (message.frameId !== frameId) return;
      var entry = pending.get(message.uid);
      if (!entry) return; // another frame's, a late one after a time-out, or a copy
      pending.delete(message.uid);
      clearTimeout(entry.timer);
      if (message.err) entry.reject(new Error(failureText(message.err)));
      else entry.resolve(message.data);
    }

    function receiveAsk(message) {
      var addressed = message.frameId !== undefined && message.frameId !== null;
      if (addressed && message.frameId !== frameId) return;
      var answersAll = addressed || frameId === 0;
      var uid = message.uid;
      var cmd = message.cmd;

      var outcome = runHandlers(handlers, cmd, message.args);
      if (outcome === undefined) {
        if (answersAll) {
          setTimeout(function () {
            answer(uid, noAnswerText(cmd));
          }, unclaimedDelay);
        }
        return;
      }
      outcome.then(function (value) {
        answer(uid, undefined, value);
      }, function (failure) {
        answer(uid, failure);
      });
    }

    function onMessage(event) {
      if (!event || event.name !== MESSAGE_NAME) return;
      var message = event.message;
      if (!message || typeof message !== 'object') return;
      if (message.type === 'ANSWER') receiveAnswer(message);
      else if (message.type === 'ASK' && typeof message.cmd === 'string') receiveAsk(message);
    }

    // Registers a handler `fn(cmd, args)` for asks from native code. It
    // claims an ask by returning a value or a promise (whose value or
    // failure is the answer), or declines it by returning undefined.
    // Returns the function that unregisters it.
    function onAsk(fn) {
      handlers.push(fn);
      return function unregister() {
        var index = handlers.indexOf(fn);
        if (index !== -1) handlers.splice(index, 1);
      };
    }

    // Stops listening and fails every ask still in flight.
    function destroy() {
      if (destroyed) return;
      destroyed = true;
      host.self.removeEventListener('message', onMessage, false);
      pending.forEach(function (entry) {
        clearTimeout(entry.timer);
        entry.reject(new Error(PREFIX + 'the content endpoint has been shut down'));
      });
      pending.clear();
    }

    host.self.addEventListener('message', onMessage, false);

    var endpoint = {
      ask: ask,
      onAsk: onAsk,
      destroy: destroy,
      frameId: frameId,
      isTopFrame: frameId === 0,
      // Whether native code knows a page in this tab; false when it could
      // not be asked.
      validated: undefined
    };
    endpoint.validated = options.validate === false
      ? Promise.resolve(false)
      : ask('VALIDATE_TAB').then(function (hasPage) { return hasPage === true; },
        function () { return false; });
    return endpoint;
  }

  // The browser's record of a tab (its address and title) is made from the
  // top frame's first "VALIDATE_TAB", at document start, before the page
  // has a title. The top frame asks again whenever the title or address it
  // shows has changed (parsed, retitled, moved to an anchor or through
  // history), so the record follows the page and the extension hears of
  // it as a tab update. One ask per change, at most one per turn.
  function followTitleAndAddress(win, endpoint) {
    var doc = win.document;
    var seen = doc.title + '\n' + win.location.href;
    var scheduled = false;
    function check() {
      scheduled = false;
      var now = doc.title + '\n' + win.location.href;
      if (now === seen) return;
      seen = now;
      endpoint.ask('VALIDATE_TAB').catch(function () {});
    }
    function soon() {
      if (scheduled) return;
      scheduled = true;
      setTimeout(check, 0);
    }
    function watchHead() {
      if (!doc.head || typeof MutationObserver !== 'function') return;
      new MutationObserver(soon).observe(doc.head, { subtree: true, childList: true, characterData: true });
    }
    if (doc.readyState === 'loading') {
      doc.addEventListener('DOMContentLoaded', function () { watchHead(); soon(); }, { once: true });
    } else {
      watchHead();
    }
    win.addEventListener('load', soon);
    win.addEventListener('hashchange', soon);
    win.addEventListener('popstate', soon);
  }

  var parts = {
    createContentEndpoint: createContentEndpoint,
    newFrameId: newFrameId,
    isTopFrame: isTopFrame,
    MESSAGE_NAME: MESSAGE_NAME,
    DEFAULT_TIMEOUT_MS: DEFAULT_TIMEOUT_MS,
    UNCLAIMED_DELAY_MS: UNCLAIMED_DELAY_MS
  };

  if (window.AppexContent) return parts;
  var host = typeof safari !== 'undefined' ? safari : undefined;
  if (!host || !host.extension || !host.self) {
    console.error('appex: content.js runs outside a content script; no endpoint installed');
    return parts;
  }

  window.AppexContent = createContentEndpoint({
    host: host,
    frameId: isTopFrame(window) ? 0 : newFrameId(Math.random)
  });
  if (window.AppexContent.isTopFrame && window.document) followTitleAndAddress(window, window.AppexContent);
  return parts;
})();
