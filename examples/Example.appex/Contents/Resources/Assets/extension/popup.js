// The popup: shows the active tab's count, asks the tab to highlight its long
// words, and sizes itself to its content.

async function show() {
  const [tab] = await appex.tabs.query({ active: true, currentWindow: true });
  if (!tab) return;
  const count = await appex.runtime.sendMessage('background', 'countFor', tab.id);
  document.querySelector('#words').textContent = count ? count.words : '–';
  document.querySelector('#title').textContent = tab.title || tab.url;
  const key = 'visits:' + tab.url;
  const stored = await appex.storage.local.get(key);
  document.querySelector('#visits').textContent = stored[key] || '0';
  document.querySelector('#highlight').onclick = () =>
    appex.runtime.sendMessage(tab.id, 'highlight', { minLength: 8 });
  await appex.extension.setPopupHeight(Math.ceil(document.querySelector('main').offsetHeight) + 24);
}

document.querySelector('#close').onclick = () => appex.extension.closePopup();
appex.storage.onChanged.addListener(() => show());
show().catch((error) => { document.querySelector('#title').textContent = error.message; });
