#include "platform/webkit/webkit_browser.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "core/context.h"
#include "core/log.h"
#include "core/main_queue.h"
#include "platform/bundle.h"
#include "platform/webkit/browser_internals.h"
#include "platform/webkit/console_hook.h"
#include "platform/webkit/engine.h"
#include "platform/webkit/gtk_web_view.h"
#include "platform/webkit/main_thread.h"

#ifndef APPEX_WEB_EXTENSIONS_DIR
#define APPEX_WEB_EXTENSIONS_DIR ""
#endif

namespace appex::webkit {
namespace {

std::string webExtensionsDirectory(const WebKitBrowser::Options& options) {
  if (!options.webExtensionsDirectory.empty()) return options.webExtensionsDirectory;
  if (const char* fromEnvironment = std::getenv("APPEX_WEB_EXTENSIONS_DIR"); fromEnvironment && *fromEnvironment) {
    return fromEnvironment;
  }
  return APPEX_WEB_EXTENSIONS_DIR;
}

bool holdsModule(const std::string& folder) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    if (entry.path().extension() == ".so") return true;
  }
  return false;
}

gboolean onPopoverKey(GtkWidget*, GdkEventKey* event, gpointer data) {
  if (event->keyval != GDK_KEY_Escape) return FALSE;
  static_cast<WebKitBrowser::Impl*>(data)->context.get<Popover>()->dismiss();
  return TRUE;
}

// While the popover is shown it holds the grab: a click anywhere else in the
// browser's windows comes here first, and closes it.
gboolean onPopoverButtonPress(GtkWidget* popoverWindow, GdkEventButton* event, gpointer data) {
  if (gdk_window_get_toplevel(event->window) == gtk_widget_get_window(popoverWindow)) return FALSE;
  static_cast<WebKitBrowser::Impl*>(data)->context.get<Popover>()->dismiss();
  return TRUE;
}

// A content script's console message, from the tab's web process: to the
// console observer, with the tab whose view it came from.
gboolean onConsoleMessage(WebKitWebView* view, WebKitUserMessage* message, gpointer data) {
  if (std::strcmp(webkit_user_message_get_name(message), kConsoleMessageName) != 0) return FALSE;
  GVariant* parameters = webkit_user_message_get_parameters(message);
  auto browser = static_cast<std::weak_ptr<WebKitBrowser>*>(data)->lock();
  if (!browser || !parameters || !g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ss)"))) return TRUE;
  auto& impl = browser->internals();
  if (impl.shutDown || !impl.consoleObserver) return TRUE;
  const char* level = nullptr;
  const char* text = nullptr;
  g_variant_get(parameters, "(&s&s)", &level, &text);
  for (const auto& window : impl.windows) {
    for (const auto& tab : window->internals().tabs) {
      if (tab->isClosed() || tab->internals().view != view) continue;
      auto observer = impl.consoleObserver;  // it may replace itself
      observer(tab, consoleMessage(level, text));
      return TRUE;
    }
  }
  return TRUE;
}

// The syntax errors of the content scripts, found before any page runs
// them: the engine withholds the details of a user script's errors from the
// pages it runs in.
std::vector<ConsoleMessage> syntaxErrors(const std::vector<ContentRules::File>& scripts,
                                         const std::string& resources) {
  std::vector<ConsoleMessage> errors;
  // One context for the process, never destroyed: tearing down a JSC
  // virtual machine is slow, and trips the sanitizers' type checks inside
  // the engine's library.
  static JSCContext* const context = jsc_context_new();
  for (const auto& script : scripts) {
    const std::string name =
        script.path.starts_with(resources) ? script.path.substr(resources.size()) : script.path;
    JSCException* exception = nullptr;
    if (jsc_context_check_syntax(context, script.text.c_str(), static_cast<gssize>(script.text.size()),
                                 JSC_CHECK_SYNTAX_MODE_SCRIPT, name.c_str(), 1,
                                 &exception) == JSC_CHECK_SYNTAX_RESULT_SUCCESS ||
        !exception) {
      if (exception) g_object_unref(exception);
      continue;
    }
    ConsoleMessage error{"error", {}, true, name};
    const char* type = jsc_exception_get_name(exception);
    const char* message = jsc_exception_get_message(exception);
    error.text = std::string(type ? type : "SyntaxError") + ": " + (message ? message : "");
    error.line = jsc_exception_get_line_number(exception);
    error.column = jsc_exception_get_column_number(exception);
    errors.push_back(std::move(error));
    g_object_unref(exception);
  }
  return errors;
}

}  // namespace

