// RatioReporter: a Google Benchmark reporter that, after the usual console
// output, prints one table row per measured case beside the baseline
// measured in the same run, as a ratio (case time / baseline time).
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace appex::bench {

struct Comparison {
  std::string label;     // what the row says
  std::string subject;   // benchmark run name
  std::string baseline;  // benchmark run name
  double target = 0;     // ratio to stay under; 0 when there is none
};

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  explicit RatioReporter(std::vector<Comparison> rows) : rows_(std::move(rows)) {}
  void ReportRuns(const std::vector<Run>& runs) override;
  // Prints the table; returns false if a target was missed.
  bool PrintTable(std::ostream& out) const;
  // The measured time per iteration of a run, in ns; 0 when it did not run.
  double nsPerOp(const std::string& name) const;

 private:
  std::vector<Comparison> rows_;
  std::map<std::string, double> nsPerOp_;
};

}  // namespace appex::bench
