// A content page's ask answered by the background page, through the whole
// system on real WebKit (run under xvfb-run), beside the raw WebKit hop
// measured in the same run.
//
// route: a simulated content page posts a "messaging" ask for "background"
//        to SafariExtensionHandler; the tab registry ties it to its tab
//        (the browser's completion comes on a worker thread) and hands it to
//        the router, which asks the background page over its bridge; the
//        page's onAsk handler echoes the arguments and the answer is
//        dispatched back into the content page. The route crosses WebKit
//        once each way.
// raw:   a bare web view evaluates a script that posts the same payload
//        straight back through a bare script-message handler: one crossing
//        each way and nothing else.
//
// Breakdown: the background bridge alone (native ask, page echo, native
// answer), and the route with the browser's completions run inline, which
// leaves out the browser's thread hop.
//
// 2,000 asks of each, sequentially and with 64 in flight, the cases taking
// turns in short chunks so that load from elsewhere falls on all of them
// alike. Prints p50, p99 and throughput, and the route's p50 over the raw
// hop's beside the goal.
//
// Exit status: 0 when every ask was answered correctly (whether or not the
// goal was met), 2 otherwise.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/latency_stats.h"
#include "bridge/wk_web_view_bridge.h"
#include "core/context.h"
#include "core/log.h"
#include "core/main_queue.h"
#include "host/message.h"
#include "host/safari_extension_handler.h"
#include "host/safari_messaging_api.h"
#include "platform/bundle.h"
#include "platform/sim/sim_browser.h"
#include "platform/sim/sim_page.h"
#include "platform/sim/sim_tab.h"
#include "platform/sim/sim_window.h"
#include "platform/sqlite_user_defaults.h"
#include "platform/web_view_factory.h"
#include "platform/webkit/engine.h"

#include <unistd.h>

namespace appex::bench {
namespace {

constexpr int kAsks = 2000;
constexpr int kInFlight = 64;
constexpr int kSequentialChunk = 25;
constexpr int kInFlightChunk = 250;
constexpr int kWarmUp = 200;
constexpr double kGoalRatio = 2.1;  // route p50 / raw p50, sequential
constexpr int kLabelWidth = 46;       // of the results table's case column

constexpr const char* kBackgroundPage = R"HTML(<!doctype html><html><head><script>
window.webkit.messageHandlers.Webview_Bridge.postMessage(
    {type: 'INJECT', uid: 'bench', channelName: '__default__'});
(function whenInjected() {
  if (!window.WKWebViewBridge) { setTimeout(whenInjected, 1); return; }
  WKWebViewBridge.onAsk(function (cmd, args) { return cmd === 'echo' ? args : undefined; });
  callBridge({type: 'LOG', uid: '', channelName: '__default__', data: 'ready'});
})();
</script></head><body></body></html>
)HTML";

constexpr const char* kBlankPage = R"HTML(<!doctype html><html><head><script>
window.webkit.messageHandlers.Bench_Loaded.postMessage(1);
</script></head><body></body></html>
)HTML";

// What every case sends, for a number `n` unique within the run: the engine
// keeps the compiled form of a script text it has seen, and a raw hop whose
// text came back (an id reused by the next turn) would be a cache hit, which
// a real ask, with its fresh uid, never is.
std::string payloadJson(int id) {
  return "{\"n\":" + std::to_string(id) + ",\"text\":\"hello from the content page\"}";
}
AnyValue payload(int id) { return Dictionary{{"n", id}, {"text", "hello from the content page"}}; }

// The uid of the content page's request `id`: "r<id>".
std::string uidFor(int id) {
  std::string uid = "r";
  uid += std::to_string(id);
  return uid;
}

// The request named by a uid "r<id>".
std::optional<int> requestOf(const std::string& uid) {
  if (uid.size() < 2 || uid[0] != 'r') return std::nullopt;
  char* end = nullptr;
  const long id = std::strtol(uid.c_str() + 1, &end, 10);
  if (*end != '\0' || id < 0 || id >= kAsks) return std::nullopt;
  return static_cast<int>(id);
}

