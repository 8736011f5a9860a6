// The soak's driver threads and the asks they send: each draws a kind by
// weight, writes the ask in the ledger (and against the tab it depends on),
// then sends it from a content page or from the background page.
#include <cstdio>
#include <utility>

#include "bench/soak_harness.h"
#include "bench/soak_requests.h"
#include "core/main_queue.h"

namespace appex::soak {

using namespace std::chrono_literals;

void Harness::drive(unsigned driver, std::size_t end) {
  std::mt19937_64 random(options_.seed * 1000003ull + driver * 7919ull + next_.load());
  for (;;) {
    const std::size_t index = next_.fetch_add(1);
    if (index >= end || stalled_) break;
    if (options_.browserCloseEvery && index % options_.browserCloseEvery == options_.browserCloseEvery / 2) {
      closeByBrowser();
    }
    perform(index, random);
  }
  driversRunning_.fetch_sub(1);
}

// Takes an open slot for an ask from one of its pages: records the ask in
// the ledger and against the slot's current tab. Nothing if no slot is open
// (the ask is then not sent).
std::optional<Picked> Harness::pick(std::mt19937_64& random, std::size_t index, AskKind kind, std::int8_t frameId,
                                    std::uint64_t expect, bool holdsWindow) {
  std::uniform_int_distribution<std::size_t> any(0, slots_.size() - 1);
  for (int attempt = 0; attempt < 64; ++attempt) {
    const std::size_t i = any(random);
    Slot& slot = *slots_[i];
    std::lock_guard lock(slot.mutex);
    if (!refreshOpening(slot)) continue;
    Picked p;
    p.slot = static_cast<std::int32_t>(i);
    p.generation = slot.generation;
    p.page = frameId == 0 ? slot.pages.front() : slot.pages.back();
    p.tabId = slot.tabId;
    p.pageId = slot.pageId;
    ledger_.begin(index, kind, p.slot, slot.generation, frameId, expect, holdsWindow);
    slot.asks.push_back(static_cast<std::uint32_t>(index));
    return p;
  }
  return std::nullopt;
}

// The id of some tab, open or not: what a page would have kept from an
// earlier answer.
std::string Harness::anyTabId(std::mt19937_64& random) {
  std::uniform_int_distribution<std::size_t> any(0, slots_.size() - 1);
  Slot& slot = *slots_[any(random)];
  std::lock_guard lock(slot.mutex);
  return slot.tabId.empty() ? std::string("00000000-0000-0000-0000-000000000000") : slot.tabId;
}

void Harness::sendFromPage(const Picked& from, const Message& message) {
  from.page->sendMessageToExtension(kMessageName, message.build());
}

void Harness::sendFromBackground(std::size_t index, AskKind kind, std::int32_t slot, std::uint32_t generation,
                                 std::uint64_t expect, AnyValue req, bool holdsWindow) {
  ledger_.begin(index, kind, slot, generation, 0, expect, holdsWindow);
  MainQueue::shared().post(
      [this, uid = uidFor('b', index), req = std::move(req)]() mutable { background_->ask(uid, std::move(req)); });
}

// One ask of a kind drawn by weight: content pages' asks first, then the
// background page's, as a busy extension's mix might be.
void Harness::perform(std::size_t index, std::mt19937_64& random) {
  if (options_.closeEvery && index % options_.closeEvery == options_.closeEvery - 1) {
    closeWithTabsRemove(index);
    return;
  }
  static constexpr std::pair<AskKind, int> kWeights[] = {
      {AskKind::pageToBackground, 300},    {AskKind::pageStorageGet, 70},       {AskKind::pageStorageSet, 15},
      {AskKind::pageTabsQuery, 50},        {AskKind::pageTabsGet, 60},          {AskKind::pageValidateTop, 40},
      {AskKind::pageValidateInner, 25},    {AskKind::pageToPopup, 20},          {AskKind::pageNotMessaging, 8},
      {AskKind::pageNoRequest, 8},         {AskKind::pageBadTarget, 8},         {AskKind::pageToTab, 8},
      {AskKind::pageUnparsable, 8},        {AskKind::backgroundTabsQuery, 40},  {AskKind::backgroundTabsGet, 40},
      {AskKind::backgroundStorageGet, 40}, {AskKind::backgroundStorageSet, 10}, {AskKind::backgroundToTab, 80},
      {AskKind::backgroundToPage, 50},     {AskKind::backgroundTabsUpdate, 15}, {AskKind::backgroundToPopup, 15},
      {AskKind::backgroundToSelf, 10},
  };
  static const int kTotal = [] {
    int t = 0;
    for (auto& [k, w] : kWeights) t += w;
    return t;
  }();
  int roll = std::uniform_int_distribution<int>(0, kTotal - 1)(random);
  AskKind kind = AskKind::pageToBackground;
  for (auto& [k, w] : kWeights) {
    if (roll < w) {
      kind = k;
      break;
    }
    roll -= w;
  }

  const bool owed = info(kind).owed;
  if (owed && !ledger_.reserve(30s)) {
    std::fprintf(stderr, "soak: no answer came for 30 s; %lld asks outstanding\n",
                 static_cast<long long>(ledger_.inFlight()));
    stalled_ = true;
    return;
  }
  const std::string uid = uidFor(kind < AskKind::backgroundTabsQuery ? 'p' : 'b', index);
  std::string key = "k";  // appended: GCC 12 warns falsely (-Wrestrict) on "k" + std::to_string(...)
  key += std::to_string(random() % options_.storageKeys);

  if (kind < AskKind::backgroundTabsQuery) {
    // From a content page. Inner-frame asks come from a tab's second page
    // where it has one.
    const bool inner = kind == AskKind::pageValidateInner || random() % 8 == 0;
    const std::int8_t frameId = inner ? 3 : 0;
    std::uint64_t expect = 0;
    std::string askedId;
    if (kind == AskKind::pageTabsGet) {
      askedId = anyTabId(random);
      expect = hashOf(askedId);
    }
    auto from = pick(random, index, kind, frameId, expect, owed);
    if (!from) {
      if (owed) ledger_.unreserve();
      return;
    }
    Message m{MessageType::ask, uid, {}, {}, "messaging", {}, frameId};
    switch (kind) {
      case AskKind::pageToBackground:
        m.args = request(
            "background", "ping",
            Dictionary{{"n", static_cast<std::int64_t>(index)}, {"expectTab", from->tabId}, {"meta", Dictionary{}}});
        break;
      case AskKind::pageStorageGet:
        m.args = request("api", "storage.local.get", List{AnyValue(key), AnyValue("k0")});
        break;
      case AskKind::pageStorageSet:
        m.args = request("api", "storage.local.set", Dictionary{{key, "v" + std::to_string(index)}});
        break;
      case AskKind::pageTabsQuery: {
        static const char* kFilters[] = {nullptr, "active", "currentWindow"};
        Dictionary filter;
        if (const char* f = kFilters[random() % 3]) filter[f] = true;
        m.args = request("api", "tabs.query", std::move(filter));
        break;
      }
      case AskKind::pageTabsGet:
        m.args = request("api", "tabs.get", AnyValue(askedId));
        break;
      case AskKind::pageValidateTop:
      case AskKind::pageValidateInner:
        m.cmd = "VALIDATE_TAB";
        break;
      case AskKind::pageToPopup:
        m.args = request("popup", "ping", Dictionary{{"n", 1}});
        break;
      case AskKind::pageNotMessaging:
        m.cmd = "notMessaging";
        m.args = request("background", "ping");
        break;
      case AskKind::pageNoRequest:
        m.args = AnyValue(42);
        break;
      case AskKind::pageBadTarget:
        m.args = Dictionary{{"target", 7}, {"action", Dictionary{{"cmd", "ping"}}}};
        break;
      case AskKind::pageToTab:
        m.args = request(from->tabId + "/" + from->pageId, "ping");
        break;
      case AskKind::pageUnparsable:
        from->page->sendMessageToExtension(kMessageName, Dictionary{{"type", "NOT_A_TYPE"}, {"uid", uid}});
        return;
      default:
        break;
    }
    sendFromPage(*from, m);
    return;
  }

  // From the background page.
  switch (kind) {
    case AskKind::backgroundTabsQuery:
      sendFromBackground(index, kind, Ledger::kNoSlot, 0, 0, request("api", "tabs.query", Dictionary{}));
      break;
    case AskKind::backgroundTabsGet: {
      std::string id = anyTabId(random);
      sendFromBackground(index, kind, Ledger::kNoSlot, 0, hashOf(id), request("api", "tabs.get", AnyValue(id)));
      break;
    }
    case AskKind::backgroundStorageGet:
      sendFromBackground(index, kind, Ledger::kNoSlot, 0, 0, request("api", "storage.local.get", List{AnyValue(key)}));
      break;
    case AskKind::backgroundStorageSet:
      sendFromBackground(index, kind, Ledger::kNoSlot, 0, 0,
                         request("api", "storage.local.set", Dictionary{{key, "b" + std::to_string(index)}}));
      break;
    case AskKind::backgroundToTab:
    case AskKind::backgroundToPage:
    case AskKind::backgroundTabsUpdate: {
      // Addressed to an open tab; its answer depends on that tab.
      std::uniform_int_distribution<std::size_t> any(0, slots_.size() - 1);
      bool sent = false;
      for (int attempt = 0; attempt < 64 && !sent; ++attempt) {
        const std::size_t i = any(random);
        Slot& slot = *slots_[i];
        std::string target;
        std::uint32_t generation = 0;
        {
          std::lock_guard lock(slot.mutex);
          if (!refreshOpening(slot)) continue;
          generation = slot.generation;
          target = kind == AskKind::backgroundToPage ? slot.tabId + "/" + slot.pageId : slot.tabId;
          // tabs.update always answers (a failure once the tab is gone), so
          // a closing need not wait for it; the slot it names only serves to
          // judge an answer that names another tab.
          if (kind != AskKind::backgroundTabsUpdate) slot.asks.push_back(static_cast<std::uint32_t>(index));
          const auto tie = static_cast<std::int32_t>(i);
          if (kind == AskKind::backgroundTabsUpdate) {
            sendFromBackground(
                index, kind, tie, generation, hashOf(target),
                request("api", "tabs.update",
                        Dictionary{{"id", target},
                                   {"url", "https://site" + std::to_string(i) + ".example/u" + std::to_string(index)},
                                   {"active", true}}));
          } else {
            sendFromBackground(index, kind, tie, generation, 0,
                               request(target, "hello", Dictionary{{"n", static_cast<std::int64_t>(index)}}));
          }
        }
        sent = true;
      }
      if (!sent) ledger_.unreserve();
      break;
    }
    case AskKind::backgroundToPopup:
      sendFromBackground(index, kind, Ledger::kNoSlot, 0, 0, request("popup", "ping"));
      break;
    case AskKind::backgroundToSelf:
      sendFromBackground(index, kind, Ledger::kNoSlot, 0, 0, request("background", "ping"));
      break;
    default:
      break;
  }
}

}  // namespace appex::soak
