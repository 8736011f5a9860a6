#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "core/label_dispatch.h"
#include "core/main_queue.h"
#include "core/threaded_array.h"
#include "core/threaded_dictionary.h"
#include "core/threaded_object.h"

namespace appex {
namespace {

int labelNumber(const std::string& label) {
  const std::string prefix = "com.threading.dispatchqueue_";
  EXPECT_EQ(label.rfind(prefix, 0), 0u) << label;
  return std::stoi(label.substr(prefix.size()));
}

TEST(ThreadedObjectTest, QueuesAreLabelledInCreationOrder) {
  ThreadedObject<int> a(0), b(0, ThreadingType::serial);
  EXPECT_EQ(labelNumber(b.label()), labelNumber(a.label()) + 1);
  EXPECT_EQ(a.threadingType(), ThreadingType::concurrent);
  EXPECT_EQ(b.threadingType(), ThreadingType::serial);
  const std::string next = LabelDispatch::nextLabel();
  EXPECT_EQ(labelNumber(next), labelNumber(b.label()) + 1);
}

TEST(ThreadedObjectTest, AsyncThenSyncFromSameThreadSeesTheWrite) {
  for (auto type : {ThreadingType::concurrent, ThreadingType::serial}) {
    ThreadedObject<std::vector<int>> obj({}, type);
    for (int i = 0; i < 1000; ++i) {
      obj.async([i](std::vector<int>& v) { v.push_back(i); });
      ASSERT_EQ(obj.sync([](const std::vector<int>& v) { return v.size(); }), size_t(i + 1));
    }
  }
}

TEST(ThreadedObjectTest, ManyWritersAndReadersUnderRealThreads) {
  // Writers from several threads, mixing waiting and non-waiting writes;
  // readers check they never observe a half-applied write (the pair stays
  // equal) and that values only grow.
  struct Pair {
    long a = 0, b = 0;
  };
  ThreadedObject<Pair> obj;
  constexpr int kWriters = 4, kWrites = 2000;
  std::atomic<bool> readersFailed{false};
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int r = 0; r < 2; ++r) {
    threads.emplace_back([&] {
      long last = 0;
      while (!stop.load()) {
        Pair p = obj.sync([](const Pair& v) { return v; });
        if (p.a != p.b || p.a < last) readersFailed = true;
        last = p.a;
      }
    });
  }
  std::vector<std::thread> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([&, w] {
      for (int i = 0; i < kWrites; ++i) {
        if ((i + w) % 2) {
          obj.async([](Pair& p) { ++p.a; ++p.b; });
        } else {
          obj.mutatingSync([](Pair& p) { ++p.a; ++p.b; return 0; });
        }
      }
    });
  }
  for (auto& t : writers) t.join();
  Pair final = obj.sync([](const Pair& v) { return v; });
  stop = true;
  for (auto& t : threads) t.join();
  EXPECT_EQ(final.a, kWriters * kWrites);
  EXPECT_EQ(final.b, kWriters * kWrites);
  EXPECT_FALSE(readersFailed.load());
}

TEST(ThreadedObjectTest, QueuedWritesOutliveTheObject) {
  std::latch hold(1), finished(10);
  {
    ThreadedObject<int> obj(0);
    obj.async([&](int&) { hold.wait(); });
    for (int i = 0; i < 10; ++i) obj.async([&](int& v) { v += 1; finished.count_down(); });
  }  // destroyed while its writes are queued
  hold.count_down();
  finished.wait();  // would hang or crash if the queued writes were lost
}

TEST(ThreadedDictionaryTest, MissingKeysAndRemovalByNothing) {
  ThreadedDictionary<std::string, int> d;
  EXPECT_EQ(d.get("x"), std::nullopt);
  EXPECT_EQ(d.removeValue("x"), std::nullopt);
  d.set("a", 1);
  d.set("b", 2);
  EXPECT_EQ(d.get("a"), 1);
  d.set("a", std::nullopt);
  EXPECT_EQ(d.keys(), std::vector<std::string>{"b"});
  EXPECT_EQ(d.removeValue("b"), 2);
  EXPECT_EQ(d.count(), 0u);
  int calls = 0;
  EXPECT_TRUE(d.mapValues([&](int v) { ++calls; return v; }).empty());
  EXPECT_EQ(calls, 0);
}

