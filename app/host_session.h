// HostSession: one run of an extension on the WebKit browser, as `appex run`
// drives it: the Context with the bundle, the user defaults, the browser and
// the extension's entry; host handles for windows and tabs ("w1", "t1");
// readiness of the background page; page loads and who waits for them;
// snapshots; and the events the automation protocol reports (docs/
// protocol.md), the console messages and uncaught errors of the extension's
// pages and content scripts among them.
//
// The session owns the main loop's turns (`tick`); the command line and the
// automation protocol act on it between turns.
//
// Main thread only (the engine's), except where a method says otherwise.
#pragma once

#include <chrono>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/bundle_check.h"
#include "app/run_options.h"
#include "app/shared_reply.h"
#include "host/any_value.h"
#include "host/result.h"
#include "platform/popover.h"

namespace appex {

class Context;
class SafariMessagingAPI;
class WebView;

namespace webkit {
struct ConsoleMessage;
class Engine;
class WebKitBrowser;
class WebKitTab;
class WebKitWindow;
}  // namespace webkit

class HostSession {
 public:
  // Receives the session's events: a name and its fields.
  using EventSink = std::function<void(const std::string& event, Dictionary fields)>;

  // Sets up the Context on `engine` and opens the first window, blank (which
  // makes the browser validate its toolbar item: the background page comes
  // up); the pages of `options.open` follow once the background page is
  // ready. Fails with the reason.
  static std::expected<std::unique_ptr<HostSession>, std::string> start(webkit::Engine& engine,
                                                                        const RunOptions& options,
                                                                        CheckedBundle bundle,
                                                                        EventSink events);
  ~HostSession();

  // One turn of bookkeeping: new and closed tabs, toolbar and popover
  // changes, readiness. Cheap; call it every few milliseconds.
  void tick();

  // The background page has loaded and answers over its bridge, and the
  // pages of --open have loaded (or failed to): the "ready" event is out.
  bool ready() const { return announced_; }

  // Host handles.
  std::shared_ptr<webkit::WebKitWindow> window(const std::string& handle) const;
  std::shared_ptr<webkit::WebKitTab> tab(const std::string& handle) const;
  std::string handleOf(const std::shared_ptr<webkit::WebKitWindow>& window);
  std::string handleOf(const std::shared_ptr<webkit::WebKitTab>& tab);

  webkit::WebKitBrowser& browser() const { return *browser_; }
  Context& context() const { return context_; }
  std::shared_ptr<WebView> backgroundWebView() const;
  // The popup page's web view, loading it if it never was.
  std::shared_ptr<WebView> popupWebView() const;
  // Runs `then` once the popup page has loaded with its bridge (loading it
  // if it never was), or `expired` if it has not within a while. Until then
  // the view holds an empty document, where scripts would run to no avail.
  void whenPopupLoaded(std::move_only_function<void()> then, std::move_only_function<void()> expired);

  // Calls `done` once, when the tab's next page load ends: {"tab", "url",
  // "title"} when it loaded, a failure naming the tab and the reason when it
  // did not, closed first or took longer than the load patience.
  void whenLoaded(const std::string& tab, std::function<void(Result)> done);
  // Fails `reply` if the tab closes ("tab t1 closed") or its page goes
  // away (the tab commits another load) before it is answered.
  void watchTab(const std::string& tab, SharedReply reply);
  // Runs `then` on a later turn, once `delay` has passed, unless `moot`
  // holds by then.
  void after(std::chrono::milliseconds delay, std::move_only_function<void()> then,
             std::function<bool()> moot = [] { return false; });

  // {"image", "badgeText", "label", "enabled"} of a window's toolbar item.
  Dictionary toolbarState(const std::shared_ptr<webkit::WebKitWindow>& window) const;
  Dictionary popoverState() const;

  // Writes a PNG of `what` ("background", "popover", "toolbar" (the active
  // window's button) or a tab handle) once it can: the popover is opened
  // for it, a tab waits for its page to load. The reply gets {"path",
  // "width", "height"}.
  void snapshot(const std::string& what, const std::string& path, ResultCallback reply);
  // A PNG of the window's toolbar button at `scale` pixels per point.
  void snapshotToolbar(const std::shared_ptr<webkit::WebKitWindow>& window, int scale, const std::string& path,
                       ResultCallback reply);

 private:
  HostSession(Context& context, webkit::Engine& engine, EventSink events);

  // A console message: {"source": "background" | "popup" | "tab", "tab"?,
  // "level", "text"}.
  void reportConsole(const WebView& view, const webkit::ConsoleMessage& message);
  void reportConsole(const std::shared_ptr<webkit::WebKitTab>& tab, const webkit::ConsoleMessage& message);
  // An uncaught error of the extension's code: {"in": "background" |
  // "popup" | "content", "tab"?, "message", "source", "line", "column"}.
  void reportError(const std::string& in, const std::optional<std::string>& tab,
                   const webkit::ConsoleMessage& message);

  // A tab's load ended: the "tabLoaded" or "loadFailed" event, and the
  // load's waiters.
  void reportLoad(const std::shared_ptr<webkit::WebKitTab>& tab, const std::string& url,
                  const std::optional<std::string>& title, const std::optional<std::string>& error);
  void tabGone(const std::string& handle);
  void pageGone(const std::string& handle, const std::string& url);

  void reconcile();
  void checkReadiness();
  // Opens the pages of --open; their tabs' handles.
  std::vector<std::string> openPendingURLs();
  void runWaiting();

  Context& context_;
  webkit::Engine& engine_;
  EventSink events_;
  std::shared_ptr<webkit::WebKitBrowser> browser_;

  std::map<std::string, std::weak_ptr<webkit::WebKitWindow>> windows_;
  std::map<std::string, std::weak_ptr<webkit::WebKitTab>> tabs_;
  // Keyed by the object's owner, not its address: a closed object's memory
  // may be reused by a new one while its handle is still listed.
  std::map<std::weak_ptr<const void>, std::string, std::owner_less<>> handles_;
  int nextWindow_ = 1;
  int nextTab_ = 1;
  std::map<std::string, Dictionary> lastToolbar_;
  Popover::State lastPopover_;

  // A page's load state, asked about now and then; shared with the
  // evaluation's completion.
  struct Probe {
    bool loaded = false;
    bool inFlight = false;
    std::chrono::steady_clock::time_point next{};
  };
  void probe(const std::shared_ptr<WebView>& view, std::shared_ptr<Probe> state);

  bool ready_ = false;      // the background page answers
  bool announced_ = false;  // and "ready" has been sent
  std::vector<std::string> pendingURLs_;  // opened once the background page is ready
  std::shared_ptr<Probe> backgroundProbe_ = std::make_shared<Probe>();
  // Work waiting for a condition (a page to load, the popover to open).
  struct Waiting {
    std::function<bool()> due;
    std::move_only_function<void()> run;
    std::chrono::steady_clock::time_point deadline;
    std::move_only_function<void()> expire;
  };
  std::vector<Waiting> waiting_;
  // Per tab handle: who waits for its next load, and who wants to hear
  // that it closed.
  std::map<std::string, std::vector<std::function<void(Result)>>> loadWaiters_;
  std::map<std::string, std::vector<SharedReply>> tabWatchers_;
};

}  // namespace appex
