// The background page: keeps a word count per tab, shows it as the tab's
// badge, and remembers how often each address was counted.

const counts = new Map();  // tab id -> {words, title, url}

async function pageCounted(payload, sender) {
  counts.set(sender.tabId, { words: payload.words, title: payload.title, url: sender.tabUrl });
  const key = 'visits:' + sender.tabUrl;
  const stored = await appex.storage.local.get(key);
  const visits = Number(stored[key] || 0) + 1;
  await appex.storage.local.set({ [key]: String(visits) });
  await appex.browserAction.setBadgeText({ text: String(payload.words), tabId: sender.tabId });
  return { visits };
}

// A listener answers by returning a value or a promise; returning
// undefined (synchronously) leaves the message to others.
appex.runtime.onMessage((cmd, payload, sender) => {
  if (cmd === 'pageCounted' && sender.tabId) return pageCounted(payload, sender);
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
