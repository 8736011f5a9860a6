#include "app/bundle_check.h"

#include <system_error>

#include "api/safari_meta_api.h"
#include "platform/bundle.h"

namespace appex {
namespace {

bool isFile(const std::filesystem::path& p) {
  std::error_code ec;
  return std::filesystem::is_regular_file(p, ec);
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
  const std::filesystem::path assets = (*bundle)->webAssetsPath();
  const std::filesystem::path resources = std::filesystem::path((*bundle)->path()) / "Contents/Resources";

  if (!isFile(assets / "safari_background.html")) {
    return std::unexpected("missing background page: " + (assets / "safari_background.html").string());
  }
  const bool popover = checked.manifest.toolbarItem && checked.manifest.toolbarItem->action == "Popover";
  if (!isFile(assets / "popup.html")) {
    if (popover) return std::unexpected("missing popup page: " + (assets / "popup.html").string());
  }
  for (const auto& script : checked.manifest.scripts) {
    if (!isFile(resources / script)) {
      return std::unexpected("declared content script not found: " + (resources / script).string());
    }
  }
  for (const auto& sheet : checked.manifest.styleSheets) {
    if (!isFile(resources / sheet)) {
      return std::unexpected("declared style sheet not found: " + (resources / sheet).string());
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
  for (const auto& w : checked.warnings) out << "warning:         " << w << "\n";
}

}  // namespace appex
