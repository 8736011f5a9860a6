// What the soak harness sends and how it reads what comes back: the routed
// requests its asks carry, and the checks an answer's content must pass.
//
// Free functions on values the caller owns; nothing is kept.
//
// Thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/any_value.h"
#include "host/message.h"

namespace appex::soak {

// The name every message between a page and the extension goes under.
inline constexpr const char* kMessageName = "__APP_EXTENSION__";

// A routed request {"target", "action": {"cmd", "args"}}; "args" only when
// given.
AnyValue request(const std::string& target, const std::string& cmd, std::optional<AnyValue> args = {});

// What the ledger keeps of a tab id, so that an answer can be matched to it
// without keeping the id itself.
std::uint64_t hashOf(std::string_view text);

// `value`'s member `key`, or nullptr when `value` is missing, no object, or
// has no such member.
const AnyValue* member(const std::optional<AnyValue>& value, std::string_view key);

// `value` is the boolean true.
bool isTrue(const std::optional<AnyValue>& value);

// An answer {"n": index}, as the echoing pages give it.
bool echoes(const Message& answer, std::size_t index);

// A tab's dictionary form whose "id" hashes to `expect`.
bool namesTab(const Message& answer, std::uint64_t expect);

}  // namespace appex::soak
