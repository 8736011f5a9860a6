// CallbackUtils: joins several asynchronous steps started together into one
// completion.
//
// `join(n, final)` returns the step completion `done(index, result)`. Each
// step calls it once with its own index; when every index has answered,
// `final` receives the results in index order, on the thread of the last
// step to answer. With n == 0 `final` runs at once with an empty list.
//
// Contract: call each index once. The join keeps no mark of having
// finished, so an index answering again after all have answered runs
// `final` again; an index outside [0, n) is a programming fault that stops
// the process.
//
// Thread-safe: steps may answer on any threads at once.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace appex {

class CallbackUtils {
 public:
  template <class R>
  using Final = std::function<void(std::vector<R>)>;
  template <class R>
  using Step = std::function<void(std::size_t, R)>;

  template <class R>
  static Step<R> join(std::size_t n, Final<R> final) {
    if (n == 0) {
      final({});
      return [](std::size_t index, R) { outOfRange(index, 0); };
    }
    // `remaining` counts the indexes yet to answer for the first time, so
    // each step costs O(1) however many there are; once it reaches 0 every
    // answer (a repeat included) runs `final` with the latest results.
    struct State {
      std::mutex mutex;
      std::vector<bool> done;
      std::size_t remaining;
      std::vector<std::optional<R>> results;
      Final<R> final;
    };
    auto state = std::make_shared<State>();
    state->done.assign(n, false);
    state->remaining = n;
    state->results.resize(n);
    state->final = std::move(final);
    return [state, n](std::size_t index, R result) {
      if (index >= n) outOfRange(index, n);
      std::optional<std::vector<R>> ready;
      {
        std::lock_guard lock(state->mutex);
        if (!state->done[index]) {
          state->done[index] = true;
          --state->remaining;
        }
        state->results[index] = std::move(result);
        if (state->remaining != 0) return;
        std::vector<R> list;
        list.reserve(n);
        for (std::size_t i = 0; i < n; ++i) list.push_back(*state->results[i]);
        ready = std::move(list);
      }
      state->final(std::move(*ready));
    };
  }

 private:
  [[noreturn]] static void outOfRange(std::size_t index, std::size_t n) {
    std::fprintf(stderr, "CallbackUtils.join: step %zu outside 0..%zu\n", index, n);
    std::abort();
  }
};

}  // namespace appex
