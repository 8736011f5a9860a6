#include "platform/bundle.h"

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdlib>
#include <fstream>

#include "tests/platform/defaults_test_folder.h"

namespace appex {
namespace {

constexpr const char* kInfoXml = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>CFBundleIdentifier</key><string>com.example.extension</string>
  <key>CFBundleVersion</key><string>57</string>
  <key>Count</key><integer>-3</integer>
  <key>Ratio</key><real>0.5</real>
  <key>Items</key><array><true/><dict><key>Inner</key><integer>7</integer></dict></array>
  <key>Built</key><date>2001-01-02T00:00:00Z</date>
  <key>Blob</key><data>AAEC/w==</data>
</dict></plist>)";

std::string toBinary(const std::string& xml) {
  plist_t root = nullptr;
  plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
  char* bin = nullptr;
  uint32_t length = 0;
  plist_to_bin(root, &bin, &length);
  std::string out(bin, length);
  std::free(bin);
  plist_free(root);
  return out;
}

class BundleTest : public ::testing::Test {
 protected:
  std::filesystem::path bundleWith(const std::string& info) {
    const auto root = folder.path() / "Example.appex";
    for (const auto& [file, bytes] : {std::pair{root / "Contents" / "Info.plist", info},
                                      {root / "Contents" / "Resources" / "logo-grey.pdf", std::string("%PDF")}}) {
      std::filesystem::create_directories(file.parent_path());
      std::ofstream(file, std::ios::binary) << bytes;
    }
    return root;
  }
  testing::TemporaryFolder folder;
};

TEST_F(BundleTest, ReadsXmlAndBinaryInfoPlistsIntoTheSameJsonDictionary) {
  const AnyValue expected = boost::json::parse(R"({"CFBundleIdentifier":"com.example.extension",
      "CFBundleVersion":"57","Count":-3,"Ratio":0.5,"Items":[true,{"Inner":7}],
      "Built":"2001-01-02T00:00:00Z","Blob":"AAEC/w=="})");
  for (const std::string& info : {std::string(kInfoXml), toBinary(kInfoXml)}) {
    auto bundle = Bundle::load(bundleWith(info));
    ASSERT_TRUE(bundle) << bundle.error();
    EXPECT_EQ((*bundle)->bundleIdentifier(), "com.example.extension");
    EXPECT_EQ(AnyValue((*bundle)->infoDictionary()), expected);
  }
}

TEST_F(BundleTest, LocatesResourcesAndWebAssetsUnderItsAbsolutePath) {
  const std::string root = bundleWith(kInfoXml).string();
  const auto cwd = std::filesystem::current_path();
  std::filesystem::current_path(folder.path());
  auto bundle = Bundle::load("./Example.appex/");
  std::filesystem::current_path(cwd);
  ASSERT_TRUE(bundle) << bundle.error();
  EXPECT_EQ((*bundle)->path(), root) << "absolute, no trailing slash";
  EXPECT_EQ((*bundle)->resourcePath("logo-grey.pdf"), root + "/Contents/Resources/logo-grey.pdf");
  EXPECT_FALSE((*bundle)->resourcePath("absent.pdf"));
  EXPECT_EQ((*bundle)->webAssetsPath(), root + "/Contents/Resources/Assets/extension");
}

TEST_F(BundleTest, ExplainsWhyABundleCannotBeLoaded) {
  EXPECT_NE(Bundle::load(folder.path() / "nowhere").error().find("does not exist"), std::string::npos);
  const auto root = bundleWith("");
  EXPECT_NE(Bundle::load(root / "Contents" / "Info.plist").error().find("is not a folder"), std::string::npos);
  const std::pair<std::string, std::string> cases[] = {
      {"", "is not a property list"},
      {"not a plist", "is not a property list"},
      {R"(<?xml version="1.0"?><plist version="1.0"><array/></plist>)", "does not hold a dictionary"},
      {R"(<?xml version="1.0"?><plist version="1.0"><dict><key>CFBundleIdentifier</key><integer>1</integer></dict></plist>)",
       "no CFBundleIdentifier"},
  };
  for (const auto& [info, expected] : cases) {
    const std::string error = Bundle::load(bundleWith(info)).error();
    EXPECT_NE(error.find(expected), std::string::npos) << error;
    EXPECT_NE(error.find("Info.plist"), std::string::npos) << "names the file: " << error;
  }
  std::filesystem::remove(root / "Contents" / "Info.plist");
  EXPECT_NE(Bundle::load(root).error().find("missing " + (root / "Contents" / "Info.plist").string()),
            std::string::npos);
}

}  // namespace
}  // namespace appex
