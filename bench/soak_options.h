// The soak harness's settings, read from its command line.
//
// Options is a plain value: parse() makes one and the harness keeps its own
// copy for the run.
//
// Thread-safe: read-only once parsed.
#pragma once

#include <cstddef>
#include <optional>
#include <random>

namespace appex::soak {

struct Options {
  std::size_t asks = 100000;
  std::size_t warmup = 0;  // 0: a tenth of the asks
  unsigned threads = 4;
  unsigned windows = 4;
  unsigned tabsPerWindow = 10;
  std::ptrdiff_t inFlight = 256;
  std::size_t closeEvery = 100;          // one tabs.remove per this many asks
  std::size_t browserCloseEvery = 4000;  // one tab closed by the browser per this many asks
  std::size_t storageKeys = 64;
  double maxGrowth = 5.0;  // growth of live objects beyond what grows by design, in percent
                           // of resident memory after the warm-up
  unsigned seed = std::random_device{}();
  std::size_t dropAnswers = 0;  // fault injection: pings the background page ignores
};

// Writes the command line's usage to stderr.
void usage(const char* program);

// The options `argv` asks for; nothing for an unknown option, a value that
// is missing or no non-negative number, or settings no run can go with
// (no threads, windows or tabs, no in-flight window, fewer than 100 asks).
// A warm-up of 0 or not below the asks becomes a tenth of the asks.
std::optional<Options> parse(int argc, char** argv);

}  // namespace appex::soak
