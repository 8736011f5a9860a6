#include "bridge/wk_web_view_bridge.h"

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include <atomic>
#include <cmath>
#include <limits>
#include <mutex>
// g++ 12 false positive: with AddressSanitizer it reports the
// std::function inside the regex compiler's moved-from state as maybe
// uninitialized. The warning points into the header's own code, so only its
// inclusion can be covered.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop
#include <set>
#include <thread>
#include <vector>

#include "bridge/bridge_script.h"
#include "core/log.h"
#include "tests/core/log_capture.h"
#include "core/main_queue.h"
#include "host/json.h"
#include "tests/bridge/fake_web_view.h"
#include "tests/bridge/result_printer.h"

namespace appex {
namespace {

using testing::FakeWebView;

AnyValue json(std::string_view text) { return boost::json::parse(text); }

// One outgoing call, split back into its channel and message.
struct Call {
  std::string channel;
  AnyValue message;
};

// Reads "onWebViewCall('<channel>', <json>)"; fails the test on other text.
Call parseCall(const std::string& script) {
  static const std::regex shape(R"(^onWebViewCall\('([^']*)', ([\s\S]*)\)$)");
  std::smatch m;
  EXPECT_TRUE(std::regex_match(script, m, shape)) << script;
  if (m.empty()) return {};
  auto message = JSON::parse(m[2].str());
  EXPECT_TRUE(message) << script;
  return {m[1].str(), message ? *message : AnyValue()};
}

using testing::LogCapture;

class BridgeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MainQueue::shared().runUntilIdle();
    web = std::make_shared<FakeWebView>();
    bridge = WKWebViewBridge::create("BG", web);
  }
  void TearDown() override {
    bridge.reset();
    MainQueue::shared().runUntilIdle();
  }

  // What the page posts to "Webview_Bridge".
  void fromPageJson(std::string_view body) { fromPage(json(body)); }
  void fromPage(const AnyValue& body) { web->postFromPage("Webview_Bridge", body); }

  // Lets the main queue run, then hands over (and forgets) what was
  // evaluated.
  std::vector<std::string> evaluated() {
    MainQueue::shared().runUntilIdle();
    return std::exchange(web->evaluated, {});
  }

  // Asks the page and returns the ask's uid, read from the evaluated call.
  std::string askPage(ResultCallback callback, std::string cmd = "tabs.query") {
    bridge->ask("__default__", std::move(cmd), json(R"({"active":true})"), std::move(callback));
    auto scripts = evaluated();
    EXPECT_EQ(scripts.size(), 1u);
    if (scripts.empty()) return {};
    return std::string(parseCall(scripts[0]).message.at("uid").as_string());
  }

  LogCapture log;
  std::shared_ptr<FakeWebView> web;
  std::shared_ptr<WKWebViewBridge> bridge;
};

// Records every result handed to it.
struct Results {
  std::vector<Result> got;
  ResultCallback callback() {
    return [this](Result r) { got.push_back(std::move(r)); };
  }
};

// ---------------------------------------------------------------------------
// Creation and lifetime

