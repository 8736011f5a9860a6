// LatencySamples: the round-trip times of one case of a WebKit benchmark
// and the percentiles and throughput they come to; measure(), which fills
// them by running the case's requests on the engine's main loop; and the
// results table the bridge and router benchmarks print them in.
//
// A LatencySamples is a plain value owned by the case it measures; measure()
// only appends to it.
//
// Main queue only: measure() turns the engine's main loop, on which every
// request's completion must come.
#pragma once

#include <functional>
#include <initializer_list>
#include <vector>

namespace appex::webkit {
class Engine;
}

namespace appex::bench {

// Starts request `id`; `done` must be called once, on the main thread,
// when its answer is back.
using Issue = std::function<void(int id, std::function<void()> done)>;

struct LatencySamples {
  std::vector<double> micros;  // per request
  double seconds = 0;          // wall time of all runs
  int requests = 0;

  // The sample at rank `p` (0..1) of the sorted samples, rounded to the
  // nearest rank. REQUIRES: at least one sample.
  double percentile(double p) const;
  // Requests per second over all runs. REQUIRES: a run was added.
  double throughput() const { return requests / seconds; }
};

// Runs `total` requests keeping `inFlight` outstanding; adds their times to
// `samples` unless it is null (a warm-up). False if they were not all
// answered within two minutes.
bool measure(webkit::Engine& engine, const Issue& issue, int total, int inFlight, LatencySamples* samples);

// One case of the results table: its name and what it measured run
// sequentially and with many asks in flight.
struct LatencyRow {
  const char* name;
  const LatencySamples& sequential;
  const LatencySamples& parallel;
};

// Prints the results table to stdout: a header line, then p50, p99
// (microseconds) and throughput of every case of `cases` run sequentially,
// of the same with `inFlight` asks in flight, and then, under "breakdown:",
// the same two blocks for the `breakdown` cases, indented. The labels
// ("<name>, sequential", "<name>, <inFlight> in flight") fill a column
// `labelWidth` characters wide.
void printLatencyTable(int labelWidth, int inFlight, std::initializer_list<LatencyRow> cases,
                       std::initializer_list<LatencyRow> breakdown);

// A goal row: `ratio` (a case's figure over the baseline's, both from this
// run) beside its goal, which it must stay at or under (`atMost`) or at or
// over; says MISSED otherwise. Returns whether the goal was met.
bool printGoal(const char* label, double ratio, double goal, bool atMost);

}  // namespace appex::bench
