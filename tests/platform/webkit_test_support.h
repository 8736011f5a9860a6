// Support for tests that run real WebKit (under xvfb-run): the engine,
// pages written to a private folder, and the reports a page sends to the
// test through a "Test" script-message handler.
//
// Main queue only, like the web views themselves.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "platform/web_view.h"
#include "platform/webkit/engine.h"

namespace appex::testing {

// The one engine of the test process, started on first use. A test binary
// cannot go on without it, so failing to start aborts with the reason.
inline webkit::Engine& sharedEngine() {
  static webkit::Engine* engine = [] {
    auto started = webkit::Engine::start();
    if (!started) {
      std::fprintf(stderr, "WebKit engine did not start: %s\n", started.error().c_str());
      std::abort();
    }
    return *started;
  }();
  return *engine;
}

class WebKitTest : public ::testing::Test {
 protected:
  static webkit::Engine& engine() { return sharedEngine(); }

  void SetUp() override {
    char pattern[] = "/tmp/appex_webkit_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    folder = pattern;
    web = engine().createWebView();
    web->addScriptMessageHandler("Test", [this](const AnyValue& body) { reports.push_back(body); });
  }

  void TearDown() override {
    web.reset();
    engine().runFor(std::chrono::milliseconds(10));
    std::filesystem::remove_all(folder);
  }

  // Writes `content` to `name` in the test's folder; returns its path.
  std::string writeFile(const std::string& name, const std::string& content) {
    const auto path = folder / name;
    std::ofstream(path, std::ios::binary) << content;
    return path.string();
  }

  // Writes a page whose <head> runs `script` and loads it. `report(v)` in
  // the page sends v to `reports`.
  void loadPage(const std::string& script) {
    const std::string html =
        "<!doctype html><html><head><meta charset=\"utf-8\"><script>\n"
        "function report(v) { window.webkit.messageHandlers.Test.postMessage(v); }\n" +
        script + "\n</script></head><body></body></html>\n";
    ASSERT_TRUE(web->loadFileURL(writeFile("page.html", html), folder.string()));
  }

  // Turns the main loop until at least `count` reports have come.
  bool waitForReports(std::size_t count,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    return engine().runUntil([&] { return reports.size() >= count; }, timeout);
  }

  std::filesystem::path folder;
  std::shared_ptr<WebView> web;
  std::vector<AnyValue> reports;
};

}  // namespace appex::testing
