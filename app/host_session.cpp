#include "app/host_session.h"

#include "bridge/safari_extension_view_controller.h"
#include "core/context.h"
#include "host/extension_handler_callbacks.h"
#include "host/global_state.h"
#include "host/safari_messaging_api.h"
#include "platform/bundle.h"
#include "platform/sqlite_user_defaults.h"
#include "platform/web_view_factory.h"
#include "platform/webkit/engine.h"
#include "platform/webkit/script_evaluation.h"
#include "platform/webkit/snapshot.h"
#include "platform/webkit/webkit_browser.h"
#include "platform/webkit/webkit_tab.h"
#include "platform/webkit/webkit_toolbar_item.h"
#include "platform/webkit/webkit_window.h"

namespace appex {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPingInterval = std::chrono::milliseconds(250);
constexpr auto kLoadPatience = std::chrono::seconds(20);  // for a page to load

AnyValue orNull(const std::optional<std::string>& s) { return s ? AnyValue(*s) : AnyValue(nullptr); }

}  // namespace

HostSession::HostSession(Context& context, webkit::Engine& engine, EventSink events)
    : context_(context), engine_(engine), events_(std::move(events)) {}

HostSession::~HostSession() {
  engine_.setConsoleObserver(nullptr);
  if (browser_) browser_->shutdown();
}

std::expected<std::unique_ptr<HostSession>, std::string> HostSession::start(
    webkit::Engine& engine, const RunOptions& options, CheckedBundle checked, EventSink events) {
  Context& context = Context::current();
  const std::string identifier = checked.bundle->bundleIdentifier();
  context.set<Bundle>(checked.bundle);
  const std::filesystem::path dataDir = options.dataDirectory.empty()
                                            ? SqliteUserDefaults::defaultDataDirectory()
                                            : std::filesystem::path(options.dataDirectory);
  auto defaults = SqliteUserDefaults::open(dataDir, identifier);
  if (!defaults) return std::unexpected("cannot open the extension's stored values: " + defaults.error());
  context.set<UserDefaults>(*defaults);
  context.set(std::make_shared<WebViewFactory>([&engine] { return engine.createWebView(); }));

  std::unique_ptr<HostSession> session(new HostSession(context, engine, std::move(events)));
  HostSession* s = session.get();
  engine.setConsoleObserver(
      [s](const WebView& view, const webkit::ConsoleMessage& message) { s->reportConsole(view, message); });
  auto browser = webkit::WebKitBrowser::create(context);
  if (!browser) return std::unexpected("cannot start the browser: " + browser.error());
  session->browser_ = *browser;
  session->browser_->setConsoleObserver(
      [s](const std::shared_ptr<webkit::WebKitTab>& tab, const webkit::ConsoleMessage& message) {
        s->reportConsole(tab, message);
      });
  session->browser_->setLoadObserver(
      [s](const std::shared_ptr<webkit::WebKitTab>& tab, const webkit::WebKitBrowser::LoadOutcome& outcome) {
        if (outcome.committed) return s->pageGone(s->handleOf(tab), outcome.url);
        s->reportLoad(tab, outcome.url, outcome.title, outcome.error);
      });
  for (const auto& error : session->browser_->contentScriptErrors()) s->reportError("content", std::nullopt, error);
  session->browser_->install(context);
  session->browser_->setCallbacks(std::make_shared<ExtensionHandlerCallbacks>(context));
  SafariMessagingAPI::shared();  // the router takes the page messages from the first one on

  // The first window, blank: the browser validates its toolbar item when
  // it becomes active, which brings up the background page. The pages asked
  // for open once that page is ready, as in a browser that has been running:
  // their content scripts' first messages would otherwise find no one.
  for (const auto& url : options.open) {
    if (!webkit::isLoadableURL(url)) {
      return std::unexpected("cannot open " + url + " (not an http, https, file or about URL)");
    }
  }
  session->pendingURLs_ = options.open;
  auto window = session->browser_->openWindow("about:blank", options.privateWindow);
  if (!window) return std::unexpected(std::string("cannot open the first window"));
  session->tick();
  return session;
}

std::shared_ptr<WebView> HostSession::backgroundWebView() const {
  return context_.get<GlobalState>()->webview;
}

std::shared_ptr<WebView> HostSession::popupWebView() const {
  auto controller = SafariExtensionViewController::shared();
  controller->loadViewIfNeeded();
  return controller->webview();
}

std::shared_ptr<webkit::WebKitWindow> HostSession::window(const std::string& handle) const {
  auto it = windows_.find(handle);
  auto w = it == windows_.end() ? nullptr : it->second.lock();
  return w && !w->isClosed() ? w : nullptr;
}

