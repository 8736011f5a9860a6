/*
 * appex: the extension API for an extension's web code.
 *
 * One script for every part of an extension. It installs the global `appex`
 * with promise-returning methods named after the native commands, messaging
 * between the parts, and the events that native code pushes:
 *
 *   appex.tabs            get query create update remove all
 *                         onCreated onUpdated onActivated
 *   appex.windows         get getLastFocused getAll create remove all
 *   appex.storage.local   get set remove clear all;  appex.storage.onChanged
 *   appex.browserAction   setIcon setBadgeText
 *   appex.extension       info closePopup setPopupHeight
 *   appex.httpRequest
 *   appex.runtime         sendMessage onMessage context
 *
 * Every method takes an optional last argument { timeout } (ms; the
 * transport's default, 5000 ms, otherwise) and returns a promise. A failure
 * rejects with an Error whose message is native code's text exactly, for
 * example "[tabs.get] id is required". Failures found here, before anything
 * is sent, carry the prefix "[appex] ".
 *
 * Transports. The script picks one when it loads:
 *
 *   content script       `AppexContent`, installed by content.js, which must
 *                        be declared before this file
 *   background or popup  `window.WKWebViewBridge`, the bridge that native
 *                        code injects; when it is missing this script asks
 *                        native code for it (an "INJECT" post to the
 *                        "Webview_Bridge" handler) and waits for it, so a
 *                        page only has to include this file
 *
 * Both offer ask(cmd, args, timeout) and onAsk(fn). Everything is sent as
 * the routed ask "messaging" with { target, action: { cmd, args } }: API
 * commands to target "api" with their arguments as they are; runtime
 * messages to "background", "popup" or a tab with the envelope
 * { payload, meta: {} } as arguments. Native code writes "tabId" and "tabUrl"
 * into the meta of a message from a content script, which becomes the
 * receiver's `sender`; the payload reaches the receiver untouched.
 *
 * Asks from native code are, in order: an envelope (a runtime message, for
 * the onMessage listeners), "tabs.onCreate", "tabs.onUpdate",
 * "tabs.onActivate" or "storage.onChanged" (events, answered true), anything
 * else (for the onMessage listeners, with an empty sender). A message that no
 * listener claims is failed with `[appex] no listener answered "<cmd>"` by a
 * background or popup page; in a tab, content.js decides which frame answers.
 *
 * The script is safe to run more than once in one world: when `appex`
 * already exists it installs nothing. It uses only the ambient `window`,
 * `safari`, `setTimeout`/`clearTimeout`, `Date` and `console`. The value of
 * the script is its building blocks, for tests and embedders.
 */
