// ExtensionManifest: what an extension bundle declares in its Info.plist
// under NSExtension: content scripts, style sheets, which sites they apply
// to, and the toolbar item.
//
//   SFSafariContentScript  array of {Script: path}         (order kept)
//   SFSafariStyleSheet     array of {"Style Sheet": path}
//   SFSafariWebsiteAccess  {Level: "All" | "Some" | "None", "Allowed Domains": [pattern]}
//   SFSafariToolbarItem    {Action: "Popover" | "Command", Identifier, Image, Label}
//
// Script and style sheet paths are relative to Contents/Resources/. Entries
// of the wrong shape are skipped and reported in `problems` (a bundle is
// still usable without them).
//
// A value type. Thread-compatible.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/any_value.h"

namespace appex {

class Bundle;

struct ToolbarItemDeclaration {
  std::string action;  // "Popover" or "Command"
  std::optional<std::string> identifier;
  std::optional<std::string> image;
  std::optional<std::string> label;
};

struct ExtensionManifest {
  std::vector<std::string> scripts;
  std::vector<std::string> styleSheets;
  // "All" when the bundle says nothing.
  std::string accessLevel = "All";
  std::vector<std::string> allowedDomains;
  std::optional<ToolbarItemDeclaration> toolbarItem;
  // Declarations that could not be read, as sentences for a person.
  std::vector<std::string> problems;

  static ExtensionManifest read(const Dictionary& info);

  // Whether content scripts apply to a page at `host` (a host name):
  // Level "All" admits every host, "None" none, "Some" those matching an
  // allowed domain ("example.com" exactly, "*.example.com" it and its
  // subdomains).
  bool admitsHost(std::string_view host) const;
};

}  // namespace appex