std::shared_ptr<webkit::WebKitTab> HostSession::tab(const std::string& handle) const {
  auto it = tabs_.find(handle);
  auto t = it == tabs_.end() ? nullptr : it->second.lock();
  return t && !t->isClosed() ? t : nullptr;
}

std::string HostSession::handleOf(const std::shared_ptr<webkit::WebKitWindow>& window) {
  if (!window) return {};
  auto it = handles_.find(std::weak_ptr<const void>(window));
  if (it != handles_.end()) return it->second;
  std::string handle = "w" + std::to_string(nextWindow_++);
  handles_[std::weak_ptr<const void>(window)] = handle;
  windows_[handle] = window;
  return handle;
}

std::string HostSession::handleOf(const std::shared_ptr<webkit::WebKitTab>& tab) {
  if (!tab) return {};
  auto it = handles_.find(std::weak_ptr<const void>(tab));
  if (it != handles_.end()) return it->second;
  std::string handle = "t" + std::to_string(nextTab_++);
  handles_[std::weak_ptr<const void>(tab)] = handle;
  tabs_[handle] = tab;
  Dictionary fields{{"tab", handle}, {"window", handleOf(tab->window())}};
  auto page = tab->page();
  auto properties = page ? page->properties() : std::nullopt;
  fields["url"] = orNull(properties ? properties->url : std::nullopt);
  events_("tabOpened", std::move(fields));
  return handle;
}

Dictionary HostSession::toolbarState(const std::shared_ptr<webkit::WebKitWindow>& window) const {
  auto item = window ? window->toolbarItem() : nullptr;
  if (!item) return {};
  auto image = item->image();
  return Dictionary{{"image", image ? AnyValue(image->path) : AnyValue(nullptr)},
                    {"badgeText", orNull(item->badgeText())},
                    {"label", orNull(item->label())},
                    {"enabled", item->isEnabled()}};
}

Dictionary HostSession::popoverState() const {
  auto state = context_.get<Popover>()->state();
  auto points = [](double v) {
    return v == static_cast<double>(static_cast<std::int64_t>(v)) ? AnyValue(static_cast<std::int64_t>(v))
                                                                  : AnyValue(v);
  };
  return Dictionary{{"shown", state.shown}, {"width", points(state.size.width)},
                    {"height", points(state.size.height)}};
}

void HostSession::reportConsole(const WebView& view, const webkit::ConsoleMessage& message) {
  // The extension's pages are the only web views the engine makes here.
  const auto background = backgroundWebView();
  // Looked up, never made: console output must not create the popup
  // controller (the popup commands' first use does).
  const auto controller = context_.find<SafariExtensionViewController>();
  const auto popup = controller ? controller->webview() : nullptr;
  std::string source = "extension";
  if (&view == background.get()) {
    source = "background";
  } else if (&view == popup.get()) {
    source = "popup";
  }
  if (message.uncaught) return reportError(source, std::nullopt, message);
  events_("console", Dictionary{{"source", source}, {"level", message.level}, {"text", message.text}});
}

void HostSession::reportError(const std::string& in, const std::optional<std::string>& tab,
                              const webkit::ConsoleMessage& message) {
  Dictionary fields{{"in", in}};
  if (tab) fields["tab"] = *tab;
  fields["message"] = message.text;
  fields["source"] = message.source;
  fields["line"] = message.line;
  fields["column"] = message.column;
  events_("error", std::move(fields));
}

void HostSession::reportConsole(const std::shared_ptr<webkit::WebKitTab>& tab,
                                const webkit::ConsoleMessage& message) {
  if (message.uncaught) return reportError("content", handleOf(tab), message);
  events_("console",
          Dictionary{{"source", "tab"}, {"tab", handleOf(tab)}, {"level", message.level}, {"text", message.text}});
}

void HostSession::reportLoad(const std::shared_ptr<webkit::WebKitTab>& tab, const std::string& url,
                             const std::optional<std::string>& title, const std::optional<std::string>& error) {
  const std::string handle = handleOf(tab);
  Dictionary fields{{"tab", handle}, {"url", url}};
  if (error) {
    fields["error"] = *error;
  } else {
    fields["title"] = orNull(title);
  }
  auto waiters = std::exchange(loadWaiters_[handle], {});
  loadWaiters_.erase(handle);
  events_(error ? "loadFailed" : "tabLoaded", fields);
  for (auto& done : waiters) {
    if (error) {
      done(failure("tab " + handle + " did not load " + url + ": " + *error));
    } else {
      done(success(fields));
    }
  }
}

