#include "tabs/safari_window_api.h"

#include "core/context.h"
#include "host/callback_utils.h"
#include "platform/browser_url.h"
#include "tabs/identifiers.h"
#include "tabs/safari_tab_api.h"

namespace appex {
namespace {

constexpr const char* kCreateFailed = "[windows.create] Failed to create window for unknown reason";

List forms(const std::vector<std::shared_ptr<WindowState>>& states) {
  List list;
  list.reserve(states.size());
  for (const auto& state : states) list.push_back(state->toDictionary());
  return list;
}

}  // namespace

std::shared_ptr<SafariWindowAPI> SafariWindowAPI::shared() {
  return Context::current().get<SafariWindowAPI>();
}

SafariWindowAPI::SafariWindowAPI(Context& context)
    : context_(context),
      emitter_(Emitter::create()),
      cache_(sameBrowserObject<SFSafariWindow>, browserObjectHash<SFSafariWindow>, snapshotId<WindowState>) {}

std::shared_ptr<SFSafariApplication> SafariWindowAPI::application() const {
  return context_.get<SFSafariApplication>();
}

std::shared_ptr<SafariTabAPI> SafariWindowAPI::tabs() const { return context_.get<SafariTabAPI>(); }

void SafariWindowAPI::getWindowState(WindowState::TabList tabs, std::shared_ptr<SFSafariWindow> window,
                                     bool suppressEvents, WindowStateCompletion completion) {
  const WeakRef<SFSafariWindow> key(window);
  std::shared_ptr<WindowState> state;
  bool isNew;
  {
    std::lock_guard lock(registryMutex_);
    auto found = cache_.get(key);
    isNew = !found;
    state = found ? found->value : std::make_shared<WindowState>(newUUIDString());
    state->assign(key, std::move(tabs));
    cache_.set(key, state);
  }
  if (!suppressEvents) {
    emitter_->fire(isNew ? "create" : "update", EventPayload::object(state, state->toDictionary()));
  }
  completion(std::move(state));
}

void SafariWindowAPI::windowStates(std::vector<std::shared_ptr<SFSafariWindow>> windows, bool populate,
                                   WindowStatesCompletion completion) {
  auto done = std::make_shared<WindowStatesCompletion>(std::move(completion));
  auto step = CallbackUtils::join<std::shared_ptr<WindowState>>(
      windows.size(),
      [done](std::vector<std::shared_ptr<WindowState>> states) { (*done)(std::move(states)); });
  auto self = shared_from_this();
  for (std::size_t i = 0; i < windows.size(); ++i) {
    auto fill = [step, i](std::shared_ptr<WindowState> state) { step(i, std::move(state)); };
    if (!populate) {
      getWindowState({}, windows[i], true, std::move(fill));
      continue;
    }
    windows[i]->getAllTabs([self, window = windows[i], fill = std::move(fill)](
                               std::vector<std::shared_ptr<SFSafariTab>> tabs) mutable {
      self->tabs()->getTabStates(std::move(tabs), [self, window = std::move(window), fill = std::move(fill)](
                                                          WindowState::TabList states) mutable {
        self->getWindowState(std::move(states), std::move(window), true, std::move(fill));
      });
    });
  }
}

std::shared_ptr<WindowState> SafariWindowAPI::findWindowState(const std::string& id) const {
  auto found = cache_.findById(id);
  return found ? found->entry.value : nullptr;
}

void SafariWindowAPI::getWindow(const std::string& id, bool populate, ResultCallback completion) {
  auto state = findWindowState(id);
  if (!state) {
    completion(failure("[windows.get] no tab found with id: " + id));
    return;
  }
  auto window = populate ? state->win().ref() : nullptr;
  if (!window) {
    completion(success(state->toDictionary()));
    return;
  }
  windowStates({window}, true, [completion = std::move(completion)](
                                   std::vector<std::shared_ptr<WindowState>> states) mutable {
    completion(success(states.front()->toDictionary()));
  });
}

void SafariWindowAPI::getLastFocusedWindow(bool populate, ResultCallback completion) {
  application()->getActiveWindow([self = shared_from_this(), populate, completion = std::move(completion)](
                                     std::shared_ptr<SFSafariWindow> window) mutable {
    if (!window) {
      completion(failure("[windows.getLastFocused] no tab found"));
      return;
    }
    self->windowStates({window}, populate, [completion = std::move(completion)](
                                               std::vector<std::shared_ptr<WindowState>> states) mutable {
      completion(success(states.front()->toDictionary()));
    });
  });
}

void SafariWindowAPI::allWindows(bool populate, ResultCallback completion) {
  application()->getAllWindows([self = shared_from_this(), populate, completion = std::move(completion)](
                                   std::vector<std::shared_ptr<SFSafariWindow>> windows) mutable {
    self->windowStates(std::move(windows), populate,
                       [completion = std::move(completion)](std::vector<std::shared_ptr<WindowState>> states) mutable {
                         completion(success(forms(states)));
                       });
  });
}

void SafariWindowAPI::createWindow(const std::string& url, ResultCallback completion) {
  auto loadable = browserURL(url);
  if (!loadable) {
    completion(failure(kCreateFailed));
    return;
  }
  application()->openWindowWithURL(*loadable, [self = shared_from_this(), completion = std::move(completion)](
                                                   std::shared_ptr<SFSafariWindow> window) mutable {
    if (!window) {
      completion(failure(kCreateFailed));
      return;
    }
    self->getWindowState({}, std::move(window), true,
                         [completion = std::move(completion)](std::shared_ptr<WindowState> state) mutable {
                           completion(success(state->toDictionary()));
                         });
  });
}

void SafariWindowAPI::removeWindow(const std::string& id, ResultCallback completion) {
  std::shared_ptr<WindowState> removed;
  {
    std::lock_guard lock(registryMutex_);
    if (auto found = cache_.findById(id)) {
      removed = found->entry.value;
      cache_.list().remove(found->position);
    }
  }
  auto window = removed ? removed->win().ref() : nullptr;
  if (!window) {
    completion(success(false));
    return;
  }
  window->close();
  completion(success(true));
}

}  // namespace appex
