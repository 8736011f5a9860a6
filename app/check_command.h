// `appex check BUNDLE [--strict]`: validates a bundle, prints what it
// declares on stdout and its warnings on stderr. Returns the exit code.
#pragma once

#include <string>
#include <vector>

namespace appex {

int checkCommand(const std::vector<std::string>& args);

}  // namespace appex