bool isLoadableURL(const std::string& url) {
  const auto colon = url.find(':');
  if (colon == std::string::npos || colon == 0) return false;
  std::string scheme = url.substr(0, colon);
  std::transform(scheme.begin(), scheme.end(), scheme.begin(), [](unsigned char c) { return std::tolower(c); });
  return scheme == "http" || scheme == "https" || scheme == "file" || scheme == "about" ||
         scheme == WebKitBrowser::kScheme;
}

// --- Creation ------------------------------------------------------------------

WebKitBrowser::WebKitBrowser(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

std::expected<std::shared_ptr<WebKitBrowser>, std::string> WebKitBrowser::create(Context& context,
                                                                                 Options options) {
  auto engine = Engine::start();
  if (!engine) return std::unexpected(engine.error());
  markMainThread();

  const std::string modules = webExtensionsDirectory(options);
  if (modules.empty() || !holdsModule(modules)) {
    return std::unexpected("the content-script module is not in \"" + modules +
                           "\" (set APPEX_WEB_EXTENSIONS_DIR to its folder)");
  }

  auto bundle = context.get<Bundle>();
  auto impl = std::make_unique<Impl>(context);
  impl->options = options;
  impl->baseURI = std::string(kScheme) + "://" + bundle->bundleIdentifier() + "/";

  WebKitWebsiteDataManager* data =
      options.dataDirectory.empty()
          ? webkit_website_data_manager_new_ephemeral()
          : webkit_website_data_manager_new("base-data-directory", options.dataDirectory.c_str(),
                                            "base-cache-directory",
                                            (options.dataDirectory + "/cache").c_str(), nullptr);
  impl->modulesDirectory = modules;
  impl->bundleIdentifier = bundle->bundleIdentifier();
  impl->resourcesFolder = bundle->path() + "/Contents/Resources";
  impl->webContext = impl->makeTabContext(data);

  impl->installRules(readContentRules(*bundle));
  for (const auto& problem : impl->rules.problems) logLine("Info.plist: " + problem);
  impl->contentScriptErrors = syntaxErrors(impl->rules.scripts, bundle->path() + "/Contents/Resources/");

  auto browser = std::make_shared<WebKitBrowser>(std::move(impl));
  browser->impl_->self = browser;
  std::weak_ptr<WebKitBrowser> weak = browser;
  context.get<Popover>()->setObserver([weak](const Popover::State& state) {
    runOnMainThread([weak, state] {
      if (auto self = weak.lock()) self->impl_->applyPopover(state);
    });
  });
  return browser;
}

WebKitBrowser::~WebKitBrowser() {
  if (!impl_->shutDown && isMainThread()) shutdown();
  for (auto* script : impl_->scripts) webkit_user_script_unref(script);
  for (auto* sheet : impl_->styleSheets) webkit_user_style_sheet_unref(sheet);
  for (WebKitWebContext* webContext : {impl_->webContext, impl_->privateContext}) {
    if (webContext) runOnMainThread([webContext] { g_object_unref(webContext); });
  }
}

void WebKitBrowser::install(Context& context) {
  context.set<SFSafariApplication>(shared_from_this());
  context.set<SFSafariExtension>(shared_from_this());
}

void WebKitBrowser::setCallbacks(std::shared_ptr<ExtensionCallbacks> callbacks) {
  runOnMainThread([self = shared_from_this(), callbacks = std::move(callbacks)]() mutable {
    auto& impl = *self->impl_;
    if (impl.shutDown) return;
    impl.callbacks = std::move(callbacks);
    // Validations asked for before there was anyone to ask.
    for (const auto& window : impl.windows) impl.requestValidation(window);
  });
}

// --- SFSafariApplication, SFSafariExtension ------------------------------------

void WebKitBrowser::getActiveWindow(WindowCompletion completion) {
  runOnMainThread([self = shared_from_this(), completion = std::move(completion)]() mutable {
    completion(self->activeWindow());
  });
}

void WebKitBrowser::getAllWindows(WindowsCompletion completion) {
  runOnMainThread([self = shared_from_this(), completion = std::move(completion)]() mutable {
    std::vector<std::shared_ptr<SFSafariWindow>> windows(self->impl_->windows.begin(),
                                                         self->impl_->windows.end());
    completion(std::move(windows));
  });
}

void WebKitBrowser::openWindowWithURL(const std::string& url, WindowCompletion completion) {
  runOnMainThread([self = shared_from_this(), url, completion = std::move(completion)]() mutable {
    completion(self->openWindow(url));
  });
}

void WebKitBrowser::setToolbarItemsNeedUpdate() {
  runOnMainThread([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    for (const auto& window : self->impl_->windows) self->impl_->requestValidation(window);
  });
}

void WebKitBrowser::setConsoleObserver(ConsoleObserver observer) {
  impl_->consoleObserver = std::move(observer);
}

void WebKitBrowser::setLoadObserver(LoadObserver observer) { impl_->loadObserver = std::move(observer); }

const std::vector<ConsoleMessage>& WebKitBrowser::contentScriptErrors() const { return impl_->contentScriptErrors; }

void WebKitBrowser::getBaseURI(BaseURICompletion completion) { completion(impl_->baseURI); }

const std::string& WebKitBrowser::baseURI() const { return impl_->baseURI; }

// --- Host controls ---------------------------------------------------------------

std::shared_ptr<WebKitWindow> WebKitBrowser::openWindow(const std::string& url, bool isPrivate) {
  if (impl_->shutDown || !isLoadableURL(url)) {
    logLine("browser: not opening a window at " + url);
    return nullptr;
  }
  auto window = impl_->makeWindow(isPrivate);
  window->internals().addTab(url, true);
  impl_->focus(window);
  return window;
}

std::vector<std::shared_ptr<WebKitWindow>> WebKitBrowser::windows() const { return impl_->windows; }

std::shared_ptr<WebKitWindow> WebKitBrowser::activeWindow() const {
  auto window = impl_->activeWindow.lock();
  return window && !window->isClosed() ? window : nullptr;
}

void WebKitBrowser::focus(const std::shared_ptr<WebKitWindow>& window) { impl_->focus(window); }

std::shared_ptr<WebKitWindow> WebKitBrowser::popoverWindow() const {
  if (!impl_->popover.view) return nullptr;
  return impl_->popover.owner.lock();
}

PixelSize WebKitBrowser::popoverViewSize() const {
  const auto& popover = impl_->popover;
  if (!popover.view || !popover.window || !gtk_widget_get_visible(popover.window)) return {};
  return {gtk_widget_get_allocated_width(GTK_WIDGET(popover.view)),
          gtk_widget_get_allocated_height(GTK_WIDGET(popover.view))};
}

bool WebKitBrowser::clickOutsidePopover(const std::shared_ptr<WebKitWindow>& window) {
  auto& impl = *impl_;
  auto owner = impl.popover.owner.lock();
  if (!impl.popoverShown() || !owner) return false;
  auto target = window ? window : owner;
  GtkWidget* toplevel = target->internals().window;
  GdkWindow* surface = toplevel ? gtk_widget_get_window(toplevel) : nullptr;
  if (surface && impl.popover.window && gtk_widget_get_visible(impl.popover.window)) {
    // A press at the window's top-left corner, far from the button the
    // popover hangs from, delivered as the display would deliver it.
    GdkEvent* press = gdk_event_new(GDK_BUTTON_PRESS);
    press->button.window = GDK_WINDOW(g_object_ref(surface));
    press->button.send_event = TRUE;
    press->button.time = GDK_CURRENT_TIME;
    press->button.x = press->button.y = 2;
    press->button.button = 1;
    gdk_event_set_device(press, gdk_seat_get_pointer(gdk_display_get_default_seat(gdk_window_get_display(surface))));
    gtk_main_do_event(press);
    gdk_event_free(press);
  }
  impl.focus(target);
  return true;
}

void WebKitBrowser::snapshotPopover(std::string pngPath, SnapshotCompletion completion) {
  if (!impl_->popover.view) {
    completion(std::unexpected(std::string("the popover is not shown")));
    return;
  }
  snapshotToPNG(impl_->popover.view, std::move(pngPath), std::move(completion));
}

void WebKitBrowser::shutdown() {
  auto& impl = *impl_;
  if (impl.shutDown) return;
  impl.shutDown = true;
  impl.callbacks.reset();
  impl.consoleObserver = nullptr;
  impl.loadObserver = nullptr;
  impl.context.get<Popover>()->setObserver(nullptr);
  impl.hidePopover();
  if (impl.popover.window) {
    g_signal_handlers_disconnect_by_data(impl.popover.window, &impl);
    gtk_widget_destroy(impl.popover.window);
    impl.popover.window = nullptr;
  }
  const auto windows = impl.windows;
  for (const auto& window : windows) window->internals().closeNow();
  for (const auto& opening : std::exchange(impl.openingTabs, {})) {
    WebKitWebView* view = opening.tab->internals().view;
    opening.tab->internals().closeNow();
    gtk_widget_destroy(GTK_WIDGET(view));
    g_object_unref(view);
  }
}

// --- Impl ------------------------------------------------------------------------

WebKitWebContext* WebKitBrowser::Impl::makeTabContext(WebKitWebsiteDataManager* data) {
  WebKitWebContext* context = webkit_web_context_new_with_website_data_manager(data);
  g_object_unref(data);
  webkit_web_context_set_cache_model(context, WEBKIT_CACHE_MODEL_WEB_BROWSER);
  webkit_web_context_set_web_extensions_directory(context, modulesDirectory.c_str());
  webkit_web_context_set_web_extensions_initialization_user_data(
      context, g_variant_new("(ss)", kContentWorldName, baseURI.c_str()));
  registerResourceScheme(context, kScheme, bundleIdentifier, resourcesFolder);
  return context;
}

WebKitWebContext* WebKitBrowser::Impl::contextFor(bool isPrivate) {
  if (!isPrivate) return webContext;
  if (!privateContext) privateContext = makeTabContext(webkit_website_data_manager_new_ephemeral());
  return privateContext;
}

WebKitWebView* WebKitBrowser::Impl::makeTabView(bool isPrivate, WebKitWebView* related) {
  GtkWidget* view = nullptr;
  if (related) {
    view = GTK_WIDGET(g_object_new(WEBKIT_TYPE_WEB_VIEW, "related-view", related, "user-content-manager",
                                   webkit_web_view_get_user_content_manager(related), "settings",
                                   webkit_web_view_get_settings(related), nullptr));
  } else {
    WebKitUserContentManager* content = webkit_user_content_manager_new();
    for (auto* script : scripts) webkit_user_content_manager_add_script(content, script);
    for (auto* sheet : styleSheets) webkit_user_content_manager_add_style_sheet(content, sheet);
    view = GTK_WIDGET(g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", contextFor(isPrivate),
                                   "user-content-manager", content, nullptr));
    g_object_unref(content);
  }
  g_signal_connect_data(view, "user-message-received", G_CALLBACK(&onConsoleMessage),
                        new std::weak_ptr<WebKitBrowser>(self),
                        [](gpointer data, GClosure*) { delete static_cast<std::weak_ptr<WebKitBrowser>*>(data); },
                        GConnectFlags(0));
  if (std::getenv("APPEX_WEBKIT_CONSOLE")) {
    webkit_settings_set_enable_write_console_messages_to_stdout(
        webkit_web_view_get_settings(WEBKIT_WEB_VIEW(view)), TRUE);
  }
  return WEBKIT_WEB_VIEW(view);
}

