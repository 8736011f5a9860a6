// What an extension can observe of the sites it may reach and of a page's
// frames, end to end on real WebKit through `appex run --control`. Each
// suite runs its own copy of the example bundle, rewritten: a content
// script that reports per frame, a background page that echoes, and the
// website access under test. 127.0.0.1 and localhost are two hosts of the
// one served site.
//
// Environment (set by the ctest registration): APPEX_BIN, APPEX_EXAMPLE.

import assert from 'node:assert/strict';
import { cpSync, mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, before, describe, it } from 'node:test';

import { launch } from '../../clients/node/index.js';

const scratch = mkdtempSync(join(tmpdir(), 'appex-access-'));
after(() => rmSync(scratch, { recursive: true, force: true }));

// Every frame that runs the content script asks the background page to echo
// its address and logs "echo <href> <true|false>"; on a tab message
// "report" it logs "report <href> foreign=<n>", n being the answers it saw
// that were meant for another frame. The top frame answers both "report"
// (true) and "where" (its address).
const CONTENT = `
const here = location.href;
let foreign = 0;
safari.self.addEventListener('message', (e) => {
  if (e.message && e.message.type === 'ANSWER' && e.message.frameId !== AppexContent.frameId) foreign += 1;
});
appex.runtime.onMessage((cmd) => {
  if (cmd === 'report') console.log('report ' + here + ' foreign=' + foreign);
  if (window.top !== window) return undefined;
  return cmd === 'where' ? here : cmd === 'report' ? true : undefined;
});
appex.runtime.sendMessage('background', 'echo', here).then((echoed) => console.log('echo ' + here + ' ' + (echoed === here)));
`;
const BACKGROUND = "appex.runtime.onMessage((cmd, payload) => (cmd === 'echo' ? payload : undefined));\n";

// A page with an iframe on each host and a srcdoc frame.
const FRAMES = `<!doctype html><title>frames</title>
<iframe src="http://127.0.0.1:PORT/inner.html"></iframe>
<iframe src="http://localhost:PORT/inner.html"></iframe>
<iframe srcdoc="<p>inline</p>"></iframe>`;

// A served site and a bundle whose SFSafariWebsiteAccess is `access`
// (plist XML; none when empty). The site's port is only known once it
// runs, so frames.html is written after the start (see start()).
function makeBundle(name, access) {
  const dir = join(scratch, name);
  const bundle = join(dir, 'Test.appex');
  cpSync(process.env.APPEX_EXAMPLE, bundle, { recursive: true });
  const assets = join(bundle, 'Contents/Resources/Assets/extension');
  writeFileSync(join(assets, 'content.js'), CONTENT);
  writeFileSync(join(assets, 'background.js'), BACKGROUND);
  const plistPath = join(bundle, 'Contents/Info.plist');
  const plist = readFileSync(plistPath, 'utf8').replace(
    /<key>SFSafariWebsiteAccess<\/key>\s*<dict>[\s\S]*?<\/dict>/,
    access ? `<key>SFSafariWebsiteAccess</key><dict>${access}</dict>` : '');
  writeFileSync(plistPath, plist);
  const site = join(dir, 'site');
  mkdirSync(site);
  writeFileSync(join(site, 'inner.html'), '<!doctype html><title>inner</title><p>inner</p>');
  writeFileSync(join(site, 'blank.html'), '<!doctype html><title>blank</title>');
  return { bundle, site };
}

// Starts the host on a blank page; resolves {host, base} with frames.html
// in place, base being "http://127.0.0.1:<port>/".
async function start(name, access) {
  const { bundle, site } = makeBundle(name, access);
  const host = await launch({ bundle, serve: site, open: 'blank.html', dataDir: join(scratch, name, 'data') });
  const [tab] = await host.listTabs();
  const base = tab.url.replace(/blank\.html$/, '');
  writeFileSync(join(site, 'frames.html'), FRAMES.replaceAll('PORT', new URL(base).port));
  return { host, base };
}

