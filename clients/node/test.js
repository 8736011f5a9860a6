// A node:test fixture: one appex host per test file, started before the
// file's first test and ended after its last, whether the tests passed or
// not. A host that does not quit in time is killed with everything it
// started, and so is one still running when the test process exits.
// With APPEX_TRANSCRIPT_DIR set, the host's transcript (every line in and
// out, and its stderr) is written there at teardown, one file per host.
//
//   import { useAppex } from 'appex-client/test';
//   const appex = useAppex({ bundle: 'My.appex', serve: 'site' });
//   test('counts words', async () => { await appex.openTab('index.html'); … });

import { writeFileSync } from 'node:fs';
import { basename, join } from 'node:path';
import { after, before } from 'node:test';

import { launch } from './index.js';

const QUIT_GRACE_MS = 10_000;

export function useAppex(options = {}) {
  let host = null;
  before(async () => {
    host = await launch(typeof options === 'function' ? await options() : options);
    const current = host;
    process.once('exit', () => {
      try {
        process.kill(-current.pid, 'SIGKILL');
      } catch {
        // already gone
      }
    });
  });
  after(async () => {
    if (!host) return;
    const current = host;
    host = null;
    const timer = setTimeout(() => current.close(), QUIT_GRACE_MS);
    await current.quit();
    clearTimeout(timer);
    await current.close();
    const dir = process.env.APPEX_TRANSCRIPT_DIR;
    if (dir) {
      const name = `${basename(process.argv[1] ?? 'test')}-${current.pid}.log`;
      writeFileSync(join(dir, name), current.transcript.join('\n') + '\n');
    }
  });
  // The running host's methods and fields, bound to it.
  return new Proxy({}, {
    get(_, name) {
      if (!host) throw new Error(`appex is not running (reading "${String(name)}" outside a test)`);
      const value = Reflect.get(host, name);
      return typeof value === 'function' ? value.bind(host) : value;
    },
  });
}
