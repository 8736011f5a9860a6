#include "host/json.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <cmath>
#include <vector>

#include "core/log.h"

namespace appex {
namespace {

constexpr std::size_t kMaxDepth = 256;


void replaceAll(std::string& s, std::string_view from, std::string_view to) {
  std::size_t pos = 0;
  while ((pos = s.find(from, pos)) != std::string::npos) {
    s.replace(pos, from.size(), to);
    pos += to.size();
  }
}

}  // namespace

std::optional<AnyValue> JSON::parse(std::string_view text, bool allowFragments) {
  boost::json::parse_options options;
  options.max_depth = kMaxDepth;
  boost::system::error_code ec;
  AnyValue v = boost::json::parse(text, ec, {}, options);
  if (ec) return std::nullopt;
  if (!allowFragments && !v.is_object() && !v.is_array()) return std::nullopt;
  // Boost.JSON reads a number beyond the double range ("1e400") as an
  // infinity, which stringify cannot write: such a value could never be sent
  // on to a page (an HTTP body holding one would lose its whole answer), so
  // the text is not taken as JSON at all.
  if (JSON::hasNonFiniteNumber(v)) return std::nullopt;
  return v;
}

std::string JSON::escapeForScript(std::string_view text) {
  std::string s(text);
  replaceAll(s, "\\", "\\\\");
  replaceAll(s, "\"", "\\\"");
  replaceAll(s, "'", "\\'");
  replaceAll(s, "\n", "\\n");
  replaceAll(s, "\r", "\\r");
  replaceAll(s, "\f", "\\f");
  replaceAll(s, "\xE2\x80\xA8", "\\u2028");
  replaceAll(s, "\xE2\x80\xA9", "\\u2029");
  return s;
}

std::optional<std::string> JSON::stringify(const std::optional<AnyValue>& value) {
  if (!value) return std::nullopt;
  if (const auto* b = value->if_bool()) return std::string(*b ? "true" : "false");
  if (const auto* s = value->if_string()) {
    std::string out = "\"";
    out.append(escapeForScript(std::string_view(s->data(), s->size())));
    out.push_back('"');
    return out;
  }
  if (JSON::hasNonFiniteNumber(*value)) {
    printLine("JSON write error: invalid number (NaN or infinity) in value");
    return std::nullopt;
  }
  std::string out = boost::json::serialize(*value);
  replaceAll(out, "\xE2\x80\xA8", "\\u2028");
  replaceAll(out, "\xE2\x80\xA9", "\\u2029");
  replaceAll(out, "</", "<\\/");
  return out;
}

bool JSON::hasNonFiniteNumber(const AnyValue& value) {
  std::vector<const AnyValue*> stack{&value};
  while (!stack.empty()) {
    const AnyValue* v = stack.back();
    stack.pop_back();
    if (const auto* d = v->if_double()) {
      if (!std::isfinite(*d)) return true;
    } else if (const auto* a = v->if_array()) {
      for (const auto& e : *a) stack.push_back(&e);
    } else if (const auto* o = v->if_object()) {
      for (const auto& kv : *o) stack.push_back(&kv.value());
    }
  }
  return false;
}

}  // namespace appex
