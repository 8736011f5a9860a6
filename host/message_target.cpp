#include "host/message_target.h"

namespace appex {

MessageTarget MessageTarget::parse(std::string_view text) {
  if (text == "api") return {Kind::api, {}, {}};
  if (text == "background") return {Kind::background, {}, {}};
  if (text == "popup") return {Kind::popup, {}, {}};
  MessageTarget target{Kind::tab, {}, {}};
  const auto slash = text.find('/');
  target.tabId = std::string(text.substr(0, slash));
  if (slash != std::string_view::npos) {
    std::string_view rest = text.substr(slash + 1);
    target.pageId = std::string(rest.substr(0, rest.find('/')));
  }
  return target;
}

std::optional<CommandMessageData> CommandMessageData::parse(const Dictionary& request) {
  auto target = asString(request, "target");
  if (!target) return std::nullopt;
  CommandMessageData data;
  data.target = MessageTarget::parse(*target);
  auto action = request.find("action");
  if (action == request.end()) return std::nullopt;
  data.action = action->value();
  const Dictionary* a = action->value().if_object();
  if (!a) return std::nullopt;
  auto cmd = asString(*a, "cmd");
  if (!cmd) return std::nullopt;
  data.command.cmd = std::move(*cmd);
  if (auto args = a->find("args"); args != a->end()) data.command.args = args->value();
  return data;
}

}  // namespace appex