(function () {
  'use strict';

  var PREFIX = '[appex] ';
  var CHANNEL = '__default__';
  var NATIVE_HANDLER_NAME = 'Webview_Bridge';
  // How long a page waits for the injected bridge, and how often it looks.
  var BRIDGE_WAIT_MS = 5000;
  var BRIDGE_POLL_MS = 25;

  var hasOwn = Object.prototype.hasOwnProperty;

  function isDictionary(value) {
    return value !== null && typeof value === 'object' && !Array.isArray(value);
  }

  function messageOf(failure) {
    return failure && typeof failure.message === 'string' ? failure.message : String(failure);
  }

  function noAnswerText(cmd) {
    return PREFIX + 'no listener answered "' + cmd + '"';
  }

  // How a background or popup page answers a runtime message with a failure.
  // The bridge would send the failure as an error object, which native code
  // drops, handing the asker a null answer instead; so the page answers with
  // this one-key dictionary, which native code carries as it is, and the
  // asking side's sendMessage turns it back into the rejection.
  var FAILURE_KEY = '__appexFailure';

  function failureAnswer(text) {
    var answer = {};
    answer[FAILURE_KEY] = text;
    return answer;
  }

  function failureIn(answer) {
    if (!isDictionary(answer) || typeof answer[FAILURE_KEY] !== 'string') return null;
    return Object.keys(answer).length === 1 ? answer[FAILURE_KEY] : null;
  }

  // ---------------------------------------------------------------------
  // Listener lists.
  // ---------------------------------------------------------------------

  // An event as extension code sees it (addListener, removeListener,
  // hasListener, hasListeners) and the `fire` that feeds it. Listeners run
  // in registration order from a snapshot; one that throws is reported on
  // the console and the others still run.
  function createEvent(name) {
    var listeners = [];
    var api = {
      addListener: function (fn) {
        if (typeof fn !== 'function') throw new TypeError(PREFIX + name + ': a listener must be a function');
        if (listeners.indexOf(fn) === -1) listeners.push(fn);
      },
      removeListener: function (fn) {
        var index = listeners.indexOf(fn);
        if (index !== -1) listeners.splice(index, 1);
      },
      hasListener: function (fn) {
        return listeners.indexOf(fn) !== -1;
      },
      hasListeners: function () {
        return listeners.length > 0;
      }
    };
    function fire() {
      var args = arguments;
      listeners.slice().forEach(function (fn) {
        try {
          fn.apply(undefined, args);
        } catch (e) {
          console.error('appex: a listener of ' + name + ' failed: ' + messageOf(e));
        }
      });
    }
    return { api: api, fire: fire, listeners: listeners };
  }

  // Runs message listeners in registration order. The first one that
  // throws or returns something other than undefined decides: the result is
  // a promise of its value (rejected if it threw). When every listener
  // returns undefined the result is undefined: nobody claims the message.
  function runListeners(list, argsList) {
    var snapshot = list.slice();
    for (var i = 0; i < snapshot.length; i++) {
      var result;
      try {
        result = snapshot[i].apply(undefined, argsList);
      } catch (e) {
        return Promise.reject(e);
      }
      if (result !== undefined) return Promise.resolve(result);
    }
    return undefined;
  }

  // ---------------------------------------------------------------------
  // Runtime messages.
  // ---------------------------------------------------------------------

  function envelope(payload) {
    var wrapped = {};
    if (payload !== undefined) wrapped.payload = payload;
    wrapped.meta = {};
    return wrapped;
  }

  // An envelope is a dictionary with a dictionary "meta" and no keys but
  // "meta" and "payload". Anything else reaching a page is a bare ask.
  function isEnvelope(args) {
    if (!isDictionary(args) || !isDictionary(args.meta)) return false;
    return Object.keys(args).every(function (key) { return key === 'meta' || key === 'payload'; });
  }

  // The routing target of `target`: "background", "popup", a tab id, or
  // "<tab id>/<page id>"; also accepted as { tabId, pageId }. null when
  // `target` is none of these.
  function addressOf(target) {
    if (typeof target === 'string') return target === '' ? null : target;
    if (!isDictionary(target) || typeof target.tabId !== 'string' || target.tabId === '') return null;
    if (target.pageId === undefined || target.pageId === null) return target.tabId;
    if (typeof target.pageId !== 'string' || target.pageId === '') return null;
    return target.tabId + '/' + target.pageId;
  }

  function isTabAddress(address) {
    return address !== 'background' && address !== 'popup' && address !== 'api';
  }

  // Why `context` may not send to `address`, or null when it may. Native
  // code drops these requests without an answer; failing here spares the
  // caller the time-out.
  function refusal(context, address) {
    if (address === 'api') return PREFIX + 'the API is reached through the appex methods, not sendMessage';
    if (address === context) return PREFIX + 'the ' + context + ' page cannot message itself';
    if (context === 'content' && isTabAddress(address)) {
      return PREFIX + 'content scripts cannot message tabs; message "background" instead';
    }
    return null;
  }

  // ---------------------------------------------------------------------
  // The appex API over a transport.
  // ---------------------------------------------------------------------

  // Native ask -> the event it feeds and the listener arguments it makes.
  var EVENTS = {
    'tabs.onCreate': { path: 'tabs.onCreated', args: function (tab) { return [tab]; } },
    'tabs.onUpdate': { path: 'tabs.onUpdated', args: function (tab) { return [tab]; } },
    'tabs.onActivate': { path: 'tabs.onActivated', args: function (tab) { return [tab]; } },
    'storage.onChanged': { path: 'storage.onChanged', args: function (changes) { return [changes, 'local']; } }
  };

  function timeoutOf(options) {
    return isDictionary(options) && typeof options.timeout === 'number' && options.timeout > 0
      ? options.timeout : undefined;
  }

  // A single key becomes the list of keys the storage commands take.
  function keyList(keys) {
    return typeof keys === 'string' ? [keys] : keys;
  }

  // Builds `appex` over `transport` ({ ask, onAsk, answersEvents }) for the
  // part of the extension named by `context`: "background", "popup",
  // "content", or "page" for any other page hosted with a bridge.
  function createAppex(transport, context) {
    // Every request travels as the transport's "messaging" ask; a time-out
    // names what the caller sent and to whom instead.
    function send(request, options) {
      var asked;
      try {
        asked = Promise.resolve(transport.ask('messaging', request, timeoutOf(options)));
      } catch (e) {
        return Promise.reject(e);
      }
      return asked.catch(function (e) {
        var text = e instanceof Error ? e.message : String(e);
        var late = /no answer to "messaging" within (\d+) ms|onAsk timeout (\d+) for cmd "messaging"/.exec(text);
        if (!late) throw e;
        var to = request.target === 'api' ? 'the extension'
          : isTabAddress(request.target) ? 'tab ' + request.target : 'the ' + request.target;
        throw new Error(PREFIX + 'no answer to "' + request.action.cmd + '" from ' + to + ' within ' +
                        (late[1] || late[2]) + ' ms');
      });
    }

    function call(cmd, args, options) {
      var action = { cmd: cmd };
      if (args !== undefined) action.args = args;
      return send({ target: 'api', action: action }, options);
    }

    function command(cmd) {
      return function (args, options) { return call(cmd, args, options); };
    }

    function noArgs(cmd) {
      return function (options) { return call(cmd, undefined, options); };
    }

    // Commands that read a dictionary fail without one; an omitted one is
    // the empty dictionary, as extension code expects.
    function withDictionary(cmd) {
      return function (args, options) { return call(cmd, args === undefined ? {} : args, options); };
    }

    var events = {};
    Object.keys(EVENTS).forEach(function (cmd) {
      events[cmd] = createEvent(EVENTS[cmd].path);
    });

    var messageListeners = createEvent('runtime.onMessage');

    // Registers `fn(cmd, payload, sender)`; returns the function that
    // unregisters it.
    function onMessage(fn) {
      messageListeners.api.addListener(fn);
      return function unregister() { messageListeners.api.removeListener(fn); };
    }
    onMessage.addListener = messageListeners.api.addListener;
    onMessage.removeListener = messageListeners.api.removeListener;
    onMessage.hasListener = messageListeners.api.hasListener;
    onMessage.hasListeners = messageListeners.api.hasListeners;

    function sendMessage(target, cmd, payload, options) {
      var address = addressOf(target);
      if (address === null) {
        return Promise.reject(new Error(PREFIX + 'sendMessage needs a target: "background", "popup" or a tab id'));
      }
      if (typeof cmd !== 'string' || cmd === '') {
        return Promise.reject(new Error(PREFIX + 'sendMessage needs a command name'));
      }
      var refused = refusal(context, address);
      if (refused) return Promise.reject(new Error(refused));
      return send({ target: address, action: { cmd: cmd, args: envelope(payload) } }, options)
        .then(function (answer) {
          var failure = failureIn(answer);
          if (failure !== null) throw new Error(failure);
          return answer;
        });
    }

    function sender(meta) {
      var copy = {};
      Object.keys(meta).forEach(function (key) { copy[key] = meta[key]; });
      return copy;
    }

    // Every ask native code sends to this part of the extension.
    function receive(cmd, args) {
      if (isEnvelope(args)) return runListeners(messageListeners.listeners, [cmd, args.payload, sender(args.meta)]);
      if (hasOwn.call(EVENTS, cmd)) {
        events[cmd].fire.apply(undefined, EVENTS[cmd].args(args));
        return transport.answersEvents ? true : undefined;
      }
      return runListeners(messageListeners.listeners, [cmd, args, {}]);
    }
    transport.onAsk(receive);

    return {
      tabs: {
        get: command('tabs.get'),
        query: withDictionary('tabs.query'),
        create: command('tabs.create'),
        // update(id, { url, active }) or update({ id, url, active })
        update: function (id, properties, options) {
          if (isDictionary(id)) return call('tabs.update', id, properties);
          var args = {};
          if (isDictionary(properties)) {
            Object.keys(properties).forEach(function (key) { args[key] = properties[key]; });
          }
          args.id = id;
          return call('tabs.update', args, options);
        },
        remove: command('tabs.remove'),
        all: noArgs('tabs.all'),
        onCreated: events['tabs.onCreate'].api,
        onUpdated: events['tabs.onUpdate'].api,
        onActivated: events['tabs.onActivate'].api
      },
      windows: {
        get: command('windows.get'),
        getLastFocused: noArgs('windows.getLastFocused'),
        getAll: withDictionary('windows.getAll'),
        create: command('windows.create'),
        remove: command('windows.remove'),
        all: noArgs('windows.all')
      },
      storage: {
        local: {
          get: function (keys, options) { return call('storage.local.get', keyList(keys), options); },
          set: command('storage.local.set'),
          remove: function (keys, options) { return call('storage.local.remove', keyList(keys), options); },
          clear: noArgs('storage.local.clear'),
          all: noArgs('storage.local.all')
        },
        onChanged: events['storage.onChanged'].api
      },
      browserAction: {
        setIcon: command('browserAction.setIcon'),
        setBadgeText: command('browserAction.setBadgeText')
      },
      extension: {
        info: noArgs('extension.info'),
        closePopup: noArgs('extension.closePopup'),
        setPopupHeight: command('extension.setPopupHeight')
      },
      httpRequest: command('httpRequest'),
      runtime: {
        context: context,
        sendMessage: sendMessage,
        onMessage: onMessage
      }
    };
  }

  // ---------------------------------------------------------------------
  // Transports.
  // ---------------------------------------------------------------------

  function contentTransport(endpoint) {
    return {
      ask: endpoint.ask,
      onAsk: endpoint.onAsk,
      // content.js has only the top frame answer what every frame receives.
      answersEvents: endpoint.isTopFrame
    };
  }

  // A content script world without content.js: every call fails and says why.
  function missingContentTransport() {
    var text = PREFIX + 'content.js must be declared before extension.js among the content scripts';
    console.error(text);
    return {
      ask: function () { return Promise.reject(new Error(text)); },
      onAsk: function () { return function () {}; },
      answersEvents: false
    };
  }

  function nativeHandler(win) {
    var webkit = win.webkit;
    var handlers = webkit && webkit.messageHandlers;
    return handlers && handlers[NATIVE_HANDLER_NAME];
  }

  // Calls `onSet` when something assigns window.WKWebViewBridge (as the
  // injected bridge script does), after turning the property back into a
  // plain one holding the value.
  function watchAssignment(win, onSet) {
    try {
      Object.defineProperty(win, 'WKWebViewBridge', {
        configurable: true,
        enumerable: true,
        get: function () { return undefined; },
        set: function (value) {
          Object.defineProperty(win, 'WKWebViewBridge', {
            value: value, writable: true, configurable: true, enumerable: true
          });
          if (value) onSet(value);
        }
      });
    } catch (e) {
      // The property cannot be watched; polling still finds the bridge.
    }
  }

  // Promise of window.WKWebViewBridge: asks native code to inject the bridge
  // script (once the native handler is there) and resolves as soon as the
  // bridge is installed; rejects after `limitMs`.
  function waitForBridge(win, limitMs) {
    return new Promise(function (resolve, reject) {
      var settled = false;
      var requested = false;
      var pollTimer;

      function finish(bridge) {
        if (settled) return;
        settled = true;
        clearTimeout(pollTimer);
        clearTimeout(limitTimer);
        resolve(bridge);
      }

      function requestInjection() {
        var handler = nativeHandler(win);
        if (requested || !handler) return;
        requested = true;
        handler.postMessage({ type: 'INJECT', uid: 'appex_inject_' + Date.now(), channelName: CHANNEL });
      }

      function poll() {
        if (settled) return;
        if (win.WKWebViewBridge) {
          finish(win.WKWebViewBridge);
          return;
        }
        requestInjection();
        if (!settled) pollTimer = setTimeout(poll, BRIDGE_POLL_MS);
      }

      var limitTimer = setTimeout(function () {
        if (settled) return;
        settled = true;
        clearTimeout(pollTimer);
        reject(new Error(PREFIX + 'the native bridge did not load within ' + limitMs + ' ms'));
      }, limitMs);

      watchAssignment(win, finish);
      poll();
    });
  }

  // The transport of a hosted page (background, popup) over its bridge.
  // Asks and handlers wait for the bridge when it is not there yet. Every
  // ask from native code is answered: one that no handler claims is failed,
  // so its asker hears why at once.
  function createPageTransport(win, limitMs) {
    var waiting = null;

    function current() {
      return win.WKWebViewBridge || null;
    }

    function whenReady() {
      var bridge = current();
      if (bridge) return Promise.resolve(bridge);
      if (!waiting) waiting = waitForBridge(win, limitMs || BRIDGE_WAIT_MS);
      return waiting;
    }

    // Every failure, a message nobody claims included, is answered as a
    // failure answer (see failureAnswer).
    function claimAll(fn) {
      function failed(e) { return failureAnswer(messageOf(e)); }
      return function (cmd, args) {
        var result;
        try {
          result = fn(cmd, args);
        } catch (e) {
          return failed(e);
        }
        if (result === undefined) return failureAnswer(noAnswerText(cmd));
        return Promise.resolve(result).then(undefined, failed);
      };
    }

    if (!current()) {
      whenReady().catch(function (e) { console.error('appex: ' + messageOf(e)); });
    }

    return {
      ask: function (cmd, args, timeout) {
        var bridge = current();
        if (bridge) return bridge.ask(cmd, args, timeout);
        return whenReady().then(function (ready) { return ready.ask(cmd, args, timeout); });
      },
      onAsk: function (fn) {
        var handler = claimAll(fn);
        var bridge = current();
        if (bridge) return bridge.onAsk(handler);
        var unregister = null;
        var cancelled = false;
        whenReady().then(function (ready) {
          if (!cancelled) unregister = ready.onAsk(handler);
        }, function () {});
        return function () {
          cancelled = true;
          if (unregister) unregister();
        };
      },
      answersEvents: true
    };
  }

  // Which hosted page this is, from its file name.
  function pageContext(win) {
    var path = (win.location && win.location.pathname) || '';
    if (/(^|\/)safari_background\.html$/.test(path)) return 'background';
    if (/(^|\/)popup\.html$/.test(path)) return 'popup';
    return 'page';
  }

  // ---------------------------------------------------------------------
  // Install.
  // ---------------------------------------------------------------------

  var parts = {
    createAppex: createAppex,
    createPageTransport: createPageTransport,
    contentTransport: contentTransport,
    waitForBridge: waitForBridge,
    isEnvelope: isEnvelope,
    addressOf: addressOf,
    pageContext: pageContext
  };

  if (window.appex) return parts;

  if (window.AppexContent) {
    window.appex = createAppex(contentTransport(window.AppexContent), 'content');
  } else if (typeof safari !== 'undefined' && safari && safari.extension) {
    window.appex = createAppex(missingContentTransport(), 'content');
  } else {
    window.appex = createAppex(createPageTransport(window), pageContext(window));
  }
  return parts;
})();
