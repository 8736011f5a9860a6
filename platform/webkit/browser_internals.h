// The state behind the WebKit browser's objects, with the GTK and WebKit
// types the public headers keep out. Private to platform/webkit.
//
// Everything here is main thread only.
#pragma once

#include <webkit2/webkit2.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/extension_callbacks.h"
#include "platform/popover.h"
#include "platform/webkit/content_rules.h"
#include "platform/webkit/snapshot.h"
#include "platform/webkit/webkit_browser.h"
#include "platform/webkit/webkit_tab.h"
#include "platform/webkit/webkit_toolbar_item.h"
#include "platform/webkit/webkit_window.h"

namespace appex::webkit {

// The name of the script world the content scripts run in.
inline constexpr const char* kContentWorldName = "appex-content-scripts";
// User messages between the tab web views and the web-process module.
inline constexpr const char* kPostMessageName = "appex.content.post";
inline constexpr const char* kDeliverMessageName = "appex.content.deliver";

// Writes the visible part of `view` to a PNG file.
void snapshotToPNG(WebKitWebView* view, std::string pngPath, SnapshotCompletion completion);

// Serves `resourcesFolder` under `scheme`://`host`/ in `context`.
void registerResourceScheme(WebKitWebContext* context, const std::string& scheme, const std::string& host,
                            const std::string& resourcesFolder);

// The popup's web view shown on screen, borrowed from its own window.
struct PopoverHost {
  GtkWidget* window = nullptr;
  std::weak_ptr<WebKitWindow> owner;
  std::weak_ptr<WebView> content;  // keeps `view`'s owner observable
  WebKitWebView* view = nullptr;
  GtkWidget* home = nullptr;  // the container `view` came from
};

struct WebKitBrowser::Impl {
  explicit Impl(Context& context) : context(context) {}

  Context& context;
  std::weak_ptr<WebKitBrowser> self;
  Options options;
  ContentRules rules;
  std::string baseURI;
  WebKitWebContext* webContext = nullptr;
  std::vector<WebKitUserScript*> scripts;
  std::vector<WebKitUserStyleSheet*> styleSheets;
  std::shared_ptr<ExtensionCallbacks> callbacks;
  ConsoleObserver consoleObserver;
  LoadObserver loadObserver;
  std::vector<ConsoleMessage> contentScriptErrors;
  std::vector<std::shared_ptr<WebKitWindow>> windows;
  std::weak_ptr<WebKitWindow> activeWindow;
  PopoverHost popover;
  bool shutDown = false;
  std::uint64_t serial = 0;

  // A web view for a tab: the tab context, the content scripts and style
  // sheets, ephemeral for private windows.
  WebKitWebView* makeTabView(bool isPrivate);
  std::shared_ptr<WebKitWindow> makeWindow(bool isPrivate);
  void forgetWindow(const WebKitWindow::Impl* window);
  void focus(const std::shared_ptr<WebKitWindow>& window);
  // Asks for one validation of the window's toolbar item, soon.
  void requestValidation(const std::shared_ptr<WebKitWindow>& window);
  // The toolbar button of `window` was clicked.
  void toolbarButtonClicked(const std::shared_ptr<WebKitWindow>& window);
  // Follows the Context's Popover.
  void applyPopover(const Popover::State& state);
  void hidePopover();
  std::uint64_t nextSerial() { return ++serial; }
};

struct WebKitWindow::Impl {
  std::weak_ptr<WebKitWindow> self;
  std::weak_ptr<WebKitBrowser> browser;
  std::uint64_t serial = 0;
  bool isPrivate = false;
  std::shared_ptr<WebKitToolbarItem> item = std::make_shared<WebKitToolbarItem>();

  GtkWidget* window = nullptr;
  GtkWidget* notebook = nullptr;
  GtkWidget* location = nullptr;
  GtkWidget* button = nullptr;
  GtkWidget* buttonImage = nullptr;
  GtkWidget* buttonLabel = nullptr;
  GtkWidget* badge = nullptr;

  std::vector<std::shared_ptr<WebKitTab>> tabs;
  std::weak_ptr<WebKitTab> activeTab;
  bool closed = false;
  bool validationPending = false;
  bool buttonRefreshPending = false;
  // Set while tabs are added or removed, when the notebook's page switches
  // are not the user's.
  bool rearranging = false;

  // Builds the GTK window; `offscreen` makes it an offscreen window.
  void build(bool offscreen);
  // Adds a new tab's view to the notebook.
  std::shared_ptr<WebKitTab> addTab(const std::string& url, bool makeActive);
  // Shows `tab` (one of ours) as the active tab.
  void setActive(const std::shared_ptr<WebKitTab>& tab);
  // Takes a closing tab and its view out; picks the next active tab.
  void detach(const WebKitTab* tab, GtkWidget* view);
  void closeNow();
  // Redraws the toolbar button from the item (posted on change).
  void refreshButton();
  void refreshLocation();
};

struct WebKitTab::Impl {
  std::weak_ptr<WebKitTab> self;
  std::weak_ptr<WebKitWindow> window;
  std::weak_ptr<WebKitBrowser> browser;
  std::uint64_t serial = 0;
  bool isPrivate = false;
  WebKitWebView* view = nullptr;
  GtkWidget* label = nullptr;
  std::shared_ptr<WebKitPage> page;
  // The URL asked for, until the engine reports one.
  std::optional<std::string> requestedURL;
  bool closed = false;
  std::vector<gulong> signals;
  // Why the current load failed, once the engine has said so; whether it
  // was stopped rather than failed (not reported).
  std::optional<std::string> loadError;
  bool loadStopped = false;
  // After a failure, the URL whose error page the engine loads next; while
  // that page loads, its end is not reported.
  std::optional<std::string> errorPageFor;
  bool showingErrorPage = false;

  // A new tab of `window` (not yet in its notebook), its view loading
  // nothing yet.
  static std::shared_ptr<WebKitTab> make(const std::shared_ptr<WebKitWindow>& window,
                                         WebKitBrowser::Impl& browser);
  void load(const std::string& url);
  // Closes the page and lets go of the view's signals; the window removes
  // the view itself.
  void closeNow();
  std::optional<SFSafariPageProperties> properties() const;
};

}  // namespace appex::webkit
