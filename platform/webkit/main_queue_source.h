// MainQueueSource: drives a MainQueue from a GLib main context.
//
// A GSource attached to the context runs the queue's blocks (drain) on the
// thread that iterates the context, whenever the queue reports new work.
// This is how work posted to MainQueue::shared() from any thread reaches the
// GTK main thread, where the web views live. Make it on the thread that
// iterates the context.
//
// The source is installed as the queue's driver for the object's lifetime
// and removed in the destructor. wakeUp() is thread-safe; everything else
// is for the context's thread.
#pragma once

#include <glib.h>

#include <atomic>
#include <thread>

#include "core/main_queue.h"

namespace appex::webkit {

class MainQueueSource final : public MainQueue::Driver {
 public:
  MainQueueSource(MainQueue& queue, GMainContext* context);
  ~MainQueueSource() override;
  MainQueueSource(const MainQueueSource&) = delete;
  MainQueueSource& operator=(const MainQueueSource&) = delete;

  // From any thread, possibly with the queue's lock held: flags the source
  // ready and wakes the context. Never calls back into the queue. On the
  // context's own thread no wake-up is needed: that thread checks the source
  // before it next sleeps.
  void wakeUp() override;

  // The source made on the calling thread, if any (the engine's, on the
  // main thread).
  static MainQueueSource* ofThisThread();

  // On the context's thread, once the callback that is running has returned
  // (the end of a web-view signal, the end of an iteration): runs the queued
  // blocks now, if there are any, as the source's own dispatch would in the
  // next iteration. Blocks posted by that callback so run after it, as they
  // must, but ahead of whatever the engine does next in the same dispatch
  // (a script message's reply to the page, say) and without another sweep of
  // every source. Does nothing inside a drain already running.
  void dispatchPending();

 private:
  struct Source;
  void drain();
  static gboolean prepare(GSource* source, gint* timeout);
  static gboolean check(GSource* source);
  static gboolean dispatch(GSource* source, GSourceFunc callback, gpointer data);

  MainQueue& queue_;
  GMainContext* context_;
  const std::thread::id loopThread_ = std::this_thread::get_id();
  GSource* source_ = nullptr;
  std::atomic<bool> ready_{false};
  bool draining_ = false;  // context's thread only
};

}  // namespace appex::webkit
