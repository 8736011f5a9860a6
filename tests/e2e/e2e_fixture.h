// Shared setup for the end-to-end tests: the whole system on real WebKit
// (run under xvfb-run), driven only through SafariExtensionHandler as the
// browser drives it, with the simulated browser for windows, tabs and
// content pages.
//
// Each test gets a fresh Context holding the test bundle (tests/e2e/bundle,
// whose background and popup pages are test_page.js: see there for the
// commands they answer), a user-defaults store in a temporary folder, the
// simulated browser, and web views made by the WebKit engine. The pages are
// observed through the router's bridges ("report"); everything they do is
// done through the system itself.
//
// Main queue only: the test thread is the engine's main thread. Browser
// completions run on worker threads; waits turn the main loop in short
// turns so that conditions those threads set are seen promptly.
#pragma once

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bridge/safari_extension_view_controller.h"
#include "bridge/wk_web_view_bridge.h"
#include "core/context.h"
#include "core/main_queue.h"
#include "host/global_state.h"
#include "host/safari_extension_handler.h"
#include "host/safari_messaging_api.h"
#include "platform/bundle.h"
#include "platform/popover.h"
#include "platform/sim/sim_browser.h"
#include "platform/sim/sim_page.h"
#include "platform/sim/sim_tab.h"
#include "platform/sim/sim_toolbar_item.h"
#include "platform/sim/sim_window.h"
#include "platform/sqlite_user_defaults.h"
#include "platform/web_view_factory.h"
#include "platform/webkit/engine.h"
#include "tabs/safari_tab_api.h"
#include "tests/bridge/result_printer.h"
#include "tests/platform/webkit_test_support.h"
#include "tests/tabs/tabs_fixture.h"

#include <unistd.h>

namespace appex::testing {

using namespace std::chrono_literals;

inline AnyValue json(std::string_view text) { return boost::json::parse(text); }
inline std::string text(const AnyValue& value) { return boost::json::serialize(value); }

class E2ETest : public ::testing::Test {
 protected:
  static webkit::Engine& engine() { return sharedEngine(); }

  E2ETest() : scope_(context_) {}

  void SetUp() override {
    engine();
    auto bundle = Bundle::load(APPEX_E2E_BUNDLE);
    ASSERT_TRUE(bundle) << bundle.error();
    context_.set<Bundle>(*bundle);
    data_ = std::filesystem::temp_directory_path() /
            ("appex-e2e-" + std::to_string(::getpid()) + "-" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name());
    auto defaults = SqliteUserDefaults::open(data_, (*bundle)->bundleIdentifier());
    ASSERT_TRUE(defaults) << defaults.error();
    context_.set<UserDefaults>(*defaults);
    sim->install(context_);
    context_.set(std::make_shared<WebViewFactory>([] { return engine().createWebView(); }));
    sim->setIntake([this](std::string name, std::shared_ptr<SFSafariPage> page,
                          std::optional<Dictionary> userInfo) {
      handler.messageReceivedWithName(name, std::move(page), std::move(userInfo));
    });
    window = sim->openWindow();
    tab = window->addTab("https://site.test/a", "Site", true);
    page = tab->activePage();
  }

  void TearDown() override {
    // Nothing may reach the handler once the test has ended.
    sim->setIntake(nullptr);
    EXPECT_TRUE(sim->waitForIdle()) << "the browser never fell quiet";
    engine().runFor(20ms);
  }

  ~E2ETest() override {
    std::error_code ec;
    std::filesystem::remove_all(data_, ec);
  }

  // --- waiting -------------------------------------------------------------

