// PositionIndex: the positions of a list's elements grouped by a hash of
// each, so that the elements that might match a wanted one are found
// without walking the list.
//
// It mirrors the list position for position: the owner reports every
// append, replacement and removal (with the element's hash) as it makes
// it, and `positions(hash)` then lists, in ascending order, every position
// whose element was reported with that hash. Equal hashes are only a hint:
// the owner still compares the elements at those positions, first one
// first, which keeps "the first match wins" of a front-to-back walk.
//
// Appending and replacing are O(1) on average; a removal renumbers every
// later position, O(n) like the removal from the list itself.
//
// Not thread-safe: it lives beside the list it mirrors and is guarded with
// it.
#pragma once

#include <cstddef>
#include <span>
#include <unordered_map>
#include <vector>

namespace appex {

class PositionIndex {
 public:
  // The list grew by one element at its end.
  void append(std::size_t hash);
  // The element at `position` was replaced by one with `hash`.
  // REQUIRES: position < size().
  void replace(std::size_t position, std::size_t hash);
  // The element at `position` was removed; later positions move down by one.
  // REQUIRES: position < size().
  void remove(std::size_t position);
  void clear();

  // The positions whose element has `hash`, ascending; empty when none.
  std::span<const std::size_t> positions(std::size_t hash) const;
  // How many positions the index mirrors.
  std::size_t size() const { return hashes_.size(); }

 private:
  void insertSorted(std::size_t hash, std::size_t position);
  void eraseFromBucket(std::size_t hash, std::size_t position);

  std::vector<std::size_t> hashes_;  // the hash of each position's element
  std::unordered_map<std::size_t, std::vector<std::size_t>> buckets_;
};

}  // namespace appex
