// GtkWebView: the WebKitGTK implementation of WebView.
//
// Each instance owns a WebKitWebView with its own user-content manager,
// inside an offscreen GTK window so that it lays out and runs its page
// without being shown. Script-message bodies reach handlers as AnyValues
// (through the engine's JSON form of the value); "allowFileAccessFromFileURLs"
// and a few other preference keys map onto the engine's settings.
//
// Make it through Engine::createWebView (GTK must be initialised). File loads
// follow the engine's file-URL policy: with its sandbox off, which is the
// default, the page may read at least the read-access folder.
//
// Main queue only.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/web_view.h"

// The engine's widget type, opaque here (webkit2/webkit2.h defines it).
typedef struct _WebKitWebView WebKitWebView;

namespace appex::webkit {

class GtkWebView final : public WebView {
 public:
  GtkWebView();
  ~GtkWebView() override;
  GtkWebView(const GtkWebView&) = delete;
  GtkWebView& operator=(const GtkWebView&) = delete;

  void evaluateScript(std::string script) override;
  void addScriptMessageHandler(const std::string& name, ScriptMessageCallback handler) override;
  void removeScriptMessageHandler(const std::string& name) override;
  bool setBoolPreference(const std::string& key, bool value) override;
  void setNavigationDelegate(std::weak_ptr<NavigationDelegate> delegate) override;
  bool loadFileURL(const std::string& path, const std::string& readAccessFolder) override;
  void reload() override;

  // Receives the page's console messages: (level, text), as
  // platform/webkit/console_hook.h describes them, uncaught errors
  // included.
  using ConsoleHandler = std::function<void(const std::string& level, const std::string& text)>;
  // Hooks the console of every document this view loads from now on (the
  // hook runs before the document's own scripts) and hands its messages to
  // `handler`. Call it once, before the first load.
  void reportConsole(ConsoleHandler handler);

  // The engine's web view, for the rest of platform/webkit (snapshots, the
  // popover). It lives in this object's offscreen window, which owns it.
  // Code that moves it into another container must move it back before
  // destroying that container; if this object dies first, the view stays
  // where it was moved and its new container disposes of it.
  WebKitWebView* webkitWebView() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace appex::webkit