TEST_F(BridgeTest, CreationWiresTheWebViewWhichDoesNotKeepTheBridgeAlive) {
  EXPECT_EQ(web->preferences, (std::map<std::string, bool>{{"allowFileAccessFromFileURLs", true}}));
  EXPECT_EQ(web->delegate.lock(), std::static_pointer_cast<NavigationDelegate>(bridge));
  ASSERT_EQ(web->handlers.count("Webview_Bridge"), 1u);
  auto handler = web->handlers.at("Webview_Bridge");  // as the engine would still hold it
  std::weak_ptr<WKWebViewBridge> weak = bridge;
  bridge.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(web->handlers.count("Webview_Bridge"), 0u);
  EXPECT_TRUE(web->delegate.expired());
  // A message still delivered to the old registration goes nowhere.
  handler(json(R"({"channelName":"__default__","type":"INJECT","uid":""})"));
  EXPECT_TRUE(evaluated().empty());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(BridgeTest, DestructionDiscardsPendingAsksWithoutCallingThem) {
  auto token = std::make_shared<int>(0);
  std::atomic<bool> called{false};
  askPage([token, &called](Result) { called = true; });
  bridge.reset();
  // The callback is destroyed (on the dictionary's queue), never called.
  for (int i = 0; i < 2000 && token.use_count() > 1; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(token.use_count(), 1);
  EXPECT_FALSE(called);
}

TEST_F(BridgeTest, AWebViewThatIsGoneMakesPostsAndInjectionNoOps) {
  // The bridge's web view is an alias whose lifetime the test controls, so
  // the fake itself survives for inspection.
  auto token = std::make_shared<int>(0);
  auto fake = std::make_shared<FakeWebView>();
  auto b = WKWebViewBridge::create("X", std::shared_ptr<WebView>(token, fake.get()));
  auto handler = fake->handlers.at("Webview_Bridge");
  Results results;
  b->ask("__default__", "c", std::nullopt, results.callback());  // queued, not yet evaluated
  token.reset();
  handler(json(R"({"channelName":"__default__","type":"INJECT","uid":""})"));
  b->answer(success(1), Message{.uid = "U1"}, "__default__");
  MainQueue::shared().runUntilIdle();
  EXPECT_TRUE(fake->evaluated.empty());
  b.reset();  // and destruction has nothing to unregister
  EXPECT_EQ(fake->handlers.count("Webview_Bridge"), 1u);
  EXPECT_TRUE(results.got.empty());
}

// ---------------------------------------------------------------------------
// Outgoing messages

TEST_F(BridgeTest, AskIsEvaluatedLaterAsTheExactCallWithAFreshUpperCaseUuid) {
  bridge->ask("__default__", "tabs.query", json(R"({"active":true})"), [](Result) {});
  bridge->ask("__default__", "storage.get", std::nullopt, [](Result) {});
  EXPECT_TRUE(web->evaluated.empty()) << "evaluation waits for the main queue, even on it";

  auto scripts = evaluated();
  ASSERT_EQ(scripts.size(), 2u);
  static const std::regex first(
      R"re(^onWebViewCall\('__default__', \{"type":"ASK","uid":"([0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12})","cmd":"tabs\.query","args":\{"active":true\}\}\)$)re");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(scripts[0], m, first)) << scripts[0];
  const std::string uid = m[1].str();
  // No args: the key is left out, not sent as null.
  static const std::regex second(
      R"re(^onWebViewCall\('__default__', \{"type":"ASK","uid":"([0-9A-F-]{36})","cmd":"storage\.get"\}\)$)re");
  ASSERT_TRUE(std::regex_match(scripts[1], m, second)) << scripts[1];
  EXPECT_NE(m[1].str(), uid);
}

TEST_F(BridgeTest, AnswersCarryTheAsksUidAndFrameWithDataOrErrorText) {
  const Message ask{.type = MessageType::ask, .uid = "U1", .cmd = "x", .frameId = 7};
  bridge->answer(success(json(R"({"n":1})")), ask, "__default__");
  bridge->answer(failure("[tabs.get] id is required"), Message{.uid = "U2"}, "__default__");
  bridge->answer(successEmpty(), Message{.uid = "U3"}, "side");
  EXPECT_EQ(evaluated(), (std::vector<std::string>{
                             R"(onWebViewCall('__default__', {"type":"ANSWER","uid":"U1","data":{"n":1},"frameId":7}))",
                             R"(onWebViewCall('__default__', {"type":"ANSWER","uid":"U2","err":"[tabs.get] id is required"}))",
                             R"(onWebViewCall('side', {"type":"ANSWER","uid":"U3"}))",
                         }));
}

TEST_F(BridgeTest, AMessageJsonCannotWriteIsNotSent) {
  bridge->answer(success(AnyValue(std::nan(""))), Message{.uid = "U1"}, "__default__");
  Results results;
  bridge->ask("__default__", "c", AnyValue(std::numeric_limits<double>::infinity()), results.callback());
  EXPECT_TRUE(evaluated().empty());
}

// ---------------------------------------------------------------------------
// Asks from the page

TEST_F(BridgeTest, EveryHandlerOfTheChannelRunsInOrderAndEachReplyIsAnAnswer) {
  std::vector<std::string> calls;
  Message seen;
  bridge->registerHandler("__default__", [&](const Message& ask, IBridge::Reply reply) {
    calls.push_back("first");
    seen = ask;
    reply(success(AnyValue("one")));
    // Registered during an ask: runs from the next ask on.
    if (calls.size() == 1) {
      bridge->registerHandler("__default__", [&](const Message&, IBridge::Reply) { calls.push_back("third"); });
    }
  });
  bridge->registerHandler("__default__", [&](const Message&, IBridge::Reply reply) {
    calls.push_back("second");
    reply(failure("two"));
  });
  bridge->registerHandler("other", [&](const Message&, IBridge::Reply) { calls.push_back("other"); });

  fromPageJson(R"({"channelName":"__default__","type":"ASK","uid":"ipcp_1_2","cmd":"tabs.get","args":[4],"frameId":3})");
  EXPECT_EQ(calls, (std::vector<std::string>{"first", "second"}));
  EXPECT_EQ(seen, (Message{.type = MessageType::ask, .uid = "ipcp_1_2", .cmd = "tabs.get", .args = json("[4]"), .frameId = 3}));
  EXPECT_EQ(evaluated(), (std::vector<std::string>{
                             R"(onWebViewCall('__default__', {"type":"ANSWER","uid":"ipcp_1_2","data":"one","frameId":3}))",
                             R"(onWebViewCall('__default__', {"type":"ANSWER","uid":"ipcp_1_2","err":"two","frameId":3}))",
                         }));

  calls.clear();
  fromPageJson(R"({"channelName":"__default__","type":"ASK","uid":"ipcp_3_4","cmd":"c"})");
  EXPECT_EQ(calls, (std::vector<std::string>{"first", "second", "third"}));
}

TEST_F(BridgeTest, AnAskOnAChannelWithoutHandlersGoesUnanswered) {
  bridge->registerHandler("other", [](const Message&, IBridge::Reply reply) { reply(success(1)); });
  fromPageJson(R"({"channelName":"__default__","type":"ASK","uid":"ipcp_1","cmd":"c"})");
  EXPECT_TRUE(evaluated().empty());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(BridgeTest, AReplyFromAnotherThreadIsEvaluatedOnTheMainQueue) {
  IBridge::Reply kept;
  bridge->registerHandler("__default__", [&](const Message&, IBridge::Reply reply) { kept = std::move(reply); });
  fromPageJson(R"({"channelName":"__default__","type":"ASK","uid":"ipcp_9","cmd":"c"})");
  std::thread worker([&] { kept(success(AnyValue("late"))); });
  worker.join();
  EXPECT_TRUE(web->evaluated.empty());
  EXPECT_EQ(evaluated(), std::vector<std::string>{
                             R"(onWebViewCall('__default__', {"type":"ANSWER","uid":"ipcp_9","data":"late"}))"});
}

// ---------------------------------------------------------------------------
// Answers from the page

TEST_F(BridgeTest, AnAnswerCompletesItsAskOnceAndALaterCopyIsDropped) {
  Results results;
  const std::string uid = askPage(results.callback());
  const std::string answer = R"({"channelName":"__default__","type":"ANSWER","err":null,"data":{"tabs":[1,2]},"uid":")" + uid + "\"}";
  fromPageJson(answer);
  ASSERT_EQ(results.got.size(), 1u);
  EXPECT_EQ(results.got[0], success(json(R"({"tabs":[1,2]})")));
  fromPageJson(answer);
  EXPECT_EQ(results.got.size(), 1u);
}

TEST_F(BridgeTest, FailedAnswersReachTheAskAsFailuresWithTheirText) {
  struct Case {
    std::string label;
    std::string fields;  // the answer's err/data part
    Result expected;
  };
  const std::vector<Case> cases = {
      {"text error beats data", R"("err":"denied","data":5)", failure("denied")},
      // An object "err" is not kept by the message record: the null data
      // is what the ask completes with.
      {"encoded error from a failed handler",
       R"("err":{"isError":true,"name":"TypeError","message":"no such tab","stack":"at x"},"data":null)",
       success(nullptr)},
      {"error object without a message", R"("err":{"code":3},"data":null)", success(nullptr)},
      {"null err and null data", R"("err":null,"data":null)", success(nullptr)},
      {"no err, empty data", R"("data":"")", success(AnyValue(""))},
  };
  for (const auto& c : cases) {
    Results results;
    const std::string uid = askPage(results.callback());
    fromPageJson(R"({"channelName":"__default__","type":"ANSWER","uid":")" + uid + "\"," + c.fields + "}");
    ASSERT_EQ(results.got.size(), 1u) << c.label;
    EXPECT_EQ(results.got[0], c.expected) << c.label;
  }
}

