#include "platform/sim/sim_toolbar_item.h"

namespace appex::sim {

void SimToolbarItem::setImage(std::optional<ToolbarImage> image) {
  std::lock_guard lock(mutex_);
  image_ = std::move(image);
}

void SimToolbarItem::setBadgeText(std::optional<std::string> text) {
  std::lock_guard lock(mutex_);
  badgeText_ = std::move(text);
}

void SimToolbarItem::setLabel(std::optional<std::string> label) {
  std::lock_guard lock(mutex_);
  label_ = std::move(label);
}

void SimToolbarItem::setEnabled(bool enabled) {
  std::lock_guard lock(mutex_);
  enabled_ = enabled;
}

std::optional<ToolbarImage> SimToolbarItem::image() const {
  std::lock_guard lock(mutex_);
  return image_;
}

std::optional<std::string> SimToolbarItem::badgeText() const {
  std::lock_guard lock(mutex_);
  return badgeText_;
}

std::optional<std::string> SimToolbarItem::label() const {
  std::lock_guard lock(mutex_);
  return label_;
}

bool SimToolbarItem::isEnabled() const {
  std::lock_guard lock(mutex_);
  return enabled_;
}

}  // namespace appex::sim
