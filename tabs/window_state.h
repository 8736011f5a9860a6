// WindowState: the system's snapshot of one browser window: its identifier,
// the tab snapshots last supplied for it, and the window itself (weakly).
//
// Made once per window by SafariWindowAPI with a fresh UUID `id` that never
// changes, then updated in place. A closed window keeps its snapshot, with
// win() reading as empty. `tabs` is whatever the last caller supplied:
// every rebuild of one of its tabs supplies an empty list, so a populated
// view only comes from a window command asked to populate.
//
// Thread-safe.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/weak_ref.h"
#include "host/any_value.h"
#include "platform/safari_window.h"
#include "tabs/tab_state.h"

namespace appex {

class WindowState {
 public:
  using TabList = std::vector<std::shared_ptr<TabState>>;

  explicit WindowState(std::string id) : id_(std::move(id)) {}

  WindowState(const WindowState&) = delete;
  WindowState& operator=(const WindowState&) = delete;

  const std::string& id() const { return id_; }
  std::optional<TabList> tabs() const;
  WeakRef<SFSafariWindow> win() const;

  void assign(WeakRef<SFSafariWindow> win, std::optional<TabList> tabs);

  // {"id", "tabs": the tabs' dictionary forms in order, or null when the
  // list is absent}.
  Dictionary toDictionary() const;

 private:
  const std::string id_;
  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::optional<TabList> tabs_ = TabList{};
  WeakRef<SFSafariWindow> win_;
};

}  // namespace appex