TEST_F(BridgeTest, AnObjectErrorWithoutDataIsNoAnswerAndTheAskStaysPending) {
  Results results;
  const std::string uid = askPage(results.callback());
  fromPageJson(R"({"channelName":"__default__","type":"ANSWER","uid":")" + uid +
               R"(","err":{"message":"ipcPromise: answer timeout 5000 for cmd \"c\", args \"[]\""}})");
  EXPECT_TRUE(results.got.empty());
  fromPageJson(R"({"channelName":"__default__","type":"ANSWER","uid":")" + uid + R"(","data":1})");
  ASSERT_EQ(results.got.size(), 1u) << "still pending: a later answer completes it";
  EXPECT_EQ(results.got[0], success(AnyValue(1)));
}

TEST_F(BridgeTest, MalformedPostsAreDroppedSilently) {
  Results results;
  const std::string uid = askPage(results.callback());
  int handled = 0;
  bridge->registerHandler("__default__", [&](const Message&, IBridge::Reply) { ++handled; });

  const std::vector<std::string> dropped = {
      R"([1,2])",
      R"("INJECT")",
      R"(null)",
      R"({"type":"ASK","uid":"u","cmd":"c"})",                                   // no channel
      R"({"channelName":7,"type":"ASK","uid":"u","cmd":"c"})",                   // channel not a string
      R"({"channelName":"__default__","type":"ask","uid":"u","cmd":"c"})",       // unknown type
      R"({"channelName":"__default__","type":"ASK","uid":"u","cmd":3})",        // cmd not a string
      R"({"channelName":"__default__","type":"ASK","cmd":"c"})",                 // no uid
      R"({"channelName":"__default__","type":"ANSWER","uid":"nobody","data":1})",  // unknown uid
      R"({"channelName":"__default__","type":"ANSWER","uid":"u","err":null})",   // neither err nor data
      R"({"channelName":"__default__","type":"LOG"})",                            // no uid
  };
  for (const auto& body : dropped) fromPageJson(body);
  // The same uid with neither err nor data does not use up the pending ask.
  fromPageJson(R"({"channelName":"__default__","type":"ANSWER","err":null,"uid":")" + uid + "\"}");

  EXPECT_EQ(handled, 0);
  EXPECT_TRUE(results.got.empty());
  EXPECT_TRUE(evaluated().empty());
  EXPECT_TRUE(log.lines().empty());
  fromPageJson(R"({"channelName":"__default__","type":"ANSWER","data":1,"uid":")" + uid + "\"}");
  EXPECT_EQ(results.got.size(), 1u);
}

