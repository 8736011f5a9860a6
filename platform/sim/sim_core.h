// SimCore: the state every object of one simulated browser shares: the one
// mutex that guards all of them, how completions are delivered, the
// extension's page-message intake, and the bookkeeping that lets tests wait
// for the browser to fall quiet.
//
// Owned jointly (shared_ptr) by the browser, each of its objects and each
// queued completion, so an object outliving its browser still has a lock to
// take. Create with std::make_shared. Internal to the
// simulated browser; tests use SimBrowser.
//
// Thread-safe. REQUIRES: deliver(), intake() and the wait functions are
// called without `mutex` held.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "host/any_value.h"

namespace appex {
class SFSafariPage;
}

namespace appex::sim {

// Where completions run.
enum class Delivery {
  // On the shared worker pool, never on the calling thread (the default:
  // completions race each other and the caller, as in the real browser).
  workerThreads,
  // On the calling thread before the query returns, for step-by-step tests.
  inlineOnCaller,
};

// The extension's entry for page messages: (name, sending page, user info).
using Intake = std::function<void(std::string, std::shared_ptr<SFSafariPage>,
                                  std::optional<Dictionary>)>;

class SimCore : public std::enable_shared_from_this<SimCore> {
 public:
  using Clock = std::chrono::steady_clock;
  using Task = std::move_only_function<void()>;

  // Guards the state of every object of this browser.
  std::mutex mutex;

  // Runs `task` as a completion, per the current delivery.
  void deliver(Task task);

  void setDelivery(Delivery delivery);
  Delivery delivery();

  void setIntake(Intake intake);
  Intake intake();

  // When set, opening a tab or a window answers nullptr. Lock-free.
  void setRefusesToOpen(bool refuses);
  bool refusesToOpen() const;

  // A number for naming a new object in descriptions. Lock-free: may be
  // called with `mutex` held.
  std::uint64_t nextSerial();

  // Wakes waitUntil(); call after any change a test may wait for.
  // REQUIRES: `mutex` is not held.
  void noteChange();

  // Re-evaluates `done` (without the lock) after every change, until it
  // holds or `timeout` passes. Returns done().
  bool waitUntil(const std::function<bool()>& done, Clock::duration timeout);
  // Waits until no completion is queued or running.
  bool waitForIdle(Clock::duration timeout);

 private:
  void finishedOne();

  std::atomic<bool> refusesToOpen_{false};
  std::atomic<std::uint64_t> serial_{0};
  // Guarded by `mutex`.
  Delivery delivery_ = Delivery::workerThreads;
  Intake intake_;
  std::size_t inFlight_ = 0;
  std::uint64_t generation_ = 0;
  std::condition_variable changed_;
};

}  // namespace appex::sim
