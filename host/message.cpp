#include "host/message.h"

namespace appex {

std::string_view toRaw(MessageType type) {
  switch (type) {
    case MessageType::ask: return "ASK";
    case MessageType::answer: return "ANSWER";
    case MessageType::inject: return "INJECT";
    case MessageType::debug: return "DEBUG";
    case MessageType::log: return "LOG";
  }
  return "";
}

std::optional<MessageType> messageTypeFromRaw(std::string_view raw) {
  if (raw == "ASK") return MessageType::ask;
  if (raw == "ANSWER") return MessageType::answer;
  if (raw == "INJECT") return MessageType::inject;
  if (raw == "DEBUG") return MessageType::debug;
  if (raw == "LOG") return MessageType::log;
  return std::nullopt;
}

namespace {

std::optional<AnyValue> lookup(const Dictionary& d, std::string_view key) {
  auto it = d.find(key);
  if (it == d.end()) return std::nullopt;
  return it->value();
}

}  // namespace

std::optional<Message> Message::parse(const AnyValue& value) {
  const auto* d = value.if_object();
  if (!d) return std::nullopt;
  return parse(*d);
}

std::optional<Message> Message::parse(const Dictionary& d) {
  auto rawType = asString(d, "type");
  if (!rawType) return std::nullopt;
  auto type = messageTypeFromRaw(*rawType);
  if (!type) return std::nullopt;
  auto uid = asString(d, "uid");
  if (!uid) return std::nullopt;

  Message m;
  m.type = *type;
  m.uid = std::move(*uid);
  if (auto it = d.find("frameId"); it != d.end()) m.frameId = asInt64(it->value());

  switch (*type) {
    case MessageType::ask: {
      m.cmd = asString(d, "cmd");
      if (!m.cmd) return std::nullopt;
      m.args = lookup(d, "args");
      break;
    }
    case MessageType::answer: {
      m.err = asString(d, "err");
      m.data = lookup(d, "data");
      if (!m.err && !m.data) return std::nullopt;
      break;
    }
    case MessageType::inject:
      break;
    case MessageType::debug:
    case MessageType::log:
      m.uid.clear();  // the uid of a diagnostic message is not kept
      m.data = lookup(d, "data");
      break;
  }
  return m;
}

Dictionary Message::build() const {
  Dictionary d;
  d.reserve(7);
  d.emplace("type", toRaw(type));
  d.emplace("uid", uid);
  if (err) d.emplace("err", *err);
  if (data) d.emplace("data", *data);
  if (cmd) d.emplace("cmd", *cmd);
  if (args) d.emplace("args", *args);
  if (frameId) d.emplace("frameId", *frameId);
  return d;
}

}  // namespace appex