// ---------------------------------------------------------------------------
// Injection and the page's diagnostics

TEST_F(BridgeTest, InjectPrintsAndEvaluatesTheWholeEmbeddedScriptEachTime) {
  fromPageJson(R"({"channelName":"__default__","type":"INJECT","uid":"ipcp_1"})");
  EXPECT_TRUE(web->evaluated.empty());
  EXPECT_EQ(log.entries(), (std::vector<LogCapture::Entry>{
                             {LogDestination::standardOutput, "Going to inject js sdk"}}));
  auto scripts = evaluated();
  ASSERT_EQ(scripts.size(), 1u);
  EXPECT_EQ(scripts[0], bridgeScript());
  // A second request is served too; the script guards itself in the page.
  fromPageJson(R"({"channelName":"__default__","type":"INJECT","uid":"ipcp_2"})");
  EXPECT_EQ(evaluated().size(), 1u);
}

TEST_F(BridgeTest, DebugAndLogLinesDescribeTheDataAndKeepPageTextVerbatim) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"({"type":"DEBUG","uid":"x","data":"hello"})", R"(!!! BG Webview Debug: Optional("hello"))"},
      {R"({"type":"LOG","uid":"","data":{"a":1}})", R"($$$ BG Webview Log: Optional({"a":1}))"},
      {R"({"type":"LOG","uid":""})", R"($$$ BG Webview Log: nil)"},
      {R"({"type":"DEBUG","uid":"","data":null})", R"(!!! BG Webview Debug: Optional(null))"},
      {R"({"type":"LOG","uid":"","data":"100% %s%n %@"})", R"($$$ BG Webview Log: Optional("100% %s%n %@"))"},
  };
  for (const auto& [body, line] : cases) {
    AnyValue message = json(body);
    message.as_object()["channelName"] = "__default__";
    fromPage(message);
  }
  std::vector<LogCapture::Entry> expected;
  for (const auto& [body, line] : cases) expected.emplace_back(LogDestination::systemLog, line);
  EXPECT_EQ(log.entries(), expected);
  EXPECT_TRUE(evaluated().empty());
}

