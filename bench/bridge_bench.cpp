// Round trips native -> page -> native on real WebKit (run under xvfb-run).
//
// bridge: WKWebViewBridge::ask of the page's WKWebViewBridge.onAsk handler,
//         which echoes its arguments; the answer completes the native ask.
// raw:    the same web view evaluates a script that posts the same payload
//         straight back through a bare script-message handler: no bridge
//         script, no JSON composition, no pending-ask table, no main-queue hop.
//
// 5,000 asks of each, sequentially (one at a time) and with 64 in flight.
// The cases take turns in short chunks, so that load from elsewhere on the
// machine falls on all of them alike. Every script text is new, as a real
// ask's is (its uid is). Prints p50, p99 and throughput, and the goals as
// ratios to the raw hop: p50 sequentially, throughput with 64 in flight.
// Three breakdown cases place the cost: raw with a call of two arguments
// (the engine compiles such a script, and not the raw hop's call of one
// literal argument), raw with the bridge answer's message shape (the wire
// format), and the page script alone answering to a bare native handler
// (everything but the native endpoint).
//
// Exit status: 0 when every ask was answered correctly (whether or not the
// goal was met), 2 otherwise.
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bench/latency_stats.h"
#include "bridge/leak_avoider.h"
#include "bridge/wk_web_view_bridge.h"
#include "core/log.h"
#include "host/json.h"
#include "platform/webkit/engine.h"

