// IBridge: the native end of an ask/answer channel to a hosted page.
//
// Native code registers handlers for the page's asks per channel, asks the
// page and gets its answer by callback, and posts messages. The page side is
// bridge/bridge.js; its endpoint uses the channel "__default__".
//
// Threading is the implementation's to state (see WKWebViewBridge).
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "host/any_value.h"
#include "host/message.h"
#include "host/result.h"

namespace appex {

class IBridge {
 public:
  // Answers one ask. Each call sends one answer; the page keeps the first.
  using Reply = std::function<void(Result)>;
  // Handles the page's asks on a channel: called with the ask and its reply.
  using ChannelHandler = std::function<void(const Message& ask, Reply reply)>;

  // The channel of the page's WKWebViewBridge endpoint.
  static constexpr std::string_view kDefaultChannel = "__default__";

  virtual ~IBridge() = default;

  // Appends `handler` to the channel's handlers; every ask on the channel
  // runs all of them, in registration order. Handlers are never removed.
  virtual void registerHandler(const std::string& channel, ChannelHandler handler) = 0;

  // Asks the page: `callback` gets the answer's result once, if an answer
  // comes. There is no native time-out.
  virtual void ask(const std::string& channel, std::string cmd, std::optional<AnyValue> args,
                   ResultCallback callback) = 0;

  // Sends `message` to the page on `channel`.
  virtual void post(const Message& message, std::string_view channel) = 0;

  // Sends the answer `result` to the page's `ask` on `channel`.
  virtual void answer(Result result, const Message& ask, std::string_view channel) = 0;
};

}  // namespace appex
