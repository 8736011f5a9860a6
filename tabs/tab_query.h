// TabQuery: the filter of the tabs.query command, applied to the refreshed
// list of tab snapshots in list order.
//
//  * active: keeps snapshots whose isActive equals it.
//  * urls: keeps snapshots that have a url containing any of the texts
//    (literal, case-sensitive substring). An empty list filters nothing.
//  * the window filter, only when the "currentWindow" key was present:
//    with no current window everything passes; a snapshot whose window is
//    gone always passes; otherwise currentWindow true keeps the tabs of the
//    current window, false keeps the others, and a key present without a
//    boolean value keeps none of them (only window-less snapshots survive).
//    That last rule is deliberate.
//
// A plain value. Thread-compatible.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/any_value.h"
#include "platform/safari_window.h"
#include "tabs/tab_state.h"

namespace appex {

struct TabQuery {
  std::optional<bool> active;
  bool filtersByWindow = false;
  std::optional<bool> currentWindow;
  std::vector<std::string> urls;

  // Reads the command's arguments: "active" and "currentWindow" count only
  // as booleans, "url" as a string or a list of strings; anything else is
  // not set (but a present "currentWindow" still turns the window filter
  // on).
  static TabQuery fromArguments(const Dictionary& args);

  // Whether `state` passes; `current` is the browser's active window, read
  // only when filtersByWindow holds.
  bool admits(const TabState& state, const std::shared_ptr<SFSafariWindow>& current) const;
};

}  // namespace appex
