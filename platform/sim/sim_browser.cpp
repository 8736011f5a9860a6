#include "platform/sim/sim_browser.h"

#include <algorithm>

#include "core/context.h"
#include "platform/safari_extension.h"
#include "platform/sim/sim_extension.h"
#include "platform/sim/sim_page.h"
#include "platform/sim/sim_tab.h"
#include "platform/sim/sim_window.h"

namespace appex::sim {

std::shared_ptr<SimBrowser> SimBrowser::create() {
  return std::make_shared<SimBrowser>(std::make_shared<SimCore>());
}

SimBrowser::SimBrowser(std::shared_ptr<SimCore> core)
    : core_(std::move(core)), extension_(std::make_shared<SimExtension>(core_)) {}

void SimBrowser::install(Context& context) {
  context.set<SFSafariApplication>(shared_from_this());
  context.set<SFSafariExtension>(extension_);
}

void SimBrowser::getActiveWindow(WindowCompletion completion) {
  std::shared_ptr<SFSafariWindow> window;
  {
    std::lock_guard lock(core_->mutex);
    window = activeWindow_.lock();
  }
  core_->deliver([completion = std::move(completion), window = std::move(window)]() mutable {
    completion(std::move(window));
  });
}

void SimBrowser::getAllWindows(WindowsCompletion completion) {
  std::vector<std::shared_ptr<SFSafariWindow>> windows;
  {
    std::lock_guard lock(core_->mutex);
    windows.assign(windows_.begin(), windows_.end());
  }
  core_->deliver([completion = std::move(completion), windows = std::move(windows)]() mutable {
    completion(std::move(windows));
  });
}

void SimBrowser::openWindowWithURL(const std::string& url, WindowCompletion completion) {
  std::shared_ptr<SFSafariWindow> opened;
  if (!core_->refusesToOpen()) {
    std::lock_guard lock(core_->mutex);
    auto window = openWindowLocked(false);
    window->addTabLocked(true)->addPageLocked(url, std::nullopt, true);
    opened = window;
  }
  core_->noteChange();
  core_->deliver([completion = std::move(completion), opened = std::move(opened)]() mutable {
    completion(std::move(opened));
  });
}

void SimBrowser::setToolbarItemsNeedUpdate() {
  {
    std::lock_guard lock(core_->mutex);
    ++toolbarUpdates_;
  }
  core_->noteChange();
}

void SimBrowser::setDelivery(Delivery delivery) { core_->setDelivery(delivery); }
Delivery SimBrowser::delivery() const { return core_->delivery(); }
void SimBrowser::setIntake(Intake intake) { core_->setIntake(std::move(intake)); }
void SimBrowser::setRefusesToOpen(bool refuses) { core_->setRefusesToOpen(refuses); }

std::shared_ptr<SimWindow> SimBrowser::openWindow(bool isPrivate) {
  std::shared_ptr<SimWindow> window;
  {
    std::lock_guard lock(core_->mutex);
    window = openWindowLocked(isPrivate);
  }
  core_->noteChange();
  return window;
}

std::shared_ptr<SimWindow> SimBrowser::openWindowLocked(bool isPrivate) {
  auto window = std::make_shared<SimWindow>(core_, isPrivate);
  window->browser_ = weak_from_this();
  windows_.push_back(window);
  activeWindow_ = window;
  return window;
}

void SimBrowser::forgetWindowLocked(const SimWindow* window) {
  std::erase_if(windows_, [&](const auto& w) { return w.get() == window; });
  auto active = activeWindow_.lock();
  if (!active || active.get() == window) {
    if (windows_.empty()) {
      activeWindow_.reset();
    } else {
      activeWindow_ = windows_.back();
    }
  }
}

std::vector<std::shared_ptr<SimWindow>> SimBrowser::windows() const {
  std::lock_guard lock(core_->mutex);
  return windows_;
}

std::shared_ptr<SimWindow> SimBrowser::activeWindow() const {
  std::lock_guard lock(core_->mutex);
  return activeWindow_.lock();
}

void SimBrowser::focus(const std::shared_ptr<SimWindow>& window) {
  {
    std::lock_guard lock(core_->mutex);
    focusLocked(window);
  }
  core_->noteChange();
}

void SimBrowser::focusLocked(const std::shared_ptr<SimWindow>& window) {
  if (window->closed_) return;
  if (std::find(windows_.begin(), windows_.end(), window) == windows_.end()) return;
  activeWindow_ = window;
}

int SimBrowser::pendingToolbarUpdates() const {
  std::lock_guard lock(core_->mutex);
  return toolbarUpdates_;
}

int SimBrowser::takeToolbarUpdates() {
  std::lock_guard lock(core_->mutex);
  return std::exchange(toolbarUpdates_, 0);
}

bool SimBrowser::waitUntil(const std::function<bool()>& done, Clock::duration timeout) {
  return core_->waitUntil(done, timeout);
}

bool SimBrowser::waitForIdle(Clock::duration timeout) { return core_->waitForIdle(timeout); }

}  // namespace appex::sim
