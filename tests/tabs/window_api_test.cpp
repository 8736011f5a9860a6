// Window snapshots and the window commands.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tabs/tabs_fixture.h"

namespace appex::testing {
namespace {

class WindowApiTest : public TabsFixture {
 protected:
  std::shared_ptr<WindowState> snapshot(const std::shared_ptr<SFSafariWindow>& window, WindowState::TabList tabs = {},
                                        bool suppress = true) {
    std::promise<std::shared_ptr<WindowState>> promise;
    windows->getWindowState(std::move(tabs), window, suppress,
                            [&](std::shared_ptr<WindowState> s) { promise.set_value(std::move(s)); });
    return promise.get_future().get();
  }
  std::vector<std::shared_ptr<WindowState>> snapshots(std::vector<std::shared_ptr<SFSafariWindow>> list,
                                                      bool populate) {
    std::promise<std::vector<std::shared_ptr<WindowState>>> promise;
    windows->windowStates(std::move(list), populate, [&](auto s) { promise.set_value(std::move(s)); });
    auto future = promise.get_future();
    EXPECT_EQ(future.wait_for(10s), std::future_status::ready);
    return future.get();
  }
  static std::vector<std::string> tabUrls(const Dictionary& form) {
    std::vector<std::string> out;
    for (const auto& t : form.at("tabs").as_array()) out.emplace_back(t.at("url").as_string().c_str());
    return out;
  }

  std::shared_ptr<sim::SimWindow> window = sim->openWindow();
  std::shared_ptr<sim::SimTab> tab1 = window->addTab("https://one.example/");
  std::shared_ptr<sim::SimTab> tab2 = window->addTab("https://two.example/");
};

TEST_F(WindowApiTest, AWindowKeepsItsIdentifierAndItsSnapshotObject) {
  auto first = snapshot(window);
  auto second = snapshot(window);
  EXPECT_EQ(first, second);
  EXPECT_NE(snapshot(sim->openWindow())->id(), first->id());
  EXPECT_EQ(windows->findWindowState(first->id()), first);
  EXPECT_EQ(first->win().ref(), window);
}

TEST_F(WindowApiTest, EventsCarryTheWindowStateUnlessSuppressed) {
  snapshot(window, {}, /*suppress=*/true);
  EXPECT_TRUE(windowEvents.entries().empty());
  auto state = snapshot(window, {}, /*suppress=*/false);
  auto other = snapshot(sim->openWindow(), {}, /*suppress=*/false);
  auto entries = windowEvents.entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].name, "update");
  EXPECT_EQ(entries[0].payload.nativeAs<WindowState>(), state);
  EXPECT_EQ(entries[1].name, "create");
  EXPECT_EQ(entries[1].payload.value, AnyValue(other->toDictionary()));
}

TEST_F(WindowApiTest, BuildingATabResetsItsWindowsTabListToEmpty) {
  auto populated = snapshots({window}, true);
  ASSERT_EQ(populated.size(), 1u);
  EXPECT_EQ(populated[0]->tabs()->size(), 2u);
  rebuild(tab1);
  EXPECT_EQ(populated[0]->toDictionary(), (Dictionary{{"id", populated[0]->id()}, {"tabs", List{}}}));
  EXPECT_EQ(stateOf(tab1)->windowId(), populated[0]->id());
}

TEST_F(WindowApiTest, WindowStatesKeepsWindowOrderAndAnEmptyListCompletesAtOnce) {
  auto second = sim->openWindow();
  second->addTab("https://three.example/");
  auto states = snapshots({second, window}, true);
  ASSERT_EQ(states.size(), 2u);
  EXPECT_EQ(tabUrls(states[0]->toDictionary()), std::vector<std::string>{"https://three.example/"});
  EXPECT_EQ(tabUrls(states[1]->toDictionary()),
            (std::vector<std::string>{"https://one.example/", "https://two.example/"}));

  bool called = false;
  windows->windowStates({}, true, [&](auto list) {
    called = true;
    EXPECT_TRUE(list.empty());
  });
  EXPECT_TRUE(called) << "no window: completes before returning";
}

