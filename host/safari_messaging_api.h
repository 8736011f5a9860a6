// SafariMessagingAPI: the router between the three kinds of web code: pages
// in tabs (content scripts, through the tab registry), the hidden background
// page and the popup page (through their bridges).
//
// Every routable request is an ask with cmd "messaging" whose arguments name
// a target and an action (see host/message_target.h). The router delivers
// the action to the API (the command table), the background page, the popup
// page or a tab, and hands the target's result back through the asker's
// reply. Each entry refuses the one target its sender may not address: the
// background entry "background", the popup entry "popup", the page entry
// every tab. Requests that cannot be routed are dropped with a log line
// ("Exit 1" not a messaging ask, "Exit 2" no request dictionary, "Exit 3"
// malformed request, "Exit 4" refused target) and never answered; a request
// for a page whose bridge does not exist is dropped silently. The asker's
// own time-out ends such waits.
//
// It also relays native events to web code: tab "create"/"update"/"activate"
// to the background page as "tabs.onCreate"/"tabs.onUpdate"/
// "tabs.onActivate" (the tab's dictionary form), and storage "change" as
// "storage.onChanged" to the background page, the popup and every known tab.
//
// One instance per Context (shared()); creating it installs the page entry
// as the tab registry's handler. Thread-safe: the page entry and event relays
// run on whatever thread delivers them; the web-view setters and the bridge
// entries run on the main queue.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "core/registry.h"
#include "host/message.h"
#include "host/message_target.h"
#include "host/result.h"

namespace appex {

class Context;
class WebView;
class WKWebViewBridge;

class SafariMessagingAPI : public std::enable_shared_from_this<SafariMessagingAPI> {
 public:
  static std::shared_ptr<SafariMessagingAPI> create(Context& context);
  static std::shared_ptr<SafariMessagingAPI> shared();

  explicit SafariMessagingAPI(Context& context);
  ~SafariMessagingAPI();

  // Stores the background page's web view, gives it a bridge named "BG"
  // with the background entry on "__default__", and binds the events.
  // REQUIRES: main queue.
  void setBackgroundWebview(std::shared_ptr<WebView> webView);
  // Stores the popup page's web view and gives it a bridge named "Popup"
  // with the popup entry, replacing any earlier one. REQUIRES: main queue.
  void setPopupWebview(std::shared_ptr<WebView> webView);

  std::shared_ptr<WebView> backgroundWebview() const;
  std::shared_ptr<WKWebViewBridge> backgroundBridge() const;
  std::shared_ptr<WebView> popupWebview() const;
  std::shared_ptr<WKWebViewBridge> popupBridge() const;

  // The three entries: (ask, reply). The reply is called at most once.
  void onBackgroundAsk(const Message& ask, ResultCallback reply);
  void onPopupAsk(const Message& ask, ResultCallback reply);
  void onPageAsk(const Message& ask, ResultCallback reply);

  // Receives one line per routed ask and per answer crossing the router
  // ("page -> background ping", "background => page ping ok"); for hosts
  // that show the traffic. Empty: no tracing (the default).
  using Trace = std::function<void(const std::string& line)>;
  void setTrace(Trace trace);

  // A routed request's parts, or the log text its rejection writes
  // ("Exit 1".."Exit 3").
  static std::expected<CommandMessageData, std::string> parseRequest(const Message& ask);

 private:
  void route(const Message& ask, ResultCallback reply, MessageTarget::Kind refused, bool refusesTabs,
             const char* sender);
  ResultCallback traced(const char* sender, const MessageTarget& target, const std::string& cmd,
                        ResultCallback reply);
  void bindEventsForBackground();
  void relayToBackground(const std::string& cmd, const AnyValue& args);

  Context& context_;
  mutable std::mutex mutex_;
  std::shared_ptr<WebView> backgroundWebview_;         // guarded by mutex_
  std::shared_ptr<WKWebViewBridge> backgroundBridge_;  // guarded by mutex_
  std::shared_ptr<WebView> popupWebview_;              // guarded by mutex_
  std::shared_ptr<WKWebViewBridge> popupBridge_;       // guarded by mutex_
  std::vector<Disposer> subscriptions_;                // main queue only
  std::shared_ptr<const Trace> trace_;                 // guarded by mutex_
};

}  // namespace appex
