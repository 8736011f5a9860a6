// The tab commands: get, all, query, create, update, remove.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tabs/tabs_fixture.h"

namespace appex::testing {
namespace {

class TabOperationsTest : public TabsFixture {
 protected:
  // The "url" values of a list result, in order.
  static std::vector<std::string> urls(const Result& r) {
    std::vector<std::string> out;
    for (const auto& v : r.value()->as_array()) out.emplace_back(v.at("url").as_string().c_str());
    return out;
  }
  Result query(const Dictionary& args) {
    return call([&](ResultCallback cb) { tabs->queryTabs(TabQuery::fromArguments(args), std::move(cb)); });
  }
  std::string idOf(const std::shared_ptr<sim::SimTab>& tab) { return stateOf(tab)->id(); }

  // Two windows: `front` (active) with a1 (active) and a2; `back` with b1.
  std::shared_ptr<sim::SimWindow> back = sim->openWindow();
  std::shared_ptr<sim::SimTab> b1 = back->addTab("https://b.example/one");
  std::shared_ptr<sim::SimWindow> front = sim->openWindow();
  std::shared_ptr<sim::SimTab> a1 = front->addTab("https://a.example/one");
  std::shared_ptr<sim::SimTab> a2 = front->addTab("https://A.example/two");
};

TEST_F(TabOperationsTest, GetFindsSnapshotsByIdEvenOfClosedTabs) {
  const auto id = idOf(a2);
  EXPECT_EQ(dict(call([&](ResultCallback cb) { tabs->getTab(id, std::move(cb)); })).at("url"),
            "https://A.example/two");
  a2->close();
  a2.reset();
  EXPECT_EQ(dict(call([&](ResultCallback cb) { tabs->getTab(id, std::move(cb)); })).at("id"), id.c_str());
  EXPECT_EQ(call([&](ResultCallback cb) { tabs->getTab("abc", std::move(cb)); }).error().text,
            "[tabs.get] no tab found with id: abc");
}

TEST_F(TabOperationsTest, AllListsOpenTabsWindowByWindowInBrowserOrder) {
  auto r = call([&](ResultCallback cb) { tabs->allTabs(std::move(cb)); });
  EXPECT_EQ(urls(r), (std::vector<std::string>{"https://b.example/one", "https://a.example/one",
                                               "https://A.example/two"}));
  EXPECT_EQ(tabEvents.count("create"), 3) << "first sightings are announced";
  a1->close();
  EXPECT_EQ(urls(call([&](ResultCallback cb) { tabs->allTabs(std::move(cb)); })).size(), 2u);
}

TEST_F(TabOperationsTest, QueryByActiveFlagAndUrl) {
  EXPECT_EQ(urls(query({})).size(), 3u) << "no filter keys: every tab";
  EXPECT_EQ(urls(query({{"active", false}})), std::vector<std::string>{"https://A.example/two"});
  EXPECT_EQ(urls(query({{"active", true}})),
            (std::vector<std::string>{"https://b.example/one", "https://a.example/one"}));
  EXPECT_EQ(urls(query({{"url", "a.example"}})), std::vector<std::string>{"https://a.example/one"})
      << "case-sensitive substring";
  EXPECT_EQ(urls(query({{"url", List{"two", "b.example"}}})),
            (std::vector<std::string>{"https://b.example/one", "https://A.example/two"}))
      << "a list keeps tabs matching any text";
  EXPECT_EQ(urls(query({{"url", "one"}, {"active", true}})).size(), 2u);
  EXPECT_EQ(urls(query({{"active", "yes"}})).size(), 3u) << "a non-boolean counts as not set";
}

TEST_F(TabOperationsTest, QueryByCurrentWindowKeepsTabsWhoseWindowIsGone) {
  // A tab seen in `back`, dragged to `front`, after which `back` closes: its
  // cached snapshot still names the closed window.
  auto dragged = back->addTab("https://dragged.example/");
  idOf(dragged);
  dragged->moveTo(front);
  back->close();
  b1.reset();
  back.reset();
  sim->focus(front);

  EXPECT_EQ(urls(query({{"currentWindow", true}})),
            (std::vector<std::string>{"https://a.example/one", "https://A.example/two", "https://dragged.example/"}));
  EXPECT_EQ(urls(query({{"currentWindow", false}})), std::vector<std::string>{"https://dragged.example/"});
  EXPECT_EQ(urls(query({{"currentWindow", nullptr}})), std::vector<std::string>{"https://dragged.example/"})
      << "present but not set keeps only window-less tabs";
}

TEST_F(TabOperationsTest, QueryByCurrentWindowComparesWithTheActiveWindow) {
  EXPECT_EQ(urls(query({{"currentWindow", true}})),
            (std::vector<std::string>{"https://a.example/one", "https://A.example/two"}));
  EXPECT_EQ(urls(query({{"currentWindow", false}})), std::vector<std::string>{"https://b.example/one"});
  sim->focus(back);
  EXPECT_EQ(urls(query({{"currentWindow", true}, {"active", true}})),
            std::vector<std::string>{"https://b.example/one"});
}

TEST_F(TabOperationsTest, CreateOpensInTheActiveWindowAndHonoursActive) {
  auto r = call([&](ResultCallback cb) { tabs->createTab("https://new.example/", true, std::move(cb)); });
  ASSERT_TRUE(r) << r.error().text;
  EXPECT_EQ(dict(r).at("url"), "https://new.example/");
  EXPECT_EQ(dict(r).at("isActive"), true);
  ASSERT_EQ(front->tabs().size(), 3u);
  EXPECT_EQ(front->activeTab(), front->tabs().back());
  EXPECT_EQ(tabs->findTabState(dict(r).at("id").as_string().c_str())->tab().ref(), front->tabs().back());

  auto background = call([&](ResultCallback cb) { tabs->createTab("https://bg.example/", false, std::move(cb)); });
  EXPECT_EQ(dict(background).at("isActive"), false);
  EXPECT_EQ(front->activeTab(), front->tabs()[2]);
  sim->waitForIdle();
  EXPECT_EQ(tabEvents.count("create"), 2);
}

TEST_F(TabOperationsTest, CreateFailures) {
  const std::string text = "[tabs.create] Failed to create tab for unknown reason";
  EXPECT_EQ(call([&](ResultCallback cb) { tabs->createTab("not a url", true, std::move(cb)); }).error().text, text);
  sim->setRefusesToOpen(true);
  EXPECT_EQ(call([&](ResultCallback cb) { tabs->createTab("https://x.example/", true, std::move(cb)); }).error().text,
            text);
  sim->setRefusesToOpen(false);
  front->close();
  back->close();
  EXPECT_EQ(call([&](ResultCallback cb) { tabs->createTab("https://x.example/", true, std::move(cb)); }).error().text,
            text);
  EXPECT_EQ(tabs->tabCache().list().count(), 0u);
}

TEST_F(TabOperationsTest, UpdateNavigatesActivatesAndAnnounces) {
  const auto id = idOf(a2);
  auto r = call([&](ResultCallback cb) { tabs->updateTab(id, "https://a.example/moved", true, std::move(cb)); });
  ASSERT_TRUE(r) << r.error().text;
  EXPECT_EQ(dict(r).at("id"), id.c_str());
  EXPECT_EQ(dict(r).at("url"), "https://a.example/moved");
  EXPECT_EQ(dict(r).at("isActive"), true);
  EXPECT_TRUE(a2->isActive());
  sim->waitForIdle();
  EXPECT_EQ(tabEvents.names(), (std::vector<std::string>{"create", "update"}));

  auto quiet = call([&](ResultCallback cb) { tabs->updateTab(idOf(a1), std::nullopt, false, std::move(cb)); });
  EXPECT_EQ(dict(quiet).at("isActive"), false) << "not activated, and a2 took over";
  EXPECT_EQ(dict(quiet).at("url"), "https://a.example/one");
}

TEST_F(TabOperationsTest, UpdateFailures) {
  const std::string text = "[tabs.update] Failed to create tab for unknown reason";
  const auto id = idOf(a1);
  EXPECT_EQ(call([&](ResultCallback cb) { tabs->updateTab("nope", std::nullopt, false, std::move(cb)); }).error().text,
            text);
  EXPECT_EQ(call([&](ResultCallback cb) { tabs->updateTab(id, "::", false, std::move(cb)); }).error().text, text);
  EXPECT_EQ(a1->activePage()->url(), "https://a.example/one") << "nothing was navigated";
  a1->close();
  a1.reset();
  EXPECT_EQ(call([&](ResultCallback cb) { tabs->updateTab(id, std::nullopt, true, std::move(cb)); }).error().text,
            text);
}

TEST_F(TabOperationsTest, RemoveClosesAndForgetsOrAnswersFalse) {
  const auto id = idOf(a2);
  EXPECT_EQ(call([&](ResultCallback cb) { tabs->removeTab(id, std::move(cb)); }).value(), AnyValue(true));
  EXPECT_TRUE(a2->isClosed());
  EXPECT_EQ(front->tabs().size(), 1u);
  EXPECT_EQ(tabs->findTabState(id), nullptr);
  EXPECT_EQ(call([&](ResultCallback cb) { tabs->removeTab(id, std::move(cb)); }).value(), AnyValue(false));
  EXPECT_EQ(call([&](ResultCallback cb) { tabs->removeTab("nope", std::move(cb)); }).value(), AnyValue(false));
}

// Messages a page sent just before its tab was removed arrive afterwards,
// and their lookups hold the tab object; they must not register the
// closing tab again under a new id and announce it as created.
TEST_F(TabOperationsTest, ARemovedTabIsNeverRegisteredAgainByWhatWasInFlight) {
  const auto id = idOf(a2);
  auto page = a2->activePage();
  const auto eventsBefore = tabEvents.names().size();
  ASSERT_EQ(call([&](ResultCallback cb) { tabs->removeTab(id, std::move(cb)); }).value(), AnyValue(true));

  std::shared_ptr<TabState> seen;
  tabs->getTabState(a2, [&](std::shared_ptr<TabState> state) { seen = std::move(state); });
  sim->waitForIdle();
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->id(), id) << "an in-flight message keeps the tab's id";

  tabs->buildTabState(a2, page, false, [](std::shared_ptr<TabState>) {});  // a top-frame validation
  sim->waitForIdle();
  EXPECT_EQ(tabEvents.names().size(), eventsBefore) << "no event names the removed tab";
  EXPECT_EQ(tabs->findTabState(id), nullptr);
  EXPECT_EQ(tabs->tabCache().list().count(), 0u) << "only a2 had been seen, and it is gone";
  EXPECT_EQ(urls(call([&](ResultCallback cb) { tabs->allTabs(std::move(cb)); })).size(), 2u);
}

}  // namespace
}  // namespace appex::testing
