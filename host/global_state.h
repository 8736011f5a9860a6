// GlobalState: process-wide state the extension entry keeps: the hidden
// background page's web view, made once on the first toolbar validation and
// never released or made again.
//
// One instance per Context. Main queue only.
#pragma once

#include <memory>

namespace appex {

class WebView;

class GlobalState {
 public:
  static std::shared_ptr<GlobalState> shared();

  // Strong: this is what keeps the background page alive.
  std::shared_ptr<WebView> webview;
};

}  // namespace appex
