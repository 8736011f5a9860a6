#include "app/check_options.h"

#include <boost/program_options.hpp>

#include <sstream>

namespace appex {

namespace po = boost::program_options;

std::expected<ParsedCheck, std::string> parseCheckOptions(const std::vector<std::string>& args) {
  po::options_description visible("appex check BUNDLE [options]");
  visible.add_options()
      ("strict", po::bool_switch(), "fail (exit 3) on warnings too")
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
  ParsedCheck parsed;
  if (vm.count("help")) {
    std::ostringstream text;
    text << visible
         << "\nValidates the bundle (Info.plist, background page, popup page, declared scripts\n"
            "and style sheets, all inside Contents/Resources) and prints its identifier,\n"
            "version and declarations. Odd declarations and misspelt or unknown keys are\n"
            "warnings on stderr (\"appex check: warning: ...\").\n"
            "\nexit codes: 0 ok, 2 bad command line, 3 bad bundle (the message names the file)\n";
    parsed.help = text.str();
    return parsed;
  }
  if (!vm.count("bundle")) return std::unexpected("which bundle? (appex check BUNDLE)\n");
  parsed.options = CheckOptions{vm["bundle"].as<std::string>(), vm["strict"].as<bool>()};
  return parsed;
}

}  // namespace appex
