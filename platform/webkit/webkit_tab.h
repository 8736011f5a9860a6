// WebKitTab and WebKitPage: one tab of a browser window, as a web view, and
// the page it shows.
//
// A tab has exactly one page, its top document with all its frames, which
// stays the same object while the tab navigates; its properties (URL, title)
// are read from the engine when asked. A tab is owned by its window while
// open and owns its page and web view; closing it closes the page, which
// then answers nothing and drops messages. See webkit_browser.h for threads.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "platform/safari_page.h"
#include "platform/safari_tab.h"
#include "platform/webkit/snapshot.h"

namespace appex::webkit {

class WebKitPage;
class WebKitWindow;

class WebKitTab final : public SFSafariTab, public std::enable_shared_from_this<WebKitTab> {
 public:
  // SFSafariTab.
  void getActivePage(PageCompletion completion) override;
  void getPages(PagesCompletion completion) override;
  void getContainingWindow(WindowCompletion completion) override;
  // Loads `url` unless it is not loadable (see isLoadableURL).
  void navigateToURL(const std::string& url) override;
  // Makes the tab active in its window and the window the active window.
  void activate(Done completion) override;
  void close() override;
  bool isEqual(const SFSafariTab& other) const override;
  std::string description() const override;

  // Host controls (main thread).
  std::shared_ptr<WebKitPage> page() const;
  std::shared_ptr<WebKitWindow> window() const;
  bool isClosed() const;
  // True while the page is loading.
  bool isLoading() const;
  // Writes what the tab shows to a PNG file.
  void snapshot(std::string pngPath, SnapshotCompletion completion);

  // The state behind the object (browser_internals.h), for platform/webkit.
  struct Impl;
  explicit WebKitTab(std::unique_ptr<Impl> impl);
  Impl& internals() const { return *impl_; }
  ~WebKitTab() override;

 private:
  const std::unique_ptr<Impl> impl_;
};

class WebKitPage final : public SFSafariPage, public std::enable_shared_from_this<WebKitPage> {
 public:
  // SFSafariPage.
  void getContainingTab(TabCompletion completion) override;
  void getPageProperties(PropertiesCompletion completion) override;
  void dispatchMessageToScript(const std::string& name, const Dictionary& userInfo) override;
  bool isEqual(const SFSafariPage& other) const override;
  std::string description() const override;

  // Host controls (main thread): what getPageProperties reports, nothing
  // once the page is closed.
  std::optional<SFSafariPageProperties> properties() const;
  std::shared_ptr<WebKitTab> tab() const;
  bool isClosed() const { return closed_; }

  // Made and closed by its tab.
  WebKitPage(std::weak_ptr<WebKitTab> tab, std::string description);
  void markClosed() { closed_ = true; }

 private:
  const std::weak_ptr<WebKitTab> tab_;
  const std::string description_;
  std::atomic<bool> closed_{false};
};

}  // namespace appex::webkit
