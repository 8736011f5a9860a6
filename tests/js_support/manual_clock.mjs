// A manual clock for script tests: stands in for setTimeout/clearTimeout and
// Date.now, so a test decides exactly when time passes and which timers run.
//
// Time starts at 0 and moves only on tick(ms). Timers due within a tick run
// earliest first (ties in the order they were set), each seeing `now` at its
// own due time, and a timer set by a running timer still runs if it falls
// due within the same tick. A missing delay means 0, as in a browser.

export function createClock() {
  let now = 0;
  let nextId = 1;
  const timers = new Map();
  return {
    setTimeout(fn, ms = 0) {
      const id = nextId++;
      timers.set(id, { fn, at: now + ms });
      return id;
    },
    clearTimeout(id) {
      timers.delete(id);
    },
    // Runs every timer due within `ms`, earliest first.
    tick(ms) {
      const end = now + ms;
      for (;;) {
        let due = null;
        for (const [id, t] of timers) {
          if (t.at <= end && (due === null || t.at < due[1].at)) due = [id, t];
        }
        if (due === null) break;
        timers.delete(due[0]);
        now = due[1].at;
        due[1].fn();
      }
      now = end;
    },
    // How many timers are set and have not run or been cleared.
    get pending() {
      return timers.size;
    },
    // A `Date` whose now() reads this clock, for scripts that take one.
    Date: { now: () => now },
  };
}
