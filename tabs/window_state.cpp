#include "tabs/window_state.h"

namespace appex {

std::optional<WindowState::TabList> WindowState::tabs() const {
  std::lock_guard lock(mutex_);
  return tabs_;
}

WeakRef<SFSafariWindow> WindowState::win() const {
  std::lock_guard lock(mutex_);
  return win_;
}

void WindowState::assign(WeakRef<SFSafariWindow> win, std::optional<TabList> tabs) {
  std::lock_guard lock(mutex_);
  win_ = std::move(win);
  tabs_ = std::move(tabs);
}

Dictionary WindowState::toDictionary() const {
  // The tab snapshots have locks of their own: read them after letting go
  // of this one.
  const auto list = tabs();
  Dictionary d;
  d["id"] = id_;
  if (list) {
    List forms;
    forms.reserve(list->size());
    for (const auto& tab : *list) forms.push_back(tab->toDictionary());
    d["tabs"] = std::move(forms);
  } else {
    d["tabs"] = nullptr;
  }
  return d;
}

}  // namespace appex
