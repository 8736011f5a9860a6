#include <gtest/gtest.h>

#include "tests/host/entry_fixture.h"

namespace appex::testing {
namespace {

AnyValue json(std::string_view text) { return boost::json::parse(text); }

class RouterTest : public EntryFixture {
 protected:
  RouterTest() {
    window = sim->openWindow();
    tab = window->addTab("https://site.test/a", "Site", true);
    page = tab->activePage();
    other = tab->addPage("https://site.test/frame");
  }

  // The content page asks (a "__APP_EXTENSION__" page message).
  void pageAsks(const std::string& uid, AnyValue routed, std::int64_t frameId = 0,
                const std::string& cmd = "messaging") {
    Message ask{MessageType::ask, uid, {}, {}, cmd, std::move(routed), frameId};
    page->sendMessageToExtension("__APP_EXTENSION__", ask.build());
    settle();
  }

  std::shared_ptr<sim::SimWindow> window;
  std::shared_ptr<sim::SimTab> tab;
  std::shared_ptr<sim::SimPage> page;
  std::shared_ptr<sim::SimPage> other;
};

TEST_F(RouterTest, ContentAskToBackgroundIsAnsweredToTheAskingPageOnly) {
  auto bg = startBackground();
  pageAsks("u1", request("background", "ping", json(R"({"meta":{},"n":1})")), 3);
  auto asks = asksFor(*bg, "ping");
  ASSERT_EQ(asks.size(), 1u);
  const auto& meta = asks[0].args->at("meta").as_object();
  EXPECT_EQ(meta.at("tabUrl"), "https://site.test/a");
  EXPECT_EQ(meta.at("tabId").as_string().size(), 36u) << "the tab's UUID";

  answer(*bg, asks[0], json(R"({"pong":true})"));
  settle();
  auto replies = received(*page);
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0].type, MessageType::answer);
  EXPECT_EQ(replies[0].uid, "u1");
  EXPECT_EQ(replies[0].frameId, 3);
  EXPECT_EQ(replies[0].data, json(R"({"pong":true})"));
  EXPECT_TRUE(received(*other).empty()) << "the tab's other page hears nothing";
}

TEST_F(RouterTest, ContentAsksReachTheApi) {
  startBackground();
  std::vector<std::string> trace;
  std::mutex traceMutex;
  router->setTrace([&](const std::string& line) {
    std::lock_guard lock(traceMutex);
    trace.push_back(line);
  });
  pageAsks("q", request("api", "tabs.query", json(R"({"active":true})")));
  pageAsks("s", request("api", "storage.local.set", json(R"({"k":"v"})")));
  pageAsks("g", request("api", "storage.local.get", json(R"(["k"])")));
  pageAsks("bad", request("api", "tabs.get", json("5")));
  std::map<std::string, Message> byUid;
  for (auto& m : received(*page)) {
    if (m.type == MessageType::answer) byUid[m.uid] = m;  // the change event is an ask
  }
  ASSERT_EQ(byUid.size(), 4u);
  EXPECT_EQ(byUid["q"].data->as_array().size(), 1u);
  EXPECT_EQ(byUid["s"].data, AnyValue(true));
  EXPECT_EQ(byUid["g"].data, json(R"({"k":"v"})"));
  EXPECT_EQ(byUid["bad"].err, "[tabs.get] id is required");
  router->setTrace(nullptr);
  std::lock_guard lock(traceMutex);
  ASSERT_GE(trace.size(), 8u);
  EXPECT_EQ(trace[0], "page -> api tabs.query");
  EXPECT_EQ(trace[1], "api => page tabs.query ok");
  EXPECT_EQ(trace.back(), "api => page tabs.get error: [tabs.get] id is required");
}

TEST_F(RouterTest, BadgeSetThroughTheApiShowsAfterValidation) {
  startBackground();
  pageAsks("b", request("api", "browserAction.setBadgeText", json(R"({"text":"9"})")));
  EXPECT_EQ(sim->takeToolbarUpdates(), 1);
  EXPECT_EQ(validate(window), std::make_pair(true, std::string("9")));
  EXPECT_EQ(window->toolbarItem()->badgeText(), "9");
}

