#include "platform/sim/sim_window.h"

#include <algorithm>

#include "platform/sim/sim_browser.h"
#include "platform/sim/sim_page.h"
#include "platform/sim/sim_tab.h"
#include "platform/sim/sim_toolbar_item.h"

namespace appex::sim {

SimWindow::SimWindow(std::shared_ptr<SimCore> core, bool isPrivate)
    : core_(std::move(core)),
      serial_(core_->nextSerial()),
      private_(isPrivate),
      toolbarItem_(std::make_shared<SimToolbarItem>()) {}

void SimWindow::getActiveTab(TabCompletion completion) {
  std::shared_ptr<SFSafariTab> tab;
  {
    std::lock_guard lock(core_->mutex);
    if (!closed_) tab = activeTab_.lock();
  }
  core_->deliver([completion = std::move(completion), tab = std::move(tab)]() mutable {
    completion(std::move(tab));
  });
}

void SimWindow::getAllTabs(TabsCompletion completion) {
  std::vector<std::shared_ptr<SFSafariTab>> tabs;
  {
    std::lock_guard lock(core_->mutex);
    tabs.assign(tabs_.begin(), tabs_.end());
  }
  core_->deliver([completion = std::move(completion), tabs = std::move(tabs)]() mutable {
    completion(std::move(tabs));
  });
}

void SimWindow::getToolbarItem(ToolbarItemCompletion completion) {
  std::shared_ptr<SFSafariToolbarItem> item;
  {
    std::lock_guard lock(core_->mutex);
    if (!closed_) item = toolbarItem_;
  }
  core_->deliver([completion = std::move(completion), item = std::move(item)]() mutable {
    completion(std::move(item));
  });
}

void SimWindow::openTabWithURL(const std::string& url, bool makeActiveIfPossible,
                               TabCompletion completion) {
  std::shared_ptr<SFSafariTab> opened;
  const bool refuses = core_->refusesToOpen();
  {
    std::lock_guard lock(core_->mutex);
    if (!closed_ && !refuses) {
      auto tab = addTabLocked(makeActiveIfPossible);
      tab->addPageLocked(url, std::nullopt, true);
      opened = tab;
    }
  }
  core_->noteChange();
  core_->deliver([completion = std::move(completion), opened = std::move(opened)]() mutable {
    completion(std::move(opened));
  });
}

void SimWindow::close() {
  auto self = shared_from_this();  // the browser's list may hold the last other reference
  {
    std::lock_guard lock(core_->mutex);
    closeLocked();
  }
  core_->noteChange();
}

void SimWindow::closeLocked() {
  if (closed_) return;
  closed_ = true;
  if (auto browser = browser_.lock()) browser->forgetWindowLocked(this);
  auto tabs = std::move(tabs_);
  tabs_.clear();
  activeTab_.reset();
  for (auto& tab : tabs) tab->closeLocked();
}

bool SimWindow::isEqual(const SFSafariWindow& other) const {
  return static_cast<const SFSafariWindow*>(this) == &other;
}

std::string SimWindow::description() const { return "window#" + std::to_string(serial_); }

std::shared_ptr<SimTab> SimWindow::addTab(std::string url, std::optional<std::string> title,
                                          bool makeActive) {
  std::shared_ptr<SimTab> tab;
  {
    std::lock_guard lock(core_->mutex);
    tab = addTabLocked(makeActive);
    tab->addPageLocked(std::move(url), std::move(title), true);
  }
  core_->noteChange();
  return tab;
}

std::shared_ptr<SimTab> SimWindow::addBlankTab(bool makeActive) {
  std::shared_ptr<SimTab> tab;
  {
    std::lock_guard lock(core_->mutex);
    tab = addTabLocked(makeActive);
  }
  core_->noteChange();
  return tab;
}

std::shared_ptr<SimTab> SimWindow::addTabLocked(bool makeActive) {
  auto tab = std::make_shared<SimTab>(core_);
  if (closed_) {
    tab->closed_ = true;
    return tab;
  }
  tab->window_ = weak_from_this();
  tabs_.push_back(tab);
  if (makeActive || tabs_.size() == 1) activeTab_ = tab;
  return tab;
}

void SimWindow::detachLocked(const SimTab* tab) {
  auto it = std::find_if(tabs_.begin(), tabs_.end(), [&](const auto& t) { return t.get() == tab; });
  if (it == tabs_.end()) return;
  const bool wasActive = activeTab_.lock().get() == tab;
  const auto position = static_cast<std::size_t>(it - tabs_.begin());
  // Keep the tab alive until the lists no longer refer to it.
  auto keep = std::move(*it);
  tabs_.erase(it);
  if (!wasActive) return;
  if (tabs_.empty()) {
    activeTab_.reset();
  } else {
    activeTab_ = tabs_[std::min(position, tabs_.size() - 1)];
  }
}

std::vector<std::shared_ptr<SimTab>> SimWindow::tabs() const {
  std::lock_guard lock(core_->mutex);
  return tabs_;
}

std::shared_ptr<SimTab> SimWindow::activeTab() const {
  std::lock_guard lock(core_->mutex);
  return activeTab_.lock();
}

std::shared_ptr<SimToolbarItem> SimWindow::toolbarItem() const { return toolbarItem_; }

bool SimWindow::isPrivate() const { return private_; }

bool SimWindow::isClosed() const {
  std::lock_guard lock(core_->mutex);
  return closed_;
}

}  // namespace appex::sim
