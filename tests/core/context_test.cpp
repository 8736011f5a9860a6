#include "core/context.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace appex {
namespace {

std::atomic<int> made{0};

struct Leaf {
  Leaf() { made.fetch_add(1); }
};
struct Root {
  explicit Root(Context& c) : leaf(c.get<Leaf>()) {}
  std::shared_ptr<Leaf> leaf;
};
struct SelfNeeding {
  explicit SelfNeeding(Context& c) { c.get<SelfNeeding>(); }
};

TEST(ContextTest, CreatesEachSharedObjectOnceEvenUnderRaces) {
  made = 0;
  Context context;
  std::vector<std::thread> threads;
  std::vector<std::shared_ptr<Root>> roots(8);
  for (int i = 0; i < 8; ++i) threads.emplace_back([&, i] { roots[i] = context.get<Root>(); });
  for (auto& t : threads) t.join();
  for (auto& r : roots) EXPECT_EQ(r, roots[0]);
  EXPECT_EQ(made.load(), 1);
  EXPECT_EQ(roots[0]->leaf, context.get<Leaf>()) << "dependencies come from the same context";
}

TEST(ContextTest, ScopedContextGivesATestAFreshSet) {
  auto outer = Context::current().get<Leaf>();
  {
    Context fresh;
    ScopedContext scope(fresh);
    EXPECT_NE(Context::current().get<Leaf>(), outer);
    auto installed = std::make_shared<Leaf>();
    Context::current().set(installed);
    EXPECT_EQ(Context::current().find<Leaf>(), installed);
  }
  EXPECT_EQ(Context::current().get<Leaf>(), outer);
}

TEST(ContextDeathTest, CreationThatNeedsItselfStopsWithAMessage) {
  Context context;
  EXPECT_DEATH(context.get<SelfNeeding>(), "needs itself");
}

}  // namespace
}  // namespace appex
