// EventEmitter<T>: named events delivered to listener callbacks.
//
// A Registry whose items are ListenerWrapper objects (compared by identity)
// and whose delivery calls the wrapped listener with (data, event name).
// Subscribe with `on` (or `add` with your own wrapper) and keep the disposer
// to unsubscribe; publish with `fire`. Listeners run synchronously inside
// `fire`, on the firing thread, in subscription order. A listener that
// throws is reported like any failed delivery ("Error in fire for id: ")
// and the others still run.
//
// Thread-safe (see Registry).
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <string>

#include "core/registry.h"

namespace appex {

template <class T>
class ListenerWrapper {
 public:
  using Listener = std::function<void(const T&, const std::string&)>;
  explicit ListenerWrapper(Listener listener) : listener(std::move(listener)) {}
  const Listener listener;
};

template <class T>
using ListenerHandle = std::shared_ptr<ListenerWrapper<T>>;

template <class T>
class EventEmitter
    : public Registry<ListenerHandle<T>, typename ListenerWrapper<T>::Listener, T> {
 public:
  using Listener = typename ListenerWrapper<T>::Listener;
  using Base = Registry<ListenerHandle<T>, Listener, T>;

  static std::shared_ptr<EventEmitter> create() {
    return std::shared_ptr<EventEmitter>(new EventEmitter());
  }

  // Wraps `listener` and subscribes it to `event`.
  Disposer on(const std::string& event, Listener listener) {
    return this->add(event, std::make_shared<ListenerWrapper<T>>(std::move(listener)));
  }

 private:
  EventEmitter()
      : Base(
            [](Listener listener, const T& data, const std::string& id) -> DeliveryResult {
              try {
                listener(data, id);
                return {};
              } catch (const std::exception& e) {
                return std::unexpected(std::string(e.what()));
              } catch (...) {
                return std::unexpected(std::string("unknown exception"));
              }
            },
            [](const ListenerHandle<T>& w) { return w->listener; }, {}, {}, {}) {}
};

}  // namespace appex
