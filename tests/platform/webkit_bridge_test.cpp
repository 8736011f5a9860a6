// The bridge end to end: WKWebViewBridge, the injected bridge/bridge.js and
// real WebKit (run under xvfb-run).
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include <mutex>

#include "bridge/wk_web_view_bridge.h"
#include "core/log.h"
#include "tests/core/log_capture.h"
#include "tests/bridge/result_printer.h"
#include "tests/platform/webkit_test_support.h"

namespace appex {
namespace {

AnyValue json(std::string_view text) { return boost::json::parse(text); }

// The page: asks for the bridge script, then answers native asks by command
// and reports "ready". "ask-native" makes the page ask native code in turn
// and answer with how that went.
constexpr const char* kPage = R"JS(
window.webkit.messageHandlers.Webview_Bridge.postMessage(
    {type: 'INJECT', uid: '', channelName: '__default__'});
(function whenInjected() {
  if (!window.WKWebViewBridge) { setTimeout(whenInjected, 1); return; }
  window.firstEndpoint = window.WKWebViewBridge;
  WKWebViewBridge.onAsk(function (cmd, args) {
    switch (cmd) {
      case 'echo': return args;
      case 'throw': throw new TypeError('page handler threw');
      case 'reject': return Promise.reject(new Error('page handler rejected'));
      case 'nothing': return Promise.resolve(undefined);
      case 'ask-native':
        return WKWebViewBridge.ask(args.cmd, args.args).then(
            function (value) { return {ok: value === undefined ? null : value}; },
            function (error) { return {failed: error.message}; });
      default: return undefined;
    }
  });
  report('ready');
})();
)JS";

class BridgeOnWebKitTest : public testing::WebKitTest {
 protected:
  void SetUp() override {
    WebKitTest::SetUp();
    bridge = WKWebViewBridge::create("BG", web);
    // Native commands the page may ask for.
    bridge->registerHandler("__default__", [this](const Message& ask, IBridge::Reply reply) {
      nativeAsks.push_back(ask);
      if (ask.cmd == "native.echo") reply(success(ask.args.value_or(nullptr)));
      if (ask.cmd == "native.fail") reply(failure("[native.fail] not today"));
      if (ask.cmd == "native.hold") heldReply = std::move(reply);
    });
    loadPage(kPage);
    ASSERT_TRUE(waitForReports(1));
    ASSERT_EQ(reports[0], AnyValue("ready"));
  }

  void TearDown() override {
    bridge.reset();
    WebKitTest::TearDown();
  }

  // Asks the page and turns the loop until the answer comes.
  Result askPage(std::string cmd, std::optional<AnyValue> args,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::optional<Result> result;
    bridge->ask("__default__", std::move(cmd), std::move(args),
                [&result](Result r) { result = std::move(r); });
    if (!engine().runUntil([&] { return result.has_value(); }, timeout)) {
      return failure("(test) no answer");
    }
    return std::move(*result);
  }

  // Has the page ask native code `cmd`; returns what the page saw.
  AnyValue pageAsksNative(const std::string& cmd, AnyValue args) {
    Result seen = askPage("ask-native", AnyValue(Dictionary{{"cmd", cmd}, {"args", std::move(args)}}));
    EXPECT_TRUE(seen && *seen);
    return seen && *seen ? **seen : AnyValue();
  }

  std::size_t injections() {
    return static_cast<std::size_t>(log_.count(LogDestination::standardOutput, "Going to inject js sdk"));
  }

  std::shared_ptr<WKWebViewBridge> bridge;
  std::vector<Message> nativeAsks;
  IBridge::Reply heldReply;

