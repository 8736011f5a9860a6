// Load and soak of the message router: the whole extension on the
// simulated browser, under many pages, the background page, tab events,
// storage changes and tab closings at once (bench/soak_harness.h says what
// is run and checked). Run with --help for the options.
//
// Exit status: 0 when every check holds, 1 otherwise, 2 for bad usage.
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "bench/soak_harness.h"
#include "bench/soak_options.h"

int main(int argc, char** argv) {
  auto options = appex::soak::parse(argc, argv);
  if (!options) {
    appex::soak::usage(argv[0]);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  auto harness = std::make_unique<appex::soak::Harness>(*options);
  const int status = harness->run();
  harness->removeFiles();
  std::fflush(stdout);
  // Workers of the shared pool may still hold the system's objects; leave
  // without tearing the world down under them.
  std::_Exit(status);
}
