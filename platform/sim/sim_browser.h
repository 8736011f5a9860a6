// SimBrowser: an in-memory browser for tests and benchmarks. It implements
// the browser interfaces the system is handed (application, windows, tabs,
// pages, toolbar items, the extension) and lets a test build and change
// the browser's state, play content scripts, and see what the system did.
//
// Ownership mirrors a real browser's: the browser owns its open windows,
// windows their tabs, tabs their pages, and it hands out the same
// shared_ptr for the same object every time. Closing drops an object, so
// the system's weak references to it read as empty once the test lets go
// of its own handles too.
//
// Completions run on worker threads by default, so that the system's
// handling of racing completions is exercised (and checked under TSan);
// setDelivery(Delivery::inlineOnCaller) runs them before the query
// returns, for step-by-step tests. One mutex guards the whole browser;
// completions and content scripts always run without it.
//
// Thread-safe.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/safari_application.h"
#include "platform/sim/sim_core.h"

namespace appex {
class Context;
}

namespace appex::sim {

class SimExtension;
class SimWindow;

class SimBrowser final : public SFSafariApplication,
                         public std::enable_shared_from_this<SimBrowser> {
 public:
  using Clock = std::chrono::steady_clock;

  static std::shared_ptr<SimBrowser> create();

  // Makes this browser the context's SFSafariApplication and its extension
  // the context's SFSafariExtension.
  void install(Context& context);

  // SFSafariApplication.
  void getActiveWindow(WindowCompletion completion) override;
  void getAllWindows(WindowsCompletion completion) override;
  // Opens a window with one tab showing `url`; it becomes the active window.
  void openWindowWithURL(const std::string& url, WindowCompletion completion) override;
  void setToolbarItemsNeedUpdate() override;

  // Test controls.
  void setDelivery(Delivery delivery);
  Delivery delivery() const;
  // The extension's page-message entry, called by SimPage::sendMessageToExtension.
  void setIntake(Intake intake);
  // While set, every attempt to open a tab or a window answers nullptr.
  void setRefusesToOpen(bool refuses);

  // A new window with no tabs; it becomes the active window.
  std::shared_ptr<SimWindow> openWindow(bool isPrivate = false);
  std::vector<std::shared_ptr<SimWindow>> windows() const;
  std::shared_ptr<SimWindow> activeWindow() const;
  // Makes an open window the active one.
  void focus(const std::shared_ptr<SimWindow>& window);

  const std::shared_ptr<SimExtension>& extension() const { return extension_; }

  // How many toolbar updates were requested and not yet taken.
  int pendingToolbarUpdates() const;
  // Returns the pending count and resets it to zero.
  int takeToolbarUpdates();

  // Waits until `done` holds, re-checking it after every change in the
  // browser (a completion finished, a message arrived).
  bool waitUntil(const std::function<bool()>& done,
                 Clock::duration timeout = std::chrono::seconds(10));
  // Waits until no completion is queued or running. Completions that start
  // further queries keep the browser busy until those finish too.
  bool waitForIdle(Clock::duration timeout = std::chrono::seconds(10));

  explicit SimBrowser(std::shared_ptr<SimCore> core);

 private:
  friend class SimWindow;
  friend class SimTab;

  // REQUIRES: core_->mutex held.
  std::shared_ptr<SimWindow> openWindowLocked(bool isPrivate);
  void forgetWindowLocked(const SimWindow* window);
  void focusLocked(const std::shared_ptr<SimWindow>& window);

  const std::shared_ptr<SimCore> core_;
  const std::shared_ptr<SimExtension> extension_;
  // Guarded by core_->mutex.
  std::vector<std::shared_ptr<SimWindow>> windows_;
  std::weak_ptr<SimWindow> activeWindow_;
  int toolbarUpdates_ = 0;
};

}  // namespace appex::sim