const onLocalhost = (url) => url.replace('127.0.0.1', 'localhost');
const consoleTexts = (host) => host.events.filter((e) => e.event === 'console').map((e) => e.text);

// Waits for one console line holding each of `texts`.
function waitForLines(host, texts) {
  return Promise.all(texts.map((text) => host.waitForConsole(text)));
}

describe('website access Some, localhost only', () => {
  let host;
  let base;
  before(async () => {
    ({ host, base } = await start('some', '<key>Level</key><string>Some</string>' +
      '<key>Allowed Domains</key><array><string>localhost</string></array>'));
  });
  after(() => host?.close());

  it('injects by each frame\'s own host, hides pages outside access, and lets native requests through', async () => {
    const outside = await host.openTab(base + 'frames.html');
    const inside = await host.openTab(onLocalhost(base) + 'frames.html');
    // Only frames on localhost run the script, under either top page.
    await Promise.all([
      host.waitForConsole(`echo ${onLocalhost(base)}inner.html true`, { tab: outside.tab }),
      host.waitForConsole(`echo ${onLocalhost(base)}inner.html true`, { tab: inside.tab }),
      host.waitForConsole(`echo ${onLocalhost(base)}frames.html true`, { tab: inside.tab }),
    ]);

    const seen = await host.eval(`(async () => {
      const tabs = await appex.tabs.query({});
      const outcome = async (tab) => appex.runtime.sendMessage(tab.id, 'where', null, { timeout: 1500 })
        .then((v) => 'answered ' + v, () => 'failed');
      const reply = await appex.httpRequest({ url: '${base}inner.html' });
      return { urls: tabs.map((t) => t.url), outcomes: await Promise.all(tabs.map(outcome)),
               status: reply.status };
    })()`);
    // Tabs outside access (the first one too) are listed, their address
    // withheld; their top frames have no script to answer.
    const framesInside = `${onLocalhost(base)}frames.html`;
    assert.deepEqual(seen.urls, ['about:blank', 'about:blank', framesInside]);
    assert.deepEqual(seen.outcomes, ['failed', 'failed', `answered ${framesInside}`]);
    // httpRequest is the extension's own request, not the page's.
    assert.equal(seen.status, 200);

    assert.equal(await host.evalInTab(outside.tab, 'typeof AppexContent', { world: 'content' }), 'undefined');
    const echoed = consoleTexts(host).filter((t) => t.startsWith('echo '));
    assert.deepEqual(echoed.filter((t) => t.includes('127.0.0.1')), []);
  });
});

describe('no website access declared: every site', () => {
  let host;
  let base;
  before(async () => ({ host, base } = await start('all', '')));
  after(() => host?.close());

  it('runs in each framed document, and answers reach only the frame that asked', async () => {
    const { tab } = await host.openTab(base + 'frames.html');
    const top = `${base}frames.html`;
    const frames = [top, `${base}inner.html`, `${onLocalhost(base)}inner.html`];
    const echoes = await waitForLines(host, frames.map((href) => `echo ${href} `));
    assert.deepEqual(echoes.map((e) => e.text), frames.map((href) => `echo ${href} true`));
    assert.ok(echoes.every((e) => e.tab === tab));

    // A message to the tab reaches every frame once; by then each frame
    // has had every answer meant for it, and none meant for another.
    const reported = await host.eval(`(async () => {
      const [t] = (await appex.tabs.query({})).filter((t) => t.url === '${top}');
      return appex.runtime.sendMessage(t.id, 'report');
    })()`);
    assert.equal(reported, true);
    const reports = await waitForLines(host, frames.map((href) => `report ${href} `));
    assert.deepEqual(reports.map((e) => e.text), frames.map((href) => `report ${href} foreign=0`));

    // A srcdoc frame has no address of its own to match: no script.
    assert.equal(consoleTexts(host).filter((t) => t.includes('about:')).length, 0);
  });
});
