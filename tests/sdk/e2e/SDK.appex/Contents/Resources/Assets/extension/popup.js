// The probe's popup: records storage changes on `window.seen`; `ready` is
// set once the bridge has answered, so events can reach the page.

window.seen = { ready: false, changes: [] };

appex.storage.onChanged.addListener((changes, area) => window.seen.changes.push({ changes, area }));
appex.extension.info().then(() => { window.seen.ready = true; });