TEST_F(RouterTest, AsksToThePopupNeedAnOpenPopup) {
  auto bg = startBackground();
  askRouted(*bg, request("popup", "hello"), "before");
  settle();
  EXPECT_TRUE(answersTo(*bg, "before").empty()) << "no popup: never answered";

  handler.popoverViewController();
  auto pop = popup();
  ASSERT_TRUE(pop);
  askRouted(*bg, request("popup", "hello"), "after");
  settle();
  auto asks = asksFor(*pop, "hello");
  ASSERT_EQ(asks.size(), 1u);
  answer(*pop, asks[0], AnyValue("hi"));
  settle();
  auto answers = answersTo(*bg, "after");
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_EQ(answers[0].data, AnyValue("hi"));
}

TEST_F(RouterTest, BackgroundReachesATabAndOnePageOfIt) {
  auto bg = startBackground();
  // The content scripts answer every native ask with their page's URL.
  for (auto& p : {page, other}) {
    p->setContentScript([](const std::shared_ptr<sim::SimPage>& self, const sim::DispatchedMessage& m) {
      auto ask = Message::parse(m.userInfo);
      if (!ask || ask->type != MessageType::ask) return;
      Message reply{MessageType::answer, ask->uid, {}, AnyValue(self->url().value_or("")), {}, {}, {}};
      self->sendMessageToExtension("__APP_EXTENSION__", reply.build());
    });
  }
  // Both pages introduce themselves, so the registry knows the tab and pages.
  pageAsks("v", {}, 0, "VALIDATE_TAB");
  other->sendMessageToExtension("__APP_EXTENSION__",
                                Message{MessageType::ask, "v2", {}, {}, "VALIDATE_TAB", {}, 1}.build());
  settle();
  const std::string tabId = stateOf(tab)->id();
  const std::string otherId = tabs->pageIdentifier(other);

  askRouted(*bg, request(tabId, "whereAreYou"), "all");
  ASSERT_TRUE(waitFor([&] { return !answersTo(*bg, "all").empty(); }));
  settle();
  auto toTab = answersTo(*bg, "all");
  ASSERT_EQ(toTab.size(), 1u) << "the first page's answer completes the ask once";

  askRouted(*bg, request(tabId + "/" + otherId, "whereAreYou"), "one");
  ASSERT_TRUE(waitFor([&] { return !answersTo(*bg, "one").empty(); }));
  settle();
  auto toPage = answersTo(*bg, "one");
  ASSERT_EQ(toPage.size(), 1u);
  EXPECT_EQ(toPage[0].data, AnyValue("https://site.test/frame"));

  askRouted(*bg, request("no-such-tab", "x"), "lost");
  ASSERT_TRUE(waitFor([&] { return !answersTo(*bg, "lost").empty(); }));
  auto lost = answersTo(*bg, "lost");
  ASSERT_EQ(lost.size(), 1u);
  EXPECT_EQ(lost[0].err, "Tab not found for id no-such-tab");
}

