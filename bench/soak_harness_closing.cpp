// Closing tabs under load and replacing them: the rotation that picks the
// tab, letting its asks be answered first, the few asks sent on purpose
// just before the close, the close itself (tabs.remove from the background
// page, or the browser), and the fresh tab that takes the slot.
#include <thread>
#include <vector>

#include "bench/soak_harness.h"
#include "bench/soak_requests.h"
#include "platform/sim/sim_tab.h"

namespace appex::soak {

using namespace std::chrono_literals;

// The slot whose turn it is to close, if its tab is open: tabs close
// oldest first, so every tab lives about as long as the others.
std::optional<std::size_t> Harness::nextRotation() {
  const std::size_t i = rotation_.fetch_add(1) % slots_.size();
  Slot& slot = *slots_[i];
  std::lock_guard lock(slot.mutex);
  if (!refreshOpening(slot)) return std::nullopt;
  slot.state = Slot::State::closing;
  return i;
}

// True once no ask that depends on the slot's tab is still owed an answer.
bool Harness::settled(std::size_t index, Clock::duration patience) {
  Slot& slot = *slots_[index];
  const auto deadline = Clock::now() + patience;
  for (;;) {
    bool open = false;
    {
      std::lock_guard lock(slot.mutex);
      for (std::uint32_t ask : slot.asks) {
        open = open || ledger_.at(ask).state.load(std::memory_order_acquire) == Ledger::owed;
      }
    }
    if (!open) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
}

// Sends a few asks that depend on the slot's tab (from its pages, and from
// the background page to it) just before the tab is closed under them; only
// these may end lost. REQUIRES: the slot is closing.
void Harness::sendInFlightAtClose(std::size_t index) {
  Slot& slot = *slots_[index];
  std::shared_ptr<sim::SimPage> top, inner;
  std::string tabId;
  std::uint32_t generation;
  std::size_t first = 0;
  constexpr std::size_t kCount = 5;
  {
    std::lock_guard lock(slot.mutex);
    if (slot.pages.empty()) return;
    top = slot.pages.front();
    inner = slot.pages.back();
    tabId = slot.tabId;
    generation = slot.generation;
    first = nextExtra_.fetch_add(kCount);
    if (first + kCount > ledger_.capacity()) return;
    const auto tie = static_cast<std::int32_t>(index);
    ledger_.begin(first, AskKind::pageToBackground, tie, generation, 0, 0, false);
    ledger_.begin(first + 1, AskKind::pageStorageGet, tie, generation, 0, 0, false);
    ledger_.begin(first + 2, AskKind::pageTabsQuery, tie, generation, 3, 0, false);
    ledger_.begin(first + 3, AskKind::pageValidateInner, tie, generation, 3, 0, false);
    for (std::size_t k = 0; k < kCount; ++k) slot.inFlightAtClose.push_back(static_cast<std::uint32_t>(first + k));
  }
  sendFromBackground(first + 4, AskKind::backgroundToTab, static_cast<std::int32_t>(index), generation, 0,
                     request(tabId, "hello", Dictionary{{"n", static_cast<std::int64_t>(first + 4)}}), false);
  auto ask = [](std::size_t n, std::optional<AnyValue> args, std::int64_t frameId, const char* cmd = "messaging") {
    return Message{MessageType::ask, uidFor('p', n), {}, {}, cmd, std::move(args), frameId}.build();
  };
  top->sendMessageToExtension(
      kMessageName,
      ask(first,
          request("background", "ping",
                  Dictionary{{"n", static_cast<std::int64_t>(first)}, {"expectTab", tabId}, {"meta", Dictionary{}}}),
          0));
  top->sendMessageToExtension(kMessageName,
                              ask(first + 1, request("api", "storage.local.get", List{AnyValue("k0")}), 0));
  inner->sendMessageToExtension(kMessageName, ask(first + 2, request("api", "tabs.query", Dictionary{}), 3));
  inner->sendMessageToExtension(kMessageName, ask(first + 3, std::nullopt, 3, "VALIDATE_TAB"));
}

// The background page closes a tab with tabs.remove; the slot reopens when
// the answer (true) arrives. Each closing first lets the tab's asks be
// answered; one in four then closes it under a few fresh ones.
void Harness::closeWithTabsRemove(std::size_t index) {
  auto i = nextRotation();
  if (!i) return;
  settled(*i, kPatience);
  if ((index / options_.closeEvery) % 4 == 0) sendInFlightAtClose(*i);
  Slot& slot = *slots_[*i];
  std::string id;
  std::uint32_t generation;
  {
    std::lock_guard lock(slot.mutex);
    id = slot.tabId;
    generation = slot.generation;
  }
  if (!ledger_.reserve(30s)) {
    stalled_ = true;
    return;
  }
  sendFromBackground(index, AskKind::backgroundTabsRemove, Ledger::kNoSlot, generation, *i,
                     request("api", "tabs.remove", AnyValue(id)));
}

// The user closes a tab in the browser, under a few fresh asks; the
// registry is not told.
void Harness::closeByBrowser() {
  auto i = nextRotation();
  if (!i) return;
  settled(*i, kPatience);
  sendInFlightAtClose(*i);
  Slot& slot = *slots_[*i];
  std::shared_ptr<sim::SimTab> tab;
  std::uint32_t generation;
  {
    std::lock_guard lock(slot.mutex);
    tab = slot.tab;
    generation = slot.generation;
  }
  tab->close();
  tab.reset();
  browserCloses_.fetch_add(1);
  finishClose(*i, generation);
}

// The slot's tab has closed: the asks sent just before are written off if
// unanswered (any other owed ask stays owed, and is missing if it never got
// its answer), and a new tab takes the slot.
void Harness::finishClose(std::size_t index, std::uint32_t generation) {
  Slot& slot = *slots_[index];
  std::vector<std::uint32_t> asks, inFlight;
  {
    std::lock_guard lock(slot.mutex);
    if (slot.generation != generation || slot.state != Slot::State::closing) return;
    asks.assign(slot.asks.begin(), slot.asks.end());
    inFlight.swap(slot.inFlightAtClose);
    slot.asks.clear();
    slot.tab.reset();
    slot.pages.clear();
    ++slot.generation;
  }
  for (std::uint32_t ask : asks) ledger_.orphan(ask);
  for (std::uint32_t ask : inFlight) ledger_.abandon(ask);
  openSlot(index);
}

// Replaces every tab through tabs.remove, with nothing else under way, so
// that each memory checkpoint sees fresh pages (a simulated page keeps every
// message it was sent). Runs on the main queue.
bool Harness::renewAllTabs() {
  for (std::size_t i = 0; i < slots_.size(); ++i) {
    Slot& slot = *slots_[i];
    std::string id;
    std::uint32_t generation;
    {
      std::lock_guard lock(slot.mutex);
      if (!refreshOpening(slot)) continue;
      slot.state = Slot::State::closing;
      id = slot.tabId;
      generation = slot.generation;
    }
    const std::size_t index = nextExtra_.fetch_add(1);
    if (index >= ledger_.capacity()) return false;
    sendFromBackground(index, AskKind::backgroundTabsRemove, Ledger::kNoSlot, generation, i,
                       request("api", "tabs.remove", AnyValue(id)), false);
  }
  return drain(Clock::now() + 60s) && waitForOpenSlots(30s) && drain(Clock::now() + 60s);
}

}  // namespace appex::soak
