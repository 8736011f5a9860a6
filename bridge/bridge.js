/*
 * Page side of the web-view bridge.
 *
 * Native code evaluates this script in every hosted page (background and
 * popup). It turns the two one-way channels a web view offers into a
 * promise-style ask/answer protocol with time-outs:
 *
 *   page -> native  window.webkit.messageHandlers.Webview_Bridge.postMessage(msg)
 *   native -> page  onWebViewCall('<channel>', {...})  (a script evaluated by native code)
 *
 * Every message is one plain object:
 *
 *   ask     { channelName, uid, cmd, args, type: "ASK" }
 *   answer  { channelName, uid, err, data, type: "ANSWER" }
 *
 * On a successful answer "err" is null; on a failed one "err" is an encoded
 * error ({ isError, name, message, stack }) and "data" is null. Native code
 * sends its failures as the failure's text in "err".
 *
 * The script installs three globals on `window`:
 *
 *   WKWebViewBridge        the endpoint of channel "__default__":
 *                          ask(cmd, args, timeout), onAsk(fn), destroy()
 *   onWebViewCall(ch, msg) entry point for native code
 *   callBridge(msg)        posts to native, buffering while the handler is missing
 *
 * The script is safe to evaluate more than once: when WKWebViewBridge is
 * already present it installs nothing. It only uses the ambient `window`,
 * `setTimeout`/`clearTimeout`, `Date`, `Math` and `console`, so it can be run
 * against a stand-in window. The value of the script (the IIFE's result)
 * exposes its building blocks to embedders and tests without adding globals.
 */
