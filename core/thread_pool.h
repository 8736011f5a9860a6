// ThreadPool: the one process-wide set of worker threads that every
// DispatchQueue runs its asynchronous blocks on.
//
// The pool starts with one worker per hardware thread (at least two). A
// worker that blocks inside a synchronous dispatch call tells the pool
// (BlockingScope), and the pool then starts an extra worker if work is
// waiting and nobody is idle, so a full pool of blocked workers cannot
// starve the queue they are waiting for. Extra workers retire after a short
// idle spell.
//
// Thread-safe.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace appex {

class ThreadPool {
 public:
  using Task = std::move_only_function<void()>;

  // The process-wide pool, created on first use and never destroyed (workers
  // may still be running blocks while static destructors run).
  static ThreadPool& shared();

  explicit ThreadPool(std::size_t baseWorkers);
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  // Runs `task` on some worker, later. Tasks start in submission order.
  void post(Task task);

  // True on a thread owned by any ThreadPool.
  static bool onWorkerThread();

  std::size_t baseWorkers() const { return baseWorkers_; }

  // Marks the current thread as blocked for its lifetime. Cheap off the pool.
  class BlockingScope {
   public:
    BlockingScope();
    ~BlockingScope();
    BlockingScope(const BlockingScope&) = delete;
    BlockingScope& operator=(const BlockingScope&) = delete;

   private:
    ThreadPool* pool_;
  };

 private:
  void workerLoop(bool extra);
  void startWorkerLocked(bool extra);
  void maybeGrowLocked();

  const std::size_t baseWorkers_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Task> tasks_;
  std::vector<std::thread> threads_;
  std::size_t idle_ = 0;
  std::size_t blocked_ = 0;
  std::size_t extras_ = 0;
  bool stopping_ = false;
};

}  // namespace appex
