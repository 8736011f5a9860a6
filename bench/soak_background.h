// A stand-in for the extension's background page under load: a web view
// with no engine that reads every onWebViewCall the native bridge evaluates
// in it, answers every ask (tab and storage events with true, and the asks
// content pages route to it as the harness decides), and hands the answers
// to its own asks to the harness.
//
// It answers as the injected bridge script would: by posting an ANSWER to
// its "Webview_Bridge" handler, later, on the main queue. It keeps counts
// only, never the scripts themselves, so its memory stays flat however long
// the run.
//
// Main queue only, like a real web view.
#pragma once

#include <boost/json/parse.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/main_queue.h"
#include "host/message.h"
#include "platform/web_view.h"

namespace appex::soak {

// The message inside a script "onWebViewCall('<channel>', <json>)", with
// its channel; nothing for any other script (the injected bridge script).
inline std::optional<std::pair<std::string, Message>> decodeWebViewCall(std::string_view script) {
  constexpr std::string_view prefix = "onWebViewCall('";
  if (!script.starts_with(prefix) || !script.ends_with(")")) return std::nullopt;
  const auto quote = script.find('\'', prefix.size());
  if (quote == std::string_view::npos || script.substr(quote, 3) != "', ") return std::nullopt;
  const std::string_view json = script.substr(quote + 3, script.size() - quote - 4);
  boost::system::error_code ec;
  AnyValue value = boost::json::parse(json, ec);
  if (ec) return std::nullopt;
  auto message = Message::parse(value);
  if (!message) return std::nullopt;
  return std::pair{std::string(script.substr(prefix.size(), quote - prefix.size())), std::move(*message)};
}

class BackgroundPage final : public WebView {
 public:
  // How the page answers an ask routed to it from a content page.
  struct Reply {
    bool send = true;  // false: the page's handler never answers
    std::optional<AnyValue> data;
  };
  using RoutedAsk = std::function<Reply(const Message& ask)>;
  // Receives the answer to one of the page's own asks.
  using Answer = std::function<void(const Message& answer)>;

  BackgroundPage(RoutedAsk routedAsk, Answer answer) : routedAsk_(std::move(routedAsk)), answer_(std::move(answer)) {}

  struct Counts {
    std::uint64_t tabsOnCreate = 0, tabsOnUpdate = 0, tabsOnActivate = 0, storageOnChanged = 0;
    std::uint64_t routedAsks = 0, answersReceived = 0, undecodable = 0, otherScripts = 0;
    std::uint64_t asksPosted = 0, answersPosted = 0;
  };
  const Counts& counts() const { return counts_; }

  // The page asks native code: `request` is a routed request
  // ({"target", "action"}); the answer comes back through Answer.
  void ask(const std::string& uid, AnyValue request) {
    ++counts_.asksPosted;
    postToNative(Message{MessageType::ask, uid, {}, {}, "messaging", std::move(request), {}});
  }

  // WebView.
  void evaluateScript(std::string script) override {
    auto call = decodeWebViewCall(script);
    if (!call) {
      ++(script.starts_with("onWebViewCall(") ? counts_.undecodable : counts_.otherScripts);
      return;
    }
    Message& message = call->second;
    if (message.type == MessageType::answer) {
      ++counts_.answersReceived;
      answer_(message);
      return;
    }
    if (message.type != MessageType::ask) return;
    // Listeners answer events with a value: an answer with neither data nor
    // err is no message, and the native ask would then stay pending.
    std::optional<AnyValue> data = AnyValue(true);
    const std::string cmd = message.cmd.value_or("");
    if (cmd == "tabs.onCreate") {
      ++counts_.tabsOnCreate;
    } else if (cmd == "tabs.onUpdate") {
      ++counts_.tabsOnUpdate;
    } else if (cmd == "tabs.onActivate") {
      ++counts_.tabsOnActivate;
    } else if (cmd == "storage.onChanged") {
      ++counts_.storageOnChanged;
    } else {
      ++counts_.routedAsks;
      Reply reply = routedAsk_(message);
      if (!reply.send) return;
      data = std::move(reply.data);
    }
    // The page's handler answers after the evaluation has returned.
    Message reply{MessageType::answer, message.uid, {}, std::move(data), {}, {}, message.frameId};
    MainQueue::shared().post([this, reply = std::move(reply)] {
      ++counts_.answersPosted;
      postToNative(reply);
    });
  }
  void addScriptMessageHandler(const std::string& name, ScriptMessageCallback handler) override {
    handlers_[name] = std::move(handler);
  }
  void removeScriptMessageHandler(const std::string& name) override { handlers_.erase(name); }
  bool setBoolPreference(const std::string&, bool) override { return true; }
  void setNavigationDelegate(std::weak_ptr<NavigationDelegate>) override {}
  bool loadFileURL(const std::string&, const std::string&) override { return true; }
  void reload() override {}

 private:
  void postToNative(const Message& message) {
    auto it = handlers_.find("Webview_Bridge");
    if (it == handlers_.end()) return;
    Dictionary body = message.build();
    body["channelName"] = "__default__";
    auto handler = it->second;  // the handler may replace itself
    handler(AnyValue(std::move(body)));
  }

  RoutedAsk routedAsk_;
  Answer answer_;
  std::map<std::string, ScriptMessageCallback> handlers_;
  Counts counts_;
};

}  // namespace appex::soak
