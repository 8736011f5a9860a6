#include "platform/webkit/content_rules.h"

#include <fstream>
#include <sstream>

#include "platform/bundle.h"
#include "platform/webkit/resource_path.h"

namespace appex::webkit {
namespace {

bool isHostCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.';
}

// Reads every { <key>: path } entry of the array under `listKey`.
std::vector<ContentRules::File> readFiles(const Dictionary& extension, std::string_view listKey,
                                          std::string_view pathKey, const std::string& resources,
                                          std::vector<std::string>& problems) {
  std::vector<ContentRules::File> files;
  auto list = extension.find(listKey);
  if (list == extension.end()) return files;
  if (!list->value().is_array()) {
    problems.push_back(std::string(listKey) + " is not an array");
    return files;
  }
  for (const auto& item : list->value().as_array()) {
    const Dictionary* entry = asDictionary(item);
    auto path = entry ? asString(*entry, pathKey) : std::nullopt;
    if (!path) {
      problems.push_back(std::string(listKey) + ": an entry without a " + std::string(pathKey) + " path");
      continue;
    }
    auto resolved = resolveResourcePath(resources, *path);
    if (!resolved) {
      problems.push_back(std::string(listKey) + ": " + *path +
                         (resolved.error() == ResourceRefusal::outside ? " is outside the bundle's resources"
                                                                        : " is not in the bundle"));
      continue;
    }
    std::ifstream in(*resolved, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in) {
      problems.push_back(std::string(listKey) + ": " + *path + " cannot be read");
      continue;
    }
    files.push_back({resolved->string(), text.str()});
  }
  return files;
}

}  // namespace

std::vector<std::string> urlPatternsForDomain(const std::string& domain) {
  if (domain == "*") return {"http://*/*", "https://*/*"};
  std::string_view host = domain;
  const bool withSubdomains = host.starts_with("*.");
  if (withSubdomains) host.remove_prefix(2);
  if (host.empty() || host.front() == '.' || host.back() == '.') return {};
  for (char c : host) {
    if (!isHostCharacter(c)) return {};
  }
  const std::string pattern = (withSubdomains ? "*." : "") + std::string(host) + "/*";
  return {"http://" + pattern, "https://" + pattern};
}

std::vector<std::string> ContentRules::urlPatterns() const {
  switch (access) {
    case WebsiteAccess::none:
      return {};
    case WebsiteAccess::all:
      return urlPatternsForDomain("*");
    case WebsiteAccess::some:
      break;
  }
  std::vector<std::string> patterns;
  for (const auto& domain : allowedDomains) {
    for (auto& pattern : urlPatternsForDomain(domain)) patterns.push_back(std::move(pattern));
  }
  return patterns;
}

ContentRules readContentRules(const Dictionary& info, const std::string& resourcesFolder) {
  ContentRules rules;
  const Dictionary* extension = asDictionary(info, "NSExtension");
  if (!extension) return rules;

  rules.scripts = readFiles(*extension, "SFSafariContentScript", "Script", resourcesFolder, rules.problems);
  rules.styleSheets =
      readFiles(*extension, "SFSafariStyleSheet", "Style Sheet", resourcesFolder, rules.problems);

  if (const Dictionary* access = asDictionary(*extension, "SFSafariWebsiteAccess")) {
    const auto level = asString(*access, "Level");
    if (level == "All") {
      rules.access = WebsiteAccess::all;
    } else if (level == "Some") {
      rules.access = WebsiteAccess::some;
    } else {
      rules.access = WebsiteAccess::none;
      if (level != "None") rules.problems.push_back("SFSafariWebsiteAccess: unknown Level; no page access");
    }
    if (auto it = access->find("Allowed Domains"); it != access->end()) {
      if (auto domains = asStringList(it->value())) {
        for (const auto& domain : *domains) {
          if (urlPatternsForDomain(domain).empty()) {
            rules.problems.push_back("SFSafariWebsiteAccess: " + domain + " is not a domain");
          } else {
            rules.allowedDomains.push_back(domain);
          }
        }
      } else {
        rules.problems.push_back("SFSafariWebsiteAccess: Allowed Domains is not a list of strings");
      }
    }
  }

  if (const Dictionary* item = asDictionary(*extension, "SFSafariToolbarItem")) {
    rules.toolbarShowsPopover = asString(*item, "Action") != "Command";
    rules.toolbarLabel = asString(*item, "Label");
    if (auto image = asString(*item, "Image")) {
      if (auto resolved = resolveResourcePath(resourcesFolder, *image)) {
        rules.toolbarImagePath = resolved->string();
      } else {
        rules.problems.push_back("SFSafariToolbarItem: image " + *image + " is not in the bundle");
      }
    }
  }
  return rules;
}

ContentRules readContentRules(const Bundle& bundle) {
  return readContentRules(bundle.infoDictionary(), bundle.path() + "/Contents/Resources");
}

}  // namespace appex::webkit
