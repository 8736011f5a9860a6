// Helpers for giving browser objects identities of the system's own.
//
// Browser tabs, pages and windows carry no identifier; the registries key
// them by weak reference (so they never keep a closed object alive) and
// compare keys by asking the browser (isEqual). An expired key matches
// nothing. Identifiers handed to web code are fresh random UUIDs in
// canonical upper-case text, never numbers and never reused.
//
// Thread-safe.
#pragma once

#include <string>

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

}  // namespace appex
