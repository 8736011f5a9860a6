#include "core/dispatch_queue.h"

#include "core/thread_pool.h"

namespace appex {

struct DispatchQueue::Waiter {
  std::condition_variable cv;
  bool granted = false;
};

std::shared_ptr<DispatchQueue> DispatchQueue::create(std::string label, QueueKind kind) {
  return std::shared_ptr<DispatchQueue>(new DispatchQueue(std::move(label), kind));
}

DispatchQueue::DispatchQueue(std::string label, QueueKind kind)
    : label_(std::move(label)), kind_(kind) {}

DispatchQueue::~DispatchQueue() = default;

DispatchQueue::Ticket::Ticket(DispatchQueue& q, bool barrier) : q_(q), barrier_(barrier) {
  std::uint64_t s = q_.state_.load(std::memory_order_relaxed);
  if (barrier_) {
    // Idle queue: take it whole.
    if (s == 0 && q_.state_.compare_exchange_strong(s, kWriter, std::memory_order_acquire))
      return;
  } else {
    // No barrier running and nothing queued ahead: join the running readers.
    while ((s & (kWriter | kPending)) == 0) {
      if (q_.state_.compare_exchange_weak(s, s + 1, std::memory_order_acquire)) return;
    }
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
  if (!waiter.granted) {
    ThreadPool::BlockingScope blocking;
    waiter.cv.wait(lock, [&] { return waiter.granted; });
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
      item.waiter->cv.notify_one();
    } else {
      runAsync(std::move(item.block), item.barrier);
    }
    if (item.barrier) return;  // a barrier runs alone
  }
  state_.fetch_and(~kPending);
}

void DispatchQueue::runAsync(Block block, bool barrier) {
  ThreadPool::shared().post(
      [self = shared_from_this(), block = std::move(block), barrier]() mutable {
        block();
        block = nullptr;  // release captures before the queue moves on
        self->leave(barrier);
      });
}

}  // namespace appex
