#include "platform/webkit/gio_file_watcher.h"

#include <gio/gio.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <system_error>

namespace appex::webkit {
namespace {

namespace fs = std::filesystem;

bool isLitter(const std::string& name) {
  return name.empty() || name.front() == '.' || name.front() == '#' || name.back() == '~' ||
         name.ends_with(".swp") || name.ends_with(".swx");
}

class GioFileWatcher final : public FileWatcher {
 public:
  GioFileWatcher(fs::path root, ChangeHandler onChange, std::chrono::milliseconds settle)
      : root_(std::move(root)), onChange_(std::move(onChange)), settle_(settle) {}

  ~GioFileWatcher() override {
    if (timer_) g_source_remove(timer_);
    for (auto& [path, monitor] : monitors_) {
      g_signal_handlers_disconnect_by_data(monitor, this);
      g_file_monitor_cancel(monitor);
      g_object_unref(monitor);
    }
  }

  // Watches `folder` and the folders below it.
  std::expected<void, std::string> watchTree(const fs::path& folder) {
    if (auto watched = watch(folder); !watched) return watched;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
      if (it->is_directory(ec) && !it->is_symlink(ec) && !isLitter(it->path().filename().string())) {
        if (auto watched = watch(it->path()); !watched) return watched;
      }
    }
    return {};
  }

 private:
  std::expected<void, std::string> watch(const fs::path& folder) {
    if (monitors_.contains(folder.string())) return {};
    GFile* file = g_file_new_for_path(folder.c_str());
    GError* error = nullptr;
    GFileMonitor* monitor = g_file_monitor_directory(file, G_FILE_MONITOR_WATCH_MOVES, nullptr, &error);
    g_object_unref(file);
    if (!monitor) {
      std::string reason = "cannot watch " + folder.string() + ": " + (error ? error->message : "unknown error");
      if (error) g_error_free(error);
      return std::unexpected(reason);
    }
    g_signal_connect(monitor, "changed", G_CALLBACK(&GioFileWatcher::onEvent), this);
    monitors_.emplace(folder.string(), monitor);
    return {};
  }

  static void onEvent(GFileMonitor*, GFile* file, GFile* other, GFileMonitorEvent event, gpointer data) {
    auto& self = *static_cast<GioFileWatcher*>(data);
    switch (event) {
      case G_FILE_MONITOR_EVENT_CREATED:
        self.noteChange(file, true);
        break;
      case G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT:
      case G_FILE_MONITOR_EVENT_DELETED:
      case G_FILE_MONITOR_EVENT_MOVED_IN:
      case G_FILE_MONITOR_EVENT_MOVED_OUT:
      case G_FILE_MONITOR_EVENT_CHANGED:
        self.noteChange(file);
        break;
      case G_FILE_MONITOR_EVENT_RENAMED:
        // A save by rename: the new name is the file that changed.
        self.noteChange(other ? other : file);
        break;
      default:
        return;  // attribute changes, unmounts
    }
  }

  // `created`: the file is new in this batch (a temporary file of a save,
  // perhaps, left out if it is gone when the batch settles).
  void noteChange(GFile* file, bool created = false) {
    char* raw = g_file_get_path(file);
    if (!raw) return;
    const fs::path path(raw);
    g_free(raw);
    if (isLitter(path.filename().string())) return;
    std::error_code ec;
    // A new folder is watched from now on, with what it already holds.
    if (fs::is_directory(path, ec) && !fs::is_symlink(path, ec)) (void)watchTree(path);
    const std::string relative = path.lexically_relative(root_).string();
    if (relative.empty() || relative.starts_with("..")) return;
    if (std::find(pending_.begin(), pending_.end(), relative) == pending_.end()) pending_.push_back(relative);
    if (created) created_.push_back(relative);
    if (timer_) g_source_remove(timer_);
    timer_ = g_timeout_add(static_cast<guint>(settle_.count()), &GioFileWatcher::onSettled, this);
  }

  static gboolean onSettled(gpointer data) {
    auto& self = *static_cast<GioFileWatcher*>(data);
    self.timer_ = 0;
    auto changed = std::move(self.pending_);
    self.pending_.clear();
    std::erase_if(changed, [&self](const std::string& path) {
      std::error_code ec;
      return std::find(self.created_.begin(), self.created_.end(), path) != self.created_.end() &&
             !fs::exists(self.root_ / path, ec);
    });
    self.created_.clear();
    if (!changed.empty() && self.onChange_) self.onChange_(changed);
    return G_SOURCE_REMOVE;
  }

  const fs::path root_;
  const ChangeHandler onChange_;
  const std::chrono::milliseconds settle_;
  std::map<std::string, GFileMonitor*> monitors_;  // folder -> its monitor (owned)
  std::vector<std::string> pending_;
  std::vector<std::string> created_;  // of `pending_`, those that came into being
  guint timer_ = 0;
};

}  // namespace

std::expected<std::unique_ptr<FileWatcher>, std::string> watchFolder(const std::string& folder,
                                                                     FileWatcher::ChangeHandler onChange,
                                                                     std::chrono::milliseconds settle) {
  std::error_code ec;
  const fs::path root = fs::canonical(folder, ec);
  if (ec || !fs::is_directory(root, ec)) return std::unexpected("cannot watch " + folder + ": no such folder");
  auto watcher = std::make_unique<GioFileWatcher>(root, std::move(onChange), settle);
  if (auto watched = watcher->watchTree(root); !watched) return std::unexpected(watched.error());
  return watcher;
}

}  // namespace appex::webkit
