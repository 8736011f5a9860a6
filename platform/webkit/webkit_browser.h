// WebKitBrowser: the browser the extension runs in, on WebKitGTK: windows
// of tabs whose pages are real web pages, the extension's content scripts
// and style sheets injected into them, its toolbar button with the popover,
// and its bundle served under a base URI. It implements the browser
// interfaces of platform/ (SFSafariApplication and SFSafariExtension here;
// windows, tabs, pages and toolbar items in the neighbouring headers) and
// delivers the browser's calls to the extension through ExtensionCallbacks.
//
// The extension's side, per the bundle's Info.plist (content_rules.h):
// - content scripts run in every frame of matching web pages, at document
//   start, in an isolated script world that the page's own scripts cannot
//   see, with `safari.extension.dispatchMessage`, `safari.extension.baseURI`
//   and `safari.self.addEventListener("message", ...)`; style sheets apply
//   to the same frames. A page (SFSafariPage) is a tab's top document with
//   all its frames: a message to it reaches the scripts of every frame.
// - the bundle's Contents/Resources/ is served read-only under
//   "appex-extension://<bundle identifier>/" (the base URI).
// - the toolbar item is validated when a window or tab becomes active, when
//   a tab commits a navigation and after setToolbarItemsNeedUpdate (one
//   validation per window however many were asked for at once). A click
//   shows the popover (popoverWillShow, then the popup's web view at its
//   preferred size, through the Context's Popover) or, for a "Command" item,
//   reports toolbarItemClicked. The popover closes, as the browser's does,
//   when another window becomes active, when its window's active tab
//   changes, on a click outside it and on Escape.
//
// Tab pages live in a web context of their own, so the background and
// popup pages (made by Engine::createWebView) never get content scripts.
// Website data is kept in memory unless Options::dataDirectory is given.
// Private windows share one session of their own, in memory: their tabs
// see each other's cookies and storage, other tabs do not, and it ends
// when the last private window closes.
//
// Make it on the engine's main thread after Engine::start. Every object of
// the browser keeps its state on that thread: calls from other threads hop
// there through the main queue, and completions run there, never under a
// lock. The host controls below are for the main thread only. Call
// shutdown() (main thread) before the Context it was made with ends.
#pragma once

#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/popup_controller.h"
#include "platform/safari_application.h"
#include "platform/safari_extension.h"
#include "platform/webkit/engine.h"
#include "platform/webkit/snapshot.h"

namespace appex {
class Context;
class ExtensionCallbacks;
}  // namespace appex

namespace appex::webkit {

class WebKitTab;
class WebKitWindow;

class WebKitBrowser final : public SFSafariApplication,
                            public SFSafariExtension,
                            public std::enable_shared_from_this<WebKitBrowser> {
 public:
  struct Options {
    // The folder holding the web-process module; empty: the environment's
    // APPEX_WEB_EXTENSIONS_DIR, else the folder the build put it in.
    std::string webExtensionsDirectory;
    // Where websites' data (cookies, storage, caches) is kept; empty: in
    // memory only.
    std::string dataDirectory;
    // Windows as offscreen windows: everything works, nothing is on screen.
    bool offscreenWindows = false;
  };

  // The URI scheme of the base URI.
  static constexpr const char* kScheme = "appex-extension";

  // Reads the content rules from the Context's Bundle and sets up the tab
  // web context. Fails (with the reason) when the engine cannot start or
  // the web-process module is missing.
  static std::expected<std::shared_ptr<WebKitBrowser>, std::string> create(Context& context,
                                                                           Options options);
  static std::expected<std::shared_ptr<WebKitBrowser>, std::string> create(Context& context) {
    return create(context, Options());
  }
  ~WebKitBrowser() override;

  // Installs this browser as the Context's SFSafariApplication and
  // SFSafariExtension.
  void install(Context& context);
  // Where the browser's calls go; none are made until this is set.
  void setCallbacks(std::shared_ptr<ExtensionCallbacks> callbacks);

  // SFSafariApplication.
  void getActiveWindow(WindowCompletion completion) override;
  void getAllWindows(WindowsCompletion completion) override;
  void openWindowWithURL(const std::string& url, WindowCompletion completion) override;
  void setToolbarItemsNeedUpdate() override;

  // SFSafariExtension.
  void getBaseURI(BaseURICompletion completion) override;

  // "appex-extension://<bundle identifier>/". Any thread.
  const std::string& baseURI() const;

  // Host controls (main thread).

  // Opens a window with one tab at `url` and makes it the active window;
  // nullptr when the URL is not one a tab loads (http, https, file, about
  // and the base URI's scheme).
  std::shared_ptr<WebKitWindow> openWindow(const std::string& url, bool isPrivate = false);
  std::vector<std::shared_ptr<WebKitWindow>> windows() const;
  std::shared_ptr<WebKitWindow> activeWindow() const;
  // Makes an open window the active one.
  void focus(const std::shared_ptr<WebKitWindow>& window);

  // The window whose popover is shown, or nullptr.
  std::shared_ptr<WebKitWindow> popoverWindow() const;
  // The size the popover's web view has been given on screen (0 x 0 when
  // hidden).
  PixelSize popoverViewSize() const;
  // A click in `window` (nullptr: the popover's own window) outside the
  // shown popover, as the user makes one: the popover closes and `window`
  // becomes the active window. False when no popover is shown.
  bool clickOutsidePopover(const std::shared_ptr<WebKitWindow>& window);
  // Writes what the shown popover displays to a PNG file.
  void snapshotPopover(std::string pngPath, SnapshotCompletion completion);

  // Receives the console messages of the content scripts in every tab, with
  // the tab (the pages' own scripts are not reported); an empty observer
  // drops them. Replaces the previous observer.
  using ConsoleObserver =
      std::function<void(const std::shared_ptr<WebKitTab>& tab, const ConsoleMessage& message)>;
  void setConsoleObserver(ConsoleObserver observer);

  // Reads the content scripts and style sheets from the bundle again (the
  // declarations stay those read at start), puts them in every tab and
  // reloads the tabs, so that edited files take effect.
  void reloadContent();

  // The syntax errors of the bundle's content scripts, as uncaught errors
  // whose source is the script's path in the bundle's resources.
  const std::vector<ConsoleMessage>& contentScriptErrors() const;

  // How a tab's page load ended: the URL it ended at, the page's title and,
  // when it failed (no connection, no such host, an HTTP error status for
  // the document itself), why. A load stopped by another one starting, or
  // by the tab closing, ends in neither way and is not reported.
  // Observers also hear of each load's commit (`committed`, no error): the
  // tab's previous document is gone from then on.
  struct LoadOutcome {
    bool committed = false;
    std::string url;
    std::optional<std::string> title;
    std::optional<std::string> error;
  };
  // Receives every tab's load outcomes (main thread); an empty observer
  // drops them. Replaces the previous observer.
  using LoadObserver = std::function<void(const std::shared_ptr<WebKitTab>& tab, const LoadOutcome& outcome)>;
  void setLoadObserver(LoadObserver observer);

  // Stops calling the callbacks and the console observer, hides the popover
  // and closes every window.
  void shutdown();

  // The state behind the object (browser_internals.h), for platform/webkit.
  struct Impl;
  explicit WebKitBrowser(std::unique_ptr<Impl> impl);
  Impl& internals() const { return *impl_; }

 private:
  const std::unique_ptr<Impl> impl_;
};

// True for the URLs a tab loads.
bool isLoadableURL(const std::string& url);

}  // namespace appex::webkit
