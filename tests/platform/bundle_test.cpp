#include "platform/bundle.h"

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdlib>
#include <fstream>

#include "tests/platform/defaults_test_folder.h"

namespace appex {
namespace {

using testing::TemporaryFolder;

constexpr const char* kInfoXml = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
  <key>CFBundleIdentifier</key><string>com.example.extension</string>
  <key>CFBundleShortVersionString</key><string>2.1.0</string>
  <key>CFBundleVersion</key><string>57</string>
  <key>Count</key><integer>-3</integer>
  <key>Ratio</key><real>0.5</real>
  <key>Enabled</key><true/>
  <key>Items</key><array><string>a</string><false/></array>
  <key>Nested</key><dict><key>Inner</key><integer>7</integer></dict>
  <key>Built</key><date>2001-01-02T00:00:00Z</date>
  <key>Blob</key><data>AAEC/w==</data>
</dict>
</plist>
)";

const AnyValue kExpectedInfo = boost::json::parse(R"({
  "CFBundleIdentifier": "com.example.extension", "CFBundleShortVersionString": "2.1.0",
  "CFBundleVersion": "57", "Count": -3, "Ratio": 0.5, "Enabled": true, "Items": ["a", false],
  "Nested": {"Inner": 7}, "Built": "2001-01-02T00:00:00Z", "Blob": "AAEC/w=="})");

void write(const std::filesystem::path& p, const std::string& bytes) {
  std::filesystem::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << bytes;
}

// The same dictionary in Apple's binary form.
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
  std::filesystem::path bundleAt(const std::string& info) {
    const auto root = folder.path() / "Example.appex";
    write(root / "Contents" / "Info.plist", info);
    write(root / "Contents" / "Resources" / "logo-grey.pdf", "%PDF");
    write(root / "Contents" / "Resources" / "Assets" / "extension" / "popup.html", "<html>");
    return root;
  }
  TemporaryFolder folder;
};

TEST_F(BundleTest, ReadsXmlAndBinaryInfoPlistsIntoTheSameDictionary) {
  for (const std::string& info : {std::string(kInfoXml), toBinary(kInfoXml)}) {
    auto bundle = Bundle::load(bundleAt(info));
    ASSERT_TRUE(bundle) << bundle.error();
    EXPECT_EQ((*bundle)->bundleIdentifier(), "com.example.extension");
    EXPECT_EQ(AnyValue((*bundle)->infoDictionary()), kExpectedInfo);
  }
}

TEST_F(BundleTest, LocatesResourcesAndWebAssetsUnderAnAbsolutePath) {
  const auto root = bundleAt(kInfoXml);
  auto bundle = Bundle::load(root.string() + "/");
  ASSERT_TRUE(bundle) << bundle.error();
  const Bundle& b = **bundle;
  EXPECT_EQ(b.path(), root.string()) << "no trailing slash";
  EXPECT_EQ(b.resourcePath("logo-grey.pdf"), root.string() + "/Contents/Resources/logo-grey.pdf");
  EXPECT_FALSE(b.resourcePath("absent.pdf"));
  EXPECT_FALSE(b.resourcePath("")) << "the folder itself is not a resource";
  EXPECT_EQ(b.webAssetsPath(), root.string() + "/Contents/Resources/Assets/extension");
  EXPECT_TRUE(std::filesystem::exists(b.webAssetsPath() + "/popup.html"));

  const auto cwd = std::filesystem::current_path();
  std::filesystem::current_path(folder.path());
  auto relative = Bundle::load("Example.appex");
  std::filesystem::current_path(cwd);
  ASSERT_TRUE(relative) << relative.error();
  EXPECT_EQ((*relative)->path(), root.string());
}

TEST_F(BundleTest, ExplainsWhyABundleCannotBeLoaded) {
  struct Case {
    std::string name;
    std::function<std::filesystem::path()> make;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"missing folder", [&] { return folder.path() / "nowhere"; }, "does not exist"},
      {"file, not folder",
       [&] {
         write(folder.path() / "plain", "x");
         return folder.path() / "plain";
       },
       "is not a folder"},
      {"no Info.plist",
       [&] {
         std::filesystem::create_directories(folder.path() / "Empty.appex" / "Contents");
         return folder.path() / "Empty.appex";
       },
       "missing " + (folder.path() / "Empty.appex" / "Contents" / "Info.plist").string()},
      {"garbage", [&] { return bundleAt("not a plist at all"); }, "is not a property list"},
      {"empty file", [&] { return bundleAt(""); }, "is not a property list"},
      {"array at the top",
       [&] { return bundleAt(R"(<?xml version="1.0"?><plist version="1.0"><array/></plist>)"); },
       "does not hold a dictionary"},
      {"no identifier",
       [&] {
         return bundleAt(R"(<?xml version="1.0"?><plist version="1.0"><dict><key>CFBundleVersion</key><string>1</string></dict></plist>)");
       },
       "no CFBundleIdentifier"},
      {"identifier not a string",
       [&] {
         return bundleAt(R"(<?xml version="1.0"?><plist version="1.0"><dict><key>CFBundleIdentifier</key><integer>1</integer></dict></plist>)");
       },
       "no CFBundleIdentifier"},
  };
  for (const auto& c : cases) {
    auto bundle = Bundle::load(c.make());
    ASSERT_FALSE(bundle) << c.name;
    EXPECT_NE(bundle.error().find(c.expected), std::string::npos) << c.name << ": " << bundle.error();
  }
}

TEST(BundleFromInfoTest, NeedsAnIdentifier) {
  Dictionary info;
  info["CFBundleVersion"] = "1";
  EXPECT_FALSE(Bundle::fromInfo("/b", info));
  info["CFBundleIdentifier"] = "com.example.x";
  auto bundle = Bundle::fromInfo("/b", info);
  ASSERT_TRUE(bundle);
  EXPECT_EQ((*bundle)->path(), "/b");
  EXPECT_EQ((*bundle)->bundleIdentifier(), "com.example.x");
}

}  // namespace
}  // namespace appex
