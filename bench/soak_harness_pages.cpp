// What pages do: the content scripts of the simulated tabs, which check the
// answers they get and echo what the background page asks them, and the
// background page's side, which answers routed asks and checks the answers
// to its own.
#include <boost/json/serialize.hpp>

#include <cstdio>

#include "bench/soak_harness.h"
#include "bench/soak_requests.h"

namespace appex::soak {

sim::SimPage::ContentScript Harness::contentScript(std::size_t slot, std::uint32_t generation) {
  return [this, slot, generation](const std::shared_ptr<sim::SimPage>& page, const sim::DispatchedMessage& d) {
    auto message = Message::parse(d.userInfo);
    if (d.name != kMessageName || !message) {
      strayPageMessages_.fetch_add(1);
      return;
    }
    if (message->type == MessageType::answer) {
      onPageAnswer(slot, generation, *message);
    } else if (message->type == MessageType::ask) {
      onTabAsk(page, *message);
    } else {
      strayPageMessages_.fetch_add(1);
    }
  };
}

// An answer dispatched into a page: it must be for an ask this page sent,
// carry its frame id back, and hold what the target gives.
void Harness::onPageAnswer(std::size_t slot, std::uint32_t generation, const Message& answer) {
  auto index = indexOf(answer.uid, 'p');
  if (!index || *index >= ledger_.capacity()) {
    ledger_.stray();
    return;
  }
  const Ledger::Record& r = ledger_.at(*index);
  bool ok = r.slot == static_cast<std::int32_t>(slot) && r.generation == generation &&
            answer.frameId == std::optional<std::int64_t>(r.frameId);
  switch (r.kind) {
    case AskKind::pageToBackground:
      ok = ok && echoes(answer, *index);
      break;
    case AskKind::pageStorageGet:
      ok = ok && !answer.err && answer.data && answer.data->is_object();
      break;
    case AskKind::pageStorageSet:
    case AskKind::pageValidateTop:
    case AskKind::pageValidateInner:
      ok = ok && !answer.err && isTrue(answer.data);
      break;
    case AskKind::pageTabsQuery:
      ok = ok && !answer.err && answer.data && answer.data->is_array();
      break;
    case AskKind::pageTabsGet:
      ok = ok &&
           (namesTab(answer, r.expect) || (answer.err && answer.err->starts_with("[tabs.get] no tab found with id: ") &&
                                           hashOf(answer.err->substr(33)) == r.expect));
      break;
    default:
      break;  // never owed: recordAnswer() counts it as unexpected
  }
  if (!ok) noteWrongAnswer(r.kind, answer);
  ledger_.recordAnswer(*index, ok);
}

// Shows the first few wrong answers, for whoever has to find out why.
void Harness::noteWrongAnswer(AskKind kind, const Message& answer) {
  if (wrongShown_.fetch_add(1) >= 5) return;
  std::fprintf(stderr, "wrong answer to %s: %s\n", info(kind).name, boost::json::serialize(answer.build()).c_str());
}

// An ask dispatched into a page (a storage change, or the background page
// addressing the tab): the content script answers it, echoing "n".
void Harness::onTabAsk(const std::shared_ptr<sim::SimPage>& page, const Message& ask) {
  Message reply{MessageType::answer, ask.uid, {}, {}, {}, {}, {}};
  if (ask.cmd == "storage.onChanged") {
    storageChangesAtPages_.fetch_add(1, std::memory_order_relaxed);
    reply.data = true;  // an answer with neither data nor err is no message
  } else {
    tabAsksAtPages_.fetch_add(1, std::memory_order_relaxed);
    if (const AnyValue* n = member(ask.args, "n")) reply.data = Dictionary{{"n", *n}};
  }
  page->sendMessageToExtension(kMessageName, reply.build());
}

// A content page's ask routed to the background page: its meta must name
// the sending tab; the page echoes "n".
BackgroundPage::Reply Harness::onRoutedAsk(const Message& ask) {
  const AnyValue* meta = member(ask.args, "meta");
  const AnyValue* expectTab = member(ask.args, "expectTab");
  const AnyValue* tabId = meta && meta->is_object() ? meta->as_object().if_contains("tabId") : nullptr;
  const AnyValue* n = member(ask.args, "n");
  if (!tabId || !expectTab || *tabId != *expectTab) {
    // Judged at the end: harmless if the sending tab closed meanwhile.
    if (n && n->is_int64() && static_cast<std::size_t>(n->as_int64()) < ledger_.capacity()) {
      ledger_.at(static_cast<std::size_t>(n->as_int64())).flagged = true;
    } else {
      metaMismatches_.fetch_add(1);
    }
  }
  if (loadStarted_ && dropsLeft_.load() > 0 && dropsLeft_.fetch_sub(1) > 0) {
    return {false, {}};
  }
  return {true, n ? std::optional<AnyValue>(Dictionary{{"n", *n}}) : std::nullopt};
}

void Harness::onBackgroundAnswer(const Message& answer) {
  auto index = indexOf(answer.uid, 'b');
  if (!index || *index >= ledger_.capacity()) {
    ledger_.stray();
    return;
  }
  const Ledger::Record& r = ledger_.at(*index);
  bool ok = true;
  switch (r.kind) {
    case AskKind::backgroundTabsQuery:
      ok = !answer.err && answer.data && answer.data->is_array();
      break;
    case AskKind::backgroundTabsGet:
      ok = namesTab(answer, r.expect) || (answer.err && answer.err->starts_with("[tabs.get] no tab found with id: ") &&
                                          hashOf(answer.err->substr(33)) == r.expect);
      break;
    case AskKind::backgroundStorageGet:
      ok = !answer.err && answer.data && answer.data->is_object();
      break;
    case AskKind::backgroundStorageSet:
    case AskKind::backgroundTabsRemove:
      ok = !answer.err && isTrue(answer.data);
      break;
    case AskKind::backgroundToTab:
    case AskKind::backgroundToPage:
      // A tab removed meanwhile is no longer known to the registry.
      ok = echoes(answer, *index) || (answer.err && answer.err->starts_with("Tab not found for id "));
      break;
    case AskKind::backgroundTabsUpdate:
      ok = namesTab(answer, r.expect) ||
           answer.err == std::optional<std::string>("[tabs.update] Failed to create tab for unknown reason");
      if (!ok && member(answer.data, "id")) {
        // Another tab's form: judged at the end, against whether the tab
        // was being closed meanwhile.
        ledger_.at(*index).flagged = true;
        ok = true;
      }
      break;
    default:
      break;
  }
  if (!ok) noteWrongAnswer(r.kind, answer);
  const bool first = ledger_.recordAnswer(*index, ok);
  if (first && r.kind == AskKind::backgroundTabsRemove) {
    tabsRemoved_.fetch_add(1);
    finishClose(static_cast<std::size_t>(r.expect), r.generation);
  }
}

}  // namespace appex::soak
