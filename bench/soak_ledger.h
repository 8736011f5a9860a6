// The soak harness's ledger: one record per ask it sends, saying whether the
// system owes that ask an answer, which tab the answer depends on, and how
// many answers came back.
//
// An ask is either owed an answer (the router promises one: API commands,
// the background page, a tab's content script, VALIDATE_TAB) or never
// answered by design (the popup while none is open, requests the router or
// the page intake refuses). An owed ask that was in flight when the tab it
// depends on (the one that sent it, or the one it was addressed to) was
// closed under it may be "lost": nobody is left to receive the answer. The
// harness names those asks; every other owed ask must end answered exactly
// once, however long before its tab closed it was sent.
//
// Records live in one array sized before the run, so the ledger's own
// memory does not grow while resident memory is being measured. Owed asks
// hold a slot of the in-flight window until answered or lost; that is what
// keeps the load from outrunning the system.
//
// Thread-safe: begin() for an index happens-before any recordAnswer(),
// abandon() or orphan() of it (the caller publishes the ask only after begin()).
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <semaphore>
#include <string>
#include <string_view>
#include <vector>

namespace appex::soak {

// What an ask was, which decides whether and how it is answered.
enum class AskKind : std::uint8_t {
  pageToBackground,   // content page -> background page, echoed by it
  pageStorageGet,     // content page -> api storage.local.get
  pageStorageSet,     // content page -> api storage.local.set (fans out storage.onChanged)
  pageTabsQuery,      // content page -> api tabs.query
  pageTabsGet,        // content page -> api tabs.get
  pageValidateTop,    // VALIDATE_TAB from frame 0: answered, then the tab is rebuilt
  pageValidateInner,  // VALIDATE_TAB from an inner frame: answered, no rebuild
  pageToPopup,        // no popup is open: never answered
  pageNotMessaging,   // refused, "Exit 1"
  pageNoRequest,      // refused, "Exit 2"
  pageBadTarget,      // refused, "Exit 3"
  pageToTab,          // a content page may not address a tab: "Exit 4"
  pageUnparsable,     // user info that is no message: "M Exit 3"
  backgroundTabsQuery,
  backgroundTabsGet,
  backgroundStorageGet,
  backgroundStorageSet,
  backgroundToTab,       // background -> every page of a tab, echoed by its content script
  backgroundToPage,      // background -> one page of a tab ("<tab>/<page>")
  backgroundTabsUpdate,  // navigate and activate: answered with the rebuilt tab
  backgroundTabsRemove,  // closes a tab: answered true
  backgroundToPopup,     // never answered
  backgroundToSelf,      // the background page may not address itself: "Exit 4"
  count
};

struct AskKindInfo {
  const char* name;
  bool owed;            // the system owes it exactly one answer
  const char* logLine;  // the refusal line it must produce, or nullptr
};

inline const AskKindInfo& info(AskKind kind) {
  static const std::array<AskKindInfo, static_cast<std::size_t>(AskKind::count)> table{{
      {"page -> background", true, nullptr},
      {"page -> storage.local.get", true, nullptr},
      {"page -> storage.local.set", true, nullptr},
      {"page -> tabs.query", true, nullptr},
      {"page -> tabs.get", true, nullptr},
      {"page VALIDATE_TAB frame 0", true, nullptr},
      {"page VALIDATE_TAB inner frame", true, nullptr},
      {"page -> popup (none open)", false, nullptr},
      {"page, not a messaging ask", false, "Exit 1"},
      {"page, no request", false, "Exit 2"},
      {"page, malformed target", false, "Exit 3"},
      {"page -> tab (refused)", false, "Exit 4"},
      {"page, no message", false, "M Exit 3"},
      {"background -> tabs.query", true, nullptr},
      {"background -> tabs.get", true, nullptr},
      {"background -> storage.local.get", true, nullptr},
      {"background -> storage.local.set", true, nullptr},
      {"background -> tab", true, nullptr},
      {"background -> tab/page", true, nullptr},
      {"background -> tabs.update", true, nullptr},
      {"background -> tabs.remove", true, nullptr},
      {"background -> popup (none open)", false, nullptr},
      {"background -> background (refused)", false, "Exit 4"},
  }};
  return table[static_cast<std::size_t>(kind)];
}

class Ledger {
 public:
  static constexpr std::int32_t kNoSlot = -1;

  enum State : std::uint8_t {
    unused,
    owed,       // waiting for its one answer
    neverOwed,  // no answer will come, by design
    answered,
    lost,      // owed, but its tab closed first: nobody left to answer or receive
    orphaned,  // never owed, and its sending tab closed: may not have reached the system
  };

