// The tab registry's page intake (SafariTabAPI::onPageMessage): every
// message a content script sends, with any name and any user info.
//
// Input: a value (see fuzz/support/fuzz_value.h). An object with a
// "userInfo" or "name" member is an envelope:
//   {"name": <message name>, "userInfo": <user info; not an object = none>,
//    "page": 0 top page | 1 its frame | 2 a private window's page |
//            3 the page of a tab closed before the message,
//    "reply": <what the handler answers; {"err": text} fails, "none" keeps
//              the reply unanswered>,
//    "pending": true  (first send an ask to tab 0; "$PENDING" in the user
//                      info stands for its uid, so an ANSWER can complete it)}
// Anything else is the user info itself, under the expected name, from the
// top page. Strings "$TAB0", "$PAGE0"... stand for real identifiers.
//
// Properties: the drop log lines ("M Exit 1".."M Exit 3") match what was
// wrong; the handler sees only asks (never "VALIDATE_TAB"), once, with the
// sending tab's id filled into a routed request's meta; answers reach the
// asking page only, with its uid and frame id; "VALIDATE_TAB" is answered
// once with a boolean; an ANSWER that completes the pending ask calls its
// reply exactly once, with the answer's err or data.
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <thread>

#include "fuzz/support/fuzz_value.h"
#include "fuzz/support/world.h"
#include "host/message.h"
#include "tabs/safari_tab_api.h"

using namespace appex;
using namespace appex::fuzz;

