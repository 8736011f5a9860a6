// TabState: the system's snapshot of one browser tab, the form in which
// tabs reach the tab commands, the tab events and the window snapshots.
//
// Made once per tab by the tab registry (SafariTabAPI) with a fresh UUID
// `id` that never changes, then updated in place on every later build, so
// everyone holding the shared_ptr sees the latest values. The tab and its
// window are held weakly: a snapshot outlives a closed tab, with tab() and
// win() then reading as empty.
//
// Web code sees the five-key dictionary form (toDictionary); the window id
// and the browser objects stay native.
//
// Thread-safe: the fields are read and written under one lock, and
// fields()/toDictionary() read them all at once.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "core/weak_ref.h"
#include "host/any_value.h"
#include "platform/safari_page_properties.h"
#include "platform/safari_tab.h"
#include "platform/safari_window.h"

namespace appex {

class TabState {
 public:
  // Everything but the id, as one value.
  struct Fields {
    // The page's absolute URL; "about:blank" when it has none.
    std::optional<std::string> url = std::string("about:blank");
    // The page's title; absent when the page has none.
    std::optional<std::string> title = std::string();
    // The tab is its window's active tab.
    bool isActive = false;
    // The page uses private browsing.
    bool isPrivate = false;
    // The `id` of the containing window's WindowState.
    std::optional<std::string> windowId;
    WeakRef<SFSafariTab> tab;
    WeakRef<SFSafariWindow> win;

    // Sets url, title and isPrivate from what the page reports (absent:
    // the tab shows no page).
    void readPage(const std::optional<SFSafariPageProperties>& properties);
  };

  explicit TabState(std::string id) : id_(std::move(id)) {}

  TabState(const TabState&) = delete;
  TabState& operator=(const TabState&) = delete;

  const std::string& id() const { return id_; }
  std::optional<std::string> url() const;
  std::optional<std::string> title() const;
  bool isActive() const;
  bool isPrivate() const;
  std::optional<std::string> windowId() const;
  WeakRef<SFSafariTab> tab() const;
  WeakRef<SFSafariWindow> win() const;
  Fields fields() const;

  // Replaces every field but the id.
  void assign(Fields fields);
  void setActive(bool active);

  // {"id", "url" ("" when absent), "title" ("" when absent), "isActive",
  // "isPrivate"}, in that order.
  Dictionary toDictionary() const;

 private:
  const std::string id_;
  mutable std::mutex mutex_;
  Fields fields_;  // guarded by mutex_
};

}  // namespace appex
