#include "core/main_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace appex {
namespace {

TEST(MainQueueTest, BlocksPostedFromManyThreadsRunOnTheDrivingThreadInPerThreadOrder) {
  MainQueue q;
  std::vector<std::pair<int, int>> ran;
  std::atomic<bool> wrongThread{false};
  const auto driver = std::this_thread::get_id();
  std::vector<std::thread> posters;
  for (int t = 0; t < 4; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; i < 250; ++i) {
        q.post([&, t, i] {
          if (std::this_thread::get_id() != driver) wrongThread = true;
          ran.emplace_back(t, i);
        });
      }
    });
  }
  EXPECT_TRUE(q.runUntil([&] { return ran.size() == 1000; }));
  for (auto& p : posters) p.join();
  EXPECT_FALSE(wrongThread.load());
  std::vector<int> next(4, 0);
  for (auto [t, i] : ran) EXPECT_EQ(i, next[t]++);
  EXPECT_TRUE(q.isCurrent());
}

TEST(MainQueueTest, DriverIsWokenWhenWorkArrivesAndRunUntilHonoursItsDeadline) {
  struct CountingDriver : MainQueue::Driver {
    std::atomic<int> wakes{0};
    void wakeUp() override { wakes.fetch_add(1); }
  } driver;
  MainQueue q;
  q.post([] {});
  q.setDriver(&driver);
  EXPECT_EQ(driver.wakes.load(), 1) << "work already waiting wakes a new driver";
  q.post([] {});
  EXPECT_EQ(driver.wakes.load(), 1) << "only the empty-to-busy edge wakes";
  EXPECT_EQ(q.drain(), 2u);
  q.post([] {});
  EXPECT_EQ(driver.wakes.load(), 2);
  q.setDriver(nullptr);
  q.drain();
  EXPECT_FALSE(q.runUntil([] { return false; }, std::chrono::milliseconds(20)));
}

}  // namespace
}  // namespace appex
