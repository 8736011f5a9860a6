// World: everything one fuzz input runs against, made fresh per input so
// that inputs do not leak state into each other and a crash replays from
// its input alone.
//
// A World is a new Context (current while it lives) holding a simulated
// browser whose completions run on the caller (so most work finishes before
// the call that started it returns), with this layout:
//   window 0 (active): tab 0 (active) with page 0 "https://site.test/a" and
//                      its frame page 1; tab 1 "https://other.test/";
//                      tab 2 with no page
//   window 1 (private): tab 3 with page 2 "https://private.test/"
// plus the process-wide bundle (a folder under the fuzz scratch root), the
// user-defaults store in that root (emptied again whenever an input left
// something in it), an image loader that accepts existing files, a popover
// stand-in, and an HTTP client that never touches the network: it checks
// that only http and https URLs reach it and answers each request with its
// own body and headers (status 200), from a worker thread.
//
// Identifiers the fuzzer cannot guess are offered as placeholders that
// `substitute` replaces: "$TAB0".."$TAB3", "$WIN0", "$WIN1", "$PAGE0"..
// "$PAGE2" and "$ADDR" (the tab address "<tab 0>/<page 0>").
//
// From the first World or takeLog call on, log lines are captured for the
// whole process and handed out by takeLog; nothing is printed.
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/context.h"
#include "host/any_value.h"
#include "platform/http_client.h"
#include "platform/sim/sim_browser.h"
#include "platform/sim/sim_page.h"
#include "platform/sim/sim_tab.h"
#include "platform/sim/sim_window.h"

namespace appex::fuzz {

// Answers every request with its own body and headers, never on the
// calling thread; stops the process if a URL that is not http or https
// reaches it.
class EchoHttpClient final : public HttpClient {
 public:
  void send(HttpClientRequest request, Completion completion) override;
  int requests() const { return requests_.load(); }

 private:
  std::atomic<int> requests_{0};
};

class World {
 public:
  World();
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Runs the main queue and the browser until neither has work left.
  void settle();

  // Replaces placeholders in every string of `v` (see above).
  void substitute(AnyValue& v);
  std::string tabId(std::size_t index);
  std::string windowId(std::size_t index);
  std::string pageId(std::size_t index);

  // The scratch folder shared by every World of the process.
  static const std::filesystem::path& root();
  // Log lines written since the last call, in order.
  static std::vector<std::string> takeLog();

  Context& context() { return context_; }

  std::shared_ptr<sim::SimBrowser> sim;
  std::vector<std::shared_ptr<sim::SimWindow>> windows;
  std::vector<std::shared_ptr<sim::SimTab>> tabs;
  std::vector<std::shared_ptr<sim::SimPage>> pages;
  std::shared_ptr<EchoHttpClient> http;

 private:
  Context context_;
  ScopedContext scope_;
};

}  // namespace appex::fuzz