 private:
  testing::LogCapture log_;
};

TEST_F(BridgeOnWebKitTest, APageThatAsksForTheScriptAnswersNativeAsksThroughOnAsk) {
  EXPECT_EQ(injections(), 1u);
  const AnyValue args = json(R"({"n":1,"list":[1,2.5,"x",null,true],"nested":{"a":{}}})");
  EXPECT_EQ(askPage("echo", args), success(args));
  EXPECT_EQ(askPage("echo", json("[]")), success(json("[]")));
}

TEST_F(BridgeOnWebKitTest, NativeHandlersAnswerThePagesAsks) {
  EXPECT_EQ(pageAsksNative("native.echo", json(R"({"tabs":[3,4]})")), json(R"({"ok":{"tabs":[3,4]}})"));
  EXPECT_EQ(pageAsksNative("native.fail", json("[]")), json(R"({"failed":"[native.fail] not today"})"))
      << "a native failure reaches the page as an Error with the failure's text";
  ASSERT_EQ(nativeAsks.size(), 2u);
  EXPECT_EQ(nativeAsks[0].cmd, "native.echo");
  EXPECT_TRUE(nativeAsks[0].uid.starts_with("ipcp_")) << nativeAsks[0].uid;
}

// The page answers a failed handler with an encoded error object and null
// data; the message record keeps only a string "err", so native code sees
// the null data as the answer.
TEST_F(BridgeOnWebKitTest, APageHandlerThatThrowsOrRejectsAnswersWithNullData) {
  EXPECT_EQ(askPage("throw", std::nullopt), success(nullptr));
  EXPECT_EQ(askPage("reject", json(R"({"id":1})")), success(nullptr));
}

// The page's answer time-out carries an error object and no data: that is
// no message, so the native ask stays pending (the asker's own time-out is
// what ends such waits).
TEST_F(BridgeOnWebKitTest, AnAskThePageLeavesUnhandledIsNeverCompletedNatively) {
  EXPECT_EQ(askPage("nothing", AnyValue("k"), std::chrono::milliseconds(6500)),
            failure("(test) no answer"));
}

TEST_F(BridgeOnWebKitTest, ASecondInjectionChangesNothing) {
  // A page ask to native stays pending across the second injection.
  bridge->ask("__default__", "ask-native", json(R"({"cmd":"native.hold","args":1})"), [this](Result r) {
    reports.push_back(r && *r ? **r : AnyValue("failed"));
  });
  ASSERT_TRUE(engine().runUntil([&] { return static_cast<bool>(heldReply); }));

  web->evaluateScript(
      "window.webkit.messageHandlers.Webview_Bridge.postMessage("
      "{type: 'INJECT', uid: '', channelName: '__default__'});");
  ASSERT_TRUE(engine().runUntil([&] { return injections() == 2; }));
  // The injected script ran before this (evaluations run in order).
  web->evaluateScript("report(window.WKWebViewBridge === window.firstEndpoint);");
  ASSERT_TRUE(waitForReports(2));
  EXPECT_EQ(reports[1], AnyValue(true));

  heldReply(success(AnyValue("released")));
  ASSERT_TRUE(waitForReports(3));
  EXPECT_EQ(reports[2], json(R"({"ok":"released"})"));
  EXPECT_EQ(askPage("echo", AnyValue(7)), success(AnyValue(7))) << "the first handler still answers";
}

TEST_F(BridgeOnWebKitTest, HostileStringsRoundTripIntactBothWays) {
  const std::vector<std::string> hostile = {
      "it's",
      "'); report('pwned'); ('",
      "\"}); report('pwned'); ({\"",
      "back\\slash \\' \\\" \\\\n \\u0041",
      "line\nfeed\r\ncr\fform\ttab\bbs\vvt",
      "sep\xE2\x80\xA8para\xE2\x80\xA9" "end",
      "</script><script>report('pwned')</script>",
      std::string("nul\0byte", 8),
      "\x01\x1f\x7f controls",
      "emoji \xF0\x9F\x98\x80 accents \xC3\xA9 cjk \xE4\xB8\xAD",
      "${report('pwned')} `tick` %s %n %@",
  };
  for (const auto& text : hostile) {
    EXPECT_EQ(askPage("echo", AnyValue(text)), success(AnyValue(text))) << text;
    EXPECT_EQ(pageAsksNative("native.echo", AnyValue(text)), AnyValue(Dictionary{{"ok", text}})) << text;
  }
  // As a command name and as an object key too.
  const std::string key = hostile[1] + hostile[5];
  EXPECT_EQ(askPage("echo", AnyValue(Dictionary{{key, key}})), success(AnyValue(Dictionary{{key, key}})));
  EXPECT_EQ(nativeAsks.size(), hostile.size());
  engine().runFor(std::chrono::milliseconds(20));
  EXPECT_EQ(reports.size(), 1u) << "nothing in the strings ran as script";
}

// The router makes a new bridge for a web view it already bridges (a popup
// shown again): the old bridge's end must not take the page's handler from
// the new one. The last bridge's end withdraws it.
TEST_F(BridgeOnWebKitTest, AReplacedBridgeLeavesThePageToItsSuccessorAndTheLastWithdrawsIt) {
  std::weak_ptr<WKWebViewBridge> first = bridge;
  bool called = false;
  bridge->ask("__default__", "nothing", std::nullopt, [&called](Result) { called = true; });
  auto second = WKWebViewBridge::create("BG", web);
  second->registerHandler("__default__", [](const Message& ask, IBridge::Reply reply) {
    if (ask.cmd == "native.echo") reply(success(AnyValue("from the second bridge")));
  });
  bridge = std::move(second);
  EXPECT_TRUE(first.expired()) << "neither the web view nor the loop keeps the bridge alive";
  EXPECT_EQ(pageAsksNative("native.echo", AnyValue(1)), json(R"({"ok":"from the second bridge"})"));

  bridge.reset();
  web->evaluateScript("report(typeof window.webkit.messageHandlers.Webview_Bridge);");
  ASSERT_TRUE(waitForReports(2));
  EXPECT_EQ(reports[1], AnyValue("undefined"));
  EXPECT_FALSE(called);
}

}  // namespace
}  // namespace appex
