// Captures every line written through the log sink while alive, with where
// it was sent, and puts the previous sink back when destroyed. Safe to read
// while other threads are still logging.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/log.h"

namespace appex::testing {

class LogCapture {
 public:
  using Entry = std::pair<LogDestination, std::string>;

  LogCapture() {
    previous_ = setLogSink([this](LogDestination where, std::string_view line) {
      std::lock_guard lock(mutex_);
      entries_.emplace_back(where, std::string(line));
    });
  }
  ~LogCapture() { setLogSink(std::move(previous_)); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The lines' text, in order, whatever their destination.
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    for (const auto& entry : entries_) out.push_back(entry.second);
    return out;
  }
  std::vector<Entry> entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
  }
  int count(const std::string& line) const {
    std::lock_guard lock(mutex_);
    int n = 0;
    for (const auto& entry : entries_) n += entry.second == line;
    return n;
  }
  int count(LogDestination where, const std::string& line) const {
    std::lock_guard lock(mutex_);
    int n = 0;
    for (const auto& entry : entries_) n += entry == Entry{where, line};
    return n;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
  LogSink previous_;
};

}  // namespace appex::testing
