// SimWindow: one simulated browser window: ordered tabs, an active tab, a
// toolbar item, and whether it is private.
//
// Owned by its SimBrowser while open; owns its tabs and toolbar item; holds
// the browser weakly. Closing drops the window from the browser and closes
// its tabs; a closed window answers empty results. Thread-safe; completions
// follow the browser's delivery setting.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/safari_window.h"
#include "platform/sim/sim_core.h"

namespace appex::sim {

class SimBrowser;
class SimTab;
class SimToolbarItem;

class SimWindow final : public SFSafariWindow, public std::enable_shared_from_this<SimWindow> {
 public:
  // Made by SimBrowser.
  SimWindow(std::shared_ptr<SimCore> core, bool isPrivate);

  // SFSafariWindow.
  void getActiveTab(TabCompletion completion) override;
  void getAllTabs(TabsCompletion completion) override;
  void getToolbarItem(ToolbarItemCompletion completion) override;
  // Answers nullptr when the window is closed or the browser refuses to
  // open (SimBrowser::setRefusesToOpen).
  void openTabWithURL(const std::string& url, bool makeActiveIfPossible,
                      TabCompletion completion) override;
  void close() override;
  bool isEqual(const SFSafariWindow& other) const override;
  std::string description() const override;

  // Test controls. A window's first tab becomes its active tab.
  // A tab showing one page at `url`.
  std::shared_ptr<SimTab> addTab(std::string url, std::optional<std::string> title = {},
                                 bool makeActive = false);
  // A tab with no page at all.
  std::shared_ptr<SimTab> addBlankTab(bool makeActive = false);
  std::vector<std::shared_ptr<SimTab>> tabs() const;
  std::shared_ptr<SimTab> activeTab() const;
  std::shared_ptr<SimToolbarItem> toolbarItem() const;
  bool isPrivate() const;
  bool isClosed() const;

 private:
  friend class SimBrowser;
  friend class SimTab;
  friend class SimPage;

  // REQUIRES: core_->mutex held.
  std::shared_ptr<SimTab> addTabLocked(bool makeActive);
  // Takes `tab` out of the tab list, choosing a new active tab if needed.
  void detachLocked(const SimTab* tab);
  void closeLocked();

  const std::shared_ptr<SimCore> core_;
  const std::uint64_t serial_;
  const bool private_;
  const std::shared_ptr<SimToolbarItem> toolbarItem_;
  // Guarded by core_->mutex.
  std::weak_ptr<SimBrowser> browser_;
  std::vector<std::shared_ptr<SimTab>> tabs_;
  std::weak_ptr<SimTab> activeTab_;
  bool closed_ = false;
};

}  // namespace appex::sim
