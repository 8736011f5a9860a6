#include "fuzz/support/world.h"

#include <boost/url/parse.hpp>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <mutex>

#include "core/log.h"
#include "core/main_queue.h"
#include "core/thread_pool.h"
#include "fuzz/support/fuzz_value.h"
#include "platform/bundle.h"
#include "platform/image_loader.h"
#include "platform/popup_controller.h"
#include "platform/sqlite_user_defaults.h"
#include "tabs/safari_tab_api.h"
#include "tabs/safari_window_api.h"

namespace appex::fuzz {
namespace {

constexpr std::string_view kDomain = "com.example.fuzz";

class ExistingFileImageLoader final : public ImageLoader {
 public:
  std::optional<ToolbarImage> load(const std::string& path) override {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) return std::nullopt;
    return ToolbarImage{path};
  }
};

class StandInPopup final : public PopupController {
 public:
  Size preferredContentSize() const override {
    std::lock_guard lock(mutex_);
    return size_;
  }
  void setPreferredContentSize(Size size) override {
    std::lock_guard lock(mutex_);
    size_ = size;
  }
  void dismissPopover() override {}

 private:
  mutable std::mutex mutex_;
  Size size_{430, 566};
};

struct LogBuffer {
  std::mutex mutex;
  std::vector<std::string> lines;
};

// Installs the capture on first use; from then on nothing is printed.
LogBuffer& logBuffer() {
  static auto* buffer = [] {
    auto* b = new LogBuffer();
    setLogSink([b](LogDestination, std::string_view line) {
      std::lock_guard lock(b->mutex);
      b->lines.emplace_back(line);
    });
    return b;
  }();
  return *buffer;
}

// What every World shares: made once, on first use.
struct Shared {
  std::filesystem::path root;
  std::shared_ptr<Bundle> bundle;
  std::shared_ptr<UserDefaults> store;

  Shared() {
    std::error_code ec;
    const std::filesystem::path base =
        std::filesystem::is_directory("/dev/shm", ec) && ::access("/dev/shm", W_OK) == 0
            ? std::filesystem::path("/dev/shm")
            : std::filesystem::temp_directory_path();
    root = base / ("appex-fuzz-" + std::to_string(::getpid()));
    std::filesystem::remove_all(root, ec);
    const auto assets = root / "Fuzz.appex/Contents/Resources/Assets/extension";
    std::filesystem::create_directories(assets);
    std::ofstream(assets / "icon.png") << "image";
    std::ofstream(root / "Fuzz.appex/Contents/Resources/logo-grey.pdf") << "image";
    Dictionary info{{"CFBundleIdentifier", kDomain},
                    {"CFBundleShortVersionString", "2.1.0"},
                    {"CFBundleVersion", "57"}};
    bundle = Bundle::fromInfo(root / "Fuzz.appex", std::move(info)).value();
    auto opened = SqliteUserDefaults::open(root / "data", kDomain);
    if (!opened) fail("cannot open the fuzz store", opened.error());
    store = std::move(*opened);
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(shared().root, ignored);
    });
  }

  static Shared& shared() {
    static auto* instance = new Shared();
    return *instance;
  }
};

bool isHttpOrHttps(std::string_view url) {
  auto parsed = boost::urls::parse_uri(url);
  if (!parsed) return false;
  std::string scheme(parsed->scheme());
  for (char& c : scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return (scheme == "http" || scheme == "https") && !parsed->encoded_host().empty();
}

}  // namespace

void EchoHttpClient::send(HttpClientRequest request, Completion completion) {
  if (!isHttpOrHttps(request.url)) fail("a URL that is not http or https reached the HTTP client", request.url);
  ++requests_;
  ThreadPool::shared().post([request = std::move(request), completion = std::move(completion)]() mutable {
    HttpClientResult result;
    result.response = HttpResponseHead{200, request.url, request.headers};
    result.body = std::move(request.body);
    completion(std::move(result));
  });
}

World::World() : sim(sim::SimBrowser::create()), http(std::make_shared<EchoHttpClient>()), scope_(context_) {
  Shared& shared = Shared::shared();
  takeLog();
  sim->setDelivery(sim::Delivery::inlineOnCaller);
  sim->install(context_);
  context_.set<Bundle>(shared.bundle);
  context_.set<UserDefaults>(shared.store);
  context_.set<ImageLoader>(std::make_shared<ExistingFileImageLoader>());
  context_.set<PopupController>(std::make_shared<StandInPopup>());
  context_.set<HttpClient>(http);

  std::weak_ptr<SafariTabAPI> weakTabs = context_.get<SafariTabAPI>();
  sim->setIntake([weakTabs](std::string name, std::shared_ptr<SFSafariPage> page,
                            std::optional<Dictionary> userInfo) {
    if (auto t = weakTabs.lock()) t->onPageMessage(name, std::move(userInfo), std::move(page));
  });

  auto second = sim->openWindow(/*isPrivate=*/true);
  tabs.resize(4);
  tabs[3] = second->addTab("https://private.test/", "Private", true);
  auto first = sim->openWindow();
  tabs[0] = first->addTab("https://site.test/a", "Site", true);
  tabs[1] = first->addTab("https://other.test/", "Other");
  tabs[2] = first->addBlankTab();
  windows = {first, second};
  pages = {tabs[0]->activePage(), tabs[0]->addPage("https://site.test/frame"), tabs[3]->activePage()};
}

World::~World() {
  settle();
  Shared& shared = Shared::shared();
  if (!shared.store->dictionaryRepresentation().empty()) shared.store->removePersistentDomain(kDomain);
}

void World::settle() {
  for (int round = 0; round < 8; ++round) {
    sim->waitForIdle();
    if (MainQueue::shared().runUntilIdle() == 0 && MainQueue::shared().pendingCount() == 0) break;
  }
}

std::string World::tabId(std::size_t index) {
  std::string id;
  context_.get<SafariTabAPI>()->getTabState(tabs.at(index), [&](std::shared_ptr<TabState> state) {
    id = state->id();
  });
  if (id.empty()) fail("a tab snapshot did not complete inline");
  return id;
}

std::string World::windowId(std::size_t index) {
  std::string id;
  context_.get<SafariWindowAPI>()->getWindowState({}, windows.at(index), true,
                                                  [&](std::shared_ptr<WindowState> state) { id = state->id(); });
  if (id.empty()) fail("a window snapshot did not complete inline");
  return id;
}

std::string World::pageId(std::size_t index) {
  return context_.get<SafariTabAPI>()->pageIdentifier(pages.at(index));
}

void World::substitute(AnyValue& v) {
  substituteStrings(v, [this](std::string_view s) -> std::optional<std::string> {
    if (s.size() < 4 || s[0] != '$') return std::nullopt;
    if (s == "$ADDR") return tabId(0) + "/" + pageId(0);
    const char last = s.back();
    if (last < '0' || last > '9') return std::nullopt;
    const std::size_t n = static_cast<std::size_t>(last - '0');
    const std::string_view kind = s.substr(1, s.size() - 2);
    if (kind == "TAB" && n < tabs.size()) return tabId(n);
    if (kind == "WIN" && n < windows.size()) return windowId(n);
    if (kind == "PAGE" && n < pages.size()) return pageId(n);
    return std::nullopt;
  });
}

const std::filesystem::path& World::root() { return Shared::shared().root; }

std::vector<std::string> World::takeLog() {
  auto& buffer = logBuffer();
  std::lock_guard lock(buffer.mutex);
  return std::exchange(buffer.lines, {});
}

}  // namespace appex::fuzz
