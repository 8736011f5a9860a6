// SafariTabAPI: the registry of the browser's tabs and pages, the entry of
// every page message, and the tab commands.
//
// Browser tabs and pages have no identifiers; this registry gives each tab
// a UUID the first time it is turned into a TabState (kept in tabCache) and
// each page a UUID the first time it sends a message (kept in pageCache),
// and finds them again by those identifiers, or by browser object, through
// the caches' hash indexes. Entries are keyed by weak reference: the
// registry never keeps a browser object alive, and a closed tab's snapshot
// stays with its references empty (a gone page's entry is dropped: nothing
// can reach it).
//
// Page intake (onPageMessage) parses "__APP_EXTENSION__" messages, ties
// each to its tab, fills the action's meta with "tabId" and "tabUrl" and
// hands asks to `handler` (set by the router) with a reply closure that
// answers the asking page only. Messages to tabs (sendToTab) park their
// reply closure in `callbacks` under a new uid until the page's ANSWER
// comes back; each runs once. A reply is parked only while a page it was
// sent to can still answer: none is parked when nobody reads the answer or
// no page got the ask, and one is dropped (never run) once each of its
// pages is gone or has navigated away. The table thus holds no more than
// the asks in flight to live pages.
//
// One instance per Context (shared()); it reaches the browser
// (SFSafariApplication) and the window registry through that Context.
// Completions and events may come on any thread; the tab events "create"
// and "update" are fired on the thread that finished the build, after the
// build's own completion has run.
//
// Thread-safe.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/event_emitter.h"
#include "core/key_value_set.h"
#include "core/threaded_dictionary.h"
#include "core/weak_ref.h"
#include "host/event_payload.h"
#include "host/message.h"
#include "host/result.h"
#include "platform/safari_application.h"
#include "platform/safari_page.h"
#include "platform/safari_tab.h"
#include "platform/safari_window.h"
#include "tabs/tab_query.h"
#include "tabs/tab_state.h"

namespace appex {

class Context;
class SafariWindowAPI;

// What pageCache keeps per page.
struct PageRecord {
  std::string id;  // a UUID made on the page's first message
};

// A reply waiting in `callbacks` for an answer from one of the pages its
// ask was sent to.
struct PendingReply {
  ResultCallback reply;
  std::vector<WeakRef<SFSafariPage>> pages;  // those that may still answer
};

class SafariTabAPI : public std::enable_shared_from_this<SafariTabAPI> {
 public:
  using TabCache = KeyValueSet<WeakRef<SFSafariTab>, std::shared_ptr<TabState>>;
  using PageCache = KeyValueSet<WeakRef<SFSafariPage>, PageRecord>;
  using Callbacks = ThreadedDictionary<std::string, PendingReply>;
  // Receives every page ask other than "VALIDATE_TAB", with the closure that
  // answers the asking page.
  using Handler = std::function<void(Message, ResultCallback)>;
  using Emitter = EventEmitter<EventPayload>;
  using TabStateCompletion = std::move_only_function<void(std::shared_ptr<TabState>)>;
  using TabStatesCompletion =
      std::move_only_function<void(std::vector<std::shared_ptr<TabState>>)>;

  // The name of every page message to and from content scripts.
  static constexpr std::string_view kMessageName = "__APP_EXTENSION__";

  // The current Context's instance.
  static std::shared_ptr<SafariTabAPI> shared();

  explicit SafariTabAPI(Context& context);

  // Tab events "create" and "update". Payload: the TabState (native) and
  // its dictionary form (value).
  const std::shared_ptr<Emitter>& emitter() const { return emitter_; }
  TabCache& tabCache() { return tabCache_; }
  PageCache& pageCache() { return pageCache_; }
  Callbacks& callbacks() { return callbacks_; }

  void setHandler(Handler handler);
  Handler handler() const;

