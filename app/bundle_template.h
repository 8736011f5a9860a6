// The starting bundle `appex init` writes: a background page, a popup, a
// content script, the Info.plist declaring them, and a client test that
// drives the bundle through `appex run --control`. The SDK files are not
// part of it; the caller copies them from the SDK shipped with appex.
//
// Thread-safe (constant data).
#pragma once

#include <string>
#include <vector>

namespace appex {

struct TemplateFile {
  std::string path;  // relative to the bundle folder
  std::string text;
};

// The files for a bundle named `name` (shown as the toolbar label and
// popup title) with the bundle identifier `identifier`.
std::vector<TemplateFile> bundleTemplate(const std::string& name, const std::string& identifier);

}  // namespace appex
