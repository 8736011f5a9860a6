// Message: the record in which every exchange between native code and web
// code travels (page messages, bridge posts, answers sent back).
//
// Parsing takes a string-keyed dictionary of loose values and yields a
// Message or nothing; it never throws or logs, the caller decides what a
// rejection means. Building yields the dictionary form in a fixed key order
// (type, uid, err, data, cmd, args, frameId), leaving absent fields out.
// build() then parse() gives the same record back, except that a DEBUG or
// LOG message loses its uid (emitted empty).
//
// A value type; copies are independent. Thread-compatible.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/any_value.h"

namespace appex {

enum class MessageType { ask, answer, inject, debug, log };

// "ASK", "ANSWER", "INJECT", "DEBUG", "LOG".
std::string_view toRaw(MessageType type);
// Exactly those five strings (case-sensitive); anything else is nothing.
std::optional<MessageType> messageTypeFromRaw(std::string_view raw);

struct Message {
  MessageType type = MessageType::ask;
  std::string uid;
  std::optional<std::string> err;
  std::optional<AnyValue> data;
  std::optional<std::string> cmd;
  std::optional<AnyValue> args;
  std::optional<std::int64_t> frameId;

  static std::optional<Message> parse(const Dictionary& dictionary);
  static std::optional<Message> parse(const AnyValue& value);
  Dictionary build() const;

  bool operator==(const Message&) const = default;
};

}  // namespace appex
