// CheckOptions: what `appex check` was asked to do, parsed from its command
// line.
#pragma once

#include <expected>
#include <optional>
#include <string>
#include <vector>

namespace appex {

struct CheckOptions {
  std::string bundle;   // the bundle folder
  bool strict = false;  // a warning fails the check too
};

// The options, or (when `help` is set instead) nothing and the help text;
// a bad command line is an error text.
struct ParsedCheck {
  std::optional<CheckOptions> options;
  std::string help;
};
std::expected<ParsedCheck, std::string> parseCheckOptions(const std::vector<std::string>& args);

}  // namespace appex
