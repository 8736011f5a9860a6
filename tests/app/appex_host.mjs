// Drives `appex` as a child process for the end-to-end tests: the automation
// protocol over its stdin/stdout (requests with replies matched by id,
// events kept in arrival order), its stderr kept for assertions, and the
// processes it started, so a test can tell that none outlives it.
//
// The child runs in a process group of its own (its pid is the group id);
// the web processes and any Xvfb it starts land in it unless they leave it,
// so the tests also remember every descendant seen while it ran.

import { spawn, spawnSync } from 'node:child_process';
import { readFileSync, readdirSync } from 'node:fs';
import { createInterface } from 'node:readline';

export const appexBin = process.env.APPEX_BIN;
export const exampleBundle = process.env.APPEX_EXAMPLE;
export const exampleSite = process.env.APPEX_SITE;

// Runs `appex args...` to completion: {code, stdout, stderr}.
export function runAppex(args, options = {}) {
  const done = spawnSync(appexBin, args, { encoding: 'utf8', timeout: 60_000, ...options });
  return { code: done.status, signal: done.signal, stdout: done.stdout, stderr: done.stderr };
}

// {pid, ppid, pgid, comm} of every live process, from /proc.
export function processes() {
  const out = [];
  for (const name of readdirSync('/proc')) {
    if (!/^\d+$/.test(name)) continue;
    let stat;
    try {
      stat = readFileSync(`/proc/${name}/stat`, 'utf8');
    } catch {
      continue;  // gone meanwhile
    }
    // "pid (comm) state ppid pgrp ...": comm may hold spaces and parentheses.
    const close = stat.lastIndexOf(')');
    const fields = stat.slice(close + 2).split(' ');
    if (fields[0] === 'Z') continue;  // a zombie is dead already
    out.push({
      pid: Number(name),
      comm: stat.slice(stat.indexOf('(') + 1, close),
      ppid: Number(fields[1]),
      pgid: Number(fields[2]),
    });
  }
  return out;
}

// The live descendants of `pid`.
export function descendants(pid) {
  const all = processes();
  const found = [];
  let frontier = [pid];
  while (frontier.length) {
    const children = all.filter((p) => frontier.includes(p.ppid));
    found.push(...children);
    frontier = children.map((p) => p.pid);
  }
  return found;
}

// The names of every event any host has sent in this process.
export const eventsSeen = new Set();

const delay = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

export class Host {
  // Starts `appex args...`; `env` replaces the environment when given.
  constructor(args, { env, cwd } = {}) {
    this.child = spawn(appexBin, args, {
      env: env ?? process.env,
      cwd,
      detached: true,  // a process group of its own
      stdio: ['pipe', 'pipe', 'pipe'],
    });
    this.pid = this.child.pid;
    this.events = [];
    this.lines = [];  // every stdout line, parsed
    this.stderr = '';
    this.seen = new Map();  // pid -> comm of every descendant observed
    this.nextId = 1;
    this.pending = new Map();  // id -> resolve
    this.anonymous = [];  // resolvers of replies with a null id, in order
    this.waiters = new Set();  // event waiters: {match, resolve}
    this.badLines = [];

    this.child.stderr.setEncoding('utf8');
    this.child.stderr.on('data', (chunk) => { this.stderr += chunk; });
    createInterface({ input: this.child.stdout }).on('line', (line) => this.#onLine(line));
    this.exited = new Promise((resolve) => {
      this.child.on('exit', (code, signal) => resolve({ code, signal }));
    });
    this.watch = setInterval(() => this.#recordDescendants(), 250);
    this.exited.then(() => clearInterval(this.watch));
  }

  #recordDescendants() {
    for (const p of descendants(this.pid)) this.seen.set(p.pid, p.comm);
  }

  #onLine(line) {
    let message;
    try {
      message = JSON.parse(line);
    } catch {
      this.badLines.push(line);
      return;
    }
    this.lines.push(message);
    if ('event' in message) {
      this.events.push(message);
      eventsSeen.add(message.event);
      for (const waiter of this.waiters) {
        if (waiter.match(message)) {
          this.waiters.delete(waiter);
          waiter.resolve(message);
        }
      }
      return;
    }
    if (message.id === null) {
      this.anonymous.shift()?.(message);
      return;
    }
    const resolve = this.pending.get(message.id);
    if (resolve) {
      this.pending.delete(message.id);
      resolve(message);
    }
  }

