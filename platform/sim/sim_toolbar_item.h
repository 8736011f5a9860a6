// SimToolbarItem: the extension's toolbar button of one simulated window.
// It only remembers what was last pushed onto it, for tests to read.
//
// Owned by its SimWindow. Thread-safe.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "platform/safari_toolbar_item.h"

namespace appex::sim {

class SimToolbarItem final : public SFSafariToolbarItem {
 public:
  SimToolbarItem() = default;

  void setImage(std::optional<ToolbarImage> image) override;
  void setBadgeText(std::optional<std::string> text) override;
  void setLabel(std::optional<std::string> label) override;
  void setEnabled(bool enabled) override;

  std::optional<ToolbarImage> image() const override;
  std::optional<std::string> badgeText() const override;
  std::optional<std::string> label() const override;
  bool isEnabled() const override;

 private:
  mutable std::mutex mutex_;
  std::optional<ToolbarImage> image_;
  std::optional<std::string> badgeText_;
  std::optional<std::string> label_;
  bool enabled_ = true;
};

}  // namespace appex::sim
