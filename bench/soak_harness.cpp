// Setting up the soak run and running its phases: the bundle, the store
// and the platform the system runs on, the first tabs, the warm-up and the
// load, and draining the system between them.
#include <unistd.h>

#include <cstdio>
#include <thread>

#include "bench/soak_harness.h"
#include "bench/soak_requests.h"
#include "core/main_queue.h"
#include "host/safari_messaging_api.h"
#include "platform/bundle.h"
#include "platform/image_loader.h"
#include "platform/popup_controller.h"
#include "platform/sim/sim_tab.h"
#include "platform/sim/sim_window.h"
#include "platform/sqlite_user_defaults.h"
#include "platform/web_view_factory.h"
#include "tabs/identifiers.h"

namespace appex::soak {

using namespace std::chrono_literals;

namespace {

// Platform stand-ins: no toolbar images, and no popover to size.

class NoImages final : public ImageLoader {
 public:
  std::optional<ToolbarImage> load(const std::string&) override { return std::nullopt; }
};

class NoPopover final : public PopupController {
 public:
  Size preferredContentSize() const override { return {430, 566}; }
  void setPreferredContentSize(Size) override {}
  void dismissPopover() override {}
};

}  // namespace

int Harness::run() {
  if (!setUp()) return 1;
  std::printf("soak: %zu asks, %u driver threads, %zu tabs in %u windows, in-flight window %td, seed %u\n",
              options_.asks, options_.threads, slots_.size(), options_.windows, options_.inFlight, options_.seed);
  dropsLeft_ = static_cast<long long>(options_.dropAnswers);

  // A phase that does not drain leaves owed asks unanswered: the report
  // then shows them as missing, and memory is not measured.
  bool ok = runPhase(options_.warmup, "warm-up") && renewAllTabs();
  Checkpoint warm, end;
  if (ok) warm = checkpoint(false);
  loadStarted_ = true;
  ok = ok && runPhase(options_.asks, "load") && renewAllTabs();
  if (ok) end = checkpoint(true);
  const int status = report(warm, end, ok);
  if (!ok) std::printf("FAIL: the load did not run to completion or did not drain\n");
  return ok ? status : 1;
}

bool Harness::setUp() {
  root_ = std::filesystem::temp_directory_path() / ("appex-soak-" + std::to_string(::getpid()) + "-" + newUUIDString());
  const auto bundlePath = root_ / "Soak.appex";
  std::filesystem::create_directories(bundlePath / "Contents/Resources/Assets/extension");
  Dictionary info{
      {"CFBundleIdentifier", "com.example.soak"}, {"CFBundleShortVersionString", "1.0.0"}, {"CFBundleVersion", "1"}};
  auto bundle = Bundle::fromInfo(bundlePath, info);
  auto defaults = SqliteUserDefaults::open(root_ / "data", "com.example.soak");
  if (!bundle || !defaults) {
    std::fprintf(stderr, "soak: cannot set up the bundle or the store: %s\n",
                 (!bundle ? bundle.error() : defaults.error()).c_str());
    return false;
  }
  context_.set<Bundle>(*bundle);
  context_.set<UserDefaults>(*defaults);
  context_.set<ImageLoader>(std::make_shared<NoImages>());
  context_.set<PopupController>(std::make_shared<NoPopover>());
  context_.set(std::make_shared<WebViewFactory>([this]() -> std::shared_ptr<WebView> {
    if (background_)
      return std::make_shared<BackgroundPage>([](const Message&) { return BackgroundPage::Reply{}; },
                                              [](const Message&) {});
    background_ = std::make_shared<BackgroundPage>([this](const Message& ask) { return onRoutedAsk(ask); },
                                                   [this](const Message& a) { onBackgroundAnswer(a); });
    return background_;
  }));
  sim_->install(context_);
  tabs_ = SafariTabAPI::shared();
  handler_ = std::make_unique<SafariExtensionHandler>(context_);
  sim_->setIntake([this](std::string name, std::shared_ptr<SFSafariPage> page, std::optional<Dictionary> userInfo) {
    handler_->messageReceivedWithName(name, std::move(page), std::move(userInfo));
  });
  SafariMessagingAPI::shared();

  for (unsigned w = 0; w < options_.windows; ++w) {
    auto window = sim_->openWindow();
    for (unsigned t = 0; t < options_.tabsPerWindow; ++t) {
      auto slot = std::make_unique<Slot>();
      slot->window = window;
      slot->asks.reserve(4096);
      slots_.push_back(std::move(slot));
    }
  }

  // The browser's first toolbar validation starts the background page.
  MainQueue::shared().runUntilIdle();
  std::atomic<bool> validated{false};
  handler_->validateToolbarItemInWindow(sim_->activeWindow(), [&](bool, std::string) { validated = true; });
  if (!MainQueue::shared().runUntil([&] { return validated.load(); }, 10s) || !background_) {
    std::fprintf(stderr, "soak: the background page did not start\n");
    return false;
  }
  for (std::size_t i = 0; i < slots_.size(); ++i) openSlot(i);
  if (!waitForOpenSlots(30s)) {
    std::fprintf(stderr, "soak: the first tabs never became known to the registry\n");
    return false;
  }
  return drain(Clock::now() + 30s);
}

// Opens a fresh tab in the slot (every fourth with an inner frame too) and
// has its top frame validate, as a content script does on load; the tab
// counts as open once the registry knows it.
void Harness::openSlot(std::size_t index) {
  Slot& slot = *slots_[index];
  std::shared_ptr<sim::SimPage> top;
  const std::size_t ask = nextExtra_.fetch_add(1);
  {
    std::lock_guard lock(slot.mutex);
    const std::string url = "https://site" + std::to_string(index) + ".example/g" + std::to_string(slot.generation);
    slot.tab = slot.window->addTab(url, "Slot " + std::to_string(index));
    slot.pages = {slot.tab->activePage()};
    if (index % 4 == 3) slot.pages.push_back(slot.tab->addPage(url + "/frame"));
    for (auto& page : slot.pages) page->setContentScript(contentScript(index, slot.generation));
    slot.state = Slot::State::opening;
    slot.tabId.clear();
    slot.pageId.clear();
    top = slot.pages.front();
    if (ask < ledger_.capacity()) {
      ledger_.begin(ask, AskKind::pageValidateTop, static_cast<std::int32_t>(index), slot.generation, 0, 0, false);
      slot.asks.push_back(static_cast<std::uint32_t>(ask));
    }
  }
  tabsOpened_.fetch_add(1);
  Message validate{MessageType::ask, uidFor('p', ask), {}, {}, "VALIDATE_TAB", {}, 0};
  top->sendMessageToExtension(kMessageName, validate.build());
}

// REQUIRES: slot.mutex held.
bool Harness::refreshOpening(Slot& slot) {
  if (slot.state != Slot::State::opening) return slot.state == Slot::State::open;
  auto state = tabs_->cachedTabState(slot.tab);
  if (!state) return false;
  slot.tabId = state->id();
  slot.pageId = tabs_->pageIdentifier(slot.pages.back());
  slot.state = Slot::State::open;
  return true;
}

bool Harness::waitForOpenSlots(Clock::duration timeout) {
  return MainQueue::shared().runUntil(
      [this] {
        for (auto& slot : slots_) {
          std::lock_guard lock(slot->mutex);
          if (!refreshOpening(*slot)) return false;
        }
        return true;
      },
      timeout);
}

// Lets every owed ask be answered (or written off), then every completion,
// main-queue block and worker hop run out.
bool Harness::drain(Clock::time_point deadline) {
  bool ok = MainQueue::shared().runUntil([this] { return ledger_.inFlight() == 0; }, deadline);
  for (int quiet = 0; quiet < 3 && Clock::now() < deadline;) {
    const bool idle = sim_->waitForIdle(10s);
    std::size_t ran = MainQueue::shared().runUntilIdle();
    std::this_thread::sleep_for(20ms);  // replies hop through workers the browser does not track
    ran += MainQueue::shared().runUntilIdle();
    quiet = idle && ran == 0 ? quiet + 1 : 0;
  }
  return ok && ledger_.inFlight() == 0;
}

bool Harness::runPhase(std::size_t end, const char* name) {
  const std::size_t first = next_.load();
  const auto start = Clock::now();
  std::vector<std::thread> drivers;
  driversRunning_ = options_.threads;
  for (unsigned d = 0; d < options_.threads; ++d) drivers.emplace_back([this, d, end] { drive(d, end); });
  // The main thread is the main queue: it runs the bridge, the background
  // page and every script evaluation while the drivers push load.
  const bool pushed = MainQueue::shared().runUntil([this] { return driversRunning_.load() == 0; }, Clock::now() + 1h);
  const bool drained = drain(Clock::now() + kPatience);
  for (auto& t : drivers) t.join();
  if (next_.load() > end) next_ = end;  // drivers overshoot by one index each on stopping
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const std::size_t asks = std::min(next_.load(), end) - first;
  const int phase = end == options_.warmup ? 0 : 1;
  phaseSeconds_[phase] = seconds;
  phaseAsks_[phase] = asks;
  std::printf("%-8s %8zu asks in %6.2f s  (%.0f asks/s)%s\n", name, asks, seconds, asks / seconds,
              pushed && drained ? "" : "  [did not drain]");
  std::fflush(stdout);
  return pushed && drained && !stalled_;
}

}  // namespace appex::soak
