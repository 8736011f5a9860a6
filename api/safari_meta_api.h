// SafariMetaAPI: what the extension knows about itself; today its version,
// reported by "extension.info".
//
// The version is read anew on every call from the installed Bundle's info
// dictionary: CFBundleShortVersionString + "." + CFBundleVersion ("2.1.0"
// and "57" give "2.1.0.57"), joined as they are even if the short version
// already ends in the build number. Absent when no bundle is installed or
// either value is missing or not a string.
//
// Thread-safe (reads immutable bundle data).
#pragma once

#include <optional>
#include <string>

#include "host/any_value.h"

namespace appex {

class SafariMetaAPI {
 public:
  static std::optional<std::string> version();
  static std::optional<std::string> version(const Dictionary& info);
};

}  // namespace appex
