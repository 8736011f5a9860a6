// SFSafariApplication: the browser as a whole: its windows, opening new
// ones, and the request to re-validate the extension's toolbar items.
//
// The host installs one per Context (Context::set<SFSafariApplication>);
// the system reaches it through its Context. Every completion is called
// exactly once, on any thread, possibly before the call returns.
//
// Thread-safe.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace appex {

class SFSafariWindow;

class SFSafariApplication {
 public:
  using WindowCompletion = std::move_only_function<void(std::shared_ptr<SFSafariWindow>)>;
  using WindowsCompletion =
      std::move_only_function<void(std::vector<std::shared_ptr<SFSafariWindow>>)>;

  virtual ~SFSafariApplication() = default;

  // The frontmost (last focused) window, or nullptr when none is open.
  virtual void getActiveWindow(WindowCompletion completion) = 0;
  // Every open window, in the browser's order.
  virtual void getAllWindows(WindowsCompletion completion) = 0;
  // Opens a new window showing `url` (absolute URL text). The completion
  // receives it, or nullptr when the browser opened none.
  virtual void openWindowWithURL(const std::string& url, WindowCompletion completion) = 0;
  // Asks the browser to validate every toolbar item of the extension again
  // (it then calls the extension's validation for each window). Returns at
  // once.
  virtual void setToolbarItemsNeedUpdate() = 0;
};

}  // namespace appex
