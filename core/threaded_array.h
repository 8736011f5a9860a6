// ThreadedArray<T>: a growable array many threads may use at once.
//
// Every operation is one trip through the object's queue. Reads (`at`,
// `count`, `unthreaded`, `enumerated`) wait; writes (`append`, `set`, the
// removals but `removeAll`) return before they are applied, in submission order, and a read
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
// An optional `Index` lives beside the elements on the same queue and is
// told of every change as it is made (see CowVector); readers reach it with
// `sync`, so an index read and the elements read in one `sync` always
// agree. KeyValueSet keeps its hash indexes this way.
//
// Thread-safe.
#pragma once

#include <algorithm>
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

// What a plain ThreadedArray keeps beside its elements: nothing.
template <class T>
struct NoIndex {
  void appended(const std::vector<T>&) {}
  void replaced(const std::vector<T>&, std::size_t) {}
  void removed(const std::vector<T>&, std::size_t) {}
  void rebuilt(const std::vector<T>&) {}
};

// The stored value of a ThreadedArray: the elements and an `Index` kept in
// step with them. Every change goes through the members below, which tell
// the index what changed (after the change: appended(v), replaced(v, i),
// removed(v, i), rebuilt(v)), so the index always mirrors the elements of
// the same queue turn.
template <class T, class Index = NoIndex<T>>
class CowVector {
 public:
  CowVector() = default;
  explicit CowVector(std::vector<T> v, Index index = Index()) : elements_(std::move(v)), index_(std::move(index)) {
    index_.rebuilt(*elements_);
  }

  const std::vector<T>& read() const { return *elements_; }
  SharedElements<T> share() const { return elements_; }
  const Index& index() const { return index_; }

  // REQUIRES for every writer below: exclusive access (a barrier on the
  // owning queue).
  void push(T element) {
    auto& v = elements_.mutableElements();
    v.push_back(std::move(element));
    index_.appended(v);
  }
  void replace(std::size_t i, T element) {
    auto& v = elements_.mutableElements();
    v[i] = std::move(element);
    index_.replaced(v, i);
  }
  T erase(std::size_t i) {
    auto& v = elements_.mutableElements();
    T removed = std::move(v[i]);
    v.erase(v.begin() + static_cast<std::ptrdiff_t>(i));
    index_.removed(v, i);
    return removed;
  }
  template <class Pred>
  std::size_t eraseIf(Pred& pred) {
    if (std::none_of(read().begin(), read().end(), [&](const T& e) { return pred(e); })) return 0;
    auto& v = elements_.mutableElements();
    const std::size_t n = std::erase_if(v, [&](const T& e) { return pred(e); });
    index_.rebuilt(v);
    return n;
  }

 private:
  SharedElements<T> elements_;
  Index index_;
};

template <class T, class Index = NoIndex<T>>
class ThreadedArray : public ThreadedObject<CowVector<T, Index>> {
 public:
  using Vector = std::vector<T>;
  using Store = CowVector<T, Index>;
  using Base = ThreadedObject<Store>;
  using Snapshot = SharedElements<T>;
  // Receives a removed element on the main queue; called at most once.
  using RemovalCallback = std::move_only_function<void(T)>;

  ThreadedArray() : Base(Store(), ThreadingType::concurrent) {}
  explicit ThreadedArray(Vector initial, ThreadingType type = ThreadingType::concurrent, Index index = Index())
      : Base(Store(std::move(initial), std::move(index)), type) {}

  void append(T element) {
    this->async([e = std::move(element)](Store& c) mutable { c.push(std::move(e)); });
  }

  void append(Vector elements) {
    this->async([es = std::move(elements)](Store& c) mutable {
      for (auto& e : es) c.push(std::move(e));
    });
  }

  T at(std::ptrdiff_t i) const {
    return this->sync([i](const Store& c) -> T {
      const auto& v = c.read();
      check(i, v.size());
      return v[static_cast<std::size_t>(i)];
    });
  }

  void set(std::ptrdiff_t i, T element) {
    this->async([i, e = std::move(element)](Store& c) mutable {
      check(i, c.read().size());
      c.replace(static_cast<std::size_t>(i), std::move(e));
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
  // Removes every element for which pred(element) holds, in one exclusive
  // turn, and returns how many went; waits. `pred` runs on the queue.
  template <class Pred>
  std::size_t removeAll(Pred pred) {
    return this->mutatingSync([&](Store& c) { return c.eraseIf(pred); });
  }

  // The elements as they are now, shared rather than copied.
  Snapshot snapshot() const {
    return this->sync([](const Store& c) { return c.share(); });
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
    return this->sync([](const Store& c) { return static_cast<std::ptrdiff_t>(c.read().size()); });
  }
  std::size_t count() const {
    return this->sync([](const Store& c) { return c.read().size(); });
  }

 private:
  static void check(std::ptrdiff_t i, std::size_t size) {
    if (i < 0 || static_cast<std::size_t>(i) >= size) threaded_array_detail::outOfRange(i, size);
  }

  template <class Pick>
  void removeWith(Pick pick, RemovalCallback callback) {
    this->async([pick, cb = std::move(callback)](Store& c) mutable {
      const std::ptrdiff_t i = pick(c.read());
      check(i, c.read().size());
      T removed = c.erase(static_cast<std::size_t>(i));
      if (cb) {
        MainQueue::shared().post(
            [cb = std::move(cb), removed = std::move(removed)]() mutable { cb(std::move(removed)); });
      }
    });
  }
};

}  // namespace appex
