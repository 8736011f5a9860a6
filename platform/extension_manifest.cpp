#include "platform/extension_manifest.h"

#include <algorithm>
#include <initializer_list>

namespace appex {
namespace {

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Levenshtein distance, ASCII case ignored.
std::size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (lower(a[i - 1]) == lower(b[j - 1]) ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

// Notes each key of `dict` that is not in `known` but close to one of them
// (a likely misspelling: a differing case, or up to two edits, one for keys
// shorter than six characters), and with `safariKeys` every other unknown
// key starting "SFSafari".
void checkKeys(const Dictionary& dict, std::string_view where, std::initializer_list<std::string_view> known,
               bool safariKeys, std::vector<std::string>& problems) {
  for (const auto& entry : dict) {
    const std::string_view key = entry.key();
    if (std::find(known.begin(), known.end(), key) != known.end()) continue;
    const std::string_view* nearest = nullptr;
    for (const auto& candidate : known) {
      const std::size_t allowed = candidate.size() < 6 ? 1 : 2;
      if (editDistance(key, candidate) <= allowed) nearest = &candidate;
    }
    const std::string prefix = std::string(where) + " key \"" + std::string(key) + "\" is not a known key";
    if (nearest) {
      problems.push_back(prefix + "; did you mean \"" + std::string(*nearest) + "\"?");
    } else if (safariKeys && key.starts_with("SFSafari")) {
      problems.push_back(prefix + "; it is ignored");
    }
  }
}

bool isHostCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.';
}

std::vector<std::string> pathsUnder(const Dictionary& extension, std::string_view listKey,
                                    std::string_view itemKey, std::vector<std::string>& problems) {
  std::vector<std::string> out;
  auto it = extension.find(listKey);
  if (it == extension.end()) return out;
  const auto* list = it->value().if_array();
  if (!list) {
    problems.push_back(std::string(listKey) + " is not an array");
    return out;
  }
  for (std::size_t i = 0; i < list->size(); ++i) {
    const auto* item = (*list)[i].if_object();
    if (item) checkKeys(*item, std::string(listKey) + " entry " + std::to_string(i), {itemKey}, false, problems);
    auto path = item ? asString(*item, itemKey) : std::nullopt;
    if (!path || path->empty()) {
      problems.push_back(std::string(listKey) + " entry " + std::to_string(i) + " has no \"" +
                         std::string(itemKey) + "\" string");
      continue;
    }
    // Per-file URL patterns narrow where the browser injects the file;
    // they are not followed here, so say so rather than inject more.
    for (std::string_view narrowing : {"Allowed URL Patterns", "Excluded URL Patterns"}) {
      if (item->contains(narrowing)) {
        problems.push_back(std::string(listKey) + " entry " + std::to_string(i) + ": \"" + std::string(narrowing) +
                           "\" is not supported; " + *path + " applies to every page the website access admits");
      }
    }
    out.push_back(std::move(*path));
  }
  return out;
}

}  // namespace

ExtensionManifest ExtensionManifest::read(const Dictionary& info) {
  ExtensionManifest manifest;
  checkKeys(info, "Info.plist", {"NSExtension"}, false, manifest.problems);
  const Dictionary* extension = asDictionary(info, "NSExtension");
  if (!extension) return manifest;
  checkKeys(*extension, "NSExtension",
            {"SFSafariContentScript", "SFSafariStyleSheet", "SFSafariWebsiteAccess", "SFSafariToolbarItem"}, true,
            manifest.problems);
  manifest.scripts = pathsUnder(*extension, "SFSafariContentScript", "Script", manifest.problems);
  manifest.styleSheets = pathsUnder(*extension, "SFSafariStyleSheet", "Style Sheet", manifest.problems);
  if (const Dictionary* access = asDictionary(*extension, "SFSafariWebsiteAccess")) {
    checkKeys(*access, "SFSafariWebsiteAccess", {"Level", "Allowed Domains"}, false, manifest.problems);
    if (auto level = asString(*access, "Level")) {
      if (*level == "All" || *level == "Some" || *level == "None") {
        manifest.accessLevel = *level;
      } else {
        manifest.accessLevel = "None";
        manifest.problems.push_back("SFSafariWebsiteAccess Level \"" + *level +
                                    "\" is not All, Some or None; content scripts apply to no page");
      }
    }
    if (auto it = access->find("Allowed Domains"); it != access->end()) {
      if (auto domains = asStringList(it->value())) {
        for (auto& domain : *domains) {
          if (isDomainPattern(domain)) {
            manifest.allowedDomains.push_back(std::move(domain));
          } else {
            manifest.problems.push_back("SFSafariWebsiteAccess Allowed Domains: \"" + domain +
                                        "\" is not a domain");
          }
        }
      } else {
        manifest.problems.push_back("SFSafariWebsiteAccess Allowed Domains is not a list of strings");
      }
    }
  }
  if (const Dictionary* item = asDictionary(*extension, "SFSafariToolbarItem")) {
    checkKeys(*item, "SFSafariToolbarItem", {"Action", "Identifier", "Image", "Label"}, false, manifest.problems);
    ToolbarItemDeclaration declared;
    if (auto action = asString(*item, "Action")) {
      if (*action == "Popover" || *action == "Command") {
        declared.action = *action;
      } else {
        manifest.problems.push_back("SFSafariToolbarItem Action \"" + *action +
                                    "\" is not Popover or Command; the item shows the popover");
      }
    }
    declared.identifier = asString(*item, "Identifier");
    declared.image = asString(*item, "Image");
    declared.label = asString(*item, "Label");
    manifest.toolbarItem = std::move(declared);
  }
  return manifest;
}

bool ExtensionManifest::admitsHost(std::string_view host) const {
  if (accessLevel == "All") return true;
  if (accessLevel == "None") return false;
  for (const auto& pattern : allowedDomains) {
    std::string_view p = pattern;
    if (p == "*") return true;
    if (p.starts_with("*.")) {
      std::string_view base = p.substr(2);
      if (host == base) return true;
      if (host.size() > base.size() && host.ends_with(base) && host[host.size() - base.size() - 1] == '.')
        return true;
    } else if (host == p) {
      return true;
    }
  }
  return false;
}

bool isDomainPattern(std::string_view pattern) {
  if (pattern == "*") return true;
  if (pattern.starts_with("*.")) pattern.remove_prefix(2);
  if (pattern.empty() || pattern.front() == '.' || pattern.back() == '.') return false;
  for (char c : pattern) {
    if (!isHostCharacter(c)) return false;
  }
  return true;
}

}  // namespace appex
