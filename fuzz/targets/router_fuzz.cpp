// The router's three entries (SafariMessagingAPI::onBackgroundAsk,
// onPopupAsk, onPageAsk) with arbitrary asks.
//
// Input: a value. An object with an "ask" member is an envelope:
//   {"entry": "background" | "popup" | "page"   (default "background"),
//    "ask": <the ask as a message dictionary>,
//    "answer": <what hosted pages and content scripts answer with>,
//    "fail": <an err text they answer with instead>}
// Anything else is the request itself: the args of a "messaging" ask.
// Strings "$TAB0", "$PAGE0", "$ADDR"... stand for real identifiers, so tab
// addresses can name live tabs and pages.
//
// The background and popup pages are stand-in web views: every ask the
// router puts to them is read back from the script they were given and
// answered through their "Webview_Bridge" handler; pages in tabs answer the
// asks dispatched to them by their content script, later, on the main
// queue.
//
// Properties: the reply runs at most once; a request that cannot be routed
// writes exactly its "Exit n" line and gets no reply; a request the API, the
// background page or the popup answers gets exactly one reply; every script
// given to a web view is one well-formed onWebViewCall whose argument reads
// back as JSON (and goes to the engine checker with APPEX_FUZZ_SCRIPTS).
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <thread>

#include "core/main_queue.h"
#include "fuzz/support/composed_script.h"
#include "fuzz/support/fuzz_value.h"
#include "fuzz/support/world.h"
#include "host/json.h"
#include "host/message.h"
#include "host/safari_messaging_api.h"
#include "tabs/safari_tab_api.h"
#include "tests/bridge/fake_web_view.h"

using namespace appex;
using namespace appex::fuzz;

namespace {

constexpr std::string_view kChannel = "__default__";

struct Envelope {
  std::string entry = "background";
  std::optional<Message> ask;
  AnyValue answer = nullptr;
  std::optional<std::string> fail;
};

Envelope readEnvelope(AnyValue value, World& world) {
  world.substitute(value);
  Envelope e;
  const AnyValue* ask = member(value, "ask");
  if (!ask) {
    e.ask = Message{MessageType::ask, "fuzz-1", {}, {}, "messaging", value, 0};
    return e;
  }
  e.ask = Message::parse(*ask);
  if (const auto* entry = member(value, "entry")) e.entry = asString(*entry).value_or("");
  if (const auto* answer = member(value, "answer")) e.answer = *answer;
  if (const auto* f = member(value, "fail")) e.fail = asString(*f);
  return e;
}

Message answerTo(const Message& ask, const Envelope& e) {
  Message answer;
  answer.type = MessageType::answer;
  answer.uid = ask.uid;
  if (e.fail) {
    answer.err = e.fail;
  } else {
    answer.data = e.answer;
  }
  return answer;
}

// Checks every script the view was given since the last call and answers
// the asks among them as the hosted page would. Returns how many it answered.
int answerHostedPage(testing::FakeWebView& view, const Envelope& e) {
  std::vector<std::string> scripts = std::exchange(view.evaluated, {});
  int answered = 0;
  for (const auto& script : scripts) {
    const std::string argument = checkComposedScript(script, kChannel, std::nullopt);
    auto parsed = JSON::parse(argument);
    auto message = parsed ? readSentMessage(*parsed) : std::nullopt;
    APPEX_FUZZ_CHECK(message.has_value(), "a hosted page is only ever given messages");
    if (message->type != MessageType::ask) continue;
    Dictionary body = answerTo(*message, e).build();
    body["channelName"] = kChannel;
    view.postFromPage("Webview_Bridge", body);
    ++answered;
  }
  return answered;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const AnyValue input = decodeInput(data, size);
  struct Replies {
    std::atomic<int> calls{0};
  };
  auto replies = std::make_shared<Replies>();

  World world;
  Envelope e = readEnvelope(input, world);
  if (!e.ask) return 0;

  auto router = world.context().get<SafariMessagingAPI>();
  auto background = std::make_shared<testing::FakeWebView>();
  auto popup = std::make_shared<testing::FakeWebView>();
  router->setBackgroundWebview(background);
  router->setPopupWebview(popup);
  for (const auto& page : world.pages) {
    std::weak_ptr<sim::SimPage> weakPage = page;
    page->setContentScript([weakPage, e](const std::shared_ptr<sim::SimPage>&, const sim::DispatchedMessage& m) {
      auto ask = readSentMessage(AnyValue(m.userInfo));
      if (!ask || ask->type != MessageType::ask) return;
      MainQueue::shared().post([weakPage, answer = answerTo(*ask, e)] {
        if (auto p = weakPage.lock()) p->sendMessageToExtension("__APP_EXTENSION__", answer.build());
      });
    });
  }
  world.settle();
  answerHostedPage(*background, e);
  World::takeLog();

  ResultCallback reply = [replies](Result) {
    APPEX_FUZZ_CHECK(replies->calls.fetch_add(1) == 0, "a reply runs at most once");
  };
  MessageTarget::Kind refused = MessageTarget::Kind::background;
  if (e.entry == "popup") {
    refused = MessageTarget::Kind::popup;
    router->onPopupAsk(*e.ask, std::move(reply));
  } else if (e.entry == "page") {
    refused = MessageTarget::Kind::tab;
    router->onPageAsk(*e.ask, std::move(reply));
  } else {
    router->onBackgroundAsk(*e.ask, std::move(reply));
  }

  // Let the hosted pages and the tabs answer until nothing moves.
  for (int round = 0; round < 4; ++round) {
    world.settle();
    if (answerHostedPage(*background, e) + answerHostedPage(*popup, e) == 0) break;
  }
  world.settle();
  const std::vector<std::string> log = World::takeLog();

  auto request = SafariMessagingAPI::parseRequest(*e.ask);
  auto logged = [&](std::string_view line) {
    int n = 0;
    for (const auto& l : log) n += l == line;
    return n;
  };
  if (!request) {
    APPEX_FUZZ_CHECK(logged(request.error()) == 1, "an unroutable request writes its exit line");
    APPEX_FUZZ_CHECK(replies->calls.load() == 0, "an unroutable request is not answered");
    return 0;
  }
  const auto kind = request->target.kind;
  if (kind == refused) {
    APPEX_FUZZ_CHECK(logged("Exit 4") == 1, "a refused target writes \"Exit 4\"");
    APPEX_FUZZ_CHECK(replies->calls.load() == 0, "a refused target is not answered");
    return 0;
  }
  // Arguments JSON cannot write never reach a hosted page (pages cannot
  // send such numbers; only the binary input form makes them).
  const auto& args = request->command.args;
  const bool writable = !(args && hasNonFiniteNumber(*args));
  if (kind == MessageTarget::Kind::api ||
      (writable && (kind == MessageTarget::Kind::background || kind == MessageTarget::Kind::popup))) {
    // The API answers every command; the hosted pages answer every ask.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (replies->calls.load() == 0 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::microseconds(50));
      world.settle();
    }
    APPEX_FUZZ_CHECK(replies->calls.load() == 1, "a routed ask to the API or a hosted page is answered once");
  }
  return 0;
}
