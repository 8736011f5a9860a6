#include "host/safari_extension_handler.h"

#include <cstdio>
#include <cstdlib>

#include "api/safari_toolbar_api.h"
#include "bridge/safari_extension_view_controller.h"
#include "core/context.h"
#include "core/log.h"
#include "host/global_state.h"
#include "host/safari_messaging_api.h"
#include "platform/bundle.h"
#include "platform/popup_controller.h"
#include "platform/safari_tab.h"
#include "platform/safari_window.h"
#include "platform/web_view.h"
#include "platform/web_view_factory.h"
#include "tabs/safari_tab_api.h"

namespace appex {

std::shared_ptr<GlobalState> GlobalState::shared() { return Context::current().get<GlobalState>(); }

SafariExtensionHandler::SafariExtensionHandler() : SafariExtensionHandler(Context::current()) {}

SafariExtensionHandler::SafariExtensionHandler(Context& context) : context_(context) {
  // The popup commands reach the shared popup controller even before the
  // popover first shows; the API cannot name the controller's type itself.
  if (!context_.find<PopupControllerMaker>()) {
    context_.set(std::make_shared<PopupControllerMaker>(PopupControllerMaker{[](Context& c) {
      return std::static_pointer_cast<PopupController>(c.get<SafariExtensionViewController>());
    }}));
  }
}

void SafariExtensionHandler::messageReceivedWithName(const std::string& name,
                                                     std::shared_ptr<SFSafariPage> page,
                                                     std::optional<Dictionary> userInfo) const {
  if (name != kMessageName) return;
  // The router must exist to take the asks the registry hands on.
  context_.get<SafariMessagingAPI>();
  context_.get<SafariTabAPI>()->onPageMessage(name, std::move(userInfo), std::move(page));
}

void SafariExtensionHandler::toolbarItemClickedInWindow(std::shared_ptr<SFSafariWindow>) const {
  logLine("The extension's toolbar item was clicked");
}

void SafariExtensionHandler::ensureBackgroundPage() const {
  auto state = context_.get<GlobalState>();
  if (state->webview) return;
  auto webview = context_.get<WebViewFactory>()->createWebView();
  auto bundle = context_.get<Bundle>();
  const std::string path =
      bundle->path() + "/Contents/Resources/Assets/extension/safari_background.html";
  logLine("background page file path: " + path);
  webview->loadFileURL(path, bundle->path());
  context_.get<SafariMessagingAPI>()->setBackgroundWebview(webview);
  state->webview = std::move(webview);
}

void SafariExtensionHandler::validateToolbarItemInWindow(std::shared_ptr<SFSafariWindow> window,
                                                         ValidationHandler validationHandler) const {
  ensureBackgroundPage();
  context_.get<SafariToolbarAPI>()->validateToolbarItem(window, std::move(validationHandler));
  if (!window) return;
  std::weak_ptr<SafariTabAPI> tabs = context_.get<SafariTabAPI>();
  window->getActiveTab([tabs, window](std::shared_ptr<SFSafariTab> active) {
    if (auto registry = tabs.lock()) registry->refreshActiveFlags(window, std::move(active));
  });
}

std::shared_ptr<SafariExtensionViewController> SafariExtensionHandler::popoverViewController() const {
  auto controller = context_.get<SafariExtensionViewController>();
  controller->loadViewIfNeeded();
  return controller;
}

void SafariExtensionHandler::popoverWillShowInWindow(std::shared_ptr<SFSafariWindow>) const {
  auto webview = popoverViewController()->webview();
  if (!webview) {
    std::fputs("SafariExtensionHandler: the popover has no web view to reload\n", stderr);
    std::abort();
  }
  webview->reload();
}

void SafariExtensionHandler::pageWillNavigateToURL(std::shared_ptr<SFSafariPage> page,
                                                   std::optional<std::string>) const {
  // The registry rebuilds a tab's snapshot when its content script asks
  // "VALIDATE_TAB" after the load; the URL alone names no tab. What the
  // leaving document was asked goes unanswered: its parked replies go.
  context_.get<SafariTabAPI>()->pageWillNavigate(page);
}

}  // namespace appex