TEST_F(WindowApiTest, GetLastFocused) {
  auto plain = call([&](ResultCallback cb) { windows->getLastFocusedWindow(false, std::move(cb)); });
  EXPECT_EQ(dict(plain), (Dictionary{{"id", snapshot(window)->id()}, {"tabs", List{}}}));
  auto populated = call([&](ResultCallback cb) { windows->getLastFocusedWindow(true, std::move(cb)); });
  EXPECT_EQ(tabUrls(dict(populated)), (std::vector<std::string>{"https://one.example/", "https://two.example/"}));
  window->close();
  EXPECT_EQ(call([&](ResultCallback cb) { windows->getLastFocusedWindow(false, std::move(cb)); }).error().text,
            "[windows.getLastFocused] no tab found");
}

TEST_F(WindowApiTest, GetByIdWithCachedOrFreshTabs) {
  const auto id = snapshot(window)->id();
  EXPECT_EQ(dict(call([&](ResultCallback cb) { windows->getWindow(id, true, std::move(cb)); })).at("tabs").as_array().size(),
            2u);
  tab2->close();
  EXPECT_EQ(tabUrls(dict(call([&](ResultCallback cb) { windows->getWindow(id, false, std::move(cb)); }))).size(), 2u)
      << "without populate the cached list is returned";
  EXPECT_EQ(tabUrls(dict(call([&](ResultCallback cb) { windows->getWindow(id, true, std::move(cb)); }))),
            std::vector<std::string>{"https://one.example/"});
  EXPECT_EQ(call([&](ResultCallback cb) { windows->getWindow("w9", false, std::move(cb)); }).error().text,
            "[windows.get] no tab found with id: w9");
}

TEST_F(WindowApiTest, AClosedWindowKeepsItsSnapshot) {
  const auto id = snapshot(window)->id();
  window->close();
  tab1.reset();
  tab2.reset();
  window.reset();
  auto state = windows->findWindowState(id);
  ASSERT_TRUE(state);
  EXPECT_FALSE(state->win().ref());
  EXPECT_EQ(dict(call([&](ResultCallback cb) { windows->getWindow(id, true, std::move(cb)); })).at("id"), id.c_str());
}

TEST_F(WindowApiTest, AllListsOpenWindowsWithOrWithoutTabs) {
  sim->openWindow()->addTab("https://three.example/");
  auto plain = call([&](ResultCallback cb) { windows->allWindows(false, std::move(cb)); });
  ASSERT_EQ(plain.value()->as_array().size(), 2u);
  EXPECT_TRUE(plain.value()->as_array()[0].at("tabs").as_array().empty());
  auto full = call([&](ResultCallback cb) { windows->allWindows(true, std::move(cb)); });
  EXPECT_EQ(tabUrls(full.value()->as_array()[1].as_object()), std::vector<std::string>{"https://three.example/"});
}

TEST_F(WindowApiTest, CreateOpensAWindowOrFailsWithItsText) {
  auto r = call([&](ResultCallback cb) { windows->createWindow("https://new.example/", std::move(cb)); });
  ASSERT_TRUE(r) << r.error().text;
  EXPECT_EQ(dict(r).at("tabs"), List{});
  auto created = sim->activeWindow();
  EXPECT_EQ(created->tabs().at(0)->activePage()->url(), "https://new.example/");
  EXPECT_EQ(windows->findWindowState(dict(r).at("id").as_string().c_str())->win().ref(), created);

  const std::string text = "[windows.create] Failed to create window for unknown reason";
  EXPECT_EQ(call([&](ResultCallback cb) { windows->createWindow("new.example", std::move(cb)); }).error().text, text);
  sim->setRefusesToOpen(true);
  EXPECT_EQ(call([&](ResultCallback cb) { windows->createWindow("https://x.example/", std::move(cb)); }).error().text,
            text);
  EXPECT_EQ(sim->windows().size(), 2u);
}

TEST_F(WindowApiTest, RemoveClosesAndForgetsOrAnswersFalse) {
  const auto id = snapshot(window)->id();
  EXPECT_EQ(call([&](ResultCallback cb) { windows->removeWindow(id, std::move(cb)); }).value(), AnyValue(true));
  EXPECT_TRUE(window->isClosed());
  EXPECT_TRUE(tab1->isClosed());
  EXPECT_EQ(windows->findWindowState(id), nullptr);
  EXPECT_EQ(call([&](ResultCallback cb) { windows->removeWindow(id, std::move(cb)); }).value(), AnyValue(false));
}

}  // namespace
}  // namespace appex::testing
