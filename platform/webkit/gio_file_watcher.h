// The FileWatcher of the WebKit platform: GLib file monitors on a folder and
// every folder below it (new folders are watched as they appear), reporting
// on the GLib main context the engine turns.
//
// Main queue only.
#pragma once

#include <chrono>
#include <expected>
#include <memory>
#include <string>

#include "platform/file_watcher.h"

namespace appex::webkit {

// Watches `folder` (which must exist); a batch is reported once no change
// has come for `settle`.
std::expected<std::unique_ptr<FileWatcher>, std::string> watchFolder(
    const std::string& folder, FileWatcher::ChangeHandler onChange,
    std::chrono::milliseconds settle = std::chrono::milliseconds(150));

}  // namespace appex::webkit
