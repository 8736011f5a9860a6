#include "core/dispatch_queue.h"

#include <algorithm>

#include "core/thread_pool.h"

namespace appex {

struct DispatchQueue::Waiter {
  bool granted = false;
};

struct DispatchQueue::Job {
  Block block;
  bool barrier = false;
  bool claimed = false;  // guarded by mutex_: run by exactly one thread
};

std::shared_ptr<DispatchQueue> DispatchQueue::create(std::string label, QueueKind kind) {
  return std::shared_ptr<DispatchQueue>(new DispatchQueue(std::move(label), kind));
}

DispatchQueue::DispatchQueue(std::string label, QueueKind kind)
    : label_(std::move(label)), kind_(kind) {}

DispatchQueue::~DispatchQueue() = default;

namespace {

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

// How long a synchronous caller spins on a busy queue before queueing and
// sleeping. Blocks guarded by these queues are short, so a brief spin turns
// most contended hand-overs into no context switch at all.
constexpr int kSpins = 128;

}  // namespace

DispatchQueue::Ticket::Ticket(DispatchQueue& q, bool barrier) : q_(q), barrier_(barrier) {
  for (int spin = 0; spin < kSpins; ++spin) {
    std::uint64_t s = q_.state_.load(std::memory_order_relaxed);
    // Something queued ahead: keep submission order, take the slow path.
    // Work admitted but not started: go and run it rather than spin.
    if ((s & kPending) || q_.readyCount_.load(std::memory_order_relaxed)) break;
    if (barrier_) {
      // Idle queue: take it whole.
      if (s == 0 && q_.state_.compare_exchange_weak(s, kWriter, std::memory_order_acquire)) return;
    } else if ((s & kWriter) == 0) {
      // No barrier running: join the running readers.
      if (q_.state_.compare_exchange_weak(s, s + 1, std::memory_order_acquire)) return;
      continue;
    }
    cpuRelax();
  }
  q_.enterSlow(barrier_);
}

DispatchQueue::Ticket::~Ticket() { q_.leave(barrier_); }

void DispatchQueue::enterSlow(bool barrier) {
  Waiter waiter;
  std::unique_lock lock(mutex_);
  backlog_.push_back(Item{{}, &waiter, barrier});
  state_.fetch_or(kPending);
  scheduleLocked();
  while (!waiter.granted) {
    if (!ready_.empty()) {
      // Help: run a block due ahead of us rather than wait for a worker.
      std::shared_ptr<Job> job = std::move(ready_.front());
      ready_.pop_front();
      readyCount_.store(ready_.size(), std::memory_order_relaxed);
      job->claimed = true;
      lock.unlock();
      run(job);
      lock.lock();
      continue;
    }
    ++sleepers_;
    {
      ThreadPool::BlockingScope blocking;
      changed_.wait(lock);
    }
    --sleepers_;
  }
}

void DispatchQueue::leave(bool barrier) {
  std::uint64_t after;
  if (barrier) {
    after = state_.fetch_and(~kWriter, std::memory_order_acq_rel) & ~kWriter;
  } else {
    after = state_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  }
  if ((after & kPending) && (after & kReaderMask) == 0) {
    std::lock_guard lock(mutex_);
    scheduleLocked();
  }
}

void DispatchQueue::submitAsync(Block block, bool barrier) {
  std::lock_guard lock(mutex_);
  backlog_.push_back(Item{std::move(block), nullptr, barrier});
  state_.fetch_or(kPending);
  scheduleLocked();
}

void DispatchQueue::scheduleLocked() {
  while (!backlog_.empty()) {
    Item& head = backlog_.front();
    const std::uint64_t s = state_.load();
    if (head.barrier) {
      if (s & (kWriter | kReaderMask)) return;  // wait until the queue drains
      state_.fetch_or(kWriter);
    } else {
      if (s & kWriter) return;
      state_.fetch_add(1);
    }
    Item item = std::move(head);
    backlog_.pop_front();
    if (backlog_.empty()) state_.fetch_and(~kPending);
    if (item.waiter) {
      item.waiter->granted = true;
      if (sleepers_) changed_.notify_all();
    } else {
      startLocked(std::move(item.block), item.barrier);
    }
    if (item.barrier) return;  // a barrier runs alone
  }
  state_.fetch_and(~kPending);
}

void DispatchQueue::startLocked(Block block, bool barrier) {
  auto job = std::make_shared<Job>();
  job->block = std::move(block);
  job->barrier = barrier;
  ready_.push_back(job);
  readyCount_.store(ready_.size(), std::memory_order_relaxed);
  if (sleepers_) changed_.notify_all();
  ThreadPool::shared().post([self = shared_from_this(), job] {
    {
      std::lock_guard lock(self->mutex_);
      if (job->claimed) return;  // a waiting sync caller ran it already
      job->claimed = true;
      auto it = std::find(self->ready_.begin(), self->ready_.end(), job);
      if (it != self->ready_.end()) self->ready_.erase(it);
      self->readyCount_.store(self->ready_.size(), std::memory_order_relaxed);
    }
    self->run(job);
  });
}

void DispatchQueue::run(const std::shared_ptr<Job>& job) {
  job->block();
  job->block = nullptr;  // release captures before the queue moves on
  leave(job->barrier);
}

}  // namespace appex
