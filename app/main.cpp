// appex: run and check extension bundles headless on WebKit.
//
//   appex run [BUNDLE] [options]   run the extension (default: the example)
//   appex check BUNDLE             validate a bundle and print what it declares
//
// Exit codes: 0 success; 1 the run failed; 2 bad command line; 3 bad
// bundle; 4 no display could be had.
#include <boost/program_options.hpp>

#include <iostream>
#include <string>
#include <vector>

#include "app/bundle_check.h"
#include "app/exit_codes.h"
#include "app/run_command.h"

namespace po = boost::program_options;

namespace {

const char* kUsage =
    "usage: appex <command> [options]\n"
    "\n"
    "commands:\n"
    "  run [BUNDLE]    run an extension bundle on WebKit (default: the bundled example)\n"
    "  check BUNDLE    validate a bundle and print what it declares\n"
    "\n"
    "'appex <command> --help' describes a command's options.\n"
    "exit codes: 0 ok, 1 run failed, 2 bad command line, 3 bad bundle, 4 no display\n";

int check(const std::vector<std::string>& args) {
  po::options_description options("appex check BUNDLE");
  options.add_options()("help,h", "show this help");
  po::options_description hidden;
  hidden.add_options()("bundle", po::value<std::string>(), "bundle folder");
  po::options_description all;
  all.add(options).add(hidden);
  po::positional_options_description positional;
  positional.add("bundle", 1);
  po::variables_map vm;
  try {
    po::store(po::command_line_parser(args).options(all).positional(positional).run(), vm);
  } catch (const po::error& e) {
    std::cerr << "appex check: " << e.what() << "\n" << options;
    return appex::kExitUsage;
  }
  if (vm.count("help")) {
    std::cout << options
              << "\nValidates the bundle (Info.plist, background page, declared scripts and style\n"
                 "sheets) and prints its identifier, version and declarations.\n"
                 "\nexit codes: 0 ok, 2 bad command line, 3 bad bundle (the message names the file)\n";
    return appex::kExitOk;
  }
  if (!vm.count("bundle")) {
    std::cerr << "appex check: which bundle? (appex check BUNDLE)\n";
    return appex::kExitUsage;
  }
  auto checked = appex::checkBundle(vm["bundle"].as<std::string>());
  if (!checked) {
    std::cerr << "appex check: " << checked.error() << "\n";
    return appex::kExitBadBundle;
  }
  appex::describeBundle(*checked, std::cout);
  return appex::kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
    (args.empty() ? std::cerr : std::cout) << kUsage;
    return args.empty() ? appex::kExitUsage : appex::kExitOk;
  }
  const std::string command = args[0];
  args.erase(args.begin());
  if (command == "check") return check(args);
  if (command == "run") return appex::runCommand(args);
  std::cerr << "appex: unknown command '" << command << "'\n\n" << kUsage;
  return appex::kExitUsage;
}
