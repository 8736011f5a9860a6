// The probe's background page: answers the content script's "hello" and
// records every message and event it gets on `window.seen`, where the tests
// read it.

window.seen = { messages: [], changes: [], created: [] };

appex.runtime.onMessage((cmd, payload, sender) => {
  if (cmd !== 'hello') return undefined;
  window.seen.messages.push({ cmd, payload, sender });
  // Answered with a promise that itself waits on the API: the answer travels
  // back only once the page has asked native code about the sender's tab.
  return appex.tabs.get(sender.tabId).then((tab) => ({ reply: 'hi ' + payload.name, tabUrl: tab.url }));
});

appex.storage.onChanged.addListener((changes, area) => window.seen.changes.push({ changes, area }));
appex.tabs.onCreated.addListener((tab) => window.seen.created.push(tab));
