#include "platform/webkit/webkit_tab.h"

#include <cstring>
#include <utility>

#include "core/log.h"
#include "host/json.h"
#include "platform/webkit/browser_internals.h"
#include "platform/webkit/main_thread.h"

namespace appex::webkit {
namespace {

using Impl = WebKitTab::Impl;

std::shared_ptr<ExtensionCallbacks> callbacksOf(const Impl& impl) {
  auto browser = impl.browser.lock();
  if (!browser || browser->internals().shutDown) return nullptr;
  return browser->internals().callbacks;
}

// The document's own HTTP status, when it is an error: "HTTP 404".
std::optional<std::string> httpError(WebKitWebView* view) {
  WebKitWebResource* resource = webkit_web_view_get_main_resource(view);
  WebKitURIResponse* response = resource ? webkit_web_resource_get_response(resource) : nullptr;
  const guint status = response ? webkit_uri_response_get_status_code(response) : 0;
  if (status < 400) return std::nullopt;
  return "HTTP " + std::to_string(status);
}

// A finished load, to the browser's load observer.
void reportLoad(WebKitWebView* view, Impl& impl, const std::shared_ptr<WebKitTab>& tab) {
  const bool stopped = std::exchange(impl.loadStopped, false);
  auto error = std::exchange(impl.loadError, std::nullopt);
  if (std::exchange(impl.showingErrorPage, false)) return;  // the engine's page about the last failure
  // A load asked for since has not committed yet: this is an earlier one's
  // end, overtaken.
  if (!error && impl.requestedURL) return;
  auto browser = impl.browser.lock();
  if (stopped || !browser || browser->internals().shutDown || !browser->internals().loadObserver) return;
  if (!error) error = httpError(view);
  auto properties = impl.properties();
  WebKitBrowser::LoadOutcome outcome;
  outcome.url = error && impl.requestedURL ? *impl.requestedURL
                                           : properties && properties->url ? *properties->url : std::string();
  outcome.title = properties ? properties->title : std::nullopt;
  outcome.error = std::move(error);
  auto observer = browser->internals().loadObserver;  // it may replace itself
  observer(tab, outcome);
}

// The engine's reason a load failed. A stop (another load replaced this
// one, or the tab went) is no failure of the page.
gboolean onLoadFailed(WebKitWebView*, WebKitLoadEvent, gchar* uri, GError* error, gpointer data) {
  auto* impl = static_cast<Impl*>(data);
  if (g_error_matches(error, WEBKIT_NETWORK_ERROR, WEBKIT_NETWORK_ERROR_CANCELLED) ||
      g_error_matches(error, WEBKIT_POLICY_ERROR, WEBKIT_POLICY_ERROR_FRAME_LOAD_INTERRUPTED_BY_POLICY_CHANGE)) {
    impl->loadStopped = true;
  } else {
    impl->loadError = error && error->message ? error->message : "the load failed";
    if (uri && *uri) impl->requestedURL = uri;
    // The engine loads its error page at the failed URL next.
    impl->errorPageFor = uri ? std::string(uri) : std::string();
  }
  return FALSE;  // the engine shows its error page
}

void onLoadChanged(WebKitWebView* view, WebKitLoadEvent event, gpointer data) {
  auto* impl = static_cast<Impl*>(data);
  auto tab = impl->self.lock();
  if (!tab || impl->closed) return;
  if (event == WEBKIT_LOAD_FINISHED) {
    reportLoad(view, *impl, tab);
  } else if (event == WEBKIT_LOAD_STARTED) {
    impl->loadStopped = false;
    impl->loadError.reset();
    const char* started = webkit_web_view_get_uri(view);
    impl->showingErrorPage = impl->errorPageFor && started && *impl->errorPageFor == started;
    impl->errorPageFor.reset();
    if (auto callbacks = callbacksOf(*impl)) {
      const char* uri = webkit_web_view_get_uri(view);
      callbacks->pageWillNavigate(impl->page, uri && *uri ? std::optional<std::string>(uri) : std::nullopt);
    }
  } else if (event == WEBKIT_LOAD_COMMITTED) {
    impl->requestedURL.reset();
    auto browser = impl->browser.lock();
    if (browser && !browser->internals().shutDown && browser->internals().loadObserver && !impl->showingErrorPage) {
      const char* uri = webkit_web_view_get_uri(view);
      auto observer = browser->internals().loadObserver;
      observer(tab, WebKitBrowser::LoadOutcome{true, uri ? uri : "", std::nullopt, std::nullopt});
    }
    auto window = impl->window.lock();
    if (window && browser) {
      if (window->activeTab() == tab) window->internals().refreshLocation();
      browser->internals().requestValidation(window);
    }
  }
}

void onTitleChanged(GObject* view, GParamSpec*, gpointer data) {
  auto* impl = static_cast<Impl*>(data);
  const char* title = webkit_web_view_get_title(WEBKIT_WEB_VIEW(view));
  gtk_label_set_text(GTK_LABEL(impl->label), title && *title ? title : "Untitled");
}

// The page of the frame at `address` (0: the top frame), made on first use.
std::shared_ptr<WebKitPage> pageOfFrame(Impl& impl, std::uint64_t address) {
  if (address == 0) return impl.page;
  auto& page = impl.framePages[address];
  if (!page) {
    auto browser = impl.browser.lock();
    const std::uint64_t serial = browser ? browser->internals().nextSerial() : 0;
    page = std::make_shared<WebKitPage>(impl.self, "page#" + std::to_string(serial), address);
  }
  return page;
}

// A content script's safari.extension.dispatchMessage, from one frame; or
// the news that a subframe is gone.
gboolean onUserMessage(WebKitWebView*, WebKitUserMessage* message, gpointer data) {
  auto* impl = static_cast<Impl*>(data);
  const char* kind = webkit_user_message_get_name(message);
  GVariant* parameters = webkit_user_message_get_parameters(message);
  if (std::strcmp(kind, kFrameGoneMessageName) == 0) {
    if (!parameters || !g_variant_is_of_type(parameters, G_VARIANT_TYPE("(t)"))) return TRUE;
    guint64 address = 0;
    g_variant_get(parameters, "(t)", &address);
    if (auto gone = impl->framePages.extract(address)) gone.mapped()->markClosed();
    return TRUE;
  }
  if (std::strcmp(kind, kPostMessageName) != 0) return FALSE;
  if (!parameters || !g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ssts)"))) return TRUE;
  const char* name = nullptr;
  const char* json = nullptr;
  guint64 address = 0;
  const char* frameURL = nullptr;
  g_variant_get(parameters, "(&s&st&s)", &name, &json, &address, &frameURL);
  std::optional<Dictionary> userInfo;
  if (*json) {
    if (auto parsed = JSON::parse(json); parsed && parsed->is_object()) userInfo = std::move(parsed->as_object());
  }
  auto tab = impl->self.lock();
  if (!tab || impl->closed) return TRUE;
  auto page = pageOfFrame(*impl, address);
  if (address != 0) page->setFrameURL(frameURL);
  if (auto callbacks = callbacksOf(*impl)) callbacks->messageReceived(name, page, std::move(userInfo));
  return TRUE;
}

// The page opens a new browsing context (window.open, a link with a target).
GtkWidget* onCreate(WebKitWebView*, WebKitNavigationAction* action, gpointer data) {
  auto* impl = static_cast<Impl*>(data);
  auto tab = impl->self.lock();
  auto browser = impl->browser.lock();
  if (!tab || impl->closed || !browser || browser->internals().shutDown) return nullptr;
  return GTK_WIDGET(browser->internals().openFromPage(tab, action));
}

// Whether the extension's website access admits `url` (no browser: no).
bool admitted(const Impl& impl, const std::string& url) {
  auto browser = impl.browser.lock();
  return browser && browser->internals().rules.admitsURL(url);
}

// The page closed itself (window.close(), where the engine allows it).
void onCloseRequested(WebKitWebView*, gpointer data) {
  if (auto tab = static_cast<Impl*>(data)->self.lock()) tab->close();
}

}  // namespace

WebKitTab::WebKitTab(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

WebKitTab::~WebKitTab() {
  // Open tabs belong to their window, which closes them first.
  if (impl_->view && isMainThread()) {
    for (gulong id : impl_->signals) g_signal_handler_disconnect(impl_->view, id);
  }
}

// --- SFSafariTab -------------------------------------------------------------------

void WebKitTab::getActivePage(PageCompletion completion) {
  runOnMainThread([self = shared_from_this(), completion = std::move(completion)]() mutable {
    completion(self->impl_->closed ? nullptr : self->impl_->page);
  });
}

void WebKitTab::getPages(PagesCompletion completion) {
  runOnMainThread([self = shared_from_this(), completion = std::move(completion)]() mutable {
    std::vector<std::shared_ptr<SFSafariPage>> pages;
    if (!self->impl_->closed) {
      pages.push_back(self->impl_->page);
      for (const auto& [address, page] : self->impl_->framePages) pages.push_back(page);
    }
    completion(std::move(pages));
  });
}

void WebKitTab::getContainingWindow(WindowCompletion completion) {
  runOnMainThread([self = shared_from_this(), completion = std::move(completion)]() mutable {
    completion(self->window());
  });
}

void WebKitTab::navigateToURL(const std::string& url) {
  runOnMainThread([self = shared_from_this(), url] {
    if (self->impl_->closed) return;
    if (!isLoadableURL(url)) {
      logLine("browser: not loading " + url);
      return;
    }
    self->impl_->load(url);
  });
}

void WebKitTab::activate(Done completion) {
  runOnMainThread([self = shared_from_this(), completion = std::move(completion)]() mutable {
    auto window = self->window();
    auto browser = self->impl_->browser.lock();
    if (window && browser) {
      window->internals().setActive(self);
      browser->internals().focus(window);  // validates the window's toolbar item
    }
    completion();
  });
}

void WebKitTab::close() {
  runOnMainThread([self = shared_from_this()] {
    auto& impl = *self->impl_;
    if (impl.closed) return;
    auto window = impl.window.lock();
    GtkWidget* view = GTK_WIDGET(impl.view);
    impl.closeNow();
    if (!window) return;
    window->internals().detach(self.get(), view);
    // A window does not stay open without tabs.
    if (window->internals().tabs.empty()) window->internals().closeNow();
  });
}

bool WebKitTab::isEqual(const SFSafariTab& other) const { return static_cast<const SFSafariTab*>(this) == &other; }

std::string WebKitTab::description() const { return "tab#" + std::to_string(impl_->serial); }

// --- Host controls -------------------------------------------------------------------

std::shared_ptr<WebKitPage> WebKitTab::page() const { return impl_->page; }

std::shared_ptr<WebKitWindow> WebKitTab::window() const {
  return impl_->closed ? nullptr : impl_->window.lock();
}

bool WebKitTab::isClosed() const { return impl_->closed; }

bool WebKitTab::isLoading() const { return impl_->view && webkit_web_view_is_loading(impl_->view); }

void WebKitTab::snapshot(std::string pngPath, SnapshotCompletion completion) {
  if (impl_->closed) {
    completion(std::unexpected(std::string("the tab is closed")));
    return;
  }
  snapshotToPNG(impl_->view, std::move(pngPath), std::move(completion));
}

// --- Impl ----------------------------------------------------------------------------

std::shared_ptr<WebKitTab> Impl::make(const std::shared_ptr<WebKitWindow>& window, WebKitBrowser::Impl& browser,
                                      WebKitWebView* view) {
  auto state = std::make_unique<Impl>();
  state->window = window;
  state->browser = browser.self;
  state->serial = browser.nextSerial();
  state->isPrivate = window->isPrivate();
  state->view = view ? view : browser.makeTabView(state->isPrivate);
  auto tab = std::make_shared<WebKitTab>(std::move(state));
  auto& impl = *tab->impl_;
  impl.self = tab;
  impl.page = std::make_shared<WebKitPage>(tab, "page#" + std::to_string(browser.nextSerial()));
  impl.label = gtk_label_new("New Tab");
  gtk_label_set_ellipsize(GTK_LABEL(impl.label), PANGO_ELLIPSIZE_END);
  gtk_label_set_width_chars(GTK_LABEL(impl.label), 16);
  impl.signals = {
      g_signal_connect(impl.view, "load-changed", G_CALLBACK(&onLoadChanged), &impl),
      g_signal_connect(impl.view, "load-failed", G_CALLBACK(&onLoadFailed), &impl),
      g_signal_connect(impl.view, "notify::title", G_CALLBACK(&onTitleChanged), &impl),
      g_signal_connect(impl.view, "user-message-received", G_CALLBACK(&onUserMessage), &impl),
      g_signal_connect(impl.view, "close", G_CALLBACK(&onCloseRequested), &impl),
      g_signal_connect(impl.view, "create", G_CALLBACK(&onCreate), &impl),
  };
  return tab;
}

void Impl::load(const std::string& url) {
  requestedURL = url;
  webkit_web_view_load_uri(view, url.c_str());
}

void Impl::closeNow() {
  if (closed) return;
  closed = true;
  page->markClosed();
  for (const auto& [address, framePage] : framePages) framePage->markClosed();
  framePages.clear();
  if (view) {
    for (gulong id : signals) g_signal_handler_disconnect(view, id);
    webkit_web_view_stop_loading(view);
  }
  signals.clear();
  view = nullptr;  // the window's notebook disposes of it
}

std::optional<SFSafariPageProperties> Impl::properties() const {
  if (closed || !view) return std::nullopt;
  SFSafariPageProperties properties;
  const char* uri = webkit_web_view_get_uri(view);
  if (uri && *uri) {
    properties.url = uri;
  } else {
    properties.url = requestedURL;
  }
  const char* title = webkit_web_view_get_title(view);
  if (title && *title) properties.title = title;
  properties.usesPrivateBrowsing = isPrivate;
  return properties;
}

// --- WebKitPage ----------------------------------------------------------------------

WebKitPage::WebKitPage(std::weak_ptr<WebKitTab> tab, std::string description, std::uint64_t frameAddress)
    : tab_(std::move(tab)), description_(std::move(description)), frameAddress_(frameAddress) {}

void WebKitPage::getContainingTab(TabCompletion completion) {
  runOnMainThread([self = shared_from_this(), completion = std::move(completion)]() mutable {
    completion(self->tab());
  });
}

void WebKitPage::getPageProperties(PropertiesCompletion completion) {
  runOnMainThread([self = shared_from_this(), completion = std::move(completion)]() mutable {
    auto properties = self->properties();
    auto tab = self->tab();
    if (properties && properties->url && !(tab && admitted(tab->internals(), *properties->url))) {
      properties->url.reset();
      properties->title.reset();
    }
    completion(std::move(properties));
  });
}

void WebKitPage::dispatchMessageToScript(const std::string& name, const Dictionary& userInfo) {
  auto json = JSON::stringify(AnyValue(userInfo));
  if (!json) return;
  runOnMainThread([self = shared_from_this(), name, json = std::move(*json)] {
    auto tab = self->tab();
    if (!tab) return;
    WebKitWebView* view = tab->internals().view;
    if (!view) return;
    GVariant* parameters = g_variant_new("(sst)", name.c_str(), json.c_str(), guint64{self->frameAddress_});
    webkit_web_view_send_message_to_page(view, webkit_user_message_new(kDeliverMessageName, parameters), nullptr,
                                         nullptr, nullptr);
  });
}

bool WebKitPage::isEqual(const SFSafariPage& other) const { return static_cast<const SFSafariPage*>(this) == &other; }

std::string WebKitPage::description() const { return description_; }

std::optional<SFSafariPageProperties> WebKitPage::properties() const {
  auto tab = this->tab();
  if (!tab) return std::nullopt;
  if (frameAddress_ == 0) return tab->internals().properties();
  SFSafariPageProperties properties;
  if (!frameURL_.empty()) properties.url = frameURL_;
  properties.usesPrivateBrowsing = tab->internals().isPrivate;
  return properties;
}

std::shared_ptr<WebKitTab> WebKitPage::tab() const {
  if (closed_) return nullptr;
  auto tab = tab_.lock();
  return tab && !tab->isClosed() ? tab : nullptr;
}

}  // namespace appex::webkit
