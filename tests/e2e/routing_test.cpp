// Routing end to end: content pages, the background page and the popup page
// reaching each other and the API through SafariExtensionHandler, the
// router and real WebKit; and every request the system refuses.
#include "tests/e2e/e2e_fixture.h"

namespace appex::testing {
namespace {

using RoutingTest = E2ETest;

const std::string kExtensionFolder = std::string(APPEX_E2E_BUNDLE) + "/Contents/Resources/Assets/extension";

TEST_F(RoutingTest, TheFirstToolbarValidationCreatesTheBackgroundPageOnce) {
  // Before any validation there is no background page to answer.
  contentAsks(page, "early", request("background", "echo", json("1")));
  sim->waitForIdle();
  EXPECT_FALSE(context_.get<GlobalState>()->webview);

  EXPECT_EQ(validate(), std::make_pair(true, std::string()));
  ASSERT_TRUE(turnUntil([&] { return readyCount("BG") == 1; }));
  auto view = context_.get<GlobalState>()->webview;
  ASSERT_TRUE(view);
  EXPECT_EQ(router()->backgroundWebview(), view);
  const AnyValue first = report(router()->backgroundBridge());
  EXPECT_EQ(first.at("role"), AnyValue("background"));

  validate();
  turnFor(300ms);
  EXPECT_EQ(context_.get<GlobalState>()->webview, view);
  EXPECT_EQ(readyCount("BG"), 1) << "the page was loaded once";
  EXPECT_EQ(log.count("background page file path: " + kExtensionFolder + "/safari_background.html"), 1);
  EXPECT_EQ(log.count("bindEventsForBackground!!!!"), 1);
  EXPECT_EQ(report(router()->backgroundBridge()).at("loadId"), first.at("loadId"));

  EXPECT_TRUE(answersTo(*page, "early").empty()) << "an ask made before the page existed stays unanswered";
  EXPECT_TRUE(heard(report(router()->backgroundBridge()), "echo").empty());
}

TEST_F(RoutingTest, AContentAskToTheBackgroundIsAnsweredToTheAskingPageOnly) {
  auto frame = tab->addPage("https://site.test/frame");
  auto otherTab = window->addTab("https://other.test/", "Other");
  auto otherPage = otherTab->activePage();
  auto bg = startBackground();

  // Two pages in two tabs ask at once; each gets its own answer.
  const AnyValue envelope = json(R"({"payload":{"n":1},"meta":{"tabUrl":"stale"}})");
  contentAsks(page, "u1", request("background", "echo", envelope), 3);
  contentAsks(otherPage, "u2", request("background", "echo", json(R"({"payload":{"n":2},"meta":{}})")));
  auto answer = answerTo(page, "u1");
  auto otherAnswer = answerTo(otherPage, "u2");
  ASSERT_TRUE(answer && otherAnswer);

  const std::string tabId = tabs()->cachedTabState(tab)->id();
  EXPECT_EQ(tabId.size(), 36u) << "a UUID";
  EXPECT_EQ(answer->frameId, 3);
  EXPECT_FALSE(answer->err);
  EXPECT_EQ(answer->data, AnyValue(Dictionary{
                              {"role", "background"},
                              {"echo", Dictionary{{"payload", json(R"({"n":1})")},
                                                  {"meta", Dictionary{{"tabUrl", "https://site.test/a"},
                                                                      {"tabId", tabId}}}}}}))
      << text(*answer->data);
  EXPECT_EQ(otherAnswer->frameId, 0);
  EXPECT_EQ(otherAnswer->data->at("echo").at("payload"), json(R"({"n":2})"));
  EXPECT_EQ(otherAnswer->data->at("echo").at("meta").at("tabUrl"), AnyValue("https://other.test/"));
  EXPECT_NE(otherAnswer->data->at("echo").at("meta").at("tabId"), AnyValue(tabId));

  turnFor(100ms);
  EXPECT_EQ(received(*page).size(), 1u) << "one answer, nothing else";
  EXPECT_EQ(received(*otherPage).size(), 1u);
  EXPECT_TRUE(received(*frame).empty()) << "the tab's other page hears nothing";
  EXPECT_EQ(heard(report(bg), "echo").size(), 2u);
}

TEST_F(RoutingTest, ApiAsksAreAnsweredOnBothSidesOfTheBridge) {
  window->addTab("https://b.test/", "B");
  auto bg = startBackground();

  const AnyValue all = route(bg, "api", "tabs.query", json("{}"));
  ASSERT_TRUE(all.as_object().contains("answered")) << text(all);
  std::vector<std::string> urls;
  for (const auto& t : all.at("answered").as_array()) urls.emplace_back(t.at("url").as_string());
  EXPECT_EQ(urls, (std::vector<std::string>{"https://site.test/a", "https://b.test/"}));

  EXPECT_EQ(route(bg, "api", "storage.local.set", json(R"({"k":"v","q":"it's \"quoted\""})")),
            answered(true));
  EXPECT_EQ(route(bg, "api", "storage.local.get", json(R"(["k","q","missing"])")),
            answered(json(R"({"k":"v","q":"it's \"quoted\"","missing":null})")));
  EXPECT_EQ(route(bg, "api", "tabs.get"), failed("[tabs.get] id is required"))
      << "a failure reaches the page as an Error with the failure's text";

  // The content side shares the store and sees failures as "err".
  contentAsks(page, "g", request("api", "storage.local.get", json(R"(["k"])")));
  contentAsks(page, "bad", request("api", "tabs.get"));
  auto got = answerTo(page, "g");
  auto bad = answerTo(page, "bad");
  ASSERT_TRUE(got && bad);
  EXPECT_EQ(got->data, json(R"({"k":"v"})"));
  EXPECT_EQ(bad->err, "[tabs.get] id is required");
  EXPECT_FALSE(bad->data);

  // A badge set from the background page shows at the next validation.
  sim->takeToolbarUpdates();
  EXPECT_EQ(route(bg, "api", "browserAction.setBadgeText", json(R"({"text":"7"})")), answered(true));
  EXPECT_GE(sim->takeToolbarUpdates(), 1) << "the browser is told to validate again";
  EXPECT_EQ(validate(), std::make_pair(true, std::string("7")));
  EXPECT_EQ(window->toolbarItem()->badgeText(), "7");
}

TEST_F(RoutingTest, AsksToThePopupAreAnsweredOnlyWhileItExists) {
  auto bg = startBackground();
  const std::string early = send(bg, "messaging", request("popup", "echo", json("0")));
  contentAsks(page, "p0", request("popup", "echo", json("0")));
  turnFor(500ms);
  EXPECT_EQ(outcome(bg, early), pending()) << "no popup: never answered";
  EXPECT_TRUE(answersTo(*page, "p0").empty());

  showPopover();
  auto popup = router()->popupBridge();
  EXPECT_EQ(route(bg, "popup", "echo", json(R"({"x":1})")),
            answered(json(R"({"role":"popup","echo":{"x":1}})")));
  contentAsks(page, "p1", request("popup", "echo", json("1")));
  auto fromPopup = answerTo(page, "p1");
  ASSERT_TRUE(fromPopup);
  EXPECT_EQ(fromPopup->data, json(R"({"role":"popup","echo":1})"));
  // The popup reaches the background page the same way.
  EXPECT_EQ(route(popup, "background", "echo", json("2")),
            answered(json(R"({"role":"background","echo":2})")));

  EXPECT_EQ(outcome(bg, early), pending()) << "the early ask was dropped, not queued";
  EXPECT_TRUE(answersTo(*page, "p0").empty());
  EXPECT_EQ(heard(report(popup), "echo").size(), 2u);
}

TEST_F(RoutingTest, TheBackgroundPageReachesATabAndOneOfItsPages) {
  auto frame = tab->addPage("https://site.test/frame");
  auto otherTab = window->addTab("https://other.test/", "Other");
  for (auto& p : {page, frame, otherTab->activePage()}) answerWithURL(p);
  auto bg = startBackground();
  introduce(page);
  introduce(frame, 1);

  // The background page learns the tab's identifier from the API.
  const AnyValue all = route(bg, "api", "tabs.query", json("{}"));
  std::string tabId;
  for (const auto& t : all.at("answered").as_array()) {
    if (t.at("url") == AnyValue("https://site.test/a")) tabId = t.at("id").as_string();
  }
  ASSERT_FALSE(tabId.empty()) << text(all);

  const AnyValue whole = route(bg, tabId, "whereAreYou", json(R"({"q":1})"));
  EXPECT_TRUE(whole == answered("https://site.test/a") || whole == answered("https://site.test/frame"))
      << text(whole);
  ASSERT_TRUE(turnUntil([&] { return asksFor(*frame, "whereAreYou").size() == 1; }));
  ASSERT_EQ(asksFor(*page, "whereAreYou").size(), 1u) << "every page of the tab is asked";
  EXPECT_EQ(asksFor(*page, "whereAreYou")[0].args, json(R"({"q":1})"));

  const std::string one = tabId + "/" + tabs()->pageIdentifier(frame);
  EXPECT_EQ(route(bg, one, "whereAreYou"), answered("https://site.test/frame"));
  EXPECT_EQ(asksFor(*frame, "whereAreYou").size(), 2u);
  EXPECT_EQ(asksFor(*page, "whereAreYou").size(), 1u) << "only the addressed page is asked";
  EXPECT_TRUE(asksFor(*otherTab->activePage(), "whereAreYou").empty());

  EXPECT_EQ(route(bg, "no-such-tab", "whereAreYou"), failed("Tab not found for id no-such-tab"));
}

// An ask to a tab waits for its answer only while a page that got it can
// still give one: pages that navigate away or go away let their asks go.
// The asker's own time-out ends its wait, as for any unanswered ask.
TEST_F(RoutingTest, AsksNoPageCanAnswerAnyMoreAreLetGo) {
  auto frame = tab->addPage("https://site.test/frame");  // neither page answers
  auto other = window->addTab("https://other.test/", "Other");
  auto bg = startBackground();
  introduce(page);
  introduce(other->activePage());
  const std::string tabId = tabs()->cachedTabState(tab)->id();
  const std::string otherId = tabs()->cachedTabState(other)->id();
  auto parked = [&] { return tabs()->callbacks().count(); };

  const std::string toTab = send(bg, "messaging", request(tabId, "hello"));
  send(bg, "messaging", request(otherId, "hello"));
  ASSERT_TRUE(turnUntil([&] { return parked() == 2; })) << parked();
  handler.pageWillNavigateToURL(page, "https://site.test/b");
  EXPECT_EQ(parked(), 2u) << "the frame may still answer";
  handler.pageWillNavigateToURL(frame, std::nullopt);
  EXPECT_EQ(parked(), 1u);
  EXPECT_EQ(outcome(bg, toTab), pending());

  other->close();
  other.reset();
  ASSERT_TRUE(sim->waitForIdle());
  introduce(window->addTab("https://new.test/", "New")->activePage());
  EXPECT_EQ(parked(), 0u) << "a closed tab's pages answer nothing";
}

// Each refused request writes its one log line and is never answered, from
// whichever side it comes.
TEST_F(RoutingTest, RefusedRequestsAreLoggedAndNeverAnswered) {
  auto bg = startBackground();
  showPopover();
  auto popup = router()->popupBridge();
  introduce(page);
  const std::string tabId = tabs()->cachedTabState(tab)->id();
  const std::string pageId = tabs()->pageIdentifier(page);

  auto expectLine = [&](const std::string& line, int before, const std::string& what) {
    EXPECT_TRUE(turnUntil([&] { return log.count(line) > before; }, 5s)) << what << ": no " << line;
    EXPECT_EQ(log.count(line), before + 1) << what;
  };

  struct HostedCase {
    const std::shared_ptr<WKWebViewBridge>& from;
    std::string cmd;
    std::optional<AnyValue> args;
    std::string line;
  };
  const std::vector<HostedCase> hosted = {
      {bg, "hello", request("api", "tabs.query", json("{}")), "Exit 1"},
      {bg, "messaging", json("[1]"), "Exit 2"},
      {bg, "messaging", std::nullopt, "Exit 2"},
      {bg, "messaging", AnyValue(R"({"target":"api","action":{"cmd":"tabs.all"}})"), "Exit 2"},
      {bg, "messaging", json(R"({"target":5,"action":{"cmd":"tabs.all"}})"), "Exit 3"},
      {bg, "messaging", json(R"({"target":"api"})"), "Exit 3"},
      {bg, "messaging", json(R"({"target":"api","action":"tabs.all"})"), "Exit 3"},
      {bg, "messaging", json(R"({"target":"api","action":{"cmd":1}})"), "Exit 3"},
      {bg, "messaging", request("background", "echo"), "Exit 4"},
      {popup, "messaging", request("popup", "echo"), "Exit 4"},
      {popup, "hello", std::nullopt, "Exit 1"},
  };
  std::vector<std::pair<std::shared_ptr<WKWebViewBridge>, std::string>> sent;
  for (const auto& c : hosted) {
    const int before = log.count(c.line);
    const std::string what = (c.from == bg ? "background " : "popup ") + c.cmd +
                             (c.args ? " " + text(*c.args) : std::string());
    sent.emplace_back(c.from, send(c.from, c.cmd, c.args));
    expectLine(c.line, before, what);
  }

  struct ContentCase {
    std::string uid;
    std::string cmd;
    std::optional<AnyValue> args;
    std::string line;
  };
  const std::vector<ContentCase> content = {
      {"c1", "hello", request("background", "echo"), "Exit 1"},
      {"c2", "messaging", json("[1]"), "Exit 2"},
      {"c3", "messaging", json(R"({"target":"api","action":{"cmd":1}})"), "Exit 3"},
      {"c4", "messaging", request(tabId, "echo"), "Exit 4"},
      {"c5", "messaging", request(tabId + "/" + pageId, "echo"), "Exit 4"},
      {"c6", "messaging", request("api/x", "tabs.all"), "Exit 4"},
  };
  for (const auto& c : content) {
    const int before = log.count(c.line);
    contentAsks(page, c.uid, c.args, 0, c.cmd);
    expectLine(c.line, before, "content " + c.uid);
  }

  // The page intake's own refusals. A wrong name never reaches it.
  page->sendMessageToExtension("__app_extension__", Message{MessageType::ask, "m1", {}, {}, "x", {}, 0}.build());
  const int mExit2 = log.count("M Exit 2");
  page->sendMessageToExtension("__APP_EXTENSION__", std::nullopt);
  expectLine("M Exit 2", mExit2, "no user info");
  const int mExit3 = log.count("M Exit 3");
  page->sendMessageToExtension("__APP_EXTENSION__", Dictionary{{"type", "ASK"}, {"cmd", "x"}});
  expectLine("M Exit 3", mExit3, "no uid");
  EXPECT_EQ(log.count("M Exit 1"), 0);

  turnFor(300ms);
  for (const auto& [from, id] : sent) {
    EXPECT_EQ(outcome(from, id), pending()) << id;
  }
  const auto heardByPage = received(*page);
  ASSERT_EQ(heardByPage.size(), 1u) << "only the answer to its introduction";
  EXPECT_EQ(heardByPage[0].data, AnyValue(true));
  EXPECT_TRUE(heard(report(bg), "echo").empty());
  EXPECT_TRUE(heard(report(popup), "echo").empty());
}

}  // namespace
}  // namespace appex::testing
