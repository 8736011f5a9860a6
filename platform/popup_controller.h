// PopupController: what the browser API needs of the toolbar popover that
// shows the extension's popup page: its preferred content size and its
// dismissal. The popup view controller implements it; the host shows the
// popover at that size and tests observe it.
//
// Thread-safe.
#pragma once

namespace appex {

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

}  // namespace appex