namespace {

struct Envelope {
  std::string name{SafariTabAPI::kMessageName};
  std::optional<Dictionary> userInfo;
  std::size_t page = 0;
  std::optional<AnyValue> reply;
  bool pending = false;
};

Envelope readEnvelope(const AnyValue& value) {
  Envelope e;
  if (!member(value, "userInfo") && !member(value, "name")) {
    if (const auto* d = value.if_object()) e.userInfo = *d;
    return e;
  }
  if (const auto* name = member(value, "name")) e.name = asString(*name).value_or("");
  if (const auto* info = member(value, "userInfo"); info && info->is_object()) e.userInfo = info->get_object();
  if (const auto* page = member(value, "page")) e.page = static_cast<std::size_t>(asInt64(*page).value_or(0) & 3);
  if (const auto* reply = member(value, "reply")) e.reply = *reply;
  if (const auto* pending = member(value, "pending")) e.pending = asBool(*pending).value_or(false);
  return e;
}

int count(const std::vector<std::string>& lines, std::string_view line) {
  int n = 0;
  for (const auto& l : lines) n += l == line;
  return n;
}

std::vector<Message> answersIn(const sim::SimPage& page) {
  std::vector<Message> out;
  for (const auto& d : page.receivedMessages()) {
    APPEX_FUZZ_CHECK(d.name == SafariTabAPI::kMessageName, "pages only get messages under the extension's name");
    auto m = readSentMessage(AnyValue(d.userInfo));
    APPEX_FUZZ_CHECK(m.has_value(), "what reaches a page is a message");
    if (m->type == MessageType::answer) out.push_back(*m);
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Envelope e = readEnvelope(decodeInput(data, size));
  // What the handler saw; outlives the World that may call it.
  std::vector<Message> handled;
  std::mutex handledMutex;
  World world;
  auto tabs = world.context().get<SafariTabAPI>();

  // The page the message comes from.
  std::vector<std::shared_ptr<sim::SimPage>> pages = world.pages;
  auto closedTab = world.windows[0]->addTab("https://closed.test/", "Closed");
  pages.push_back(closedTab->activePage());
  closedTab->close();
  closedTab.reset();
  const std::shared_ptr<sim::SimPage> sender = pages[e.page];

  // An ask to tab 0 waiting for its answer.
  struct Pending {
    std::atomic<int> calls{0};
    std::optional<Result> result;
    std::mutex mutex;
  };
  auto pending = std::make_shared<Pending>();
  std::string pendingUid;
  if (e.pending) {
    tabs->sendToTab(world.tabId(0), std::nullopt, "native.ping", AnyValue("x"), [pending](Result r) {
      std::lock_guard lock(pending->mutex);
      pending->result = std::move(r);
      ++pending->calls;
    });
    world.settle();
    auto asks = world.pages[0]->receivedMessages();
    APPEX_FUZZ_CHECK(!asks.empty(), "an ask to a tab reaches its page");
    pendingUid = asString(asks.back().userInfo, "uid").value_or("");
  }
  if (e.userInfo) {
    AnyValue info(*e.userInfo);
    world.substitute(info);
    substituteStrings(info, [&](std::string_view s) -> std::optional<std::string> {
      if (s == "$PENDING" && !pendingUid.empty()) return pendingUid;
      return std::nullopt;
    });
    e.userInfo = info.get_object();
  }

  // The handler the router would be.
  tabs->setHandler([&](Message ask, ResultCallback reply) {
    {
      std::lock_guard lock(handledMutex);
      handled.push_back(ask);
    }
    if (e.reply && e.reply->is_string() && e.reply->get_string() == "none") return;
    if (const auto* err = e.reply ? member(*e.reply, "err") : nullptr; err && err->is_string()) {
      reply(failure(std::string(err->get_string())));
    } else {
      reply(e.reply ? success(*e.reply) : Result(ask.args));
    }
  });

  world.takeLog();
  // The browser's delivery, straight to the intake (a closed page's own
  // script could no longer send; the intake must still cope).
  tabs->onPageMessage(e.name, e.userInfo, sender);
  world.settle();
  const std::vector<std::string> log = World::takeLog();

  // Why a message was dropped.
  const std::optional<Message> parsed = e.userInfo ? Message::parse(*e.userInfo) : std::nullopt;
  APPEX_FUZZ_CHECK(count(log, "M Exit 1") == (e.name != SafariTabAPI::kMessageName ? 1 : 0));
  if (e.name != SafariTabAPI::kMessageName) {
    APPEX_FUZZ_CHECK(handled.empty());
    return 0;
  }
  APPEX_FUZZ_CHECK(count(log, "M Exit 2") == (e.userInfo ? 0 : 1));
  APPEX_FUZZ_CHECK(count(log, "M Exit 3") == (e.userInfo && !parsed ? 1 : 0));

  // What the handler saw.
  const bool open = e.page != 3;
  const bool validation = parsed && parsed->type == MessageType::ask && parsed->cmd == "VALIDATE_TAB";
  const bool expectHandled = parsed && parsed->type == MessageType::ask && !validation && open;
  APPEX_FUZZ_CHECK(handled.size() == (expectHandled ? 1u : 0u), "the handler gets each ask once, nothing else");
  if (expectHandled) {
    const Message& ask = handled.front();
    APPEX_FUZZ_CHECK(ask.uid == parsed->uid && ask.cmd == parsed->cmd && ask.frameId == parsed->frameId);
    const AnyValue* meta = nullptr;
    if (ask.cmd == "messaging" && ask.args) {
      const AnyValue* action = member(*ask.args, "action");
      const AnyValue* args = action ? member(*action, "args") : nullptr;
      meta = args ? member(*args, "meta") : nullptr;
    }
    if (meta && meta->is_object()) {
      const std::size_t tabIndex = e.page == 2 ? 3 : 0;
      APPEX_FUZZ_CHECK(asString(meta->get_object(), "tabId") == world.tabId(tabIndex), "meta names the sending tab");
    }
  }

  // Who heard back.
  for (std::size_t i = 0; i < pages.size(); ++i) {
    auto answers = answersIn(*pages[i]);
    if (i != e.page) {
      APPEX_FUZZ_CHECK(answers.empty(), "an answer reaches the asking page only");
      continue;
    }
    const bool keptUnanswered = e.reply && e.reply->is_string() && e.reply->get_string() == "none";
    const bool answered = open && ((expectHandled && !keptUnanswered) || validation);
    APPEX_FUZZ_CHECK(answers.size() == (answered ? 1u : 0u), "the asking page gets one answer");
    if (answered) {
      APPEX_FUZZ_CHECK(answers[0].uid == parsed->uid && answers[0].frameId == parsed->frameId,
                       "an answer carries the ask's uid and frame id");
    }
    if (validation && open) {
      APPEX_FUZZ_CHECK(answers[0].data && answers[0].data->is_bool(), "VALIDATE_TAB is answered with a boolean");
    }
  }

  // The pending ask: completed exactly once by an ANSWER with its uid.
  if (e.pending && !tabs->callbacks().contains(pendingUid)) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (pending->calls.load() == 0 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    APPEX_FUZZ_CHECK(pending->calls.load() == 1, "a completed ask's reply runs exactly once");
    std::lock_guard lock(pending->mutex);
    APPEX_FUZZ_CHECK(parsed && parsed->type == MessageType::answer && parsed->uid == pendingUid);
    if (parsed->err) {
      APPEX_FUZZ_CHECK(!pending->result->has_value() && pending->result->error().text == *parsed->err);
    } else {
      APPEX_FUZZ_CHECK(pending->result->has_value() && **pending->result && parsed->data &&
                       identical(***pending->result, *parsed->data));
    }
  }
  return 0;
}
