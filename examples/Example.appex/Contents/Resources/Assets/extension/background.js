// The background page: keeps a word count per tab, shows it as the tab's
// badge, and remembers how often each address was counted.

const counts = new Map();  // tab id -> {words, title, url}

appex.runtime.onMessage(async (cmd, payload, sender) => {
  if (cmd === 'pageCounted' && sender.tabId) {
    counts.set(sender.tabId, { words: payload.words, title: payload.title, url: sender.tabUrl });
    const key = 'visits:' + sender.tabUrl;
    const stored = await appex.storage.local.get(key);
    const visits = Number(stored[key] || 0) + 1;
    await appex.storage.local.set({ [key]: String(visits) });
    await appex.browserAction.setBadgeText({ text: String(payload.words), tabId: sender.tabId });
    return { visits };
  }
  if (cmd === 'countFor') return counts.get(payload) || null;
  return undefined;
});

appex.tabs.onCreated.addListener((tab) => console.log('tab opened:', tab.url));
appex.tabs.onUpdated.addListener((tab) => {
  if (tab.isActive) console.log('active tab now shows', tab.url);
});
appex.storage.onChanged.addListener((changes) => {
  console.log('storage changed:', Object.keys(changes).join(', '));
});
