#include <gtest/gtest.h>

#include "host/global_state.h"
#include "tests/host/entry_fixture.h"

namespace appex::testing {
namespace {

class EntryTest : public EntryFixture {
 protected:
  EntryTest() { window = sim->openWindow(); }
  std::shared_ptr<sim::SimWindow> window;
};

TEST_F(EntryTest, FirstValidationCreatesTheBackgroundPageOnce) {
  EXPECT_FALSE(context_.get<GlobalState>()->webview);
  validate(window);
  validate(window);
  ASSERT_EQ(views.size(), 1u);
  const std::string path =
      bundlePath_.string() + "/Contents/Resources/Assets/extension/safari_background.html";
  EXPECT_EQ(views[0]->loaded, std::vector<std::string>{path});
  EXPECT_EQ(log.count("background page file path: " + path), 1);
  EXPECT_EQ(log.count("bindEventsForBackground!!!!"), 1);
  EXPECT_EQ(context_.get<GlobalState>()->webview, views[0]);
  EXPECT_TRUE(views[0]->handlers.contains("Webview_Bridge"));
}

TEST_F(EntryTest, ToolbarClickOnlyLogs) {
  handler.toolbarItemClickedInWindow(window);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"The extension's toolbar item was clicked"});
  EXPECT_TRUE(views.empty());
}

TEST_F(EntryTest, PopoverLoadsOnceAndReloadsOnEveryShowing) {
  auto controller = handler.popoverViewController();
  EXPECT_EQ(controller, handler.popoverViewController());
  ASSERT_EQ(views.size(), 1u);
  const std::string path = bundlePath_.string() + "/Contents/Resources/Assets/extension/popup.html";
  EXPECT_EQ(log.count("init popup bridge"), 1);
  EXPECT_EQ(log.count("poup page file path: " + path), 1);
  EXPECT_EQ(popup(), views[0]) << "the router hosts the popup's bridge";
  EXPECT_EQ(controller->preferredContentSize(), (Size{430, 566}));

  handler.popoverWillShowInWindow(window);
  handler.popoverWillShowInWindow(window);
  EXPECT_EQ(views[0]->reloads, 2);
}

TEST_F(EntryTest, OnlyTheExactMessageNameIsTaken) {
  auto tab = window->addTab("https://a.test/", "A", true);
  Message ask{MessageType::ask, "v", {}, {}, "VALIDATE_TAB", {}, 0};
  tab->activePage()->sendMessageToExtension("__APP_EXTENSION__ ", ask.build());
  tab->activePage()->sendMessageToExtension("__app_extension__", ask.build());
  settle();
  EXPECT_TRUE(received(*tab->activePage()).empty());
  tab->activePage()->sendMessageToExtension("__APP_EXTENSION__", ask.build());
  settle();
  ASSERT_EQ(received(*tab->activePage()).size(), 1u);
  EXPECT_EQ(received(*tab->activePage())[0].data, AnyValue(true));
}

}  // namespace
}  // namespace appex::testing
