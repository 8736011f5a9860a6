// `appex init DIR`: writes a new extension bundle into DIR (absent or
// empty): the starting files (bundle_template.h) and copies of the SDK
// shipped with appex under Assets/extension/appex/. Returns the exit code.
#pragma once

#include <string>
#include <vector>

namespace appex {

int initCommand(const std::vector<std::string>& args);

}  // namespace appex
