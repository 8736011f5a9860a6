#include "api/toolbar_item_info.h"

namespace appex {
namespace {

std::string quoted(const std::optional<std::string>& s) {
  return s ? "\"" + *s + "\"" : "nil";
}

}  // namespace

std::string ToolbarItemInfo::description() const {
  return std::string("enabled: ") + (enabled ? "true" : "false") + ", image: " + quoted(image) +
         ", badgeText: " + quoted(badgeText) + ", label: " + quoted(label);
}

}  // namespace appex
