#include "app/bundle_check.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace appex {
namespace {

namespace fs = std::filesystem;

// A copy of the example bundle in a temporary folder that each case breaks
// in its own way.
class BundleCheckTest : public ::testing::Test {
 protected:
  BundleCheckTest() {
    root = fs::temp_directory_path() / ("appex-check-" + std::to_string(::getpid()) + "-" +
                                        ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root);
    fs::create_directories(root);
    bundle = root / "Example.appex";
    fs::copy(APPEX_EXAMPLE_BUNDLE, bundle, fs::copy_options::recursive);
  }
  ~BundleCheckTest() override { fs::remove_all(root); }

  std::string errorOf() {
    auto checked = checkBundle(bundle);
    return checked ? "<ok>" : checked.error();
  }
  fs::path assets() const { return bundle / "Contents/Resources/Assets/extension"; }

  fs::path root, bundle;
};

TEST_F(BundleCheckTest, TheExampleBundleChecksAndDescribesItself) {
  auto checked = checkBundle(bundle);
  ASSERT_TRUE(checked) << checked.error();
  std::ostringstream out;
  describeBundle(*checked, out);
  const std::string text = out.str();
  EXPECT_NE(text.find("identifier:      dev.appex.example.wordcount"), std::string::npos) << text;
  EXPECT_NE(text.find("version:         1.0.0.3"), std::string::npos) << text;
  EXPECT_NE(text.find("Assets/extension/appex/content.js, Assets/extension/appex/extension.js"),
            std::string::npos) << text;
  EXPECT_NE(text.find("toolbar item:    Popover, label \"Word Count\""), std::string::npos) << text;
  EXPECT_TRUE(checked->warnings.empty());
}

TEST_F(BundleCheckTest, EachMissingPieceIsNamed) {
  fs::remove(assets() / "content.css");
  EXPECT_EQ(errorOf(), "declared style sheet not found: " + (assets() / "content.css").string());
  fs::remove(assets() / "content.js");
  EXPECT_EQ(errorOf(), "declared content script not found: " + (assets() / "content.js").string());
  fs::remove(assets() / "popup.html");
  EXPECT_EQ(errorOf(), "missing popup page: " + (assets() / "popup.html").string());
  fs::remove(assets() / "safari_background.html");
  EXPECT_EQ(errorOf(), "missing background page: " + (assets() / "safari_background.html").string());
  fs::remove(bundle / "Contents/Info.plist");
  EXPECT_NE(errorOf().find((bundle / "Contents/Info.plist").string()), std::string::npos) << errorOf();
  EXPECT_EQ(checkBundle(root / "nowhere").error(), "bundle folder not found: " + (root / "nowhere").string());
}

TEST_F(BundleCheckTest, OddDeclarationsAreWarnings) {
  std::ofstream(bundle / "Contents/Info.plist") << R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>CFBundleIdentifier</key><string>x.y</string>
  <key>NSExtension</key><dict>
    <key>SFSafariContentScript</key><array><dict><key>Script</key><integer>3</integer></dict></array>
    <key>SFSafariWebsiteAccess</key><dict><key>Level</key><string>Most</string></dict>
  </dict>
</dict></plist>)";
  auto checked = checkBundle(bundle);
  ASSERT_TRUE(checked) << checked.error();
  EXPECT_EQ(checked->warnings.size(), 2u);
  EXPECT_TRUE(checked->manifest.scripts.empty());
}

}  // namespace
}  // namespace appex
