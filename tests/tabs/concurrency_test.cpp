// Races between page messages, builds, replies and closing, with every
// browser completion on a worker thread. Run under TSan in CI.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <set>
#include <thread>

#include "core/thread_pool.h"
#include "tests/tabs/tabs_fixture.h"

namespace appex::testing {
namespace {

class TabsConcurrencyTest : public TabsFixture {
 protected:
  static constexpr int kWindows = 3;
  static constexpr int kTabsPerWindow = 6;

  void SetUp() override {
    for (int w = 0; w < kWindows; ++w) {
      auto window = sim->openWindow(w == 1);
      for (int t = 0; t < kTabsPerWindow; ++t) {
        allTabs.push_back(window->addTab("https://w" + std::to_string(w) + ".example/t" + std::to_string(t)));
      }
    }
  }

  std::vector<std::shared_ptr<sim::SimTab>> allTabs;
};

TEST_F(TabsConcurrencyTest, PageMessagesFromManyThreadsGiveEachTabOneIdentity) {
  std::mutex mutex;
  std::map<std::string, std::set<std::string>> idsByUrl;  // tab url -> tab ids seen in meta
  std::atomic<int> asks{0};
  tabs->setHandler([&](Message m, ResultCallback reply) {
    const auto& meta = m.args->at("action").at("args").at("meta");
    {
      std::lock_guard lock(mutex);
      idsByUrl[meta.at("tabUrl").as_string().c_str()].insert(meta.at("tabId").as_string().c_str());
    }
    ++asks;
    reply(success(true));
  });

  constexpr int kRounds = 5;
  std::vector<std::thread> senders;
  for (int s = 0; s < 4; ++s) {
    senders.emplace_back([&, s] {
      for (int round = 0; round < kRounds; ++round) {
        for (std::size_t i = s; i < allTabs.size(); i += 2) {
          auto page = allTabs[i]->activePage();
          page->sendMessageToExtension("__APP_EXTENSION__",
                                       ask("s" + std::to_string(s) + "-" + std::to_string(round), "messaging",
                                           routed(Dictionary{}), round % 2 ? 0 : 2));
          if (round == 2) page->sendMessageToExtension("__APP_EXTENSION__", ask("v", "VALIDATE_TAB", {}, 0));
        }
      }
    });
  }
  for (auto& t : senders) t.join();
  const int expected = [&] {
    int n = 0;
    for (int s = 0; s < 4; ++s) n += kRounds * static_cast<int>((allTabs.size() - s + 1) / 2);
    return n;
  }();
  ASSERT_TRUE(sim->waitUntil([&] { return asks.load() == expected; }));
  sim->waitForIdle();

  std::set<std::string> distinct;
  for (const auto& [url, ids] : idsByUrl) {
    EXPECT_EQ(ids.size(), 1u) << url;
    distinct.insert(ids.begin(), ids.end());
  }
  EXPECT_EQ(distinct.size(), allTabs.size());
  EXPECT_EQ(tabs->tabCache().list().count(), allTabs.size());
  EXPECT_EQ(windows->cache().list().count(), static_cast<std::size_t>(kWindows));
  EXPECT_EQ(tabEvents.count("create"), static_cast<int>(allTabs.size())) << "each tab announced once";

  // Every asking page got exactly its answers back.
  for (const auto& tab : allTabs) {
    for (const auto& m : tab->activePage()->receivedMessages()) EXPECT_EQ(Message::parse(m.userInfo)->type, MessageType::answer);
  }
}

TEST_F(TabsConcurrencyTest, RepliesToManyTabAsksEachRunOnceWithTheirOwnAnswer) {
  for (const auto& tab : allTabs) {
    tab->activePage()->setContentScript([](const std::shared_ptr<sim::SimPage>& page, const sim::DispatchedMessage& m) {
      auto ask = Message::parse(m.userInfo);
      if (!ask || ask->type != MessageType::ask) return;
      // Answer later from another thread, as a page's script would.
      ThreadPool::shared().post([page, uid = ask->uid, args = *ask->args] {
        page->sendMessageToExtension("__APP_EXTENSION__", Dictionary{{"type", "ANSWER"}, {"uid", uid}, {"data", args}});
      });
    });
  }
  std::vector<std::string> ids;
  for (const auto& tab : allTabs) ids.push_back(stateOf(tab)->id());

  constexpr int kPerTab = 10;
  std::mutex mutex;
  std::map<std::int64_t, int> answers;  // ask number -> times answered
  std::atomic<int> wrong{0};
  std::vector<std::thread> senders;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    senders.emplace_back([&, i] {
      for (int k = 0; k < kPerTab; ++k) {
        const std::int64_t n = static_cast<std::int64_t>(i) * kPerTab + k;
        tabs->sendToTab(ids[i], std::nullopt, "echo", AnyValue(n), [&, n](Result r) {
          std::lock_guard lock(mutex);
          ++answers[n];
          if (!r || r.value() != AnyValue(n)) ++wrong;
        });
      }
    });
  }
  for (auto& t : senders) t.join();
  const std::size_t total = ids.size() * kPerTab;
  ASSERT_TRUE(sim->waitUntil([&] {
    std::lock_guard lock(mutex);
    return answers.size() == total;
  }));
  sim->waitForIdle();
  std::this_thread::sleep_for(50ms);  // a reply run twice would land by now
  std::lock_guard lock(mutex);
  for (const auto& [n, times] : answers) EXPECT_EQ(times, 1) << n;
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(tabs->callbacks().count(), 0u);
}

TEST_F(TabsConcurrencyTest, ClosingTabsWhileQueryingAndRebuildingStaysConsistent) {
  std::atomic<bool> stop{false};
  std::atomic<int> queries{0};
  std::thread querier([&] {
    while (!stop) {
      auto r = call([&](ResultCallback cb) { tabs->queryTabs(TabQuery::fromArguments({{"currentWindow", true}}), std::move(cb)); });
      EXPECT_TRUE(r.has_value());
      ++queries;
    }
  });
  std::thread rebuilder([&] {
    for (const auto& tab : allTabs) tabs->buildTabState(tab, tab->activePage(), false, [](auto) {});
  });
  for (std::size_t i = 0; i < allTabs.size(); i += 3) allTabs[i]->close();
  rebuilder.join();
  ASSERT_TRUE(sim->waitUntil([&] { return queries.load() >= 3; }));
  stop = true;
  querier.join();
  sim->waitForIdle();

  // Every tab that was ever snapshotted kept one identity.
  std::set<std::string> ids;
  for (const auto& entry : tabs->tabCache().list().unthreaded()) ids.insert(entry.value->id());
  EXPECT_EQ(ids.size(), tabs->tabCache().list().count());
  EXPECT_LE(ids.size(), allTabs.size());
  auto all = call([&](ResultCallback cb) { tabs->allTabs(std::move(cb)); });
  EXPECT_EQ(all.value()->as_array().size(), allTabs.size() - (allTabs.size() + 2) / 3);
}

TEST_F(TabsConcurrencyTest, HandlerCanBeReplacedWhileMessagesArrive) {
  std::atomic<int> first{0}, second{0};
  tabs->setHandler([&](Message, ResultCallback) { ++first; });
  std::thread sender([&] {
    for (int i = 0; i < 50; ++i) {
      allTabs[i % allTabs.size()]->activePage()->sendMessageToExtension(
          "__APP_EXTENSION__", ask("h" + std::to_string(i), "messaging", routed(Dictionary{})));
    }
  });
  tabs->setHandler([&](Message, ResultCallback) { ++second; });
  sender.join();
  ASSERT_TRUE(sim->waitUntil([&] { return first + second == 50; }));
}

}  // namespace
}  // namespace appex::testing
