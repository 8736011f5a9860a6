#include "platform/webkit/webkit_toolbar_item.h"

namespace appex::webkit {

template <class F>
void WebKitToolbarItem::change(F f) {
  ChangeHandler handler;
  {
    std::lock_guard lock(mutex_);
    if (!f()) return;
    handler = handler_;
  }
  if (handler) handler();
}

void WebKitToolbarItem::setImage(std::optional<ToolbarImage> image) {
  change([&] { return image_ != image ? (image_ = std::move(image), true) : false; });
}

void WebKitToolbarItem::setBadgeText(std::optional<std::string> text) {
  change([&] { return badgeText_ != text ? (badgeText_ = std::move(text), true) : false; });
}

void WebKitToolbarItem::setLabel(std::optional<std::string> label) {
  change([&] { return label_ != label ? (label_ = std::move(label), true) : false; });
}

void WebKitToolbarItem::setEnabled(bool enabled) {
  change([&] { return enabled_ != enabled ? (enabled_ = enabled, true) : false; });
}

std::optional<ToolbarImage> WebKitToolbarItem::image() const {
  std::lock_guard lock(mutex_);
  return image_;
}

std::optional<std::string> WebKitToolbarItem::badgeText() const {
  std::lock_guard lock(mutex_);
  return badgeText_;
}

std::optional<std::string> WebKitToolbarItem::label() const {
  std::lock_guard lock(mutex_);
  return label_;
}

bool WebKitToolbarItem::isEnabled() const {
  std::lock_guard lock(mutex_);
  return enabled_;
}

void WebKitToolbarItem::setChangeHandler(ChangeHandler handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

}  // namespace appex::webkit
