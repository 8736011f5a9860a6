// WebViewFactory: makes the web views that host the extension's own pages
// (the background page, the popup page). The host installs one per Context
// (the WebKit engine's, or a fake in tests).
//
// Thread-safe to hold; createWebView is main queue only.
#pragma once

#include <functional>
#include <memory>

#include "platform/web_view.h"

namespace appex {

class WebViewFactory {
 public:
  using Make = std::function<std::shared_ptr<WebView>()>;

  explicit WebViewFactory(Make make) : make_(std::move(make)) {}

  // A new web view with the default configuration and no page loaded.
  std::shared_ptr<WebView> createWebView() const { return make_(); }

 private:
  const Make make_;
};

}  // namespace appex