void HostSession::whenLoaded(const std::string& tab, std::function<void(Result)> then) {
  const SharedReply done{ResultCallback(std::move(then))};
  loadWaiters_[tab].push_back(done);
  after(
      std::chrono::duration_cast<std::chrono::milliseconds>(kLoadPatience),
      [done, tab] {
        done(failure("tab " + tab + " did not finish loading within " +
                     std::to_string(std::chrono::duration_cast<std::chrono::seconds>(kLoadPatience).count()) +
                     " s"));
      },
      [done] { return done.answered(); });
}

void HostSession::watchTab(const std::string& tab, SharedReply reply) {
  auto& watchers = tabWatchers_[tab];
  std::erase_if(watchers, [](const SharedReply& r) { return r.answered(); });
  watchers.push_back(std::move(reply));
}

void HostSession::after(std::chrono::milliseconds delay, std::move_only_function<void()> then,
                        std::function<bool()> moot) {
  waiting_.push_back({std::move(moot), [] {}, Clock::now() + delay, std::move(then)});
}

void HostSession::pageGone(const std::string& handle, const std::string& url) {
  auto watchers = std::exchange(tabWatchers_[handle], {});
  for (auto& reply : watchers) reply(failure("the page in tab " + handle + " went away (the tab loads " + url + ")"));
}

void HostSession::tabGone(const std::string& handle) {
  auto waiters = std::exchange(loadWaiters_[handle], {});
  auto watchers = std::exchange(tabWatchers_[handle], {});
  loadWaiters_.erase(handle);
  tabWatchers_.erase(handle);
  for (auto& done : waiters) done(failure("tab " + handle + " closed before it loaded"));
  for (auto& reply : watchers) reply(failure("tab " + handle + " closed"));
}

void HostSession::reconcile() {
  // Tabs and windows the browser has that the host has not named yet
  // (opened by the extension or by a page), and those that closed.
  for (const auto& w : browser_->windows()) {
    const std::string windowHandle = handleOf(w);
    for (const auto& t : w->tabs()) handleOf(t);
    Dictionary toolbar = toolbarState(w);
    auto& last = lastToolbar_[windowHandle];
    if (toolbar != last) {
      last = toolbar;
      Dictionary fields{{"window", windowHandle}};
      for (auto& kv : toolbar) fields[kv.key()] = kv.value();
      events_("toolbar", std::move(fields));
    }
  }
  for (auto it = tabs_.begin(); it != tabs_.end();) {
    auto t = it->second.lock();
    if (t && !t->isClosed()) {
      ++it;
      continue;
    }
    tabGone(it->first);
    events_("tabClosed", Dictionary{{"tab", it->first}});
    std::erase_if(handles_, [&](const auto& entry) { return entry.second == it->first; });
    it = tabs_.erase(it);
  }
  for (auto it = windows_.begin(); it != windows_.end();) {
    auto w = it->second.lock();
    if (w && !w->isClosed()) {
      ++it;
      continue;
    }
    lastToolbar_.erase(it->first);
    std::erase_if(handles_, [&](const auto& entry) { return entry.second == it->first; });
    it = windows_.erase(it);
  }
  const auto popover = context_.get<Popover>()->state();
  if (!(popover == lastPopover_)) {
    lastPopover_ = popover;
    events_("popover", popoverState());
  }
}

namespace {

// Whether a page has loaded and, when it uses one, has its bridge: asks to
// it are no longer lost from then on.
constexpr const char* kLoadedProbe =
    "document.readyState === 'complete' && typeof window.WKWebViewBridge === 'object'";

}  // namespace

void HostSession::probe(const std::shared_ptr<WebView>& view, std::shared_ptr<Probe> state) {
  if (!view || state->inFlight || Clock::now() < state->next) return;
  state->inFlight = true;
  state->next = Clock::now() + kPingInterval;
  webkit::evaluateInWebView(view, kLoadedProbe, [state](std::expected<AnyValue, std::string> loaded) {
    state->inFlight = false;
    if (loaded && loaded->is_bool() && loaded->as_bool()) state->loaded = true;
  });
}

void HostSession::checkReadiness() {
  if (ready_) return;
  probe(backgroundWebView(), backgroundProbe_);
  if (!backgroundProbe_->loaded) return;
  ready_ = true;
  // "ready" once the pages asked for have loaded (or failed to), so that
  // the first requests find them with their content scripts.
  auto opening = openPendingURLs();
  auto left = std::make_shared<std::size_t>(opening.size());
  auto announce = [this] {
    announced_ = true;
    events_("ready", Dictionary{});
  };
  if (opening.empty()) return announce();
  for (const auto& tab : opening) {
    whenLoaded(tab, [left, announce](Result) {
      if (--*left == 0) announce();
    });
  }
}

