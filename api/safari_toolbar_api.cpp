#include "api/safari_toolbar_api.h"

#include "core/context.h"
#include "core/log.h"
#include "host/event_payload.h"
#include "platform/bundle.h"
#include "platform/image_loader.h"
#include "platform/safari_application.h"
#include "platform/safari_tab.h"
#include "platform/safari_toolbar_item.h"
#include "platform/safari_window.h"
#include "tabs/safari_tab_api.h"
#include "tabs/tab_state.h"

namespace appex {

std::shared_ptr<SafariToolbarAPI> SafariToolbarAPI::create(Context& context) {
  auto api = std::make_shared<SafariToolbarAPI>(context);
  api->subscribe();
  return api;
}

std::shared_ptr<SafariToolbarAPI> SafariToolbarAPI::shared() {
  return Context::current().get<SafariToolbarAPI>();
}

SafariToolbarAPI::SafariToolbarAPI(Context& context) : context_(context) {}

SafariToolbarAPI::~SafariToolbarAPI() {
  for (auto& dispose : subscriptions_) dispose();
}

void SafariToolbarAPI::subscribe() {
  auto emitter = context_.get<SafariTabAPI>()->emitter();
  std::weak_ptr<SafariToolbarAPI> weak = weak_from_this();
  for (const char* event : {"create", "update"}) {
    subscriptions_.push_back(
        emitter->on(event, [weak](const EventPayload& payload, const std::string& name) {
          auto self = weak.lock();
          auto state = payload.nativeAs<TabState>();
          if (self && state) self->onTabEvent(name, state);
        }));
  }
}

template <class Write>
void SafariToolbarAPI::set(const std::optional<std::string>& tabId, Write write) {
  {
    std::lock_guard lock(mutex_);
    if (tabId) {
      write(tabsInfo_.try_emplace(*tabId).first->second);  // a new entry starts from defaults
    } else {
      if (!globalInfo_) globalInfo_.emplace();
      write(*globalInfo_);
    }
  }
  context_.get<SFSafariApplication>()->setToolbarItemsNeedUpdate();
}

void SafariToolbarAPI::setBadgeText(std::string text, std::optional<std::string> tabId) {
  set(tabId, [&](ToolbarItemInfo& info) { info.badgeText = std::move(text); });
}

void SafariToolbarAPI::setIcon(std::string path, std::optional<std::string> tabId) {
  set(tabId, [&](ToolbarItemInfo& info) { info.image = std::move(path); });
}

std::optional<ToolbarItemInfo> SafariToolbarAPI::globalInfo() const {
  std::lock_guard lock(mutex_);
  return globalInfo_;
}

std::optional<ToolbarItemInfo> SafariToolbarAPI::tabInfo(const std::string& tabId) const {
  std::lock_guard lock(mutex_);
  auto it = tabsInfo_.find(tabId);
  if (it == tabsInfo_.end()) return std::nullopt;
  return it->second;
}

SafariToolbarAPI::Effective SafariToolbarAPI::effectiveRecord(
    const std::optional<std::string>& tabId) const {
  std::lock_guard lock(mutex_);
  if (tabId) {
    if (auto it = tabsInfo_.find(*tabId); it != tabsInfo_.end()) return {it->second, tabId};
  }
  return {globalInfo_, std::nullopt};
}

std::optional<ToolbarImage> SafariToolbarAPI::loadImage(const std::string& image) const {
  auto bundle = context_.get<Bundle>();
  auto loader = context_.get<ImageLoader>();
  if (image == ToolbarItemInfo::kDefaultImage) {
    auto path = bundle->resourcePath("logo-grey.pdf");
    return path ? loader->load(*path) : std::nullopt;
  }
  // The path is appended as given: no normalisation, so a leading slash
  // makes a double slash, as the file system then resolves it.
  return loader->load(bundle->path() + "/Contents/Resources/Assets/extension/" + image);
}

void SafariToolbarAPI::updateToolbarItem(std::shared_ptr<SFSafariWindow> window,
                                         std::optional<std::string> tabId, Done completion) {
  Effective effective = effectiveRecord(tabId);
  if (!effective.record || !window) return;
  std::weak_ptr<SafariToolbarAPI> weak = weak_from_this();
  window->getToolbarItem([weak, info = *effective.record, logId = effective.tabIdForLog,
                          completion = std::move(completion)](
                             std::shared_ptr<SFSafariToolbarItem> item) mutable {
    auto self = weak.lock();
    if (!self || !item) return;
    if (auto image = self->loadImage(info.image)) item->setImage(std::move(image));
    item->setBadgeText(info.badgeText);
    // No label of its own: the item keeps the one it has (the bundle's).
    if (info.label) item->setLabel(info.label);
    item->setEnabled(info.enabled);
    logLine("update toolbar - tabId " + logId.value_or("N/A") + " - " + info.description());
    if (completion) completion();
  });
}

void SafariToolbarAPI::onTabEvent(const std::string& event, const std::shared_ptr<TabState>& state) {
  auto tab = state->tab().ref();
  auto window = state->win().ref();
  if (!tab || !window) return;
  std::weak_ptr<SafariToolbarAPI> weak = weak_from_this();
  window->getActiveTab([weak, event, state, tab, window](std::shared_ptr<SFSafariTab> active) {
    auto self = weak.lock();
    if (!self || !active || !active->isEqual(*tab)) return;  // background tabs change nothing
    logLine("Going to update toolbar icon for tab event: " + event + ", " + state->id());
    self->updateToolbarItem(window, state->id());
  });
}

// g++ 12 false positive: with the sanitizers' instrumentation it reports the
// string inside the disengaged std::nullopt temporary passed to
// updateToolbarItem as maybe destroyed uninitialized; a disengaged optional
// never destroys its string.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
void SafariToolbarAPI::validateToolbarItem(std::shared_ptr<SFSafariWindow> window,
                                           ValidationHandler handler) {
  auto answer = [](const std::optional<ToolbarItemInfo>& record, ValidationHandler& h) {
    if (record) {
      h(record->enabled, record->badgeText.value_or(""));
    } else {
      h(true, "");
    }
  };
  if (!window) {
    answer(globalInfo(), handler);
    return;
  }
  std::weak_ptr<SafariToolbarAPI> weak = weak_from_this();
  window->getActiveTab([weak, window, answer, handler = std::move(handler)](
                           std::shared_ptr<SFSafariTab> active) mutable {
    auto self = weak.lock();
    if (!self) return;
    if (!active) {
      self->updateToolbarItem(window, std::nullopt);
      answer(self->globalInfo(), handler);
      return;
    }
    self->context_.get<SafariTabAPI>()->getTabState(
        active, [weak, window, answer, handler = std::move(handler)](
                    std::shared_ptr<TabState> state) mutable {
          auto self = weak.lock();
          if (!self) return;
          if (!state) {
            self->updateToolbarItem(window, std::nullopt);
            answer(self->globalInfo(), handler);
            return;
          }
          self->updateToolbarItem(window, state->id());
          answer(self->effectiveRecord(state->id()).record, handler);
        });
  });
}
#pragma GCC diagnostic pop

}  // namespace appex
