// Registry<I, U, D>: subscription lists keyed by a string identifier, and
// delivery of data to every item of one identifier.
//
// `add` appends an item and returns a disposer that removes it again; the
// disposer holds the registry weakly, so it may be called any number of
// times, also after the registry is gone (then it does nothing). `fire`
// walks a copy of the list as it is when firing starts: subscriptions and
// removals made by listeners take effect from the next round. A delivery
// that fails is logged as "Error in fire for id: <id>" and the remaining
// items are still served.
//
// Quirks kept on purpose: a list emptied by removal stays in the table as an
// empty list; `onZero` runs on every removal that leaves the list empty (also
// when nothing matched); `onOne` runs whenever an add makes the list exactly
// one long.
//
// Thread-safe: the table is guarded by a mutex; hooks and deliveries run
// with no lock held, on the calling thread. Create with `create` (the
// disposers need the registry to be owned by a shared_ptr).
#pragma once

#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/log.h"

namespace appex {

// Outcome of delivering to one item: nothing, or a failure description.
using DeliveryResult = std::expected<void, std::string>;

// Unsubscribes what `add` subscribed; safe to call any number of times.
using Disposer = std::function<void()>;

template <class I, class U, class D>
class Registry : public std::enable_shared_from_this<Registry<I, U, D>> {
 public:
  using Process = std::function<DeliveryResult(U, const D&, const std::string&)>;
  using Unbox = std::function<U(const I&)>;
  using IsEqual = std::function<bool(const I&, const I&)>;
  using Hook = std::function<void(const std::string&)>;

  // REQUIRES: process and unbox are set. An empty isEqual means I's ==.
  static std::shared_ptr<Registry> create(Process process, Unbox unbox, IsEqual isEqual = {},
                                          Hook onZero = {}, Hook onOne = {}) {
    return std::shared_ptr<Registry>(new Registry(std::move(process), std::move(unbox),
                                                  std::move(isEqual), std::move(onZero),
                                                  std::move(onOne)));
  }
  virtual ~Registry() = default;

  Disposer add(const std::string& id, I item) {
    bool becameOne;
    {
      std::lock_guard lock(mutex_);
      auto& list = cache_[id];
      list.push_back(item);
      becameOne = list.size() == 1;
    }
    if (becameOne) onOne_(id);
    std::weak_ptr<Registry> weak = this->weak_from_this();
    return [weak, id, item] {
      if (auto self = weak.lock()) self->remove(id, item);
    };
  }

  void remove(const std::string& id, const I& item) {
    bool empty;
    {
      std::lock_guard lock(mutex_);
      auto it = cache_.find(id);
      if (it == cache_.end()) return;
      auto& list = it->second;
      std::erase_if(list, [&](const I& e) { return isEqual_(e, item); });
      empty = list.empty();
    }
    if (empty) onZero_(id);
  }

  void fire(const std::string& id, const D& data) {
    std::vector<I> round;
    {
      std::lock_guard lock(mutex_);
      auto it = cache_.find(id);
      if (it == cache_.end() || it->second.empty()) return;
      round = it->second;
    }
    for (const I& item : round) {
      if (!process_(unbox_(item), data, id)) logLine("Error in fire for id: " + id);
    }
  }

  // Identifiers with their lists, including emptied ones. For tests and
  // diagnostics.
  std::map<std::string, std::size_t> listSizes() const {
    std::lock_guard lock(mutex_);
    std::map<std::string, std::size_t> out;
    for (const auto& [id, list] : cache_) out[id] = list.size();
    return out;
  }

 protected:
  Registry(Process process, Unbox unbox, IsEqual isEqual, Hook onZero, Hook onOne)
      : process_(std::move(process)),
        unbox_(std::move(unbox)),
        isEqual_(isEqual ? std::move(isEqual) : IsEqual([](const I& a, const I& b) { return a == b; })),
        onZero_(onZero ? std::move(onZero) : Hook([](const std::string&) {})),
        onOne_(onOne ? std::move(onOne) : Hook([](const std::string&) {})) {}

 private:
  const Process process_;
  const Unbox unbox_;
  const IsEqual isEqual_;
  const Hook onZero_;
  const Hook onOne_;
  mutable std::mutex mutex_;
  std::map<std::string, std::vector<I>> cache_;
};

}  // namespace appex
