// A small extension written against sdk/appex.d.ts: a background page that
// counts visits per tab, a popup that shows and resets the count, and a
// content script that reports the page's headings. `tsc --noEmit` checks it;
// the @ts-expect-error lines check that the declarations refuse misuse.

// --- background page (safari_background.html) ---------------------------

function background(): void {
  const visits: { [tabId: string]: number } = {};

  appex.tabs.onCreated.addListener((tab: Appex.TabState) => {
    visits[tab.id] = 0;
  });
  appex.tabs.onUpdated.addListener(async (tab) => {
    visits[tab.id] = (visits[tab.id] || 0) + 1;
    if (tab.isActive && !tab.isPrivate) {
      await appex.browserAction.setBadgeText({ text: String(visits[tab.id]), tabId: tab.id });
    }
  });
  appex.storage.onChanged.addListener((changes, area) => {
    const area2: "local" = area;
    for (const key of Object.keys(changes)) {
      const change: Appex.StorageChange = changes[key];
      console.log(area2, key, change.oldValue, "->", change.newValue);
    }
  });

  appex.runtime.onMessage((cmd, payload, sender) => {
    switch (cmd) {
      case "headings":
        console.log(`tab ${sender.tabId ?? "?"} at ${sender.tabUrl ?? "?"}:`, payload as string[]);
        return true;
      case "visits":
        return visits;
      default:
        return undefined; // not ours
    }
  });

  const refresh = async (): Promise<number> => {
    const active = await appex.tabs.query({ active: true, currentWindow: true });
    const window: Appex.WindowState = await appex.windows.getLastFocused();
    const all = await appex.windows.getAll({ populate: true });
    const tabs = all.map((w) => (w.tabs ?? []).length).reduce((a, b) => a + b, 0);
    console.log(window.id, tabs, active.map((t) => t.url));
    return active.length;
  };
  void refresh();

  void appex.httpRequest({ url: "https://example.test/api", method: "POST", data: { ping: 1 } }, { timeout: 20000 })
    .then((response: Appex.HttpResponse) => console.log(response.status, response.data))
    .catch((e: Error) => console.error(e.message));

  void appex.extension.info().then((info) => console.log(info.version ?? "dev", info.internalBaseURI));

  // @ts-expect-error tab ids are strings
  void appex.tabs.get(5);
  // @ts-expect-error stored values are strings
  void appex.storage.local.set({ count: 3 });
  // @ts-expect-error tabs.update needs a url
  void appex.tabs.update("T1", { active: true });
  // @ts-expect-error event listeners take a function
  appex.tabs.onCreated.addListener("not a function");
}

// --- popup page (popup.html) --------------------------------------------

async function popup(): Promise<void> {
  await appex.extension.setPopupHeight(240);
  const visits = await appex.runtime.sendMessage<{ [tabId: string]: number }>("background", "visits");
  const [tab] = await appex.tabs.query({ active: true });
  const stored = await appex.storage.local.get(["lastReset", "theme"]);
  const lastReset: string | null = stored["lastReset"];
  console.log(tab ? visits[tab.id] : 0, lastReset);

  await appex.storage.local.set({ lastReset: new Date().toISOString() });
  await appex.storage.local.remove("theme");
  if (tab) {
    const created = await appex.tabs.create({ url: "https://example.test/help", active: false });
    await appex.tabs.update(created.id, { url: "https://example.test/help#top" });
    await appex.tabs.update({ id: created.id, url: tab.url, active: true });
    const closed: boolean = await appex.tabs.remove(created.id);
    console.log(closed);
    await appex.runtime.sendMessage({ tabId: tab.id }, "highlight", { color: "yellow" });
  }
  await appex.browserAction.setIcon({ path: "icons/on.png" });
  await appex.extension.closePopup();

  // @ts-expect-error the popup height is a number
  void appex.extension.setPopupHeight("240");
}

// --- content script (declared after content.js and extension.js) --------

function content(): void {
  const endpoint = AppexContent;
  if (endpoint) {
    void endpoint.validated.then((hasPage: boolean) => console.log("frame", endpoint.frameId, hasPage));
  }
  const context: Appex.Context = appex.runtime.context;

  const headings = Array.from(document.querySelectorAll("h1, h2")).map((h) => h.textContent ?? "");
  void appex.runtime.sendMessage("background", "headings", headings);

  const unregister = appex.runtime.onMessage((cmd, payload: { color: string }) => {
    if (cmd !== "highlight") return undefined;
    document.body.style.background = payload.color;
    return Promise.resolve(context);
  });
  window.addEventListener("pagehide", unregister);
}

export {};
void [background, popup, content];
