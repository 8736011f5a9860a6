// Page messages in, answers and tab-addressed messages out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "tests/tabs/tabs_fixture.h"

namespace appex::testing {
namespace {

using ::testing::ElementsAre;

class PageIntakeTest : public TabsFixture {
 protected:
  // Asks reaching the router, as (message, reply) pairs.
  struct Received {
    std::mutex mutex;
    std::vector<Message> messages;
    std::vector<ResultCallback> replies;
    std::size_t size() {
      std::lock_guard lock(mutex);
      return messages.size();
    }
  };

  void installHandler() {
    tabs->setHandler([r = received](Message m, ResultCallback reply) {
      std::lock_guard lock(r->mutex);
      r->messages.push_back(std::move(m));
      r->replies.push_back(std::move(reply));
    });
  }

  Message waitForAsk(std::size_t n = 1) {
    EXPECT_TRUE(sim->waitUntil([&] { return received->size() >= n; }));
    std::lock_guard lock(received->mutex);
    return received->messages.at(n - 1);
  }

  std::shared_ptr<Received> received = std::make_shared<Received>();
  std::shared_ptr<sim::SimWindow> window = sim->openWindow();
  std::shared_ptr<sim::SimTab> tab = window->addTab("https://example.com/a", "A");
  std::shared_ptr<sim::SimPage> page = tab->activePage();
};

TEST_F(PageIntakeTest, UnusableMessagesAreDroppedWithTheirExitLines) {
  installHandler();
  page->sendMessageToExtension("__app_extension__", ask("u1", "messaging", routed(Dictionary{})));
  page->sendMessageToExtension("__APP_EXTENSION__", std::nullopt);
  page->sendMessageToExtension("__APP_EXTENSION__", Dictionary{{"type", "ask"}, {"uid", "u2"}});
  sim->waitForIdle();
  EXPECT_THAT(log.lines(), ElementsAre("M Exit 1", "M Exit 2", "M Exit 3"));
  EXPECT_EQ(received->size(), 0u);
  EXPECT_TRUE(page->receivedMessages().empty()) << "a dropped message gets no answer";
}

TEST_F(PageIntakeTest, ValidationFromTheTopFrameIsAnsweredAndAnnouncesTheTab) {
  installHandler();
  page->sendMessageToExtension("__APP_EXTENSION__", ask("v1", "VALIDATE_TAB", std::nullopt, 0));
  ASSERT_TRUE(page->waitForMessages(1));
  sim->waitForIdle();
  auto answer = Message::parse(page->receivedMessages()[0].userInfo);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->type, MessageType::answer);
  EXPECT_EQ(answer->uid, "v1");
  EXPECT_EQ(answer->frameId, 0);
  EXPECT_EQ(answer->data, AnyValue(true));
  EXPECT_FALSE(answer->err);
  EXPECT_EQ(received->size(), 0u) << "validation never reaches the router";
  EXPECT_EQ(tabEvents.names(), std::vector<std::string>{"create"});

