#include "host/callback_utils.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace appex {
namespace {

TEST(CallbackUtilsTest, FinalGetsResultsInIndexOrderFromTheLastStep) {
  std::vector<std::string> got;
  int finals = 0;
  auto step = CallbackUtils::join<std::string>(3, [&](std::vector<std::string> r) {
    got = std::move(r);
    ++finals;
  });
  step(2, "x");
  step(2, "c");  // a repeat before the end replaces, and is not a second step
  step(0, "a");
  EXPECT_EQ(finals, 0);
  step(1, "b");
  EXPECT_EQ(finals, 1);
  EXPECT_EQ(got, (std::vector<std::string>{"a", "b", "c"}));
  step(1, "again");  // no mark of having finished: runs final again
  EXPECT_EQ(finals, 2);
}

TEST(CallbackUtilsTest, StepsAnsweringOnManyThreadsFinishExactlyOnce) {
  for (int round = 0; round < 200; ++round) {
    std::atomic<int> finals{0};
    std::vector<int> got;
    auto step = CallbackUtils::join<int>(4, [&](std::vector<int> r) {
      got = std::move(r);
      finals.fetch_add(1);
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back([&, i] { step(i, i * 10); });
    for (auto& t : threads) t.join();
    ASSERT_EQ(finals.load(), 1);
    EXPECT_EQ(got, (std::vector<int>{0, 10, 20, 30}));
  }
}

TEST(CallbackUtilsDeathTest, IndexOutsideTheStepsIsFatal) {
  auto step = CallbackUtils::join<int>(2, [](std::vector<int>) {});
  EXPECT_DEATH(step(2, 0), "outside");
}

}  // namespace
}  // namespace appex
