// The WebKit browser end to end, under xvfb-run: a fresh Context per test
// with the whole extension wired as a host would wire it: a bundle written
// to a temporary folder (Info.plist with content scripts using the SDK, a
// background page, a popup page), user defaults there, web views from the
// engine, the browser as SFSafariApplication and SFSafariExtension, and its
// callbacks going to SafariExtensionHandler. Pages are served from
// 127.0.0.1 by the test.
//
// The test listens in on the extension without changing it: the callbacks
// pass through a recorder, content scripts report with page messages named
// "test.report" (which the extension ignores), and the background and popup
// pages report through a "Test" script-message handler the recorder adds to
// their web views.
//
// Main thread only: the test's thread is the engine's.
#pragma once

#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>
#include <cairo.h>
#include <httplib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/context.h"
#include "host/extension_handler_callbacks.h"
#include "host/global_state.h"
#include "host/json.h"
#include "platform/bundle.h"
#include "platform/popover.h"
#include "platform/sqlite_user_defaults.h"
#include "platform/web_view.h"
#include "platform/web_view_factory.h"
#include "platform/webkit/engine.h"
#include "platform/webkit/webkit_browser.h"
#include "platform/webkit/webkit_tab.h"
#include "platform/webkit/webkit_toolbar_item.h"
#include "platform/webkit/webkit_window.h"
#include "tabs/safari_tab_api.h"
#include "tests/platform/defaults_test_folder.h"
#include "tests/platform/webkit_test_support.h"

namespace appex::testing {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// Serves the test site's files on 127.0.0.1.
class SiteServer {
 public:
  explicit SiteServer(const fs::path& folder) {
    server_.set_mount_point("/", folder.string());
    server_.set_keep_alive_timeout(1);
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(1ms);
  }
  ~SiteServer() {
    server_.stop();
    thread_.join();
  }
  std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
};

// The extension's callbacks, with a record of what went through them.
class RecordingCallbacks final : public ExtensionCallbacks {
 public:
  explicit RecordingCallbacks(Context& context) : context_(context), inner_(context) {}

  void messageReceived(const std::string& name, std::shared_ptr<SFSafariPage> page,
                       std::optional<Dictionary> userInfo) override {
    messages.push_back({name, userInfo.value_or(Dictionary())});
    if (name == "test.report" && userInfo) contentReports.push_back(*userInfo);
    inner_.messageReceived(name, std::move(page), std::move(userInfo));
  }
  void toolbarItemClicked(std::shared_ptr<SFSafariWindow> window) override {
    ++clicks;
    inner_.toolbarItemClicked(std::move(window));
  }
  void validateToolbarItem(std::shared_ptr<SFSafariWindow> window, ValidationHandler handler) override {
    ++validations;
    inner_.validateToolbarItem(std::move(window), std::move(handler));
    // The first validation made the background page: listen to it.
    auto background = context_.get<GlobalState>()->webview;
    if (background && !backgroundHooked) {
      backgroundHooked = true;
      background->addScriptMessageHandler("Test", [this](const AnyValue& body) { backgroundReports.push_back(body); });
    }
  }
  void popoverWillShow(std::shared_ptr<SFSafariWindow> window) override {
    ++popoverShows;
    inner_.popoverWillShow(std::move(window));
  }
  PopoverContent popoverContent() override {
    auto content = inner_.popoverContent();
    if (content.webView && !popupHooked) {
      popupHooked = true;
      content.webView->addScriptMessageHandler("Test", [this](const AnyValue& body) { popupReports.push_back(body); });
    }
    return content;
  }
  void pageWillNavigate(std::shared_ptr<SFSafariPage> page, std::optional<std::string> url) override {
    navigations.push_back(url.value_or(""));
    inner_.pageWillNavigate(std::move(page), std::move(url));
  }

  struct Received {
    std::string name;
    Dictionary userInfo;
  };
  std::vector<Received> messages;
  std::vector<Dictionary> contentReports;
  std::vector<AnyValue> backgroundReports;
  std::vector<AnyValue> popupReports;
  std::vector<std::string> navigations;
  int validations = 0;
  int clicks = 0;
  int popoverShows = 0;
  bool backgroundHooked = false;
  bool popupHooked = false;

 private:
  Context& context_;
  ExtensionHandlerCallbacks inner_;
};

class WebKitBrowserTest : public ::testing::Test {
 protected:
  static constexpr const char* kBundleIdentifier = "com.example.appex.webkit-test";

  static webkit::Engine& engine() { return sharedEngine(); }

