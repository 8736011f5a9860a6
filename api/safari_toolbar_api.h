// SafariToolbarAPI: the state of the extension's toolbar button (icon,
// badge, label, enabled flag), once for all tabs (`globalInfo`) and
// optionally per tab (`tabsInfo`), and pushing it onto the browser's
// toolbar items.
//
// A per-tab record never inherits from the global one: a tab's first set
// starts from the default record. The record that applies to a tab is its
// own if it has one, else the global one, else none (then the button is
// left alone and validation reports enabled with an empty badge). Per-tab
// records outlive their tabs.
//
// Sets only record the change and ask the browser to validate its toolbar
// items again; the browser's validation (validateToolbarItem) then pushes
// the state of each window's active tab. Tab "create"/"update" events for a
// window's active tab push it at once.
//
// One instance per Context (shared()); it subscribes to the tab registry's
// events when created. Thread-safe: the records are guarded by a mutex that
// is never held across a call to the browser.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "api/toolbar_item_info.h"
#include "core/registry.h"

namespace appex {

class Context;
class SFSafariWindow;
class TabState;

class SafariToolbarAPI : public std::enable_shared_from_this<SafariToolbarAPI> {
 public:
  using Done = std::move_only_function<void()>;
  // The browser's validation handler: (enabled, badge text). Called once.
  using ValidationHandler = std::move_only_function<void(bool, std::string)>;

  static std::shared_ptr<SafariToolbarAPI> create(Context& context);
  static std::shared_ptr<SafariToolbarAPI> shared();

  explicit SafariToolbarAPI(Context& context);
  ~SafariToolbarAPI();

  void setBadgeText(std::string text, std::optional<std::string> tabId);
  void setIcon(std::string path, std::optional<std::string> tabId);

  // Applies the record for `tabId` to `window`'s toolbar item; calls
  // `completion` after, or never when there is no record.
  void updateToolbarItem(std::shared_ptr<SFSafariWindow> window, std::optional<std::string> tabId,
                         Done completion = nullptr);

  // Answers the browser's validation for `window` with the state of its
  // active tab, after pushing that state onto the window's item.
  void validateToolbarItem(std::shared_ptr<SFSafariWindow> window, ValidationHandler handler);

  std::optional<ToolbarItemInfo> globalInfo() const;
  std::optional<ToolbarItemInfo> tabInfo(const std::string& tabId) const;

 private:
  struct Effective {
    std::optional<ToolbarItemInfo> record;
    std::optional<std::string> tabIdForLog;  // set only when the tab's own record applies
  };

  template <class Write>
  void set(const std::optional<std::string>& tabId, Write write);
  Effective effectiveRecord(const std::optional<std::string>& tabId) const;
  void onTabEvent(const std::string& event, const std::shared_ptr<TabState>& state);
  std::optional<struct ToolbarImage> loadImage(const std::string& image) const;
  void subscribe();

  Context& context_;
  mutable std::mutex mutex_;
  std::optional<ToolbarItemInfo> globalInfo_;           // guarded by mutex_
  std::map<std::string, ToolbarItemInfo> tabsInfo_;     // guarded by mutex_
  std::vector<Disposer> subscriptions_;
};

}  // namespace appex
