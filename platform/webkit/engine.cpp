#include "platform/webkit/engine.h"

#include <gtk/gtk.h>

#include <mutex>
#include <thread>

#include "core/main_queue.h"
#include "host/json.h"
#include "platform/webkit/console_hook.h"
#include "platform/webkit/gtk_web_view.h"
#include "platform/webkit/main_queue_source.h"

namespace appex::webkit {

struct Engine::State {
  std::thread::id mainThread = std::this_thread::get_id();
  MainQueueSource mainQueue{MainQueue::shared(), g_main_context_default()};
  ConsoleObserver consoleObserver;
};

ConsoleMessage consoleMessage(std::string level, std::string text) {
  if (level != kUncaughtLevel) return ConsoleMessage{std::move(level), std::move(text)};
  ConsoleMessage message{"error", {}, true};
  // [message, source, line, column]
  auto parsed = JSON::parse(text);
  const auto* parts = parsed && parsed->is_array() ? &parsed->as_array() : nullptr;
  if (!parts || parts->size() != 4) {
    message.text = std::move(text);
    return message;
  }
  if (auto m = asString((*parts)[0])) message.text = *m;
  if (auto s = asString((*parts)[1])) message.source = *s;
  if ((*parts)[2].is_number()) message.line = (*parts)[2].to_number<std::int64_t>();
  if ((*parts)[3].is_number()) message.column = (*parts)[3].to_number<std::int64_t>();
  return message;
}

Engine::Engine() : state_(std::make_unique<State>()) {}
Engine::~Engine() = default;

std::expected<Engine*, std::string> Engine::start() {
  static std::mutex mutex;
  static Engine* engine = nullptr;  // never destroyed: lives with the process
  static std::string failure;
  std::lock_guard lock(mutex);
  if (engine) {
    if (engine->state_->mainThread != std::this_thread::get_id()) {
      return std::unexpected("the engine runs on another thread");
    }
    return engine;
  }
  if (!failure.empty()) return std::unexpected(failure);
  if (!gtk_init_check(nullptr, nullptr)) {
    failure = "GTK could not be initialised (no display?)";
    return std::unexpected(failure);
  }
  engine = new Engine();
  return engine;
}

std::shared_ptr<WebView> Engine::createWebView() {
  auto view = std::make_shared<GtkWebView>();
  // The view owns the handler, so the raw pointer never outlives it.
  view->reportConsole([state = state_.get(), source = view.get()](const std::string& level, const std::string& text) {
    if (auto observer = state->consoleObserver) observer(*source, consoleMessage(level, text));
  });
  return view;
}

void Engine::setConsoleObserver(ConsoleObserver observer) { state_->consoleObserver = std::move(observer); }

bool Engine::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  if (done()) return true;
  // A timer source wakes the blocking iteration when time is up.
  bool expired = false;
  GSource* timer = g_timeout_source_new(static_cast<guint>(timeout.count()));
  g_source_set_callback(
      timer,
      [](gpointer flag) -> gboolean {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &expired, nullptr);
  g_source_attach(timer, g_main_context_default());
  // Blocks that an iteration's callbacks posted to the main queue run as
  // soon as the iteration is over, without a fresh sweep of every source.
  while (!expired && !done()) {
    g_main_context_iteration(g_main_context_default(), TRUE);
    if (!expired && !done()) state_->mainQueue.dispatchPending();
  }
  g_source_destroy(timer);
  g_source_unref(timer);
  return done();
}

void Engine::runFor(std::chrono::milliseconds duration) {
  runUntil([] { return false; }, duration);
}

}  // namespace appex::webkit