  // Page intake: every page message the browser delivers. Messages with
  // another name, no user info, or user info that is no Message are
  // dropped with "M Exit 1", "M Exit 2", "M Exit 3". An ask "VALIDATE_TAB"
  // is answered here (whether the tab has a page) and, from the top frame,
  // rebuilds the tab's snapshot with events. Any other ask goes to
  // `handler` (dropped when none is set); an ANSWER completes the pending
  // reply of its uid (ignored when there is none); other types only tie
  // the page to its tab. A page whose tab is gone gets "VALIDATE_TAB"
  // answered false and its other messages dropped.
  // REQUIRES: page != nullptr.
  void onPageMessage(const std::string& name, std::optional<Dictionary> userInfo,
                     std::shared_ptr<SFSafariPage> page);

  // The cached snapshot of `tab`, or a new one built from its first page
  // (update events suppressed; a new tab is still announced).
  // REQUIRES: tab != nullptr.
  void getTabState(std::shared_ptr<SFSafariTab> tab, TabStateCompletion completion);
  // getTabState for each of `tabs`; the completion gets them in order.
  void getTabStates(std::vector<std::shared_ptr<SFSafariTab>> tabs, TabStatesCompletion completion);

  // Rebuilds the snapshot of `tab` from `page` (nullptr: the tab shows no
  // page) and the tab's window, stores it and hands it to `completion`.
  // Then fires "create" for a tab seen for the first time, or "update"
  // unless `suppressUpdates`.
  // REQUIRES: tab != nullptr.
  void buildTabState(std::shared_ptr<SFSafariTab> tab, std::shared_ptr<SFSafariPage> page,
                     bool suppressUpdates, TabStateCompletion completion);

  // Sends the ask (cmd, args) to every page of the tab `tabId`, or with
  // `pageId` to that one page, and parks `reply` until a page answers.
  // An unknown tab id fails the reply at once with "Tab not found for id "
  // + id; a closed tab, or a page id that matches no page, sends nothing
  // and parks nothing. An empty `reply` means nobody reads the answer (an
  // event relayed to the tab): the ask is sent and nothing is parked.
  void sendToTab(const std::string& tabId, const std::optional<std::string>& pageId,
                 std::string cmd, std::optional<AnyValue> args, ResultCallback reply);
  // sendToTab to the tab of a snapshot already read from tabCache (no
  // lookup by id).
  void sendToTab(const TabState& state, const std::optional<std::string>& pageId, std::string cmd,
                 std::optional<AnyValue> args, ResultCallback reply);

  // `page` is about to load another document: the asks its current one
  // was sent will not be answered. Replies that waited on it alone, or
  // else only on pages that are gone, are dropped without running.
  void pageWillNavigate(const std::shared_ptr<SFSafariPage>& page);

  // Sends `userInfo` under kMessageName to each page, in order.
  void dispatchToPages(const std::vector<std::shared_ptr<SFSafariPage>>& pages,
                       const Dictionary& userInfo);

  // Answers `request` (same uid and frame id) with `reply`, to `page` only:
  // a failure as "err", a success's value (if any) as "data".
  // REQUIRES: page != nullptr.
  void answerPage(const Message& request, Result reply, const std::shared_ptr<SFSafariPage>& page);

  // Snapshots of every tab of every window, windows in order, each
  // window's tabs in the browser's order. A known tab's snapshot is taken
  // as it is: pages keep it current by asking "VALIDATE_TAB" again when
  // their title or address changes.
  void refreshTabs(TabStatesCompletion completion);

  // Marks which known tab of `window` is active; no events, no new tabs.
  void refreshActiveFlags(std::shared_ptr<SFSafariWindow> window,
                          std::shared_ptr<SFSafariTab> activeTab);

  // Lookups by identifier (the first match, found through the caches'
  // indexes), or nullptr.
  std::shared_ptr<TabState> findTabState(const std::string& id) const;
  std::shared_ptr<TabState> cachedTabState(const std::shared_ptr<SFSafariTab>& tab) const;
  std::shared_ptr<SFSafariPage> findPage(const std::string& pageId) const;
  // The page's identifier, made on first sight. New pages also drop the
  // entries of pages that no longer exist (whenever the cache has doubled
  // since they last did: those identifiers find nothing), and the replies
  // that waited only on such pages.
  std::string pageIdentifier(const std::shared_ptr<SFSafariPage>& page);

