// The content script: counts the words of the top document, tells the
// background page, and highlights long words when the popup asks.

function countWords() {
  const text = document.body ? document.body.innerText : '';
  return text.split(/\s+/).filter(Boolean).length;
}

if (window.top === window) {
  const report = () =>
    appex.runtime.sendMessage('background', 'pageCounted', { words: countWords(), title: document.title });
  if (document.readyState === 'loading') {
    document.addEventListener('DOMContentLoaded', report, { once: true });
  } else {
    report();
  }
}

appex.runtime.onMessage((cmd, payload) => {
  if (cmd !== 'highlight' || window.top !== window) return undefined;
  const minLength = (payload && payload.minLength) || 8;
  let marked = 0;
  const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
  const nodes = [];
  while (walker.nextNode()) nodes.push(walker.currentNode);
  for (const node of nodes) {
    const parts = node.textContent.split(/(\s+)/);
    if (!parts.some((w) => w.length >= minLength)) continue;
    const span = document.createElement('span');
    for (const part of parts) {
      if (part.length >= minLength && /\S/.test(part)) {
        const mark = document.createElement('mark');
        mark.className = 'appex-long-word';
        mark.textContent = part;
        span.appendChild(mark);
        marked += 1;
      } else {
        span.appendChild(document.createTextNode(part));
      }
    }
    node.replaceWith(span);
  }
  return marked;
});
