// SFSafariToolbarItem: the extension's button in one browser window's
// toolbar. Each window has its own item; the system pushes the button's
// icon, badge, label and enabled flag onto it, and the getters report what
// was last pushed.
//
// The browser owns the item. Thread-safe.
#pragma once

#include <optional>
#include <string>

namespace appex {

// An icon for the toolbar button: the image file it was loaded from.
struct ToolbarImage {
  std::string path;

  bool operator==(const ToolbarImage&) const = default;
};

class SFSafariToolbarItem {
 public:
  virtual ~SFSafariToolbarItem() = default;

  // Each setter replaces what the button shows; an absent value clears it.
  virtual void setImage(std::optional<ToolbarImage> image) = 0;
  virtual void setBadgeText(std::optional<std::string> text) = 0;
  virtual void setLabel(std::optional<std::string> label) = 0;
  virtual void setEnabled(bool enabled) = 0;

  virtual std::optional<ToolbarImage> image() const = 0;
  virtual std::optional<std::string> badgeText() const = 0;
  virtual std::optional<std::string> label() const = 0;
  virtual bool isEnabled() const = 0;
};

}  // namespace appex
