// Err: the failure of any operation whose result reaches a callback.
//
// A single case carrying the failure's text; `Err::or_(text)` builds it (the
// trailing underscore because `or` is a C++ keyword). The text is what web
// code sees, exactly.
#pragma once

#include <string>

namespace appex {

struct Err {
  std::string text;

  static Err or_(std::string text) { return Err{std::move(text)}; }
  bool operator==(const Err&) const = default;
};

}  // namespace appex