std::shared_ptr<WebKitWindow> WebKitBrowser::Impl::makeWindow(bool isPrivate) {
  auto state = std::make_unique<WebKitWindow::Impl>();
  state->browser = self;
  state->serial = nextSerial();
  state->isPrivate = isPrivate;
  auto window = std::make_shared<WebKitWindow>(std::move(state));
  auto& w = window->internals();
  w.self = window;
  if (rules.declared.toolbarItem && rules.declared.toolbarItem->label) {
    w.item->setLabel(rules.declared.toolbarItem->label);
  }
  if (rules.toolbarImagePath) w.item->setImage(ToolbarImage{*rules.toolbarImagePath});
  w.build(options.offscreenWindows);
  // Item changes come from any thread; the button is redrawn once per batch.
  std::weak_ptr<WebKitWindow> weak = window;
  w.item->setChangeHandler([weak] {
    runOnMainThread([weak] {
      auto window = weak.lock();
      if (!window || std::exchange(window->internals().buttonRefreshPending, true)) return;
      MainQueue::shared().post([weak] {
        if (auto window = weak.lock()) window->internals().refreshButton();
      });
    });
  });
  windows.push_back(window);
  return window;
}

void WebKitBrowser::Impl::forgetWindow(const WebKitWindow::Impl* window) {
  auto is = [window](const std::shared_ptr<WebKitWindow>& w) { return w && &w->internals() == window; };
  std::erase_if(windows, is);
  // The private session ends with the last private window (its views,
  // destroyed by now, held the context too).
  if (privateContext && std::none_of(windows.begin(), windows.end(), [](const auto& w) { return w->isPrivate(); })) {
    g_object_unref(std::exchange(privateContext, nullptr));
  }
  if (is(popover.owner.lock())) context.get<Popover>()->dismiss();
  auto active = activeWindow.lock();
  if (!active || is(active)) {
    activeWindow.reset();
    if (!windows.empty()) focus(windows.back());
  }
}

