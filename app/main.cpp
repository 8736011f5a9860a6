// appex: run and check extension bundles headless on WebKit.
//
//   appex run [BUNDLE] [options]   run the extension (default: the example)
//   appex check BUNDLE [--strict]  validate a bundle and print what it declares
//   appex init DIR                 write a new bundle to start from
//
// Exit codes: 0 success; 1 the run failed; 2 bad command line; 3 bad
// bundle; 4 no display could be had.
#include <iostream>
#include <string>
#include <vector>

#include "app/check_command.h"
#include "app/exit_codes.h"
#include "app/init_command.h"
#include "app/run_command.h"

namespace {

const char* kUsage =
    "usage: appex <command> [options]\n"
    "\n"
    "commands:\n"
    "  run [BUNDLE]    run an extension bundle on WebKit (default: the bundled example)\n"
    "  check BUNDLE    validate a bundle and print what it declares (--strict: warnings fail)\n"
    "  init DIR        write a new extension bundle into DIR, with a test that runs it\n"
    "\n"
    "'appex <command> --help' describes a command's options.\n"
    "exit codes: 0 ok, 1 run failed, 2 bad command line, 3 bad bundle, 4 no display\n";

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
    (args.empty() ? std::cerr : std::cout) << kUsage;
    return args.empty() ? appex::kExitUsage : appex::kExitOk;
  }
  const std::string command = args[0];
  args.erase(args.begin());
  if (command == "check") return appex::checkCommand(args);
  if (command == "run") return appex::runCommand(args);
  if (command == "init") return appex::initCommand(args);
  std::cerr << "appex: unknown command '" << command << "'\n\n" << kUsage;
  return appex::kExitUsage;
}