std::vector<std::string> HostSession::openPendingURLs() {
  std::vector<std::string> opening;
  auto window = browser_->activeWindow();
  if (!window) return opening;
  auto first = window->activeTab();
  for (std::size_t i = 0; i < pendingURLs_.size(); ++i) {
    const std::string& url = pendingURLs_[i];
    std::shared_ptr<webkit::WebKitTab> tab;
    if (i == 0 && first) {
      first->navigateToURL(url);
      tab = first;
    } else {
      tab = window->openTab(url, false);
    }
    if (tab) {
      opening.push_back(handleOf(tab));
    } else {
      events_("log", Dictionary{{"line", std::string("appex: cannot open ").append(url)}});
    }
  }
  pendingURLs_.clear();
  return opening;
}

void HostSession::whenPopupLoaded(std::move_only_function<void()> then, std::move_only_function<void()> expired) {
  popupWebView();
  auto popup = std::make_shared<Probe>();
  waiting_.push_back({[this, popup] {
                        probe(popupWebView(), popup);
                        return popup->loaded;
                      },
                      std::move(then), Clock::now() + kLoadPatience, std::move(expired)});
}

void HostSession::runWaiting() {
  const auto now = Clock::now();
  // What runs may add waiting work of its own.
  std::vector<Waiting> all = std::exchange(waiting_, {});
  std::vector<Waiting> due;
  std::vector<Waiting> expired;
  for (auto& w : all) {
    if (w.due()) {
      due.push_back(std::move(w));
    } else if (now >= w.deadline) {
      expired.push_back(std::move(w));
    } else {
      waiting_.push_back(std::move(w));
    }
  }
  for (auto& w : expired) {
    if (w.expire) w.expire();
  }
  for (auto& w : due) w.run();
}

void HostSession::tick() {
  reconcile();
  checkReadiness();
  runWaiting();
}

namespace {

Result snapshotResult(const std::string& path, std::expected<webkit::PixelSize, std::string> size) {
  if (!size) return failure("snapshot failed: " + size.error());
  return success(Dictionary{{"path", path}, {"width", size->width}, {"height", size->height}});
}

}  // namespace

void HostSession::snapshotToolbar(const std::shared_ptr<webkit::WebKitWindow>& window, int scale,
                                  const std::string& path, ResultCallback reply) {
  if (!window) return reply(failure("snapshot of toolbar: no window is open"));
  webkit::snapshotToolbarItem(*window->toolbarItem(), scale, path,
                              [reply = std::move(reply), path](auto size) mutable {
                                reply(snapshotResult(path, std::move(size)));
                              });
}

void HostSession::snapshot(const std::string& what, const std::string& path, ResultCallback reply) {
  if (what == "toolbar") return snapshotToolbar(browser_->activeWindow(), 2, path, std::move(reply));
  auto shared = std::make_shared<ResultCallback>(std::move(reply));
  auto written = [shared, path](std::expected<webkit::PixelSize, std::string> size) {
    (*shared)(snapshotResult(path, std::move(size)));
  };
  const auto deadline = Clock::now() + kLoadPatience;
  auto expire = [shared, what] { (*shared)(failure("snapshot of " + what + ": it never finished loading")); };

  if (what == "background") {
    waiting_.push_back({[this] { return ready_; },
                        [this, path, written]() mutable {
                          webkit::snapshotWebView(backgroundWebView(), path, std::move(written));
                        },
                        deadline, expire});
    return;
  }
  if (what == "popover") {
    if (!context_.get<Popover>()->state().shown) {
      auto w = browser_->activeWindow();
      if (!w) return (*shared)(failure("snapshot of popover: no window to open it in"));
      w->clickToolbarItem();
    }
    // Shown, and the popup page has loaded with its bridge.
    auto popup = std::make_shared<Probe>();
    waiting_.push_back({[this, popup] {
                          if (!context_.get<Popover>()->state().shown) return false;
                          probe(popupWebView(), popup);
                          return popup->loaded;
                        },
                        [this, path, written]() mutable {
                          // A few turns more, so the page's own start-up has
                          // painted.
                          engine_.runFor(std::chrono::milliseconds(400));
                          browser_->snapshotPopover(path, std::move(written));
                        },
                        deadline, expire});
    return;
  }
  if (!tabs_.contains(what)) return (*shared)(failure("snapshot: no tab " + what));
  waiting_.push_back({[this, what] {
                        auto t = tab(what);
                        return !t || !t->isLoading();
                      },
                      [this, what, path, written]() mutable {
                        auto t = tab(what);
                        if (!t) return written(std::unexpected(std::string("the tab closed")));
                        t->snapshot(path, std::move(written));
                      },
                      deadline, expire});
}

}  // namespace appex
