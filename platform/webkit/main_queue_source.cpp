#include "platform/webkit/main_queue_source.h"

namespace appex::webkit {

struct MainQueueSource::Source {
  GSource base;  // first: GLib allocates and casts the whole struct
  MainQueueSource* owner;
};

namespace {

GSourceFuncs sourceFuncs{};
thread_local MainQueueSource* thisThreadSource = nullptr;

}  // namespace

MainQueueSource::MainQueueSource(MainQueue& queue, GMainContext* context)
    : queue_(queue), context_(g_main_context_ref(context)) {
  sourceFuncs.prepare = &MainQueueSource::prepare;
  sourceFuncs.check = &MainQueueSource::check;
  sourceFuncs.dispatch = &MainQueueSource::dispatch;
  source_ = g_source_new(&sourceFuncs, sizeof(Source));
  reinterpret_cast<Source*>(source_)->owner = this;
  g_source_set_priority(source_, G_PRIORITY_DEFAULT);
  g_source_set_name(source_, "appex main queue");
  g_source_attach(source_, context_);
  queue_.setDriver(this);
  thisThreadSource = this;
}

MainQueueSource::~MainQueueSource() {
  if (thisThreadSource == this) thisThreadSource = nullptr;
  queue_.setDriver(nullptr);
  g_source_destroy(source_);
  g_source_unref(source_);
  g_main_context_unref(context_);
}

void MainQueueSource::wakeUp() {
  ready_.store(true, std::memory_order_release);
  // Posts from the loop's own thread (a web-view callback asking the page,
  // say) are the common case; sparing them the wake-up spares a write and a
  // read of the context's event descriptor per post.
  if (std::this_thread::get_id() != loopThread_) g_main_context_wakeup(context_);
}

MainQueueSource* MainQueueSource::ofThisThread() { return thisThreadSource; }

void MainQueueSource::dispatchPending() {
  if (draining_ || !ready_.load(std::memory_order_acquire)) return;
  drain();
}

void MainQueueSource::drain() {
  draining_ = true;
  // Cleared before draining: a block posted after the drain found the queue
  // empty wakes us again, so none is left waiting.
  ready_.store(false, std::memory_order_release);
  queue_.drain();
  draining_ = false;
}

gboolean MainQueueSource::prepare(GSource* source, gint* timeout) {
  *timeout = -1;
  return reinterpret_cast<Source*>(source)->owner->ready_.load(std::memory_order_acquire);
}

gboolean MainQueueSource::check(GSource* source) {
  return reinterpret_cast<Source*>(source)->owner->ready_.load(std::memory_order_acquire);
}

gboolean MainQueueSource::dispatch(GSource* source, GSourceFunc, gpointer) {
  reinterpret_cast<Source*>(source)->owner->drain();
  return G_SOURCE_CONTINUE;
}

}  // namespace appex::webkit