// ---------------------------------------------------------------------------
// Concurrency

TEST_F(BridgeTest, AsksFromManyThreadsEachCompleteOnceWithTheirOwnAnswer) {
  constexpr int kThreads = 4;
  constexpr int kAsksPerThread = 250;
  std::mutex mutex;
  std::vector<std::vector<int>> completions(kThreads, std::vector<int>(kAsksPerThread, 0));
  std::atomic<int> completed{0};
  std::atomic<int> wrongAnswers{0};

  std::vector<std::thread> askers;
  for (int t = 0; t < kThreads; ++t) {
    askers.emplace_back([&, t] {
      for (int i = 0; i < kAsksPerThread; ++i) {
        Dictionary args{{"t", t}, {"i", i}};
        bridge->ask("__default__", "echo", AnyValue(args), [&, t, i, args](Result r) {
          if (!r || !*r || **r != AnyValue(args)) ++wrongAnswers;
          std::lock_guard lock(mutex);
          ++completions[t][i];
          ++completed;
        });
      }
    });
  }

  // The main thread plays the page: it answers every ask it is handed with
  // the ask's own arguments.
  std::set<std::string> uids;
  auto answerEverything = [&] {
    for (const auto& script : std::exchange(web->evaluated, {})) {
      Call call = parseCall(script);
      Dictionary answer{{"channelName", call.channel},
                        {"type", "ANSWER"},
                        {"uid", call.message.at("uid")},
                        {"data", call.message.at("args")}};
      uids.insert(std::string(call.message.at("uid").as_string()));
      fromPage(AnyValue(answer));
    }
    return completed.load() == kThreads * kAsksPerThread;
  };
  EXPECT_TRUE(MainQueue::shared().runUntil(answerEverything, std::chrono::seconds(60)));
  for (auto& t : askers) t.join();

  EXPECT_EQ(uids.size(), static_cast<std::size_t>(kThreads * kAsksPerThread));
  EXPECT_EQ(wrongAnswers.load(), 0);
  for (const auto& perThread : completions) {
    for (int n : perThread) ASSERT_EQ(n, 1);
  }
}

}  // namespace
}  // namespace appex
