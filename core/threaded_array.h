// ThreadedArray<T>: a growable array many threads may use at once.
//
// Every operation is one trip through the object's queue. Reads (`at`,
// `count`, `unthreaded`, `enumerated`) wait; writes (`append`, `set`, the
// removals) return before they are applied, in submission order, and a read
// submitted after them from the same thread sees them.
//
// A removal may hand the removed element to a callback; that callback runs
// later on the main queue (MainQueue::shared()), never on the array's queue
// and never before the removal call has returned.
//
// Positions are 0-based. A position out of range is a programming fault: the
// process stops with a message (on the queue's thread for the asynchronous
// writers, long after the caller returned).
//
// Iterating by position (`count` then `at(i)`) is one queue trip per step
// and sees concurrent writes between steps; for a stable view take
// `snapshot()`, `unthreaded()` or `enumerated()` first.
//
// Storage is copy-on-write: `snapshot()` shares the current elements (one
// reference-count increment, whatever the size), and the next write copies
// them only while a snapshot is still held.
//
// Thread-safe.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "core/main_queue.h"
#include "core/threaded_object.h"

namespace appex {

namespace threaded_array_detail {
[[noreturn]] inline void outOfRange(std::ptrdiff_t i, std::size_t size) {
  std::fprintf(stderr, "ThreadedArray: position %td out of range (count %zu)\n", i, size);
  std::abort();
}
}  // namespace threaded_array_detail

// Elements shared between a ThreadedArray and its snapshots: a reference-
// counted vector whose count uses acquire/release ordering, so a writer that
// finds itself the only holder also sees every earlier reader finish.
// (std::shared_ptr::use_count is a relaxed read and gives no such order.)
template <class T>
class SharedElements {
 public:
  SharedElements() : block_(new Block{}) {}
  explicit SharedElements(std::vector<T> v) : block_(new Block{{1}, std::move(v)}) {}
  SharedElements(const SharedElements& o) : block_(o.block_) {
    block_->refs.fetch_add(1, std::memory_order_relaxed);
  }
  SharedElements& operator=(SharedElements o) {
    std::swap(block_, o.block_);
    return *this;
  }
  ~SharedElements() {
    if (block_->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete block_;
  }

  const std::vector<T>& operator*() const { return block_->elements; }
  const std::vector<T>* operator->() const { return &block_->elements; }

  // REQUIRES: exclusive access to this handle (a barrier on the owning queue).
  std::vector<T>& mutableElements() {
    if (block_->refs.load(std::memory_order_acquire) != 1) {
      *this = SharedElements(block_->elements);
    }
    return block_->elements;
  }

 private:
  struct Block {
    std::atomic<long> refs{1};
    std::vector<T> elements;
  };
  Block* block_;
};

// The stored value of a ThreadedArray.
template <class T>
class CowVector {
 public:
  CowVector() = default;
  explicit CowVector(std::vector<T> v) : elements_(std::move(v)) {}

  const std::vector<T>& read() const { return *elements_; }
  SharedElements<T> share() const { return elements_; }
  // REQUIRES: called with exclusive access (a barrier on the owning queue).
  std::vector<T>& write() { return elements_.mutableElements(); }

 private:
  SharedElements<T> elements_;
};

template <class T>
class ThreadedArray : public ThreadedObject<CowVector<T>> {
 public:
  using Vector = std::vector<T>;
  using Base = ThreadedObject<CowVector<T>>;
  using Snapshot = SharedElements<T>;
  // Receives a removed element on the main queue; called at most once.
  using RemovalCallback = std::move_only_function<void(T)>;

  ThreadedArray() : Base(CowVector<T>(), ThreadingType::concurrent) {}
  explicit ThreadedArray(Vector initial, ThreadingType type = ThreadingType::concurrent)
      : Base(CowVector<T>(std::move(initial)), type) {}

  void append(T element) {
    this->async([e = std::move(element)](CowVector<T>& v) mutable { v.write().push_back(std::move(e)); });
  }

  void append(Vector elements) {
    this->async([es = std::move(elements)](CowVector<T>& c) mutable {
      auto& v = c.write();
      for (auto& e : es) v.push_back(std::move(e));
    });
  }

  T at(std::ptrdiff_t i) const {
    return this->sync([i](const CowVector<T>& c) -> T {
      const auto& v = c.read();
      check(i, v.size());
      return v[static_cast<std::size_t>(i)];
    });
  }

  void set(std::ptrdiff_t i, T element) {
    this->async([i, e = std::move(element)](CowVector<T>& c) mutable {
      auto& v = c.write();
      check(i, v.size());
      v[static_cast<std::size_t>(i)] = std::move(e);
    });
  }

  void remove(std::ptrdiff_t i, RemovalCallback callback = nullptr) {
    removeWith([i](const Vector&) { return i; }, std::move(callback));
  }
  void removeFirst(RemovalCallback callback = nullptr) {
    removeWith([](const Vector&) { return std::ptrdiff_t{0}; }, std::move(callback));
  }
  void removeLast(RemovalCallback callback = nullptr) {
    removeWith([](const Vector& v) { return static_cast<std::ptrdiff_t>(v.size()) - 1; },
               std::move(callback));
  }

  // The elements as they are now, shared rather than copied.
  Snapshot snapshot() const {
    return this->sync([](const CowVector<T>& c) { return c.share(); });
  }

  Vector unthreaded() const { return *snapshot(); }

  std::vector<std::pair<std::ptrdiff_t, T>> enumerated() const {
    auto shared = snapshot();
    const Vector& v = *shared;
    {
      std::vector<std::pair<std::ptrdiff_t, T>> out;
      out.reserve(v.size());
      for (std::size_t i = 0; i < v.size(); ++i) out.emplace_back(static_cast<std::ptrdiff_t>(i), v[i]);
      return out;
    }
  }

  std::ptrdiff_t startIndex() const { return 0; }
  std::ptrdiff_t endIndex() const {
    return this->sync([](const CowVector<T>& c) { return static_cast<std::ptrdiff_t>(c.read().size()); });
  }
  std::size_t count() const {
    return this->sync([](const CowVector<T>& c) { return c.read().size(); });
  }

 private:
  static void check(std::ptrdiff_t i, std::size_t size) {
    if (i < 0 || static_cast<std::size_t>(i) >= size) threaded_array_detail::outOfRange(i, size);
  }

  template <class Pick>
  void removeWith(Pick pick, RemovalCallback callback) {
    this->async([pick, cb = std::move(callback)](CowVector<T>& c) mutable {
      const std::ptrdiff_t i = pick(c.read());
      check(i, c.read().size());
      auto& v = c.write();
      T removed = std::move(v[static_cast<std::size_t>(i)]);
      v.erase(v.begin() + i);
      if (cb) {
        MainQueue::shared().post(
            [cb = std::move(cb), removed = std::move(removed)]() mutable { cb(std::move(removed)); });
      }
    });
  }
};

}  // namespace appex