void WebKitBrowser::Impl::focus(const std::shared_ptr<WebKitWindow>& window, bool closesPopover) {
  if (!window || window->internals().closed) return;
  if (std::find(windows.begin(), windows.end(), window) == windows.end()) return;
  if (closesPopover && popoverShown() && popover.owner.lock() != window) context.get<Popover>()->dismiss();
  activeWindow = window;
  requestValidation(window);
}

void WebKitBrowser::Impl::requestValidation(const std::shared_ptr<WebKitWindow>& window) {
  auto& w = window->internals();
  if (shutDown || w.closed || w.validationPending || !callbacks) return;
  w.validationPending = true;
  MainQueue::shared().post([browser = self, weakWindow = std::weak_ptr<WebKitWindow>(window)] {
    auto self = browser.lock();
    auto window = weakWindow.lock();
    if (!self || !window) return;
    window->internals().validationPending = false;
    auto& impl = *self->impl_;
    if (impl.shutDown || window->internals().closed || !impl.callbacks) return;
    auto callbacks = impl.callbacks;
    callbacks->validateToolbarItem(window, [item = window->toolbarItem()](bool enabled, std::string badge) {
      item->setEnabled(enabled);
      item->setBadgeText(badge.empty() ? std::nullopt : std::optional<std::string>(std::move(badge)));
    });
  });
}