  struct Record {
    std::atomic<std::uint8_t> state{unused};
    std::atomic<std::uint16_t> answers{0};
    AskKind kind = AskKind::count;
    bool holdsWindow = false;
    std::int8_t frameId = 0;
    // The tab slot and generation whose closing makes the ask lost
    // (kNoSlot: nothing but the system can lose it).
    std::int32_t slot = kNoSlot;
    std::uint32_t generation = 0;
    // A kind-specific value the answer must carry back (a tab id's hash,
    // a slot index).
    std::uint64_t expect = 0;
    std::uint32_t sentAtMs = 0;  // since the ledger was made
    // Set when something looked wrong that a tab closing at the same time
    // may explain (judged once the run is over).
    std::atomic<bool> flagged{false};
  };

  Ledger(std::size_t capacity, std::ptrdiff_t window)
      : records_(std::make_unique<Record[]>(capacity)), capacity_(capacity), window_(window) {}

  std::size_t capacity() const { return capacity_; }
  Record& at(std::size_t index) { return records_[index]; }
  const Record& at(std::size_t index) const { return records_[index]; }

  // Waits for room in the in-flight window before an owed ask is sent.
  // False if none came within `patience` (the system stopped answering).
  bool reserve(std::chrono::milliseconds patience) { return window_.try_acquire_for(patience); }
  // Gives back a reservation that was not used for an ask.
  void unreserve() { window_.release(); }

  // Fills the record of an ask about to be sent. `holdsWindow`: the ask
  // took a reservation, returned when it is answered or lost.
  void begin(std::size_t index, AskKind kind, std::int32_t slot, std::uint32_t generation, std::int8_t frameId,
             std::uint64_t expect, bool holdsWindow) {
    Record& r = records_[index];
    r.kind = kind;
    r.slot = slot;
    r.generation = generation;
    r.frameId = frameId;
    r.expect = expect;
    r.holdsWindow = holdsWindow && info(kind).owed;
    r.sentAtMs = nowMs();
    r.answers.store(0, std::memory_order_relaxed);
    r.flagged.store(false, std::memory_order_relaxed);
    if (info(kind).owed) inFlight_.fetch_add(1, std::memory_order_acq_rel);
    r.state.store(info(kind).owed ? owed : neverOwed, std::memory_order_release);
  }

  // An answer to ask `index` arrived; `wellFormed` says whether it carried
  // what that ask should get back (right page, frame id, content). True for
  // the first answer to an owed ask.
  bool recordAnswer(std::size_t index, bool wellFormed) {
    if (index >= capacity_) {
      strays_.fetch_add(1, std::memory_order_relaxed);
      return false;
    }
    Record& r = records_[index];
    const std::uint16_t before = r.answers.fetch_add(1, std::memory_order_acq_rel);
    if (before > 0) duplicates_.fetch_add(1, std::memory_order_relaxed);
    if (!wellFormed) malformed_.fetch_add(1, std::memory_order_relaxed);
    std::uint8_t expected = owed;
    if (r.state.compare_exchange_strong(expected, answered, std::memory_order_acq_rel)) {
      const std::uint32_t latency = nowMs() - r.sentAtMs;
      latencySum_.fetch_add(latency, std::memory_order_relaxed);
      latencyCount_.fetch_add(1, std::memory_order_relaxed);
      for (auto max = latencyMax_.load(); latency > max && !latencyMax_.compare_exchange_weak(max, latency);) {
      }
      settle(r);
      return true;
    }
    switch (expected) {
      case neverOwed:
      case orphaned:
        unexpected_.fetch_add(1, std::memory_order_relaxed);
        break;
      case lost:
        answeredAfterClose_.fetch_add(1, std::memory_order_relaxed);
        break;
      case unused:
        strays_.fetch_add(1, std::memory_order_relaxed);
        break;
      default:
        break;  // a duplicate, counted above
    }
    return false;
  }

  // Ask `index` was in flight when the tab it depends on was closed under
  // it: if still unanswered, it is lost rather than missing.
  void abandon(std::size_t index) {
    Record& r = records_[index];
    std::uint8_t expected = owed;
    if (r.state.compare_exchange_strong(expected, lost, std::memory_order_acq_rel)) settle(r);
  }

