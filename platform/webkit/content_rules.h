// ContentRules: what the bundle's Info.plist asks of the browser for web
// pages and the toolbar, with the keys an extension bundle declares under
// NSExtension:
//
//   SFSafariContentScript   array of { Script: path }        scripts, in order
//   SFSafariStyleSheet      array of { "Style Sheet": path }  style sheets
//   SFSafariWebsiteAccess   { Level: "All" | "Some" | "None",
//                             "Allowed Domains": [ "*.example.com", ... ] }
//   SFSafariToolbarItem     { Action: "Popover" | "Command", Label, Image }
//
// Paths are relative to Contents/Resources/ and must stay inside it
// (resource_path.h); a file that cannot be read is left out and noted in
// `problems`. Without SFSafariWebsiteAccess the scripts apply to every web
// page; an unknown Level applies them nowhere. The toolbar item shows the
// popover unless its Action is "Command".
//
// Value type; reading is thread-safe.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/any_value.h"

namespace appex {
class Bundle;
}

namespace appex::webkit {

enum class WebsiteAccess { none, some, all };

struct ContentRules {
  struct File {
    std::string path;  // absolute
    std::string text;
  };

  std::vector<File> scripts;
  std::vector<File> styleSheets;
  WebsiteAccess access = WebsiteAccess::all;
  std::vector<std::string> allowedDomains;

  bool toolbarShowsPopover = true;
  std::optional<std::string> toolbarLabel;
  // Absolute path of the toolbar image resource, when it exists.
  std::optional<std::string> toolbarImagePath;

  // One line per declaration that was left out, and why.
  std::vector<std::string> problems;

  // The URL patterns (WebKit's "scheme://host/path" form, "*" wildcards)
  // of the pages the scripts and style sheets apply to: web pages only
  // (http and https). Empty when they apply nowhere.
  std::vector<std::string> urlPatterns() const;
};

// Reads the rules from an info dictionary; files under `resourcesFolder`.
ContentRules readContentRules(const Dictionary& info, const std::string& resourcesFolder);
// The same for a loaded bundle (its Contents/Resources/).
ContentRules readContentRules(const Bundle& bundle);

// The URL patterns for one allowed-domain entry: "example.com",
// "*.example.com" (the domain and its subdomains) or "*" (every host).
// Nothing for an entry that is no host name.
std::vector<std::string> urlPatternsForDomain(const std::string& domain);

}  // namespace appex::webkit
