#include "platform/webkit/content_rules.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <sstream>

#include "platform/bundle.h"
#include "platform/resource_path.h"

namespace appex::webkit {
namespace {

// Reads each declared file (paths relative to `resources`) of `listKey`.
std::vector<ContentRules::File> readFiles(const std::vector<std::string>& paths, std::string_view listKey,
                                          const std::string& resources, std::vector<std::string>& problems) {
  std::vector<ContentRules::File> files;
  for (const auto& path : paths) {
    auto resolved = resolveResourcePath(resources, path);
    if (!resolved) {
      problems.push_back(std::string(listKey) + ": " + path +
                         (resolved.error() == ResourceRefusal::outside ? " is outside the bundle's resources"
                                                                        : " is not in the bundle"));
      continue;
    }
    std::ifstream in(*resolved, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in) {
      problems.push_back(std::string(listKey) + ": " + path + " cannot be read");
      continue;
    }
    files.push_back({resolved->string(), text.str()});
  }
  return files;
}

}  // namespace

std::vector<std::string> urlPatternsForDomain(const std::string& domain) {
  if (!isDomainPattern(domain)) return {};
  if (domain == "*") return {"http://*/*", "https://*/*"};
  const std::string pattern = domain + "/*";
  return {"http://" + pattern, "https://" + pattern};
}

std::vector<std::string> ContentRules::urlPatterns() const {
  if (declared.accessLevel == "All") return urlPatternsForDomain("*");
  if (declared.accessLevel != "Some") return {};
  std::vector<std::string> patterns;
  for (const auto& domain : declared.allowedDomains) {
    for (auto& pattern : urlPatternsForDomain(domain)) patterns.push_back(std::move(pattern));
  }
  return patterns;
}

bool ContentRules::admitsURL(const std::string& url) const {
  if (declared.accessLevel == "All") return true;
  std::string lower = url;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  std::string_view rest = lower;
  if (rest.starts_with("http://")) {
    rest.remove_prefix(7);
  } else if (rest.starts_with("https://")) {
    rest.remove_prefix(8);
  } else {
    return false;
  }
  std::string_view host = rest.substr(0, rest.find_first_of("/?#"));
  if (auto at = host.rfind('@'); at != std::string_view::npos) host.remove_prefix(at + 1);
  if (auto colon = host.rfind(':'); colon != std::string_view::npos) host = host.substr(0, colon);
  return !host.empty() && declared.admitsHost(host);
}

ContentRules readContentRules(const Dictionary& info, const std::string& resourcesFolder) {
  ContentRules rules;
  rules.declared = ExtensionManifest::read(info);
  rules.problems = rules.declared.problems;
  rules.scripts = readFiles(rules.declared.scripts, "SFSafariContentScript", resourcesFolder, rules.problems);
  rules.styleSheets = readFiles(rules.declared.styleSheets, "SFSafariStyleSheet", resourcesFolder, rules.problems);
  const auto& item = rules.declared.toolbarItem;
  if (item && item->image) {
    if (auto resolved = resolveResourcePath(resourcesFolder, *item->image)) {
      rules.toolbarImagePath = resolved->string();
    } else {
      rules.problems.push_back("SFSafariToolbarItem: image " + *item->image + " is not in the bundle");
    }
  }
  return rules;
}

ContentRules readContentRules(const Bundle& bundle) {
  return readContentRules(bundle.infoDictionary(), bundle.path() + "/Contents/Resources");
}

}  // namespace appex::webkit
