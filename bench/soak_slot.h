// Slot: one tab position of the soak harness, and Picked: an open slot's
// page taken for one ask.
//
// The harness owns its slots for the whole run; a slot owns the tab open in
// it and that tab's pages, and drops them when the tab closes. A Picked
// shares the page it names, so the ask can be sent after the slot's lock is
// given up.
//
// Thread-safe: every member of a Slot but `window` (set once, before the
// load starts) is guarded by its `mutex`. A Picked is its taker's.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bench/soak_ledger.h"
#include "platform/sim/sim_page.h"
#include "platform/sim/sim_tab.h"
#include "platform/sim/sim_window.h"

namespace appex::soak {

// One tab position: the tab currently open there, replaced by a fresh tab
// each time it is closed. `generation` counts the replacements. Asks that
// depend on the tab are listed against it, and a closing waits until they
// are answered; those sent on purpose just before the tab is closed under
// them are listed apart, and only they may end lost.
struct Slot {
  enum class State { opening, open, closing };

  std::mutex mutex;
  State state = State::opening;
  std::uint32_t generation = 0;
  std::shared_ptr<sim::SimWindow> window;
  std::shared_ptr<sim::SimTab> tab;
  std::vector<std::shared_ptr<sim::SimPage>> pages;  // [0] the top frame
  std::string tabId;
  std::string pageId;  // of pages.back()
  std::vector<std::uint32_t> asks;
  std::vector<std::uint32_t> inFlightAtClose;  // may end lost
};

// The page an ask is sent from, with what the ledger tied the ask to.
struct Picked {
  std::int32_t slot = Ledger::kNoSlot;
  std::uint32_t generation = 0;
  std::shared_ptr<sim::SimPage> page;
  std::string tabId;
  std::string pageId;
};

}  // namespace appex::soak
