#include "bridge/safari_extension_view_controller.h"

#include <cstdio>
#include <cstdlib>

#include "core/context.h"
#include "core/log.h"
#include "host/safari_messaging_api.h"
#include "platform/bundle.h"
#include "platform/popover.h"
#include "platform/web_view_factory.h"

namespace appex {

std::shared_ptr<SafariExtensionViewController> SafariExtensionViewController::create(Context& context) {
  auto controller = std::make_shared<SafariExtensionViewController>(context);
  // The API's popup commands act on this controller.
  context.set<PopupController>(controller);
  return controller;
}

std::shared_ptr<SafariExtensionViewController> SafariExtensionViewController::shared() {
  return Context::current().get<SafariExtensionViewController>();
}

SafariExtensionViewController::SafariExtensionViewController(Context& context) : context_(context) {}

void SafariExtensionViewController::loadViewIfNeeded() {
  if (view_) return;
  view_ = context_.get<WebViewFactory>()->createWebView();
  webview_ = WeakRef<WebView>(view_);
  viewDidLoad();
}

void SafariExtensionViewController::viewDidLoad() {
  logLine("init popup bridge");
  auto webview = webview_.ref();
  if (!webview) {
    std::fputs("SafariExtensionViewController: the popup web view is not connected\n", stderr);
    std::abort();
  }
  context_.get<SafariMessagingAPI>()->setPopupWebview(webview);
  auto bundle = context_.get<Bundle>();
  const std::string path = bundle->path() + "/Contents/Resources/Assets/extension/popup.html";
  logLine("poup page file path: " + path);
  if (auto view = webview_.ref()) view->loadFileURL(path, bundle->path());
}

Size SafariExtensionViewController::preferredContentSize() const {
  std::lock_guard lock(mutex_);
  return preferredContentSize_;
}

void SafariExtensionViewController::setPreferredContentSize(Size size) {
  {
    std::lock_guard lock(mutex_);
    preferredContentSize_ = size;
  }
  context_.get<Popover>()->setSize(size);
}

void SafariExtensionViewController::dismissPopover() { context_.get<Popover>()->dismiss(); }

}  // namespace appex
