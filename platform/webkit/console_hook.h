// The console hook: routes a JavaScript global's console messages to native
// code as (level, text), so that hosts can show what the extension's pages
// and content scripts print. Shared by the engine's web views (the page
// world of the background and popup pages) and the web-process module (the
// content-script world of tab pages); the page world of a tab is left alone.
//
// kConsoleHook evaluates to a function (report, errors). Called in a
// global, it wraps that global's console.log, info, warn, error and debug
// (and assert, whose failures are errors): each call still reaches the
// original method, and report(level, text) gets the level ("log", "info",
// "warn", "error", "debug") and the arguments rendered as one text, the way
// a console shows them (a first string's %s, %d, %i, %f, %o, %O and %c are
// substituted; other values as JSON where they have a form, else as
// String(value)). `errors` asks for the global's uncaught errors, unhandled
// rejections and scripts that failed to load as well: "all" of them, or
// "own" (a content-script world: only those of its scripts, the engine's
// user scripts, never the page's; the engine hides the details of a user
// script's uncaught error, "Script error." with no file, as it does for a
// page's scripts from another origin, which cannot be told apart). Each is report("uncaught", text), the
// text a JSON array [message, source, line, column] (source "" and line 0
// where the engine does not say).
//
// The text is the page's: native code treats it as data throughout.
#pragma once

namespace appex::webkit {

// The user message a tab's web process sends its web view for each console
// message of a content script: parameters "(ss)", the level and the text.
inline constexpr const char* kConsoleMessageName = "appex.content.console";

// The level of an uncaught error's report.
inline constexpr const char* kUncaughtLevel = "uncaught";

inline constexpr const char kConsoleHook[] = R"JS(
(function (report, errors) {
  'use strict';
  var target = globalThis.console;
  var toText = String;
  var stringify = JSON.stringify;
  var apply = Function.prototype.call.bind(Function.prototype.apply);
  var tagOf = Function.prototype.call.bind(Object.prototype.toString);  // errors of any realm
  if (!target) return;

  function describe(value) {
    if (typeof value === 'string') return value;
    if (value !== null && typeof value === 'object' && tagOf(value) !== '[object Error]') {
      try {
        var json = stringify(value);
        if (json !== undefined) return json;
      } catch (e) {
        // a cycle, or a throwing toJSON: as String shows it
      }
    }
    try {
      return toText(value);
    } catch (e) {
      return '[unprintable]';
    }
  }

  function render(args, from) {
    var out = '';
    var next = from;
    if (typeof args[from] === 'string' && args.length > from + 1) {
      next = from + 1;
      out = args[from].replace(/%([sdifoOc%])/g, function (match, kind) {
        if (kind === '%') return '%';
        if (next >= args.length) return match;
        var value = args[next++];
        if (kind === 'c') return '';
        if (kind === 'd' || kind === 'i') return toText(parseInt(value, 10));
        if (kind === 'f') return toText(parseFloat(value));
        return describe(value);
      });
    } else if (next < args.length) {
      out = describe(args[next++]);
    }
    for (; next < args.length; ++next) out += ' ' + describe(args[next]);
    return out;
  }

  function send(level, text) {
    try { report(level, text); } catch (e) { /* never break the page's logging */ }
  }

  ['log', 'info', 'warn', 'error', 'debug'].forEach(function (level) {
    var original = target[level];
    target[level] = function () {
      send(level, render(arguments, 0));
      if (typeof original === 'function') return apply(original, target, arguments);
    };
  });
  var originalAssert = target.assert;
  target.assert = function (condition) {
    if (!condition) {
      send('error', 'Assertion failed' + (arguments.length > 1 ? ': ' + render(arguments, 1) : ''));
    }
    if (typeof originalAssert === 'function') return apply(originalAssert, target, arguments);
  };

  if (errors === 'all' || errors === 'own') {
    var own = errors === 'own';
    // The engine names a user script "user-script:<n>" and hides the
    // details of its errors from the page's listeners ("Script error.", no
    // file); the page's own errors come with its URL.
    var ours = function (source) { return typeof source === 'string' && source.indexOf('user-script:') === 0; };
    var failed = function (message, source, line, column) {
      source = typeof source === 'string' && source !== 'undefined' ? source : '';
      send('uncaught', stringify([message, source, line || 0, column || 0]));
    };
    globalThis.addEventListener('error', function (event) {
      var element = event.target && event.target.tagName ? event.target : null;
      if (element) {
        // An element's resource failed; a script's is the extension's error.
        if (!own && element.tagName === 'SCRIPT') failed('cannot load script ' + element.src, element.src, 0, 0);
        return;
      }
      var message = event.message || describe(event.error);
      if (own && !ours(event.filename) && !(message === 'Script error.' && !event.filename)) return;
      failed(message, event.filename, event.lineno, event.colno);
    }, true);
    globalThis.addEventListener('unhandledrejection', function (event) {
      var reason = event.reason;
      var where = reason !== null && typeof reason === 'object' ? reason : {};
      if (own && !ours(where.sourceURL)) return;
      failed('Unhandled rejection: ' + describe(reason), where.sourceURL, where.line, where.column);
    });
  }
})
)JS";

}  // namespace appex::webkit
