// A promise client for `appex run --control`: starts the host as a child
// process, sends one JSON request per line and matches replies by id, keeps
// every event in arrival order, and offers waits on the events a test of an
// extension needs (a page load, a badge, a console line).
//
// No dependencies beyond Node. Every request settles exactly once: with the
// result, with an AppexError carrying the host's error text, or with an
// AppexError when the host exits before answering.

import { spawn } from 'node:child_process';
import { createInterface } from 'node:readline';

// A failed command or wait. `command` names the request or wait, `reply`
// is the host's reply when there was one.
export class AppexError extends Error {
  constructor(message, { command, reply } = {}) {
    super(message);
    this.name = 'AppexError';
    this.command = command;
    this.reply = reply;
  }
}

const DEFAULT_TIMEOUT_MS = 30_000;

function matches(event, fields) {
  return Object.entries(fields).every(([key, value]) => event[key] === value);
}

export class Appex {
  // Prefer `launch()`, which also waits for the host to be ready.
  constructor({ bundle, serve, open = [], dataDir, args = [], appex, env, cwd } = {}) {
    const argv = ['run'];
    if (bundle) argv.push(bundle);
    argv.push('--control');
    if (serve) argv.push('--serve', serve);
    for (const url of [].concat(open)) argv.push('--open', url);
    if (dataDir) argv.push('--data-dir', dataDir);
    argv.push(...args);
    this.bin = appex ?? process.env.APPEX_BIN ?? 'appex';
    this.child = spawn(this.bin, argv, {
      env: env ?? process.env,
      cwd,
      detached: true,  // a process group of its own: close() ends it whole
      stdio: ['pipe', 'pipe', 'pipe'],
    });
    this.pid = this.child.pid;
    this.events = [];
    this.stderr = '';
    this.transcript = [];  // every line in and out: '> request', '< reply or event', '! stderr'
    this.ready = null;  // the ready event, once it came
    this.nextId = 1;
    this.pending = new Map();  // id -> {resolve, reject, cmd}
    this.waiters = new Set();  // {match, resolve}
    this.child.stdin.on('error', () => {});  // a host that exited closes it
    this.child.stderr.setEncoding('utf8');
    this.child.stderr.on('data', (chunk) => {
      this.stderr += chunk;
      this.transcript.push(`! ${chunk.replace(/\n$/, '')}`);
    });
    createInterface({ input: this.child.stdout }).on('line', (line) => this.#onLine(line));
    this.exited = new Promise((resolve) => {
      this.child.on('exit', (code, signal) => {
        const why = `appex exited (${signal ?? code}) before answering`;
        for (const [, request] of this.pending) {
          request.reject(new AppexError(`${request.cmd}: ${why}`, { command: request.cmd }));
        }
        this.pending.clear();
        resolve({ code, signal });
      });
    });
  }

  #onLine(line) {
    this.transcript.push(`< ${line}`);
    let message;
    try {
      message = JSON.parse(line);
    } catch {
      return;  // not protocol output
    }
    if (message === null || typeof message !== 'object') return;
    if ('event' in message) {
      if (message.event === 'ready') this.ready = message;
      this.events.push(message);
      for (const waiter of this.waiters) {
        if (waiter.match(message)) {
          this.waiters.delete(waiter);
          waiter.resolve(message);
        }
      }
      return;
    }
    const request = this.pending.get(message.id);
    if (!request) return;
    this.pending.delete(message.id);
    if (message.ok) {
      request.resolve(message.result);
    } else {
      request.reject(new AppexError(`${request.cmd}: ${message.error}`, { command: request.cmd, reply: message }));
    }
  }

  // Sends {id, cmd, ...params}; resolves with the result, rejects with an
  // AppexError carrying the host's error text.
  request(cmd, params = {}) {
    const id = this.nextId++;
    return new Promise((resolve, reject) => {
      if (this.child.exitCode !== null || this.child.signalCode !== null) {
        reject(new AppexError(`${cmd}: appex is not running`, { command: cmd }));
        return;
      }
      this.pending.set(id, { resolve, reject, cmd });
      const line = JSON.stringify({ ...params, id, cmd });
      this.transcript.push(`> ${line}`);
      this.child.stdin.write(line + '\n');
    });
  }

  // Tabs and windows, named by host handles ("t1", "w1").
  openTab(url, options = {}) { return this.request('openTab', { ...options, url }); }
  openWindow(url, options = {}) { return this.request('openWindow', { ...options, url }); }
  navigate(tab, url, options = {}) { return this.request('navigate', { ...options, tab, url }); }
  activateTab(tab) { return this.request('activateTab', { tab }); }
  closeTab(tab) { return this.request('closeTab', { tab }); }
  closeWindow(window) { return this.request('closeWindow', { window }); }
  listTabs() { return this.request('listTabs'); }

