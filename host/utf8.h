// Well-formed UTF-8 as Unicode defines it: no overlong forms, no
// surrogates, nothing above U+10FFFF. One reader for every edge that must
// tell text from bytes (HTTP bodies, the protocol's output lines).
//
// Thread-safe (pure functions).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace appex {

// At `s[i]` (REQUIRES: i < s.size()): the length of the well-formed
// sequence that starts there (1 to 4), or 0 when none does; then
// `*subpart`, if given, receives the length of the ill-formed maximal
// subpart there (at least 1), the unit one U+FFFD replaces.
std::size_t utf8SequenceAt(std::string_view s, std::size_t i, std::size_t* subpart = nullptr);

bool isValidUtf8(std::string_view s);

// `text` with each ill-formed maximal subpart replaced by U+FFFD.
std::string toWellFormedUtf8(std::string text);

}  // namespace appex
