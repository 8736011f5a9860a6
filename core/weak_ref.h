// WeakRef<T>: a box that refers to a shared object without keeping it alive.
// Once the object is gone, `ref()` reads as nullptr.
//
// Thread-safe for concurrent `ref()` calls (std::weak_ptr semantics).
#pragma once

#include <memory>

namespace appex {

template <class T>
class WeakRef {
 public:
  WeakRef() = default;
  explicit WeakRef(const std::shared_ptr<T>& object) : ref_(object) {}

  std::shared_ptr<T> ref() const { return ref_.lock(); }
  bool expired() const { return ref_.expired(); }

 private:
  std::weak_ptr<T> ref_;
};

}  // namespace appex
