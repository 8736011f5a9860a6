// The test's background page. It answers content scripts' "hello" with what
// it was sent and who sent it, and runs what the test asks for:
// run(label, fn) reports fn's outcome to the test as {label, value} or
// {label, error} through the "Test" script-message handler the test adds.
function report(value) {
  window.webkit.messageHandlers.Test.postMessage(value);
}

appex.runtime.onMessage(function (cmd, payload, sender) {
  if (cmd === 'hello') return { echo: payload, tabId: sender.tabId, tabUrl: sender.tabUrl };
  return undefined;
});

window.run = function (label, fn) {
  Promise.resolve().then(fn).then(function (value) {
    report({ label: label, value: value === undefined ? null : value });
  }, function (error) {
    report({ label: label, error: String(error && error.message ? error.message : error) });
  });
};
