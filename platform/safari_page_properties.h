// SFSafariPageProperties: what the browser reports about one page when asked
// (SFSafariPage::getPageProperties). A plain value; copies are independent.
//
// Thread-compatible.
#pragma once

#include <optional>
#include <string>

namespace appex {

struct SFSafariPageProperties {
  // The page's absolute URL text; absent when the page has none yet.
  std::optional<std::string> url;
  // The document title; absent when the page has none.
  std::optional<std::string> title;
  // True for pages of private windows.
  bool usesPrivateBrowsing = false;

  bool operator==(const SFSafariPageProperties&) const = default;
};

}  // namespace appex
