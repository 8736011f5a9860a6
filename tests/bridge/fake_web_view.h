// FakeWebView: a WebView that records what the bridge asks of it and lets a
// test post to its script-message handlers as a page would.
//
// Main queue only, like the real one; tests drive MainQueue::shared() with
// runUntilIdle.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/web_view.h"

namespace appex::testing {

class FakeWebView final : public WebView {
 public:
  void evaluateScript(std::string script) override { evaluated.push_back(std::move(script)); }

  void addScriptMessageHandler(const std::string& name, ScriptMessageCallback handler) override {
    handlers[name] = std::move(handler);
  }
  void removeScriptMessageHandler(const std::string& name) override { handlers.erase(name); }

  bool setBoolPreference(const std::string& key, bool value) override {
    preferences[key] = value;
    return true;
  }

  void setNavigationDelegate(std::weak_ptr<NavigationDelegate> d) override { delegate = std::move(d); }

  bool loadFileURL(const std::string& path, const std::string&) override {
    loaded.push_back(path);
    return true;
  }
  void reload() override { ++reloads; }

  // Posts `body` to the handler `name` as the page would; false if the page
  // has no such handler.
  bool postFromPage(const std::string& name, const AnyValue& body) {
    auto it = handlers.find(name);
    if (it == handlers.end()) return false;
    auto handler = it->second;  // the handler may remove itself
    handler(body);
    return true;
  }

  std::vector<std::string> evaluated;
  std::map<std::string, ScriptMessageCallback> handlers;
  std::map<std::string, bool> preferences;
  std::weak_ptr<NavigationDelegate> delegate;
  std::vector<std::string> loaded;
  int reloads = 0;
};

}  // namespace appex::testing
