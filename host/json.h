// JSON: conversions between AnyValue and JSON text for the bridge and the
// router.
//
// `stringify` output is pasted into script source (the bridge composes
// "onWebViewCall('<channel>', <text>)"), so beyond being JSON it must stay
// one JavaScript expression equal to the input:
//  * a top-level string is escaped for a JavaScript string literal, in this
//    order: \ " ' LF CR FF U+2028 U+2029 (backslashes first so the added ones
//    are not doubled again), and enclosed in double quotes;
//  * a boolean is "true" or "false";
//  * anything else is written compactly by Boost.JSON, then U+2028/U+2029
//    (line terminators in older JavaScript) become \u2028/\u2029 and "</"
//    becomes "<\/" so the text can also sit inside an HTML script element.
//    Those bytes only occur inside JSON strings, where both escapes are
//    valid JSON.
// A value JSON cannot express (a non-finite number) yields nothing and the
// writer's error is printed to standard output.
//
// `parse` accepts UTF-8 JSON text whose top level is an object or an array
// (like the platform parser without its fragments option), unless
// `allowFragments` is set. Nesting deeper than 256 levels is refused, and so
// is a number too large for a double ("1e400"): whatever parses can be
// written back by `stringify`.
//
// Thread-safe (no state).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "host/any_value.h"

namespace appex {

class JSON {
 public:
  static std::optional<AnyValue> parse(std::string_view text, bool allowFragments = false);
  static std::optional<std::string> stringify(const std::optional<AnyValue>& value);
  // The string escaping above, without the enclosing quotes.
  static std::string escapeForScript(std::string_view text);
  // True when `value` holds NaN or an infinity anywhere: JSON text cannot
  // write it, so stringify refuses it. Iterative, so hostile nesting cannot
  // exhaust the stack.
  static bool hasNonFiniteNumber(const AnyValue& value);
};

}  // namespace appex
