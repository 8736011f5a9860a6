#include "platform/sim/sim_core.h"

#include "core/thread_pool.h"

namespace appex::sim {

void SimCore::deliver(Task task) {
  Delivery mode;
  {
    std::lock_guard lock(mutex);
    mode = delivery_;
    ++inFlight_;
  }
  // A completion counts as finished once it has run and released what it
  // captured, so that a test waking from waitForIdle sees every reference
  // the completion held already dropped.
  if (mode == Delivery::inlineOnCaller) {
    task();
    task = nullptr;
    finishedOne();
    return;
  }
  ThreadPool::shared().post([self = shared_from_this(), task = std::move(task)]() mutable {
    task();
    task = nullptr;
    self->finishedOne();
  });
}

void SimCore::finishedOne() {
  {
    std::lock_guard lock(mutex);
    --inFlight_;
    ++generation_;
  }
  changed_.notify_all();
}

void SimCore::setDelivery(Delivery delivery) {
  std::lock_guard lock(mutex);
  delivery_ = delivery;
}

Delivery SimCore::delivery() {
  std::lock_guard lock(mutex);
  return delivery_;
}

void SimCore::setIntake(Intake intake) {
  std::lock_guard lock(mutex);
  intake_ = std::move(intake);
}

Intake SimCore::intake() {
  std::lock_guard lock(mutex);
  return intake_;
}

void SimCore::setRefusesToOpen(bool refuses) { refusesToOpen_.store(refuses); }

bool SimCore::refusesToOpen() const { return refusesToOpen_.load(); }

std::uint64_t SimCore::nextSerial() { return serial_.fetch_add(1) + 1; }

void SimCore::noteChange() {
  {
    std::lock_guard lock(mutex);
    ++generation_;
  }
  changed_.notify_all();
}

bool SimCore::waitUntil(const std::function<bool()>& done, Clock::duration timeout) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    std::uint64_t seen;
    {
      std::lock_guard lock(mutex);
      seen = generation_;
    }
    if (done()) return true;
    std::unique_lock lock(mutex);
    if (!changed_.wait_until(lock, deadline, [&] { return generation_ != seen; })) {
      lock.unlock();
      return done();
    }
  }
}

bool SimCore::waitForIdle(Clock::duration timeout) {
  std::unique_lock lock(mutex);
  return changed_.wait_for(lock, timeout, [&] { return inFlight_ == 0; });
}

}  // namespace appex::sim
