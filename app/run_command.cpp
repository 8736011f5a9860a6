#include "app/run_command.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <thread>

#include <boost/json/serialize.hpp>

#include "app/bundle_check.h"
#include "app/bundle_watch.h"
#include "app/control_channel.h"
#include "app/control_commands.h"
#include "app/exit_codes.h"
#include "app/host_session.h"
#include "app/run_options.h"
#include "app/site_server.h"
#include "app/virtual_display.h"
#include "core/log.h"
#include "core/main_queue.h"
#include "host/safari_messaging_api.h"
#include "platform/webkit/engine.h"
#include "platform/webkit/webkit_browser.h"

namespace appex {
namespace {

using Clock = std::chrono::steady_clock;
// How long the background page has to come up.
constexpr auto kReadyPatience = std::chrono::seconds(30);

std::atomic<bool> interrupted{false};
void onInterrupt(int) { interrupted = true; }

std::mutex stderrMutex;
void err(const std::string& line) {
  std::lock_guard lock(stderrMutex);
  std::cerr << line << "\n";
}

// Reads stdin on its own thread and hands each line to the main queue;
// the end of input is one more call with no line.
void readInput(std::function<void(std::optional<std::string>)> onLine) {
  std::thread([onLine] {
    std::string line;
    while (std::getline(std::cin, line)) {
      MainQueue::shared().post([onLine, line] { onLine(line); });
    }
    MainQueue::shared().post([onLine] { onLine(std::nullopt); });
  }).detach();
}

std::string describe(const Dictionary& fields) { return boost::json::serialize(fields); }

// A toolbar state's image as the bundle names it, not where this machine
// keeps it.
void imageInBundle(Dictionary& toolbar, const std::string& resources) {
  if (auto image = asString(toolbar, "image"); image && image->starts_with(resources)) {
    toolbar["image"] = image->substr(resources.size());
  }
}

// A session event as a stderr line (without --control), or nothing where
// the output level leaves it out: errors always; with --quiet nothing else
// but console errors; the demo shows every event.
std::optional<std::string> stderrLine(const std::string& event, Dictionary fields, const RunOptions& options,
                                      const std::string& resources) {
  const bool demo = options.example && !options.control;
  if (event == "error") {
    // "[error] t1 content: TypeError: x is undefined (user-script:3:7:12)"
    std::string where = asString(fields, "in").value_or("?");
    if (auto tab = asString(fields, "tab")) where = *tab + " " + where;
    std::string line = "[error] " + where + ": " + asString(fields, "message").value_or("");
    const auto source = asString(fields, "source").value_or("");
    const auto number = [&](const char* key) {
      return fields.contains(key) && fields.at(key).is_int64() ? fields.at(key).as_int64() : 0;
    };
    if (!source.empty()) {
      line += " (" + source;
      if (number("line") > 0) line += ":" + std::to_string(number("line")) + ":" + std::to_string(number("column"));
      line += ")";
    }
    return line;
  }
  if (event == "console") {
    // "[console] background warn: text", "[console] t1 log: text"
    const auto level = asString(fields, "level").value_or("log");
    if (options.quiet && level != "error") return std::nullopt;
    auto source = asString(fields, "tab");
    if (!source) source = asString(fields, "source");
    return "[console] " + source.value_or("?") + " " + level + ": " + asString(fields, "text").value_or("");
  }
  if (options.quiet) return std::nullopt;
  if (event == "toolbar") imageInBundle(fields, resources);
  if (event == "toolbar" || event == "ready" || event == "popover" || event == "loadFailed" || demo) {
    return "[" + event + "] " + describe(fields);
  }
  return std::nullopt;
}

}  // namespace

int runCommand(const std::vector<std::string>& args) {
  auto parsed = parseRunOptions(args);
  if (!parsed) {
    std::cerr << "appex run: " << parsed.error() << (parsed.error().ends_with('\n') ? "" : "\n");
    return kExitUsage;
  }
  if (!parsed->options) {
    std::cout << parsed->help;
    return kExitOk;
  }
  RunOptions options = *parsed->options;
  bool servesExample = false;
  if (options.example) {
    options.bundle = APPEX_EXAMPLE_BUNDLE;
    if (!options.control) {
      // The demo: the example's page, the traffic, the toolbar, the popover.
      if (options.serve.empty()) {
        options.serve = APPEX_EXAMPLE_SITE;
        servesExample = true;
      }
      if (options.open.empty()) options.open.push_back("index.html");
      options.trace = !options.quiet;
      if (options.snapshots.empty()) options.snapshots.emplace_back("popover", "appex-popover.png");
    }
  }
  auto checked = checkBundle(options.bundle);
  if (!checked) {
    std::cerr << "appex run: " << checked.error() << "\n";
    return kExitBadBundle;
  }
  if (!options.quiet) {
    for (const auto& w : checked->warnings) err("appex run: warning: " + w);
  }

  std::unique_ptr<SiteServer> site;
  if (!options.serve.empty()) {
    auto served = SiteServer::start(options.serve);
    if (!served) {
      std::cerr << "appex run: " << served.error() << "\n";
      return kExitFailed;
    }
    site = std::move(*served);
    // The example's folder by its place in the source tree, not this machine's path.
    if (!options.quiet) err("[serve] " + (servesExample ? std::string("examples/site") : options.serve) + " at " + site->baseURL());
  }
  for (auto& url : options.open) {
    auto resolved = resolveURL(site ? site->baseURL() : std::string(), url);
    if (!resolved) {
      std::cerr << "appex run: --open: " << resolved.error() << "\n";
      return kExitUsage;
    }
    url = *resolved;
    if (!webkit::isLoadableURL(url)) {
      std::cerr << "appex run: --open: cannot open " << url << " (not an http, https, file or about URL)\n";
      return kExitUsage;
    }
  }

  if (const char* shown = std::getenv("DISPLAY"); options.headed && (!shown || !*shown)) {
    std::cerr << "appex run: --headed shows the windows on the display in DISPLAY, and DISPLAY is not set\n";
    return kExitNoDisplay;
  }
  auto display = VirtualDisplay::ensure();
  if (!display) {
    std::cerr << "appex run: " << display.error() << "\n";
    return kExitNoDisplay;
  }
  auto engine = webkit::Engine::start();
  if (!engine) {
    std::cerr << "appex run: " << engine.error() << "\n";
    return kExitNoDisplay;
  }

  // Where the session's events and the extension's log lines go: protocol
  // events with --control (stdout belongs to the protocol), else stderr.
  std::unique_ptr<ControlChannel> channel;
  if (options.control) {
    channel = std::make_unique<ControlChannel>(
        std::cout, [](std::function<void()> block) { MainQueue::shared().post(std::move(block)); });
  }
  const std::string siteURL = site ? site->baseURL() : std::string();
  const std::string resources = options.bundle + "/Contents/Resources/";
  auto events = [&channel, siteURL, &options, resources](const std::string& event, Dictionary fields) {
    if (event == "ready") fields["serve"] = siteURL.empty() ? AnyValue(nullptr) : AnyValue(siteURL);
    if (channel) {
      channel->emit(event, std::move(fields));
      // The requests that came before the extension was up, in order.
      if (event == "ready") channel->open();
      return;
    }
    if (auto line = stderrLine(event, std::move(fields), options, resources)) err(*line);
  };
  setLogSink([&channel, verbose = options.verbose](LogDestination, std::string_view line) {
    if (channel) {
      channel->emit("log", Dictionary{{"line", std::string(line)}});
    } else if (verbose) {
      err("[log] " + std::string(line));
    }
  });

  auto session = HostSession::start(**engine, options, std::move(*checked), events);
  if (!session) {
    setLogSink(nullptr);
    std::cerr << "appex run: " << session.error() << "\n";
    return kExitFailed;
  }
  HostSession& s = **session;
  std::unique_ptr<BundleWatch> watch;
  if (options.watch) {
    auto started = BundleWatch::start(s, options.bundle, events, err);
    if (!started) {
      session->reset();
      setLogSink(nullptr);
      std::cerr << "appex run: " << started.error() << "\n";
      return kExitFailed;
    }
    watch = std::move(*started);
  }
  if (options.trace) SafariMessagingAPI::shared()->setTrace([](const std::string& line) { err("[trace] " + line); });

  std::atomic<bool> quit = false;
  int exitCode = kExitOk;
  std::signal(SIGINT, onInterrupt);
  std::signal(SIGTERM, onInterrupt);
  if (channel) {
    addControlCommands(*channel, s, siteURL, [&quit] { quit = true; });
    readInput([&](std::optional<std::string> line) {
      if (line) return channel->handleLine(*line);
      // With --timeout the run goes on until then.
      if (!options.timeoutSeconds) channel->endOfInput([&quit] { quit = true; });
    });
  } else if (!options.example) {
// g++ 12 false positive: once this lambda is inlined into std::function's
// invoker, it reports the compare against "quit" as reading the string of a
// maybe-uninitialized optional, though the compare runs only when engaged.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
    readInput([&](std::optional<std::string> line) {
      // With --timeout the run goes on until then.
      if ((!line && !options.timeoutSeconds) || (line && *line == "quit")) quit = true;
    });
#pragma GCC diagnostic pop
  }

  // Snapshots asked for on the command line, once the extension is up.
  std::size_t snapshotsLeft = options.snapshots.size();
  bool snapshotsStarted = false;
  bool countShown = false;
  const auto startedAt = Clock::now();
  const auto deadline = options.timeoutSeconds
                            ? startedAt + std::chrono::milliseconds(static_cast<long>(*options.timeoutSeconds * 1000))
                            : Clock::time_point::max();
  const bool demo = options.example && !options.control;

  std::string stopReason;  // why the run stopped before its end, for the requests still open
  while (!quit && !interrupted) {
    (*engine)->runUntil([&] { return quit || interrupted.load(); }, std::chrono::milliseconds(20));
    s.tick();
    if (Clock::now() >= deadline) {
      stopReason = "the run stopped at --timeout";
      break;
    }
    if (!s.ready() && Clock::now() - startedAt > kReadyPatience) {
      stopReason = "the extension never became ready";
      break;
    }
    // The demo waits for the page's count to reach the toolbar first.
    if (s.ready() && demo && !countShown) {
      auto w = s.browser().activeWindow();
      auto state = w ? s.toolbarState(w) : Dictionary{};
      countShown = (state.contains("badgeText") && !state.at("badgeText").is_null()) ||
                   Clock::now() - startedAt > std::chrono::seconds(15);
    }
    if (s.ready() && (!demo || countShown) && !snapshotsStarted) {
      snapshotsStarted = true;
      for (const auto& [what, file] : options.snapshots) {
        s.snapshot(what, file, [&, what = what](Result r) {
          --snapshotsLeft;
          if (r) {
            if (!options.quiet) err("[snapshot] " + what + ": " + describe(r.value()->as_object()));
          } else {
            err("[snapshot] " + what + ": " + r.error().text);
            exitCode = kExitFailed;
          }
        });
      }
    }
    if (demo && snapshotsStarted && snapshotsLeft == 0) {
      auto w = s.browser().activeWindow();
      if (w && !options.quiet) {
        auto state = s.toolbarState(w);
        imageInBundle(state, resources);
        err("[toolbar] final: " + describe(state));
      }
      break;
    }
  }
  if (interrupted) stopReason = "the run was interrupted";
  if (channel) channel->failOpen(stopReason.empty() ? "not run, the host is quitting" : stopReason);
  if (!s.ready() && !quit) {
    err("appex run: the background page never became ready (it did not load, or its bridge never answered)");
    exitCode = kExitFailed;
  } else if (demo && !(snapshotsStarted && snapshotsLeft == 0)) {
    err("appex run: the example did not finish (is the background page loading?)");
    exitCode = kExitFailed;
  }
  watch.reset();
  session->reset();
  setLogSink(nullptr);
  return exitCode;
}

}  // namespace appex