  // Sends {id, cmd, ...params}; resolves with the whole reply.
  request(cmd, params = {}, timeoutMs = 30_000) {
    const id = this.nextId++;
    const reply = new Promise((resolve, reject) => {
      this.pending.set(id, resolve);
      setTimeout(() => {
        if (this.pending.delete(id)) reject(new Error(`no reply to ${cmd} within ${timeoutMs} ms`));
      }, timeoutMs).unref();
    });
    this.child.stdin.write(JSON.stringify({ id, cmd, ...params }) + '\n');
    return reply;
  }

  // The result of a request that must succeed.
  async call(cmd, params = {}, timeoutMs) {
    const reply = await this.request(cmd, params, timeoutMs);
    if (!reply.ok) throw new Error(`${cmd} failed: ${reply.error}`);
    return reply.result;
  }

  // The error text of a request that must fail.
  async failure(cmd, params = {}) {
    const reply = await this.request(cmd, params);
    if (reply.ok) throw new Error(`${cmd} ${JSON.stringify(params)} succeeded: ${JSON.stringify(reply.result)}`);
    return reply.error;
  }

  // Writes a raw line; resolves with its reply, which carries `id` (null:
  // the line has none the host could read).
  sendRaw(line, id = null, timeoutMs = 10_000) {
    const reply = new Promise((resolve, reject) => {
      if (id === null) {
        this.anonymous.push(resolve);
      } else {
        this.pending.set(id, resolve);
      }
      setTimeout(() => reject(new Error(`no reply to ${JSON.stringify(line)}`)), timeoutMs).unref();
    });
    this.child.stdin.write(line + '\n');
    return reply;
  }

  // Where the events received so far end: pass it as `since` to wait only
  // for later ones.
  mark() { return this.events.length; }

  // The first event from index `since` on (already received or still to
  // come) that `match` accepts.
  waitEvent(match, { timeoutMs = 20_000, what = 'an event', since = 0 } = {}) {
    const seen = this.events.slice(since).find(match);
    if (seen) return Promise.resolve(seen);
    return new Promise((resolve, reject) => {
      const waiter = { match, resolve };
      this.waiters.add(waiter);
      setTimeout(() => {
        if (this.waiters.delete(waiter)) {
          reject(new Error(`no ${what} within ${timeoutMs} ms; events: ${JSON.stringify(this.events.slice(-15))}`));
        }
      }, timeoutMs).unref();
    });
  }

  // An event named `name` whose fields include `fields`.
  waitFor(name, fields = {}, { timeoutMs, since } = {}) {
    const match = (e) => e.event === name && Object.entries(fields).every(([k, v]) => e[k] === v);
    return this.waitEvent(match, { timeoutMs, since, what: `${name} ${JSON.stringify(fields)}` });
  }

  // Polls `probe` until it returns a truthy value.
  async until(probe, timeoutMs = 10_000, what = 'a condition') {
    const end = Date.now() + timeoutMs;
    for (;;) {
      const value = await probe();
      if (value) return value;
      if (Date.now() > end) throw new Error(`timed out waiting for ${what}`);
      await delay(100);
    }
  }

  closeInput() { this.child.stdin.end(); }

  // Waits for the exit; kills the group if it takes longer than `ms`.
  async exit(ms = 20_000) {
    const timer = setTimeout(() => this.kill(), ms);
    const result = await this.exited;
    clearTimeout(timer);
    return result;
  }

  kill() {
    try {
      process.kill(-this.pid, 'SIGKILL');
    } catch {
      // already gone
    }
  }

  // What is still alive of the processes this host started (its group and
  // every descendant seen), after a short grace period for them to go.
  async leftovers(graceMs = 5_000) {
    const end = Date.now() + graceMs;
    for (;;) {
      const alive = processes().filter((p) => p.pgid === this.pid || this.seen.has(p.pid));
      if (!alive.length || Date.now() > end) return alive;
      await delay(100);
    }
  }
}
