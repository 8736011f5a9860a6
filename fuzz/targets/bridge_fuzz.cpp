// The bridge's script-message receiver (WKWebViewBridge::
// didReceiveScriptMessage): every post a hosted page makes to
// "Webview_Bridge", with any body.
//
// Input: a value. An object with a "body" member is an envelope:
//   {"body": <the posted body>,
//    "reply": <what the "__default__" handler answers; {"err": text} fails,
//              "none" keeps the reply; absent: the ask's own args>,
//    "pending": true  (first ask the page something natively; "$PENDING" in
//                      the body stands for that ask's uid)}
// Anything else is the body itself.
//
// Properties: DEBUG and LOG posts write exactly one line, the data printed
// verbatim after the bridge's prefix (page text is never a format string);
// INJECT evaluates the bridge script once; an ask on "__default__" runs the
// handler once and its reply reaches the page as one answer with the ask's
// uid, frame id and result; asks on other channels, malformed posts and
// answers to nothing do nothing; an answer to the pending native ask
// completes it once with the answer's err or data; every script the web
// view is given is a well-formed onWebViewCall whose argument is exactly
// the message sent (checked in-process, and by the engine checker with
// APPEX_FUZZ_SCRIPTS).
#include <boost/json/serialize.hpp>

#include <cstddef>
#include <cstdint>

#include "bridge/bridge_script.h"
#include "bridge/wk_web_view_bridge.h"
#include "core/main_queue.h"
#include "fuzz/support/composed_script.h"
#include "fuzz/support/fuzz_value.h"
#include "fuzz/support/world.h"
#include "host/json.h"
#include "host/message.h"
#include "tests/bridge/fake_web_view.h"

using namespace appex;
using namespace appex::fuzz;

namespace {

constexpr std::string_view kChannel = "__default__";

bool isNone(const std::optional<AnyValue>& v) {
  return v && v->is_string() && v->get_string() == "none";
}

// The line a DEBUG or LOG post must write, built independently of the
// bridge's own formatting code.
std::string expectedLine(const Message& m) {
  std::string line = m.type == MessageType::debug ? "!!! BG Webview Debug: " : "$$$ BG Webview Log: ";
  line += m.data ? "Optional(" + boost::json::serialize(*m.data) + ")" : "nil";
  return line;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  AnyValue body = decodeInput(data, size);
  std::optional<AnyValue> replyWith;
  bool pending = false;
  if (const AnyValue* inner = member(body, "body")) {
    if (const AnyValue* r = member(body, "reply")) replyWith = *r;
    if (const AnyValue* p = member(body, "pending")) pending = asBool(*p).value_or(false);
    body = AnyValue(*inner);
  }

  // State the bridge's callbacks touch; declared before the bridge so it
  // outlives it.
  std::vector<Message> handled;
  int pendingCalls = 0;
  std::optional<Result> pendingResult;

  auto view = std::make_shared<testing::FakeWebView>();
  auto bridge = WKWebViewBridge::create("BG", view);
  bridge->registerHandler(std::string(kChannel), [&](const Message& ask, IBridge::Reply reply) {
    handled.push_back(ask);
    if (isNone(replyWith)) return;
    if (const AnyValue* err = replyWith ? member(*replyWith, "err") : nullptr; err && err->is_string()) {
      reply(failure(std::string(err->get_string())));
    } else {
      reply(replyWith ? success(*replyWith) : Result(ask.args));
    }
  });

  std::string pendingUid;
  if (pending) {
    bridge->ask(std::string(kChannel), "native.ping", AnyValue("x"), [&](Result r) {
      ++pendingCalls;
      pendingResult = std::move(r);
    });
    MainQueue::shared().runUntilIdle();
    APPEX_FUZZ_CHECK(view->evaluated.size() == 1);
    const std::string argument = checkComposedScript(view->evaluated[0], kChannel, std::nullopt);
    pendingUid = Message::parse(*JSON::parse(argument))->uid;
    view->evaluated.clear();
    substituteStrings(body, [&](std::string_view s) -> std::optional<std::string> {
      if (s == "$PENDING") return pendingUid;
      return std::nullopt;
    });
  }

  World::takeLog();  // installs the capture on first use
  APPEX_FUZZ_CHECK(view->postFromPage("Webview_Bridge", body), "the bridge listens on Webview_Bridge");
  MainQueue::shared().runUntilIdle();
  const std::vector<std::string> log = World::takeLog();

  // What the post was, judged independently.
  const Dictionary* d = body.if_object();
  const std::optional<std::string> channel = d ? asString(*d, "channelName") : std::nullopt;
  const std::optional<Message> message = d && channel ? Message::parse(*d) : std::nullopt;

  const bool diagnostic = message && (message->type == MessageType::debug || message->type == MessageType::log);
  if (diagnostic) {
    APPEX_FUZZ_CHECK(log.size() == 1 && log[0] == expectedLine(*message),
                     "a DEBUG or LOG post writes its one line verbatim");
  }
  if (message && message->type == MessageType::inject) {
    APPEX_FUZZ_CHECK(view->evaluated.size() == 1 && view->evaluated[0] == bridgeScript(),
                     "INJECT evaluates the bridge script once");
    return 0;
  }

  const bool ask = message && message->type == MessageType::ask && *channel == kChannel;
  APPEX_FUZZ_CHECK(handled.size() == (ask ? 1u : 0u), "the handler runs once per ask on its channel only");
  if (ask) {
    APPEX_FUZZ_CHECK(identical(AnyValue(handled[0].build()), AnyValue(message->build())),
                     "the handler gets the ask as posted");
  }
  // An answer holding a number JSON cannot write is not sent (the page's
  // own time-out ends its wait); pages cannot post such numbers anyway.
  const std::optional<AnyValue>& replyData = replyWith ? replyWith : (message ? message->args : std::nullopt);
  const AnyValue* replyErr = replyWith ? member(*replyWith, "err") : nullptr;
  const bool fails = replyErr && replyErr->is_string();
  const bool writable = fails || !(replyData && hasNonFiniteNumber(*replyData));
  const bool answered = ask && !isNone(replyWith) && writable;
  APPEX_FUZZ_CHECK(view->evaluated.size() == (answered ? 1u : 0u), "one answer per answered ask, nothing else");
  if (answered) {
    Message expected;
    expected.type = MessageType::answer;
    expected.uid = message->uid;
    expected.frameId = message->frameId;
    if (fails) {
      expected.err = std::string(replyErr->get_string());
    } else {
      expected.data = replyWith ? std::optional<AnyValue>(*replyWith) : message->args;
    }
    checkComposedScript(view->evaluated[0], kChannel, AnyValue(expected.build()));
  }

  if (pending) {
    const bool completes = message && message->type == MessageType::answer && message->uid == pendingUid;
    APPEX_FUZZ_CHECK(pendingCalls == (completes ? 1 : 0), "an answer completes its ask once, others none");
    if (completes && message->err) {
      APPEX_FUZZ_CHECK(!pendingResult->has_value() && pendingResult->error().text == *message->err);
    } else if (completes) {
      APPEX_FUZZ_CHECK(pendingResult->has_value() && pendingResult->value() && message->data &&
                       identical(*pendingResult->value(), *message->data));
    }
  }
  return 0;
}
