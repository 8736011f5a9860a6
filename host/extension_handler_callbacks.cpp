#include "host/extension_handler_callbacks.h"

#include "bridge/safari_extension_view_controller.h"
#include "platform/web_view.h"

namespace appex {

ExtensionHandlerCallbacks::ExtensionHandlerCallbacks(Context& context) : handler_(context) {}

void ExtensionHandlerCallbacks::messageReceived(const std::string& name, std::shared_ptr<SFSafariPage> page,
                                                std::optional<Dictionary> userInfo) {
  handler_.messageReceivedWithName(name, std::move(page), std::move(userInfo));
}

void ExtensionHandlerCallbacks::toolbarItemClicked(std::shared_ptr<SFSafariWindow> window) {
  handler_.toolbarItemClickedInWindow(std::move(window));
}

void ExtensionHandlerCallbacks::validateToolbarItem(std::shared_ptr<SFSafariWindow> window,
                                                    ValidationHandler handler) {
  handler_.validateToolbarItemInWindow(std::move(window), std::move(handler));
}

void ExtensionHandlerCallbacks::popoverWillShow(std::shared_ptr<SFSafariWindow> window) {
  handler_.popoverWillShowInWindow(std::move(window));
}

ExtensionCallbacks::PopoverContent ExtensionHandlerCallbacks::popoverContent() {
  auto controller = handler_.popoverViewController();
  return {controller->webview(), controller->preferredContentSize()};
}

void ExtensionHandlerCallbacks::pageWillNavigate(std::shared_ptr<SFSafariPage> page,
                                                 std::optional<std::string> url) {
  handler_.pageWillNavigateToURL(std::move(page), std::move(url));
}

}  // namespace appex
