// NavigationDelegate: what a web view tells about its page loads.
//
// A web view holds its delegate weakly (WebView::setNavigationDelegate); the
// delegate's owner decides how long it lives.
//
// Main queue only: the web view calls it on the main queue.
#pragma once

namespace appex {

class NavigationDelegate {
 public:
  virtual ~NavigationDelegate() = default;

  // The main frame finished loading (after a load or a reload).
  virtual void didFinishNavigation() = 0;
};

}  // namespace appex
