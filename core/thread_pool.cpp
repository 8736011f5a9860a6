#include "core/thread_pool.h"

#include <chrono>

namespace appex {
namespace {

thread_local ThreadPool* currentPool = nullptr;

// Upper bound on extra workers started for blocked ones; beyond it a
// program that blocks every worker waits, as it would on any fixed pool.
constexpr std::size_t kMaxExtraWorkers = 64;
constexpr auto kExtraIdleTimeout = std::chrono::seconds(2);

}  // namespace

ThreadPool& ThreadPool::shared() {
  static ThreadPool* pool = [] {
    std::size_t n = std::thread::hardware_concurrency();
    return new ThreadPool(n < 2 ? 2 : n);
  }();
  return *pool;
}

ThreadPool::ThreadPool(std::size_t baseWorkers) : baseWorkers_(baseWorkers) {
  std::lock_guard lock(mutex_);
  for (std::size_t i = 0; i < baseWorkers_; ++i) startWorkerLocked(false);
}

ThreadPool::~ThreadPool() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (auto& t : threads_) {
    if (t.joinable()) t.join();
  }
}

void ThreadPool::startWorkerLocked(bool extra) {
  if (extra) ++extras_;
  threads_.emplace_back([this, extra] { workerLoop(extra); });
}

void ThreadPool::post(Task task) {
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    maybeGrowLocked();
  }
  wake_.notify_one();
}

bool ThreadPool::onWorkerThread() { return currentPool != nullptr; }

void ThreadPool::maybeGrowLocked() {
  // Work is waiting, nobody idle, and some workers are stuck in a blocking
  // call: start one more so the blocked ones can make progress.
  if (!tasks_.empty() && idle_ == 0 && blocked_ > 0 && extras_ < kMaxExtraWorkers &&
      !stopping_) {
    startWorkerLocked(true);
  }
}

void ThreadPool::workerLoop(bool extra) {
  currentPool = this;
  std::unique_lock lock(mutex_);
  for (;;) {
    if (tasks_.empty()) {
      if (stopping_) break;
      ++idle_;
      bool timedOut = false;
      if (extra) {
        timedOut = !wake_.wait_for(lock, kExtraIdleTimeout,
                                   [this] { return !tasks_.empty() || stopping_; });
      } else {
        wake_.wait(lock, [this] { return !tasks_.empty() || stopping_; });
      }
      --idle_;
      if (timedOut) {
        --extras_;
        // A retired extra worker takes its thread object out of the pool.
        for (auto it = threads_.begin(); it != threads_.end(); ++it) {
          if (it->get_id() == std::this_thread::get_id()) {
            it->detach();
            threads_.erase(it);
            break;
          }
        }
        break;
      }
      continue;
    }
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    task = nullptr;  // destroy captures outside the lock
    lock.lock();
  }
  currentPool = nullptr;
}

ThreadPool::BlockingScope::BlockingScope() : pool_(currentPool) {
  if (!pool_) return;
  std::lock_guard lock(pool_->mutex_);
  ++pool_->blocked_;
  pool_->maybeGrowLocked();
}

ThreadPool::BlockingScope::~BlockingScope() {
  if (!pool_) return;
  std::lock_guard lock(pool_->mutex_);
  --pool_->blocked_;
}

}  // namespace appex
