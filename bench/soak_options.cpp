// Reads the soak harness's command line into Options.
#include "bench/soak_options.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <type_traits>

namespace appex::soak {

void usage(const char* program) {
  std::fprintf(stderr,
               "usage: %s [--asks N] [--quick] [--threads N] [--warmup N] [--windows N] [--tabs-per-window N]\n"
               "          [--in-flight N] [--close-every N] [--browser-close-every N] [--max-growth PERCENT]\n"
               "          [--seed N] [--drop-answers N]\n"
               "  --quick           5000 asks (for CI)\n"
               "  --drop-answers N  the background page ignores N pings after the warm-up: the run must fail\n",
               program);
}

std::optional<Options> parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&]() -> std::optional<std::string> {
      if (i + 1 >= argc) return std::nullopt;
      return std::string(argv[++i]);
    };
    auto number = [&](auto& out) {
      auto v = value();
      if (!v) return false;
      char* endp = nullptr;
      const double d = std::strtod(v->c_str(), &endp);
      if (*endp != '\0' || d < 0) return false;
      out = static_cast<std::remove_reference_t<decltype(out)>>(d);
      return true;
    };
    bool ok = true;
    if (a == "--quick")
      o.asks = 5000;
    else if (a == "--asks")
      ok = number(o.asks);
    else if (a == "--warmup")
      ok = number(o.warmup);
    else if (a == "--threads")
      ok = number(o.threads);
    else if (a == "--windows")
      ok = number(o.windows);
    else if (a == "--tabs-per-window")
      ok = number(o.tabsPerWindow);
    else if (a == "--in-flight")
      ok = number(o.inFlight);
    else if (a == "--close-every")
      ok = number(o.closeEvery);
    else if (a == "--browser-close-every")
      ok = number(o.browserCloseEvery);
    else if (a == "--max-growth")
      ok = number(o.maxGrowth);
    else if (a == "--seed")
      ok = number(o.seed);
    else if (a == "--drop-answers")
      ok = number(o.dropAnswers);
    else
      ok = false;
    if (!ok) return std::nullopt;
  }
  if (o.warmup == 0 || o.warmup >= o.asks) o.warmup = o.asks / 10;
  if (o.threads == 0 || o.windows == 0 || o.tabsPerWindow == 0 || o.inFlight <= 0 || o.asks < 100) return std::nullopt;
  return o;
}

}  // namespace appex::soak
