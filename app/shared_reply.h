// SharedReply: a reply that several paths may call (the answer, a time-out,
// the page going away): the first call wins, later ones do nothing, and
// anyone holding a copy can ask whether it has been answered, to let go of
// work that no longer matters.
//
// Copyable; thread-safe.
#pragma once

#include <memory>
#include <mutex>

#include "host/result.h"

namespace appex {

class SharedReply {
 public:
  explicit SharedReply(ResultCallback reply) : state_(std::make_shared<State>()) {
    state_->reply = std::move(reply);
  }

  void operator()(Result result) const {
    ResultCallback once;
    {
      std::lock_guard lock(state_->mutex);
      once = std::move(state_->reply);
      state_->reply = nullptr;
    }
    if (once) once(std::move(result));
  }

  bool answered() const {
    std::lock_guard lock(state_->mutex);
    return !state_->reply;
  }

 private:
  struct State {
    std::mutex mutex;
    ResultCallback reply;
  };
  std::shared_ptr<State> state_;
};

}  // namespace appex
