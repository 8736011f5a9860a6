// The test's content script, declared after the SDK's content.js and
// extension.js. It runs in every frame and reports to the test with raw
// page messages named "test.report", which the extension itself ignores.
(function () {
  var top = window.top === window;
  var secret = 'content-script-secret';
  window.contentScriptGlobal = secret;

  function report(kind, data) {
    safari.extension.dispatchMessage('test.report',
        { kind: kind, top: top, url: location.href, frameId: AppexContent.frameId, data: data });
  }

  appex.runtime.onMessage(function (cmd) {
    if (cmd === 'whoami') return top ? { top: true, url: location.href } : undefined;
    if (cmd === 'subframe') return top ? undefined : { top: false, url: location.href };
    return undefined;
  });

  appex.runtime.sendMessage('background', 'hello', { top: top, baseURI: safari.extension.baseURI }).then(
      function (answer) { report('hello', answer); },
      function (error) { report('hello-failed', String(error.message)); });

  document.addEventListener('DOMContentLoaded', function () {
    var seen = document.documentElement.getAttribute('data-page-sees');
    if (!seen) return;
    var heading = document.querySelector('h1');
    report('page-sees', {
      page: JSON.parse(seen),
      headingColor: heading ? getComputedStyle(heading).color : null,
      ownGlobal: typeof window.contentScriptGlobal,
      pageGlobal: typeof window.pageGlobal
    });
  });
})();
