#include "core/log.h"

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

namespace appex {
namespace {

std::mutex& sinkMutex() {
  static auto* m = new std::mutex();
  return *m;
}

std::shared_ptr<LogSink>& currentSink() {
  static auto* s = new std::shared_ptr<LogSink>();
  return *s;
}

void write(LogDestination where, std::string_view text) {
  std::shared_ptr<LogSink> sink;
  {
    std::lock_guard lock(sinkMutex());
    sink = currentSink();
  }
  if (sink && *sink) {
    (*sink)(where, text);
    return;
  }
  std::string line(text);
  line.push_back('\n');
  std::FILE* out = where == LogDestination::systemLog ? stderr : stdout;
  std::fwrite(line.data(), 1, line.size(), out);
  std::fflush(out);
}

}  // namespace

void logLine(std::string_view text) { write(LogDestination::systemLog, text); }
void printLine(std::string_view text) { write(LogDestination::standardOutput, text); }

LogSink setLogSink(LogSink sink) {
  std::lock_guard lock(sinkMutex());
  std::shared_ptr<LogSink> old = currentSink();
  currentSink() = sink ? std::make_shared<LogSink>(std::move(sink)) : nullptr;
  return old ? *old : LogSink{};
}

}  // namespace appex
