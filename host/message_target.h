// The routed request: where an ask goes and what it asks there.
//
// A routed request is the arguments of an ask whose cmd is "messaging":
// {"target": string, "action": {"cmd": string, "args": any}}. The target
// string "api", "background" or "popup" (exactly) names those; any other
// string is a tab address: its "/"-separated pieces give a tab identifier
// and, when there are at least two pieces, a page identifier (further
// pieces are ignored). So "api/x" is a tab address, not the API.
//
// Value types. Thread-compatible.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "host/any_value.h"

namespace appex {

struct MessageTarget {
  enum class Kind { tab, api, background, popup };

  Kind kind = Kind::api;
  std::string tabId;                  // kind == tab: the first piece
  std::optional<std::string> pageId;  // kind == tab: the second piece, if any

  static MessageTarget parse(std::string_view text);
  bool operator==(const MessageTarget&) const = default;
};

struct Command {
  std::string cmd;
  std::optional<AnyValue> args;
};

struct MessageData {
  MessageTarget target;
  std::optional<AnyValue> action;
};

struct CommandMessageData : MessageData {
  Command command;

  // The request's parts, or nothing when "target" is not a string or
  // "action" is not a dictionary with a string "cmd".
  static std::optional<CommandMessageData> parse(const Dictionary& request);
};

}  // namespace appex
