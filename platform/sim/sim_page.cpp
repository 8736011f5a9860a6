#include "platform/sim/sim_page.h"

#include "platform/sim/sim_tab.h"
#include "platform/sim/sim_window.h"

namespace appex::sim {

SimPage::SimPage(std::shared_ptr<SimCore> core, std::optional<std::string> url,
                 std::optional<std::string> title)
    : core_(std::move(core)),
      serial_(core_->nextSerial()),
      url_(std::move(url)),
      title_(std::move(title)) {}

void SimPage::getContainingTab(TabCompletion completion) {
  std::shared_ptr<SFSafariTab> tab;
  {
    std::lock_guard lock(core_->mutex);
    if (!closed_) tab = tab_.lock();
  }
  core_->deliver([completion = std::move(completion), tab = std::move(tab)]() mutable {
    completion(std::move(tab));
  });
}

void SimPage::getPageProperties(PropertiesCompletion completion) {
  std::optional<SFSafariPageProperties> properties;
  {
    std::lock_guard lock(core_->mutex);
    if (!closed_) {
      properties = SFSafariPageProperties{url_, title_, false};
      if (auto tab = tab_.lock()) {
        if (auto window = tab->window_.lock()) properties->usesPrivateBrowsing = window->private_;
      }
    }
  }
  core_->deliver([completion = std::move(completion),
                  properties = std::move(properties)]() mutable { completion(std::move(properties)); });
}

void SimPage::dispatchMessageToScript(const std::string& name, const Dictionary& userInfo) {
  ContentScript script;
  DispatchedMessage message{name, userInfo};
  {
    std::lock_guard lock(core_->mutex);
    if (closed_) return;
    received_.push_back(message);
    script = script_;
  }
  core_->noteChange();
  if (script) script(shared_from_this(), message);
}

bool SimPage::isEqual(const SFSafariPage& other) const {
  return static_cast<const SFSafariPage*>(this) == &other;
}

std::string SimPage::description() const { return "page#" + std::to_string(serial_); }

void SimPage::setURL(std::optional<std::string> url) {
  {
    std::lock_guard lock(core_->mutex);
    url_ = std::move(url);
  }
  core_->noteChange();
}

void SimPage::setTitle(std::optional<std::string> title) {
  {
    std::lock_guard lock(core_->mutex);
    title_ = std::move(title);
  }
  core_->noteChange();
}

std::optional<std::string> SimPage::url() const {
  std::lock_guard lock(core_->mutex);
  return url_;
}

std::optional<std::string> SimPage::title() const {
  std::lock_guard lock(core_->mutex);
  return title_;
}

std::shared_ptr<SimTab> SimPage::tab() const {
  std::lock_guard lock(core_->mutex);
  return closed_ ? nullptr : tab_.lock();
}

bool SimPage::isClosed() const {
  std::lock_guard lock(core_->mutex);
  return closed_;
}

void SimPage::sendMessageToExtension(const std::string& name, std::optional<Dictionary> userInfo) {
  if (isClosed()) return;
  Intake intake = core_->intake();
  if (intake) intake(name, shared_from_this(), std::move(userInfo));
}

std::vector<DispatchedMessage> SimPage::receivedMessages() const {
  std::lock_guard lock(core_->mutex);
  return received_;
}

bool SimPage::waitForMessages(std::size_t count, std::chrono::steady_clock::duration timeout) {
  return core_->waitUntil(
      [&] {
        std::lock_guard lock(core_->mutex);
        return received_.size() >= count;
      },
      timeout);
}

void SimPage::setContentScript(ContentScript script) {
  std::lock_guard lock(core_->mutex);
  script_ = std::move(script);
}

}  // namespace appex::sim
