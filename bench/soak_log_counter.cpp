#include "bench/soak_log_counter.h"

#include <utility>

namespace appex::soak {

LogCounter::LogCounter() {
  previous_ = setLogSink([this](LogDestination, std::string_view line) { count(line); });
}

LogCounter::~LogCounter() { setLogSink(std::move(previous_)); }

std::uint64_t LogCounter::lines(std::string_view text) const {
  for (std::size_t i = 0; i < kTracked.size(); ++i) {
    if (kTracked[i] == text) return tracked_[i].load();
  }
  return 0;
}

void LogCounter::count(std::string_view line) {
  for (std::size_t i = 0; i < kTracked.size(); ++i) {
    if (kTracked[i] == line) {
      tracked_[i].fetch_add(1, std::memory_order_relaxed);
      return;
    }
  }
  (line.starts_with("tab event: ") ? tabEvents_ : other_).fetch_add(1, std::memory_order_relaxed);
}

}  // namespace appex::soak
