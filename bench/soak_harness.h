// Harness: the load and soak run of the message router.
//
// Runs the whole extension on the simulated browser: tabs in several
// windows whose content scripts ask the background page, the API and the
// popup, a background page (an engine-less web view) that answers what it is
// sent and asks the API and the tabs itself, while the tabs are rebuilt,
// storage changes fan out to every tab, and tabs are closed (through
// tabs.remove and, now and then, by the browser) and replaced.
//
// Every ask is written in a ledger first (bench/soak_ledger.h) and checked
// when its answer arrives: the right page, the same frame id, the content
// its target gives back. At the end every ask the system owes an answer has
// exactly one (only asks sent on purpose just before their tab was closed
// under them may be lost), refused asks none (each wrote its refusal line
// instead), and no answer came twice.
//
// Memory is taken after a warm-up and at the end, each time with the system
// drained and every tab freshly replaced: resident size, the allocator's
// heap, and the bytes of live objects (bench/soak_memory.h). The tab
// registry's pending replies are counted there and must be none (nothing
// is in flight). What grows by design is counted and measured by dropping
// it (registry entries of closed tabs and pages); what the live objects
// grow beyond that must stay within --max-growth percent of resident
// memory after the warm-up.
//
// The harness owns the system under load (its context, the simulated
// browser, the extension handler, the background page), the ledger, the
// slots, and the files it makes for the run, which it removes when
// destroyed. Its methods are spread over files by job:
//   soak_harness.cpp          setting up, running the phases, draining
//   soak_harness_asks.cpp     the driver threads and the asks they send
//   soak_harness_closing.cpp  closing tabs under load and replacing them
//   soak_harness_pages.cpp    what the pages do with what reaches them
//   soak_harness_report.cpp   the memory checkpoints and the report
//
// Thread-safe: run() is called on the main thread, which it then drives as
// the main queue; the driver threads it starts send asks and close tabs
// through the slots' locks and the ledger, and answers arrive on the main
// queue and on the simulated browser's workers.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "bench/soak_background.h"
#include "bench/soak_ledger.h"
#include "bench/soak_log_counter.h"
#include "bench/soak_memory.h"
#include "bench/soak_options.h"
#include "bench/soak_slot.h"
#include "core/context.h"
#include "host/message.h"
#include "host/safari_extension_handler.h"
#include "platform/sim/sim_browser.h"
#include "platform/sim/sim_page.h"
#include "tabs/safari_tab_api.h"

namespace appex::soak {

using Clock = std::chrono::steady_clock;

// How long an owed answer may take before it counts as missing: far beyond
// the slowest answer of a loaded run (a second or two on two cores).
constexpr auto kPatience = std::chrono::seconds(20);

class Harness {
 public:
  explicit Harness(Options options)
      : options_(std::move(options)),
        scope_(context_),
        ledger_(options_.asks + extraCapacity(options_), options_.inFlight),
        nextExtra_(options_.asks) {}

  ~Harness() { removeFiles(); }

  int run();
  // Removes the bundle and the store made for the run.
  void removeFiles() {
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
  }

 private:
  static std::size_t extraCapacity(const Options& o) {
    const std::size_t slots = o.windows * o.tabsPerWindow;
    // Each closing opens a tab (one VALIDATE_TAB) and may send five asks
    // under the closing; every tab is opened once (a VALIDATE_TAB) and
    // renewed before each of the two checkpoints (a tabs.remove and a
    // VALIDATE_TAB each, and the asks under that closing).
    const std::size_t closings =
        o.asks / std::max<std::size_t>(o.closeEvery, 1) + o.asks / std::max<std::size_t>(o.browserCloseEvery, 1);
    return 6 * slots + 6 * closings + 1024;
  }

  // soak_harness.cpp: setting up and running.
  bool setUp();
  void openSlot(std::size_t index);
  // REQUIRES: slot.mutex held.
  bool refreshOpening(Slot& slot);
  bool waitForOpenSlots(Clock::duration timeout);
  bool runPhase(std::size_t end, const char* name);
  bool drain(Clock::time_point deadline);