  page->sendMessageToExtension("__APP_EXTENSION__", ask("v2", "VALIDATE_TAB", std::nullopt, 0));
  sim->waitForIdle();
  EXPECT_EQ(tabEvents.names(), (std::vector<std::string>{"create", "update"}));
}

TEST_F(PageIntakeTest, ValidationFromAnInnerFrameIsAnsweredWithoutRebuilding) {
  page->sendMessageToExtension("__APP_EXTENSION__", ask("v3", "VALIDATE_TAB", std::nullopt, 3));
  ASSERT_TRUE(page->waitForMessages(1));
  sim->waitForIdle();
  auto answer = Message::parse(page->receivedMessages()[0].userInfo);
  EXPECT_EQ(answer->data, AnyValue(true));
  EXPECT_EQ(answer->frameId, 3);
  EXPECT_TRUE(tabEvents.entries().empty());
  EXPECT_EQ(tabs->tabCache().list().count(), 0u);
}

TEST_F(PageIntakeTest, RoutedAskReachesTheHandlerWithTabIdAndUrlInItsMeta) {
  installHandler();
  page->sendMessageToExtension("__APP_EXTENSION__",
                               ask("r1", "messaging", routed(Dictionary{{"keep", 1}, {"tabId", "forged"}})));
  Message m = waitForAsk();
  auto state = tabs->cachedTabState(tab);
  ASSERT_TRUE(state);
  const auto& meta = m.args->at("action").at("args").at("meta").as_object();
  EXPECT_EQ(meta.at("keep"), 1) << "other keys are kept";
  EXPECT_EQ(meta.at("tabId"), state->id().c_str());
  EXPECT_EQ(meta.at("tabUrl"), "https://example.com/a");
  EXPECT_EQ(m.uid, "r1");
}

TEST_F(PageIntakeTest, EnrichmentNeedsADictionaryAtEveryLevel) {
  installHandler();
  const AnyValue stringMeta = routed("not a dictionary");
  page->sendMessageToExtension("__APP_EXTENSION__", ask("e1", "messaging", stringMeta));
  EXPECT_EQ(waitForAsk(1).args, stringMeta);

  const AnyValue noArgs = Dictionary{{"target", "api"}, {"action", Dictionary{{"cmd", "tabs.all"}}}};
  page->sendMessageToExtension("__APP_EXTENSION__", ask("e2", "messaging", noArgs));
  EXPECT_EQ(waitForAsk(2).args, noArgs);

  // Only the router's "messaging" requests are enriched.
  page->sendMessageToExtension("__APP_EXTENSION__", ask("e3", "other", routed(Dictionary{})));
  EXPECT_EQ(waitForAsk(3).args, routed(Dictionary{}));
}

TEST_F(PageIntakeTest, AnAnswerNobodyWaitsForStillRegistersItsTabAndPage) {
  Dictionary answer{{"type", "ANSWER"}, {"uid", "nobody"}, {"data", routed(Dictionary{})}};
  page->sendMessageToExtension("__APP_EXTENSION__", answer);
  sim->waitForIdle();
  EXPECT_TRUE(tabs->cachedTabState(tab));
  EXPECT_EQ(tabs->pageCache().list().count(), 1u);
}

TEST_F(PageIntakeTest, ATabWithoutUrlLeavesNoTabUrlInTheMeta) {
  installHandler();
  // A snapshot whose url is unknown (a host may hand over such tabs).
  auto bare = std::make_shared<TabState>("BARE");
  TabState::Fields fields;
  fields.url.reset();
  fields.tab = WeakRef<SFSafariTab>(std::static_pointer_cast<SFSafariTab>(tab));
  bare->assign(fields);
  tabs->tabCache().set(WeakRef<SFSafariTab>(std::static_pointer_cast<SFSafariTab>(tab)), bare);

  page->sendMessageToExtension("__APP_EXTENSION__",
                               ask("n1", "messaging", routed(Dictionary{{"tabUrl", "https://page.example/"}})));
  const auto meta = waitForAsk().args->at("action").at("args").at("meta").as_object();
  EXPECT_EQ(meta, (Dictionary{{"tabId", "BARE"}}));
}

TEST_F(PageIntakeTest, ReplyGoesOnlyToTheAskingPageWithItsUidAndFrame) {
  installHandler();
  auto frame = tab->addPage("https://ads.example/frame");
  auto other = window->addTab("https://example.com/b");
  frame->sendMessageToExtension("__APP_EXTENSION__", ask("q1", "messaging", routed(Dictionary{}), 7));
  waitForAsk();
  {
    std::lock_guard lock(received->mutex);
    received->replies[0](success(Dictionary{{"pong", true}}));
  }
  ASSERT_TRUE(frame->waitForMessages(1));
  auto answer = Message::parse(frame->receivedMessages()[0].userInfo);
  EXPECT_EQ(answer->uid, "q1");
  EXPECT_EQ(answer->frameId, 7);
  EXPECT_EQ(answer->data, AnyValue(Dictionary{{"pong", true}}));
  EXPECT_TRUE(page->receivedMessages().empty());
  EXPECT_TRUE(other->activePage()->receivedMessages().empty());
}

TEST_F(PageIntakeTest, AFailedReplyCarriesItsErrorText) {
  installHandler();
  page->sendMessageToExtension("__APP_EXTENSION__", ask("f1", "messaging", routed(Dictionary{})));
  waitForAsk();
  {
    std::lock_guard lock(received->mutex);
    received->replies[0](failure("[invokeAPI] Unknown cmd"));
  }
  ASSERT_TRUE(page->waitForMessages(1));
  auto answer = Message::parse(page->receivedMessages()[0].userInfo);
  EXPECT_EQ(answer->err, "[invokeAPI] Unknown cmd");
  EXPECT_FALSE(answer->data);
}

TEST_F(PageIntakeTest, AsksWithoutAHandlerAreDropped) {
  page->sendMessageToExtension("__APP_EXTENSION__", ask("d1", "messaging", routed(Dictionary{})));
  sim->waitForIdle();
  EXPECT_TRUE(page->receivedMessages().empty());
  EXPECT_TRUE(tabs->cachedTabState(tab)) << "the tab is still registered";
}

// --- Messages to tabs --------------------------------------------------------

class SendToTabTest : public PageIntakeTest {
 protected:
  // Plays a content script that answers every ask with its own name.
  static void answerAsks(const std::shared_ptr<sim::SimPage>& page, const std::string& who) {
    page->setContentScript([who](const std::shared_ptr<sim::SimPage>& self, const sim::DispatchedMessage& m) {
      auto ask = Message::parse(m.userInfo);
      if (!ask || ask->type != MessageType::ask) return;
      Dictionary answer{{"type", "ANSWER"}, {"uid", ask->uid}, {"data", who}};
      self->sendMessageToExtension("__APP_EXTENSION__", answer);
    });
  }
};

TEST_F(SendToTabTest, UnknownTabFailsAtOnceAndSendsNothing) {
  auto r = call([&](ResultCallback cb) { tabs->sendToTab("NOPE", std::nullopt, "ping", std::nullopt, std::move(cb)); });
  EXPECT_EQ(r.error().text, "Tab not found for id NOPE");
  EXPECT_EQ(tabs->callbacks().count(), 0u);
  EXPECT_TRUE(page->receivedMessages().empty());
}

TEST_F(SendToTabTest, WithoutPageIdEveryPageOfTheTabGetsTheAsk) {
  auto second = tab->addPage("https://example.com/frame");
  auto id = stateOf(tab)->id();
  tabs->sendToTab(id, std::nullopt, "storage.onChanged", AnyValue(Dictionary{{"k", "v"}}), [](Result) {});
  ASSERT_TRUE(page->waitForMessages(1));
  ASSERT_TRUE(second->waitForMessages(1));
  auto m = Message::parse(page->receivedMessages()[0].userInfo);
  EXPECT_EQ(m->type, MessageType::ask);
  EXPECT_EQ(m->cmd, "storage.onChanged");
  EXPECT_EQ(m->args, AnyValue(Dictionary{{"k", "v"}}));
  EXPECT_EQ(page->receivedMessages()[0].userInfo, second->receivedMessages()[0].userInfo);
}

TEST_F(SendToTabTest, TheAnswerCompletesTheReplyOnceAndIsForgotten) {
  answerAsks(page, "main");
  auto id = stateOf(tab)->id();
  std::atomic<int> calls{0};
  auto r = call([&](ResultCallback cb) {
    tabs->sendToTab(id, std::nullopt, "ping", std::nullopt, [&calls, cb = std::move(cb)](Result r) mutable {
      ++calls;
      cb(std::move(r));
    });
  });
  EXPECT_EQ(r.value(), AnyValue("main"));
  EXPECT_EQ(tabs->callbacks().count(), 0u);

  // The same answer again finds nothing to complete.
  auto uid = Message::parse(page->receivedMessages()[0].userInfo)->uid;
  page->sendMessageToExtension("__APP_EXTENSION__", Dictionary{{"type", "ANSWER"}, {"uid", uid}, {"data", 2}});
  sim->waitForIdle();
  EXPECT_EQ(calls.load(), 1);
}

TEST_F(SendToTabTest, AnErrorAnswerFailsTheReply) {
  page->setContentScript([](const std::shared_ptr<sim::SimPage>& self, const sim::DispatchedMessage& m) {
    auto ask = Message::parse(m.userInfo);
    self->sendMessageToExtension("__APP_EXTENSION__",
                                 Dictionary{{"type", "ANSWER"}, {"uid", ask->uid}, {"err", "no listener"}});
  });
  auto id = stateOf(tab)->id();
  auto r = call([&](ResultCallback cb) { tabs->sendToTab(id, std::nullopt, "ping", std::nullopt, std::move(cb)); });
  EXPECT_EQ(r.error().text, "no listener");
}

TEST_F(SendToTabTest, APageIdReachesThatPageOnly) {
  auto frame = tab->addPage("https://example.com/frame");
  answerAsks(page, "main");
  answerAsks(frame, "frame");
  // Pages get identifiers when they first send a message.
  page->sendMessageToExtension("__APP_EXTENSION__", Dictionary{{"type", "LOG"}, {"uid", ""}, {"data", "hi"}});
  frame->sendMessageToExtension("__APP_EXTENSION__", Dictionary{{"type", "LOG"}, {"uid", ""}, {"data", "hi"}});
  sim->waitForIdle();
  const auto frameId = tabs->pageIdentifier(frame);
  EXPECT_NE(frameId, tabs->pageIdentifier(page));
  EXPECT_EQ(tabs->pageIdentifier(frame), frameId) << "stable on later sightings";
  EXPECT_EQ(tabs->findPage(frameId), frame);

  auto id = stateOf(tab)->id();
  auto r = call([&](ResultCallback cb) { tabs->sendToTab(id, frameId, "ping", std::nullopt, std::move(cb)); });
  EXPECT_EQ(r.value(), AnyValue("frame"));
  EXPECT_TRUE(page->receivedMessages().empty());

  // An unknown page identifier sends nothing and parks nothing (the
  // asker's own time-out ends its wait).
  tabs->sendToTab(id, std::string("UNKNOWN"), "ping", std::nullopt, [](Result) { FAIL() << "answered"; });
  sim->waitForIdle();
  EXPECT_TRUE(page->receivedMessages().empty());
  EXPECT_EQ(frame->receivedMessages().size(), 1u);
  EXPECT_EQ(tabs->callbacks().count(), 0u);
}

TEST_F(PageIntakeTest, GonePagesLeaveThePageCacheWhenANewPageArrives) {
  std::string goneId;
  {
    auto gone = window->addTab("https://gone.test/", "Gone");
    goneId = tabs->pageIdentifier(gone->activePage());
    gone->close();
  }
  sim->waitForIdle();
  const auto liveId = tabs->pageIdentifier(page);
  EXPECT_EQ(tabs->findPage(goneId), nullptr);
  EXPECT_EQ(tabs->pageCache().list().count(), 1u) << "only the live page is kept";
  EXPECT_EQ(tabs->pageIdentifier(page), liveId) << "a live page keeps its identifier";
}

TEST_F(PageIntakeTest, AskingAClosedTabParksNoReply) {
  auto window = sim->openWindow();
  std::weak_ptr<sim::SimTab> weakTab;
  std::string id;
  {
    auto tab = window->addTab("https://gone.test/", "Gone", true);
    id = stateOf(tab)->id();
    weakTab = tab;
    tab->close();
  }
  sim->waitForIdle();
  ASSERT_TRUE(weakTab.expired()) << "the browser let go of the closed tab";
  const auto before = tabs->callbacks().count();
  for (int i = 0; i < 10; ++i) {
    tabs->sendToTab(id, std::nullopt, "storage.onChanged", AnyValue(i), [](Result) { FAIL() << "answered"; });
  }
  sim->waitForIdle();
  EXPECT_EQ(tabs->callbacks().count(), before) << "no reply can come from a closed tab";
  EXPECT_TRUE(tabs->findTabState(id)) << "its snapshot stays";
}

}  // namespace
}  // namespace appex::testing
