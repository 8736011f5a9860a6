#include "core/event_emitter.h"

#include <gtest/gtest.h>

#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/log.h"
#include "tests/core/log_capture.h"

namespace appex {
namespace {

using testing::LogCapture;

using Emitter = EventEmitter<int>;

class RegistryTest : public ::testing::Test {
 protected:
  std::vector<std::string> hooks;
  std::shared_ptr<Registry<int, int, int>> registry = Registry<int, int, int>::create(
      [this](int item, const int& data, const std::string& id) -> DeliveryResult {
        delivered.push_back(id + ":" + std::to_string(item) + "<-" + std::to_string(data));
        if (item < 0) return std::unexpected(std::string("negative"));
        return {};
      },
      [](const int& i) { return i; }, {},
      [this](const std::string& id) { hooks.push_back("zero " + id); },
      [this](const std::string& id) { hooks.push_back("one " + id); });
  std::vector<std::string> delivered;
};

TEST_F(RegistryTest, HooksFollowTheListSize) {
  registry->fire("never", 1);
  EXPECT_TRUE(delivered.empty());

  registry->add("e", 1);
  registry->add("e", 2);
  EXPECT_EQ(hooks, std::vector<std::string>{"one e"});

  registry->remove("e", 7);  // no match in a non-empty list: nothing
  EXPECT_EQ(hooks.size(), 1u);
  registry->remove("e", 1);
  registry->remove("e", 2);
  EXPECT_EQ(hooks.back(), "zero e");
  registry->remove("e", 2);  // already empty: onZero again
  EXPECT_EQ(hooks, (std::vector<std::string>{"one e", "zero e", "zero e"}));
  EXPECT_EQ(registry->listSizes().at("e"), 0u) << "an emptied list stays";
  registry->remove("unknown", 1);  // no list: no hook
  EXPECT_EQ(hooks.size(), 3u);

  registry->fire("e", 5);
  EXPECT_TRUE(delivered.empty());
  registry->add("e", 3);
  EXPECT_EQ(hooks.back(), "one e");
}

TEST_F(RegistryTest, FailedDeliveryIsLoggedAndTheRestStillRun) {
  LogCapture log;
  registry->add("ev", 1);
  registry->add("ev", -1);
  registry->add("ev", 2);
  registry->fire("ev", 9);
  EXPECT_EQ(delivered, (std::vector<std::string>{"ev:1<-9", "ev:-1<-9", "ev:2<-9"}));
  EXPECT_EQ(log.lines(), std::vector<std::string>{"Error in fire for id: ev"});
}

TEST(EventEmitterTest, ListenersChangingSubscriptionsDuringFireAffectOnlyLaterRounds) {
  auto emitter = Emitter::create();
  std::vector<std::string> calls;
  Disposer disposeB;
  auto disposeA = emitter->on("tick", [&](const int& v, const std::string& name) {
    calls.push_back("a" + std::to_string(v) + name);
    disposeB();  // unsubscribes the next listener
  });
  disposeB = emitter->on("tick", [&](const int& v, const std::string&) {
    calls.push_back("b" + std::to_string(v));
  });
  emitter->fire("tick", 1);
  emitter->fire("tick", 2);
  EXPECT_EQ(calls, (std::vector<std::string>{"a1tick", "b1", "a2tick"}));
}

TEST(EventEmitterTest, ThrowingListenerIsReportedAndOthersRun) {
  LogCapture log;
  auto emitter = Emitter::create();
  int after = 0;
  emitter->on("x", [](const int&, const std::string&) { throw std::runtime_error("boom"); });
  emitter->on("x", [&](const int& v, const std::string&) { after = v; });
  emitter->fire("x", 4);
  EXPECT_EQ(after, 4);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"Error in fire for id: x"});
}

TEST(EventEmitterTest, SameWrapperTwiceIsCalledTwiceAndRemovedTogether) {
  auto emitter = Emitter::create();
  int calls = 0;
  auto wrapper = std::make_shared<ListenerWrapper<int>>([&](const int&, const std::string&) { ++calls; });
  emitter->add("e", wrapper);
  auto dispose = emitter->add("e", wrapper);
  emitter->fire("e", 0);
  EXPECT_EQ(calls, 2);
  dispose();
  emitter->fire("e", 0);
  EXPECT_EQ(calls, 2);
  dispose();  // disposers may be called again
}

TEST(EventEmitterTest, DisposerAfterTheEmitterIsGoneDoesNothing) {
  Disposer dispose;
  {
    auto emitter = Emitter::create();
    dispose = emitter->on("e", [](const int&, const std::string&) {});
  }
  dispose();
}

TEST(EventEmitterTest, FiringFromManyThreadsWhileSubscribing) {
  auto emitter = Emitter::create();
  std::atomic<int> total{0};
  emitter->on("e", [&](const int& v, const std::string&) { total.fetch_add(v); });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 1000; ++i) {
        if (t == 0) {
          auto d = emitter->on("other", [](const int&, const std::string&) {});
          d();
        } else {
          emitter->fire("e", 1);
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(total.load(), 3000);
}

}  // namespace
}  // namespace appex
