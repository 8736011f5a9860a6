// Events and the popover end to end: storage changes and tab events pushed
// to web code, the popover's page reloading on each showing, and the popup
// commands acting on the shown popover.
#include "tests/e2e/e2e_fixture.h"

namespace appex::testing {
namespace {

using EventsTest = E2ETest;
using PopoverTest = E2ETest;

TEST_F(EventsTest, AStorageChangeReachesTheBackgroundThePopupAndEveryKnownTab) {
  auto tabB = window->addTab("https://b.test/", "B");
  auto unknown = window->addTab("https://unknown.test/", "Never introduced");
  auto frame = tab->addPage("https://site.test/frame");
  auto bg = startBackground();
  showPopover();
  auto popup = router()->popupBridge();
  introduce(page);
  introduce(tabB->activePage());

  ASSERT_EQ(route(bg, "api", "storage.local.set", json(R"({"k":"v"})")), answered(true));
  const AnyValue change = json(R"({"k":{"oldValue":null,"newValue":"v"}})");
  EXPECT_EQ(heard(waitHeard(bg, "storage.onChanged"), "storage.onChanged"), std::vector<AnyValue>{change});
  EXPECT_EQ(heard(waitHeard(popup, "storage.onChanged"), "storage.onChanged"), std::vector<AnyValue>{change});
  for (const auto& p : {page, frame, tabB->activePage()}) {
    ASSERT_TRUE(turnUntil([&] { return !asksFor(*p, "storage.onChanged").empty(); })) << p->url().value_or("");
    EXPECT_EQ(asksFor(*p, "storage.onChanged")[0].args, change);
  }

  // A change made from a content page goes round the same way.
  contentAsks(page, "set", request("api", "storage.local.set", json(R"({"k":"w"})")));
  ASSERT_TRUE(answerTo(page, "set"));
  const AnyValue second = json(R"({"k":{"oldValue":"v","newValue":"w"}})");
  EXPECT_EQ(heard(waitHeard(bg, "storage.onChanged", 2), "storage.onChanged").back(), second);
  EXPECT_EQ(heard(waitHeard(popup, "storage.onChanged", 2), "storage.onChanged").back(), second);
  ASSERT_TRUE(turnUntil([&] { return asksFor(*tabB->activePage(), "storage.onChanged").size() == 2; }));

  turnFor(100ms);
  for (const auto& p : {page, frame, tabB->activePage()}) EXPECT_EQ(asksFor(*p, "storage.onChanged").size(), 2u);
  EXPECT_TRUE(received(*unknown->activePage()).empty()) << "a tab the extension never met hears nothing";
  EXPECT_EQ(tabs()->callbacks().count(), 0u) << "nobody waits for the pages' answers to an event";
}

TEST_F(EventsTest, NewTabsAndTheirUpdatesReachTheBackgroundPage) {
  auto bg = startBackground();
  const std::size_t createdBefore = heard(report(bg), "tabs.onCreate").size();

  auto fresh = window->addTab("https://new.test/", "New");
  introduce(fresh->activePage());
  const AnyValue created = heard(waitHeard(bg, "tabs.onCreate", createdBefore + 1), "tabs.onCreate").back();
  const std::string id = tabs()->cachedTabState(fresh)->id();
  EXPECT_EQ(created.at("id"), AnyValue(id));
  EXPECT_EQ(created.at("url"), AnyValue("https://new.test/"));
  EXPECT_EQ(created.as_object().size(), 5u) << "the tab's dictionary form: " << text(created);

  // The tab navigates; its content script introduces it again.
  fresh->activePage()->setURL("https://new.test/next");
  introduce(fresh->activePage());
  const AnyValue updated = heard(waitHeard(bg, "tabs.onUpdate"), "tabs.onUpdate").back();
  EXPECT_EQ(updated.at("id"), AnyValue(id)) << "the same tab keeps its identifier";
  EXPECT_EQ(updated.at("url"), AnyValue("https://new.test/next"));

  // An inner frame's introduction changes nothing.
  introduce(fresh->activePage(), 2);
  turnFor(100ms);
  const AnyValue last = report(bg);
  EXPECT_EQ(heard(last, "tabs.onCreate").size(), createdBefore + 1);
  EXPECT_EQ(heard(last, "tabs.onUpdate").size(), 1u);
}

TEST_F(PopoverTest, ThePopupPageStartsAfreshEachTimeThePopoverShows) {
  auto bg = startBackground();
  auto controller = showPopover();
  auto popup = router()->popupBridge();
  ASSERT_TRUE(popup);
  const AnyValue first = report(popup);
  EXPECT_EQ(first.at("role"), AnyValue("popup"));
  ASSERT_EQ(route(bg, "popup", "echo", json("1")), answered(json(R"({"role":"popup","echo":1})")));
  ASSERT_EQ(heard(report(popup), "echo").size(), 1u);

  EXPECT_EQ(showPopover(), controller);
  const AnyValue second = report(popup);
  EXPECT_NE(second.at("loadId"), first.at("loadId")) << "the page was reloaded";
  EXPECT_TRUE(second.at("received").as_array().empty()) << text(second);
  EXPECT_EQ(router()->popupBridge(), popup) << "the controller's bridge persists";
  EXPECT_EQ(route(bg, "popup", "echo", json("2")), answered(json(R"({"role":"popup","echo":2})")));

  const std::string path = std::string(APPEX_E2E_BUNDLE) + "/Contents/Resources/Assets/extension/popup.html";
  EXPECT_EQ(log.count("init popup bridge"), 1);
  EXPECT_EQ(log.count("poup page file path: " + path), 1);
  EXPECT_EQ(readyCount("Popup"), 3) << "loaded once, reloaded on each of two showings";
}

TEST_F(PopoverTest, PopupCommandsResizeAndDismissThePopover) {
  auto popover = context_.get<Popover>();
  std::vector<Popover::State> seen;  // as the browser follows the popover
  popover->setObserver([&seen](const Popover::State& s) { seen.push_back(s); });

  auto controller = showPopover();
  auto popup = router()->popupBridge();
  EXPECT_EQ(popover->state(), (Popover::State{true, {430, 566}}));

  EXPECT_EQ(route(popup, "api", "extension.setPopupHeight", json("300")), answered(true));
  EXPECT_EQ(popover->state(), (Popover::State{true, {430, 300}}));
  EXPECT_EQ(controller->preferredContentSize(), (Size{430, 300}));
  EXPECT_EQ(route(popup, "api", "extension.setPopupHeight", json(R"("tall")")),
            failed("[setPopupHeight] args should be popup height"));

  EXPECT_EQ(route(popup, "api", "extension.closePopup"), answered(true));
  EXPECT_FALSE(popover->state().shown);

  showPopover();
  EXPECT_EQ(popover->state(), (Popover::State{true, {430, 300}})) << "the next showing keeps the height";
  const std::vector<Popover::State> expected = {
      {true, {430, 566}}, {true, {430, 300}}, {false, {430, 300}}, {true, {430, 300}}};
  EXPECT_EQ(seen, expected);
  popover->setObserver(nullptr);
}

}  // namespace
}  // namespace appex::testing
