#include "core/label_dispatch.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace appex {

std::string LabelDispatch::nextLabel() {
  static std::atomic<std::int64_t> counter{0};
  std::int64_t n = counter.load();
  do {
    if (n == std::numeric_limits<std::int64_t>::max()) {
      std::fputs("LabelDispatch: queue label counter overflow\n", stderr);
      std::abort();
    }
  } while (!counter.compare_exchange_weak(n, n + 1));
  return "com.threading.dispatchqueue_" + std::to_string(n);
}

}  // namespace appex
