#include "app/bundle_check.h"

#include <optional>
#include <system_error>

#include "api/safari_meta_api.h"
#include "platform/bundle.h"
#include "platform/resource_path.h"

namespace appex {
namespace {

// Nothing when `relative` names a file inside the resource folder (every
// symbolic link followed); else the problem, as "<what> <path>".
std::optional<std::string> resourceProblem(const std::filesystem::path& resources, const std::string& relative,
                                           const std::string& missing, const std::string& outside) {
  auto resolved = resolveResourcePath(resources, relative);
  if (resolved) return std::nullopt;
  if (resolved.error() == ResourceRefusal::outside) return outside + ": " + relative;
  return missing + ": " + (resources / relative).string();
}

std::string joined(const std::vector<std::string>& items) {
  std::string out;
  for (const auto& i : items) out += (out.empty() ? "" : ", ") + i;
  return out;
}

}  // namespace

std::expected<CheckedBundle, std::string> checkBundle(const std::filesystem::path& path) {
  std::error_code ec;
  if (!std::filesystem::is_directory(path, ec)) {
    return std::unexpected("bundle folder not found: " + path.string());
  }
  auto bundle = Bundle::load(path);
  if (!bundle) return std::unexpected(bundle.error());
  CheckedBundle checked{*bundle, ExtensionManifest::read((*bundle)->infoDictionary()), {}};
  const std::filesystem::path resources = std::filesystem::path((*bundle)->path()) / "Contents/Resources";

  if (auto problem = resourceProblem(resources, "Assets/extension/safari_background.html", "missing background page",
                                     "background page outside the bundle's resources")) {
    return std::unexpected(*problem);
  }
  // The popup page is needed only when the bundle declares a toolbar item
  // that shows it.
  if (checked.manifest.toolbarItem && checked.manifest.toolbarShowsPopover()) {
    if (auto problem = resourceProblem(resources, "Assets/extension/popup.html", "missing popup page",
                                       "popup page outside the bundle's resources")) {
      return std::unexpected(*problem);
    }
  }
  for (const auto& script : checked.manifest.scripts) {
    if (auto problem = resourceProblem(resources, script, "declared content script not found",
                                       "declared content script outside the bundle's resources")) {
      return std::unexpected(*problem);
    }
  }
  for (const auto& sheet : checked.manifest.styleSheets) {
    if (auto problem = resourceProblem(resources, sheet, "declared style sheet not found",
                                       "declared style sheet outside the bundle's resources")) {
      return std::unexpected(*problem);
    }
  }
  checked.warnings = checked.manifest.problems;
  return checked;
}

void describeBundle(const CheckedBundle& checked, std::ostream& out) {
  const Bundle& bundle = *checked.bundle;
  const auto& info = bundle.infoDictionary();
  const auto& m = checked.manifest;
  out << "bundle:          " << bundle.path() << "\n";
  out << "identifier:      " << bundle.bundleIdentifier() << "\n";
  out << "version:         " << SafariMetaAPI::version(info).value_or("(none)") << "\n";
  if (auto name = asString(info, "CFBundleDisplayName")) out << "name:            " << *name << "\n";
  out << "background page: " << bundle.webAssetsPath() << "/safari_background.html\n";
  out << "content scripts: " << (m.scripts.empty() ? "(none)" : joined(m.scripts)) << "\n";
  out << "style sheets:    " << (m.styleSheets.empty() ? "(none)" : joined(m.styleSheets)) << "\n";
  out << "website access:  " << m.accessLevel;
  if (!m.allowedDomains.empty()) out << " (" << joined(m.allowedDomains) << ")";
  out << "\n";
  out << "toolbar item:    ";
  if (m.toolbarItem) {
    out << m.toolbarItem->action;
    if (m.toolbarItem->label) out << ", label \"" << *m.toolbarItem->label << "\"";
    if (m.toolbarItem->image) out << ", image " << *m.toolbarItem->image;
    out << "\n";
  } else {
    out << "(none declared)\n";
  }
}

}  // namespace appex
