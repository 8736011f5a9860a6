#include "app/check_command.h"

#include <iostream>

#include "app/bundle_check.h"
#include "app/check_options.h"
#include "app/exit_codes.h"

namespace appex {

int checkCommand(const std::vector<std::string>& args) {
  auto parsed = parseCheckOptions(args);
  if (!parsed) {
    std::cerr << "appex check: " << parsed.error();
    return kExitUsage;
  }
  if (!parsed->options) {
    std::cout << parsed->help;
    return kExitOk;
  }
  auto checked = checkBundle(parsed->options->bundle);
  if (!checked) {
    std::cerr << "appex check: " << checked.error() << "\n";
    return kExitBadBundle;
  }
  describeBundle(*checked, std::cout);
  for (const auto& w : checked->warnings) std::cerr << "appex check: warning: " << w << "\n";
  if (parsed->options->strict && !checked->warnings.empty()) {
    std::cerr << "appex check: " << checked->warnings.size() << " warning(s) and --strict: the bundle fails\n";
    return kExitBadBundle;
  }
  return kExitOk;
}

}  // namespace appex
