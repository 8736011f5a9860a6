// KeyValueSet<K, V>: an ordered association list searched with a caller's
// equality predicate.
//
// Built for browser objects that can only be recognised by asking the
// platform whether two handles are equal: lookups take one snapshot of the
// list and walk it from the front on the caller's thread, calling
// isEqual(storedKey, wantedKey); the first match wins. `set` replaces the
// first matching entry in place (keeping its position) or appends.
//
// `set` is a lookup then a write: two queue trips. Two concurrent `set`s of
// one new key may both append, and a removal between the two trips may make
// the write land elsewhere; owners that care serialise their own sets.
//
// Thread-safe.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <utility>

#include "core/threaded_array.h"

namespace appex {

template <class K, class V>
struct KeyValuePair {
  K key;
  V value;
};

template <class K, class V>
class KeyValueSet {
 public:
  using Pair = KeyValuePair<K, V>;
  using IsEqual = std::function<bool(const K&, const K&)>;

  explicit KeyValueSet(IsEqual isEqual) : isEqual_(std::move(isEqual)) {}

  std::optional<Pair> get(const K& key) const {
    auto snapshot = list_.snapshot();
    for (const auto& entry : *snapshot) {
      if (isEqual_(entry.key, key)) return entry;
    }
    return std::nullopt;
  }

  // Position of the first entry whose key matches, or -1.
  std::ptrdiff_t indexOf(const K& key) const {
    auto snapshot = list_.snapshot();
    for (std::size_t i = 0; i < snapshot->size(); ++i) {
      if (isEqual_((*snapshot)[i].key, key)) return static_cast<std::ptrdiff_t>(i);
    }
    return -1;
  }

  // Inserts or replaces; returns before the write is applied.
  void set(K key, V value) {
    const std::ptrdiff_t p = indexOf(key);
    if (p < 0) {
      list_.append(Pair{std::move(key), std::move(value)});
    } else {
      list_.set(p, Pair{std::move(key), std::move(value)});
    }
  }

  // Removes every entry for which `pred(entry)` holds, as read from one
  // snapshot, back to front so that the positions read stay valid. Like
  // `set`, not atomic: owners that race other writers serialise them.
  template <class Pred>
  void removeWhere(Pred pred) {
    auto entries = list_.enumerated();
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
      if (pred(entry->second)) list_.remove(entry->first);
    }
  }

  ThreadedArray<Pair>& list() { return list_; }
  const ThreadedArray<Pair>& list() const { return list_; }

 private:
  ThreadedArray<Pair> list_;
  const IsEqual isEqual_;
};

}  // namespace appex