  // Tab commands, once their arguments are valid. Each calls `completion`
  // exactly once, with a tab's dictionary form, a list of them, a boolean,
  // or a failure text.

  // The snapshot with that id (also of a closed tab), or
  // "[tabs.get] no tab found with id: " + id.
  void getTab(const std::string& id, ResultCallback completion);
  // Every open tab.
  void allTabs(ResultCallback completion);
  // The open tabs that pass `query`.
  void queryTabs(TabQuery query, ResultCallback completion);
  // Opens `url` in a new tab of the active window, or fails with
  // "[tabs.create] Failed to create tab for unknown reason" (no URL, no
  // window, no tab).
  void createTab(const std::string& url, bool active, ResultCallback completion);
  // Navigates and/or activates the tab, then rebuilds its snapshot (with
  // events). Unknown or closed tab, or a url that is no URL:
  // "[tabs.update] Failed to create tab for unknown reason".
  void updateTab(const std::string& id, const std::optional<std::string>& url, bool active,
                 ResultCallback completion);
  // Forgets the tab's snapshot and closes it: true, or false when no open
  // tab has that id. Messages its pages sent before the close still arrive
  // afterwards; they are tied to the forgotten snapshot (same id) instead
  // of registering the closing tab again under a new id with a "create"
  // event. Nothing registers it again, and no event names it.
  void removeTab(const std::string& id, ResultCallback completion);

 private:
  std::shared_ptr<SFSafariApplication> application() const;
  std::shared_ptr<SafariWindowAPI> windows() const;

  // What record did with a build.
  enum class Recorded { created, updated, removed };
  // Stores the result of a build: the tab's existing snapshot updated in
  // place, or a new one; a tab removed with removeTab gets its forgotten
  // snapshot updated and stays out of tabCache.
  std::pair<std::shared_ptr<TabState>, Recorded> record(const std::shared_ptr<SFSafariTab>& tab,
                                                        TabState::Fields fields);
  // The snapshot removeTab took out for `tab`, or nullptr.
  std::shared_ptr<TabState> removedTabState(const std::shared_ptr<SFSafariTab>& tab) const;
  void deliverAsk(Message message, const std::shared_ptr<SFSafariPage>& page);
  void deliverAnswer(const Message& message);
  void validateTab(const Message& message, const std::shared_ptr<SFSafariPage>& page);
  // Parks `reply` under `uid` for an ask sent to `pages` (not empty). Now
  // and then (as the table doubles) drops the replies of gone pages.
  void park(std::string uid, ResultCallback reply, const std::vector<std::shared_ptr<SFSafariPage>>& pages);
  // Takes out the parked replies whose every page is gone or is `leaving`
  // (may be nullptr); the caller lets them go where it holds no lock.
  std::vector<PendingReply> takeUnanswerable(const std::shared_ptr<SFSafariPage>& leaving);

  Context& context_;
  const std::shared_ptr<Emitter> emitter_;
  TabCache tabCache_;
  // Snapshots removeTab took out, while their tab objects live (entries of
  // gone tabs are dropped on the next removal).
  TabCache removedTabs_;
  PageCache pageCache_;
  Callbacks callbacks_;
  // The table size at which park() next drops the replies of gone pages;
  // touched only inside callbacks_' queue.
  std::size_t sweepAt_ = 64;

  mutable std::mutex handlerMutex_;
  Handler handler_;  // guarded by handlerMutex_

  // Serialises each find-or-insert on tabCache and pageCache (a lookup and
  // a write are two trips through the set), so one tab never gets two
  // snapshots or two identifiers when builds race.
  std::mutex registryMutex_;
  // pageCache's size at which a new page clears out gone pages next;
  // guarded by registryMutex_.
  std::size_t pageSweepAt_ = 1;
};

}  // namespace appex
