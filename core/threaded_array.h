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
// `unthreaded()` or `enumerated()` first.
//
// Thread-safe.
#pragma once

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

template <class T>
class ThreadedArray : public ThreadedObject<std::vector<T>> {
 public:
  using Vector = std::vector<T>;
  using Base = ThreadedObject<Vector>;
  // Receives a removed element on the main queue; called at most once.
  using RemovalCallback = std::move_only_function<void(T)>;

  ThreadedArray() : Base(Vector{}, ThreadingType::concurrent) {}
  explicit ThreadedArray(Vector initial, ThreadingType type = ThreadingType::concurrent)
      : Base(std::move(initial), type) {}

  void append(T element) {
    this->async([e = std::move(element)](Vector& v) mutable { v.push_back(std::move(e)); });
  }

  void append(Vector elements) {
    this->async([es = std::move(elements)](Vector& v) mutable {
      for (auto& e : es) v.push_back(std::move(e));
    });
  }

  T at(std::ptrdiff_t i) const {
    return this->sync([i](const Vector& v) -> T {
      check(i, v.size());
      return v[static_cast<std::size_t>(i)];
    });
  }

  void set(std::ptrdiff_t i, T element) {
    this->async([i, e = std::move(element)](Vector& v) mutable {
      check(i, v.size());
      v[static_cast<std::size_t>(i)] = std::move(e);
    });
  }

  void remove(std::ptrdiff_t i, RemovalCallback callback = nullptr) {
    removeWith([i](Vector&) { return i; }, std::move(callback));
  }
  void removeFirst(RemovalCallback callback = nullptr) {
    removeWith([](Vector&) { return std::ptrdiff_t{0}; }, std::move(callback));
  }
  void removeLast(RemovalCallback callback = nullptr) {
    removeWith([](Vector& v) { return static_cast<std::ptrdiff_t>(v.size()) - 1; },
               std::move(callback));
  }

  Vector unthreaded() const {
    return this->sync([](const Vector& v) { return v; });
  }

  std::vector<std::pair<std::ptrdiff_t, T>> enumerated() const {
    return this->sync([](const Vector& v) {
      std::vector<std::pair<std::ptrdiff_t, T>> out;
      out.reserve(v.size());
      for (std::size_t i = 0; i < v.size(); ++i) out.emplace_back(static_cast<std::ptrdiff_t>(i), v[i]);
      return out;
    });
  }

  std::ptrdiff_t startIndex() const { return 0; }
  std::ptrdiff_t endIndex() const {
    return this->sync([](const Vector& v) { return static_cast<std::ptrdiff_t>(v.size()); });
  }
  std::size_t count() const {
    return this->sync([](const Vector& v) { return v.size(); });
  }

 private:
  static void check(std::ptrdiff_t i, std::size_t size) {
    if (i < 0 || static_cast<std::size_t>(i) >= size) threaded_array_detail::outOfRange(i, size);
  }

  template <class Pick>
  void removeWith(Pick pick, RemovalCallback callback) {
    this->async([pick, cb = std::move(callback)](Vector& v) mutable {
      const std::ptrdiff_t i = pick(v);
      check(i, v.size());
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