TEST_F(RouterTest, RejectionsAreLoggedAndNeverAnswered) {
  auto bg = startBackground();
  struct Case {
    Message ask;
    const char* line;
  };
  const Case cases[] = {
      {{MessageType::ask, "1", {}, {}, "other", json(R"({"target":"api"})"), {}}, "Exit 1"},
      {{MessageType::ask, "2", {}, {}, "messaging", json("[1]"), {}}, "Exit 2"},
      {{MessageType::ask, "3", {}, {}, "messaging", {}, {}}, "Exit 2"},
      {{MessageType::ask, "4", {}, {}, "messaging", json(R"({"target":5,"action":{"cmd":"x"}})"), {}}, "Exit 3"},
      {{MessageType::ask, "5", {}, {}, "messaging", json(R"({"target":"api","action":"x"})"), {}}, "Exit 3"},
      {{MessageType::ask, "6", {}, {}, "messaging", json(R"({"target":"api","action":{"cmd":1}})"), {}}, "Exit 3"},
      {{MessageType::ask, "7", {}, {}, "messaging", request("background", "x"), {}}, "Exit 4"},
  };
  for (const auto& c : cases) {
    const int before = log.count(c.line);
    post(*bg, c.ask);
    settle();
    EXPECT_EQ(log.count(c.line), before + 1) << c.ask.uid;
    EXPECT_TRUE(answersTo(*bg, c.ask.uid).empty()) << c.ask.uid;
  }
  // An answer is not an ask: "Exit 1" through the router's entry directly.
  const int exit1 = log.count("Exit 1");
  router->onBackgroundAsk(Message{MessageType::answer, "a", {}, AnyValue(1), {}, {}, {}}, [](Result) {
    ADD_FAILURE() << "answered";
  });
  EXPECT_EQ(log.count("Exit 1"), exit1 + 1);
  // A data string is the fallback request text.
  Message fromData{MessageType::ask, "d", {}, AnyValue(R"({"target":"api","action":{"cmd":"tabs.all"}})"),
                   "messaging", {}, {}};
  bool answered = false;
  router->onBackgroundAsk(fromData, [&](Result r) { answered = r.has_value(); });
  settle();
  EXPECT_TRUE(answered);

  // The popup may not address the popup; content pages may not address tabs.
  handler.popoverViewController();
  post(*popup(), Message{MessageType::ask, "p", {}, {}, "messaging", request("popup", "x"), {}});
  settle();
  EXPECT_EQ(log.count("Exit 4"), 2);
  pageAsks("t1", request("some-tab", "x"));
  pageAsks("t2", request("some-tab/some-page", "x"));
  pageAsks("t3", request("api/x", "x"));
  EXPECT_EQ(log.count("Exit 4"), 5) << "api/x is a tab address";
  EXPECT_TRUE(received(*page).empty());
}

TEST_F(RouterTest, PageIntakeRejections) {
  page->sendMessageToExtension("__app_extension__", Message{MessageType::ask, "x", {}, {}, "c", {}, {}}.build());
  page->sendMessageToExtension("__APP_EXTENSION__", std::nullopt);
  page->sendMessageToExtension("__APP_EXTENSION__", Dictionary{{"type", "ASK"}});
  settle();
  EXPECT_EQ(log.count("M Exit 1"), 0) << "a wrong name never reaches the registry";
  EXPECT_EQ(log.count("M Exit 2"), 1);
  EXPECT_EQ(log.count("M Exit 3"), 1);
}

TEST_F(RouterTest, EventsReachTheBackgroundThePopupAndEveryTab) {
  auto bg = startBackground();
  handler.popoverViewController();
  auto pop = popup();
  pageAsks("v", {}, 0, "VALIDATE_TAB");  // the registry now knows the tab

  auto fresh = window->addTab("https://new.test/");
  rebuild(fresh);
  settle();
  auto created = asksFor(*bg, "tabs.onCreate");
  ASSERT_FALSE(created.empty());
  EXPECT_EQ(created.back().args->at("url"), "https://new.test/");
  EXPECT_EQ(created.back().args->as_object().size(), 5u) << "the tab's dictionary form";

  pageAsks("s", request("api", "storage.local.set", json(R"({"k":"v"})")));
  const auto change = json(R"({"k":{"oldValue":null,"newValue":"v"}})");
  ASSERT_EQ(asksFor(*bg, "storage.onChanged").size(), 1u);
  EXPECT_EQ(asksFor(*bg, "storage.onChanged")[0].args, change);
  ASSERT_EQ(asksFor(*pop, "storage.onChanged").size(), 1u);
  bool tabHeard = false;
  for (auto& m : received(*page)) tabHeard |= m.cmd == "storage.onChanged" && m.args == change;
  EXPECT_TRUE(tabHeard);
}

}  // namespace
}  // namespace appex::testing
