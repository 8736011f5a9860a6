// Content scripts in real pages: messages between their frames and the
// background page, the isolation of their world from the page's, and the
// base URI.
#include "tests/platform/webkit_browser_fixture.h"

namespace appex::testing {
namespace {

using PagesTest = WebKitBrowserTest;

TEST_F(PagesTest, EachFrameAsksTheBackgroundAndGetsOnlyItsOwnAnswer) {
  const std::string pageURL = site->url("/page.html");
  const std::string frameURL = site->url("/frame.html");
  auto tab = first->openTab(pageURL, true);
  ASSERT_TRUE(tab);

  // Both frames ask at once; every answer reaches both frames, and each
  // must settle its own ask with its own echo.
  ASSERT_TRUE(waitFor([&] { return contentReports("hello").size() >= 2; }))
      << "failures: " << contentReports("hello-failed").size();
  const auto top = contentReports("hello", pageURL);
  const auto sub = contentReports("hello", frameURL);
  ASSERT_EQ(top.size(), 1u);
  ASSERT_EQ(sub.size(), 1u);
  EXPECT_EQ(top[0].at("frameId"), AnyValue(0)) << "the top frame is frame 0";
  EXPECT_GT(sub[0].at("frameId").to_number<double>(), 0) << "a subframe has an id of its own";
  const Dictionary& topAnswer = top[0].at("data").as_object();
  const Dictionary& subAnswer = sub[0].at("data").as_object();
  EXPECT_EQ(topAnswer.at("echo").at("top"), AnyValue(true));
  EXPECT_EQ(subAnswer.at("echo").at("top"), AnyValue(false));
  EXPECT_EQ(topAnswer.at("echo").at("baseURI"), AnyValue(browser->baseURI()));
  // The background sees the tab both came from.
  const std::string tabId = asString(topAnswer, "tabId").value_or("");
  EXPECT_FALSE(tabId.empty());
  EXPECT_EQ(asString(subAnswer, "tabId"), tabId);
  EXPECT_EQ(asString(topAnswer, "tabUrl"), pageURL);
  EXPECT_EQ(tabWithId(tabId), tab);

  // The background page to the tab: the top frame answers what it claims,
  // a subframe what only it claims.
  const AnyValue whoami = inBackground("appex.runtime.sendMessage('" + tabId + "', 'whoami')");
  EXPECT_EQ(whoami, AnyValue(Dictionary{{"top", true}, {"url", pageURL}}));
  const AnyValue subframe = inBackground("appex.runtime.sendMessage('" + tabId + "', 'subframe')");
  EXPECT_EQ(subframe, AnyValue(Dictionary{{"top", false}, {"url", frameURL}}));

  // To one page of the tab, by the page id the registry gave it; an unknown
  // page id reaches no page, so nobody answers.
  const std::string pageId = context.get<SafariTabAPI>()->pageIdentifier(tab->page());
  const AnyValue onePage = inBackground("appex.runtime.sendMessage('" + tabId + "/" + pageId + "', 'whoami')");
  EXPECT_EQ(onePage, whoami);
  EXPECT_NE(failureInBackground("appex.runtime.sendMessage('" + tabId + "/no-such-page', 'whoami', undefined, "
                                "{timeout: 400})"),
            "(succeeded)");
}

TEST_F(PagesTest, ThePageCannotReachTheContentWorldNorPostToTheExtension) {
  const std::string pageURL = site->url("/page.html");
  first->openTab(pageURL, true);
  ASSERT_TRUE(waitFor([&] { return !contentReports("page-sees", pageURL).empty(); }));
  const auto reports = contentReports("page-sees", pageURL);
  const Dictionary& found = reports[0].at("data").as_object();
  const Dictionary& page = found.at("page").as_object();
  EXPECT_EQ(page.at("safari"), AnyValue("undefined"));
  EXPECT_EQ(page.at("appex"), AnyValue("undefined"));
  EXPECT_EQ(page.at("endpoint"), AnyValue("undefined"));
  EXPECT_EQ(page.at("contentGlobal"), AnyValue("undefined")) << "a content script's window property";
  EXPECT_EQ(page.at("secret"), AnyValue("undefined")) << "a content script's variable";
  EXPECT_EQ(page.at("dispatched"), AnyValue(false));
  EXPECT_EQ(page.at("posted"), AnyValue(false));
  // The content world keeps its own globals and does not see the page's,
  // while the page's style sheet rules give way to the extension's.
  EXPECT_EQ(found.at("ownGlobal"), AnyValue("string"));
  EXPECT_EQ(found.at("pageGlobal"), AnyValue("undefined"));
  EXPECT_EQ(found.at("headingColor"), AnyValue("rgb(1, 2, 3)"));

  // Nothing the page tried arrived.
  ASSERT_TRUE(waitFor([&] { return contentReports("hello", pageURL).size() == 1; }));
  for (const auto& message : recorder->messages) {
    EXPECT_NE(asString(message.userInfo, "uid"), "forged-by-page") << message.name;
  }
}

TEST_F(PagesTest, ContentScriptsRunOnlyInWebPagesAndSeeEveryNavigation) {
  const std::string pageURL = site->url("/page.html");
  const std::string otherURL = site->url("/other.html");
  auto tab = first->openTab(otherURL, true);
  ASSERT_TRUE(waitFor([&] { return contentReports("hello", otherURL).size() == 1; }));
  const auto pageBefore = tab->page();
  engine().runFor(100ms);
  const int validationsBefore = recorder->validations;

  tab->navigateToURL(pageURL);
  ASSERT_TRUE(waitFor([&] { return contentReports("hello", pageURL).size() == 1; }));
  EXPECT_EQ(tab->page(), pageBefore) << "the tab keeps its page object";
  EXPECT_GT(recorder->validations, validationsBefore) << "a committed navigation validates the toolbar item";
  auto properties = tab->page()->properties();
  ASSERT_TRUE(properties);
  EXPECT_EQ(properties->url, pageURL);
  EXPECT_EQ(properties->title, "Test page");
  EXPECT_FALSE(properties->usesPrivateBrowsing);
  EXPECT_NE(std::find(recorder->navigations.begin(), recorder->navigations.end(), pageURL),
            recorder->navigations.end())
      << "page:willNavigateToURL: for the new page";

  // The bundle's own pages are not web pages: no content scripts there.
  auto own = first->openTab(browser->baseURI() + "Assets/extension/popup.html", true);
  ASSERT_TRUE(waitForTitle(own, "Popup"));
  engine().runFor(300ms);
  EXPECT_TRUE(contentReports("hello", browser->baseURI() + "Assets/extension/popup.html").empty());
}

TEST_F(PagesTest, TheBaseURIServesTheBundleResourcesAndNothingOutsideThem) {
  EXPECT_EQ(browser->baseURI(), std::string("appex-extension://") + kBundleIdentifier + "/");
  const AnyValue info = inBackground("appex.extension.info()");
  EXPECT_EQ(info.at("baseURI"), AnyValue(browser->baseURI()));
  EXPECT_EQ(inBackground("typeof safari"), AnyValue("undefined")) << "the background page is no tab";

  auto tab = first->openTab(browser->baseURI() + "Assets/extension/probe.html", true);
  ASSERT_TRUE(tab);
  ASSERT_TRUE(waitFor([&] {
    auto p = properties(tab);
    return p && p->title && p->title->starts_with("[");
  }));
  const auto results = JSON::parse(*properties(tab)->title);
  ASSERT_TRUE(results && results->is_array());
  std::map<std::string, std::int64_t> statuses;
  for (const auto& result : results->as_array()) {
    const Dictionary& r = result.as_object();
    EXPECT_EQ(r.at("leaked"), AnyValue(false)) << text(result);
    statuses[std::string(r.at("path").as_string())] = r.at("status").to_number<std::int64_t>();
  }
  EXPECT_EQ(statuses["probe.html"], 200);
  EXPECT_EQ(statuses["..%2f..%2f..%2fInfo.plist"], 403) << "an encoded slash in a segment";
  EXPECT_EQ(statuses["%2e%2e/%2e%2e/%2e%2e/Info.plist"], 404) << "dots resolve to the top of the resources";
  EXPECT_EQ(statuses["..%252f..%252f..%252fInfo.plist"], 404) << "decoded once only: just an odd name";
  EXPECT_EQ(statuses["../../../escape/Contents/Info.plist"], 403) << "a link out of the resources";
}

// A bundle whose scripts may run on localhost only, with a toolbar item
// that is a plain command.
class RestrictedBundleTest : public WebKitBrowserTest {
 protected:
  std::string infoPlist() const override {
    std::string info = WebKitBrowserTest::infoPlist();
    auto replace = [&info](const std::string& from, const std::string& to) {
      const auto at = info.find(from);
      ASSERT_NE(at, std::string::npos) << from;
      info.replace(at, from.size(), to);
    };
    replace("<key>Level</key><string>All</string>",
            "<key>Level</key><string>Some</string>"
            "<key>Allowed Domains</key><array><string>localhost</string></array>");
    replace("<string>Popover</string>", "<string>Command</string>");
    return info;
  }
};

TEST_F(RestrictedBundleTest, ScriptsRunOnlyOnAllowedDomainsAndTheItemIsACommand) {
  const std::string numeric = site->url("/page.html");
  std::string named = numeric;
  named.replace(named.find("127.0.0.1"), 9, "localhost");

  auto refused = first->openTab(numeric, true);
  auto allowed = first->openTab(named, true);
  ASSERT_TRUE(waitFor([&] { return contentReports("hello", named).size() == 1; }));
  ASSERT_TRUE(waitForTitle(refused, "Test page"));
  engine().runFor(300ms);
  EXPECT_TRUE(contentReports("hello", numeric).empty());
  EXPECT_TRUE(contentReports("page-sees", numeric).empty());

  first->clickToolbarItem();
  EXPECT_EQ(recorder->clicks, 1);
  EXPECT_EQ(recorder->popoverShows, 0);
  EXPECT_FALSE(context.get<Popover>()->state().shown);
}

}  // namespace
}  // namespace appex::testing
