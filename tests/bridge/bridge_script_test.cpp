#include "bridge/bridge_script.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

namespace appex {
namespace {

TEST(BridgeScriptTest, TheEmbeddedScriptIsTheSourceFileByteForByte) {
  std::ifstream file(APPEX_BRIDGE_JS_PATH, std::ios::binary);
  ASSERT_TRUE(file) << APPEX_BRIDGE_JS_PATH;
  const std::string source((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  ASSERT_FALSE(source.empty());
  EXPECT_EQ(bridgeScript(), source);
  EXPECT_EQ(bridgeScript().data()[bridgeScript().size()], '\0') << "usable as a C string too";
}

}  // namespace
}  // namespace appex