void WebKitBrowser::Impl::toolbarButtonClicked(const std::shared_ptr<WebKitWindow>& window) {
  if (shutDown || !callbacks || window->internals().closed || !window->internals().item->isEnabled()) return;
  auto keep = callbacks;
  if (!rules.declared.toolbarShowsPopover()) {
    keep->toolbarItemClicked(window);
    return;
  }
  auto popoverState = context.get<Popover>();
  if (popoverState->state().shown) {
    const bool sameWindow = popover.owner.lock() == window;
    popoverState->dismiss();
    if (sameWindow) return;  // a second click closes it
  }
  keep->popoverWillShow(window);
  auto content = keep->popoverContent();
  if (!dynamic_cast<GtkWebView*>(content.webView.get())) {
    logLine("browser: the popover has no web view of the engine to show");
    return;
  }
  popover.owner = window;
  popover.content = content.webView;
  popoverState->show(content.preferredSize);
}

void WebKitBrowser::Impl::applyPopover(const Popover::State& state) {
  if (!state.shown) {
    hidePopover();
    return;
  }
  auto owner = popover.owner.lock();
  auto content = popover.content.lock();
  auto* engineView = dynamic_cast<GtkWebView*>(content.get());
  if (shutDown || !owner || owner->internals().closed || !engineView) {
    hidePopover();
    return;
  }
  const bool offscreen = options.offscreenWindows;
  if (!popover.window) {
    popover.window = offscreen ? gtk_offscreen_window_new() : gtk_window_new(GTK_WINDOW_TOPLEVEL);
    if (!offscreen) {
      gtk_window_set_decorated(GTK_WINDOW(popover.window), FALSE);
      gtk_window_set_type_hint(GTK_WINDOW(popover.window), GDK_WINDOW_TYPE_HINT_POPUP_MENU);
      gtk_window_set_skip_taskbar_hint(GTK_WINDOW(popover.window), TRUE);
    }
    g_signal_connect(popover.window, "key-press-event", G_CALLBACK(&onPopoverKey), this);
    g_signal_connect(popover.window, "button-press-event", G_CALLBACK(&onPopoverButtonPress), this);
  }
  WebKitWebView* view = engineView->webkitWebView();
  if (popover.view != view) {
    if (popover.view) hidePopover();
    popover.owner = owner;
    popover.content = content;
    GtkWidget* widget = GTK_WIDGET(view);
    GtkWidget* home = gtk_widget_get_parent(widget);
    g_object_ref(widget);
    if (home) gtk_container_remove(GTK_CONTAINER(home), widget);
    gtk_container_add(GTK_CONTAINER(popover.window), widget);
    g_object_unref(widget);
    popover.view = view;
    popover.home = home;
  }
  const int width = std::max(1, static_cast<int>(std::lround(state.size.width)));
  const int height = std::max(1, static_cast<int>(std::lround(state.size.height)));
  gtk_widget_set_size_request(GTK_WIDGET(view), width, height);
  gtk_window_resize(GTK_WINDOW(popover.window), width, height);
  if (!offscreen && owner->internals().window) {
    gtk_window_set_transient_for(GTK_WINDOW(popover.window), GTK_WINDOW(owner->internals().window));
    // Under the toolbar button, its right edge on the button's.
    gint x = 0;
    gint y = 0;
    GtkWidget* button = owner->internals().button;
    GdkWindow* buttonWindow = gtk_widget_get_window(button);
    if (buttonWindow) {
      GtkAllocation allocation;
      gtk_widget_get_allocation(button, &allocation);
      gdk_window_get_origin(buttonWindow, &x, &y);
      x += allocation.x + allocation.width - width;
      y += allocation.y + allocation.height;
      gtk_window_move(GTK_WINDOW(popover.window), std::max(0, x), std::max(0, y));
    }
  }
  gtk_widget_show_all(popover.window);
  if (!gtk_widget_has_grab(popover.window)) gtk_grab_add(popover.window);
}

