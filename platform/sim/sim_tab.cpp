#include "platform/sim/sim_tab.h"

#include <algorithm>

#include "platform/sim/sim_browser.h"
#include "platform/sim/sim_page.h"
#include "platform/sim/sim_window.h"

namespace appex::sim {

SimTab::SimTab(std::shared_ptr<SimCore> core) : core_(std::move(core)), serial_(core_->nextSerial()) {}

void SimTab::getActivePage(PageCompletion completion) {
  std::shared_ptr<SFSafariPage> page;
  {
    std::lock_guard lock(core_->mutex);
    if (!closed_) page = activePage_.lock();
  }
  core_->deliver([completion = std::move(completion), page = std::move(page)]() mutable {
    completion(std::move(page));
  });
}

void SimTab::getPages(PagesCompletion completion) {
  std::vector<std::shared_ptr<SFSafariPage>> pages;
  {
    std::lock_guard lock(core_->mutex);
    pages.assign(pages_.begin(), pages_.end());
  }
  core_->deliver([completion = std::move(completion), pages = std::move(pages)]() mutable {
    completion(std::move(pages));
  });
}

void SimTab::getContainingWindow(WindowCompletion completion) {
  std::shared_ptr<SFSafariWindow> window;
  {
    std::lock_guard lock(core_->mutex);
    if (!closed_) window = window_.lock();
  }
  core_->deliver([completion = std::move(completion), window = std::move(window)]() mutable {
    completion(std::move(window));
  });
}

void SimTab::navigateToURL(const std::string& url) {
  {
    std::lock_guard lock(core_->mutex);
    if (closed_) return;
    if (auto page = activePage_.lock()) {
      page->url_ = url;
      page->title_.reset();
    } else {
      addPageLocked(url, std::nullopt, true);
    }
  }
  core_->noteChange();
}

void SimTab::activate(Done completion) {
  {
    std::lock_guard lock(core_->mutex);
    if (!closed_) {
      if (auto window = window_.lock()) {
        window->activeTab_ = weak_from_this();
        if (auto browser = window->browser_.lock()) browser->focusLocked(window);
      }
    }
  }
  core_->noteChange();
  core_->deliver(std::move(completion));
}

void SimTab::close() {
  auto self = shared_from_this();  // the window's list may hold the last other reference
  {
    std::lock_guard lock(core_->mutex);
    closeLocked();
  }
  core_->noteChange();
}

void SimTab::closeLocked() {
  if (closed_) return;
  closed_ = true;
  if (auto window = window_.lock()) window->detachLocked(this);
  window_.reset();
  for (auto& page : pages_) page->closed_ = true;
  pages_.clear();
  activePage_.reset();
}

bool SimTab::isEqual(const SFSafariTab& other) const {
  return static_cast<const SFSafariTab*>(this) == &other;
}

std::string SimTab::description() const { return "tab#" + std::to_string(serial_); }

std::shared_ptr<SimPage> SimTab::addPage(std::string url, std::optional<std::string> title,
                                         bool makeActive) {
  std::shared_ptr<SimPage> page;
  {
    std::lock_guard lock(core_->mutex);
    page = addPageLocked(std::move(url), std::move(title), makeActive);
  }
  core_->noteChange();
  return page;
}

std::shared_ptr<SimPage> SimTab::addPageLocked(std::optional<std::string> url,
                                               std::optional<std::string> title, bool makeActive) {
  auto page = std::make_shared<SimPage>(core_, std::move(url), std::move(title));
  page->tab_ = weak_from_this();
  if (closed_) {
    page->closed_ = true;
    return page;
  }
  pages_.push_back(page);
  if (makeActive || pages_.size() == 1) activePage_ = page;
  return page;
}

std::vector<std::shared_ptr<SimPage>> SimTab::pages() const {
  std::lock_guard lock(core_->mutex);
  return pages_;
}

std::shared_ptr<SimPage> SimTab::activePage() const {
  std::lock_guard lock(core_->mutex);
  return activePage_.lock();
}

std::shared_ptr<SimWindow> SimTab::window() const {
  std::lock_guard lock(core_->mutex);
  return window_.lock();
}

bool SimTab::isActive() const {
  std::lock_guard lock(core_->mutex);
  auto window = window_.lock();
  return window && window->activeTab_.lock().get() == this;
}

bool SimTab::isClosed() const {
  std::lock_guard lock(core_->mutex);
  return closed_;
}

void SimTab::moveTo(const std::shared_ptr<SimWindow>& window) {
  auto self = shared_from_this();
  {
    std::lock_guard lock(core_->mutex);
    if (closed_ || window->closed_) return;
    if (auto old = window_.lock()) old->detachLocked(this);
    window->tabs_.push_back(self);
    window->activeTab_ = self;
    window_ = window;
  }
  core_->noteChange();
}

}  // namespace appex::sim
