// SafariExtensionViewController: the toolbar popover's content: the
// extension's popup page ("popup.html" in the bundle's web assets) in a web
// view, connected to the router, which gives it a bridge named "Popup".
//
// One shared instance per Context, created with a preferred content size of
// 430 x 566 points. Its view (the web view) is made on first need by the
// Context's WebViewFactory; loading it runs viewDidLoad once: the "init
// popup bridge" log line, the router's popup web view, then the "poup page
// file path: " line and the page load. Each time the popover is about to
// show, the extension handler reloads the web view, so the popup page starts
// afresh on every opening while the controller, web view and bridge persist.
//
// It is the API's PopupController: "extension.setPopupHeight" changes the
// preferred size (and the shown popover's), "extension.closePopup"
// dismisses the popover. The first popup command creates the shared
// instance if nothing has yet (through the PopupControllerMaker the
// extension handler installs), without loading its view: a height set
// before the popover first shows is the height it first shows at.
//
// Thread-safe; loadViewIfNeeded and webview() are main queue only.
#pragma once

#include <memory>
#include <mutex>

#include "core/weak_ref.h"
#include "platform/popup_controller.h"

namespace appex {

class Context;
class Popover;
class WebView;

class SafariExtensionViewController : public PopupController {
 public:
  static constexpr Size kInitialSize{430, 566};

  static std::shared_ptr<SafariExtensionViewController> create(Context& context);
  static std::shared_ptr<SafariExtensionViewController> shared();

  explicit SafariExtensionViewController(Context& context);

  // Makes the web view and runs viewDidLoad, once.
  void loadViewIfNeeded();
  // The popup's web view, held weakly (the controller's view keeps it).
  std::shared_ptr<WebView> webview() const { return webview_.ref(); }

  // PopupController.
  Size preferredContentSize() const override;
  void setPreferredContentSize(Size size) override;
  void dismissPopover() override;

 private:
  void viewDidLoad();

  Context& context_;
  mutable std::mutex mutex_;
  Size preferredContentSize_ = kInitialSize;  // guarded by mutex_
  std::shared_ptr<WebView> view_;             // the loaded view; main queue only
  WeakRef<WebView> webview_;                  // the outlet
};

}  // namespace appex
