// ExtensionHandlerCallbacks: the browser's callbacks (ExtensionCallbacks)
// handed to SafariExtensionHandler, each to its counterpart: page messages,
// toolbar validation and clicks, the popover, navigation. The popover's
// content is the shared popup view controller's web view at its preferred
// content size.
//
// Holds the Context it was made with by reference: the Context must outlive
// it. Main queue only, as the browser calls it.
#pragma once

#include "host/safari_extension_handler.h"
#include "platform/extension_callbacks.h"

namespace appex {

class Context;

class ExtensionHandlerCallbacks final : public ExtensionCallbacks {
 public:
  explicit ExtensionHandlerCallbacks(Context& context);

  void messageReceived(const std::string& name, std::shared_ptr<SFSafariPage> page,
                       std::optional<Dictionary> userInfo) override;
  void toolbarItemClicked(std::shared_ptr<SFSafariWindow> window) override;
  void validateToolbarItem(std::shared_ptr<SFSafariWindow> window, ValidationHandler handler) override;
  void popoverWillShow(std::shared_ptr<SFSafariWindow> window) override;
  PopoverContent popoverContent() override;
  void pageWillNavigate(std::shared_ptr<SFSafariPage> page, std::optional<std::string> url) override;

 private:
  const SafariExtensionHandler handler_;
};

}  // namespace appex
