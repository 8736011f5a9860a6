// WebKitTab and WebKitPage: one tab of a browser window, as a web view, and
// the page it shows.
//
// A tab's pages are its frames, as the extension sees them: the top page
// (the top frame), which stays the same object while the tab navigates, and
// one page per subframe, made when that frame's content scripts first post
// a message and closed when the frame goes. Messages from a frame arrive
// from its page, and a message to a page reaches that frame only. The top
// page's properties (URL, title) are read from the engine when asked; those
// of a page outside the extension's website access are withheld from it. A
// tab is owned by its window while open and owns its pages and web view;
// closing it closes the pages, which then answer nothing and drop messages.
// See webkit_browser.h for threads.
#pragma once

#include <atomic>
#include <cstdint>
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
  // SFSafariTab. The active page is the top page; getPages lists it first,
  // then the subframes' pages.
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
  // SFSafariPage. getPageProperties leaves out the URL and title of a page
  // outside the extension's website access (ContentRules::admitsURL).
  void getContainingTab(TabCompletion completion) override;
  void getPageProperties(PropertiesCompletion completion) override;
  void dispatchMessageToScript(const std::string& name, const Dictionary& userInfo) override;
  bool isEqual(const SFSafariPage& other) const override;
  std::string description() const override;

  // Host controls (main thread): the page's properties in full, nothing
  // once the page is closed. A subframe's page has the frame's URL (as of
  // its last message) and no title.
  std::optional<SFSafariPageProperties> properties() const;
  std::shared_ptr<WebKitTab> tab() const;
  bool isClosed() const { return closed_; }
  // 0 for the top page, else the WebKit id of the page's frame.
  std::uint64_t frameAddress() const { return frameAddress_; }

  // Made and closed by its tab; the frame's URL is set on the main thread.
  WebKitPage(std::weak_ptr<WebKitTab> tab, std::string description, std::uint64_t frameAddress = 0);
  void markClosed() { closed_ = true; }
  void setFrameURL(std::string url) { frameURL_ = std::move(url); }

 private:
  const std::weak_ptr<WebKitTab> tab_;
  const std::string description_;
  const std::uint64_t frameAddress_;
  std::string frameURL_;  // subframe pages; main thread only
  std::atomic<bool> closed_{false};
};

}  // namespace appex::webkit
