/*
 * The end-to-end suite's hosted page (background and popup alike).
 *
 * On load it asks native code for the bridge script (an INJECT post), waits
 * for window.WKWebViewBridge, registers its handler and then logs
 * "ready <role>" through the bridge, which the suite watches for.
 *
 * It answers native asks by command:
 *   report                     what the page has seen so far:
 *                              { role, loadId, received, sent }
 *   echo                       { role, echo: args }
 *   call { cmd, args, timeout }
 *                              asks native code in turn and answers with how
 *                              that went: { answered: value } or
 *                              { failed: message }
 *   send { id, cmd, args, timeout }
 *                              asks native code without waiting; the outcome
 *                              shows in report's "sent" under id, as
 *                              { pending: true } until it settles
 *   anything else              (the events native code pushes) answered with
 *                              { heard: cmd, role }
 * Every ask but "report" is recorded in "received" as { cmd, args }.
 * "loadId" is new on every load, so a reload is visible to the suite.
 */
function startTestPage(role) {
  'use strict';

  var loadId = String(Date.now()) + '-' + String(Math.random()).slice(2);
  var received = [];
  var sent = {};

  function outcomeOf(promise) {
    return promise.then(
        function (value) { return {answered: value === undefined ? null : value}; },
        function (error) {
          return {failed: error && typeof error.message === 'string' ? error.message : String(error)};
        });
  }

  function handle(cmd, args) {
    if (cmd === 'report') return {role: role, loadId: loadId, received: received, sent: sent};
    received.push({cmd: cmd, args: args === undefined ? null : args});
    switch (cmd) {
      case 'echo':
        return {role: role, echo: args === undefined ? null : args};
      case 'call':
        return outcomeOf(window.WKWebViewBridge.ask(args.cmd, args.args, args.timeout));
      case 'send':
        sent[args.id] = {pending: true};
        outcomeOf(window.WKWebViewBridge.ask(args.cmd, args.args, args.timeout)).then(
            function (outcome) { sent[args.id] = outcome; });
        return {sent: args.id};
      default:
        return {heard: cmd, role: role};
    }
  }

  window.webkit.messageHandlers.Webview_Bridge.postMessage(
      {type: 'INJECT', uid: role + '-inject', channelName: '__default__'});
  (function whenInjected() {
    if (!window.WKWebViewBridge) {
      setTimeout(whenInjected, 1);
      return;
    }
    window.WKWebViewBridge.onAsk(handle);
    window.callBridge({type: 'LOG', uid: '', channelName: '__default__', data: 'ready ' + role});
  })();
}
