// Building tab snapshots: their fields, identifiers, events and lifetime.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>

#include <set>
#include <thread>

#include "tests/tabs/tabs_fixture.h"

namespace appex::testing {
namespace {

using ::testing::ElementsAre;

class TabStateTest : public TabsFixture {
 protected:
  std::shared_ptr<sim::SimWindow> window = sim->openWindow();
};

TEST_F(TabStateTest, DictionaryFormHasExactlyFiveKeys) {
  auto tab = window->addTab("https://example.com/", "Example");
  auto state = rebuild(tab);
  Dictionary expected{{"id", state->id()},
                      {"url", "https://example.com/"},
                      {"title", "Example"},
                      {"isActive", true},
                      {"isPrivate", false}};
  EXPECT_EQ(state->toDictionary(), expected);
  EXPECT_EQ(state->windowId(), stateOfWindow(window)->id());
}

TEST_F(TabStateTest, MissingPageFactsGiveBlankDefaults) {
  auto noUrl = window->addTab("https://x.example/");
  noUrl->activePage()->setURL(std::nullopt);
  auto emptyUrl = window->addTab("");
  auto noPage = window->addBlankTab();

  for (const auto& tab : {noUrl, emptyUrl, noPage}) {
    auto form = rebuild(tab)->toDictionary();
    EXPECT_EQ(form.at("url"), "about:blank") << tab->description();
    EXPECT_EQ(form.at("title"), "") << tab->description();
    EXPECT_EQ(form.at("isPrivate"), false) << tab->description();
  }
  EXPECT_FALSE(rebuild(noPage)->title()) << "a missing title stays absent natively";
}

TEST_F(TabStateTest, PrivateAndActiveFlagsFollowTheBrowser) {
  auto privateWindow = sim->openWindow(/*isPrivate=*/true);
  auto first = privateWindow->addTab("https://a.example/");
  auto second = privateWindow->addTab("https://b.example/");
  EXPECT_TRUE(rebuild(first)->isPrivate());
  EXPECT_TRUE(rebuild(first)->isActive());
  EXPECT_FALSE(rebuild(second)->isActive());
  EXPECT_FALSE(rebuild(window->addTab("https://c.example/"))->isPrivate());
}

TEST_F(TabStateTest, IdentifiersAreUuidsStableAcrossSightingsAndUniqueAcrossTabs) {
  auto a = window->addTab("https://a.example/");
  auto b = window->addTab("https://b.example/");
  const std::string idA = stateOf(a)->id();
  EXPECT_THAT(idA, ::testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}"));
  a->navigateToURL("https://a.example/next");
  EXPECT_EQ(rebuild(a)->id(), idA);
  EXPECT_EQ(stateOf(a)->id(), idA);
  EXPECT_NE(stateOf(b)->id(), idA);
  EXPECT_EQ(tabs->findTabState(idA), stateOf(a)) << "one object, updated in place";
  EXPECT_EQ(tabs->tabCache().list().count(), 2u);
}

TEST_F(TabStateTest, ConcurrentFirstSightingsOfOneTabMakeOneSnapshot) {
  auto tab = window->addTab("https://race.example/");
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] { tabs->buildTabState(tab, tab->activePage(), i % 2, [](auto) {}); });
  }
  for (auto& t : threads) t.join();
  sim->waitForIdle();
  EXPECT_EQ(tabs->tabCache().list().count(), 1u);
  EXPECT_EQ(tabEvents.count("create"), 1);
  EXPECT_EQ(windows->cache().list().count(), 1u) << "the window also got one snapshot";
}

TEST_F(TabStateTest, EventsAnnounceNewTabsAlwaysAndUpdatesUnlessSuppressed) {
  auto tab = window->addTab("https://a.example/");
  rebuild(tab, /*suppress=*/true);
  rebuild(tab, /*suppress=*/true);
  rebuild(tab, /*suppress=*/false);
  EXPECT_THAT(tabEvents.names(), ElementsAre("create", "update"));

  auto entries = tabEvents.entries();
  auto native = entries[0].payload.nativeAs<TabState>();
  ASSERT_TRUE(native) << "native listeners get the snapshot with its tab and window";
  EXPECT_EQ(native->tab().ref(), tab);
  EXPECT_EQ(native->win().ref(), window);
  EXPECT_EQ(entries[0].payload.value.at("id"), native->id().c_str());
  EXPECT_EQ(log.count("tab event: create - " + boost::json::serialize(entries[0].payload.value) + ", " +
                      tab->description()),
            1);
}

TEST_F(TabStateTest, CompletionRunsBeforeTheEvent) {
  auto tab = window->addTab("https://a.example/");
  std::promise<void> done;
  tabs->buildTabState(tab, tab->activePage(), false, [&](std::shared_ptr<TabState>) {
    tabEvents.mark("completion");
    done.set_value();
  });
  done.get_future().wait();
  sim->waitForIdle();
  EXPECT_THAT(tabEvents.names(), ElementsAre("completion", "create"));
}

TEST_F(TabStateTest, GetTabStateHandsOutTheCachedSnapshotAsItIs) {
  auto tab = window->addTab("https://a.example/", "old");
  auto first = stateOf(tab);
  tab->activePage()->setTitle("new");
  auto again = stateOf(tab);
  EXPECT_EQ(again, first);
  EXPECT_EQ(again->title(), "old") << "no rebuild for a known tab";
  EXPECT_THAT(tabEvents.names(), ElementsAre("create"));
}

TEST_F(TabStateTest, ASnapshotOutlivesItsClosedTabAndWindow) {
  auto tab = window->addTab("https://a.example/", "A");
  auto state = rebuild(tab);
  const auto form = state->toDictionary();
  window->close();
  EXPECT_TRUE(tab->isClosed());
  tab.reset();
  window.reset();
  EXPECT_FALSE(state->tab().ref()) << "the registry kept nothing alive";
  EXPECT_FALSE(state->win().ref());
  EXPECT_EQ(tabs->findTabState(form.at("id").as_string().c_str()), state);
  EXPECT_EQ(state->toDictionary(), form);
}

TEST_F(TabStateTest, RefreshingActiveFlagsTouchesOnlyKnownTabsAndFiresNothing) {
  auto a = window->addTab("https://a.example/");
  auto b = window->addTab("https://b.example/");
  auto unknown = window->addTab("https://c.example/");
  auto stateA = stateOf(a);
  auto stateB = stateOf(b);
  const auto eventsBefore = tabEvents.entries().size();
  b->activate([] {});
  tabs->refreshActiveFlags(window, b);
  sim->waitForIdle();
  EXPECT_FALSE(stateA->isActive());
  EXPECT_TRUE(stateB->isActive());
  EXPECT_EQ(tabs->cachedTabState(unknown), nullptr);
  EXPECT_EQ(tabEvents.entries().size(), eventsBefore);

  tabs->refreshActiveFlags(window, nullptr);
  sim->waitForIdle();
  EXPECT_FALSE(stateB->isActive());
}

}  // namespace
}  // namespace appex::testing
