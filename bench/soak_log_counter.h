// LogCounter: counts the lines the system writes instead of printing them.
// The refusal lines ("Exit 1" ... "M Exit 3") are part of what the soak
// harness checks; tab-event lines and the rest are only counted.
//
// While it lives it is the process's log sink; it puts the sink it replaced
// back when destroyed.
//
// Thread-safe: lines may be written from any thread while counts are read.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string_view>

#include "core/log.h"

namespace appex::soak {

class LogCounter {
 public:
  // Neither copied nor moved (its counters are atomics): the sink it
  // installs holds `this`.
  LogCounter();
  ~LogCounter();

  // How often the refusal line `text` was written; 0 for a line not tracked.
  std::uint64_t lines(std::string_view text) const;
  // Lines starting "tab event: ".
  std::uint64_t tabEvents() const { return tabEvents_.load(); }
  // Every other line.
  std::uint64_t other() const { return other_.load(); }

 private:
  static constexpr std::array<std::string_view, 7> kTracked{"Exit 1",   "Exit 2",   "Exit 3",  "Exit 4",
                                                            "M Exit 1", "M Exit 2", "M Exit 3"};

  void count(std::string_view line);

  std::array<std::atomic<std::uint64_t>, kTracked.size()> tracked_{};
  std::atomic<std::uint64_t> tabEvents_{0};
  std::atomic<std::uint64_t> other_{0};
  LogSink previous_;
};

}  // namespace appex::soak