(function () {
  'use strict';

  var DEFAULT_CHANNEL = '__default__';
  var DEFAULT_TIMEOUT_MS = 5000;
  var NATIVE_HANDLER_NAME = 'Webview_Bridge';

  // ---------------------------------------------------------------------
  // Registry: id -> ordered list of items.
  //
  // `process(item, data, id)` is what `fire` does with each item. `onOne(id)`
  // runs when an id's list grows to exactly one item, `onZero(id)` when a
  // removal leaves it empty and for every id on destroy. An exception from
  // any of the three is written to the console and the operation carries on,
  // so one faulty listener cannot break delivery to the others.
  // An id stays known (for `remove` and `fire`) once added, even when its list
  // is empty; `has` and `keys` only report ids that hold items.
  // ---------------------------------------------------------------------

  function messageOf(failure) {
    return failure && typeof failure.message === 'string' ? failure.message : String(failure);
  }

  function createRegistry(options) {
    var process = options.process;
    var onOne = options.onOne || function () {};
    var onZero = options.onZero || function () {};
    var lists = new Map();

    function guarded(label, fn, argsList) {
      try {
        fn.apply(undefined, argsList);
      } catch (e) {
        console.error('in ' + label + ', ' + messageOf(e));
      }
    }

    return {
      add: function (id, obj) {
        var list = lists.get(id);
        if (!list) {
          list = [];
          lists.set(id, list);
        }
        list.push(obj);
        if (list.length === 1) guarded('onOne', onOne, [id]);
        return true;
      },

      remove: function (id, obj) {
        var list = lists.get(id);
        if (!list) return false;
        for (var i = list.length - 1; i >= 0; i--) {
          if (list[i] === obj) list.splice(i, 1);
        }
        if (list.length === 0) guarded('onZero', onZero, [id]);
        return true;
      },

      // Drops `obj` from every list; no hooks run.
      removeAllWithData: function (obj) {
        lists.forEach(function (list) {
          for (var i = list.length - 1; i >= 0; i--) {
            if (list[i] === obj) list.splice(i, 1);
          }
        });
      },

      // Items are processed from a snapshot, so listeners may add or remove
      // listeners while being fired.
      fire: function (id, data) {
        var list = lists.get(id);
        if (!list) return false;
        // Every message goes through here: a plain loop, no closure per item.
        var snapshot = list.slice();
        for (var i = 0; i < snapshot.length; i++) {
          try {
            process(snapshot[i], data, id);
          } catch (e) {
            console.error('in process, ' + messageOf(e));
          }
        }
        return true;
      },

      has: function (id) {
        var list = lists.get(id);
        return !!list && list.length > 0;
      },

      keys: function () {
        var ids = [];
        lists.forEach(function (list, id) {
          if (list.length > 0) ids.push(id);
        });
        return ids;
      },

      destroy: function () {
        lists.forEach(function (list, id) {
          guarded('onZero', onZero, [id]);
        });
        lists.clear();
      }
    };
  }

  // ---------------------------------------------------------------------
  // Errors on the wire.
  // ---------------------------------------------------------------------

  // What the page sends as "err" when one of its handlers failed.
  function encodeError(failure) {
    if (failure instanceof Error) {
      return { isError: true, name: failure.name, message: failure.message, stack: failure.stack };
    }
    return { isError: false, name: 'Error', message: String(failure) };
  }

  // Turns a received truthy "err" into an Error: an encoded error (or any
  // object) contributes only its message; native failures arrive as text.
  function decodeError(err) {
    if (typeof err === 'object') return new Error(err.message);
    if (typeof err === 'string') return new Error(err);
    return new Error(String(err));
  }

  // ---------------------------------------------------------------------
  // Channel: the message layer of one endpoint. Posts asks and answers
  // tagged with the channel name and routes the channel's incoming messages
  // by type; messages of any other type are ignored.
  // ---------------------------------------------------------------------

  function createChannel(registry, post, channelName, handlers) {
    function askListener(message) {
      if (message.type === 'ASK') handlers.onAsk(message);
    }
    function answerListener(message) {
      if (message.type === 'ANSWER') handlers.onAnswer(message);
    }
    registry.add(channelName, askListener);
    registry.add(channelName, answerListener);

    return {
      sendAsk: function (uid, cmd, args) {
        post({ channelName: channelName, uid: uid, cmd: cmd, args: args, type: 'ASK' });
      },
      sendAnswer: function (uid, err, data) {
        post({ channelName: channelName, uid: uid, err: err, data: data, type: 'ANSWER' });
      },
      destroy: function () {
        registry.remove(channelName, askListener);
        registry.remove(channelName, answerListener);
      }
    };
  }

  // ---------------------------------------------------------------------
  // Endpoint: promise-style asks in both directions over one channel.
  // ---------------------------------------------------------------------

  var UID_DRAWS = 1001; // the draw is 0..1000

  // A uid "ipcp_<ms>_<n>" that `isTaken` does not report. The draw is
  // random; when it hits a uid still in use (asks made in the same
  // millisecond share the first part) the next free n is taken, and after
  // a full millisecond's worth, the next millisecond. Two asks in flight
  // never share a uid, or one would take the other's answer and the other
  // would never settle.
  function makeUid(isTaken) {
    var ms = Date.now();
    var n = Math.round(Math.random() * (UID_DRAWS - 1));
    for (var tried = 1; ; tried++) {
      var uid = 'ipcp_' + ms + '_' + n;
      if (!isTaken(uid)) return uid;
      n = (n + 1) % UID_DRAWS;
      if (tried % UID_DRAWS === 0) ms += 1;
    }
  }

  function quoted(value) {
    return '"' + String(value) + '"';
  }

  // An error that survives the trip to native code. The native link carries
  // plain data only: an Error object arrives there as an empty object, its
  // message lost. This one is a plain object inheriting from Error.prototype
  // (so `instanceof Error` and `.message` work in the page) whose message is
  // an own, enumerable property.
  function wireError(message) {
    return Object.create(Error.prototype, {
      message: { value: message, enumerable: true, writable: true, configurable: true }
    });
  }

  function isThenable(value) {
    return value !== null && (typeof value === 'object' || typeof value === 'function') &&
      typeof value.then === 'function';
  }

  // Runs the handlers in registration order. The first one that throws or
  // returns something other than undefined decides: the result is a promise
  // of its value (rejected if it threw or its promise rejects). When every
  // handler returns undefined the result is undefined: nobody handles it.
  // `decided(promise)`, when given, learns whether that outcome is already
  // certain to be answered: a throw, or a plain value (not a thenable, so
  // it cannot settle to undefined).
  function runHandlers(list, cmd, args, decided) {
    var snapshot = list.slice();
    for (var i = 0; i < snapshot.length; i++) {
      var result;
      try {
        result = snapshot[i](cmd, args);
      } catch (e) {
        if (decided) decided(true);
        return Promise.reject(e);
      }
      if (result !== undefined) {
        if (decided) decided(!isThenable(result));
        return Promise.resolve(result);
      }
    }
    return undefined;
  }

  function createEndpoint(registry, post, channelName, defaultTimeout) {
    var timeout = defaultTimeout || DEFAULT_TIMEOUT_MS;

    // uid -> { resolve, reject, timer } for our own asks in flight, or
    // TOMBSTONE for an ask that timed out and whose late answer is still due.
    var TOMBSTONE = {};
    var cache = new Map();

    // Incoming asks that no handler has answered yet: { uid, cmd, args, timer }.
    var unhandled = [];
    // null until the first onAsk: asks are then only queued as unhandled.
    var handlers = null;

    var channel = createChannel(registry, post, channelName, {
      onAsk: receiveAsk,
      onAnswer: receiveAnswer
    });

    function isUnhandled(uid) {
      return unhandled.some(function (entry) { return entry.uid === uid; });
    }

    // ask(cmd, args, timeout) -> Promise of the other side's answer.
    // Rejects with the decoded error of a failed answer, or on time-out; a
    // timeout of 0 (or none) means the endpoint's time-out.
    function ask(cmd, args, askTimeout) {
      // Tombstones count as taken: their late answer is still due.
      var uid = makeUid(function (candidate) { return cache.has(candidate); });
      var ms = askTimeout || timeout;
      var promise = new Promise(function (resolve, reject) {
        var entry = { resolve: resolve, reject: reject, timer: undefined };
        entry.timer = setTimeout(function () {
          if (cache.get(uid) !== entry) return;
          cache.set(uid, TOMBSTONE);
          reject(new Error('ipcPromise: onAsk timeout ' + ms + ' for cmd ' + quoted(cmd) +
            ', args ' + quoted(args)));
        }, ms);
        cache.set(uid, entry);
      });
      channel.sendAsk(uid, cmd, args === undefined ? [] : args);
      return promise;
    }

    function receiveAnswer(message) {
      var uid = message.uid;
      if (!uid) return;
      var entry = cache.get(uid);
      if (entry === undefined) return;
      cache.delete(uid);
      // A late answer to a timed-out ask is swallowed; the tombstone goes
      // with it, so a further copy counts as unknown.
      if (entry === TOMBSTONE) return;
      clearTimeout(entry.timer);
      if (message.err) entry.reject(decodeError(message.err));
      else entry.resolve(message.data);
    }

    // An ask from the other side. It is answered by the first handler that
    // handles it; one that nobody handles is queued as unhandled and, unless
    // a handler registered later answers it, gets an "answer timeout" error
    // once the endpoint's time-out runs out (so the asker is not left to its
    // own time-out). Handler failures are sent as encoded errors.
    function receiveAsk(message) {
      var entry = { uid: message.uid, cmd: message.cmd, args: message.args, timer: undefined };

      function startAnswerTimer() {
        entry.timer = setTimeout(function () {
          if (!isUnhandled(entry.uid)) return;
          // The entry stays queued: a handler registered later still replays it.
          channel.sendAnswer(entry.uid, wireError('ipcPromise: answer timeout ' + timeout +
            ' for cmd ' + quoted(entry.cmd) + ', args ' + quoted(entry.args)), undefined);
        }, timeout);
      }

      // No handler registered yet, or every one unregistered since: queue it.
      if (handlers === null || handlers.length === 0) {
        startAnswerTimer();
        unhandled.push(entry);
        return;
      }

      // The answer time-out only matters to an ask that may end up unhandled.
      // One whose handler threw or gave a plain value is answered for sure, in
      // this turn's microtasks: it gets no timer (one timer per ask is a large
      // part of the cost of a busy channel). Every handler declining outright
      // drops the ask: no timer either. Otherwise the timer starts now, in the
      // ask's own turn, as if it had started on arrival.
      var certain = false;
      var outcome = runHandlers(handlers, entry.cmd, entry.args, function (answered) {
        certain = answered;
      });
      if (outcome === undefined) {
        // Every handler declined outright: the ask is deliberately dropped,
        // neither answered nor queued; the asker's own time-out ends it.
        return;
      }
      if (!certain) startAnswerTimer();
      outcome.then(function (value) {
        if (value === undefined) {
          unhandled.push(entry);
          return;
        }
        clearTimeout(entry.timer);
        channel.sendAnswer(entry.uid, null, value);
      }, function (failure) {
        clearTimeout(entry.timer);
        channel.sendAnswer(entry.uid, encodeError(failure), null);
      });
    }

    // Registers a handler `fn(cmd, args)`, which answers by returning a value
    // or a promise, or declines by returning undefined. Queued unhandled asks
    // are replayed through all handlers at once; those answered leave the
    // queue once every replay has settled. Returns the unregister function.
    function onAsk(fn) {
      if (handlers === null) handlers = [];
      handlers.push(fn);

      var answered = [];
      var replays = unhandled.slice().map(function (entry) {
        var outcome = runHandlers(handlers, entry.cmd, entry.args);
        if (outcome === undefined) return undefined;
        return outcome.then(function (value) {
          if (value === undefined) return;
          answered.push(entry);
          channel.sendAnswer(entry.uid, null, value);
        }, function (failure) {
          answered.push(entry);
          channel.sendAnswer(entry.uid, failure, null);
        });
      });

      Promise.all(replays).then(function () {
        answered.forEach(function (entry) {
          clearTimeout(entry.timer);
          var index = unhandled.indexOf(entry);
          if (index !== -1) unhandled.splice(index, 1);
        });
      });

      return function unregister() {
        var index = handlers.indexOf(fn);
        if (index !== -1) handlers.splice(index, 1);
      };
    }

    // Detaches from the channel and fails every ask still in flight; the
    // cache, tombstones included, is emptied. Asks already received from the
    // other side keep their answer time-out, so a queued one is still
    // answered.
    function destroy() {
      channel.destroy();
      cache.forEach(function (entry) {
        if (entry === TOMBSTONE) return;
        clearTimeout(entry.timer);
        entry.reject(new Error('IPC Promise has been Destroyed.'));
      });
      cache.clear();
    }

    return { ask: ask, onAsk: onAsk, destroy: destroy };
  }

  // ---------------------------------------------------------------------
  // Native link.
  // ---------------------------------------------------------------------

  function nativeHandler() {
    var webkit = window.webkit;
    var messageHandlers = webkit && webkit.messageHandlers;
    return messageHandlers && messageHandlers[NATIVE_HANDLER_NAME];
  }

  // Posts to native code. While the native handler is missing, messages are
  // buffered (returns false); the next call that finds the handler sends the
  // buffer, oldest first, ahead of its own message (returns true). Nothing
  // retries on its own.
  function createCallBridge() {
    var buffer = [];
    return function callBridge(data) {
      var handler = nativeHandler();
      if (!handler) {
        buffer.push(data);
        return false;
      }
      while (buffer.length > 0) handler.postMessage(buffer.shift());
      handler.postMessage(data);
      return true;
    };
  }

  // ---------------------------------------------------------------------
  // Install.
  // ---------------------------------------------------------------------

  var parts = {
    createRegistry: createRegistry,
    createEndpoint: createEndpoint,
    encodeError: encodeError,
    decodeError: decodeError
  };

  if (window.WKWebViewBridge) return parts;

  var channels = createRegistry({
    process: function (listener, data) { listener(data); }
  });
  var callBridge = createCallBridge();

  window.onWebViewCall = function onWebViewCall(channelName, data) {
    channels.fire(channelName, data);
  };
  window.callBridge = callBridge;
  window.WKWebViewBridge = createEndpoint(channels, callBridge, DEFAULT_CHANNEL, DEFAULT_TIMEOUT_MS);

  return parts;
})();
