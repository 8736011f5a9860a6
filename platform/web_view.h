// WebView: one hosted page, as the bridge and the popup see it.
//
// The interface is the whole of what native code asks of a web engine:
// evaluate script, receive the page's posts through named script-message
// handlers, set a preference, follow page loads, load a file and reload. It
// lets the bridge logic run against a stand-in in unit tests; the WebKitGTK
// implementation lives in platform/webkit/.
//
// Ownership: a web view is held by a std::shared_ptr owned by whoever
// hosts the page; the bridge and the popup hold it weakly. The web view
// owns its script-message handlers (a handler must therefore not keep its
// receiver alive if that receiver should be able to die first) and holds its
// navigation delegate weakly.
//
// Main queue only: every call, every handler and delegate call-back, on the
// main queue.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host/any_value.h"
#include "platform/navigation_delegate.h"

namespace appex {

class WebView {
 public:
  // Receives one posted body, converted as described in
  // platform/script_message_handler.h.
  using ScriptMessageCallback = std::function<void(const AnyValue& body)>;

  virtual ~WebView() = default;

  // Runs `script` in the page's main frame. No completion: its value and
  // any exception it throws are discarded.
  virtual void evaluateScript(std::string script) = 0;

  // Makes window.webkit.messageHandlers.<name> available to the page; each
  // post reaches `handler`. Registering a name again replaces its handler.
  virtual void addScriptMessageHandler(const std::string& name, ScriptMessageCallback handler) = 0;
  // Withdraws the handler (and the page's messageHandlers.<name>). Unknown
  // names are ignored. Safe to call from within that handler.
  virtual void removeScriptMessageHandler(const std::string& name) = 0;

  // Sets a boolean engine preference by its key (e.g.
  // "allowFileAccessFromFileURLs"). Returns false, changing nothing, for a
  // key the engine does not know.
  virtual bool setBoolPreference(const std::string& key, bool value) = 0;

  // Replaces the navigation delegate; held weakly.
  virtual void setNavigationDelegate(std::weak_ptr<NavigationDelegate> delegate) = 0;

  // Loads the file at the absolute `path`, allowing the page to read files
  // under `readAccessFolder`, which must contain `path`. Returns false,
  // loading nothing, if the path is not absolute or lies outside the folder.
  virtual bool loadFileURL(const std::string& path, const std::string& readAccessFolder) = 0;

  // Reloads the current page.
  virtual void reload() = 0;
};

}  // namespace appex
