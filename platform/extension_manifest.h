// ExtensionManifest: what an extension bundle declares in its Info.plist
// under NSExtension: content scripts, style sheets, which sites they apply
// to, and the toolbar item. The one reader of those keys: `appex check`
// reports it and the WebKit browser runs by it, so both say the same.
//
//   SFSafariContentScript  array of {Script: path}         (order kept)
//   SFSafariStyleSheet     array of {"Style Sheet": path}
//   SFSafariWebsiteAccess  {Level: "All" | "Some" | "None", "Allowed Domains": [pattern]}
//   SFSafariToolbarItem    {Action: "Popover" | "Command", Identifier, Image, Label}
//
// Script and style sheet paths are relative to Contents/Resources/. What
// cannot be used is left out and reported in `problems` (a bundle is still
// usable without it), and the reading errs towards less: an unknown Level
// applies the scripts nowhere, an entry of "Allowed Domains" that is no
// domain pattern admits nothing. A file's own "Allowed URL Patterns" and
// "Excluded URL Patterns" are not followed; they are reported too. Without SFSafariWebsiteAccess the scripts
// apply everywhere; the toolbar item shows the popover unless its Action
// is "Command" (also when the bundle declares no toolbar item).
//
// Keys are checked too: one close to a known key (a likely misspelling,
// "SFSafariContentScripts") and an unknown "SFSafari..." key under
// NSExtension are reported in `problems`; other keys are left alone.
//
// A value type. Thread-compatible.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/any_value.h"

namespace appex {

class Bundle;

struct ToolbarItemDeclaration {
  std::string action = "Popover";  // or "Command"
  std::optional<std::string> identifier;
  std::optional<std::string> image;
  std::optional<std::string> label;
};

struct ExtensionManifest {
  std::vector<std::string> scripts;
  std::vector<std::string> styleSheets;
  // "All", "Some" or "None"; "All" when the bundle says nothing.
  std::string accessLevel = "All";
  // Only entries that are domain patterns (isDomainPattern).
  std::vector<std::string> allowedDomains;
  std::optional<ToolbarItemDeclaration> toolbarItem;
  // Declarations that could not be read and suspicious keys, as sentences
  // for a person.
  std::vector<std::string> problems;

  static ExtensionManifest read(const Dictionary& info);

  // Whether content scripts apply to a page at `host` (a host name):
  // Level "All" admits every host, "None" none, "Some" those matching an
  // allowed domain ("example.com" exactly, "*.example.com" it and its
  // subdomains, "*" every host).
  bool admitsHost(std::string_view host) const;

  // Whether clicking the toolbar item shows the popover (rather than
  // telling the extension it was clicked).
  bool toolbarShowsPopover() const { return !toolbarItem || toolbarItem->action != "Command"; }
};

// True for an "Allowed Domains" entry: "*", a host name ("example.com",
// "127.0.0.1") or "*." followed by one.
bool isDomainPattern(std::string_view pattern);

}  // namespace appex
