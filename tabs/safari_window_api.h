// SafariWindowAPI: the registry of browser windows (one WindowState per
// window ever seen, with a UUID that never changes) and the window
// commands.
//
// Windows are keyed by weak reference and compared with the browser's
// isEqual, like tabs in SafariTabAPI; a closed window keeps its snapshot
// with win() reading as empty. The tab registry reaches this one to learn a
// tab's window, and this one reaches the tab registry to fill a populated
// window's tabs; both are found through the same Context.
//
// Thread-safe; completions and events may come on any thread.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/event_emitter.h"
#include "core/key_value_set.h"
#include "core/weak_ref.h"
#include "host/event_payload.h"
#include "host/result.h"
#include "platform/safari_application.h"
#include "platform/safari_window.h"
#include "tabs/window_state.h"

namespace appex {

class Context;
class SafariTabAPI;

class SafariWindowAPI : public std::enable_shared_from_this<SafariWindowAPI> {
 public:
  using WindowCache = KeyValueSet<WeakRef<SFSafariWindow>, std::shared_ptr<WindowState>>;
  using Emitter = EventEmitter<EventPayload>;
  using WindowStateCompletion = std::move_only_function<void(std::shared_ptr<WindowState>)>;
  using WindowStatesCompletion =
      std::move_only_function<void(std::vector<std::shared_ptr<WindowState>>)>;

  // The current Context's instance.
  static std::shared_ptr<SafariWindowAPI> shared();

  explicit SafariWindowAPI(Context& context);

  // Window events "create" and "update"; the payload's native object is the
  // WindowState itself.
  const std::shared_ptr<Emitter>& emitter() const { return emitter_; }
  WindowCache& cache() { return cache_; }

  // Get-or-create: the window's snapshot (made with a new id on first
  // sight) with `tabs` as its tab list. Fires "create"/"update" unless
  // `suppressEvents`, then calls `completion`.
  void getWindowState(WindowState::TabList tabs, std::shared_ptr<SFSafariWindow> window,
                      bool suppressEvents, WindowStateCompletion completion);

  // Snapshots of `windows`, in order (events suppressed). With `populate`
  // each window's tab list is read afresh through the tab registry;
  // without, it is replaced by an empty list.
  void windowStates(std::vector<std::shared_ptr<SFSafariWindow>> windows, bool populate,
                    WindowStatesCompletion completion);

  // The snapshot with that id (found through the cache's id index), or
  // nullptr.
  std::shared_ptr<WindowState> findWindowState(const std::string& id) const;

  // Window commands, once their arguments are valid. Each calls
  // `completion` exactly once.

  // The window's dictionary form: with `populate` its tabs read afresh
  // (the cached list when the window is gone), else the cached list.
  // Unknown id: "[windows.get] no tab found with id: " + id.
  void getWindow(const std::string& id, bool populate, ResultCallback completion);
  // The active window, or "[windows.getLastFocused] no tab found".
  void getLastFocusedWindow(bool populate, ResultCallback completion);
  // Every open window, in the browser's order.
  void allWindows(bool populate, ResultCallback completion);
  // Opens a window at `url`, or fails with
  // "[windows.create] Failed to create window for unknown reason".
  void createWindow(const std::string& url, ResultCallback completion);
  // Forgets the window's snapshot and closes it: true, or false when no
  // open window has that id.
  void removeWindow(const std::string& id, ResultCallback completion);

 private:
  std::shared_ptr<SFSafariApplication> application() const;
  std::shared_ptr<SafariTabAPI> tabs() const;

  Context& context_;
  const std::shared_ptr<Emitter> emitter_;
  WindowCache cache_;
  // Serialises find-or-insert on cache_, so a window never gets two ids.
  std::mutex registryMutex_;
};

}  // namespace appex
