// Checks composed scripts in a JavaScript engine.
//
// The fuzz targets write every script they compose for a hosted page, the
// text onWebViewCall('<channel>', <argument>), to the folder named by
// APPEX_FUZZ_SCRIPTS as <hash>.js, with the value its argument must equal
// as <hash>.json. This evaluates each script in a fresh context whose only
// global is onWebViewCall and requires that:
//   * it runs without error and makes exactly one call, on "__default__",
//     with exactly one argument, deep-equal to the value;
//   * it holds no raw line terminator (LF, CR, U+2028, U+2029): engines
//     before ES2019 end a string literal at U+2028/U+2029, so a script that
//     is valid here could still fail in an older web view;
//   * unless the argument is a top-level string, it holds no "</script"
//     (any case) and no "</" at all, so it could also sit in a script
//     element.
// Bytes that are not UTF-8 are decoded with replacement characters, in the
// script and in the value alike, as a lenient decoder would.
//
// Usage: node fuzz/check_composed_scripts.mjs <folder>...
// Exit status 0 when every script passes, 1 otherwise (failures printed).
import fs from 'node:fs';
import path from 'node:path';
import util from 'node:util';
import vm from 'node:vm';

const CHANNEL = '__default__';
const MAX_REPORTS = 20;

// Values from another realm (the script's context) compare through JSON,
// which also makes -0 and 0 the same, as JSON text does.
const normalise = (value) => JSON.parse(JSON.stringify(value));

function check(script, expected) {
  for (const [name, ch] of [['LF', '\n'], ['CR', '\r'], ['U+2028', '\u2028'], ['U+2029', '\u2029']]) {
    if (script.includes(ch)) return `raw ${name} in the script`;
  }
  if (typeof expected !== 'string' && script.includes('</')) return '"</" outside a string argument';
  const calls = [];
  const context = vm.createContext({ onWebViewCall: (...args) => calls.push(args) });
  try {
    vm.runInContext(script, context, { timeout: 1000 });
  } catch (err) {
    return `does not run: ${err.message}`;
  }
  if (calls.length !== 1) return `${calls.length} calls instead of one`;
  const [args] = calls;
  if (args.length !== 2 || args[0] !== CHANNEL) return `called with ${args.length} arguments, channel ${args[0]}`;
  if (args[1] === undefined) return 'the argument is undefined';
  if (!util.isDeepStrictEqual(normalise(args[1]), normalise(expected))) {
    return `the argument differs: ${JSON.stringify(args[1]).slice(0, 200)}`;
  }
  return null;
}

const folders = process.argv.slice(2);
if (folders.length === 0) {
  console.error('usage: node fuzz/check_composed_scripts.mjs <folder>...');
  process.exit(2);
}
let checked = 0;
const failures = [];
for (const folder of folders) {
  for (const name of fs.readdirSync(folder)) {
    if (!name.endsWith('.js')) continue;
    const base = path.join(folder, name.slice(0, -3));
    const script = fs.readFileSync(`${base}.js`, 'utf8');
    let expected;
    try {
      expected = JSON.parse(fs.readFileSync(`${base}.json`, 'utf8'));
    } catch (err) {
      failures.push([base, `no readable expected value: ${err.message}`, script]);
      continue;
    }
    const problem = check(script, expected);
    checked++;
    if (problem) failures.push([base, problem, script]);
  }
}
for (const [base, problem, script] of failures.slice(0, MAX_REPORTS)) {
  console.log(`FAIL ${base}: ${problem}\n     ${JSON.stringify(script.slice(0, 300))}`);
}
console.log(`composed scripts: ${checked} checked, ${failures.length} failed`);
process.exit(failures.length ? 1 : 0);
