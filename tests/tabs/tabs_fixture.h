// Shared setup for the tab and window tests: a fresh Context with a
// simulated browser installed (completions on worker threads), the tab and
// window registries, a capture of log lines and of tab events, and a way to
// wait for a command's single result.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/context.h"
#include "core/log.h"
#include "tests/core/log_capture.h"
#include "host/any_value.h"
#include "host/event_payload.h"
#include "host/message.h"
#include "host/result.h"
#include "platform/sim/sim_browser.h"
#include "platform/sim/sim_page.h"
#include "platform/sim/sim_tab.h"
#include "platform/sim/sim_window.h"
#include "tabs/safari_tab_api.h"
#include "tabs/safari_window_api.h"

namespace appex::testing {

using namespace std::chrono_literals;


// Everything a tab or window emitter fired, in order, with markers tests
// add to check ordering against completions.
class EventLog {
 public:
  struct Entry {
    std::string name;
    EventPayload payload;
  };

  void attach(const std::shared_ptr<EventEmitter<EventPayload>>& emitter) {
    for (const char* name : {"create", "update"}) {
      disposers_.push_back(emitter->on(name, [this](const EventPayload& payload, const std::string& event) {
        std::lock_guard lock(mutex_);
        entries_.push_back({event, payload});
      }));
    }
  }
  void mark(const std::string& name) {
    std::lock_guard lock(mutex_);
    entries_.push_back({name, {}});
  }
  std::vector<Entry> entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
  }
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (const auto& e : entries()) out.push_back(e.name);
    return out;
  }
  int count(const std::string& name) const {
    int n = 0;
    for (const auto& e : entries()) n += e.name == name;
    return n;
  }
  ~EventLog() {
    for (auto& dispose : disposers_) dispose();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
  std::vector<Disposer> disposers_;
};

class TabsFixture : public ::testing::Test {
 protected:
  TabsFixture() : scope_(context_) {
    sim->install(context_);
    tabs = SafariTabAPI::shared();
    windows = SafariWindowAPI::shared();
    std::weak_ptr<SafariTabAPI> weakTabs = tabs;
    sim->setIntake([weakTabs](std::string name, std::shared_ptr<SFSafariPage> page,
                              std::optional<Dictionary> userInfo) {
      if (auto t = weakTabs.lock()) t->onPageMessage(name, std::move(userInfo), std::move(page));
    });
    tabEvents.attach(tabs->emitter());
    windowEvents.attach(windows->emitter());
  }

  ~TabsFixture() override { EXPECT_TRUE(sim->waitForIdle()) << "the browser never fell quiet"; }

  // Runs `op` with a completion and waits for its one result, and then for
  // the events that may follow it.
  template <class Op>
  Result call(Op&& op) {
    auto promise = std::make_shared<std::promise<Result>>();
    auto future = promise->get_future();
    op([promise](Result r) { promise->set_value(std::move(r)); });
    if (future.wait_for(10s) != std::future_status::ready) {
      ADD_FAILURE() << "no result";
      return failure("<no result>");
    }
    sim->waitForIdle();
    return future.get();
  }

  // The snapshot of `tab` as getTabState hands it out, once the event that
  // may follow has fired.
  std::shared_ptr<TabState> stateOf(const std::shared_ptr<SFSafariTab>& tab) {
    auto promise = std::make_shared<std::promise<std::shared_ptr<TabState>>>();
    auto future = promise->get_future();
    tabs->getTabState(tab, [promise](std::shared_ptr<TabState> s) { promise->set_value(std::move(s)); });
    EXPECT_EQ(future.wait_for(10s), std::future_status::ready);
    auto state = future.get();
    sim->waitForIdle();
    return state;
  }

  // The window registry's snapshot of `window`, or nullptr.
  std::shared_ptr<WindowState> stateOfWindow(const std::shared_ptr<SFSafariWindow>& window) {
    auto found = windows->cache().get(WeakRef<SFSafariWindow>(window));
    return found ? found->value : nullptr;
  }

  // Rebuilds the snapshot of `tab` from its active page, with events.
  std::shared_ptr<TabState> rebuild(const std::shared_ptr<sim::SimTab>& tab, bool suppress = false) {
    auto promise = std::make_shared<std::promise<std::shared_ptr<TabState>>>();
    auto future = promise->get_future();
    tabs->buildTabState(tab, tab->activePage(), suppress,
                        [promise](std::shared_ptr<TabState> s) { promise->set_value(std::move(s)); });
    EXPECT_EQ(future.wait_for(10s), std::future_status::ready);
    auto state = future.get();
    sim->waitForIdle();  // the event follows the completion
    return state;
  }

  static Dictionary ask(const std::string& uid, const std::string& cmd, std::optional<AnyValue> args,
                        std::optional<std::int64_t> frameId = 0) {
    Message m;
    m.type = MessageType::ask;
    m.uid = uid;
    m.cmd = cmd;
    m.args = std::move(args);
    m.frameId = frameId;
    return m.build();
  }

  // A routed request whose action carries `meta`.
  static AnyValue routed(AnyValue meta) {
    return Dictionary{{"target", "background"},
                      {"action", Dictionary{{"cmd", "ping"}, {"args", Dictionary{{"meta", std::move(meta)}}}}}};
  }

  static const Dictionary& dict(const Result& r) { return r.value()->as_object(); }

  Context context_;
  ScopedContext scope_;
  LogCapture log;
  std::shared_ptr<sim::SimBrowser> sim = sim::SimBrowser::create();
  std::shared_ptr<SafariTabAPI> tabs;
  std::shared_ptr<SafariWindowAPI> windows;
  EventLog tabEvents;
  EventLog windowEvents;
};

}  // namespace appex::testing
