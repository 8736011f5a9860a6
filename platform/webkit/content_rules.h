// ContentRules: what the bundle's Info.plist asks of the browser for web
// pages and the toolbar, ready to use: the declarations as ExtensionManifest
// reads them (platform/extension_manifest.h), with the script and style
// sheet files read and the toolbar image found.
//
// Paths are relative to Contents/Resources/ and must stay inside it
// (platform/resource_path.h); a file that cannot be read is left out and noted in
// `problems`, after the manifest's own problems.
//
// Value type; reading is thread-safe.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/any_value.h"
#include "platform/extension_manifest.h"

namespace appex {
class Bundle;
}

namespace appex::webkit {

struct ContentRules {
  struct File {
    std::string path;  // absolute
    std::string text;
  };

  ExtensionManifest declared;
  std::vector<File> scripts;
  std::vector<File> styleSheets;
  // Absolute path of the toolbar image resource, when it exists.
  std::optional<std::string> toolbarImagePath;

  // One line per declaration that was left out, and why.
  std::vector<std::string> problems;

  // The URL patterns (WebKit's "scheme://host/path" form, "*" wildcards)
  // of the pages the scripts and style sheets apply to: web pages only
  // (http and https). Empty when they apply nowhere.
  std::vector<std::string> urlPatterns() const;

  // Whether the website access admits a page at `url`, so that the
  // extension may learn its URL and title: with Level "All" every page,
  // otherwise only http and https pages whose host it admits. The same
  // hosts as urlPatterns(), for a whole URL.
  bool admitsURL(const std::string& url) const;
};

// Reads the rules from an info dictionary; files under `resourcesFolder`.
ContentRules readContentRules(const Dictionary& info, const std::string& resourcesFolder);
// The same for a loaded bundle (its Contents/Resources/).
ContentRules readContentRules(const Bundle& bundle);

// The URL patterns for one allowed-domain entry: "example.com",
// "*.example.com" (the domain and its subdomains) or "*" (every host).
// Nothing for an entry that is no domain pattern (isDomainPattern).
std::vector<std::string> urlPatternsForDomain(const std::string& domain);

}  // namespace appex::webkit
