// Page-controlled text is never a format string: every path that writes
// text a page chose into a log line writes it verbatim, and the writers
// themselves print "%n", "%s" and friends as they stand.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "api/safari_api_invoker.h"
#include "bridge/wk_web_view_bridge.h"
#include "core/event_emitter.h"
#include "core/log.h"
#include "core/main_queue.h"
#include "host/event_payload.h"
#include "platform/http_client.h"
#include "tests/api/api_fixture.h"
#include "tests/bridge/fake_web_view.h"

namespace appex::testing {
namespace {

// Conversions that would read or write memory if the text reached printf.
const std::string kDirectives = "%n%n%s%s%x%p%d %1$s %99999999d %%";

// Runs `write` with no sink installed, so lines take the real writers, and
// returns what reached stderr and stdout.
std::pair<std::string, std::string> printed(const std::function<void()>& write) {
  LogSink previous = setLogSink({});
  ::testing::internal::CaptureStderr();
  ::testing::internal::CaptureStdout();
  write();
  std::string out = ::testing::internal::GetCapturedStdout();
  std::string err = ::testing::internal::GetCapturedStderr();
  setLogSink(std::move(previous));
  return {err, out};
}

TEST(FormatStringTest, TheWritersPrintDirectivesVerbatim) {
  auto [err, out] = printed([] {
    logLine(kDirectives);
    printLine(kDirectives);
  });
  EXPECT_EQ(err, kDirectives + "\n");
  EXPECT_EQ(out, kDirectives + "\n");
}

// The bridge logs a hosted page's DEBUG and LOG posts with the page's data.
class BridgeLogTest : public ::testing::Test {
 protected:
  void post(const char* type, AnyValue data) {
    Dictionary body{{"type", type}, {"uid", ""}, {"data", std::move(data)}, {"channelName", "__default__"}};
    view->postFromPage("Webview_Bridge", body);
    MainQueue::shared().runUntilIdle();
  }

  std::shared_ptr<FakeWebView> view = std::make_shared<FakeWebView>();
  std::shared_ptr<WKWebViewBridge> bridge = WKWebViewBridge::create("BG", view);
};

TEST_F(BridgeLogTest, DebugAndLogPostsReachStderrVerbatim) {
  auto [err, out] = printed([&] {
    post("DEBUG", AnyValue(kDirectives));
    post("LOG", Dictionary{{kDirectives, List{kDirectives}}});
  });
  const std::string json = "\"" + kDirectives + "\"";
  EXPECT_EQ(err, "!!! BG Webview Debug: Optional(" + json + ")\n" +
                     "$$$ BG Webview Log: Optional({" + json + ":[" + json + "]})\n");
  EXPECT_TRUE(out.empty());
}

TEST(RegistryFormatTest, AFailedDeliveryNamesItsEventVerbatim) {
  auto emitter = EventEmitter<EventPayload>::create();
  auto dispose = emitter->on(kDirectives, [](const EventPayload&, const std::string&) {
    throw std::runtime_error("%n%s");
  });
  auto [err, out] = printed([&] { emitter->fire(kDirectives, EventPayload::json(nullptr)); });
  EXPECT_EQ(err, "Error in fire for id: " + kDirectives + "\n");
  dispose();
}

// Text from pages and page-driven requests that the system logs on its own
// initiative: a page's title in a tab event, an httpRequest's method and URL.
class PageTextLogTest : public ApiFixture {};

// Answers every request at once with an empty 200, on a worker thread.
class NullHttpClient final : public HttpClient {
 public:
  void send(HttpClientRequest, Completion completion) override {
    std::thread([completion = std::move(completion)]() mutable {
      HttpClientResult result;
      result.response = HttpResponseHead{200, "https://site.test/", {}};
      completion(std::move(result));
    }).detach();
  }
};

TEST_F(PageTextLogTest, PageTitlesAndRequestTextAreLoggedVerbatim) {
  auto window = sim->openWindow();
  auto tab = window->addTab("https://site.test/" + kDirectives, kDirectives, true);
  rebuild(tab);
  const auto lines = log.lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_NE(lines.back().find("\"title\":\"" + kDirectives + "\""), std::string::npos) << lines.back();

  context_.set<HttpClient>(std::make_shared<NullHttpClient>());
  // A URL holds "%" only as an escape; the method is free text.
  const std::string url = "https://site.test/?q=%25n%25s";
  Result r = invoke("httpRequest", Dictionary{{"url", url}, {"method", kDirectives}});
  ASSERT_TRUE(r.has_value()) << r.error().text;
  EXPECT_EQ(log.count("[Request] " + kDirectives + " " + url + R"( {"Content-Type":"application/json"})"), 1);
}

}  // namespace
}  // namespace appex::testing
