#include "tabs/safari_tab_api.h"

#include <algorithm>
#include <unordered_map>

#include <boost/json/serialize.hpp>

#include "core/context.h"
#include "core/log.h"
#include "core/thread_pool.h"
#include "host/callback_utils.h"
#include "tabs/identifiers.h"
#include "tabs/safari_window_api.h"
#include "tabs/window_state.h"

namespace appex {
namespace {

// Sets "tabUrl" and "tabId" in root.action.args.meta when every one of
// those levels is a dictionary; otherwise leaves `root` as it is.
void fillMeta(AnyValue& root, const TabState& state) {
  auto* top = root.if_object();
  if (!top) return;
  auto* action = top->if_contains("action");
  if (!action || !action->is_object()) return;
  auto* args = action->as_object().if_contains("args");
  if (!args || !args->is_object()) return;
  auto* meta = args->as_object().if_contains("meta");
  if (!meta || !meta->is_object()) return;
  auto& m = meta->as_object();
  if (auto url = state.url()) {
    m["tabUrl"] = *url;
  } else {
    m.erase("tabUrl");
  }
  m["tabId"] = state.id();
}

// The router reads a "messaging" ask's request from `args`; answers and
// other messages carry theirs in `data`.
void enrich(Message& message, const TabState& state) {
  if (message.data) fillMeta(*message.data, state);
  if (message.type == MessageType::ask && message.cmd == "messaging" && message.args) {
    fillMeta(*message.args, state);
  }
}

// Takes out of `pending` the replies that no page can answer any more:
// each of their pages is gone or is `leaving` (which then forgets them).
std::vector<PendingReply> takeUnanswerableFrom(std::unordered_map<std::string, PendingReply>& pending,
                                           const SFSafariPage* leaving) {
  std::vector<PendingReply> taken;
  for (auto it = pending.begin(); it != pending.end();) {
    std::erase_if(it->second.pages, [leaving](const WeakRef<SFSafariPage>& weak) {
      auto page = weak.ref();
      return !page || (leaving && page->isEqual(*leaving));
    });
    if (it->second.pages.empty()) {
      taken.push_back(std::move(it->second));
      it = pending.erase(it);
    } else {
      ++it;
    }
  }
  return taken;
}

}  // namespace

std::shared_ptr<SafariTabAPI> SafariTabAPI::shared() { return Context::current().get<SafariTabAPI>(); }

SafariTabAPI::SafariTabAPI(Context& context)
    : context_(context),
      emitter_(Emitter::create()),
      tabCache_(sameBrowserObject<SFSafariTab>, browserObjectHash<SFSafariTab>, snapshotId<TabState>),
      removedTabs_(sameBrowserObject<SFSafariTab>, browserObjectHash<SFSafariTab>, snapshotId<TabState>),
      pageCache_(sameBrowserObject<SFSafariPage>, browserObjectHash<SFSafariPage>,
                 [](const PageRecord& record) { return std::string_view(record.id); }) {}

std::shared_ptr<SFSafariApplication> SafariTabAPI::application() const {
  return context_.get<SFSafariApplication>();
}

std::shared_ptr<SafariWindowAPI> SafariTabAPI::windows() const {
  return context_.get<SafariWindowAPI>();
}

void SafariTabAPI::setHandler(Handler handler) {
  std::lock_guard lock(handlerMutex_);
  handler_ = std::move(handler);
}

SafariTabAPI::Handler SafariTabAPI::handler() const {
  std::lock_guard lock(handlerMutex_);
  return handler_;
}

// --- Page intake -----------------------------------------------------------

void SafariTabAPI::onPageMessage(const std::string& name, std::optional<Dictionary> userInfo,
                                 std::shared_ptr<SFSafariPage> page) {
  if (name != kMessageName) {
    logLine("M Exit 1");
    return;
  }
  if (!userInfo) {
    logLine("M Exit 2");
    return;
  }
  std::optional<Message> parsed = Message::parse(*userInfo);
  if (!parsed) {
    logLine("M Exit 3");
    return;
  }
  pageIdentifier(page);
  if (parsed->type == MessageType::ask && parsed->cmd == "VALIDATE_TAB") {
    validateTab(*parsed, page);
    return;
  }
  page->getContainingTab([self = shared_from_this(), message = std::move(*parsed),
                          page](std::shared_ptr<SFSafariTab> tab) mutable {
    if (!tab) return;  // the page is gone: nothing left to tie the message to
    self->getTabState(std::move(tab), [self, message = std::move(message),
                                       page = std::move(page)](std::shared_ptr<TabState> state) mutable {
      enrich(message, *state);
      switch (message.type) {
        case MessageType::ask:
          self->deliverAsk(std::move(message), page);
          break;
        case MessageType::answer:
          self->deliverAnswer(message);
          break;
        default:
          break;
      }
    });
  });
}

void SafariTabAPI::validateTab(const Message& message, const std::shared_ptr<SFSafariPage>& page) {
  page->getContainingTab([self = shared_from_this(), message, page](std::shared_ptr<SFSafariTab> tab) {
    if (!tab) {
      self->answerPage(message, success(false), page);
      return;
    }
    tab->getPages([self, message, page, tab](std::vector<std::shared_ptr<SFSafariPage>> pages) {
      self->answerPage(message, success(!pages.empty()), page);
      // Inner frames of a page validate too; only the top frame's request
      // stands for the tab.
      if (!pages.empty() && message.frameId == 0) {
        self->buildTabState(tab, pages.front(), false, [](std::shared_ptr<TabState>) {});
      }
    });
  });
}

void SafariTabAPI::deliverAsk(Message message, const std::shared_ptr<SFSafariPage>& page) {
  Handler h = handler();
  if (!h) return;
  Message request = message;
  request.data.reset();
  request.args.reset();
  // The router may hold the reply for as long as its target takes; it must
  // keep neither the registry nor the page alive meanwhile.
  ResultCallback reply = [weakSelf = weak_from_this(), request = std::move(request),
                          page = WeakRef<SFSafariPage>(page)](Result result) mutable {
    auto self = weakSelf.lock();
    auto target = page.ref();
    if (self && target) self->answerPage(request, std::move(result), target);
  };
  h(std::move(message), std::move(reply));
}

void SafariTabAPI::deliverAnswer(const Message& message) {
  std::optional<PendingReply> pending = callbacks_.removeValue(message.uid);
  if (!pending) return;
  Result result = message.err    ? failure(*message.err)
                  : message.data ? success(*message.data)
                                 : successEmpty();
  ThreadPool::shared().post([reply = std::move(pending->reply), result = std::move(result)]() mutable {
    reply(std::move(result));
  });
}

// --- Snapshots ---------------------------------------------------------------

void SafariTabAPI::getTabState(std::shared_ptr<SFSafariTab> tab, TabStateCompletion completion) {
  auto cached = cachedTabState(tab);
  if (!cached) cached = removedTabState(tab);
  if (cached) {
    completion(std::move(cached));
    return;
  }
  tab->getPages([self = shared_from_this(), tab, completion = std::move(completion)](
                    std::vector<std::shared_ptr<SFSafariPage>> pages) mutable {
    self->buildTabState(std::move(tab), pages.empty() ? nullptr : pages.front(), true,
                        std::move(completion));
  });
}

void SafariTabAPI::getTabStates(std::vector<std::shared_ptr<SFSafariTab>> tabs,
                                TabStatesCompletion completion) {
  auto done = std::make_shared<TabStatesCompletion>(std::move(completion));
  auto step = CallbackUtils::join<std::shared_ptr<TabState>>(
      tabs.size(), [done](std::vector<std::shared_ptr<TabState>> states) { (*done)(std::move(states)); });
  for (std::size_t i = 0; i < tabs.size(); ++i) {
    getTabState(std::move(tabs[i]), [step, i](std::shared_ptr<TabState> state) { step(i, std::move(state)); });
  }
}

void SafariTabAPI::buildTabState(std::shared_ptr<SFSafariTab> tab, std::shared_ptr<SFSafariPage> page,
                                 bool suppressUpdates, TabStateCompletion completion) {
  // The three lookups run at once; whichever answers last finishes the build.
  struct Lookup {
    std::optional<SFSafariPageProperties> properties;
    std::shared_ptr<SFSafariTab> activeTab;
    std::shared_ptr<WindowState> windowState;
  };
  auto self = shared_from_this();
  auto done = std::make_shared<TabStateCompletion>(std::move(completion));
  auto step = CallbackUtils::join<Lookup>(3, [self, tab, suppressUpdates, done](std::vector<Lookup> parts) {
    const auto& properties = parts[0].properties;
    const auto& activeTab = parts[1].activeTab;
    const auto& windowState = parts[2].windowState;

    TabState::Fields fields;
    fields.tab = WeakRef<SFSafariTab>(tab);
    if (windowState) {
      fields.win = windowState->win();
      fields.windowId = windowState->id();
    }
    fields.readPage(properties);
    fields.isActive = activeTab && activeTab->isEqual(*tab);

    auto [state, recorded] = self->record(tab, std::move(fields));
    const bool isNew = recorded == Recorded::created;
    const Dictionary form = state->toDictionary();
    (*done)(state);
    if (recorded == Recorded::removed || (suppressUpdates && !isNew)) return;
    const std::string event = isNew ? "create" : "update";
    logLine("tab event: " + event + " - " + boost::json::serialize(form) + ", " + tab->description());
    self->emitter_->fire(event, EventPayload::object(state, form));
  });

  if (page) {
    page->getPageProperties([step](std::optional<SFSafariPageProperties> properties) {
      step(0, Lookup{std::move(properties), nullptr, nullptr});
    });
  } else {
    step(0, Lookup{});
  }
  tab->getContainingWindow([step](std::shared_ptr<SFSafariWindow> window) {
    if (!window) {
      step(1, Lookup{});
      return;
    }
    window->getActiveTab([step](std::shared_ptr<SFSafariTab> active) {
      step(1, Lookup{std::nullopt, std::move(active), nullptr});
    });
  });
  tab->getContainingWindow([step, self](std::shared_ptr<SFSafariWindow> window) {
    if (!window) {
      step(2, Lookup{});
      return;
    }
    self->windows()->getWindowState({}, std::move(window), true, [step](std::shared_ptr<WindowState> state) {
      step(2, Lookup{std::nullopt, nullptr, std::move(state)});
    });
  });
}

std::pair<std::shared_ptr<TabState>, SafariTabAPI::Recorded> SafariTabAPI::record(
    const std::shared_ptr<SFSafariTab>& tab, TabState::Fields fields) {
  const WeakRef<SFSafariTab> key(tab);
  std::lock_guard lock(registryMutex_);
  auto found = tabCache_.get(key);
  if (!found) {
    if (auto removed = removedTabs_.get(key)) {
      removed->value->assign(std::move(fields));
      return {removed->value, Recorded::removed};
    }
  }
  auto state = found ? found->value : std::make_shared<TabState>(newUUIDString());
  state->assign(std::move(fields));
  tabCache_.set(key, state);
  return {std::move(state), found ? Recorded::updated : Recorded::created};
}

std::shared_ptr<TabState> SafariTabAPI::removedTabState(const std::shared_ptr<SFSafariTab>& tab) const {
  auto found = removedTabs_.get(WeakRef<SFSafariTab>(tab));
  return found ? found->value : nullptr;
}

void SafariTabAPI::refreshTabs(TabStatesCompletion completion) {
  application()->getAllWindows([self = shared_from_this(), completion = std::move(completion)](
                                   std::vector<std::shared_ptr<SFSafariWindow>> windows) mutable {
    using Group = std::vector<std::shared_ptr<TabState>>;
    auto done = std::make_shared<TabStatesCompletion>(std::move(completion));
    auto step = CallbackUtils::join<Group>(windows.size(), [done](std::vector<Group> groups) {
      Group all;
      for (auto& group : groups) all.insert(all.end(), group.begin(), group.end());
      (*done)(std::move(all));
    });
    for (std::size_t i = 0; i < windows.size(); ++i) {
      windows[i]->getAllTabs([self, step, i](std::vector<std::shared_ptr<SFSafariTab>> tabs) {
        self->getTabStates(std::move(tabs), [step, i](Group states) { step(i, std::move(states)); });
      });
    }
  });
}

void SafariTabAPI::refreshActiveFlags(std::shared_ptr<SFSafariWindow> window,
                                      std::shared_ptr<SFSafariTab> activeTab) {
  if (!window) return;
  window->getAllTabs([self = shared_from_this(), activeTab = std::move(activeTab)](
                         std::vector<std::shared_ptr<SFSafariTab>> tabs) {
    for (const auto& tab : tabs) {
      if (auto state = self->cachedTabState(tab)) state->setActive(activeTab && activeTab->isEqual(*tab));
    }
  });
}

// --- Addressing --------------------------------------------------------------

std::shared_ptr<TabState> SafariTabAPI::findTabState(const std::string& id) const {
  auto found = tabCache_.findById(id);
  return found ? found->entry.value : nullptr;
}

std::shared_ptr<TabState> SafariTabAPI::cachedTabState(const std::shared_ptr<SFSafariTab>& tab) const {
  auto found = tabCache_.get(WeakRef<SFSafariTab>(tab));
  return found ? found->value : nullptr;
}

std::shared_ptr<SFSafariPage> SafariTabAPI::findPage(const std::string& pageId) const {
  auto found = pageCache_.findById(pageId);
  return found ? found->entry.key.ref() : nullptr;
}

std::string SafariTabAPI::pageIdentifier(const std::shared_ptr<SFSafariPage>& page) {
  const WeakRef<SFSafariPage> key(page);
  std::vector<PendingReply> dropped;  // destroyed once the lock is released
  std::lock_guard lock(registryMutex_);
  if (auto found = pageCache_.get(key)) return found->value.id;
  // A page the browser has let go of can never be addressed again. The
  // gone ones are cleared out whenever the cache has doubled since the last
  // clear-out: it stays within about twice the live pages, at O(1) per new
  // page on average.
  if (const std::size_t count = pageCache_.list().count(); count >= pageSweepAt_) {
    const std::size_t left = count - pageCache_.removeWhere([](const auto& entry) { return entry.key.expired(); });
    pageSweepAt_ = std::max<std::size_t>(2 * left, 1);
  }
  dropped = takeUnanswerable(nullptr);
  std::string id = newUUIDString();
  pageCache_.set(key, PageRecord{id});
  return id;
}

void SafariTabAPI::sendToTab(const std::string& tabId, const std::optional<std::string>& pageId,
                             std::string cmd, std::optional<AnyValue> args, ResultCallback reply) {
  auto state = findTabState(tabId);
  if (!state) {
    if (reply) reply(failure("Tab not found for id " + tabId));
    return;
  }
  sendToTab(*state, pageId, std::move(cmd), std::move(args), std::move(reply));
}

void SafariTabAPI::sendToTab(const TabState& state, const std::optional<std::string>& pageId, std::string cmd,
                             std::optional<AnyValue> args, ResultCallback reply) {
  auto tab = state.tab().ref();
  // A closed tab has no page left to answer: nothing is sent or parked
  // (the asker's own time-out ends the wait).
  if (!tab && !pageId) return;
  Message ask;
  ask.type = MessageType::ask;
  ask.uid = newUUIDString();
  ask.cmd = std::move(cmd);
  ask.args = std::move(args);
  // The reply is parked before the ask leaves, so an answer always finds it.
  auto send = [self = shared_from_this(), uid = ask.uid, userInfo = ask.build(),
               reply = std::move(reply)](std::vector<std::shared_ptr<SFSafariPage>> pages) mutable {
    std::erase(pages, nullptr);
    if (pages.empty()) return;  // no page to answer: the reply could never run
    if (reply) self->park(std::move(uid), std::move(reply), pages);
    self->dispatchToPages(pages, userInfo);
  };
  if (pageId) {
    auto page = findPage(*pageId);
    send(page ? std::vector{std::move(page)} : std::vector<std::shared_ptr<SFSafariPage>>{});
    return;
  }
  tab->getPages(std::move(send));
}

void SafariTabAPI::park(std::string uid, ResultCallback reply,
                        const std::vector<std::shared_ptr<SFSafariPage>>& pages) {
  PendingReply pending{std::move(reply), {}};
  for (const auto& page : pages) pending.pages.emplace_back(page);
  // Replies of pages that closed are otherwise dropped when a new page
  // turns up; sweeping each time the table doubles bounds it in between
  // at a constant cost per ask. Dropped closures are destroyed off the
  // table's queue.
  std::vector<PendingReply> dropped = callbacks_.mutatingSync([&](auto& table) {
    table.insert_or_assign(std::move(uid), std::move(pending));
    std::vector<PendingReply> gone;
    if (table.size() >= sweepAt_) {
      gone = takeUnanswerableFrom(table, nullptr);
      sweepAt_ = std::max<std::size_t>(64, 2 * table.size());
    }
    return gone;
  });
}

std::vector<PendingReply> SafariTabAPI::takeUnanswerable(const std::shared_ptr<SFSafariPage>& leaving) {
  return callbacks_.mutatingSync([&](auto& table) { return takeUnanswerableFrom(table, leaving.get()); });
}

void SafariTabAPI::pageWillNavigate(const std::shared_ptr<SFSafariPage>& page) {
  if (page) takeUnanswerable(page);
}

void SafariTabAPI::dispatchToPages(const std::vector<std::shared_ptr<SFSafariPage>>& pages,
                                   const Dictionary& userInfo) {
  for (const auto& page : pages) {
    if (page) page->dispatchMessageToScript(std::string(kMessageName), userInfo);
  }
}

void SafariTabAPI::answerPage(const Message& request, Result reply,
                              const std::shared_ptr<SFSafariPage>& page) {
  Message answer;
  answer.type = MessageType::answer;
  answer.uid = request.uid;
  answer.frameId = request.frameId;
  if (reply) {
    answer.data = std::move(*reply);
  } else {
    answer.err = std::move(reply.error().text);
  }
  page->dispatchMessageToScript(std::string(kMessageName), answer.build());
}

}  // namespace appex
