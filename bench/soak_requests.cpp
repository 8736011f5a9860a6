#include "bench/soak_requests.h"

#include <functional>
#include <utility>

namespace appex::soak {

AnyValue request(const std::string& target, const std::string& cmd, std::optional<AnyValue> args) {
  Dictionary action{{"cmd", cmd}};
  if (args) action["args"] = std::move(*args);
  return Dictionary{{"target", target}, {"action", std::move(action)}};
}

std::uint64_t hashOf(std::string_view text) { return std::hash<std::string_view>{}(text); }

const AnyValue* member(const std::optional<AnyValue>& value, std::string_view key) {
  if (!value || !value->is_object()) return nullptr;
  return value->as_object().if_contains(key);
}

bool isTrue(const std::optional<AnyValue>& value) { return value && value->is_bool() && value->as_bool(); }

bool echoes(const Message& answer, std::size_t index) {
  const AnyValue* n = member(answer.data, "n");
  return !answer.err && n && n->is_int64() && n->as_int64() == static_cast<std::int64_t>(index);
}

bool namesTab(const Message& answer, std::uint64_t expect) {
  const AnyValue* id = member(answer.data, "id");
  return !answer.err && id && id->is_string() && hashOf(id->as_string()) == expect;
}

}  // namespace appex::soak
