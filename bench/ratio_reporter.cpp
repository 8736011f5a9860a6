#include "bench/ratio_reporter.h"

#include <cstdio>
#include <iomanip>
#include <ostream>

namespace appex::bench {

void RatioReporter::ReportRuns(const std::vector<Run>& runs) {
  for (const auto& run : runs) {
    if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
    nsPerOp_[run.benchmark_name()] = run.GetAdjustedRealTime();
  }
  ConsoleReporter::ReportRuns(runs);
}

double RatioReporter::nsPerOp(const std::string& name) const {
  auto found = nsPerOp_.find(name);
  return found == nsPerOp_.end() ? 0 : found->second;
}

bool RatioReporter::PrintTable(std::ostream& out) const {
  bool ok = true;
  out << "\n" << std::left << std::setw(52) << "case" << std::right << std::setw(12) << "ns/op"
      << std::setw(14) << "baseline ns" << std::setw(9) << "ratio" << std::setw(9) << "target"
      << "\n";
  for (const auto& row : rows_) {
    auto s = nsPerOp_.find(row.subject);
    auto b = nsPerOp_.find(row.baseline);
    if (s == nsPerOp_.end() || b == nsPerOp_.end()) continue;
    const double ratio = s->second / b->second;
    out << std::left << std::setw(52) << row.label << std::right << std::fixed
        << std::setprecision(1) << std::setw(12) << s->second << std::setw(14) << b->second
        << std::setprecision(2) << std::setw(8) << ratio << "x";
    if (row.target > 0) {
      out << std::setw(7) << "<" << row.target << "x" << (ratio <= row.target ? "" : "  MISSED");
      if (ratio > row.target) ok = false;
    }
    out << "\n";
  }
  out << "(ratio = case / baseline, both measured in this run)\n";
  return ok;
}

}  // namespace appex::bench
