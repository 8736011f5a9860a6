// ExtensionCallbacks: how a browser delivers its calls to the extension:
// page messages, the toolbar item's validation and clicks, the popover and
// navigation. A browser implementation (platform/webkit/) calls it; the
// extension's entry (host/extension_handler_callbacks.h) implements it by
// handing each call to SafariExtensionHandler, so the browser never depends
// on the extension's logic.
//
// The browser makes every call on its main thread and never while holding a
// lock of its own. The validation handler may be called from any thread,
// at most once.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/any_value.h"
#include "platform/popup_controller.h"

namespace appex {

class SFSafariPage;
class SFSafariWindow;
class WebView;

class ExtensionCallbacks {
 public:
  // (enabled, badge text; empty for no badge).
  using ValidationHandler = std::move_only_function<void(bool enabled, std::string badgeText)>;

  // What the popover shows: the popup page's web view (nullptr when there
  // is none) at its preferred size.
  struct PopoverContent {
    std::shared_ptr<WebView> webView;
    Size preferredSize;
  };

  virtual ~ExtensionCallbacks() = default;

  // A content script of `page` dispatched `userInfo` (absent when it sent
  // none) under `name`.
  virtual void messageReceived(const std::string& name, std::shared_ptr<SFSafariPage> page,
                               std::optional<Dictionary> userInfo) = 0;
  // The toolbar item of `window` was clicked, and it shows no popover.
  virtual void toolbarItemClicked(std::shared_ptr<SFSafariWindow> window) = 0;
  // The browser asks how to show the toolbar item of `window`.
  virtual void validateToolbarItem(std::shared_ptr<SFSafariWindow> window, ValidationHandler handler) = 0;
  // The popover is about to show for `window`.
  virtual void popoverWillShow(std::shared_ptr<SFSafariWindow> window) = 0;
  // The popover's content, asked for each time it shows.
  virtual PopoverContent popoverContent() = 0;
  // `page` is about to load `url` (absent when the browser knows none).
  virtual void pageWillNavigate(std::shared_ptr<SFSafariPage> page, std::optional<std::string> url) = 0;
};

}  // namespace appex
