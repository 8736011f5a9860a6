// The extension author's loop with the appex program, end to end: `appex
// check` on a bundle being written, the example run from the source tree,
// `appex init` for a new bundle, and `appex run --watch` picking up edits.
//
// Environment (set by the ctest registration): APPEX_BIN, APPEX_EXAMPLE (the
// example in the source tree), APPEX_SITE (its page).

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { appendFileSync, cpSync, mkdtempSync, readFileSync, rmSync, symlinkSync, unlinkSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, describe, it } from 'node:test';

import { Host, appexBin, exampleBundle, exampleSite, runAppex } from './appex_host.mjs';

assert.ok(appexBin && exampleBundle && exampleSite, 'APPEX_BIN, APPEX_EXAMPLE and APPEX_SITE must be set');

const scratch = mkdtempSync(join(tmpdir(), 'appex-devloop-'));
after(() => rmSync(scratch, { recursive: true, force: true }));

let copies = 0;
// A fresh copy of the example (links followed) that `change` edits.
function exampleCopy(change = () => {}) {
  const bundle = join(scratch, `copy-${++copies}`, 'Example.appex');
  cpSync(exampleBundle, bundle, { recursive: true, dereference: true });
  change(bundle);
  return bundle;
}
const infoOf = (b) => join(b, 'Contents/Info.plist');
const assetsOf = (b) => join(b, 'Contents/Resources/Assets/extension');
// Replaces `from` by `to` in the bundle's Info.plist.
const editInfo = (b, from, to) => {
  const text = readFileSync(infoOf(b), 'utf8');
  assert.ok(text.includes(from), `Info.plist lacks ${from}`);
  writeFileSync(infoOf(b), text.replace(from, to));
};
const ownScript = '<string>Assets/extension/content.js</string>';

describe('appex check', () => {
  // Each case edits a copy of the example; `code` is the exit code, `stderr`
  // what the message must say, `args` extra options.
  const cases = {
    'a script above the resources': {
      change: (b) => { writeFileSync(join(b, 'Contents/x.js'), ''); editInfo(b, ownScript, '<string>../x.js</string>'); },
      code: 3, stderr: /declared content script outside the bundle's resources: \.\.\/x\.js/,
    },
    'a script at an absolute path': {
      change: (b) => editInfo(b, ownScript, `<string>${join(b, 'Contents/Info.plist')}</string>`),
      code: 3, stderr: /declared content script outside the bundle's resources: \//,
    },
    'a script linked to a file outside': {
      change: (b) => {
        writeFileSync(join(scratch, 'secret.js'), '');
        unlinkSync(join(assetsOf(b), 'content.js'));
        symlinkSync(join(scratch, 'secret.js'), join(assetsOf(b), 'content.js'));
      },
      code: 3, stderr: /declared content script outside the bundle's resources: Assets\/extension\/content\.js/,
    },
    'a style sheet above the resources': {
      change: (b) => editInfo(b, '<string>Assets/extension/content.css</string>', '<string>Assets/../../Info.plist</string>'),
      code: 3, stderr: /declared style sheet outside the bundle's resources/,
    },
    'a background page linked outside': {
      change: (b) => {
        unlinkSync(join(assetsOf(b), 'safari_background.html'));
        symlinkSync(infoOf(b), join(assetsOf(b), 'safari_background.html'));
      },
      code: 3, stderr: /background page outside the bundle's resources/,
    },
    'malformed XML': {
      change: (b) => editInfo(b, '<string>Word Count</string>\n', '<string>Word Count</strin>\n'),
      code: 3, stderr: /Info\.plist is not a property list .*: line 8: .*mismatch/,
    },
    'a key with no value': {
      change: (b) => editInfo(b, '<string>3</string>', ''),
      code: 3, stderr: /Info\.plist is not a property list .*: line 11: <key>CFBundleVersion<\/key> has no value/,
    },
    'a misspelt key': {
      change: (b) => editInfo(b, 'SFSafariContentScript<', 'SFSafariContentScripts<'),
      code: 0,
      stderr: /^appex check: warning: NSExtension key "SFSafariContentScripts" is not a known key; did you mean "SFSafariContentScript"\?$/m,
    },
    'a misspelt key, strict': {
      change: (b) => editInfo(b, '<key>Style Sheet</key>', '<key>StyleSheet</key>'),
      args: ['--strict'], code: 3, stderr: /warning: SFSafariStyleSheet entry 0 key "StyleSheet" .*did you mean "Style Sheet"/,
    },
    'an unknown key, strict': {
      change: (b) => editInfo(b, '<key>SFSafariToolbarItem</key>', '<key>SFSafariFrobnicator</key><true/><key>SFSafariToolbarItem</key>'),
      args: ['--strict'], code: 3, stderr: /^appex check: warning: NSExtension key "SFSafariFrobnicator" is not a known key/m,
    },
  };
  for (const [name, { change, code, stderr, args = [] }] of Object.entries(cases)) {
    it(name, () => {
      const result = runAppex(['check', exampleCopy(change), ...args]);
      assert.equal(result.code, code, result.stderr);
      assert.match(result.stderr, stderr);
    });
  }
});

