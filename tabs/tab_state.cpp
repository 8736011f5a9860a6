#include "tabs/tab_state.h"

namespace appex {

std::optional<std::string> TabState::url() const {
  std::lock_guard lock(mutex_);
  return fields_.url;
}

std::optional<std::string> TabState::title() const {
  std::lock_guard lock(mutex_);
  return fields_.title;
}

bool TabState::isActive() const {
  std::lock_guard lock(mutex_);
  return fields_.isActive;
}

bool TabState::isPrivate() const {
  std::lock_guard lock(mutex_);
  return fields_.isPrivate;
}

std::optional<std::string> TabState::windowId() const {
  std::lock_guard lock(mutex_);
  return fields_.windowId;
}

WeakRef<SFSafariTab> TabState::tab() const {
  std::lock_guard lock(mutex_);
  return fields_.tab;
}

WeakRef<SFSafariWindow> TabState::win() const {
  std::lock_guard lock(mutex_);
  return fields_.win;
}

TabState::Fields TabState::fields() const {
  std::lock_guard lock(mutex_);
  return fields_;
}

void TabState::assign(Fields fields) {
  std::lock_guard lock(mutex_);
  fields_ = std::move(fields);
}

void TabState::Fields::readPage(const std::optional<SFSafariPageProperties>& properties) {
  url = properties && properties->url && !properties->url->empty() ? *properties->url : std::string("about:blank");
  title = properties ? properties->title : std::nullopt;
  isPrivate = properties && properties->usesPrivateBrowsing;
}

void TabState::setActive(bool active) {
  std::lock_guard lock(mutex_);
  fields_.isActive = active;
}

Dictionary TabState::toDictionary() const {
  std::lock_guard lock(mutex_);
  Dictionary d;
  d["id"] = id_;
  d["url"] = fields_.url.value_or("");
  d["title"] = fields_.title.value_or("");
  d["isActive"] = fields_.isActive;
  d["isPrivate"] = fields_.isPrivate;
  return d;
}

}  // namespace appex
