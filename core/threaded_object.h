// ThreadedObject<T>: one value confined to a private dispatch queue.
//
// The value is touched only by blocks running on the object's own queue
// (labelled by LabelDispatch). Three ways in:
//  * sync(block): read-only access, waits; on a concurrent object readers run
//    in parallel with each other but never beside a write.
//  * mutatingSync(block): exclusive access (a barrier), waits, returns the
//    block's result.
//  * async(block): exclusive access, returns at once; a barrier on a
//    concurrent object, a plain block on a serial one (which runs everything
//    one at a time anyway).
// All writes on one object are ordered in submission order, and a read
// submitted after a write from the same thread sees that write.
//
// Readers receive a const reference rather than a copy: a block cannot
// change the stored value through it, which is what the copy protected, and
// large containers are not copied on every read.
//
// A block queued with async keeps the object's value and queue alive until
// it has run, even if the ThreadedObject itself is destroyed first.
//
// Thread-safe. REQUIRES: a block never calls back into the same object
// synchronously (that deadlocks).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "core/dispatch_queue.h"
#include "core/label_dispatch.h"

namespace appex {

enum class ThreadingType { concurrent = 0, serial = 1 };

template <class T>
class ThreadedObject {
 public:
  explicit ThreadedObject(T value = T{}, ThreadingType type = ThreadingType::concurrent)
      : state_(std::make_shared<State>(std::move(value), type)) {}
  virtual ~ThreadedObject() = default;

  ThreadedObject(const ThreadedObject&) = delete;
  ThreadedObject& operator=(const ThreadedObject&) = delete;

  ThreadingType threadingType() const { return state_->type; }
  const std::string& label() const { return state_->queue->label(); }

  // Calls block(const T&) on the queue and returns its result.
  template <class F>
  std::invoke_result_t<F&, const T&> sync(F&& block) const {
    State& s = *state_;
    return s.queue->sync([&]() -> decltype(auto) { return block(std::as_const(s.value)); });
  }

  // Calls block(T&) on the queue as a barrier and returns its result.
  template <class F>
  std::invoke_result_t<F&, T&> mutatingSync(F&& block) {
    State& s = *state_;
    return s.queue->barrierSync([&]() -> decltype(auto) { return block(s.value); });
  }

  // Queues block(T&) as an exclusive write and returns at once.
  void async(std::move_only_function<void(T&)> block) {
    auto run = [state = state_, block = std::move(block)]() mutable { block(state->value); };
    if (state_->type == ThreadingType::serial) {
      state_->queue->async(std::move(run));
    } else {
      state_->queue->barrierAsync(std::move(run));
    }
  }

 private:
  struct State {
    State(T v, ThreadingType t)
        : value(std::move(v)),
          type(t),
          queue(DispatchQueue::create(LabelDispatch::nextLabel(),
                                      t == ThreadingType::serial ? QueueKind::serial
                                                                 : QueueKind::concurrent)) {}
    T value;
    const ThreadingType type;
    const std::shared_ptr<DispatchQueue> queue;
  };
  std::shared_ptr<State> state_;
};

}  // namespace appex
