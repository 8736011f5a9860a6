// BundleWatch: `appex run --watch`. Watches the bundle's Contents folder and,
// once an edit has settled, reloads the extension: the background page, the
// popup page (if it was loaded) and the tabs with the content scripts and
// style sheets read again. Each reload is told as the line "[watch] reloaded
// after change to <path>" (the path relative to Contents/Resources, or
// "Info.plist") and the event "reloaded" {"path", "changed": [paths]}.
// Info.plist itself is read once, at start: a change to it is reported and
// applies from the next run.
//
// Main thread only (the engine's); lives no longer than the session.
#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <string>

#include "app/host_session.h"

namespace appex {

class FileWatcher;

class BundleWatch {
 public:
  // `say` prints a line for the person running appex.
  static std::expected<std::unique_ptr<BundleWatch>, std::string> start(HostSession& session,
                                                                        const std::string& bundlePath,
                                                                        HostSession::EventSink events,
                                                                        std::function<void(const std::string&)> say);
  ~BundleWatch();

 private:
  BundleWatch(HostSession& session, HostSession::EventSink events, std::function<void(const std::string&)> say);
  void reload(const std::vector<std::string>& changed);

  HostSession& session_;
  HostSession::EventSink events_;
  std::function<void(const std::string&)> say_;
  std::unique_ptr<FileWatcher> watcher_;
};

}  // namespace appex
