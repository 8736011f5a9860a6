#include "api/safari_meta_api.h"

#include <gtest/gtest.h>

#include "core/context.h"
#include "platform/bundle.h"

namespace appex {
namespace {

TEST(SafariMetaApiTest, JoinsShortAndBundleVersionsOrIsAbsent) {
  auto info = [](AnyValue shortVersion, AnyValue bundleVersion) {
    Dictionary d{{"CFBundleIdentifier", "com.example.extension"}};
    if (!shortVersion.is_null()) d["CFBundleShortVersionString"] = shortVersion;
    if (!bundleVersion.is_null()) d["CFBundleVersion"] = bundleVersion;
    return d;
  };
  EXPECT_EQ(SafariMetaAPI::version(info("2.1.0", "57")), "2.1.0.57");
  EXPECT_EQ(SafariMetaAPI::version(info("2.1.0.57", "57")), "2.1.0.57.57") << "joined as they are";
  EXPECT_FALSE(SafariMetaAPI::version(info("2.1.0", nullptr)));
  EXPECT_FALSE(SafariMetaAPI::version(info("2.1.0", 57)));

  Context context;
  ScopedContext scope(context);
  EXPECT_FALSE(SafariMetaAPI::version()) << "no bundle installed: absent, not a stop";
  context.set<Bundle>(*Bundle::fromInfo("/b", info("2.1.0", "57")));
  EXPECT_EQ(SafariMetaAPI::version(), "2.1.0.57");
}

}  // namespace
}  // namespace appex
