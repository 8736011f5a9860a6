// PopupController: what the browser API needs of the toolbar popover that
// shows the extension's popup page: its preferred content size and its
// dismissal. The popup view controller implements it; the host shows the
// popover at that size and tests observe it.
//
// Thread-safe.
#pragma once

#include <functional>
#include <memory>

namespace appex {

class Context;

// A size in points.
struct Size {
  double width = 0;
  double height = 0;

  bool operator==(const Size&) const = default;
};

class PopupController {
 public:
  virtual ~PopupController() = default;

  virtual Size preferredContentSize() const = 0;
  virtual void setPreferredContentSize(Size size) = 0;
  // Closes the popover if it is shown.
  virtual void dismissPopover() = 0;
};

// Makes a Context's shared PopupController the first time the API needs one
// and none is installed. The controller lives in a library that builds on
// the API, so the host that links it installs the maker (the extension
// handler does): the popup commands then act on the one shared controller
// from the first command on, whether or not the popover was ever shown.
// The maker installs what it makes as the Context's PopupController.
struct PopupControllerMaker {
  std::function<std::shared_ptr<PopupController>(Context&)> make;
};

}  // namespace appex
