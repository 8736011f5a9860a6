// WebKitToolbarItem: the extension's button in one browser window: what
// it shows (image, badge, label) and whether it is enabled. The window draws
// it; each change is reported to the window through the change handler.
//
// Owned by its window. Thread-safe: the handler runs after the change, with
// no lock held, on the thread that made it.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "platform/safari_toolbar_item.h"

namespace appex::webkit {

class WebKitToolbarItem final : public SFSafariToolbarItem {
 public:
  using ChangeHandler = std::function<void()>;

  void setImage(std::optional<ToolbarImage> image) override;
  void setBadgeText(std::optional<std::string> text) override;
  void setLabel(std::optional<std::string> label) override;
  void setEnabled(bool enabled) override;

  std::optional<ToolbarImage> image() const override;
  std::optional<std::string> badgeText() const override;
  std::optional<std::string> label() const override;
  bool isEnabled() const override;

  void setChangeHandler(ChangeHandler handler);

 private:
  template <class F>
  void change(F f);

  mutable std::mutex mutex_;
  std::optional<ToolbarImage> image_;
  std::optional<std::string> badgeText_;
  std::optional<std::string> label_;
  bool enabled_ = true;
  ChangeHandler handler_;
};

}  // namespace appex::webkit
