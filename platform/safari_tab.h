// SFSafariTab: one browser tab, as the browser hands it to the extension.
// A tab shows zero or more pages, one of them active, and lives in one
// window. Tabs carry no identifier of their own; the system recognises them
// only through isEqual and gives them identifiers itself.
//
// The browser owns tabs; the system holds them weakly. A closed tab answers
// its queries with empty results. Every completion is called exactly once,
// on any thread, possibly before the call returns.
//
// Thread-safe.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace appex {

class SFSafariPage;
class SFSafariWindow;

class SFSafariTab {
 public:
  using PageCompletion = std::move_only_function<void(std::shared_ptr<SFSafariPage>)>;
  using PagesCompletion =
      std::move_only_function<void(std::vector<std::shared_ptr<SFSafariPage>>)>;
  using WindowCompletion = std::move_only_function<void(std::shared_ptr<SFSafariWindow>)>;
  using Done = std::move_only_function<void()>;

  virtual ~SFSafariTab() = default;

  // The page the tab shows now, or nullptr when it shows none.
  virtual void getActivePage(PageCompletion completion) = 0;
  // Every page of the tab (top-level first), possibly none.
  virtual void getPages(PagesCompletion completion) = 0;
  // The window holding the tab, or nullptr once the tab is closed.
  virtual void getContainingWindow(WindowCompletion completion) = 0;

  // Loads `url` (absolute URL text) in the tab. Fire and forget.
  virtual void navigateToURL(const std::string& url) = 0;
  // Makes the tab the active tab of its window; `completion` runs once the
  // browser has done so (also when it could not).
  virtual void activate(Done completion) = 0;
  // Closes the tab. A no-op on a closed tab.
  virtual void close() = 0;

  // True when both handles denote the same browser tab.
  virtual bool isEqual(const SFSafariTab& other) const = 0;
  // A hash that agrees with isEqual: tabs it calls equal hash alike, so
  // registries can find a tab without comparing it with every other. The
  // default hashes the handle's address, which agrees with an isEqual that
  // compares identity; a browser whose isEqual does not must override it.
  virtual std::size_t hash() const { return std::hash<const void*>{}(this); }
  // A short text naming the tab, for log lines only.
  virtual std::string description() const = 0;
};

}  // namespace appex
