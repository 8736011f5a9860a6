// The tab commands of SafariTabAPI: what each does once its arguments have
// been checked.
#include <memory>

#include "core/context.h"
#include "platform/browser_url.h"
#include "tabs/safari_tab_api.h"

namespace appex {
namespace {

constexpr const char* kCreateFailed = "[tabs.create] Failed to create tab for unknown reason";
constexpr const char* kUpdateFailed = "[tabs.update] Failed to create tab for unknown reason";

List forms(const std::vector<std::shared_ptr<TabState>>& states) {
  List list;
  list.reserve(states.size());
  for (const auto& state : states) list.push_back(state->toDictionary());
  return list;
}

}  // namespace

void SafariTabAPI::getTab(const std::string& id, ResultCallback completion) {
  if (auto state = findTabState(id)) {
    completion(success(state->toDictionary()));
  } else {
    completion(failure("[tabs.get] no tab found with id: " + id));
  }
}

void SafariTabAPI::allTabs(ResultCallback completion) {
  refreshTabs([completion = std::move(completion)](std::vector<std::shared_ptr<TabState>> states) mutable {
    completion(success(forms(states)));
  });
}

void SafariTabAPI::queryTabs(TabQuery query, ResultCallback completion) {
  refreshTabs([self = shared_from_this(), query = std::move(query), completion = std::move(completion)](
                  std::vector<std::shared_ptr<TabState>> states) mutable {
    auto finish = [query = std::move(query), states = std::move(states), completion = std::move(completion)](
                      const std::shared_ptr<SFSafariWindow>& current) mutable {
      List kept;
      for (const auto& state : states) {
        if (query.admits(*state, current)) kept.push_back(state->toDictionary());
      }
      completion(success(std::move(kept)));
    };
    if (!query.filtersByWindow) {
      finish(nullptr);
      return;
    }
    self->application()->getActiveWindow(
        [finish = std::move(finish)](std::shared_ptr<SFSafariWindow> current) mutable { finish(current); });
  });
}

void SafariTabAPI::createTab(const std::string& url, bool active, ResultCallback completion) {
  auto loadable = browserURL(url);
  if (!loadable) {
    completion(failure(kCreateFailed));
    return;
  }
  application()->getActiveWindow([self = shared_from_this(), url = std::move(*loadable), active,
                                  completion = std::move(completion)](std::shared_ptr<SFSafariWindow> window) mutable {
    if (!window) {
      completion(failure(kCreateFailed));
      return;
    }
    window->openTabWithURL(url, active, [self, completion = std::move(completion)](
                                            std::shared_ptr<SFSafariTab> tab) mutable {
      if (!tab) {
        completion(failure(kCreateFailed));
        return;
      }
      if (auto cached = self->cachedTabState(tab)) {
        completion(success(cached->toDictionary()));
        return;
      }
      tab->getPages([self, tab, completion = std::move(completion)](
                        std::vector<std::shared_ptr<SFSafariPage>> pages) mutable {
        self->buildTabState(tab, pages.empty() ? nullptr : pages.front(), false,
                            [completion = std::move(completion)](std::shared_ptr<TabState> state) mutable {
                              completion(success(state->toDictionary()));
                            });
      });
    });
  });
}

void SafariTabAPI::updateTab(const std::string& id, const std::optional<std::string>& url, bool active,
                             ResultCallback completion) {
  auto state = findTabState(id);
  auto tab = state ? state->tab().ref() : nullptr;
  auto loadable = url ? browserURL(*url) : std::nullopt;
  if (!tab || (url && !loadable)) {
    completion(failure(kUpdateFailed));
    return;
  }
  if (loadable) tab->navigateToURL(*loadable);
  auto rebuild = [self = shared_from_this(), tab, completion = std::move(completion)]() mutable {
    tab->getPages([self, tab, completion = std::move(completion)](
                      std::vector<std::shared_ptr<SFSafariPage>> pages) mutable {
      self->buildTabState(tab, pages.empty() ? nullptr : pages.front(), false,
                          [completion = std::move(completion)](std::shared_ptr<TabState> state) mutable {
                            completion(success(state->toDictionary()));
                          });
    });
  };
  if (active) {
    tab->activate(std::move(rebuild));
  } else {
    rebuild();
  }
}

void SafariTabAPI::removeTab(const std::string& id, ResultCallback completion) {
  std::shared_ptr<SFSafariTab> tab;
  {
    // One locked step: a build racing this removal finds the snapshot in
    // one of the two sets, never in neither.
    std::lock_guard lock(registryMutex_);
    if (auto found = tabCache_.findById(id)) {
      tab = found->entry.value->tab().ref();
      tabCache_.list().remove(found->position);
      if (tab) {
        removedTabs_.removeWhere([](const auto& gone) { return gone.key.expired(); });
        removedTabs_.set(WeakRef<SFSafariTab>(tab), found->entry.value);
      }
    }
  }
  if (!tab) {
    completion(success(false));
    return;
  }
  tab->close();
  completion(success(true));
}

}  // namespace appex
