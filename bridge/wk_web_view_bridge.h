// WKWebViewBridge: the native end of the bridge protocol for one hosted web
// view (the background page or the popup page).
//
// It receives the page's posts through the script-message handler
// "Webview_Bridge", answers the page's asks by running the handlers
// registered per channel, asks the page and completes the native callback
// when the answer comes, injects bridge/bridge.js when the page asks for it
// (an INJECT post), and writes the page's DEBUG and LOG messages to the
// system log, prefixed with the bridge's `name`.
//
// Outgoing messages are evaluated in the page as the exact text
//   onWebViewCall('<channel>', <JSON of the message>)
// always asynchronously on the main queue, also from the main queue. The
// channel name goes in unescaped: callers use plain names ("__default__").
//
// Ownership: made by create() and held by a std::shared_ptr. The bridge
// holds the web view weakly (posts to a web view that is gone do nothing)
// and registers a LeakAvoider, so the web view does not keep the bridge
// alive either; it is also the web view's (weakly held) navigation delegate.
// Destroying the bridge removes the handler from a web view that still
// exists, unless a later bridge for the same web view has registered its own
// since (replacing a bridge leaves the page heard by the new one), and
// discards pending asks without calling their callbacks. Asks
// the page never answers stay pending for the bridge's life: there is no
// native time-out.
//
// Page failures: the page sends a failed answer's "err" as an object (an
// encoded error); the message record keeps only a string "err", so such an
// answer completes the native ask as a success with its data (null), and a
// failed answer without "data" (the page's own answer time-out) is not a
// message at all and is dropped. Only a string "err" is a native failure.
//
// Threading: ask, post and answer (and a handler's reply) are thread-safe.
// Creation, destruction, registerHandler and the web-view callbacks are main
// queue only; channel handlers run on the main queue, synchronously, in
// registration order.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "bridge/i_bridge.h"
#include "core/threaded_dictionary.h"
#include "platform/navigation_delegate.h"
#include "platform/script_message_handler.h"
#include "platform/web_view.h"

namespace appex {

class WKWebViewBridge final : public IBridge,
                              public ScriptMessageHandler,
                              public NavigationDelegate,
                              public std::enable_shared_from_this<WKWebViewBridge> {
 public:
  // The name of the script-message handler the page posts to.
  static constexpr std::string_view kHandlerName = "Webview_Bridge";

  // Makes the bridge for `webView`: becomes its navigation delegate, sets
  // its "allowFileAccessFromFileURLs" preference to true and registers the
  // "Webview_Bridge" handler (through a LeakAvoider). `name` labels log
  // lines only. `webView` must not be null.
  static std::shared_ptr<WKWebViewBridge> create(std::string name,
                                                 const std::shared_ptr<WebView>& webView);
  ~WKWebViewBridge() override;
  WKWebViewBridge(const WKWebViewBridge&) = delete;
  WKWebViewBridge& operator=(const WKWebViewBridge&) = delete;

  const std::string& name() const { return name_; }

  // IBridge.
  void registerHandler(const std::string& channel, ChannelHandler handler) override;
  void ask(const std::string& channel, std::string cmd, std::optional<AnyValue> args,
           ResultCallback callback) override;
  void post(const Message& message, std::string_view channel) override;
  void answer(Result result, const Message& ask, std::string_view channel) override;

  // Every post from the page. Malformed posts (not an object, no string
  // "channelName", not a message, an answer to no pending ask) are dropped
  // without a word.
  void didReceiveScriptMessage(const AnyValue& body) override;

  // Nothing to do when a page finishes loading.
  void didFinishNavigation() override {}

 private:
  WKWebViewBridge(std::string name, const std::shared_ptr<WebView>& webView);

  void receiveAsk(const Message& ask, const std::string& channel);
  void receiveAnswer(const Message& answer);

  const std::weak_ptr<WebView> webView_;
  const std::string name_;
  // Main queue only.
  std::unordered_map<std::string, std::vector<ChannelHandler>> channels_;
  // Pending native asks by uid; touched from any thread.
  ThreadedDictionary<std::string, ResultCallback> callbacks_;
};

}  // namespace appex
