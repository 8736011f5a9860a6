// Bundle checks for the host program: loads an extension bundle and verifies
// that everything it needs or declares is there, so a broken bundle fails at
// start with a message naming the file instead of misbehaving later.
//
// Checked: Contents/Info.plist (present, readable, with CFBundleIdentifier),
// the background page (Assets/extension/safari_background.html), the popup
// page when the bundle declares a toolbar item that opens a popover, every
// declared content script and style sheet; each must be a file inside
// Contents/Resources once symbolic links are followed. Declarations of the
// wrong shape and misspelt or unknown keys are reported as warnings.
//
// Thread-compatible.
#pragma once

#include <expected>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "platform/extension_manifest.h"

namespace appex {

class Bundle;

struct CheckedBundle {
  std::shared_ptr<Bundle> bundle;
  ExtensionManifest manifest;
  std::vector<std::string> warnings;
};

// The bundle at `path`, or the first problem found, naming the file.
std::expected<CheckedBundle, std::string> checkBundle(const std::filesystem::path& path);

// What `appex check` prints: the bundle's identity and declarations (the
// warnings are the caller's to report).
void describeBundle(const CheckedBundle& checked, std::ostream& out);

}  // namespace appex
