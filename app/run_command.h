// `appex run`: runs an extension bundle on WebKit until stdin closes,
// "quit", Ctrl-C or --timeout; with --control, drives it by the automation
// protocol. Returns the process exit code (app/exit_codes.h).
#pragma once

#include <string>
#include <vector>

namespace appex {

int runCommand(const std::vector<std::string>& args);

}  // namespace appex