  // soak_harness_asks.cpp: the driver threads' asks.
  void drive(unsigned driver, std::size_t end);
  void perform(std::size_t index, std::mt19937_64& random);
  std::optional<Picked> pick(std::mt19937_64& random, std::size_t index, AskKind kind, std::int8_t frameId,
                             std::uint64_t expect, bool holdsWindow);
  std::string anyTabId(std::mt19937_64& random);
  void sendFromPage(const Picked& from, const Message& message);
  void sendFromBackground(std::size_t index, AskKind kind, std::int32_t slot, std::uint32_t generation,
                          std::uint64_t expect, AnyValue request, bool holdsWindow = true);

  // soak_harness_closing.cpp: closing tabs and replacing them.
  bool renewAllTabs();
  void closeWithTabsRemove(std::size_t index);
  void closeByBrowser();
  // REQUIRES: the slot is closing.
  void sendInFlightAtClose(std::size_t slot);
  std::optional<std::size_t> nextRotation();
  void finishClose(std::size_t slot, std::uint32_t generation);
  bool settled(std::size_t slot, Clock::duration patience);

  // soak_harness_pages.cpp: what pages do.
  sim::SimPage::ContentScript contentScript(std::size_t slot, std::uint32_t generation);
  void onPageAnswer(std::size_t slot, std::uint32_t generation, const Message& answer);
  void onTabAsk(const std::shared_ptr<sim::SimPage>& page, const Message& ask);
  BackgroundPage::Reply onRoutedAsk(const Message& ask);
  void onBackgroundAnswer(const Message& answer);
  void noteWrongAnswer(AskKind kind, const Message& answer);

  // soak_harness_report.cpp: figures and the report.
  std::size_t deadTabEntries();
  std::size_t recordedPageMessages();
  struct Checkpoint {
    Memory memory;                // as the run left it
    std::size_t parked = 0;       // replies parked in the tab registry
    Memory withoutParked;         // once those are dropped
    std::size_t closedTabs = 0;   // registry entries of closed tabs
    std::size_t closedPages = 0;  // and of pages that are gone
    Memory withoutClosedTabs;     // once the closed tabs' entries are dropped too (last checkpoint only)
    Memory withoutClosed;         // and the gone pages' entries
    std::size_t recorded = 0;     // messages the simulated pages keep
    std::size_t indexLookups = 0;     // entries of the tab and page caches looked up through their indexes
    std::size_t indexMismatches = 0;  // those that found another entry than a walk of the list finds
  };
  Checkpoint checkpoint(bool last);
  int report(const Checkpoint& warm, const Checkpoint& end, bool measured);

  Options options_;
  Context context_;
  ScopedContext scope_;
  LogCounter log_;
  Ledger ledger_;
  std::filesystem::path root_;
  std::shared_ptr<sim::SimBrowser> sim_ = sim::SimBrowser::create();
  std::unique_ptr<SafariExtensionHandler> handler_;
  std::shared_ptr<SafariTabAPI> tabs_;
  std::shared_ptr<BackgroundPage> background_;
  std::vector<std::unique_ptr<Slot>> slots_;

  std::atomic<std::size_t> next_{0};
  std::atomic<std::size_t> nextExtra_;
  std::atomic<std::size_t> rotation_{0};
  std::atomic<unsigned> driversRunning_{0};
  std::atomic<bool> stalled_{false};
  std::atomic<long long> dropsLeft_{0};
  std::atomic<bool> loadStarted_{false};

  // Figures.
  std::atomic<std::uint64_t> tabsOpened_{0}, tabsRemoved_{0}, browserCloses_{0};
  std::atomic<std::uint64_t> storageChangesAtPages_{0}, tabAsksAtPages_{0}, metaMismatches_{0};
  std::atomic<std::uint64_t> strayPageMessages_{0};
  std::atomic<int> wrongShown_{0};
  double phaseSeconds_[2] = {0, 0};
  std::size_t phaseAsks_[2] = {0, 0};
};

}  // namespace appex::soak
