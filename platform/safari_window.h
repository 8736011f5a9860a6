// SFSafariWindow: one browser window, as the browser hands it to the
// extension. A window holds ordered tabs, one of them active, and the
// extension's toolbar item for that window. Windows carry no identifier of
// their own; the system recognises them only through isEqual.
//
// The browser owns windows; the system holds them weakly. A closed window
// answers its queries with empty results. Every completion is called
// exactly once, on any thread, possibly before the call returns.
//
// Thread-safe.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace appex {

class SFSafariTab;
class SFSafariToolbarItem;

class SFSafariWindow {
 public:
  using TabCompletion = std::move_only_function<void(std::shared_ptr<SFSafariTab>)>;
  using TabsCompletion = std::move_only_function<void(std::vector<std::shared_ptr<SFSafariTab>>)>;
  using ToolbarItemCompletion =
      std::move_only_function<void(std::shared_ptr<SFSafariToolbarItem>)>;

  virtual ~SFSafariWindow() = default;

  // The active tab, or nullptr when the window has none.
  virtual void getActiveTab(TabCompletion completion) = 0;
  // The window's tabs in their visible order.
  virtual void getAllTabs(TabsCompletion completion) = 0;
  // The extension's toolbar item in this window, or nullptr.
  virtual void getToolbarItem(ToolbarItemCompletion completion) = 0;
  // Opens a new tab at `url` (absolute URL text), made the active tab when
  // `makeActiveIfPossible` holds. The completion receives the new tab, or
  // nullptr when the browser opened none.
  virtual void openTabWithURL(const std::string& url, bool makeActiveIfPossible,
                              TabCompletion completion) = 0;
  // Closes the window and its tabs. A no-op on a closed window.
  virtual void close() = 0;

  // True when both handles denote the same browser window.
  virtual bool isEqual(const SFSafariWindow& other) const = 0;
  // A hash that agrees with isEqual: windows it calls equal hash alike, so
  // registries can find a window without comparing it with every other. The
  // default hashes the handle's address, which agrees with an isEqual that
  // compares identity; a browser whose isEqual does not must override it.
  virtual std::size_t hash() const { return std::hash<const void*>{}(this); }
  // A short text naming the window, for log lines only.
  virtual std::string description() const = 0;
};

}  // namespace appex