int run() {
  auto started = webkit::Engine::start();
  if (!started) {
    std::fprintf(stderr, "router_bench: %s\n", started.error().c_str());
    return 2;
  }
  webkit::Engine& engine = **started;
  const auto mainThread = std::this_thread::get_id();

  // A bundle whose background page echoes; a blank page for the raw hop.
  const auto folder = std::filesystem::temp_directory_path() /
                      ("appex_router_bench_" + std::to_string(::getpid()));
  const auto bundlePath = folder / "Bench.appex";
  const auto assets = bundlePath / "Contents/Resources/Assets/extension";
  std::filesystem::create_directories(assets);
  std::ofstream(assets / "safari_background.html") << kBackgroundPage;
  std::ofstream(folder / "blank.html") << kBlankPage;

  // The page's "ready" is the only line that matters here.
  std::atomic<bool> backgroundReady = false;
  setLogSink([&](LogDestination, std::string_view line) {
    if (line.starts_with("$$$ BG Webview Log: ") && line.find("ready") != std::string_view::npos) {
      backgroundReady = true;
    }
  });

  int status = 0;
  {
    Context context;
    ScopedContext scope(context);
    Dictionary info{{"CFBundleIdentifier", "com.example.appex.bench"}};
    auto bundle = Bundle::fromInfo(bundlePath, info);
    auto defaults = SqliteUserDefaults::open(folder / "data", "com.example.appex.bench");
    if (!bundle || !defaults) {
      std::fprintf(stderr, "router_bench: %s\n", (!bundle ? bundle.error() : defaults.error()).c_str());
      return 2;
    }
    context.set<Bundle>(*bundle);
    context.set<UserDefaults>(*defaults);
    context.set(std::make_shared<WebViewFactory>([&engine] { return engine.createWebView(); }));
    auto sim = sim::SimBrowser::create();
    sim->install(context);
    SafariExtensionHandler handler(context);
    sim->setIntake([&handler](std::string name, std::shared_ptr<SFSafariPage> page,
                              std::optional<Dictionary> userInfo) {
      handler.messageReceivedWithName(name, std::move(page), std::move(userInfo));
    });
    auto window = sim->openWindow();
    auto page = window->addTab("https://bench.test/article", "Bench", true)->activePage();

    // The browser's first validation starts the background page.
    handler.validateToolbarItemInWindow(window, [](bool, std::string) {});
    if (!engine.runUntil([&] { return backgroundReady.load(); }, std::chrono::seconds(30))) {
      std::fprintf(stderr, "router_bench: the background page did not get ready\n");
      return 2;
    }
    auto bridge = SafariMessagingAPI::shared()->backgroundBridge();

    // Answers reaching the content page complete their request by uid.
    std::vector<std::function<void()>> pending(kAsks);
    std::vector<int> serialOf(kAsks);  // the payload's number of each request in flight
    int serial = 0;
    int wrong = 0;
    auto completeAnswer = [&](const Message& answer) {
      std::optional<int> id = requestOf(answer.uid);
      if (!id || !pending[*id]) {
        ++wrong;
        return;
      }
      // The echo of what the page sent, with the meta the registry filled.
      const auto* echoed = answer.data ? answer.data->if_object() : nullptr;
      const AnyValue* sentPayload = echoed ? echoed->if_contains("payload") : nullptr;
      const AnyValue* meta = echoed ? echoed->if_contains("meta") : nullptr;
      const AnyValue* url = meta && meta->is_object() ? meta->as_object().if_contains("tabUrl") : nullptr;
      const AnyValue* tab = meta && meta->is_object() ? meta->as_object().if_contains("tabId") : nullptr;
      if (answer.err || !sentPayload || *sentPayload != payload(serialOf[*id]) || !tab || !url ||
          *url != AnyValue("https://bench.test/article")) {
        ++wrong;
      }
      std::exchange(pending[*id], nullptr)();
    };
    page->setContentScript([&](const std::shared_ptr<sim::SimPage>&, const sim::DispatchedMessage& m) {
      auto answer = Message::parse(m.userInfo);
      if (!answer || answer->type != MessageType::answer) return;
      if (std::this_thread::get_id() == mainThread) {
        completeAnswer(*answer);
      } else {
        MainQueue::shared().post([&completeAnswer, a = std::move(*answer)] { completeAnswer(a); });
      }
    });

    auto raw = engine.createWebView();
    bool blankLoaded = false;
    raw->addScriptMessageHandler("Bench_Loaded", [&](const AnyValue&) { blankLoaded = true; });
    raw->loadFileURL((folder / "blank.html").string(), folder.string());
    if (!engine.runUntil([&] { return blankLoaded; }, std::chrono::seconds(30))) {
      std::fprintf(stderr, "router_bench: the raw page did not load\n");
      return 2;
    }
    raw->addScriptMessageHandler("Bench_Raw", [&](const AnyValue& body) {
      const auto* o = body.if_object();
      const auto* uid = o ? o->if_contains("uid") : nullptr;
      if (!uid || !uid->is_int64() || uid->as_int64() < 0 || uid->as_int64() >= kAsks ||
          !pending[uid->as_int64()] || o->at("data") != payload(serialOf[uid->as_int64()])) {
        ++wrong;
        return;
      }
      std::exchange(pending[uid->as_int64()], nullptr)();
    });

    const Issue rawHop = [&](int id, std::function<void()> done) {
      pending[id] = std::move(done);
      serialOf[id] = ++serial;
      raw->evaluateScript("window.webkit.messageHandlers.Bench_Raw.postMessage({uid: " + std::to_string(id) +
                          ", data: " + payloadJson(serialOf[id]) + "})");
    };
    const Issue route = [&](int id, std::function<void()> done) {
      pending[id] = std::move(done);
      Dictionary request{
          {"target", "background"},
          {"action", Dictionary{{"cmd", "echo"},
                                {"args", Dictionary{{"payload", payload(serialOf[id] = ++serial)}, {"meta", Dictionary{}}}}}}};
      Message ask{MessageType::ask, uidFor(id), {}, {}, "messaging", AnyValue(std::move(request)), 0};
      page->sendMessageToExtension("__APP_EXTENSION__", ask.build());
    };
    const Issue bridgeAlone = [&](int, std::function<void()> done) {
      AnyValue args = payload(++serial);
      bridge->ask("__default__", "echo", args, [&wrong, args, done = std::move(done)](Result r) {
        if (!r || !*r || **r != args) ++wrong;
        done();
      });
    };

    struct Case {
      const Issue& issue;
      sim::Delivery delivery = sim::Delivery::workerThreads;
      LatencySamples sequential;
      LatencySamples parallel;
    };
    Case rawCase{rawHop}, routeCase{route}, bridgeCase{bridgeAlone},
        inlineCase{route, sim::Delivery::inlineOnCaller};
    const std::vector<Case*> cases = {&rawCase, &routeCase, &bridgeCase, &inlineCase};

    bool ok = true;
    auto runCase = [&](Case* c, int total, int inFlight, LatencySamples* samples) {
      sim->setDelivery(c->delivery);
      ok = ok && measure(engine, c->issue, total, inFlight, samples);
      ok = ok && sim->waitForIdle();
    };
    for (Case* c : cases) {
      runCase(c, kWarmUp, 1, nullptr);
      runCase(c, kWarmUp, kInFlight, nullptr);
    }
    auto alternate = [&](int inFlight, int chunk, LatencySamples Case::*samples) {
      for (int done = 0; ok && done < kAsks; done += chunk) {
        for (Case* c : cases) runCase(c, chunk, inFlight, &(c->*samples));
      }
    };
    alternate(1, kSequentialChunk, &Case::sequential);
    alternate(kInFlight, kInFlightChunk, &Case::parallel);
    sim->setDelivery(sim::Delivery::workerThreads);

    if (!ok || wrong) {
      std::fprintf(stderr, "router_bench: %s\n", ok ? "wrong answers" : "timed out");
      status = 2;
    } else {
      std::printf("\nContent-page ask -> router -> background page -> answer, on WebKitGTK, %d asks per case\n",
                  kAsks);
      printLatencyTable(kLabelWidth, kInFlight,
                        {{"raw hop", rawCase.sequential, rawCase.parallel},
                         {"route", routeCase.sequential, routeCase.parallel}},
                        {{"background bridge alone", bridgeCase.sequential, bridgeCase.parallel},
                         {"route, completions inline", inlineCase.sequential, inlineCase.parallel}});

      // The goal, against the raw hop measured above.
      std::printf("\n");
      printGoal("route / raw hop, p50, sequential:",
                routeCase.sequential.percentile(0.50) / rawCase.sequential.percentile(0.50), kGoalRatio, true);
    }

    sim->setIntake(nullptr);
    sim->waitForIdle();
    page->setContentScript(nullptr);
    raw.reset();
    engine.runFor(std::chrono::milliseconds(20));
  }
  engine.runFor(std::chrono::milliseconds(20));
  setLogSink(nullptr);
  std::filesystem::remove_all(folder);
  // A missed goal shows in the table, not in the exit status: the status
  // says whether the measurement itself worked.
  return status;
}

}  // namespace
}  // namespace appex::bench

int main() { return appex::bench::run(); }
