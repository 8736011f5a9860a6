// WebKitWindow: one browser window: ordered tabs in a notebook, one of them
// active, a location entry and the extension's toolbar button.
//
// Owned by its browser while open; owns its tabs and toolbar item. Closing
// the window closes its tabs; closing a window's last tab closes the window.
// A closed window answers empty results. See webkit_browser.h for threads.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/safari_window.h"

namespace appex::webkit {

class WebKitBrowser;
class WebKitTab;
class WebKitToolbarItem;

class WebKitWindow final : public SFSafariWindow, public std::enable_shared_from_this<WebKitWindow> {
 public:
  // SFSafariWindow.
  void getActiveTab(TabCompletion completion) override;
  void getAllTabs(TabsCompletion completion) override;
  void getToolbarItem(ToolbarItemCompletion completion) override;
  void openTabWithURL(const std::string& url, bool makeActiveIfPossible,
                      TabCompletion completion) override;
  void close() override;
  bool isEqual(const SFSafariWindow& other) const override;
  std::string description() const override;

  // Host controls (main thread).

  // A new tab at `url`, made active when asked (a window's first tab always
  // is); nullptr when the window is closed or the URL is not loadable.
  std::shared_ptr<WebKitTab> openTab(const std::string& url, bool makeActive);
  std::vector<std::shared_ptr<WebKitTab>> tabs() const;
  std::shared_ptr<WebKitTab> activeTab() const;
  bool isPrivate() const;
  bool isClosed() const;
  // What a click on the extension's toolbar button does: nothing while the
  // item is disabled; otherwise the popover (toggled) or toolbarItemClicked.
  void clickToolbarItem();

  // Any thread.
  std::shared_ptr<WebKitToolbarItem> toolbarItem() const;

  // The state behind the object (browser_internals.h), for platform/webkit.
  struct Impl;
  explicit WebKitWindow(std::unique_ptr<Impl> impl);
  Impl& internals() const { return *impl_; }
  ~WebKitWindow() override;

 private:
  const std::unique_ptr<Impl> impl_;
};

}  // namespace appex::webkit