// Starts `appex run bundle --control args...` and waits for `ready`.
async function started(bundle, args = []) {
  const host = new Host(['run', bundle, '--control', '--data-dir', join(scratch, `data-${++copies}`), ...args]);
  await host.waitFor('ready', {}, { timeoutMs: 30_000 });
  return host;
}

describe('the example in the source tree', () => {
  it('checks clean and runs as it is: its pages and content scripts have the SDK', async () => {
    const check = runAppex(['check', exampleBundle]);
    assert.equal(check.code, 0, check.stderr);
    assert.equal(check.stderr, '');

    const host = await started(exampleBundle, ['--serve', exampleSite, '--open', 'index.html']);
    try {
      assert.equal(await host.call('eval', { in: 'background', code: 'typeof appex.tabs.query' }), 'function');
      // The content script counted the page through the SDK; the background
      // page put the count on the badge.
      await host.waitEvent((e) => e.event === 'toolbar' && /^\d+$/.test(e.badgeText ?? ''), { what: 'the badge' });
    } finally {
      host.kill();
    }
  });
});

describe('appex init', () => {
  it('writes a bundle that checks clean and whose own test runs it', () => {
    const bundle = join(scratch, 'New Thing.appex');
    const init = runAppex(['init', bundle]);
    assert.equal(init.code, 0, init.stderr);
    const check = runAppex(['check', bundle]);
    assert.equal(check.code, 0, check.stderr);
    assert.equal(check.stderr, '');
    assert.match(check.stdout, /identifier: +com\.example\.new-thing/);
    // The client test it wrote: `appex run --control` up to `ready`, then an
    // eval in the background page.
    // (A test run of its own: without the marker of the runner this file is in.)
    const env = { ...process.env, APPEX_BIN: appexBin };
    delete env.NODE_TEST_CONTEXT;
    const clientTest = spawnSync(process.execPath, ['--test', join(bundle, 'test')], { encoding: 'utf8', timeout: 90_000, env });
    assert.equal(clientTest.status, 0, clientTest.stdout + clientTest.stderr);
    assert.match(clientTest.stdout, /# pass 1/);

    const again = runAppex(['init', bundle]);
    assert.equal(again.code, 1);
    assert.match(again.stderr, /not an empty folder; nothing written/);
  });
});

describe('appex run --headed', () => {
  it('is documented and needs the display it names', () => {
    const help = runAppex(['run', '--help']);
    assert.match(help.stdout, /--headed +show the windows on the display in DISPLAY/);
    assert.match(help.stdout, /--watch +reload the extension's pages/);
    const env = { ...process.env };
    delete env.DISPLAY;
    const result = runAppex(['run', exampleBundle, '--headed'], { input: '', env });
    assert.equal(result.code, 4, result.stderr);
    assert.match(result.stderr, /--headed .*DISPLAY is not set/);
  });
});

describe('appex run --watch', () => {
  it('reloads the background page and the tabs\' content scripts after an edit', async () => {
    const bundle = exampleCopy();
    const host = await started(bundle, ['--watch', '--serve', exampleSite, '--open', 'index.html']);
    try {
      await host.waitFor('tabOpened', { tab: 't1' });
      // The value of `code` once it can be had (pages reload meanwhile).
      const valueIn = async (where, code) => {
        const reply = await host.request('eval', { ...where, code });
        return reply.ok ? reply.result : undefined;
      };
      const since = host.mark();
      appendFileSync(join(assetsOf(bundle), 'background.js'), "\nglobalThis.edited = 'background, edited';\n");
      appendFileSync(join(assetsOf(bundle), 'content.js'), "\nglobalThis.edited = 'content, edited';\n");
      const reloaded = await host.waitFor('reloaded', {}, { since });
      assert.match(reloaded.path, /^Assets\/extension\/(background|content)\.js$/);
      assert.match(host.stderr, /\[watch\] reloaded after change to Assets\/extension\/(background|content)\.js/);
      await host.until(async () => (await valueIn({ in: 'background' }, 'globalThis.edited')) === 'background, edited',
        20_000, 'the edited background page');
      await host.until(async () => (await valueIn({ in: 'tab', tab: 't1' }, 'globalThis.edited')) === 'content, edited',
        20_000, 'the edited content script');
    } finally {
      host.kill();
    }
  });
});
