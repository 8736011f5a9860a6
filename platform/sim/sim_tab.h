// SimTab: one tab of a simulated window, with its pages (none, one or
// several; one active).
//
// Owned by its SimWindow while open; owns its pages; holds its window
// weakly. Closing drops the tab from its window and closes its pages; a
// closed tab answers empty results. Thread-safe; completions follow the
// browser's delivery setting.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/safari_tab.h"
#include "platform/sim/sim_core.h"

namespace appex::sim {

class SimBrowser;
class SimPage;
class SimWindow;

class SimTab final : public SFSafariTab, public std::enable_shared_from_this<SimTab> {
 public:
  // Made by SimWindow.
  explicit SimTab(std::shared_ptr<SimCore> core);

  // SFSafariTab.
  void getActivePage(PageCompletion completion) override;
  void getPages(PagesCompletion completion) override;
  void getContainingWindow(WindowCompletion completion) override;
  // Shows `url` in the active page (a new page when the tab has none); the
  // page's title is cleared until a test sets one.
  void navigateToURL(const std::string& url) override;
  // Makes the tab active in its window and the window the active window.
  void activate(Done completion) override;
  void close() override;
  bool isEqual(const SFSafariTab& other) const override;
  std::string description() const override;

  // Test controls. A tab's first page becomes its active page.
  std::shared_ptr<SimPage> addPage(std::string url, std::optional<std::string> title = {},
                                   bool makeActive = false);
  std::vector<std::shared_ptr<SimPage>> pages() const;
  std::shared_ptr<SimPage> activePage() const;
  std::shared_ptr<SimWindow> window() const;
  // True when the tab is the active tab of its window.
  bool isActive() const;
  bool isClosed() const;
  // Moves the open tab to the end of `window` (an open window) and makes it
  // active there, as dragging a tab between windows does.
  void moveTo(const std::shared_ptr<SimWindow>& window);

 private:
  friend class SimBrowser;
  friend class SimWindow;
  friend class SimPage;

  // REQUIRES: core_->mutex held.
  std::shared_ptr<SimPage> addPageLocked(std::optional<std::string> url,
                                         std::optional<std::string> title, bool makeActive);
  void closeLocked();

  const std::shared_ptr<SimCore> core_;
  const std::uint64_t serial_;
  // Guarded by core_->mutex.
  std::weak_ptr<SimWindow> window_;
  std::vector<std::shared_ptr<SimPage>> pages_;
  std::weak_ptr<SimPage> activePage_;
  bool closed_ = false;
};

}  // namespace appex::sim
