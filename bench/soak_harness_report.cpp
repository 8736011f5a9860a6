// The soak's figures and its verdict: the memory checkpoints, taken with
// the system drained, and the report that prints the ledger's totals, the
// refusal lines, the background page's counts, throughput and memory, and
// says which checks failed.
#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "bench/soak_harness.h"

namespace appex::soak {

std::size_t Harness::deadTabEntries() {
  std::size_t dead = 0;
  const auto entries = tabs_->tabCache().list().snapshot();
  for (const auto& entry : *entries) dead += !entry.value->tab().ref();
  return dead;
}

namespace {

// Looks every entry of `cache` up through its indexes, by key and by its
// value's identifier, and counts the answers that differ from what a walk
// of the list from the front finds. Adds the lookups made to `lookups`.
// REQUIRES: nothing writes to the cache meanwhile.
template <class Cache, class IdOf>
std::size_t indexMismatches(const Cache& cache, IdOf idOf, std::size_t& lookups) {
  const auto snapshot = cache.list().snapshot();
  const auto& entries = *snapshot;
  std::size_t wrong = 0;
  for (const auto& entry : entries) {
    const auto id = idOf(entry.value);
    std::ptrdiff_t byId = -1, byKey = -1;
    const auto key = entry.key.ref();
    for (std::size_t j = 0; j < entries.size() && (byId < 0 || (key && byKey < 0)); ++j) {
      if (byId < 0 && idOf(entries[j].value) == id) byId = static_cast<std::ptrdiff_t>(j);
      if (key && byKey < 0) {
        if (auto other = entries[j].key.ref(); other && other->isEqual(*key)) byKey = static_cast<std::ptrdiff_t>(j);
      }
    }
    auto found = cache.findById(id);
    wrong += (found ? found->position : -1) != byId;
    ++lookups;
    if (key) {
      wrong += cache.indexOf(entry.key) != byKey;
      ++lookups;
    }
  }
  return wrong;
}

}  // namespace

std::size_t Harness::recordedPageMessages() {
  std::size_t n = 0;
  for (auto& slot : slots_) {
    std::lock_guard lock(slot->mutex);
    for (auto& page : slot->pages) n += page->receivedMessages().size();
  }
  return n;
}

// Resident memory with the system drained, then again once the replies
// parked in the tab registry are dropped. The registry parks a reply only
// while a live page may still answer it, and every page here answers, so
// at a drained moment the table must be empty; whatever is left is
// counted, its cost measured by dropping it, and the check fails.
//
// The registry also keeps an entry for every closed tab and every page it
// ever saw. Those are dropped only at the last checkpoint (tabs.get still
// finds a closed tab's snapshot, so dropping them mid-run would change what
// the system answers), to show what they cost.
Harness::Checkpoint Harness::checkpoint(bool last) {
  Checkpoint c;
  c.recorded = recordedPageMessages();
  c.indexMismatches =
      indexMismatches(tabs_->tabCache(), [](const auto& state) { return state->id(); }, c.indexLookups) +
      indexMismatches(tabs_->pageCache(), [](const auto& record) { return record.id; }, c.indexLookups);
  c.memory = measureMemory();
  c.parked = tabs_->callbacks().mutatingSync([](auto& pending) {
    const std::size_t n = pending.size();
    std::remove_reference_t<decltype(pending)>().swap(pending);
    return n;
  });
  c.withoutParked = measureMemory();
  auto dropClosed = [](auto& cache) {
    return cache.removeWhere([](const auto& entry) { return entry.key.expired(); });
  };
  if (last) {
    c.closedTabs = dropClosed(tabs_->tabCache());
    c.withoutClosedTabs = measureMemory();
    c.closedPages = dropClosed(tabs_->pageCache());
    c.withoutClosed = measureMemory();
  } else {
    c.closedTabs = deadTabEntries();
    const auto pages = tabs_->pageCache().list().snapshot();
    for (const auto& entry : *pages) c.closedPages += entry.key.expired();
    c.withoutClosed = c.withoutParked;
  }
  return c;
}

int Harness::report(const Checkpoint& warm, const Checkpoint& end, bool measured) {
  const auto t = ledger_.totals(ledger_.capacity());
  std::vector<std::string> failures;
  auto require = [&](bool holds, std::string what) {
    if (!holds) failures.push_back(std::move(what));
  };

  std::printf("\nasks by kind                          sent   answered    missing       lost  orphaned\n");
  for (std::size_t k = 0; k < Ledger::Totals::kKinds; ++k) {
    const auto kind = static_cast<AskKind>(k);
    std::printf("  %-34s %7llu %10llu %10llu %10llu %9llu%s\n", info(kind).name,
                static_cast<unsigned long long>(t.byKind[k]), static_cast<unsigned long long>(t.answeredByKind[k]),
                static_cast<unsigned long long>(t.missingByKind[k]), static_cast<unsigned long long>(t.lostByKind[k]),
                static_cast<unsigned long long>(t.orphanedByKind[k]), info(kind).owed ? "" : "  (never answered)");
  }
  std::printf(
      "\nasks sent %llu (%zu beyond --asks: newly opened tabs' VALIDATE_TAB, asks in flight at closings, "
      "tabs renewed at checkpoints)  owed %llu  answered %llu  missing %llu  "
      "lost with their tab %llu  never answered by design %llu\n",
      static_cast<unsigned long long>(t.sent), static_cast<std::size_t>(nextExtra_.load() - options_.asks),
      static_cast<unsigned long long>(t.owed), static_cast<unsigned long long>(t.answered),
      static_cast<unsigned long long>(t.missing), static_cast<unsigned long long>(t.lost),
      static_cast<unsigned long long>(t.neverOwed));
  std::printf(
      "answered twice %llu  wrong answers %llu  answers to unanswerable asks %llu  stray answers %llu  "
      "answers after the tab closed %llu  wrong meta %llu\n",
      static_cast<unsigned long long>(t.duplicates), static_cast<unsigned long long>(t.malformed),
      static_cast<unsigned long long>(t.unexpected), static_cast<unsigned long long>(t.strays),
      static_cast<unsigned long long>(t.answeredAfterClose), static_cast<unsigned long long>(metaMismatches_.load()));

  // Oddities a tab closing at the same moment explains, and those it does not.
  std::uint64_t metaClosing = 0, metaOpen = 0, updateClosing = 0, updateOpen = 0;
  for (std::size_t i = 0; i < ledger_.capacity(); ++i) {
    const Ledger::Record& r = ledger_.at(i);
    if (!r.flagged.load()) continue;
    if (r.kind == AskKind::pageToBackground) {
      ++(r.state.load() == Ledger::lost ? metaClosing : metaOpen);
    } else if (r.kind == AskKind::backgroundTabsUpdate && r.slot >= 0) {
      Slot& slot = *slots_[static_cast<std::size_t>(r.slot)];
      std::lock_guard lock(slot.mutex);
      ++(slot.generation != r.generation ? updateClosing : updateOpen);
    }
  }
  if (metaClosing || updateClosing) {
    std::printf(
        "note: a tab closed with tabs.remove was registered again under a new id: %llu asks its page sent "
        "just before reached the background page with the new id, %llu tabs.update answers named it\n",
        static_cast<unsigned long long>(metaClosing), static_cast<unsigned long long>(updateClosing));
  }
  require(t.missing == 0, std::to_string(t.missing) + " owed asks never answered");
  require(t.duplicates == 0, std::to_string(t.duplicates) + " answers beyond the first");
  require(t.malformed == 0, std::to_string(t.malformed) + " answers with the wrong page, frame or content");
  require(t.unexpected == 0, std::to_string(t.unexpected) + " answers to asks that must not be answered");
  require(t.strays == 0, std::to_string(t.strays) + " answers to no ask");
  require(metaOpen + metaMismatches_ == 0,
          std::to_string(metaOpen + metaMismatches_) + " answered asks whose meta.tabId named another tab");
  require(updateOpen == 0,
          std::to_string(updateOpen) + " tabs.update answers naming another tab than an open one asked for");
  require(strayPageMessages_ == 0, std::to_string(strayPageMessages_.load()) + " unexpected messages in pages");
  std::printf("cache indexes: %zu lookups checked against the lists at the two checkpoints, %zu disagreed\n",
              warm.indexLookups + end.indexLookups, warm.indexMismatches + end.indexMismatches);
  require(warm.indexMismatches + end.indexMismatches == 0,
          std::to_string(warm.indexMismatches + end.indexMismatches) +
              " lookups through the tab and page caches' indexes found another entry than the lists hold");

  // Every refusal writes its line once; a refused ask from a tab that
  // closed meanwhile may never have reached the router.
  std::printf("\nrefusal lines:");
  for (const char* line : {"Exit 1", "Exit 2", "Exit 3", "Exit 4", "M Exit 3"}) {
    std::uint64_t sent = 0, orphaned = 0;
    for (std::size_t k = 0; k < Ledger::Totals::kKinds; ++k) {
      const char* expected = info(static_cast<AskKind>(k)).logLine;
      if (expected && std::string_view(expected) == line) {
        sent += t.byKind[k];
        orphaned += t.orphanedByKind[k];
      }
    }
    const std::uint64_t seen = log_.lines(line);
    std::printf("  \"%s\" %llu/%llu", line, static_cast<unsigned long long>(seen),
                static_cast<unsigned long long>(sent));
    require(seen <= sent && seen + orphaned >= sent, std::string("\"") + line + "\" written " + std::to_string(seen) +
                                                         " times for " + std::to_string(sent) + " refused asks (" +
                                                         std::to_string(orphaned) + " from closed tabs)");
  }
  std::printf("\n");

  const auto& bg = background_->counts();
  std::printf(
      "\nbackground page: tabs.onCreate %llu  tabs.onUpdate %llu  tabs.onActivate %llu  storage.onChanged %llu  "
      "routed asks %llu  (asks it received %llu, answered %llu)\n",
      static_cast<unsigned long long>(bg.tabsOnCreate), static_cast<unsigned long long>(bg.tabsOnUpdate),
      static_cast<unsigned long long>(bg.tabsOnActivate), static_cast<unsigned long long>(bg.storageOnChanged),
      static_cast<unsigned long long>(bg.routedAsks),
      static_cast<unsigned long long>(bg.tabsOnCreate + bg.tabsOnUpdate + bg.tabsOnActivate + bg.storageOnChanged +
                                      bg.routedAsks),
      static_cast<unsigned long long>(bg.answersPosted));
  std::printf("tabs: opened %llu  removed with tabs.remove %llu  closed by the browser %llu\n",
              static_cast<unsigned long long>(tabsOpened_.load()), static_cast<unsigned long long>(tabsRemoved_.load()),
              static_cast<unsigned long long>(browserCloses_.load()));
  std::printf("pages: storage.onChanged received %llu  background asks received %llu\n",
              static_cast<unsigned long long>(storageChangesAtPages_.load()),
              static_cast<unsigned long long>(tabAsksAtPages_.load()));
  std::printf("log lines besides refusals: %llu tab events, %llu others\n",
              static_cast<unsigned long long>(log_.tabEvents()), static_cast<unsigned long long>(log_.other()));
  const std::uint64_t sets = t.byKind[static_cast<std::size_t>(AskKind::pageStorageSet)] +
                             t.byKind[static_cast<std::size_t>(AskKind::backgroundStorageSet)];
  const std::uint64_t setsAnswered = t.answeredByKind[static_cast<std::size_t>(AskKind::pageStorageSet)] +
                                     t.answeredByKind[static_cast<std::size_t>(AskKind::backgroundStorageSet)];
  require(bg.tabsOnCreate >= tabsOpened_, "fewer tabs.onCreate (" + std::to_string(bg.tabsOnCreate) +
                                              ") than tabs opened (" + std::to_string(tabsOpened_.load()) + ")");
  if (bg.tabsOnCreate > tabsOpened_) {
    std::printf("note: %llu tabs.onCreate beyond the tabs opened: a closed tab's snapshot was built again\n",
                static_cast<unsigned long long>(bg.tabsOnCreate - tabsOpened_));
  }
  require(bg.storageOnChanged >= setsAnswered && bg.storageOnChanged <= sets,
          "storage.onChanged reached the background page " + std::to_string(bg.storageOnChanged) + " times for " +
              std::to_string(setsAnswered) + ".." + std::to_string(sets) + " sets");
  const auto dropped =
      static_cast<std::uint64_t>(static_cast<long long>(options_.dropAnswers) - std::max(0LL, dropsLeft_.load()));
  require(bg.answersPosted + dropped ==
              bg.tabsOnCreate + bg.tabsOnUpdate + bg.tabsOnActivate + bg.storageOnChanged + bg.routedAsks,
          "the background page left asks unanswered");
  require(bg.undecodable == 0, std::to_string(bg.undecodable) + " scripts the background page could not read");

  // Throughput, over both phases.
  const double seconds = phaseSeconds_[0] + phaseSeconds_[1];
  std::printf(
      "\nthroughput: %.0f asks/s over the run (%.0f asks/s after warm-up), %zu asks in %.2f s; "
      "answers came %.1f ms after their ask on average, %u ms at most\n",
      (phaseAsks_[0] + phaseAsks_[1]) / seconds, phaseAsks_[1] / std::max(phaseSeconds_[1], 1e-9),
      phaseAsks_[0] + phaseAsks_[1], seconds, ledger_.meanLatencyMs(), ledger_.maxLatencyMs());

  // Memory.
  if (!measured) {
    std::printf("\nmemory not measured: the run did not drain\n");
    for (const auto& f : failures) std::printf("FAIL: %s\n", f.c_str());
    return 1;
  }
  auto growth = [](std::size_t from, std::size_t to) {
    return percent(static_cast<double>(to) - static_cast<double>(from), static_cast<double>(from));
  };
  auto freed = [](std::size_t before, std::size_t after) { return mib(before - std::min(before, after)); };
  auto each = [](std::size_t before, std::size_t after, std::size_t n) {
    return n ? (static_cast<double>(before) - static_cast<double>(after)) / static_cast<double>(n) : 0.0;
  };
  const std::size_t ledgerBytes = ledger_.capacity() * sizeof(Ledger::Record);
  std::printf("\nmemory, drained                        after warm-up         at the end     growth\n");
  std::printf("  resident                             %8.1f MiB       %8.1f MiB   %+7.1f%%\n", mib(warm.memory.raw),
              mib(end.memory.raw), growth(warm.memory.raw, end.memory.raw));
  std::printf("  resident, free heap trimmed          %8.1f MiB       %8.1f MiB   %+7.1f%%\n", mib(warm.memory.trimmed),
              mib(end.memory.trimmed), growth(warm.memory.trimmed, end.memory.trimmed));
  std::printf("  heap, as the allocator counts it     %8.1f MiB       %8.1f MiB   %+7.1f%%\n", mib(warm.memory.heap),
              mib(end.memory.heap), growth(warm.memory.heap, end.memory.heap));
  std::printf(
      "  live objects                         %8.1f MiB       %8.1f MiB   %+7.1f%%  (%.1f MiB of it the "
      "harness's ledger)\n",
      mib(warm.memory.live), mib(end.memory.live), growth(warm.memory.live, end.memory.live), mib(ledgerBytes));
  std::printf(
      "pending replies (the tab registry's table), drained: %zu after warm-up, %zu at the end, %.0f bytes each; "
      "dropping them gave back %.1f MiB of live objects and %.1f MiB resident\n",
      warm.parked, end.parked, each(end.memory.live, end.withoutParked.live, end.parked),
      freed(end.memory.live, end.withoutParked.live), freed(end.memory.trimmed, end.withoutParked.trimmed));
  // With nothing in flight, a reply still waiting is one no page can answer
  // any more: one per such ask would grow the table with the run.
  require(warm.parked == 0 && end.parked == 0, "replies still parked with nothing in flight: " +
                                                   std::to_string(warm.parked) + " after warm-up, " +
                                                   std::to_string(end.parked) + " at the end");
  const double perTab = each(end.withoutParked.live, end.withoutClosedTabs.live, end.closedTabs);
  const double perPage = each(end.withoutClosedTabs.live, end.withoutClosed.live, end.closedPages);
  const double closedGrowth = perTab * (static_cast<double>(end.closedTabs) - static_cast<double>(warm.closedTabs)) +
                              perPage * (static_cast<double>(end.closedPages) - static_cast<double>(warm.closedPages));
  std::printf(
      "kept by design: registry entries of %zu closed tabs and %zu gone pages (%zu and %zu at warm-up), "
      "%.0f and %.0f bytes each; dropping them gave back %.2f MiB\n",
      end.closedTabs, end.closedPages, warm.closedTabs, warm.closedPages, perTab, perPage,
      freed(end.withoutParked.live, end.withoutClosed.live));
  // The ledger is the harness's, sized before the run: judged without it.
  const double warmRest = static_cast<double>(warm.withoutParked.live) - static_cast<double>(ledgerBytes);
  const double endRest = static_cast<double>(end.withoutParked.live) - static_cast<double>(ledgerBytes) - closedGrowth;
  // Judged against resident memory after the warm-up: the live objects are
  // a small part of it (most is code, stacks and the allocator's own), so a
  // percentage of them alone would weigh a few kilobytes of high-water
  // buffers as a leak.
  const double rest = percent(endRest - warmRest, static_cast<double>(warm.memory.raw));
  std::printf("  live objects without parked replies %8.1f MiB       %8.1f MiB   %+7.1f%%\n",
              mib(warm.withoutParked.live), mib(end.withoutParked.live),
              growth(warm.withoutParked.live, end.withoutParked.live));
  std::printf(
      "  judged*                             %8.1f MiB       %8.1f MiB   %+7.1f%%  = %+.0f KiB, %+.2f%% of "
      "resident after warm-up (limit %.1f%%)\n",
      warmRest / (1024.0 * 1024.0), endRest / (1024.0 * 1024.0), percent(endRest - warmRest, warmRest),
      (endRest - warmRest) / 1024.0, rest, options_.maxGrowth);
  std::printf(
      "  resident without either, trimmed    %8.1f MiB       %8.1f MiB   %+7.1f%%  (freed heap the allocator "
      "keeps)\n",
      mib(warm.withoutParked.trimmed), mib(end.withoutClosed.trimmed),
      growth(warm.withoutParked.trimmed, end.withoutClosed.trimmed));
  std::printf(
      "  * live objects less the parked replies, the harness's ledger and the entries of tabs closed since "
      "warm-up\n");
  std::printf("simulated pages keep %zu dispatched messages for inspection (%zu at warm-up)\n", end.recorded,
              warm.recorded);
  if (options_.asks >= 50000) {
    require(rest <= options_.maxGrowth, "live objects beyond what is parked or kept by design grew by " +
                                            std::to_string(rest) + "% of resident memory");
  } else {
    std::printf("(memory is not judged on fewer than 50000 asks)\n");
  }

  if (failures.empty()) {
    std::printf("\nPASS\n");
    return 0;
  }
  for (const auto& f : failures) std::printf("FAIL: %s\n", f.c_str());
  return 1;
}

}  // namespace appex::soak
