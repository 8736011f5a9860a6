// The console hook: routes a JavaScript global's console messages to native
// code as (level, text), so that hosts can show what the extension's pages
// and content scripts print. Shared by the engine's web views (the page
// world of the background and popup pages) and the web-process module (the
// content-script world of tab pages); the page world of a tab is left alone.
//
// kConsoleHook evaluates to a function (report, reportErrors). Called in a
// global, it wraps that global's console.log, info, warn, error and debug
// (and assert, whose failures are errors): each call still reaches the
// original method, and report(level, text) gets the level ("log", "info",
// "warn", "error", "debug") and the arguments rendered as one text, the way
// a console shows them (a first string's %s, %d, %i, %f, %o, %O and %c are
// substituted; other values as JSON where they have a form, else as
// String(value)). With reportErrors, uncaught errors and unhandled
// rejections are reported as "error" too.
//
// The text is the page's: native code treats it as data throughout.
#pragma once

namespace appex::webkit {

// The user message a tab's web process sends its web view for each console
// message of a content script: parameters "(ss)", the level and the text.
inline constexpr const char* kConsoleMessageName = "appex.content.console";

inline constexpr const char kConsoleHook[] = R"JS(
(function (report, reportErrors) {
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

  if (reportErrors) {
    globalThis.addEventListener('error', function (event) {
      var where = event.filename && event.filename.indexOf(':') !== -1 ? ' (' + event.filename + ':' + event.lineno + ')' : '';
      send('error', 'Uncaught ' + (event.message || describe(event.error)) + where);
    });
    globalThis.addEventListener('unhandledrejection', function (event) {
      send('error', 'Unhandled rejection: ' + describe(event.reason));
    });
  }
})
)JS";

}  // namespace appex::webkit
