#include "bench/latency_stats.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>

#include "platform/webkit/engine.h"

namespace appex::bench {

using Clock = std::chrono::steady_clock;

double LatencySamples::percentile(double p) const {
  std::vector<double> sorted = micros;
  std::sort(sorted.begin(), sorted.end());
  const auto at = static_cast<std::size_t>(p * static_cast<double>(sorted.size() - 1) + 0.5);
  return sorted[at];
}

bool measure(webkit::Engine& engine, const Issue& issue, int total, int inFlight, LatencySamples* samples) {
  std::vector<Clock::time_point> started(total);
  int issued = 0;
  int completed = 0;
  std::function<void()> next = [&] {
    const int id = issued++;
    started[id] = Clock::now();
    issue(id, [&, id] {
      if (samples) {
        samples->micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - started[id]).count());
      }
      ++completed;
      if (issued < total) next();
    });
  };
  const auto begin = Clock::now();
  for (int i = 0; i < inFlight && issued < total; ++i) next();
  const bool ok = engine.runUntil([&] { return completed == total; }, std::chrono::seconds(120));
  if (samples) {
    samples->seconds += std::chrono::duration<double>(Clock::now() - begin).count();
    samples->requests += total;
  }
  return ok;
}

namespace {

void printRow(int labelWidth, const std::string& label, const LatencySamples& s) {
  std::printf("%-*s %9.1f %9.1f %9.0f\n", labelWidth, label.c_str(), s.percentile(0.50), s.percentile(0.99),
              s.throughput());
}

// The sequential rows of `block`, then its rows with `inFlight` in flight.
void printBlock(int labelWidth, int inFlight, std::initializer_list<LatencyRow> block, const std::string& indent) {
  for (const LatencyRow& c : block) printRow(labelWidth, indent + c.name + ", sequential", c.sequential);
  const std::string parallel = ", " + std::to_string(inFlight) + " in flight";
  for (const LatencyRow& c : block) printRow(labelWidth, indent + c.name + parallel, c.parallel);
}

}  // namespace

void printLatencyTable(int labelWidth, int inFlight, std::initializer_list<LatencyRow> cases,
                       std::initializer_list<LatencyRow> breakdown) {
  std::printf("%-*s %9s %9s %9s\n", labelWidth, "case", "p50 us", "p99 us", "asks/s");
  printBlock(labelWidth, inFlight, cases, "");
  std::printf("breakdown:\n");
  printBlock(labelWidth, inFlight, breakdown, "  ");
}

bool printGoal(const char* label, double ratio, double goal, bool atMost) {
  const bool met = atMost ? ratio <= goal : ratio >= goal;
  std::printf("%-50s %5.2fx  (goal %s %.2fx)%s\n", label, ratio, atMost ? "<=" : ">=", goal,
              met ? "" : "  MISSED");
  return met;
}

}  // namespace appex::bench
