// SafariExtensionHandler: the extension's principal class: the browser
// calls it for page messages, toolbar events, the popover and navigation.
//
// It holds no state; every callback hands on to the Context's shared
// objects (tab registry, toolbar API, router, popup view controller,
// GlobalState). Making one installs, once per Context, how the API
// makes the shared popup view controller (PopupControllerMaker). The first toolbar validation creates the background page
// ("safari_background.html" in the bundle's web assets), once per process.
//
// The browser calls every callback on the main queue. The completions it
// passes in (the validation handler) are called at most once, from any
// thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/any_value.h"

namespace appex {

class Context;
class SFSafariPage;
class SFSafariWindow;
class SafariExtensionViewController;

class SafariExtensionHandler {
 public:
  // The name of every page message the extension takes.
  static constexpr std::string_view kMessageName = "__APP_EXTENSION__";
  // (enabled, badge text).
  using ValidationHandler = std::move_only_function<void(bool, std::string)>;

  // Uses the current Context.
  SafariExtensionHandler();
  explicit SafariExtensionHandler(Context& context);

  // A content script's message; any name but "__APP_EXTENSION__" (exactly)
  // is ignored without a word.
  void messageReceivedWithName(const std::string& name, std::shared_ptr<SFSafariPage> page,
                               std::optional<Dictionary> userInfo) const;
  void toolbarItemClickedInWindow(std::shared_ptr<SFSafariWindow> window) const;
  void validateToolbarItemInWindow(std::shared_ptr<SFSafariWindow> window,
                                   ValidationHandler validationHandler) const;
  std::shared_ptr<SafariExtensionViewController> popoverViewController() const;
  void popoverWillShowInWindow(std::shared_ptr<SFSafariWindow> window) const;
  void pageWillNavigateToURL(std::shared_ptr<SFSafariPage> page,
                             std::optional<std::string> url) const;

 private:
  void ensureBackgroundPage() const;

  Context& context_;
};

}  // namespace appex
