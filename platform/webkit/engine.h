// Engine: the process's WebKitGTK host.
//
// Starting it initialises GTK once, on the calling thread, which becomes the
// main thread: GTK, every web view and MainQueue::shared() run there, the
// queue driven by the default GLib main context. Hosts, tests and
// benchmarks then turn the main loop with runUntil / runFor and make web
// views with createWebView.
//
// The engine lives until the process ends. GTK and WebKit types stay behind
// this interface.
//
// Main queue only (after start, which makes the calling thread the main
// thread).
#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <string>

#include "platform/web_view.h"

namespace appex::webkit {

// One console message of a page: its level ("log", "info", "warn", "error",
// "debug") and its text, which is the page's and only ever data. An
// uncaught error (an exception, a syntax error, an unhandled rejection, a
// script that did not load) has `uncaught` set, its message as the text,
// and where it was thrown when the engine says ("" and 0 otherwise).
struct ConsoleMessage {
  std::string level;
  std::string text;
  bool uncaught = false;
  std::string source;
  std::int64_t line = 0;
  std::int64_t column = 0;
};

// The console hook's report (level, text) as a message (console_hook.h).
ConsoleMessage consoleMessage(std::string level, std::string text);

class Engine {
 public:
  // Starts the engine on the first call (initialising GTK; fails, with the
  // reason, when there is no display) and returns it on later calls made on
  // the same thread. A call from another thread fails.
  static std::expected<Engine*, std::string> start();

  // A web view in its own offscreen window, with the default configuration
  // and no page loaded.
  // Its page's console messages go to the console observer.
  std::shared_ptr<WebView> createWebView();

  // Receives the console messages of the pages of every web view made by
  // createWebView (main thread), with the view they came from; an empty
  // observer drops them. Replaces the previous observer.
  using ConsoleObserver = std::function<void(const WebView& view, const ConsoleMessage& message)>;
  void setConsoleObserver(ConsoleObserver observer);

  // Turns the main loop (GLib sources, the main queue, WebKit's IPC) until
  // `done()` holds or `timeout` passes; returns done(). Sleeps while there is
  // nothing to do.
  bool runUntil(const std::function<bool()>& done,
                std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Turns the main loop for `duration`.
  void runFor(std::chrono::milliseconds duration);

  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

 private:
  Engine();
  ~Engine();
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace appex::webkit
