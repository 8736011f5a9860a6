// KeyValueSet<K, V>: an ordered association list searched with a caller's
// equality predicate.
//
// Built for browser objects that can only be recognised by asking the
// platform whether two handles are equal: a lookup finds the first entry,
// front to back, for which isEqual(storedKey, wantedKey) holds, calling
// isEqual on the caller's thread. `set` replaces the first matching entry in
// place (keeping its position) or appends.
//
// Given a key hash that agrees with isEqual (keys it calls equal hash
// alike) and a value identifier, the set also keeps two indexes beside the
// list (on the list's queue, changed in the same turn as the list): one by
// key hash and one by value identifier. A lookup by key then compares only
// the entries of the same hash, still first to last, so it finds what the
// front-to-back walk finds in O(1) on average; `findById` finds the first
// entry whose value has a given identifier the same way. Without a hash
// every lookup walks the whole list.
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
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "core/position_index.h"
#include "core/threaded_array.h"

namespace appex {

template <class K, class V>
struct KeyValuePair {
  K key;
  V value;
};

// The indexes a KeyValueSet keeps beside its list (see ThreadedArray's
// Index). Empty, it keeps nothing.
template <class K, class V>
class KeyValueIndex {
 public:
  using Pair = KeyValuePair<K, V>;
  // Runs on the list's queue: must be cheap and must not reach the set.
  using KeyHash = std::function<std::size_t(const K&)>;
  using ValueId = std::function<std::string_view(const V&)>;

  KeyValueIndex() = default;
  KeyValueIndex(KeyHash keyHash, ValueId valueId) : keyHash_(std::move(keyHash)), valueId_(std::move(valueId)) {}

  bool enabled() const { return keyHash_ != nullptr; }
  static std::size_t idHash(std::string_view id) { return std::hash<std::string_view>{}(id); }

  std::span<const std::size_t> byKey(std::size_t hash) const { return keys_.positions(hash); }
  std::span<const std::size_t> byId(std::size_t hash) const { return ids_.positions(hash); }

  void appended(const std::vector<Pair>& v) {
    if (!enabled()) return;
    keys_.append(keyHash_(v.back().key));
    ids_.append(idHash(valueId_(v.back().value)));
  }
  void replaced(const std::vector<Pair>& v, std::size_t i) {
    if (!enabled()) return;
    keys_.replace(i, keyHash_(v[i].key));
    ids_.replace(i, idHash(valueId_(v[i].value)));
  }
  void removed(const std::vector<Pair>&, std::size_t i) {
    if (!enabled()) return;
    keys_.remove(i);
    ids_.remove(i);
  }
  void rebuilt(const std::vector<Pair>& v) {
    if (!enabled()) return;
    keys_.clear();
    ids_.clear();
    for (const auto& entry : v) {
      keys_.append(keyHash_(entry.key));
      ids_.append(idHash(valueId_(entry.value)));
    }
  }

 private:
  KeyHash keyHash_;
  ValueId valueId_;
  PositionIndex keys_;
  PositionIndex ids_;
};

template <class K, class V>
class KeyValueSet {
 public:
  using Pair = KeyValuePair<K, V>;
  using Index = KeyValueIndex<K, V>;
  using List = ThreadedArray<Pair, Index>;
  using IsEqual = std::function<bool(const K&, const K&)>;

  // An entry found, with its position in the list when it was read.
  struct Found {
    std::ptrdiff_t position;
    Pair entry;
  };

  // Walks the whole list on every lookup; findById is unavailable.
  explicit KeyValueSet(IsEqual isEqual) : isEqual_(std::move(isEqual)) {}
  // Indexed by `keyHash` (which must agree with `isEqual`) and by
  // `valueId`.
  KeyValueSet(IsEqual isEqual, typename Index::KeyHash keyHash, typename Index::ValueId valueId)
      : list_({}, ThreadingType::concurrent, Index(keyHash, valueId)),
        isEqual_(std::move(isEqual)),
        keyHash_(std::move(keyHash)),
        valueId_(std::move(valueId)) {}

  std::optional<Pair> get(const K& key) const {
    auto found = find(key);
    if (!found) return std::nullopt;
    return std::move(found->entry);
  }

  // Position of the first entry whose key matches, or -1.
  std::ptrdiff_t indexOf(const K& key) const {
    auto found = find(key);
    return found ? found->position : -1;
  }

  // The first entry whose key matches, with its position.
  std::optional<Found> find(const K& key) const {
    std::vector<std::size_t> positions;
    const std::size_t hash = keyHash_ ? keyHash_(key) : 0;
    const auto snapshot = candidates(positions, [hash](const Index& index) { return index.byKey(hash); });
    const auto& entries = *snapshot;
    auto matches = [&](std::size_t i) { return isEqual_(entries[i].key, key); };
    return first(entries, positions, matches);
  }

  // The first entry whose value's identifier is `id`, with its position.
  // REQUIRES: the set is indexed.
  std::optional<Found> findById(std::string_view id) const {
    std::vector<std::size_t> positions;
    const std::size_t hash = Index::idHash(id);
    const auto snapshot = candidates(positions, [hash](const Index& index) { return index.byId(hash); });
    const auto& entries = *snapshot;
    auto matches = [&](std::size_t i) { return valueId_(entries[i].value) == id; };
    return first(entries, positions, matches);
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

  // Removes every entry for which `pred(entry)` holds, in one exclusive
  // turn of the list's queue (where `pred` runs: it must not reach the
  // set), and returns how many went.
  template <class Pred>
  std::size_t removeWhere(Pred pred) {
    return list_.removeAll(std::move(pred));
  }

  List& list() { return list_; }
  const List& list() const { return list_; }

 private:
  // One read of the list: its elements and, when indexed, the positions
  // `pick` names (left empty, and all positions meant, when not).
  template <class Pick>
  typename List::Snapshot candidates(std::vector<std::size_t>& positions, Pick pick) const {
    return list_.sync([&](const typename List::Store& store) {
      if (store.index().enabled()) {
        auto picked = pick(store.index());
        positions.assign(picked.begin(), picked.end());
      }
      return store.share();
    });
  }

  template <class Matches>
  std::optional<Found> first(const std::vector<Pair>& entries, const std::vector<std::size_t>& positions,
                             Matches matches) const {
    if (indexed()) {
      for (std::size_t i : positions) {
        if (matches(i)) return Found{static_cast<std::ptrdiff_t>(i), entries[i]};
      }
      return std::nullopt;
    }
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if (matches(i)) return Found{static_cast<std::ptrdiff_t>(i), entries[i]};
    }
    return std::nullopt;
  }

  bool indexed() const { return keyHash_ != nullptr; }

  List list_;
  const IsEqual isEqual_;
  // Copies of the index's functions, for use on the caller's thread.
  const typename Index::KeyHash keyHash_;
  const typename Index::ValueId valueId_;
};

}  // namespace appex
