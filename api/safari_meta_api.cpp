#include "api/safari_meta_api.h"

#include "core/context.h"
#include "platform/bundle.h"

namespace appex {

std::optional<std::string> SafariMetaAPI::version() {
  auto bundle = Context::current().find<Bundle>();
  if (!bundle) return std::nullopt;
  return version(bundle->infoDictionary());
}

std::optional<std::string> SafariMetaAPI::version(const Dictionary& info) {
  auto shortVersion = asString(info, "CFBundleShortVersionString");
  if (!shortVersion) return std::nullopt;
  auto bundleVersion = asString(info, "CFBundleVersion");
  if (!bundleVersion) return std::nullopt;
  return *shortVersion + "." + *bundleVersion;
}

}  // namespace appex
