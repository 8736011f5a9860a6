// The browser's thread rule: every WebKit and GTK call, and all state of the
// browser objects, on the engine's main thread. Calls that arrive on other
// threads (platform completions, the tab registry's pool threads) hop there
// through MainQueue::shared(); calls made on the main thread run at once.
//
// Thread-safe.
#pragma once

#include <functional>

namespace appex::webkit {

// Records the calling thread as the main thread (the browser does this when
// it is made, on the engine's thread).
void markMainThread();
bool isMainThread();
// Runs `work` now on the main thread, or posts it to the main queue.
void runOnMainThread(std::move_only_function<void()> work);

}  // namespace appex::webkit
