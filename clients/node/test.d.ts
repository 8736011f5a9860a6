// Types of the node:test fixture (test.js).
import type { Appex, LaunchOptions } from './index.js';

/** One host per test file: started before its first test, ended after its last. */
export function useAppex(options?: LaunchOptions | (() => LaunchOptions | Promise<LaunchOptions>)): Appex;
