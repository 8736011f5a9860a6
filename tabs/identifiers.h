// Helpers for giving browser objects identities of the system's own.
//
// Browser tabs, pages and windows carry no identifier; the registries key
// them by weak reference (so they never keep a closed object alive) and
// compare keys by asking the browser (isEqual), indexed by the browser's
// hash that agrees with it. An expired key matches nothing. Identifiers
// handed to web code are fresh random UUIDs in canonical upper-case text,
// never numbers and never reused.
//
// Thread-safe.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "core/weak_ref.h"

namespace appex {

// A new random UUID, e.g. "6F1C2E4A-0D3B-4C55-9E7A-2B8D1F0A9C31".
std::string newUUIDString();

// True when both keys still refer to live objects that the browser says
// are the same.
template <class T>
bool sameBrowserObject(const WeakRef<T>& stored, const WeakRef<T>& wanted) {
  auto a = stored.ref();
  if (!a) return false;
  auto b = wanted.ref();
  return b && a->isEqual(*b);
}

// The browser's hash of the object a key refers to, which agrees with
// sameBrowserObject (a gone object hashes as 0 and matches nothing).
template <class T>
std::size_t browserObjectHash(const WeakRef<T>& key) {
  auto object = key.ref();
  return object ? object->hash() : 0;
}

// The identifier of a registry entry whose value is a shared snapshot with
// an `id()` (TabState, WindowState), for KeyValueSet's id index.
template <class State>
std::string_view snapshotId(const std::shared_ptr<State>& state) {
  return state->id();
}

}  // namespace appex
