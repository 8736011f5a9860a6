#include "host/utf8.h"

#include <cassert>

namespace appex {

std::size_t utf8SequenceAt(std::string_view s, std::size_t i, std::size_t* subpart) {
  assert(i < s.size());
  const auto c = static_cast<unsigned char>(s[i]);
  if (c < 0x80) return 1;
  std::size_t extra = 0;
  unsigned char lo = 0x80, hi = 0xBF;
  if (c >= 0xC2 && c <= 0xDF) {
    extra = 1;
  } else if (c >= 0xE0 && c <= 0xEF) {
    extra = 2;
    if (c == 0xE0) lo = 0xA0;
    if (c == 0xED) hi = 0x9F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    extra = 3;
    if (c == 0xF0) lo = 0x90;
    if (c == 0xF4) hi = 0x8F;
  }
  std::size_t fitting = 0;  // continuation bytes that fit
  while (fitting < extra && i + 1 + fitting < s.size()) {
    const auto b = static_cast<unsigned char>(s[i + 1 + fitting]);
    if (b < (fitting == 0 ? lo : 0x80) || b > (fitting == 0 ? hi : 0xBF)) break;
    ++fitting;
  }
  if (extra != 0 && fitting == extra) return extra + 1;
  if (subpart) *subpart = fitting + 1;
  return 0;
}

bool isValidUtf8(std::string_view s) {
  for (std::size_t i = 0; i < s.size();) {
    const std::size_t n = utf8SequenceAt(s, i);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

std::string toWellFormedUtf8(std::string text) {
  if (isValidUtf8(text)) return text;
  std::string out;
  out.reserve(text.size() + 8);
  for (std::size_t i = 0; i < text.size();) {
    std::size_t subpart = 1;
    const std::size_t n = utf8SequenceAt(text, i, &subpart);
    if (n == 0) {
      out += "\xEF\xBF\xBD";
      i += subpart;
    } else {
      out.append(text, i, n);
      i += n;
    }
  }
  return out;
}

}  // namespace appex