TEST(ThreadedDictionaryTest, MoveOnlyValuesAreTakenOnce) {
  // The callback tables: many threads race to take the same uid; exactly one
  // wins and its callback runs once.
  ThreadedDictionary<std::string, std::move_only_function<void()>> callbacks;
  std::atomic<int> calls{0};
  constexpr int kKeys = 500;
  for (int i = 0; i < kKeys; ++i) callbacks.set(std::to_string(i), [&] { calls.fetch_add(1); });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kKeys; ++i) {
        if (auto cb = callbacks.removeValue(std::to_string(i))) (*cb)();
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(calls.load(), kKeys);
  EXPECT_EQ(callbacks.count(), 0u);
}

TEST(ThreadedArrayTest, AppendThenReadListsItLast) {
  ThreadedArray<int> a;
  EXPECT_EQ(a.startIndex(), 0);
  EXPECT_EQ(a.endIndex(), 0);
  EXPECT_TRUE(a.enumerated().empty());
  a.append(1);
  a.append(std::vector<int>{2, 3});
  EXPECT_EQ(a.unthreaded(), (std::vector<int>{1, 2, 3}));
  a.set(0, 9);
  EXPECT_EQ(a.at(0), 9);
  auto e = a.enumerated();
  ASSERT_EQ(e.size(), 3u);
  EXPECT_EQ(e[2].first, 2);
  EXPECT_EQ(e[2].second, 3);
}

TEST(ThreadedArrayTest, SnapshotsKeepTheirContentsAcrossLaterWrites) {
  ThreadedArray<std::string> a(std::vector<std::string>{"a", "b"});
  auto before = a.snapshot();
  a.set(0, "changed");
  a.append("c");
  a.removeLast();
  a.removeFirst();
  EXPECT_EQ(*before, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(a.unthreaded(), std::vector<std::string>{"b"});
  // Writers and snapshot takers racing: every snapshot is one whole state.
  std::atomic<bool> torn{false};
  std::thread reader([&] {
    for (int i = 0; i < 2000; ++i) {
      auto s = a.snapshot();
      for (const auto& e : *s) if (e.empty()) torn = true;
    }
  });
  for (int i = 0; i < 2000; ++i) a.append(std::to_string(i));
  reader.join();
  EXPECT_FALSE(torn.load());
  EXPECT_EQ(a.count(), 2001u);
}

TEST(ThreadedArrayTest, RemovalCallbacksRunOnceOnTheMainQueueAfterReturning) {
  auto& main = MainQueue::shared();
  main.runUntilIdle();
  ThreadedArray<int> a(std::vector<int>{10, 20, 30, 40});
  std::vector<int> removed;
  std::vector<std::thread::id> threads;
  a.remove(1, [&](int v) { removed.push_back(v); threads.push_back(std::this_thread::get_id()); });
  a.removeFirst([&](int v) { removed.push_back(v); threads.push_back(std::this_thread::get_id()); });
  a.removeLast();  // no callback: nothing to deliver
  EXPECT_TRUE(removed.empty()) << "callbacks must not run inside the removal call";
  EXPECT_EQ(a.unthreaded(), std::vector<int>{30});
  ASSERT_TRUE(main.runUntil([&] { return removed.size() == 2; }));
  main.runUntilIdle();
  EXPECT_EQ(removed, (std::vector<int>{20, 10}));
  for (auto id : threads) EXPECT_EQ(id, std::this_thread::get_id());
}

TEST(ThreadedArrayDeathTest, OutOfRangeStopsTheProcess) {
  ThreadedArray<int> a(std::vector<int>{1});
  EXPECT_DEATH(a.at(5), "out of range");
}

}  // namespace
}  // namespace appex
