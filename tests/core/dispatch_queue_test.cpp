#include "core/dispatch_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <latch>
#include <mutex>
#include <thread>
#include <vector>

#include "core/thread_pool.h"

namespace appex {
namespace {

using namespace std::chrono_literals;

// Waits for `count` arrivals or gives up after a generous deadline, so a
// broken guarantee fails the test instead of hanging it.
class Gate {
 public:
  explicit Gate(int count) : remaining_(count) {}
  bool arriveAndWait(std::chrono::milliseconds limit = 10s) {
    std::unique_lock lock(m_);
    if (--remaining_ == 0) cv_.notify_all();
    return cv_.wait_for(lock, limit, [&] { return remaining_ <= 0; });
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  int remaining_;
};

TEST(DispatchQueueTest, SyncOnIdleQueueRunsOnCallersThread) {
  for (auto kind : {QueueKind::serial, QueueKind::concurrent}) {
    auto q = DispatchQueue::create("q", kind);
    const auto caller = std::this_thread::get_id();
    EXPECT_EQ(q->sync([] { return std::this_thread::get_id(); }), caller);
    EXPECT_EQ(q->barrierSync([] { return std::this_thread::get_id(); }), caller);
  }
}

TEST(DispatchQueueTest, SerialQueueRunsAsyncBlocksOneAtATimeInOrder) {
  auto q = DispatchQueue::create("serial", QueueKind::serial);
  std::vector<int> seen;
  std::atomic<int> running{0};
  bool overlapped = false;
  for (int i = 0; i < 2000; ++i) {
    q->async([&, i] {
      if (running.fetch_add(1) != 0) overlapped = true;
      seen.push_back(i);
      running.fetch_sub(1);
    });
  }
  auto snapshot = q->sync([&] { return seen; });
  ASSERT_EQ(snapshot.size(), 2000u);
  for (int i = 0; i < 2000; ++i) EXPECT_EQ(snapshot[i], i);
  EXPECT_FALSE(overlapped);
}

TEST(DispatchQueueTest, ConcurrentReadersRunInParallel) {
  auto q = DispatchQueue::create("concurrent", QueueKind::concurrent);
  Gate gate(2);
  std::atomic<int> met{0};
  auto reader = [&] { q->sync([&] { if (gate.arriveAndWait()) met.fetch_add(1); }); };
  std::thread a(reader), b(reader);
  a.join();
  b.join();
  EXPECT_EQ(met.load(), 2) << "two readers never overlapped";
}

TEST(DispatchQueueTest, AsyncPlainBlocksOnConcurrentQueueRunInParallel) {
  auto q = DispatchQueue::create("concurrent", QueueKind::concurrent);
  Gate gate(2);
  std::atomic<int> met{0};
  std::latch finished(2);
  for (int i = 0; i < 2; ++i) {
    q->async([&] {
      if (gate.arriveAndWait()) met.fetch_add(1);
      finished.count_down();
    });
  }
  finished.wait();
  EXPECT_EQ(met.load(), 2);
}

TEST(DispatchQueueTest, BarriersRunAloneAndInSubmissionOrder) {
  auto q = DispatchQueue::create("concurrent", QueueKind::concurrent);
  std::atomic<int> readers{0};
  std::atomic<bool> writer{false};
  std::atomic<int> violations{0};
  std::vector<int> writes;  // touched only by barriers
  constexpr int kThreads = 4, kPerThread = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        if (i % 3 == 0) {
          q->barrierAsync([&, t, i] {
            if (writer.exchange(true) || readers.load() != 0) violations.fetch_add(1);
            writes.push_back(t * kPerThread + i);
            writer.store(false);
          });
        } else if (i % 3 == 1) {
          q->sync([&] {
            readers.fetch_add(1);
            if (writer.load()) violations.fetch_add(1);
            readers.fetch_sub(1);
          });
        } else {
          q->async([&] {
            readers.fetch_add(1);
            if (writer.load()) violations.fetch_add(1);
            readers.fetch_sub(1);
          });
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  auto all = q->barrierSync([&] { return writes; });
  EXPECT_EQ(violations.load(), 0);
  ASSERT_EQ(all.size(), static_cast<size_t>(kThreads * ((kPerThread + 2) / 3)));
  // Each thread's own writes were applied in the order it submitted them.
  std::vector<int> last(kThreads, -1);
  for (int w : all) {
    int t = w / kPerThread;
    EXPECT_LT(last[t], w);
    last[t] = w;
  }
}

TEST(DispatchQueueTest, ReadAfterAsyncWriteFromSameThreadSeesIt) {
  auto q = DispatchQueue::create("concurrent", QueueKind::concurrent);
  int value = 0;  // guarded by q
  std::atomic<bool> stop{false};
  // Background readers keep the queue busy so the write really queues.
  std::vector<std::thread> noise;
  for (int i = 0; i < 2; ++i) {
    noise.emplace_back([&] {
      while (!stop.load()) q->sync([&] { return value; });
    });
  }
  for (int i = 1; i <= 5000; ++i) {
    q->barrierAsync([&, i] { value = i; });
    ASSERT_EQ(q->sync([&] { return value; }), i);
  }
  stop.store(true);
  for (auto& th : noise) th.join();
}

TEST(DispatchQueueTest, WorkersBlockedInSyncDoNotStarveThePool) {
  // A barrier on `target` waits until more blocks have started than the pool
  // has base workers, while each of those blocks sits in a sync on `target`.
  // Only a pool that grows when its workers block can get there.
  auto target = DispatchQueue::create("target", QueueKind::concurrent);
  auto outer = DispatchQueue::create("outer", QueueKind::concurrent);
  const int n = static_cast<int>(ThreadPool::shared().baseWorkers()) + 1;
  std::mutex m;
  std::condition_variable cv;
  int started = 0;
  bool allStarted = false;
  std::latch entered(1);
  target->barrierAsync([&] {
    entered.count_down();
    std::unique_lock lock(m);
    allStarted = cv.wait_for(lock, 10s, [&] { return started == n; });
  });
  entered.wait();
  std::latch done(n);
  std::atomic<int> result{0};
  for (int i = 0; i < n; ++i) {
    outer->async([&] {
      {
        std::lock_guard lock(m);
        ++started;
      }
      cv.notify_all();
      result.fetch_add(target->sync([] { return 1; }));
      done.count_down();
    });
  }
  done.wait();
  EXPECT_TRUE(allStarted);
  EXPECT_EQ(result.load(), n);
}

}  // namespace
}  // namespace appex
