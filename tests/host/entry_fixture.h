// Shared setup for the router and extension-entry tests: the API fixture's
// Context (simulated browser, bundle, store) plus fake web views for the
// background and popup pages, made through the Context's WebViewFactory, and
// a page stand-in that reads what native code evaluated in a web view and
// answers through its "Webview_Bridge" handler, as the bridge script would.
#pragma once

#include <boost/json/parse.hpp>

#include "bridge/safari_extension_view_controller.h"
#include "core/main_queue.h"
#include "host/safari_extension_handler.h"
#include "host/safari_messaging_api.h"
#include "platform/popover.h"
#include "platform/sim/sim_page.h"
#include "platform/sim/sim_tab.h"
#include "platform/sim/sim_toolbar_item.h"
#include "platform/sim/sim_window.h"
#include "platform/web_view_factory.h"
#include "tests/api/api_fixture.h"
#include "tests/bridge/fake_web_view.h"

namespace appex::testing {

// What a hosted page received from native code, decoded.
struct PageCall {
  std::string channel;
  Message message;
};

class EntryFixture : public ApiFixture {
 protected:
  EntryFixture() {
    context_.set(std::make_shared<WebViewFactory>([this] {
      auto view = std::make_shared<FakeWebView>();
      views.push_back(view);
      return view;
    }));
    router = SafariMessagingAPI::shared();
    sim->setIntake([this](std::string name, std::shared_ptr<SFSafariPage> page,
                          std::optional<Dictionary> userInfo) {
      handler.messageReceivedWithName(name, std::move(page), std::move(userInfo));
    });
    MainQueue::shared().runUntilIdle();
  }
  ~EntryFixture() override { MainQueue::shared().runUntilIdle(); }

  // The browser's first toolbar validation: creates the background page.
  std::shared_ptr<FakeWebView> startBackground() {
    validate(sim->activeWindow());
    return background();
  }
  std::shared_ptr<FakeWebView> background() const {
    return std::static_pointer_cast<FakeWebView>(router->backgroundWebview());
  }
  std::shared_ptr<FakeWebView> popup() const {
    return std::static_pointer_cast<FakeWebView>(router->popupWebview());
  }

  std::pair<bool, std::string> validate(std::shared_ptr<SFSafariWindow> window) {
    auto promise = std::make_shared<std::promise<std::pair<bool, std::string>>>();
    auto future = promise->get_future();
    handler.validateToolbarItemInWindow(window, [promise](bool enabled, std::string badge) {
      promise->set_value({enabled, std::move(badge)});
    });
    EXPECT_EQ(future.wait_for(10s), std::future_status::ready);
    settle();
    return future.get();
  }

  // Lets every completion, event and main-queue post run out.
  void settle() {
    for (int i = 0; i < 5; ++i) {
      sim->waitForIdle();
      MainQueue::shared().runUntilIdle();
    }
  }

  // Runs the main queue until `done` holds (replies to tab asks hop through
  // worker threads the browser does not track).
  bool waitFor(const std::function<bool()>& done) {
    return MainQueue::shared().runUntil(done, std::chrono::seconds(10));
  }

  // Every onWebViewCall the view has evaluated so far, decoded.
  static std::vector<PageCall> calls(const FakeWebView& view) {
    std::vector<PageCall> out;
    const std::string prefix = "onWebViewCall('";
    for (const auto& script : view.evaluated) {
      if (script.rfind(prefix, 0) != 0) continue;
      auto quote = script.find('\'', prefix.size());
      std::string channel = script.substr(prefix.size(), quote - prefix.size());
      std::string json = script.substr(quote + 3, script.size() - quote - 4);
      auto message = Message::parse(boost::json::parse(json));
      if (message) out.push_back({channel, *message});
    }
    return out;
  }
  // The asks the view received with `cmd`.
  static std::vector<Message> asksFor(const FakeWebView& view, const std::string& cmd) {
    std::vector<Message> out;
    for (auto& c : calls(view)) {
      if (c.message.type == MessageType::ask && c.message.cmd == cmd) out.push_back(c.message);
    }
    return out;
  }

  // The hosted page posts `message` to native code on "__default__".
  static void post(FakeWebView& view, const Message& message) {
    Dictionary body = message.build();
    body["channelName"] = "__default__";
    view.postFromPage("Webview_Bridge", body);
  }
  static void answer(FakeWebView& view, const Message& ask, AnyValue data) {
    post(view, Message{MessageType::answer, ask.uid, {}, std::move(data), {}, {}, {}});
  }
  // The hosted page asks native code a routed request; returns the uid.
  static std::string askRouted(FakeWebView& view, AnyValue request, const std::string& uid = "ipcp_1") {
    post(view, Message{MessageType::ask, uid, {}, {}, "messaging", std::move(request), {}});
    return uid;
  }
  // The answers the view received, by uid.
  static std::vector<Message> answersTo(const FakeWebView& view, const std::string& uid) {
    std::vector<Message> out;
    for (auto& c : calls(view)) {
      if (c.message.type == MessageType::answer && c.message.uid == uid) out.push_back(c.message);
    }
    return out;
  }

  static AnyValue request(const std::string& target, const std::string& cmd,
                          std::optional<AnyValue> args = std::nullopt) {
    Dictionary action{{"cmd", cmd}};
    if (args) action["args"] = *args;
    return Dictionary{{"target", target}, {"action", action}};
  }

  // Messages dispatched into a sim page, decoded.
  static std::vector<Message> received(const sim::SimPage& page) {
    std::vector<Message> out;
    for (const auto& d : page.receivedMessages()) {
      if (auto m = Message::parse(d.userInfo)) out.push_back(*m);
    }
    return out;
  }

  SafariExtensionHandler handler{context_};
  std::shared_ptr<SafariMessagingAPI> router;
  std::vector<std::shared_ptr<FakeWebView>> views;
};

}  // namespace appex::testing
