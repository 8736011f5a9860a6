#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <future>

#include "api/safari_toolbar_api.h"
#include "platform/cached_image_loader.h"
#include "platform/sim/sim_tab.h"
#include "platform/sim/sim_toolbar_item.h"
#include "platform/sim/sim_window.h"
#include "tests/api/api_fixture.h"

namespace appex::testing {
namespace {

class ToolbarTest : public ApiFixture {
 protected:
  ToolbarTest() {
    window = sim->openWindow();
    active = window->addTab("https://a.test/", "A", true);
    background = window->addTab("https://b.test/", "B");
  }

  // The browser's validation of `window`: (enabled, badge text).
  std::pair<bool, std::string> validate() {
    std::promise<std::pair<bool, std::string>> promise;
    auto future = promise.get_future();
    toolbar->validateToolbarItem(window, [&](bool enabled, std::string badge) {
      promise.set_value({enabled, std::move(badge)});
    });
    EXPECT_EQ(future.wait_for(10s), std::future_status::ready);
    sim->waitForIdle();
    return future.get();
  }

  std::shared_ptr<sim::SimToolbarItem> item() { return window->toolbarItem(); }

  std::shared_ptr<SafariToolbarAPI> toolbar = SafariToolbarAPI::shared();
  std::shared_ptr<sim::SimWindow> window;
  std::shared_ptr<sim::SimTab> active;
  std::shared_ptr<sim::SimTab> background;
};

TEST_F(ToolbarTest, ValidationBeforeAnySetLeavesTheItemAlone) {
  EXPECT_EQ(validate(), std::make_pair(true, std::string()));
  EXPECT_EQ(item()->badgeText(), std::nullopt);
  EXPECT_EQ(log.count("update toolbar - tabId N/A - " + ToolbarItemInfo{}.description()), 0);
}

TEST_F(ToolbarTest, GlobalBadgeAppliesToTabsWithoutTheirOwnRecord) {
  toolbar->setBadgeText("3", std::nullopt);
  EXPECT_EQ(validate(), std::make_pair(true, std::string("3")));
  EXPECT_EQ(item()->badgeText(), "3");
  EXPECT_TRUE(item()->isEnabled());
}

TEST_F(ToolbarTest, PerTabRecordDoesNotInheritGlobalFields) {
  writeAsset("icons/on.png");
  toolbar->setBadgeText("3", std::nullopt);
  auto id = stateOf(active)->id();
  toolbar->setIcon("icons/on.png", id);
  EXPECT_EQ(validate(), std::make_pair(true, std::string()));
  EXPECT_EQ(item()->badgeText(), std::nullopt) << "the tab's own record has no badge";
  ASSERT_TRUE(item()->image());
  EXPECT_EQ(item()->image()->path,
            (bundlePath_ / "Contents/Resources/Assets/extension/icons/on.png").string());
  EXPECT_EQ(log.count("update toolbar - tabId " + id + " - " + toolbar->tabInfo(id)->description()), 1);
}

TEST_F(ToolbarTest, AnImageThatDoesNotLoadLeavesTheIconAsItWas) {
  writeAsset("good.png");
  toolbar->setIcon("good.png", std::nullopt);
  validate();
  auto before = item()->image();
  ASSERT_TRUE(before);
  toolbar->setIcon("missing.png", std::nullopt);
  toolbar->setBadgeText("", std::nullopt);
  validate();
  EXPECT_EQ(item()->image(), before);
  EXPECT_EQ(item()->badgeText(), "") << "an empty badge is still applied";
}

TEST_F(ToolbarTest, AnIconFileIsDecodedOnceUntilItChanges) {
  struct CountingDecoder final : ImageLoader {
    std::atomic<int> decodes{0};
    std::optional<ToolbarImage> load(const std::string& path) override {
      ++decodes;
      return std::filesystem::is_regular_file(path) ? std::optional(ToolbarImage{path}) : std::nullopt;
    }
  };
  auto decoder = std::make_shared<CountingDecoder>();
  context_.set<ImageLoader>(std::make_shared<CachingImageLoader>(decoder));
  writeAsset("icon.png");
  toolbar->setIcon("icon.png", std::nullopt);
  validate();
  validate();
  ASSERT_TRUE(item()->image());
  EXPECT_EQ(decoder->decodes, 1);
  std::ofstream(bundlePath_ / "Contents/Resources/Assets/extension/icon.png") << "another image";
  validate();
  EXPECT_EQ(decoder->decodes, 2) << "a changed file is decoded again";
  toolbar->setIcon("missing.png", std::nullopt);
  validate();
  validate();
  EXPECT_EQ(decoder->decodes, 4) << "a missing file is never remembered";
}

TEST_F(ToolbarTest, TabEventsUpdateTheItemOnlyForTheActiveTab) {
  auto activeId = stateOf(active)->id();
  auto backgroundId = stateOf(background)->id();
  toolbar->setBadgeText("bg", backgroundId);
  rebuild(background);  // an "update" for a background tab
  EXPECT_EQ(item()->badgeText(), std::nullopt);
  EXPECT_EQ(log.count("Going to update toolbar icon for tab event: update, " + backgroundId), 0);

  toolbar->setBadgeText("fg", activeId);
  rebuild(active);
  EXPECT_TRUE(sim->waitUntil([&] { return item()->badgeText() == std::optional<std::string>("fg"); }));
  EXPECT_EQ(log.count("Going to update toolbar icon for tab event: update, " + activeId), 1);
}

TEST_F(ToolbarTest, ValidationOfAnUnknownTabBuildsItsSnapshot) {
  toolbar->setBadgeText("7", std::nullopt);
  auto fresh = window->addTab("https://c.test/", "C", true);
  EXPECT_EQ(validate(), std::make_pair(true, std::string("7")));
  EXPECT_TRUE(tabs->cachedTabState(fresh)) << "validation registered the tab";
}

}  // namespace
}  // namespace appex::testing