  void SetUp() override {
    engine();
    writeBundle();
    site = std::make_unique<SiteServer>(fs::path(APPEX_TEST_DATA_DIR) / "site");
    scoped = std::make_unique<ScopedContext>(context);
    auto bundle = Bundle::load(bundlePath);
    ASSERT_TRUE(bundle) << bundle.error();
    context.set<Bundle>(*bundle);
    context.set<UserDefaults>(SqliteUserDefaults::open(folder.path() / "data", kBundleIdentifier).value());
    context.set(std::make_shared<WebViewFactory>([] { return engine().createWebView(); }));
    auto created = webkit::WebKitBrowser::create(context);
    ASSERT_TRUE(created) << created.error();
    browser = *created;
    browser->install(context);
    recorder = std::make_shared<RecordingCallbacks>(context);
    browser->setCallbacks(recorder);

    // The browser starts with one window; its first validation makes the
    // background page, which is ready before any web page is visited.
    first = browser->openWindow("about:blank");
    ASSERT_TRUE(first);
    ASSERT_TRUE(waitForBackground());
  }

  void TearDown() override {
    if (browser) browser->shutdown();
    engine().runFor(50ms);
    browser.reset();
    recorder.reset();
  }

  // --- The bundle ------------------------------------------------------------

  void writeBundle() {
    bundlePath = folder.path() / "Test.appex";
    resources = bundlePath / "Contents" / "Resources";
    const fs::path assets = resources / "Assets" / "extension";
    fs::create_directories(assets / "appex");
    fs::create_directories(assets / "icons");
    for (const auto& entry : fs::directory_iterator(fs::path(APPEX_TEST_DATA_DIR) / "extension")) {
      fs::copy_file(entry.path(), assets / entry.path().filename());
    }
    fs::copy_file(fs::path(APPEX_SDK_DIR) / "content.js", assets / "appex" / "content.js");
    fs::copy_file(fs::path(APPEX_SDK_DIR) / "extension.js", assets / "appex" / "extension.js");
    writePNG(assets / "icons" / "red.png", 1, 0, 0);
    // A link that leads out of the resources, for the base URI to refuse.
    fs::create_directory_symlink(bundlePath, resources / "escape");
    std::ofstream(bundlePath / "Contents" / "Info.plist") << infoPlist();
  }

  virtual std::string infoPlist() const {
    return std::string(R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>CFBundleIdentifier</key><string>)") + kBundleIdentifier + R"(</string>
  <key>CFBundleShortVersionString</key><string>1.0</string>
  <key>CFBundleVersion</key><string>7</string>
  <key>NSExtension</key><dict>
    <key>SFSafariContentScript</key><array>
      <dict><key>Script</key><string>Assets/extension/appex/content.js</string></dict>
      <dict><key>Script</key><string>Assets/extension/appex/extension.js</string></dict>
      <dict><key>Script</key><string>Assets/extension/content.js</string></dict>
    </array>
    <key>SFSafariStyleSheet</key><array>
      <dict><key>Style Sheet</key><string>Assets/extension/content.css</string></dict>
    </array>
    <key>SFSafariWebsiteAccess</key><dict><key>Level</key><string>All</string></dict>
    <key>SFSafariToolbarItem</key><dict>
      <key>Action</key><string>Popover</string>
      <key>Label</key><string>Test</string>
    </dict>
  </dict>
</dict></plist>)";
  }

  static void writePNG(const fs::path& path, double r, double g, double b) {
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 16, 16);
    cairo_t* cr = cairo_create(surface);
    cairo_set_source_rgb(cr, r, g, b);
    cairo_paint(cr);
    cairo_destroy(cr);
    cairo_surface_write_to_png(surface, path.c_str());
    cairo_surface_destroy(surface);
  }

  // --- Waiting and listening ---------------------------------------------------

  bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout = 10s) {
    return engine().runUntil(done, timeout);
  }

  std::shared_ptr<WebView> backgroundView() { return context.get<GlobalState>()->webview; }

  // Waits until the background page's script is running.
  bool waitForBackground() {
    if (!waitFor([&] { return recorder->backgroundHooked; })) return false;
    for (int attempt = 0; attempt < 100; ++attempt) {
      backgroundView()->evaluateScript("window.run && run('ping', function () { return 1; })");
      if (waitFor([&] { return findReport(recorder->backgroundReports, "ping") != nullptr; }, 100ms)) return true;
    }
    return false;
  }

  static const Dictionary* findReport(const std::vector<AnyValue>& reports, const std::string& label) {
    for (const auto& report : reports) {
      const Dictionary* d = report.if_object();
      if (d && asString(*d, "label") == label) return d;
    }
    return nullptr;
  }

  // Runs `expression` (a value or a promise) in the background page; returns
  // its value, or fails the test with the error.
  AnyValue inBackground(const std::string& expression, std::chrono::milliseconds timeout = 10s) {
    const std::string label = "run-" + std::to_string(++runs_);
    backgroundView()->evaluateScript("run('" + label + "', function () { return " + expression + "; })");
    if (!waitFor([&] { return findReport(recorder->backgroundReports, label) != nullptr; }, timeout)) {
      ADD_FAILURE() << "no outcome from the background page for " << expression;
      return nullptr;
    }
    const Dictionary& report = *findReport(recorder->backgroundReports, label);
    if (auto error = asString(report, "error")) {
      ADD_FAILURE() << expression << " failed: " << *error;
      return nullptr;
    }
    return report.at("value");
  }

  // The error text of `expression`, which is expected to fail.
  std::string failureInBackground(const std::string& expression) {
    const std::string label = "run-" + std::to_string(++runs_);
    backgroundView()->evaluateScript("run('" + label + "', function () { return " + expression + "; })");
    if (!waitFor([&] { return findReport(recorder->backgroundReports, label) != nullptr; })) return "(no outcome)";
    return asString(*findReport(recorder->backgroundReports, label), "error").value_or("(succeeded)");
  }

  // Content-script reports of `kind` from pages whose URL is `url`.
  std::vector<Dictionary> contentReports(const std::string& kind, const std::string& url = "") const {
    std::vector<Dictionary> out;
    for (const auto& report : recorder->contentReports) {
      if (asString(report, "kind") != kind) continue;
      if (!url.empty() && asString(report, "url") != url) continue;
      out.push_back(report);
    }
    return out;
  }

  // The tab's page as the engine reports it.
  static std::optional<SFSafariPageProperties> properties(const std::shared_ptr<webkit::WebKitTab>& tab) {
    return tab->page()->properties();
  }
  bool waitForTitle(const std::shared_ptr<webkit::WebKitTab>& tab, const std::string& title) {
    return waitFor([&] {
      auto p = properties(tab);
      return p && p->title == title;
    });
  }

  // The browser tab the tab registry knows under `id`.
  std::shared_ptr<webkit::WebKitTab> tabWithId(const std::string& id) {
    auto state = context.get<SafariTabAPI>()->findTabState(id);
    return state ? std::dynamic_pointer_cast<webkit::WebKitTab>(state->tab().ref()) : nullptr;
  }
  // The registry's id of a browser tab.
  std::string idOfTab(const std::shared_ptr<webkit::WebKitTab>& tab) {
    auto state = context.get<SafariTabAPI>()->cachedTabState(tab);
    return state ? state->id() : "";
  }

  static std::string text(const AnyValue& value) { return boost::json::serialize(value); }

  TemporaryFolder folder;
  fs::path bundlePath;
  fs::path resources;
  std::unique_ptr<SiteServer> site;
  Context context;
  std::unique_ptr<ScopedContext> scoped;
  std::shared_ptr<webkit::WebKitBrowser> browser;
  std::shared_ptr<RecordingCallbacks> recorder;
  std::shared_ptr<webkit::WebKitWindow> first;

 private:
  int runs_ = 0;
};

// The share of pixels of a PNG file that differ from its first pixel, and
// its size; nothing when the file cannot be read.
struct PngSummary {
  int width = 0;
  int height = 0;
  double varied = 0;
  std::uint32_t first = 0;
};

inline std::optional<PngSummary> summarisePNG(const std::string& path) {
  cairo_surface_t* surface = cairo_image_surface_create_from_png(path.c_str());
  if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) {
    cairo_surface_destroy(surface);
    return std::nullopt;
  }
  cairo_surface_flush(surface);
  PngSummary summary{cairo_image_surface_get_width(surface), cairo_image_surface_get_height(surface)};
  const int stride = cairo_image_surface_get_stride(surface);
  const unsigned char* data = cairo_image_surface_get_data(surface);
  long differing = 0;
  if (summary.width > 0 && summary.height > 0) {
    summary.first = *reinterpret_cast<const std::uint32_t*>(data);
    for (int y = 0; y < summary.height; ++y) {
      const auto* row = reinterpret_cast<const std::uint32_t*>(data + y * stride);
      for (int x = 0; x < summary.width; ++x) differing += row[x] != summary.first;
    }
    summary.varied = static_cast<double>(differing) / (summary.width * summary.height);
  }
  cairo_surface_destroy(surface);
  return summary;
}

}  // namespace appex::testing