  // Evaluates `code` in the background page (default), the popup
  // ({in: "popup"}) or a tab ({in: "tab", tab, world: "content"|"page"});
  // a promise is awaited.
  eval(code, options = {}) { return this.request('eval', { in: 'background', ...options, code }); }
  evalInTab(tab, code, options = {}) { return this.eval(code, { ...options, in: 'tab', tab }); }

  // The toolbar button and its popover.
  clickToolbar(options = {}) { return this.request('clickToolbar', options); }
  closePopover() { return this.request('closePopover'); }
  toolbar(options = {}) { return this.request('toolbar', options); }
  popover() { return this.request('popover'); }
  snapshot(of, path, options = {}) { return this.request('snapshot', { ...options, of, path }); }
  defaults() { return this.request('defaults'); }

  // Ends the run; resolves with the exit {code, signal}.
  async quit() {
    await this.request('quit').catch(() => {});
    return this.exited;
  }

  // The first event named `name` (already received or still to come) for
  // which `predicate` holds; `predicate` may also be an object of fields
  // the event must carry.
  waitForEvent(name, predicate = () => true, timeout = DEFAULT_TIMEOUT_MS, { since = 0 } = {}) {
    const test = typeof predicate === 'function' ? predicate : (e) => matches(e, predicate);
    const match = (e) => e.event === name && test(e);
    const seen = this.events.slice(since).find(match);
    if (seen) return Promise.resolve(seen);
    return new Promise((resolve, reject) => {
      const waiter = { match, resolve };
      this.waiters.add(waiter);
      const timer = setTimeout(() => {
        if (!this.waiters.delete(waiter)) return;
        const recent = JSON.stringify(this.events.slice(-10));
        reject(new AppexError(`no "${name}" event within ${timeout} ms; last events: ${recent}`,
                              { command: 'waitForEvent' }));
      }, timeout);
      timer.unref?.();
      this.exited.then(() => {
        if (!this.waiters.delete(waiter)) return;
        clearTimeout(timer);
        reject(new AppexError(`appex exited while waiting for "${name}"`, { command: 'waitForEvent' }));
      });
    });
  }

  // Where the events received so far end: pass it as `since` to wait only
  // for later ones.
  mark() { return this.events.length; }

  // The toolbar shows `text` as its badge: in `window`, or in the window of
  // `tab` while that tab is the active one (the toolbar shows the active
  // tab's badge).
  async waitForBadge(text, { tab, window, timeout = DEFAULT_TIMEOUT_MS } = {}) {
    let windowHandle = window;
    if (tab && !windowHandle) {
      const entry = (await this.listTabs()).find((t) => t.tab === tab);
      if (!entry) throw new AppexError(`waitForBadge: no tab ${tab}`, { command: 'waitForBadge' });
      windowHandle = entry.window;
    }
    return this.waitForEvent('toolbar',
      (e) => e.badgeText === text && (!windowHandle || e.window === windowHandle), timeout);
  }

  // A console line whose text matches `re` (a RegExp or a substring), from
  // any part of the extension, or from `source` ("background", "popup",
  // "tab") when given.
  waitForConsole(re, { source, tab, timeout = DEFAULT_TIMEOUT_MS } = {}) {
    const test = typeof re === 'string' ? (text) => text.includes(re) : (text) => re.test(text);
    return this.waitForEvent('console',
      (e) => test(String(e.text)) && (!source || e.source === source) && (!tab || e.tab === tab), timeout);
  }

  // The tab has finished loading its page ("tabLoaded"); rejects when the
  // load failed ("loadFailed").
  waitForLoad(tab, { timeout = DEFAULT_TIMEOUT_MS, since = 0 } = {}) {
    const failed = this.waitForEvent('loadFailed', { tab }, timeout, { since });
    const loaded = this.waitForEvent('tabLoaded', { tab }, timeout, { since });
    failed.catch(() => {});
    return Promise.race([
      loaded,
      failed.then((e) => {
        throw new AppexError(`tab ${tab} failed to load ${e.url}: ${e.error}`, { command: 'waitForLoad' });
      }),
    ]);
  }

  // Ends the host and everything it started, at once. Safe to call twice.
  async close() {
    if (this.child.exitCode === null && this.child.signalCode === null) {
      try {
        process.kill(-this.pid, 'SIGKILL');
      } catch {
        // already gone
      }
    }
    return this.exited;
  }
}

// Starts `appex run --control` and resolves once it is ready (the "ready"
// event); rejects, and ends the host, when it exits or times out first.
export async function launch(options = {}) {
  const host = new Appex(options);
  const timeout = options.timeout ?? DEFAULT_TIMEOUT_MS;
  try {
    await Promise.race([
      host.waitForEvent('ready', () => true, timeout),
      host.exited.then(({ code, signal }) => {
        throw new AppexError(`appex exited (${signal ?? code}) before it was ready: ${host.stderr.trim()}`,
                             { command: 'launch' });
      }),
    ]);
  } catch (error) {
    await host.close();
    throw error;
  }
  return host;
}
