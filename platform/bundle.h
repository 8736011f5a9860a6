// Bundle: the extension's bundle folder, in the standard extension bundle
// layout, so that an existing bundle can be pointed at as it is:
//
//   <path>/Contents/Info.plist                        metadata (XML or binary)
//   <path>/Contents/Resources/                        resources ("logo-grey.pdf")
//   <path>/Contents/Resources/Assets/extension/       the web assets
//
// `load` reads Info.plist once; the info dictionary is then immutable. Plist
// values become JSON-shaped values: strings, booleans, integers, reals,
// arrays and dictionaries as themselves, dates as ISO 8601 UTC text
// ("2001-01-01T00:00:00Z"), data as Base64 text, UIDs as integers.
// CFBundleIdentifier is required: it names the extension's defaults domain.
//
// The process's bundle is installed by the host with
// `Context::current().set<Bundle>(...)`; asking for it before that stops the
// process, as for any platform object the host must supply.
//
// Thread-safe (immutable after load).
#pragma once

#include <expected>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/any_value.h"

namespace appex {

class Context;

class Bundle {
 public:
  // Reads `<path>/Contents/Info.plist`. The error text names the file or
  // folder that is missing or unreadable and why.
  static std::expected<std::shared_ptr<Bundle>, std::string> load(const std::filesystem::path& path);

  // A bundle at `path` whose info dictionary is already known (hosts that
  // keep metadata elsewhere, and tests). Fails without a string
  // CFBundleIdentifier.
  static std::expected<std::shared_ptr<Bundle>, std::string> fromInfo(
      const std::filesystem::path& path, Dictionary info);

  // Called by the Context when no bundle was installed: stops the process.
  static std::shared_ptr<Bundle> create(Context& context);

  // The process's bundle.
  static std::shared_ptr<Bundle> shared();

  // Absolute path of the bundle folder, without a trailing slash.
  const std::string& path() const { return path_; }
  const std::string& bundleIdentifier() const { return identifier_; }
  const Dictionary& infoDictionary() const { return info_; }

  // `path()` + "/Contents/Resources/" + name, if that file exists.
  std::optional<std::string> resourcePath(std::string_view name) const;

  // `path()` + "/Contents/Resources/Assets/extension" (no trailing slash).
  std::string webAssetsPath() const;

 private:
  Bundle(std::string path, std::string identifier, Dictionary info);

  const std::string path_;
  const std::string identifier_;
  const Dictionary info_;
};

}  // namespace appex
