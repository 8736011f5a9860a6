// The simulated browser: what tests elsewhere rely on it to do.
#include "platform/sim/sim_browser.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "core/context.h"
#include "platform/safari_extension.h"
#include "platform/sim/sim_extension.h"
#include "platform/sim/sim_page.h"
#include "platform/sim/sim_tab.h"
#include "platform/sim/sim_toolbar_item.h"
#include "platform/sim/sim_window.h"

namespace appex::sim {
namespace {

using namespace std::chrono_literals;

// Waits for a completion that takes one value.
template <class T, class Query>
T answer(Query&& query) {
  auto promise = std::make_shared<std::promise<T>>();
  auto future = promise->get_future();
  query([promise](T value) { promise->set_value(std::move(value)); });
  EXPECT_EQ(future.wait_for(10s), std::future_status::ready);
  return future.get();
}

class SimBrowserTest : public ::testing::Test {
 protected:
  std::shared_ptr<SimBrowser> browser = SimBrowser::create();
};

TEST_F(SimBrowserTest, CompletionsRunOnWorkerThreadsByDefaultOrInlineOnRequest) {
  auto window = browser->openWindow();
  auto caller = std::this_thread::get_id();
  auto thread = answer<std::thread::id>([&](auto done) {
    window->getAllTabs([done = std::move(done)](auto) mutable { done(std::this_thread::get_id()); });
  });
  EXPECT_NE(thread, caller);

  browser->setDelivery(Delivery::inlineOnCaller);
  bool ran = false;
  window->getAllTabs([&](auto) { ran = std::this_thread::get_id() == caller; });
  EXPECT_TRUE(ran) << "inline: on the caller, before returning";
}

TEST_F(SimBrowserTest, HandsOutTheSameObjectEveryTime) {
  auto window = browser->openWindow();
  auto tab = window->addTab("https://a.example/");
  auto page = tab->activePage();
  EXPECT_EQ(answer<std::shared_ptr<SFSafariTab>>([&](auto done) { page->getContainingTab(std::move(done)); }), tab);
  EXPECT_EQ(answer<std::shared_ptr<SFSafariWindow>>([&](auto done) { tab->getContainingWindow(std::move(done)); }),
            window);
  EXPECT_EQ(answer<std::shared_ptr<SFSafariWindow>>([&](auto done) { browser->getActiveWindow(std::move(done)); }),
            window);
  EXPECT_TRUE(tab->isEqual(*tab));
  EXPECT_FALSE(tab->isEqual(*window->addTab("https://a.example/")));
}

TEST_F(SimBrowserTest, ActiveTabsAndWindowsFollowOpeningActivationAndClosing) {
  auto first = browser->openWindow();
  auto a = first->addTab("https://a.example/");
  auto b = first->addTab("https://b.example/");
  auto c = first->addTab("https://c.example/", {}, /*makeActive=*/true);
  EXPECT_EQ(first->activeTab(), c);
  c->close();
  EXPECT_EQ(first->activeTab(), b) << "the neighbour takes over";
  auto second = browser->openWindow();
  EXPECT_EQ(browser->activeWindow(), second);
  answer<int>([&](auto done) { a->activate([done = std::move(done)]() mutable { done(0); }); });
  EXPECT_EQ(first->activeTab(), a);
  EXPECT_EQ(browser->activeWindow(), first) << "activating a tab brings its window forward";
  first->close();
  EXPECT_EQ(browser->activeWindow(), second);
  EXPECT_EQ(browser->windows(), std::vector<std::shared_ptr<SimWindow>>{second});
}

TEST_F(SimBrowserTest, ClosedObjectsAnswerEmptyAndAreReleased) {
  auto window = browser->openWindow();
  auto tab = window->addTab("https://a.example/");
  auto page = tab->activePage();
  std::weak_ptr<SimWindow> weakWindow = window;
  std::weak_ptr<SimTab> weakTab = tab;
  window->close();
  EXPECT_TRUE(tab->isClosed());
  EXPECT_TRUE(page->isClosed());
  EXPECT_EQ(answer<std::shared_ptr<SFSafariWindow>>([&](auto done) { tab->getContainingWindow(std::move(done)); }),
            nullptr);
  EXPECT_TRUE(answer<std::vector<std::shared_ptr<SFSafariPage>>>([&](auto done) { tab->getPages(std::move(done)); })
                  .empty());
  EXPECT_EQ(answer<std::optional<SFSafariPageProperties>>([&](auto done) { page->getPageProperties(std::move(done)); }),
            std::nullopt);
  page->dispatchMessageToScript("__APP_EXTENSION__", {});
  EXPECT_TRUE(page->receivedMessages().empty());
  EXPECT_TRUE(browser->waitForIdle());
  window.reset();
  tab.reset();
  EXPECT_TRUE(weakWindow.expired());
  EXPECT_TRUE(weakTab.expired());
}

TEST_F(SimBrowserTest, PagePropertiesReflectNavigationAndPrivateWindows) {
  auto tab = browser->openWindow(/*isPrivate=*/true)->addTab("https://a.example/", "A");
  auto properties = [&] {
    return *answer<std::optional<SFSafariPageProperties>>(
        [&](auto done) { tab->activePage()->getPageProperties(std::move(done)); });
  };
  EXPECT_EQ(properties(), (SFSafariPageProperties{"https://a.example/", "A", true}));
  tab->navigateToURL("https://b.example/");
  EXPECT_EQ(properties(), (SFSafariPageProperties{"https://b.example/", std::nullopt, true}));

  auto blank = browser->openWindow()->addBlankTab();
  EXPECT_EQ(blank->activePage(), nullptr);
  blank->navigateToURL("https://c.example/");
  ASSERT_NE(blank->activePage(), nullptr);
  EXPECT_EQ(blank->activePage()->url(), "https://c.example/");
}

TEST_F(SimBrowserTest, OpeningTabsAndWindowsOrRefusing) {
  auto window = browser->openWindow();
  window->addTab("https://a.example/");
  auto background = answer<std::shared_ptr<SFSafariTab>>(
      [&](auto done) { window->openTabWithURL("https://b.example/", false, std::move(done)); });
  ASSERT_NE(background, nullptr);
  EXPECT_EQ(window->tabs().size(), 2u);
  EXPECT_NE(window->activeTab(), background);
  auto opened = answer<std::shared_ptr<SFSafariWindow>>(
      [&](auto done) { browser->openWindowWithURL("https://c.example/", std::move(done)); });
  EXPECT_EQ(opened, browser->activeWindow());

  browser->setRefusesToOpen(true);
  EXPECT_EQ(answer<std::shared_ptr<SFSafariTab>>(
                [&](auto done) { window->openTabWithURL("https://d.example/", true, std::move(done)); }),
            nullptr);
  EXPECT_EQ(answer<std::shared_ptr<SFSafariWindow>>(
                [&](auto done) { browser->openWindowWithURL("https://d.example/", std::move(done)); }),
            nullptr);
  EXPECT_EQ(browser->windows().size(), 2u);
}

TEST_F(SimBrowserTest, ContentScriptsTalkThroughTheIntakeAndRecordDispatches) {
  auto page = browser->openWindow()->addTab("https://a.example/")->activePage();
  std::vector<std::string> intake;
  browser->setIntake([&](std::string name, std::shared_ptr<SFSafariPage> from, std::optional<Dictionary> info) {
    EXPECT_EQ(from, page);
    intake.push_back(name + (info ? ":info" : ":none"));
  });
  page->sendMessageToExtension("__APP_EXTENSION__", Dictionary{{"k", 1}});
  page->sendMessageToExtension("other", std::nullopt);
  EXPECT_EQ(intake, (std::vector<std::string>{"__APP_EXTENSION__:info", "other:none"}));

  std::atomic<int> scripted{0};
  page->setContentScript([&](const std::shared_ptr<SimPage>& self, const DispatchedMessage& m) {
    EXPECT_EQ(self, page);
    EXPECT_EQ(m.userInfo, (Dictionary{{"n", scripted.load()}}));
    ++scripted;
  });
  std::thread other([&] { page->dispatchMessageToScript("__APP_EXTENSION__", Dictionary{{"n", 0}}); });
  ASSERT_TRUE(page->waitForMessages(1));
  other.join();
  page->dispatchMessageToScript("__APP_EXTENSION__", Dictionary{{"n", 1}});
  ASSERT_EQ(page->receivedMessages().size(), 2u);
  EXPECT_EQ(page->receivedMessages()[1].name, "__APP_EXTENSION__");
  EXPECT_EQ(scripted.load(), 2);
}

TEST_F(SimBrowserTest, ToolbarItemsUpdateRequestsAndBaseUri) {
  auto one = browser->openWindow();
  auto two = browser->openWindow();
  EXPECT_NE(one->toolbarItem(), two->toolbarItem());
  EXPECT_EQ(answer<std::shared_ptr<SFSafariToolbarItem>>([&](auto done) { one->getToolbarItem(std::move(done)); }),
            one->toolbarItem());
  one->toolbarItem()->setBadgeText("3");
  EXPECT_EQ(one->toolbarItem()->badgeText(), "3");
  EXPECT_EQ(two->toolbarItem()->badgeText(), std::nullopt);

  browser->setToolbarItemsNeedUpdate();
  browser->setToolbarItemsNeedUpdate();
  EXPECT_EQ(browser->takeToolbarUpdates(), 2);
  EXPECT_EQ(browser->pendingToolbarUpdates(), 0);

  Context context;
  browser->install(context);
  EXPECT_EQ(context.get<SFSafariApplication>(), browser);
  browser->extension()->setBaseURI("ext-resource://ABC/");
  EXPECT_EQ(answer<std::optional<std::string>>(
                [&](auto done) { context.get<SFSafariExtension>()->getBaseURI(std::move(done)); }),
            "ext-resource://ABC/");
}

TEST_F(SimBrowserTest, WaitForIdleCoversChainedCompletions) {
  auto window = browser->openWindow();
  window->addTab("https://a.example/");
  std::atomic<bool> reachedPage{false};
  window->getAllTabs([&](std::vector<std::shared_ptr<SFSafariTab>> tabs) {
    tabs[0]->getPages([&](std::vector<std::shared_ptr<SFSafariPage>> pages) {
      pages[0]->getPageProperties([&](auto) { reachedPage = true; });
    });
  });
  ASSERT_TRUE(browser->waitForIdle());
  EXPECT_TRUE(reachedPage.load());
}

}  // namespace
}  // namespace appex::sim
