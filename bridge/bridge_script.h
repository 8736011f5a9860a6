// The page side of the bridge (bridge/bridge.js), embedded at build time.
//
// The build turns bridge/bridge.js into a C++ array (bridge/embed_script.cmake),
// so the script the bridge injects is always the one in the source tree,
// byte for byte.
//
// Thread-safe (constant data).
#pragma once

#include <string_view>

namespace appex {

// The whole script, ready to evaluate in a page.
std::string_view bridgeScript();

}  // namespace appex
