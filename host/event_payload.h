// EventPayload: what native event emitters carry.
//
// Every event has a JSON-shaped form (`value`, what web code is sent) and
// may also carry the native object it describes (`native`, e.g. the
// TabState behind a tab event, so that native listeners can reach the tab
// and its window). Copies share the native object.
#pragma once

#include <any>
#include <memory>

#include "host/any_value.h"

namespace appex {

struct EventPayload {
  AnyValue value;
  std::any native;

  static EventPayload json(AnyValue v) { return EventPayload{std::move(v), {}}; }

  template <class T>
  static EventPayload object(std::shared_ptr<T> object, AnyValue v) {
    return EventPayload{std::move(v), std::any(std::move(object))};
  }

  // The native object if it is a T, else nullptr.
  template <class T>
  std::shared_ptr<T> nativeAs() const {
    if (const auto* p = std::any_cast<std::shared_ptr<T>>(&native)) return *p;
    return nullptr;
  }
};

}  // namespace appex
