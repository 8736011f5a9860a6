#include "core/position_index.h"

#include <algorithm>

namespace appex {

void PositionIndex::append(std::size_t hash) {
  // The new position is the largest, so the bucket stays ascending.
  buckets_[hash].push_back(hashes_.size());
  hashes_.push_back(hash);
}

void PositionIndex::replace(std::size_t position, std::size_t hash) {
  if (hashes_[position] == hash) return;
  eraseFromBucket(hashes_[position], position);
  hashes_[position] = hash;
  insertSorted(hash, position);
}

void PositionIndex::remove(std::size_t position) {
  eraseFromBucket(hashes_[position], position);
  hashes_.erase(hashes_.begin() + static_cast<std::ptrdiff_t>(position));
  for (auto& [hash, bucket] : buckets_) {
    // Renumbering keeps each bucket ascending.
    for (auto& p : bucket) p -= p > position;
  }
}

void PositionIndex::clear() {
  hashes_.clear();
  buckets_.clear();
}

std::span<const std::size_t> PositionIndex::positions(std::size_t hash) const {
  auto found = buckets_.find(hash);
  if (found == buckets_.end()) return {};
  return found->second;
}

void PositionIndex::insertSorted(std::size_t hash, std::size_t position) {
  auto& bucket = buckets_[hash];
  bucket.insert(std::lower_bound(bucket.begin(), bucket.end(), position), position);
}

void PositionIndex::eraseFromBucket(std::size_t hash, std::size_t position) {
  auto found = buckets_.find(hash);
  auto& bucket = found->second;
  bucket.erase(std::lower_bound(bucket.begin(), bucket.end(), position));
  if (bucket.empty()) buckets_.erase(found);
}

}  // namespace appex
