// Checks on the scripts native code hands a hosted page, the text
//   onWebViewCall('<channel>', <argument>)
// and their hand-off to the JavaScript-engine checker.
//
// What can be decided in-process is decided here: the fixed frame around
// the argument, no raw line terminator anywhere (LF, CR, U+2028, U+2029),
// no "</" outside a top-level string argument, and the argument read back
// as JSON equal to what was sent. Whether a JavaScript engine reads the same
// value (and nothing more) is left to fuzz/check_composed_scripts.mjs: when
// the environment variable APPEX_FUZZ_SCRIPTS names a folder, every checked
// script is written there as <hash>.js with the value its argument must
// equal as <hash>.json, and the checker evaluates them all.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "host/any_value.h"

namespace appex::fuzz {

// The composition for `argumentText`, as the bridge writes it.
std::string composeCall(std::string_view channel, std::string_view argumentText);

// Checks `script` and returns its argument's text. `expected` (when known)
// is the value the argument must equal; for a top-level string argument the
// script-literal escapes are undone before comparing.
std::string checkComposedScript(std::string_view script, std::string_view channel,
                                const std::optional<AnyValue>& expected);

// Undoes JSON::escapeForScript inside a double-quoted literal; nothing if
// the literal holds anything the escaping never writes (a raw quote or line
// break, an unknown escape).
std::optional<std::string> unescapeScriptString(std::string_view quoted);

// Hands `script` and its expected argument to the engine checker, when
// APPEX_FUZZ_SCRIPTS is set (and `expected` can be written as JSON text).
void dumpForEngineCheck(std::string_view script, const AnyValue& expected);

}  // namespace appex::fuzz
