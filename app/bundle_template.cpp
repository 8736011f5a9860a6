#include "app/bundle_template.h"

namespace appex {
namespace {

// Text for XML and HTML: the name may hold any character.
std::string escapedForMarkup(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

constexpr const char* kInfo = R"text(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
  <key>CFBundleIdentifier</key>
  <string>@ID@</string>
  <key>CFBundleDisplayName</key>
  <string>@NAME@</string>
  <key>CFBundleShortVersionString</key>
  <string>1.0.0</string>
  <key>CFBundleVersion</key>
  <string>1</string>
  <key>NSExtension</key>
  <dict>
    <key>SFSafariContentScript</key>
    <array>
      <dict><key>Script</key><string>Assets/extension/appex/content.js</string></dict>
      <dict><key>Script</key><string>Assets/extension/appex/extension.js</string></dict>
      <dict><key>Script</key><string>Assets/extension/content.js</string></dict>
    </array>
    <key>SFSafariToolbarItem</key>
    <dict>
      <key>Action</key><string>Popover</string>
      <key>Identifier</key><string>Button</string>
      <key>Label</key><string>@NAME@</string>
    </dict>
    <key>SFSafariWebsiteAccess</key>
    <dict>
      <key>Level</key><string>All</string>
    </dict>
  </dict>
</dict>
</plist>
)text";

constexpr const char* kBackgroundPage = R"text(<!doctype html>
<meta charset="utf-8">
<title>@NAME@: background</title>
<script src="appex/extension.js"></script>
<script src="background.js"></script>
)text";

constexpr const char* kBackgroundScript = R"text(// The background page: hidden, loaded once, alive as long as the extension.

function greeting(name) {
  return `Hello, ${name}!`;
}

// A listener answers by returning a value or a promise; returning undefined
// leaves the message to other listeners.
appex.runtime.onMessage((cmd, payload) => {
  if (cmd === 'greet') return greeting(payload);
  return undefined;
});

appex.tabs.onUpdated.addListener((tab) => {
  if (tab.isActive) console.log('active tab now shows', tab.url);
});
)text";

constexpr const char* kPopupPage = R"text(<!doctype html>
<meta charset="utf-8">
<title>@NAME@</title>
<main>
  <h1>@NAME@</h1>
  <p id="tab">…</p>
</main>
<script src="appex/extension.js"></script>
<script src="popup.js"></script>
)text";

constexpr const char* kPopupScript = R"text(// The popup: loaded when the toolbar button is clicked.

(async () => {
  const [tab] = await appex.tabs.query({ active: true, currentWindow: true });
  document.querySelector('#tab').textContent = tab ? tab.url : 'no tab';
})();
)text";

constexpr const char* kContentScript = R"text(// Runs in every frame of the pages the extension may access, at document
// start: before the page is parsed, so wait for the document when you need it.

document.addEventListener('DOMContentLoaded', async () => {
  if (window.top !== window) return;
  console.log(await appex.runtime.sendMessage('background', 'greet', document.title));
});
)text";

constexpr const char* kClientTest = R"text(// Drives the extension through `appex run --control` (one JSON request per
// line on stdin, replies and events as JSON lines on stdout).
//
//   node --test test/            (APPEX_BIN: the appex program, default `appex`)

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join } from 'node:path';
import { createInterface } from 'node:readline';
import { after, before, test } from 'node:test';
import { fileURLToPath } from 'node:url';

const bundle = join(dirname(fileURLToPath(import.meta.url)), '..');
const data = mkdtempSync(join(tmpdir(), 'appex-test-'));
let host;

before(async () => {
  host = spawn(process.env.APPEX_BIN ?? 'appex', ['run', bundle, '--control', '--data-dir', data],
    { stdio: ['pipe', 'pipe', 'inherit'] });
  host.replies = new Map();
  host.nextId = 1;
  const ready = new Promise((resolve, reject) => {
    host.on('exit', (code) => reject(new Error(`appex exited (${code}) before it was ready`)));
    createInterface({ input: host.stdout }).on('line', (line) => {
      const message = JSON.parse(line);
      if (message.event === 'ready') resolve();
      host.replies.get(message.id)?.(message);
    });
  });
  await ready;
});

after(() => {
  host?.stdin.end();
  rmSync(data, { recursive: true, force: true });
});

// Sends {id, cmd, ...params}; resolves with the result, rejects with the error.
function call(cmd, params = {}) {
  const id = host.nextId++;
  return new Promise((resolve, reject) => {
    host.replies.set(id, (reply) => (reply.ok ? resolve(reply.result) : reject(new Error(reply.error))));
    host.stdin.write(JSON.stringify({ id, cmd, ...params }) + '\n');
  });
}

test('the background page greets', async () => {
  assert.equal(await call('eval', { in: 'background', code: "greeting('test')" }), 'Hello, test!');
});
)text";

std::string filled(std::string text, const std::string& name, const std::string& identifier) {
  for (auto [mark, value] : {std::pair<std::string, std::string>{"@NAME@", escapedForMarkup(name)},
                             std::pair<std::string, std::string>{"@ID@", escapedForMarkup(identifier)}}) {
    for (auto at = text.find(mark); at != std::string::npos; at = text.find(mark, at + value.size())) {
      text.replace(at, mark.size(), value);
    }
  }
  return text;
}

}  // namespace

std::vector<TemplateFile> bundleTemplate(const std::string& name, const std::string& identifier) {
  const std::string assets = "Contents/Resources/Assets/extension/";
  std::vector<TemplateFile> files = {
      {"Contents/Info.plist", kInfo},
      {assets + "safari_background.html", kBackgroundPage},
      {assets + "background.js", kBackgroundScript},
      {assets + "popup.html", kPopupPage},
      {assets + "popup.js", kPopupScript},
      {assets + "content.js", kContentScript},
      {"test/extension.test.mjs", kClientTest},
  };
  for (auto& file : files) file.text = filled(file.text, name, identifier);
  return files;
}

}  // namespace appex
