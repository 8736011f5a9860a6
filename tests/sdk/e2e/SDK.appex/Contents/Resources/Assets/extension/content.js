// The probe's content script: greets the background page from the top frame
// as soon as it starts (before the document is parsed) and records the
// answer, and every storage change, on `window.seen`.

window.seen = { answers: [], failures: [], changes: [] };

appex.storage.onChanged.addListener((changes, area) => window.seen.changes.push({ changes, area }));

if (window.top === window) {
  appex.runtime.sendMessage('background', 'hello', { name: 'probe', list: [1, 'two', null], nested: { ok: true } }).then(
    (answer) => window.seen.answers.push(answer),
    (failure) => window.seen.failures.push(failure.message));
}
