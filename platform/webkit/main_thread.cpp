#include "platform/webkit/main_thread.h"

#include <atomic>
#include <thread>

#include "core/main_queue.h"

namespace appex::webkit {
namespace {
std::atomic<std::thread::id> mainThread{};
}

void markMainThread() { mainThread = std::this_thread::get_id(); }

bool isMainThread() { return mainThread.load() == std::this_thread::get_id(); }

void runOnMainThread(std::move_only_function<void()> work) {
  if (isMainThread()) {
    work();
  } else {
    MainQueue::shared().post(std::move(work));
  }
}

}  // namespace appex::webkit
