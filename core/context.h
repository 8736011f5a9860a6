// Context: owner of the process-wide shared objects (tab registry, window
// registry, router, APIs, platform objects), each created lazily on first
// use and kept until the context ends.
//
// The process has one default context (`Context::current()`, never
// destroyed). A test builds a fresh set by making its own context current
// with ScopedContext for its duration; every `T::shared()` in the system
// resolves through `Context::current()`, so nothing else changes.
//
// A shared class T is created by `get<T>()` with `T::create(Context&)` if
// it has one, else `std::make_shared<T>(Context&)`, else
// `std::make_shared<T>()`. Creation runs once per context (thread-safe);
// a type whose creation needs itself stops the process with a message.
// Platform objects that the host supplies rather than creates are put in
// with `set<T>(object)` before first use.
//
// Thread-safe.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <typeindex>
#include <unordered_map>

namespace appex {

class Context {
 public:
  Context() = default;
  ~Context() = default;
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  // The context that `T::shared()` resolves through.
  static Context& current();

  template <class T>
  std::shared_ptr<T> get() {
    std::unique_lock lock(mutex_);
    const std::type_index key(typeid(T));
    if (auto it = objects_.find(key); it != objects_.end()) return std::static_pointer_cast<T>(it->second);
    if (!creating_.insert(key).second) {
      std::fprintf(stderr, "Context: %s needs itself to be created\n", typeid(T).name());
      std::abort();
    }
    std::shared_ptr<T> object = make<T>();
    creating_.erase(key);
    objects_[key] = object;
    return object;
  }

  // The object of type T if one exists, without creating it.
  template <class T>
  std::shared_ptr<T> find() {
    std::unique_lock lock(mutex_);
    auto it = objects_.find(std::type_index(typeid(T)));
    return it == objects_.end() ? nullptr : std::static_pointer_cast<T>(it->second);
  }

  // Installs (or replaces) the object of type T.
  template <class T>
  void set(std::shared_ptr<T> object) {
    std::unique_lock lock(mutex_);
    objects_[std::type_index(typeid(T))] = std::move(object);
  }

 private:
  template <class T>
  std::shared_ptr<T> make() {
    if constexpr (requires { T::create(*this); }) {
      return T::create(*this);
    } else if constexpr (!std::is_abstract_v<T> && std::is_constructible_v<T, Context&>) {
      return std::make_shared<T>(*this);
    } else if constexpr (!std::is_abstract_v<T> && std::is_default_constructible_v<T>) {
      return std::make_shared<T>();
    } else {
      // An object the host must install with set<T>() before first use.
      std::fprintf(stderr, "Context: no %s installed\n", typeid(T).name());
      std::abort();
    }
  }

  // Recursive: creating one object may get others from the same context.
  std::recursive_mutex mutex_;
  std::unordered_map<std::type_index, std::shared_ptr<void>> objects_;
  std::set<std::type_index> creating_;
};

// Makes `context` current until the scope ends. For tests; not nested
// across threads (the override is process-wide).
class ScopedContext {
 public:
  explicit ScopedContext(Context& context);
  ~ScopedContext();
  ScopedContext(const ScopedContext&) = delete;
  ScopedContext& operator=(const ScopedContext&) = delete;

 private:
  Context* previous_;
};

}  // namespace appex
