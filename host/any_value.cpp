#include "host/any_value.h"

#include <limits>

namespace appex {

std::optional<std::string> asString(const AnyValue& v) {
  if (const auto* s = v.if_string()) return std::string(s->data(), s->size());
  return std::nullopt;
}

std::optional<std::string> asString(const Dictionary& d, std::string_view key) {
  auto it = d.find(key);
  return it == d.end() ? std::nullopt : asString(it->value());
}

std::optional<bool> asBool(const AnyValue& v) {
  if (const auto* b = v.if_bool()) return *b;
  return std::nullopt;
}

std::optional<bool> asBool(const Dictionary& d, std::string_view key) {
  auto it = d.find(key);
  return it == d.end() ? std::nullopt : asBool(it->value());
}

std::optional<std::int64_t> asInt64(const AnyValue& v) {
  if (const auto* i = v.if_int64()) return *i;
  if (const auto* u = v.if_uint64()) {
    if (*u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
      return static_cast<std::int64_t>(*u);
  }
  return std::nullopt;
}

const Dictionary* asDictionary(const AnyValue& v) { return v.if_object(); }

const Dictionary* asDictionary(const Dictionary& d, std::string_view key) {
  auto it = d.find(key);
  return it == d.end() ? nullptr : it->value().if_object();
}

std::optional<std::vector<std::string>> asStringList(const AnyValue& v) {
  const auto* a = v.if_array();
  if (!a) return std::nullopt;
  std::vector<std::string> out;
  out.reserve(a->size());
  for (const auto& e : *a) {
    const auto* s = e.if_string();
    if (!s) return std::nullopt;
    out.emplace_back(s->data(), s->size());
  }
  return out;
}

std::optional<std::vector<std::pair<std::string, std::string>>> asStringDictionary(const AnyValue& v) {
  const auto* o = v.if_object();
  if (!o) return std::nullopt;
  std::vector<std::pair<std::string, std::string>> out;
  out.reserve(o->size());
  for (const auto& kv : *o) {
    const auto* s = kv.value().if_string();
    if (!s) return std::nullopt;
    out.emplace_back(std::string(kv.key()), std::string(s->data(), s->size()));
  }
  return out;
}

}  // namespace appex
