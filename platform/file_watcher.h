// FileWatcher: tells its owner when files under a folder change, so that
// `appex run --watch` can reload what an extension author edits. Watching
// lasts as long as the object; the handler is never called after it is
// destroyed.
//
// Changes are reported in batches, once a burst of them has settled (an
// editor's save is several events: write, rename, attribute change), as
// paths relative to the watched folder in the order first seen. Editor
// litter is left out: names starting with "." or "#", or ending with "~"
// or ".swp".
//
// Made by a platform implementation (platform/webkit/gio_file_watcher.h).
// Main queue only: the handler runs there too.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace appex {

class FileWatcher {
 public:
  using ChangeHandler = std::function<void(const std::vector<std::string>& changed)>;
  virtual ~FileWatcher() = default;
};

}  // namespace appex
