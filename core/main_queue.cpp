#include "core/main_queue.h"

#include <algorithm>

namespace appex {

MainQueue& MainQueue::shared() {
  static MainQueue* queue = new MainQueue();  // outlives static destructors
  return *queue;
}

void MainQueue::post(Block block) {
  std::lock_guard lock(mutex_);
  const bool wasEmpty = blocks_.empty();
  blocks_.push_back(std::move(block));
  if (wasEmpty && driver_) driver_->wakeUp();
  arrived_.notify_all();
}

void MainQueue::setDriver(Driver* driver) {
  std::lock_guard lock(mutex_);
  driver_ = driver;
  if (driver_ && !blocks_.empty()) driver_->wakeUp();
}

bool MainQueue::runOne() {
  Block block;
  {
    std::lock_guard lock(mutex_);
    if (blocks_.empty()) return false;
    block = std::move(blocks_.front());
    blocks_.pop_front();
  }
  block();
  return true;
}

std::size_t MainQueue::drain() {
  owner_.store(std::this_thread::get_id());
  std::size_t n = 0;
  while (runOne()) ++n;
  return n;
}

std::size_t MainQueue::runUntilIdle() { return drain(); }

bool MainQueue::runUntil(const std::function<bool()>& done, Clock::time_point deadline) {
  owner_.store(std::this_thread::get_id());
  for (;;) {
    while (runOne()) {
      if (done()) return true;
    }
    if (done()) return true;
    std::unique_lock lock(mutex_);
    if (!blocks_.empty()) continue;
    // Wake periodically: `done` may depend on state changed by other
    // threads without posting here.
    auto wakeAt = std::min(deadline, Clock::now() + std::chrono::milliseconds(5));
    arrived_.wait_until(lock, wakeAt);
    if (Clock::now() >= deadline && blocks_.empty()) {
      lock.unlock();
      return done();
    }
  }
}

bool MainQueue::isCurrent() const { return owner_.load() == std::this_thread::get_id(); }

std::size_t MainQueue::pendingCount() {
  std::lock_guard lock(mutex_);
  return blocks_.size();
}

}  // namespace appex