  // The tab that sent ask `index` has closed: a refused ask may not have
  // reached the system in time to be refused.
  void orphan(std::size_t index) {
    std::uint8_t expected = neverOwed;
    records_[index].state.compare_exchange_strong(expected, orphaned, std::memory_order_acq_rel);
  }

  // Counts for the report.
  struct Totals {
    static constexpr std::size_t kKinds = static_cast<std::size_t>(AskKind::count);
    std::uint64_t sent = 0, owed = 0, answered = 0, missing = 0, lost = 0, neverOwed = 0, orphaned = 0;
    std::uint64_t duplicates = 0, malformed = 0, unexpected = 0, strays = 0, answeredAfterClose = 0;
    std::array<std::uint64_t, kKinds> byKind{};
    std::array<std::uint64_t, kKinds> answeredByKind{};
    std::array<std::uint64_t, kKinds> missingByKind{};
    std::array<std::uint64_t, kKinds> lostByKind{};
    std::array<std::uint64_t, kKinds> orphanedByKind{};
  };

  // Totals over the records below `end`.
  Totals totals(std::size_t end) const {
    Totals t;
    for (std::size_t i = 0; i < end && i < capacity_; ++i) {
      const Record& r = records_[i];
      const auto state = r.state.load(std::memory_order_acquire);
      if (state == unused) continue;
      const auto k = static_cast<std::size_t>(r.kind);
      ++t.byKind[k];
      ++t.sent;
      if (info(r.kind).owed) ++t.owed;
      switch (state) {
        case owed:
          ++t.missing;
          ++t.missingByKind[k];
          break;
        case neverOwed:
          ++t.neverOwed;
          break;
        case orphaned:
          ++t.neverOwed;
          ++t.orphaned;
          ++t.orphanedByKind[k];
          break;
        case answered:
          ++t.answered;
          ++t.answeredByKind[k];
          break;
        case lost:
          ++t.lost;
          ++t.lostByKind[k];
          break;
        default:
          break;
      }
    }
    t.duplicates = duplicates_.load();
    t.malformed = malformed_.load();
    t.unexpected = unexpected_.load();
    t.strays = strays_.load();
    t.answeredAfterClose = answeredAfterClose_.load();
    return t;
  }

  // Milliseconds from sending an owed ask to its first answer.
  double meanLatencyMs() const {
    const auto n = latencyCount_.load();
    return n ? static_cast<double>(latencySum_.load()) / static_cast<double>(n) : 0.0;
  }
  std::uint32_t maxLatencyMs() const { return latencyMax_.load(); }

  // Owed asks neither answered nor lost yet.
  std::int64_t inFlight() const { return inFlight_.load(std::memory_order_acquire); }

  // An answer whose uid names no ask of this run.
  void stray() { strays_.fetch_add(1, std::memory_order_relaxed); }

 private:
  std::uint32_t nowMs() const {
    return static_cast<std::uint32_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start_).count());
  }

  void settle(const Record& r) {
    inFlight_.fetch_sub(1, std::memory_order_acq_rel);
    if (r.holdsWindow) window_.release();
  }

  std::unique_ptr<Record[]> records_;
  const std::size_t capacity_;
  std::counting_semaphore<1 << 20> window_;
  std::atomic<std::int64_t> inFlight_{0};
  std::atomic<std::uint64_t> duplicates_{0};
  std::atomic<std::uint64_t> malformed_{0};
  std::atomic<std::uint64_t> unexpected_{0};
  std::atomic<std::uint64_t> strays_{0};
  std::atomic<std::uint64_t> answeredAfterClose_{0};
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::atomic<std::uint64_t> latencySum_{0};
  std::atomic<std::uint64_t> latencyCount_{0};
  std::atomic<std::uint32_t> latencyMax_{0};
};

// Uids carry the ledger index: "p<index>" for asks from content pages,
// "b<index>" for asks from the background page.
inline std::string uidFor(char origin, std::size_t index) {
  // Appended rather than concatenated: GCC 12 warns falsely (-Wrestrict) on
  // `std::string(1, c) + ...` where it is inlined.
  std::string uid(1, origin);
  uid += std::to_string(index);
  return uid;
}

// The ledger index of `uid` if it was made by uidFor with `origin`.
inline std::optional<std::size_t> indexOf(std::string_view uid, char origin) {
  if (uid.size() < 2 || uid.front() != origin) return std::nullopt;
  std::size_t n = 0;
  for (char c : uid.substr(1)) {
    if (c < '0' || c > '9') return std::nullopt;
    n = n * 10 + static_cast<std::size_t>(c - '0');
  }
  return n;
}

}  // namespace appex::soak
