// DispatchQueue: a labelled queue of blocks, serial or concurrent, run on the
// shared ThreadPool (or inline on the caller's thread for synchronous calls).
//
// Ordering guarantees, for one queue:
//  * Blocks start in submission order.
//  * On a concurrent queue, plain blocks run in parallel with each other; a
//    barrier block runs alone: it starts once everything submitted before it
//    has finished, and nothing submitted after it starts until it finishes.
//  * On a serial queue every block behaves as a barrier.
//  * So a block submitted after a barrier from the same thread sees the
//    barrier's effects, whether either was synchronous or not.
//
// Synchronous submissions (sync, barrierSync) always run their block on the
// calling thread, like libdispatch: on an idle queue the cost is an atomic
// compare-and-swap on entry and an atomic decrement on exit, about that of a
// shared-mutex lock. On a busy queue with nothing queued, the caller spins
// briefly before it queues and sleeps; while it waits its turn it runs,
// itself, asynchronous blocks that are due ahead of it but that no worker
// has picked up yet (so a read right after an async write does not wait for
// a worker to wake). Calling sync on the queue you are running on deadlocks.
//
// Thread-safe. A queue is kept alive by the blocks queued on it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace appex {

enum class QueueKind { serial, concurrent };

class DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
 public:
  using Block = std::move_only_function<void()>;

  static std::shared_ptr<DispatchQueue> create(std::string label, QueueKind kind);

  const std::string& label() const { return label_; }
  QueueKind kind() const { return kind_; }

  // Submits `block` and returns at once.
  void async(Block block) { submitAsync(std::move(block), kind_ == QueueKind::serial); }
  void barrierAsync(Block block) { submitAsync(std::move(block), true); }

  // Runs `fn` on the calling thread in the queue's order and returns its
  // result.
  template <class F>
  decltype(auto) sync(F&& fn) {
    Ticket ticket(*this, kind_ == QueueKind::serial);
    return std::forward<F>(fn)();
  }
  template <class F>
  decltype(auto) barrierSync(F&& fn) {
    Ticket ticket(*this, true);
    return std::forward<F>(fn)();
  }

  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;
  ~DispatchQueue();

 private:
  struct Waiter;
  struct Job;
  struct Item {
    Block block;          // empty for a synchronous waiter
    Waiter* waiter = nullptr;
    bool barrier = false;
  };

  // Admission of one synchronous block: waits for its turn in the
  // constructor and releases the queue in the destructor (also on unwind).
  class Ticket {
   public:
    Ticket(DispatchQueue& q, bool barrier);
    ~Ticket();

   private:
    DispatchQueue& q_;
    bool barrier_;
  };

  DispatchQueue(std::string label, QueueKind kind);

  void submitAsync(Block block, bool barrier);
  void enterSlow(bool barrier);
  void leave(bool barrier);
  void scheduleLocked();
  void startLocked(Block block, bool barrier);
  void run(const std::shared_ptr<Job>& job);

  // state_: low 32 bits count running plain blocks; kWriter marks a running
  // barrier; kPending marks a non-empty backlog (so fast entries step aside).
  static constexpr std::uint64_t kReaderMask = 0xffffffffull;
  static constexpr std::uint64_t kWriter = 1ull << 32;
  static constexpr std::uint64_t kPending = 1ull << 33;

  const std::string label_;
  const QueueKind kind_;
  std::atomic<std::uint64_t> state_{0};
  std::mutex mutex_;
  std::condition_variable changed_;  // a ticket was granted or a job is ready
  std::deque<Item> backlog_;
  // Asynchronous blocks already admitted (counted in state_) whose pool
  // task has not started yet; a waiting sync caller may run them instead.
  std::deque<std::shared_ptr<Job>> ready_;
  std::atomic<std::size_t> readyCount_{0};  // ready_.size(), readable unlocked
  int sleepers_ = 0;
};

}  // namespace appex
