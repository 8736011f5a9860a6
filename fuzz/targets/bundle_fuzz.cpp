// The bundle loader (Bundle::load) with arbitrary Info.plist bytes, XML or
// binary.
//
// Input: the file's bytes, written as <bundle>/Contents/Info.plist in a
// scratch folder before each load.
//
// Properties: loading either fails with a text naming the bundle, or
// yields a bundle whose identifier is the info dictionary's non-empty
// CFBundleIdentifier string and whose path is absolute without a trailing
// slash; its version (what extension.info reports) can be read; its
// declarations (ExtensionManifest) read as a valid access level and domain
// patterns only, whatever the dictionary holds; and nothing in between reads out of bounds or recurses without limit,
// however deep or odd the property list.
#include <cstddef>
#include <cstdint>
#include <fstream>

#include "api/safari_meta_api.h"
#include "fuzz/support/fuzz_value.h"
#include "fuzz/support/world.h"
#include "platform/bundle.h"
#include "platform/extension_manifest.h"

using namespace appex;
using namespace appex::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::filesystem::path bundle = [] {
    auto path = World::root() / "Loaded.appex";
    std::filesystem::create_directories(path / "Contents");
    return path;
  }();
  const auto info = bundle / "Contents" / "Info.plist";
  {
    std::ofstream out(info, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }

  auto loaded = Bundle::load(bundle);
  if (!loaded) {
    APPEX_FUZZ_CHECK(loaded.error().find(bundle.string()) != std::string::npos, "a failure names the bundle",
                     loaded.error());
    return 0;
  }
  const Bundle& b = **loaded;
  APPEX_FUZZ_CHECK(!b.bundleIdentifier().empty());
  APPEX_FUZZ_CHECK(asString(b.infoDictionary(), "CFBundleIdentifier") == b.bundleIdentifier());
  APPEX_FUZZ_CHECK(b.path().starts_with('/') && !b.path().ends_with('/'));
  APPEX_FUZZ_CHECK(b.webAssetsPath() == b.path() + "/Contents/Resources/Assets/extension");
  SafariMetaAPI::version(b.infoDictionary());  // must cope with any value kinds
  const auto manifest = ExtensionManifest::read(b.infoDictionary());
  APPEX_FUZZ_CHECK(manifest.accessLevel == "All" || manifest.accessLevel == "Some" ||
                   manifest.accessLevel == "None");
  for (const auto& domain : manifest.allowedDomains) APPEX_FUZZ_CHECK(isDomainPattern(domain), domain);
  if (manifest.toolbarItem) {
    APPEX_FUZZ_CHECK(manifest.toolbarItem->action == "Popover" || manifest.toolbarItem->action == "Command");
  }
  return 0;
}