  // Turns the main loop until `done` holds. The turns are short because the
  // browser's worker threads do not wake the loop when they change state.
  bool turnUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = 10s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      engine().runUntil(done, 5ms);
    }
    return true;
  }
  static void turnFor(std::chrono::milliseconds duration) { engine().runFor(duration); }

  // --- the browser's side ----------------------------------------------------

  // The browser validates the toolbar item of `w`; returns (enabled, badge).
  std::pair<bool, std::string> validate(std::shared_ptr<sim::SimWindow> w = nullptr) {
    auto promise = std::make_shared<std::promise<std::pair<bool, std::string>>>();
    auto future = promise->get_future();
    handler.validateToolbarItemInWindow(w ? w : window, [promise](bool enabled, std::string badge) {
      promise->set_value({enabled, std::move(badge)});
    });
    if (!turnUntil([&] { return future.wait_for(0s) == std::future_status::ready; })) {
      ADD_FAILURE() << "the validation handler was never called";
      return {false, "<none>"};
    }
    sim->waitForIdle();
    return future.get();
  }

  // The first validation, then the background page's readiness.
  std::shared_ptr<WKWebViewBridge> startBackground() {
    validate();
    EXPECT_TRUE(turnUntil([&] { return readyCount("BG") >= 1; })) << "the background page never got ready";
    return router()->backgroundBridge();
  }

  // Shows the popover as the browser does: takes the view controller (its
  // first load happens then), reloads the page when about to show, shows
  // it at the controller's size. Returns once the reloaded page is ready.
  std::shared_ptr<SafariExtensionViewController> showPopover() {
    const bool first = !context_.find<SafariExtensionViewController>();
    int ready = readyCount("Popup");
    auto controller = handler.popoverViewController();
    if (first) {
      EXPECT_TRUE(turnUntil([&] { return readyCount("Popup") > ready; })) << "the popup never loaded";
      ready = readyCount("Popup");
    }
    handler.popoverWillShowInWindow(window);
    context_.get<Popover>()->show(controller->preferredContentSize());
    EXPECT_TRUE(turnUntil([&] { return readyCount("Popup") > ready; })) << "the popup never reloaded";
    return controller;
  }

  // How often the page behind bridge `name` ("BG", "Popup") said it was
  // ready: once per load.
  int readyCount(const std::string& name) const {
    const std::string prefix = "$$$ " + name + " Webview Log: ";
    int n = 0;
    for (const auto& line : log.lines()) {
      n += line.starts_with(prefix) && line.find("ready") != std::string::npos;
    }
    return n;
  }

  std::shared_ptr<SafariMessagingAPI> router() { return context_.get<SafariMessagingAPI>(); }
  std::shared_ptr<SafariTabAPI> tabs() { return context_.get<SafariTabAPI>(); }

  // --- hosted pages ------------------------------------------------------------

  // Asks the page behind `bridge` and turns the loop until it answers.
  Result askPage(const std::shared_ptr<WKWebViewBridge>& bridge, std::string cmd,
                 std::optional<AnyValue> args = std::nullopt,
                 std::chrono::milliseconds timeout = 10s) {
    if (!bridge) return failure("(test) no bridge");
    auto result = std::make_shared<std::optional<Result>>();
    bridge->ask("__default__", std::move(cmd), std::move(args),
                [result](Result r) { *result = std::move(r); });
    if (!turnUntil([&] { return result->has_value(); }, timeout)) return failure("(test) no answer");
    return std::move(**result);
  }

  // What the page has seen: {role, loadId, received, sent}.
  AnyValue report(const std::shared_ptr<WKWebViewBridge>& bridge) {
    Result r = askPage(bridge, "report");
    if (!r || !*r || !(*r)->is_object()) {
      ADD_FAILURE() << "no report";
      return Dictionary{{"received", boost::json::array()}, {"sent", Dictionary{}}};
    }
    return **r;
  }
  // The arguments of every ask `cmd` the page received, oldest first.
  static std::vector<AnyValue> heard(const AnyValue& report, const std::string& cmd) {
    std::vector<AnyValue> out;
    for (const auto& entry : report.at("received").as_array()) {
      if (entry.at("cmd") == AnyValue(cmd)) out.push_back(entry.at("args"));
    }
    return out;
  }
  // Asks the page for reports until it has heard `cmd` at least `count`
  // times; returns the last report.
  AnyValue waitHeard(const std::shared_ptr<WKWebViewBridge>& bridge, const std::string& cmd,
                     std::size_t count = 1) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    AnyValue last = report(bridge);
    while (heard(last, cmd).size() < count && std::chrono::steady_clock::now() < deadline) {
      turnFor(10ms);
      last = report(bridge);
    }
    EXPECT_GE(heard(last, cmd).size(), count) << cmd << " never reached the " << text(last.at("role"));
    return last;
  }

  // The page asks native code (cmd, args) and waits for the outcome:
  // {"answered": value} or {"failed": message}.
  AnyValue call(const std::shared_ptr<WKWebViewBridge>& bridge, const std::string& cmd,
                std::optional<AnyValue> args) {
    Dictionary request{{"cmd", cmd}, {"timeout", 8000}};
    if (args) request["args"] = *args;
    Result r = askPage(bridge, "call", AnyValue(std::move(request)));
    return r && *r ? **r : AnyValue("(test) the page never answered");
  }
  // The page asks `target` (cmd, args) through the router.
  AnyValue route(const std::shared_ptr<WKWebViewBridge>& bridge, const std::string& target,
                 const std::string& cmd, std::optional<AnyValue> args = std::nullopt) {
    return call(bridge, "messaging", request(target, cmd, std::move(args)));
  }
  // The page asks native code without waiting; returns the ask's name in
  // the page's report.
  std::string send(const std::shared_ptr<WKWebViewBridge>& bridge, const std::string& cmd,
                   std::optional<AnyValue> args) {
    const std::string id = "s" + std::to_string(++sends_);
    Dictionary request{{"id", id}, {"cmd", cmd}, {"timeout", 60000}};
    if (args) request["args"] = *args;
    EXPECT_TRUE(askPage(bridge, "send", AnyValue(std::move(request))).has_value());
    return id;
  }
  // The outcome of a `send` as the page has it now.
  AnyValue outcome(const std::shared_ptr<WKWebViewBridge>& bridge, const std::string& id) {
    const AnyValue r = report(bridge);
    const auto& sent = r.at("sent").as_object();
    auto it = sent.find(id);
    return it == sent.end() ? AnyValue("(test) never sent") : it->value();
  }

  static AnyValue answered(AnyValue value) { return Dictionary{{"answered", std::move(value)}}; }
  static AnyValue failed(std::string message) { return Dictionary{{"failed", std::move(message)}}; }
  static AnyValue pending() { return Dictionary{{"pending", true}}; }

  // A routed request: {"target", "action": {"cmd", "args"?}}.
  static AnyValue request(const std::string& target, const std::string& cmd,
                          std::optional<AnyValue> args = std::nullopt) {
    Dictionary action{{"cmd", cmd}};
    if (args) action["args"] = *args;
    return Dictionary{{"target", target}, {"action", action}};
  }

  // --- content pages -----------------------------------------------------------

  // The page's content script posts an ask, on the main thread as the
  // browser delivers it.
  static void contentAsks(const std::shared_ptr<sim::SimPage>& p, const std::string& uid,
                          std::optional<AnyValue> args, std::int64_t frameId = 0,
                          const std::string& cmd = "messaging") {
    p->sendMessageToExtension("__APP_EXTENSION__",
                              Message{MessageType::ask, uid, {}, {}, cmd, std::move(args), frameId}.build());
  }
  // Every message dispatched into the page, decoded.
  static std::vector<Message> received(const sim::SimPage& p) {
    std::vector<Message> out;
    for (const auto& d : p.receivedMessages()) {
      if (auto m = Message::parse(d.userInfo)) out.push_back(*m);
    }
    return out;
  }
  static std::vector<Message> answersTo(const sim::SimPage& p, const std::string& uid) {
    std::vector<Message> out;
    for (auto& m : received(p)) {
      if (m.type == MessageType::answer && m.uid == uid) out.push_back(m);
    }
    return out;
  }
  static std::vector<Message> asksFor(const sim::SimPage& p, const std::string& cmd) {
    std::vector<Message> out;
    for (auto& m : received(p)) {
      if (m.type == MessageType::ask && m.cmd == cmd) out.push_back(m);
    }
    return out;
  }
  // Waits for the page's one answer to `uid`.
  std::optional<Message> answerTo(const std::shared_ptr<sim::SimPage>& p, const std::string& uid) {
    if (!turnUntil([&] { return !answersTo(*p, uid).empty(); })) {
      ADD_FAILURE() << "no answer to " << uid;
      return std::nullopt;
    }
    return answersTo(*p, uid).front();
  }
  // The page's content script introduces its tab ("VALIDATE_TAB"), which
  // makes the tab known to the extension.
  void introduce(const std::shared_ptr<sim::SimPage>& p, std::int64_t frameId = 0) {
    const std::string uid = "validate-" + std::to_string(++sends_);
    contentAsks(p, uid, std::nullopt, frameId, "VALIDATE_TAB");
    auto answer = answerTo(p, uid);
    EXPECT_TRUE(answer && answer->data == AnyValue(true));
    sim->waitForIdle();
  }
  // The page's content script answers every ask native code sends it with
  // the page's URL (posting on the main thread, as the browser does).
  static void answerWithURL(const std::shared_ptr<sim::SimPage>& p) {
    p->setContentScript([](const std::shared_ptr<sim::SimPage>& self, const sim::DispatchedMessage& m) {
      auto ask = Message::parse(m.userInfo);
      if (!ask || ask->type != MessageType::ask) return;
      Dictionary reply =
          Message{MessageType::answer, ask->uid, {}, AnyValue(self->url().value_or("")), {}, {}, ask->frameId}
              .build();
      std::weak_ptr<sim::SimPage> weak = self;
      MainQueue::shared().post([weak, reply = std::move(reply)] {
        if (auto target = weak.lock()) target->sendMessageToExtension("__APP_EXTENSION__", reply);
      });
    });
  }

  Context context_;
  ScopedContext scope_;
  LogCapture log;
  std::filesystem::path data_;
  std::shared_ptr<sim::SimBrowser> sim = sim::SimBrowser::create();
  SafariExtensionHandler handler{context_};
  std::shared_ptr<sim::SimWindow> window;
  std::shared_ptr<sim::SimTab> tab;
  std::shared_ptr<sim::SimPage> page;

 private:
  int sends_ = 0;
};

}  // namespace appex::testing
