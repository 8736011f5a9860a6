// Popover: the toolbar popover as the host shows it: whether it is shown,
// and at which size.
//
// The popup view controller changes its size and dismisses it; the browser
// (the WebKit host, or a test playing the browser) shows it and follows
// changes through `setObserver`. One per Context, created on first use.
//
// Thread-safe. The observer is called with no lock held, on the thread that
// made the change.
#pragma once

#include <functional>
#include <mutex>

#include "platform/popup_controller.h"

namespace appex {

class Popover {
 public:
  struct State {
    bool shown = false;
    Size size;
    bool operator==(const State&) const = default;
  };
  using Observer = std::function<void(const State&)>;

  State state() const {
    std::lock_guard lock(mutex_);
    return state_;
  }

  void show(Size size) { change([&](State& s) { s = {true, size}; }); }
  void setSize(Size size) { change([&](State& s) { s.size = size; }); }
  void dismiss() { change([](State& s) { s.shown = false; }); }

  void setObserver(Observer observer) {
    std::lock_guard lock(mutex_);
    observer_ = std::move(observer);
  }

 private:
  template <class F>
  void change(F f) {
    State now;
    Observer observer;
    {
      std::lock_guard lock(mutex_);
      State before = state_;
      f(state_);
      if (state_ == before) return;
      now = state_;
      observer = observer_;
    }
    if (observer) observer(now);
  }

  mutable std::mutex mutex_;
  State state_;
  Observer observer_;
};

}  // namespace appex
