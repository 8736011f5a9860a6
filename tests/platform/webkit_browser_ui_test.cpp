// The browser's side of the API on real web views: tab and window commands,
// the toolbar item and its validation, the popover, snapshots.
#include "bridge/safari_extension_view_controller.h"
#include "tests/platform/webkit_browser_fixture.h"

namespace appex::testing {
namespace {

using BrowserUiTest = WebKitBrowserTest;

std::string idOf(const AnyValue& state) { return asString(state.as_object(), "id").value_or(""); }

TEST_F(BrowserUiTest, TabAndWindowCommandsActOnRealWebViews) {
  const std::string pageURL = site->url("/page.html");
  const std::string otherURL = site->url("/other.html");

  // tabs.create opens a real tab in the active window and makes it active.
  const AnyValue created = inBackground("appex.tabs.create({url: '" + otherURL + "'})");
  ASSERT_TRUE(created.is_object()) << text(created);
  EXPECT_EQ(created.at("url"), AnyValue(otherURL));
  auto tab = tabWithId(idOf(created));
  ASSERT_TRUE(tab);
  ASSERT_EQ(first->tabs().size(), 2u);
  EXPECT_EQ(first->tabs()[1], tab);
  EXPECT_EQ(first->activeTab(), tab);
  EXPECT_TRUE(waitForTitle(tab, "Other page"));

  // Tabs load web pages, files and the bundle, never script or data URLs.
  EXPECT_FALSE(first->openTab("javascript:document.title='x'", true));
  EXPECT_EQ(failureInBackground("appex.tabs.create({url: 'data:text/html,<b>x</b>'})"),
            "[tabs.create] Failed to create tab for unknown reason");
  EXPECT_EQ(first->tabs().size(), 2u);

  // tabs.update navigates it for real.
  const AnyValue updated = inBackground("appex.tabs.update('" + idOf(created) + "', {url: '" + pageURL + "'})");
  EXPECT_EQ(idOf(updated), idOf(created));
  EXPECT_TRUE(waitForTitle(tab, "Test page"));

  // tabs.query with currentWindow sees this window's two tabs...
  AnyValue query = inBackground("appex.tabs.query({currentWindow: true})");
  ASSERT_TRUE(query.is_array());
  EXPECT_EQ(query.as_array().size(), 2u);

  // ...and after windows.create, only the new window's one tab.
  const AnyValue window = inBackground("appex.windows.create({url: '" + otherURL + "'})");
  ASSERT_TRUE(window.is_object()) << text(window);
  ASSERT_EQ(browser->windows().size(), 2u);
  auto second = browser->windows()[1];
  EXPECT_EQ(browser->activeWindow(), second);
  ASSERT_EQ(second->tabs().size(), 1u);
  EXPECT_TRUE(waitForTitle(second->tabs()[0], "Other page"));
  query = inBackground("appex.tabs.query({currentWindow: true})");
  ASSERT_EQ(query.as_array().size(), 1u);
  EXPECT_EQ(query.as_array()[0].at("url"), AnyValue(otherURL));

  // tabs.remove closes the web view.
  EXPECT_EQ(inBackground("appex.tabs.remove('" + idOf(created) + "')"), AnyValue(true));
  EXPECT_TRUE(tab->isClosed());
  EXPECT_EQ(first->tabs().size(), 1u);
  EXPECT_EQ(inBackground("appex.tabs.remove('" + idOf(created) + "')"), AnyValue(false));

  // A tab the user closes keeps its last snapshot in the registry.
  auto kept = second->tabs()[0];
  const std::string keptId = idOfTab(kept);
  ASSERT_FALSE(keptId.empty());
  kept->close();
  EXPECT_TRUE(second->isClosed()) << "a window does not outlive its last tab";
  EXPECT_EQ(browser->activeWindow(), first);
  const AnyValue snapshot = inBackground("appex.tabs.get('" + keptId + "')");
  EXPECT_EQ(snapshot.at("url"), AnyValue(otherURL));
  EXPECT_EQ(inBackground("appex.tabs.query({}).then(function (tabs) { return tabs.length; })"), AnyValue(1));
}

TEST_F(BrowserUiTest, PrivateWindowsReportPrivatePages) {
  auto window = browser->openWindow(site->url("/other.html"), /*isPrivate=*/true);
  ASSERT_TRUE(window);
  auto tab = window->tabs()[0];
  ASSERT_TRUE(waitForTitle(tab, "Other page"));
  EXPECT_TRUE(properties(tab)->usesPrivateBrowsing);
  const AnyValue query = inBackground("appex.tabs.query({currentWindow: true})");
  ASSERT_EQ(query.as_array().size(), 1u);
  EXPECT_EQ(query.as_array()[0].at("isPrivate"), AnyValue(true));
  EXPECT_FALSE(properties(first->tabs()[0])->usesPrivateBrowsing);
}

TEST_F(BrowserUiTest, BadgeAndIconReachTheToolbarItemAfterValidationAndFollowTheActiveTab) {
  auto item = first->toolbarItem();
  EXPECT_EQ(item->label(), "Test") << "from Info.plist";

  EXPECT_EQ(inBackground("appex.browserAction.setBadgeText({text: '7'})"), AnyValue(true));
  EXPECT_TRUE(waitFor([&] { return item->badgeText() == "7"; }));
  EXPECT_EQ(inBackground("appex.browserAction.setIcon({path: 'icons/red.png'})"), AnyValue(true));
  EXPECT_TRUE(waitFor([&] { return item->image() && item->image()->path.ends_with("extension/icons/red.png"); }));

  // A second tab with a badge of its own.
  auto a = first->tabs()[0];
  auto b = first->openTab(site->url("/other.html"), true);
  ASSERT_TRUE(waitForTitle(b, "Other page"));
  EXPECT_TRUE(waitFor([&] { return !idOfTab(b).empty(); }));
  const std::string idB = idOfTab(b);
  EXPECT_EQ(inBackground("appex.browserAction.setBadgeText({text: 'B', tabId: '" + idB + "'})"), AnyValue(true));
  EXPECT_TRUE(waitFor([&] { return item->badgeText() == "B"; }));

  // Activation validates again: the badge follows the active tab.
  bool activated = false;
  a->activate([&] { activated = true; });
  EXPECT_TRUE(activated);
  EXPECT_TRUE(waitFor([&] { return item->badgeText() == "7"; }));
  b->activate([] {});
  EXPECT_TRUE(waitFor([&] { return item->badgeText() == "B"; }));

  // Several updates asked for at once make one validation per window.
  engine().runFor(100ms);
  const int before = recorder->validations;
  for (int i = 0; i < 5; ++i) browser->setToolbarItemsNeedUpdate();
  engine().runFor(200ms);
  EXPECT_EQ(recorder->validations, before + 1);
}

TEST_F(BrowserUiTest, ThePopoverOpensAtThePreferredSizeResizesAndCloses) {
  auto popover = context.get<Popover>();
  first->clickToolbarItem();
  EXPECT_EQ(recorder->popoverShows, 1);
  EXPECT_EQ(recorder->clicks, 0) << "a popover item reports no plain click";
  EXPECT_EQ(popover->state(), (Popover::State{true, {430, 566}}));
  EXPECT_EQ(browser->popoverWindow(), first);
  ASSERT_TRUE(waitFor([&] { return findReport(recorder->popupReports, "popup-ready") != nullptr; }));
  EXPECT_TRUE(waitFor([&] { return browser->popoverViewSize() == webkit::PixelSize{430, 566}; }));

  // What it shows is the popup page, not a blank surface.
  const std::string png = (folder.path() / "popover.png").string();
  std::optional<std::expected<webkit::PixelSize, std::string>> taken;
  engine().runFor(200ms);
  browser->snapshotPopover(png, [&](auto result) { taken = std::move(result); });
  ASSERT_TRUE(waitFor([&] { return taken.has_value(); }));
  ASSERT_TRUE(*taken) << taken->error();
  EXPECT_EQ(**taken, (webkit::PixelSize{430, 566}));
  auto summary = summarisePNG(png);
  ASSERT_TRUE(summary);
  EXPECT_GT(summary->varied, 0.001) << "the snapshot is one colour";

  // The popup page sizes and closes its popover through the API.
  auto popup = context.get<SafariExtensionViewController>()->webview();
  ASSERT_TRUE(popup);
  popup->evaluateScript("appex.extension.setPopupHeight(300)");
  EXPECT_TRUE(waitFor([&] { return browser->popoverViewSize() == webkit::PixelSize{430, 300}; }));
  popup->evaluateScript("appex.extension.closePopup()");
  EXPECT_TRUE(waitFor([&] { return browser->popoverWindow() == nullptr; }));
  EXPECT_FALSE(popover->state().shown);

  // Shown again, it starts from the page afresh; a second click closes it.
  first->clickToolbarItem();
  EXPECT_EQ(recorder->popoverShows, 2);
  EXPECT_TRUE(waitFor([&] { return browser->popoverViewSize() == webkit::PixelSize{430, 300}; }));
  first->clickToolbarItem();
  EXPECT_FALSE(popover->state().shown);
  EXPECT_EQ(browser->popoverWindow(), nullptr);

  // A disabled item does nothing.
  first->toolbarItem()->setEnabled(false);
  first->clickToolbarItem();
  EXPECT_FALSE(popover->state().shown);
}

TEST_F(BrowserUiTest, SnapshotsOfATabAndTheBackgroundPage) {
  auto tab = first->openTab(site->url("/page.html"), true);
  ASSERT_TRUE(waitForTitle(tab, "Test page"));
  ASSERT_TRUE(waitFor([&] { return !tab->isLoading(); }));

  const std::string tabPNG = (folder.path() / "tab.png").string();
  std::optional<std::expected<webkit::PixelSize, std::string>> taken;
  tab->snapshot(tabPNG, [&](auto result) { taken = std::move(result); });
  ASSERT_TRUE(waitFor([&] { return taken.has_value(); }));
  ASSERT_TRUE(*taken) << taken->error();
  auto summary = summarisePNG(tabPNG);
  ASSERT_TRUE(summary);
  EXPECT_EQ(summary->width, (*taken)->width);
  EXPECT_GT(summary->width, 100);
  EXPECT_GT(summary->varied, 0.001);

  const std::string backgroundPNG = (folder.path() / "background.png").string();
  taken.reset();
  webkit::snapshotWebView(backgroundView(), backgroundPNG, [&](auto result) { taken = std::move(result); });
  ASSERT_TRUE(waitFor([&] { return taken.has_value(); }));
  ASSERT_TRUE(*taken) << taken->error();
  EXPECT_TRUE(summarisePNG(backgroundPNG));

  tab->close();
  taken.reset();
  tab->snapshot(tabPNG, [&](auto result) { taken = std::move(result); });
  ASSERT_TRUE(taken.has_value());
  EXPECT_FALSE(*taken) << "a closed tab shows nothing";
}

}  // namespace
}  // namespace appex::testing
