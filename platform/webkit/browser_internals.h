// The state behind the WebKit browser's objects, with the GTK and WebKit
// types the public headers keep out. Private to platform/webkit.
//
// Everything here is main thread only.
#pragma once

#include <webkit2/webkit2.h>

#include <cstdint>
#include <map>
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
inline constexpr const char* kFrameGoneMessageName = "appex.content.frame-gone";

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
  // The private windows' tab context: one session for all of them, in
  // memory, made with the first private window and let go with the last.
  WebKitWebContext* privateContext = nullptr;
  std::string modulesDirectory;
  std::string bundleIdentifier;
  std::string resourcesFolder;
  std::vector<WebKitUserScript*> scripts;
  std::vector<WebKitUserStyleSheet*> styleSheets;
  std::shared_ptr<ExtensionCallbacks> callbacks;
  ConsoleObserver consoleObserver;
  LoadObserver loadObserver;
  std::vector<ConsoleMessage> contentScriptErrors;
  std::vector<std::shared_ptr<WebKitWindow>> windows;
  // Tabs a page opened whose engine has not yet said where to show them.
  struct OpeningTab {
    std::shared_ptr<WebKitTab> tab;
    bool fromLink = false;  // a link's target, not window.open
    PixelSize openerSize;   // of the opener's window, when it was opened
  };
  std::vector<OpeningTab> openingTabs;
  std::weak_ptr<WebKitWindow> activeWindow;
  PopoverHost popover;
  bool shutDown = false;
  std::uint64_t serial = 0;

  // Makes `scripts` and `styleSheets` from `rules` (content_reload.cpp),
  // letting go of the previous ones; tabs made later get them.
  void installRules(ContentRules rules);
  // A tab context over `data` (taken), with the web-process module and the
  // base URI scheme.
  WebKitWebContext* makeTabContext(WebKitWebsiteDataManager* data);
  WebKitWebContext* contextFor(bool isPrivate);
  // A web view for a tab: the tab context (the private one for private
  // windows), the content scripts and style sheets. With `related`, the view a page
  // opens from `related`'s page (window.open, target=_blank): same context,
  // session, scripts and style sheets as `related`.
  WebKitWebView* makeTabView(bool isPrivate, WebKitWebView* related = nullptr);
  std::shared_ptr<WebKitWindow> makeWindow(bool isPrivate);
  void forgetWindow(const WebKitWindow::Impl* window);
  // A page of `opener` opens a new browsing context: a new tab's view, kept
  // aside until the engine is ready to show it; then a tab of the opener's
  // window, made active, or a window of its own when window.open asked for
  // a popup-style window (a size among its features).
  WebKitWebView* openFromPage(const std::shared_ptr<WebKitTab>& opener, WebKitNavigationAction* action);
  void showOpened(OpeningTab opening);
  // Makes `window` the active window; unless told otherwise, that closes a
  // popover shown in another window.
  void focus(const std::shared_ptr<WebKitWindow>& window, bool closesPopover = true);
  // Asks for one validation of the window's toolbar item, soon.
  void requestValidation(const std::shared_ptr<WebKitWindow>& window);
  // The toolbar button of `window` was clicked.
  void toolbarButtonClicked(const std::shared_ptr<WebKitWindow>& window);
  // Follows the Context's Popover.
  void applyPopover(const Popover::State& state);
  void hidePopover();
  // The popover closes when anything but it takes the user's attention:
  // another window becomes active, the active tab of its window changes, a
  // click lands outside it.
  void closePopoverFor(const WebKitWindow::Impl* window);
  bool popoverShown() const;
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
  GtkWidget* buttonFace = nullptr;  // draws the item (toolbar_face.h)
  // The item's icon as last rendered for the button, with its file and
  // scale.
  cairo_surface_t* buttonIcon = nullptr;
  std::string buttonIconPath;
  int buttonIconScale = 0;

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
  // Puts a made tab (of this window) into the notebook.
  void insertTab(const std::shared_ptr<WebKitTab>& tab, bool makeActive);
  // Shows `tab` (one of ours) as the active tab.
  void setActive(const std::shared_ptr<WebKitTab>& tab);
  // Takes a closing tab and its view out; picks the next active tab.
  void detach(const WebKitTab* tab, GtkWidget* view);
  void closeNow();
  // Redraws the toolbar button from the item (posted on change).
  void refreshButton();
  // The rendered icon for the button's scale, re-rendered when the item's
  // image or the scale changed; nullptr without one.
  cairo_surface_t* iconForButton();
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
  // One page per subframe that has posted a message, by WebKit frame id;
  // each stays until its frame is gone or the tab closes.
  std::map<std::uint64_t, std::shared_ptr<WebKitPage>> framePages;
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
  // nothing yet; `view` (made by makeTabView, owned from then on by the
  // tab's window) when the engine made the view.
  static std::shared_ptr<WebKitTab> make(const std::shared_ptr<WebKitWindow>& window,
                                         WebKitBrowser::Impl& browser, WebKitWebView* view = nullptr);
  void load(const std::string& url);
  // Closes the page and lets go of the view's signals; the window removes
  // the view itself.
  void closeNow();
  std::optional<SFSafariPageProperties> properties() const;
};

}  // namespace appex::webkit