void WebKitBrowser::Impl::hidePopover() {
  if (popover.view) {
    GtkWidget* widget = GTK_WIDGET(popover.view);
    const bool ownerAlive = !popover.content.expired();
    g_object_ref(widget);
    gtk_container_remove(GTK_CONTAINER(popover.window), widget);
    if (ownerAlive && popover.home) {
      gtk_widget_set_size_request(widget, -1, -1);
      gtk_container_add(GTK_CONTAINER(popover.home), widget);
      // Off screen, as in the browser: the page is hidden until shown again.
      gtk_widget_hide(widget);
    }
    g_object_unref(widget);  // the last reference when its owner is gone
    popover.view = nullptr;
    popover.home = nullptr;
  }
  if (popover.window) {
    if (gtk_widget_has_grab(popover.window)) gtk_grab_remove(popover.window);
    gtk_widget_hide(popover.window);
  }
  popover.owner.reset();
  popover.content.reset();
}

bool WebKitBrowser::Impl::popoverShown() const { return popover.view && context.get<Popover>()->state().shown; }

void WebKitBrowser::Impl::closePopoverFor(const WebKitWindow::Impl* window) {
  auto owner = popover.owner.lock();
  if (popoverShown() && owner && &owner->internals() == window) context.get<Popover>()->dismiss();
}

}  // namespace appex::webkit
