// The declarations an extension bundle makes under NSExtension, as the
// browser runs them and `appex check` reports them.
#include "platform/extension_manifest.h"

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

namespace appex {
namespace {

// Where a declaration is unusable the reading errs towards less access.
TEST(ExtensionManifestTest, UnusableDeclarationsAreReportedAndGrantNothing) {
  auto read = [](std::string_view extensionJson) {
    Dictionary info;
    info["NSExtension"] = boost::json::parse(extensionJson);
    return ExtensionManifest::read(info);
  };
  const auto plain = read("{}");
  EXPECT_EQ(plain.accessLevel, "All");
  EXPECT_TRUE(plain.toolbarShowsPopover());
  EXPECT_TRUE(plain.problems.empty());

  const auto odd = read(R"({"SFSafariWebsiteAccess": {"Level": "Most",
                              "Allowed Domains": ["ok.example", "not a domain", "*.", "*"]},
                            "SFSafariToolbarItem": {"Action": "Menu"}})");
  EXPECT_EQ(odd.accessLevel, "None");
  EXPECT_FALSE(odd.admitsHost("ok.example"));
  EXPECT_EQ(odd.allowedDomains, (std::vector<std::string>{"ok.example", "*"}));
  EXPECT_TRUE(odd.toolbarShowsPopover());
  EXPECT_EQ(odd.toolbarItem->action, "Popover");
  EXPECT_EQ(odd.problems.size(), 4u);

  const auto command = read(R"({"SFSafariToolbarItem": {"Action": "Command"}})");
  EXPECT_FALSE(command.toolbarShowsPopover());

  // Per-file URL patterns are not followed: the file is kept, and said so.
  const auto narrowed = read(R"({"SFSafariContentScript": [{"Script": "a.js", "Excluded URL Patterns": []}],
                                 "SFSafariStyleSheet": [{"Style Sheet": "b.css", "Allowed URL Patterns": []}]})");
  EXPECT_EQ(narrowed.scripts, (std::vector<std::string>{"a.js"}));
  ASSERT_EQ(narrowed.problems.size(), 2u);
  EXPECT_NE(narrowed.problems[0].find("\"Excluded URL Patterns\" is not supported"), std::string::npos);
}

TEST(ExtensionManifestTest, WebsiteAccessMatchesHostsByPattern) {
  ExtensionManifest m;
  m.accessLevel = "Some";
  m.allowedDomains = {"*.example.com", "exact.org"};
  EXPECT_TRUE(m.admitsHost("example.com"));
  EXPECT_TRUE(m.admitsHost("a.b.example.com"));
  EXPECT_FALSE(m.admitsHost("badexample.com"));
  EXPECT_TRUE(m.admitsHost("exact.org"));
  EXPECT_FALSE(m.admitsHost("sub.exact.org"));
  m.allowedDomains.push_back("*");
  EXPECT_TRUE(m.admitsHost("anything.else"));
  m.accessLevel = "None";
  EXPECT_FALSE(m.admitsHost("example.com"));
  m.accessLevel = "All";
  EXPECT_TRUE(m.admitsHost("anything"));
}

}  // namespace
}  // namespace appex
