// MainQueue: the serial queue of the thread that drives the main loop.
//
// Work posted here runs on whichever thread drives the queue: a test drives
// it with runUntilIdle / runUntil; the WebKit host attaches a GLib
// main-context driver. Until a driver or a test runs it, posted work waits.
// Blocks run one at a time in posting order. A driver is told through
// `Driver::wakeUp` whenever the queue goes from empty to non-empty.
//
// Thread-safe: post from any thread. Driving is for one thread at a time.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace appex {

class MainQueue {
 public:
  using Block = std::move_only_function<void()>;
  using Clock = std::chrono::steady_clock;

  // Something that runs the main loop and must be woken when work arrives.
  class Driver {
   public:
    virtual ~Driver() = default;
    // Called from any thread, possibly with the queue's lock held: must not
    // call back into MainQueue. The driver should then call drain() soon on
    // its thread.
    virtual void wakeUp() = 0;
  };

  // The process-wide main queue.
  static MainQueue& shared();

  MainQueue() = default;
  MainQueue(const MainQueue&) = delete;
  MainQueue& operator=(const MainQueue&) = delete;

  void post(Block block);

  // Installs (or with nullptr removes) the driver. The driver is woken at
  // once if work is already waiting.
  void setDriver(Driver* driver);

  // Runs every block queued now (and those they queue) on the calling
  // thread, which becomes the main thread while it does. Returns how many
  // ran. For drivers.
  std::size_t drain();

  // Test driving: run blocks until none are left.
  std::size_t runUntilIdle();
  // Run blocks, waiting for new ones, until `done()` holds or `deadline`
  // passes. Returns done().
  bool runUntil(const std::function<bool()>& done, Clock::time_point deadline);
  bool runUntil(const std::function<bool()>& done,
                Clock::duration timeout = std::chrono::seconds(10)) {
    return runUntil(done, Clock::now() + timeout);
  }

  // True while the calling thread is running this queue's blocks (or is the
  // thread that last drove it).
  bool isCurrent() const;

  std::size_t pendingCount();

 private:
  bool runOne();

  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<Block> blocks_;
  Driver* driver_ = nullptr;
  std::atomic<std::thread::id> owner_{};
};

}  // namespace appex
