// The exit codes of the appex program.
#pragma once

namespace appex {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitBadBundle = 3;
constexpr int kExitNoDisplay = 4;

}  // namespace appex
