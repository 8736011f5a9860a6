// What the WebKit browser reads from the bundle without an engine: paths
// inside Contents/Resources (for the base URI and the Info.plist files) and
// the content rules of Info.plist.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include <fstream>

#include "platform/webkit/content_rules.h"
#include "platform/resource_path.h"
#include "tests/platform/defaults_test_folder.h"

namespace appex::webkit {
namespace {

namespace fs = std::filesystem;

class ResourceFolderTest : public ::testing::Test {
 protected:
  ResourceFolderTest() {
    root = folder.path() / "Bundle" / "Contents" / "Resources";
    write(root / "Assets" / "page.html", "page");
    write(root / "Assets" / "caf\xc3\xa9 menu.js", "menu");
    write(folder.path() / "Bundle" / "Contents" / "Info.plist", "outside the resources");
    write(folder.path() / "secret.txt", "secret");
    fs::create_directory_symlink(folder.path(), root / "escape");
    fs::create_symlink(root / "Assets" / "page.html", root / "Assets" / "alias.html");
  }

  static void write(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }

  testing::TemporaryFolder folder;
  fs::path root;
};

TEST_F(ResourceFolderTest, UrlPathsResolveToFilesInsideTheFolderOnly) {
  const auto page = fs::canonical(root / "Assets" / "page.html");
  EXPECT_EQ(resolveResourceURLPath(root, "/Assets/page.html"), page);
  EXPECT_EQ(resolveResourceURLPath(root, "//Assets///page.html"), page) << "empty segments are skipped";
  EXPECT_EQ(resolveResourceURLPath(root, "/Assets/%70age.html"), page) << "escapes of plain characters decode";
  EXPECT_EQ(resolveResourceURLPath(root, "/Assets/caf%C3%A9%20menu.js"),
            fs::canonical(root / "Assets" / "caf\xc3\xa9 menu.js"));
  EXPECT_EQ(resolveResourceURLPath(root, "/Assets/alias.html"), page) << "a link that stays inside is followed";

  for (const char* escape : {"/../Info.plist", "/Assets/../../Info.plist", "/%2e%2e/Info.plist",
                             "/Assets/%2E%2E/%2e%2e/Info.plist", "/..%2fInfo.plist", "/..%2FInfo.plist",
                             "/Assets%2f..%2f..%2fInfo.plist", "/%2fetc/passwd", "/..%5cInfo.plist",
                             "/Assets/page.html%00.js", "/escape/secret.txt", "/Assets/%zz", "/Assets/%2"}) {
    EXPECT_EQ(resolveResourceURLPath(root, escape), std::unexpected(ResourceRefusal::outside)) << escape;
  }
  EXPECT_EQ(resolveResourceURLPath(root, "/Assets/missing.html"), std::unexpected(ResourceRefusal::notFound));
  EXPECT_EQ(resolveResourceURLPath(root, "/Assets"), std::unexpected(ResourceRefusal::notFound)) << "a folder";
  EXPECT_EQ(resolveResourceURLPath(root, "/"), std::unexpected(ResourceRefusal::notFound)) << "the root";
}

TEST_F(ResourceFolderTest, PlainRelativePathsGetTheSameChecks) {
  EXPECT_EQ(resolveResourcePath(root, "Assets/page.html"), fs::canonical(root / "Assets" / "page.html"));
  for (const char* escape : {"../Info.plist", "Assets/../../Info.plist", "/etc/passwd", "escape/secret.txt", ""}) {
    EXPECT_EQ(resolveResourcePath(root, escape), std::unexpected(ResourceRefusal::outside)) << escape;
  }
  // No decoding here: "%2e%2e" is an ordinary (missing) name.
  EXPECT_EQ(resolveResourcePath(root, "%2e%2e/Info.plist"), std::unexpected(ResourceRefusal::notFound));
}

TEST(PercentDecodeTest, DecodesEscapesAndRefusesBrokenOnes) {
  EXPECT_EQ(percentDecode("a%20b%2F%c3%a9"), "a b/\xc3\xa9");
  EXPECT_EQ(percentDecode("plain"), "plain");
  EXPECT_EQ(percentDecode("%"), std::nullopt);
  EXPECT_EQ(percentDecode("%4"), std::nullopt);
  EXPECT_EQ(percentDecode("%g0"), std::nullopt);
}

TEST(DomainPatternTest, AllowedDomainsBecomeWebPagePatterns) {
  using Patterns = std::vector<std::string>;
  EXPECT_EQ(urlPatternsForDomain("example.com"), (Patterns{"http://example.com/*", "https://example.com/*"}));
  EXPECT_EQ(urlPatternsForDomain("*.example.com"),
            (Patterns{"http://*.example.com/*", "https://*.example.com/*"}));
  EXPECT_EQ(urlPatternsForDomain("*"), (Patterns{"http://*/*", "https://*/*"}));
  for (const char* bad : {"", "*.", "example.com/path", "exa mple.com", "http://example.com", "a.*.com", ".com"}) {
    EXPECT_TRUE(urlPatternsForDomain(bad).empty()) << bad;
  }
}

class ContentRulesTest : public ResourceFolderTest {
 protected:
  ContentRules read(const std::string& extensionJson) {
    Dictionary info;
    info["NSExtension"] = boost::json::parse(extensionJson);
    return readContentRules(info, root.string());
  }
};

TEST_F(ContentRulesTest, ReadsScriptsAndStyleSheetsInOrderAndLeavesOutWhatItCannotUse) {
  write(root / "a.js", "first");
  write(root / "b.css", "sheet");
  const auto rules = read(R"({
    "SFSafariContentScript": [{"Script": "a.js"}, {"Script": "../Info.plist"}, {"Script": "missing.js"},
                              {"Other": "x"}, {"Script": "Assets/page.html"}],
    "SFSafariStyleSheet": [{"Style Sheet": "b.css"}]
  })");
  ASSERT_EQ(rules.scripts.size(), 2u);
  EXPECT_EQ(rules.scripts[0].text, "first");
  EXPECT_EQ(rules.scripts[1].text, "page");
  ASSERT_EQ(rules.styleSheets.size(), 1u);
  EXPECT_EQ(rules.styleSheets[0].text, "sheet");
  EXPECT_EQ(rules.problems.size(), 3u);
  EXPECT_THAT(rules.problems, ::testing::Contains(::testing::HasSubstr("outside")));
  EXPECT_THAT(rules.problems, ::testing::Contains(::testing::HasSubstr("missing.js")));
}

TEST_F(ContentRulesTest, WebsiteAccessDecidesWhichPagesGetTheScripts) {
  EXPECT_EQ(read("{}").urlPatterns(), (std::vector<std::string>{"http://*/*", "https://*/*"}))
      << "no access declared: every web page";
  EXPECT_TRUE(read(R"({"SFSafariWebsiteAccess": {"Level": "None"}})").urlPatterns().empty());
  EXPECT_TRUE(read(R"({"SFSafariWebsiteAccess": {"Level": "Sometimes"}})").urlPatterns().empty());

  const auto some = read(R"({"SFSafariWebsiteAccess": {"Level": "Some",
      "Allowed Domains": ["127.0.0.1", "not a domain", "*.example.org"]}})");
  EXPECT_EQ(some.urlPatterns(), (std::vector<std::string>{"http://127.0.0.1/*", "https://127.0.0.1/*",
                                                          "http://*.example.org/*", "https://*.example.org/*"}));
  EXPECT_EQ(some.problems.size(), 1u);
  EXPECT_TRUE(read(R"({"SFSafariWebsiteAccess": {"Level": "Some"}})").urlPatterns().empty())
      << "some of no domains is none";

  // The same hosts decide which pages' URL and title the extension learns.
  for (const char* url : {"http://127.0.0.1:8080/a", "HTTPS://Deep.Example.ORG", "http://user:pw@example.org/x?y#z",
                          "https://example.org?q=1"}) {
    EXPECT_TRUE(some.admitsURL(url)) << url;
  }
  for (const char* url : {"http://127.0.0.2/", "http://evil.com/127.0.0.1", "http://127.0.0.1.evil.com/",
                          "http://example.org@evil.com/", "file:///127.0.0.1", "about:blank", "http://", ""}) {
    EXPECT_FALSE(some.admitsURL(url)) << url;
  }
  EXPECT_TRUE(read("{}").admitsURL("about:blank"));
  EXPECT_FALSE(read(R"({"SFSafariWebsiteAccess": {"Level": "None"}})").admitsURL("http://127.0.0.1/"));
}

TEST_F(ContentRulesTest, ToolbarItemShowsThePopoverUnlessItIsACommand) {
  EXPECT_TRUE(read("{}").declared.toolbarShowsPopover()) << "no toolbar item declared";
  EXPECT_TRUE(read(R"({"SFSafariToolbarItem": {"Label": "Go"}})").declared.toolbarShowsPopover());
  const auto command = read(R"({"SFSafariToolbarItem": {"Action": "Command", "Label": "Go",
                                 "Image": "Assets/page.html"}})");
  EXPECT_FALSE(command.declared.toolbarShowsPopover());
  EXPECT_EQ(command.declared.toolbarItem->label, "Go");
  EXPECT_EQ(command.toolbarImagePath, fs::canonical(root / "Assets" / "page.html").string());
  const auto outside = read(R"({"SFSafariToolbarItem": {"Image": "../Info.plist"}})");
  EXPECT_FALSE(outside.toolbarImagePath);
  EXPECT_EQ(outside.problems.size(), 1u);
}

}  // namespace
}  // namespace appex::webkit
