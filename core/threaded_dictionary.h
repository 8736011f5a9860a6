// ThreadedDictionary<K, V>: a hash map many threads may use at once.
//
// Every operation is one trip through the object's queue: reads wait
// (sync), `removeValue` waits for its barrier, and `set` returns before its
// write is done. A read after a `set` from the same thread sees it. A
// read-modify-write made of a `get` and a `set` is two trips, and another
// thread's write may fall between them; callers needing an atomic update use
// `removeValue` or their own design.
//
// V may be move-only (callback tables); the copying reads then are not
// available.
//
// Thread-safe.
#pragma once

#include <optional>
#include <unordered_map>
#include <vector>

#include "core/threaded_object.h"

namespace appex {

template <class K, class V, class Hash = std::hash<K>>
class ThreadedDictionary : public ThreadedObject<std::unordered_map<K, V, Hash>> {
 public:
  using Map = std::unordered_map<K, V, Hash>;
  using Base = ThreadedObject<Map>;

  ThreadedDictionary() : Base(Map{}, ThreadingType::concurrent) {}
  explicit ThreadedDictionary(Map initial, ThreadingType type = ThreadingType::concurrent)
      : Base(std::move(initial), type) {}

  // The value under `key`, or nothing.
  std::optional<V> get(const K& key) const
    requires std::copy_constructible<V>
  {
    return this->sync([&](const Map& m) -> std::optional<V> {
      auto it = m.find(key);
      if (it == m.end()) return std::nullopt;
      return it->second;
    });
  }

  bool contains(const K& key) const {
    return this->sync([&](const Map& m) { return m.contains(key); });
  }

  // Stores `value` under `key`; nothing removes the key. Returns at once.
  void set(K key, std::optional<V> value) {
    this->async([key = std::move(key), value = std::move(value)](Map& m) mutable {
      if (value) {
        m.insert_or_assign(std::move(key), std::move(*value));
      } else {
        m.erase(key);
      }
    });
  }

  // Removes `key` and returns the value it had, or nothing. Waits.
  std::optional<V> removeValue(const K& key) {
    return this->mutatingSync([&](Map& m) -> std::optional<V> {
      auto it = m.find(key);
      if (it == m.end()) return std::nullopt;
      std::optional<V> out(std::move(it->second));
      m.erase(it);
      return out;
    });
  }

  std::vector<K> keys() const {
    return this->sync([](const Map& m) {
      std::vector<K> out;
      out.reserve(m.size());
      for (const auto& [k, v] : m) out.push_back(k);
      return out;
    });
  }

  std::vector<V> values() const
    requires std::copy_constructible<V>
  {
    return this->sync([](const Map& m) {
      std::vector<V> out;
      out.reserve(m.size());
      for (const auto& [k, v] : m) out.push_back(v);
      return out;
    });
  }

  // A new, unguarded map with the same keys and transformed values. The
  // transform runs on the queue inside the read: it must not touch this
  // dictionary.
  template <class F>
  auto mapValues(F&& transform) const {
    using U = std::invoke_result_t<F&, const V&>;
    return this->sync([&](const Map& m) {
      std::unordered_map<K, U, Hash> out;
      out.reserve(m.size());
      for (const auto& [k, v] : m) out.emplace(k, transform(v));
      return out;
    });
  }

  Map unthreaded() const
    requires std::copy_constructible<V>
  {
    return this->sync([](const Map& m) { return m; });
  }

  std::size_t count() const {
    return this->sync([](const Map& m) { return m.size(); });
  }
};

}  // namespace appex
