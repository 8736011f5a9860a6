// ToolbarItemInfo: the state the extension wants its toolbar button to show,
// once for all tabs or for one tab.
//
// A value type. Thread-compatible.
#pragma once

#include <optional>
#include <string>

namespace appex {

struct ToolbarItemInfo {
  // The marker for the bundle's default icon ("logo-grey.pdf").
  static constexpr const char* kDefaultImage = "__default__";

  bool enabled = true;
  // kDefaultImage, or a path relative to the extension's web assets folder.
  std::string image = kDefaultImage;
  std::optional<std::string> badgeText;
  std::optional<std::string> label;

  // Field by field, for log lines: enabled: true, image: "__default__",
  // badgeText: "3", label: nil
  std::string description() const;

  bool operator==(const ToolbarItemInfo&) const = default;
};

}  // namespace appex