namespace appex::bench {
namespace {

constexpr int kAsks = 5000;
constexpr int kInFlight = 64;
// Asks per turn: sequential turns are short; turns with 64 in flight are
// long enough that filling and draining the pipeline weighs little.
constexpr int kSequentialChunk = 25;
constexpr int kInFlightChunk = 500;
constexpr int kWarmUp = 500;
constexpr double kSequentialGoal = 1.10;  // bridge p50 / raw p50, sequential
constexpr double kThroughputGoal = 0.80;  // bridge asks/s / raw asks/s, 64 in flight
constexpr int kLabelWidth = 44;           // of the results table's case column

constexpr const char* kPage = R"HTML(<!doctype html><html><head><script>
window.webkit.messageHandlers.Webview_Bridge.postMessage(
    {type: 'INJECT', uid: '', channelName: '__default__'});
(function whenInjected() {
  if (!window.WKWebViewBridge) { setTimeout(whenInjected, 1); return; }
  WKWebViewBridge.onAsk(function (cmd, args) { return args; });
  window.webkit.messageHandlers.Bench.postMessage('ready');
})();
</script></head><body></body></html>
)HTML";

// What every case sends. `n` is unique within the run: the engine keeps the
// compiled form of a script text it has seen, and a text that comes back (an
// id reused by the next turn of a case) would be a cache hit, which a real
// ask, with its fresh uid, never is.
std::string payload(int n) {
  return "{\"n\":" + std::to_string(n) + ",\"text\":\"hello from native\"}";
}
int nextSerial() {
  static int serial = 0;
  return ++serial;
}

// A uid of the bridge's length that names request `id`.
std::string uidFor(int id) {
  char uid[40];
  std::snprintf(uid, sizeof uid, "00000000-0000-0000-0000-%012d", id);
  return uid;
}

// The request named by a posted body's "uid" (a number or uidFor's text).
std::optional<int> requestOf(const AnyValue& body) {
  const auto* o = body.if_object();
  const auto* uid = o ? o->if_contains("uid") : nullptr;
  if (!uid || !o->contains("data")) return std::nullopt;
  std::int64_t id = -1;
  if (uid->is_int64()) id = uid->as_int64();
  if (uid->is_string() && uid->as_string().size() == 36) {
    id = std::strtoll(uid->as_string().c_str() + 24, nullptr, 10);
  }
  if (id < 0 || id >= kAsks) return std::nullopt;
  return static_cast<int>(id);
}

int run() {
  auto started = webkit::Engine::start();
  if (!started) {
    std::fprintf(stderr, "bridge_bench: %s\n", started.error().c_str());
    return 2;
  }
  webkit::Engine& engine = **started;

  const auto folder = std::filesystem::temp_directory_path() / "appex_bridge_bench";
  std::filesystem::create_directories(folder);
  const auto page = folder / "bench.html";
  std::ofstream(page) << kPage;

  // "Going to inject js sdk" is not part of the output.
  setLogSink([](LogDestination, std::string_view) {});

  auto web = engine.createWebView();
  auto bridge = WKWebViewBridge::create("bench", web);
  bool ready = false;
  web->addScriptMessageHandler("Bench", [&](const AnyValue&) { ready = true; });
  if (!web->loadFileURL(page.string(), folder.string()) ||
      !engine.runUntil([&] { return ready; }, std::chrono::seconds(30))) {
    std::fprintf(stderr, "bridge_bench: the page did not get ready\n");
    return 2;
  }

  // Round trips that bypass the bridge complete here, by request.
  std::vector<std::function<void()>> pending(kAsks);
  int wrong = 0;
  auto complete = [&](const AnyValue& body) {
    std::optional<int> id = requestOf(body);
    if (!id || !pending[*id]) {
      ++wrong;
      return;
    }
    std::exchange(pending[*id], nullptr)();
  };
  web->addScriptMessageHandler("Bench_Raw", complete);

  const Issue raw = [&](int id, std::function<void()> done) {
    pending[id] = std::move(done);
    web->evaluateScript("window.webkit.messageHandlers.Bench_Raw.postMessage({uid: " +
                        std::to_string(id) + ", data: " + payload(nextSerial()) + "})");
  };
  const Issue viaBridge = [&](int, std::function<void()> done) {
    AnyValue args = Dictionary{{"n", nextSerial()}, {"text", "hello from native"}};
    bridge->ask("__default__", "echo", args, [&wrong, args, done = std::move(done)](Result r) {
      if (!r || !*r || **r != args) ++wrong;
      done();
    });
  };
  // Breakdown 0: raw, with a second argument to the call. The engine runs a
  // script that is one call with one literal argument without compiling it;
  // any other script, such as the bridge's onWebViewCall('<channel>', {...}),
  // is compiled afresh for every new text. This case shows that cost.
  const Issue rawTwoArguments = [&](int id, std::function<void()> done) {
    pending[id] = std::move(done);
    web->evaluateScript("window.webkit.messageHandlers.Bench_Raw.postMessage({uid: " +
                        std::to_string(id) + ", data: " + payload(nextSerial()) + "}, 0)");
  };
  // Breakdown 1: raw, but the posted message has the keys and sizes of the
  // bridge's answer.
  const Issue rawAnswerShape = [&](int id, std::function<void()> done) {
    pending[id] = std::move(done);
    web->evaluateScript(
        "window.webkit.messageHandlers.Bench_Raw.postMessage({channelName: '__default__', uid: '" +
        uidFor(id) + "', err: null, data: " + payload(nextSerial()) + ", type: 'ANSWER'})");
  };
  // Breakdown 2: the bridge's page side alone. The ask's exact text is
  // evaluated directly and the page script's answer reaches a bare handler
  // put in the bridge's place for the turn.
  const Issue pageScriptOnly = [&](int id, std::function<void()> done) {
    pending[id] = std::move(done);
    Message ask{.type = MessageType::ask, .uid = uidFor(id), .cmd = "echo",
                .args = Dictionary{{"n", nextSerial()}, {"text", "hello from native"}}};
    web->evaluateScript("onWebViewCall('__default__', " + *JSON::stringify(AnyValue(ask.build())) + ")");
  };
  auto bypassBridge = [&](bool bypass) {
    if (bypass) {
      web->addScriptMessageHandler("Webview_Bridge", complete);
    } else {
      web->addScriptMessageHandler("Webview_Bridge", LeakAvoider::callbackFor(bridge));
    }
  };

  struct Case {
    const Issue& issue;
    bool bypassesBridge = false;
    LatencySamples sequential;
    LatencySamples parallel;
  };
  Case rawCase{raw}, bridgeCase{viaBridge}, twoArgumentsCase{rawTwoArguments},
      shapeCase{rawAnswerShape}, pageCase{pageScriptOnly, true};
  const std::vector<Case*> cases = {&rawCase, &bridgeCase, &twoArgumentsCase, &shapeCase, &pageCase};

  bool ok = true;
  for (Case* c : cases) {
    bypassBridge(c->bypassesBridge);
    ok = ok && measure(engine, c->issue, kWarmUp, 1, nullptr) &&
         measure(engine, c->issue, kWarmUp, kInFlight, nullptr);
  }
  // The cases in turns of `chunk` asks until each has made kAsks.
  auto alternate = [&](int inFlight, int chunk, LatencySamples Case::*samples) {
    for (int done = 0; ok && done < kAsks; done += chunk) {
      for (Case* c : cases) {
        bypassBridge(c->bypassesBridge);
        ok = ok && measure(engine, c->issue, chunk, inFlight, &(c->*samples));
      }
    }
    bypassBridge(false);
  };
  alternate(1, kSequentialChunk, &Case::sequential);
  alternate(kInFlight, kInFlightChunk, &Case::parallel);
  if (!ok || wrong) {
    std::fprintf(stderr, "bridge_bench: %s\n", ok ? "wrong answers" : "timed out");
    return 2;
  }

  std::printf("\nRound trip native -> page -> native on WebKitGTK, %d asks per case\n", kAsks);
  printLatencyTable(kLabelWidth, kInFlight,
                    {{"raw", rawCase.sequential, rawCase.parallel},
                     {"bridge", bridgeCase.sequential, bridgeCase.parallel}},
                    {{"raw, a call of two arguments", twoArgumentsCase.sequential,
                      twoArgumentsCase.parallel},
                     {"raw with the answer's shape", shapeCase.sequential, shapeCase.parallel},
                     {"page script, bare native", pageCase.sequential, pageCase.parallel}});

  // The goals, each against the raw hop measured above.
  std::printf("\n");
  printGoal("bridge / raw, p50, sequential:", bridgeCase.sequential.percentile(0.50) /
                                                  rawCase.sequential.percentile(0.50),
            kSequentialGoal, true);
  printGoal("bridge / raw, asks/s, 64 in flight:",
            bridgeCase.parallel.throughput() / rawCase.parallel.throughput(), kThroughputGoal, false);

  bridge.reset();
  web.reset();
  std::filesystem::remove_all(folder);
  // A missed goal is reported in the table, not in the exit status: the
  // status says whether the measurement itself worked, so the benchmarks
  // that follow in a run still run.
  return 0;
}

}  // namespace
}  // namespace appex::bench

int main() { return appex::bench::run(); }
