#include "app/run_options.h"

#include <boost/program_options.hpp>

#include <filesystem>
#include <sstream>

namespace appex {

namespace po = boost::program_options;

std::expected<ParsedRun, std::string> parseRunOptions(const std::vector<std::string>& args) {
  po::options_description visible("appex run [BUNDLE] [options]");
  visible.add_options()
      ("open", po::value<std::vector<std::string>>()->composing(), "open URL in a tab at start (repeatable)")
      ("serve", po::value<std::string>(), "serve DIR read-only on 127.0.0.1 (a free port); "
                                          "--open URLs without a scheme are opened from it")
      ("data-dir", po::value<std::string>(), "where the extension's stored values live "
                                             "(default: per bundle identifier under $XDG_DATA_HOME/appex)")
      ("control", po::bool_switch(), "speak the automation protocol on stdin/stdout (JSON lines)")
      ("trace", po::bool_switch(), "print one line per message crossing the router, on stderr")
      ("snapshot", po::value<std::vector<std::string>>()->composing(),
       "WHAT=FILE: write a PNG of 'popover', 'background', 'toolbar' (the button as drawn, 2x) "
       "or a tab handle ('t1') once it has loaded")
      ("timeout", po::value<double>(), "stop after SECONDS")
      ("private", po::bool_switch(), "make the first window private")
      ("watch", po::bool_switch(), "reload the extension's pages and the tabs when files in the bundle change")
      ("headed", po::bool_switch(), "show the windows on the display in DISPLAY (fails without one); "
                                    "without it, appex uses DISPLAY when set, else starts its own Xvfb")
      ("verbose", po::bool_switch(), "also print the extension's diagnostic lines ([log]) on stderr")
      ("quiet", po::bool_switch(), "print only errors on stderr")
      ("help,h", "show this help");
  po::options_description hidden;
  hidden.add_options()("bundle", po::value<std::string>());
  po::options_description all;
  all.add(visible).add(hidden);
  po::positional_options_description positional;
  positional.add("bundle", 1);

  po::variables_map vm;
  try {
    po::store(po::command_line_parser(args).options(all).positional(positional).run(), vm);
    po::notify(vm);
  } catch (const po::error& e) {
    std::ostringstream text;
    text << e.what() << "\n" << visible;
    return std::unexpected(text.str());
  }
  ParsedRun parsed;
  if (vm.count("help")) {
    std::ostringstream text;
    text << visible
         << "\nRuns the extension on WebKit: the browser validates the toolbar item at start,\n"
            "which brings up the background page. Stops on 'quit', Ctrl-C, at --timeout, or\n"
            "when stdin closes if no --timeout is given. Without BUNDLE, runs the bundled\n"
            "example as a demo: opens its page,\n"
            "shows the traffic, the toolbar state, writes appex-popover.png and exits.\n"
            "\nexit codes: 0 ok, 1 run failed, 2 bad command line, 3 bad bundle, 4 no display\n";
    parsed.help = text.str();
    return parsed;
  }
  RunOptions o;
  if (vm.count("bundle")) {
    o.bundle = vm["bundle"].as<std::string>();
  } else {
    o.example = true;
  }
  if (vm.count("open")) o.open = vm["open"].as<std::vector<std::string>>();
  if (vm.count("serve")) o.serve = vm["serve"].as<std::string>();
  if (vm.count("data-dir")) o.dataDirectory = vm["data-dir"].as<std::string>();
  o.control = vm["control"].as<bool>();
  o.trace = vm["trace"].as<bool>();
  o.privateWindow = vm["private"].as<bool>();
  o.watch = vm["watch"].as<bool>();
  o.headed = vm["headed"].as<bool>();
  o.verbose = vm["verbose"].as<bool>();
  o.quiet = vm["quiet"].as<bool>();
  if (o.verbose && o.quiet) return std::unexpected("--verbose and --quiet exclude each other\n");
  if (!o.serve.empty() && !std::filesystem::is_directory(o.serve)) {
    return std::unexpected("--serve: no folder to serve: " + o.serve + "\n");
  }
  if (vm.count("timeout")) {
    o.timeoutSeconds = vm["timeout"].as<double>();
    if (!(*o.timeoutSeconds > 0)) return std::unexpected("--timeout must be a positive number of seconds\n");
  }
  if (vm.count("snapshot")) {
    for (const auto& spec : vm["snapshot"].as<std::vector<std::string>>()) {
      const auto eq = spec.find('=');
      if (eq == std::string::npos || eq == 0 || eq + 1 == spec.size()) {
        return std::unexpected("--snapshot takes WHAT=FILE (WHAT: popover, background, toolbar or a tab handle)\n");
      }
      const std::string what = spec.substr(0, eq);
      const bool tab = what.size() > 1 && what[0] == 't' &&
                       what.find_first_not_of("0123456789", 1) == std::string::npos;
      if (what != "popover" && what != "background" && what != "toolbar" && !tab) {
        return std::unexpected("--snapshot: WHAT is popover, background, toolbar or a tab handle (t1), not " + what +
                               "\n");
      }
      o.snapshots.emplace_back(what, spec.substr(eq + 1));
    }
  }
  parsed.options = std::move(o);
  return parsed;
}

}  // namespace appex
