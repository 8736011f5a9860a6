// The WebKitGTK web view and engine, on real WebKit (run under xvfb-run).
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include <atomic>
#include <thread>

#include "core/main_queue.h"
#include "tests/platform/webkit_test_support.h"

namespace appex {
namespace {

using testing::WebKitTest;

AnyValue json(std::string_view text) { return boost::json::parse(text); }

struct CountingDelegate : NavigationDelegate {
  int finished = 0;
  void didFinishNavigation() override { ++finished; }
};

using WebViewTest = WebKitTest;

TEST_F(WebViewTest, LoadsAFileURLAndReportsEachFinishedNavigation) {
  auto delegate = std::make_shared<CountingDelegate>();
  web->setNavigationDelegate(delegate);
  loadPage("report(location.protocol);");
  ASSERT_TRUE(waitForReports(1));
  EXPECT_EQ(reports[0], AnyValue("file:"));
  ASSERT_TRUE(engine().runUntil([&] { return delegate->finished == 1; }));

  web->reload();
  ASSERT_TRUE(waitForReports(2)) << "the page's script runs again";
  EXPECT_TRUE(engine().runUntil([&] { return delegate->finished == 2; }));

  // Held weakly: a delegate that is gone is not called.
  std::weak_ptr<CountingDelegate> weak = delegate;
  delegate.reset();
  EXPECT_TRUE(weak.expired());
  web->reload();
  EXPECT_TRUE(waitForReports(3));
}

TEST_F(WebViewTest, RefusesFilesOutsideTheReadAccessFolderOrWithRelativePaths) {
  const std::string page = writeFile("page.html", "<p>x</p>");
  EXPECT_FALSE(web->loadFileURL(page, (folder / "sub").string()));
  EXPECT_FALSE(web->loadFileURL((folder / "sub" / ".." / ".." / "elsewhere.html").string(),
                                folder.string()));
  EXPECT_FALSE(web->loadFileURL("page.html", folder.string()));
  EXPECT_FALSE(web->loadFileURL(page, "relative"));
  EXPECT_TRUE(web->loadFileURL(page, folder.string() + "/"));
}

TEST_F(WebViewTest, PostedBodiesArriveAsTheValuesJsonWouldCarry) {
  loadPage("report('loaded');");
  ASSERT_TRUE(waitForReports(1));
  web->evaluateScript(R"JS(
    report({i: 3, neg: -7, f: 2.5, big: 1e21, s: "é ' \" \\ \u2028 </script> \u0000",
            arr: [1, null, true, undefined], nested: {a: {b: []}}, u: undefined, fn: 1});
    report("text");
    report(42);
    report(undefined);
  )JS");
  ASSERT_TRUE(waitForReports(5));
  const Dictionary& o = reports[1].as_object();
  EXPECT_TRUE(o.at("i").is_int64()) << "integral numbers arrive as integers";
  EXPECT_EQ(o.at("i"), AnyValue(3));
  EXPECT_EQ(o.at("neg"), AnyValue(-7));
  EXPECT_TRUE(o.at("f").is_double());
  EXPECT_EQ(o.at("f"), AnyValue(2.5));
  EXPECT_TRUE(o.at("big").is_double());
  EXPECT_EQ(o.at("s"), AnyValue(std::string("\xC3\xA9 ' \" \\ \xE2\x80\xA8 </script> \0", 24)));
  EXPECT_EQ(o.at("arr"), json("[1,null,true,null]"));
  EXPECT_EQ(o.at("nested"), json(R"({"a":{"b":[]}})"));
  EXPECT_FALSE(o.contains("u")) << "undefined members are left out";
  EXPECT_EQ(reports[2], AnyValue("text"));
  EXPECT_EQ(reports[3], AnyValue(42));
  EXPECT_EQ(reports[4], AnyValue(nullptr));
}

TEST_F(WebViewTest, HandlersCanBeReplacedAndRemovedEvenFromWithinThemselves) {
  std::vector<std::string> got;
  web->addScriptMessageHandler("Once", [&](const AnyValue&) { got.push_back("old"); });
  web->addScriptMessageHandler("Once", [&](const AnyValue& body) {
    got.push_back(std::string(body.as_string()));
    web->removeScriptMessageHandler("Once");
  });
  loadPage(R"JS(
    window.webkit.messageHandlers.Once.postMessage("first");
    setTimeout(function () {
      report(typeof window.webkit.messageHandlers.Once);
      try { window.webkit.messageHandlers.Once.postMessage("second"); } catch (e) {}
      report("done");
    }, 50);
  )JS");
  ASSERT_TRUE(waitForReports(2));
  engine().runFor(std::chrono::milliseconds(50));
  EXPECT_EQ(got, std::vector<std::string>{"first"});
  EXPECT_EQ(reports[0], AnyValue("undefined"));
  web->removeScriptMessageHandler("never-added");
}

TEST_F(WebViewTest, FileAccessFromFileURLsFollowsThePreference) {
  writeFile("data.txt", "sibling");
  const std::string readSibling = R"JS(
    var xhr = new XMLHttpRequest();
    try {
      xhr.open('GET', 'data.txt', false);
      xhr.send();
      report(xhr.responseText);
    } catch (e) {
      report('refused');
    }
  )JS";
  loadPage(readSibling);
  ASSERT_TRUE(waitForReports(1));
  EXPECT_EQ(reports[0], AnyValue("refused")) << "off by default";

  EXPECT_TRUE(web->setBoolPreference("allowFileAccessFromFileURLs", true));
  web->reload();
  ASSERT_TRUE(waitForReports(2));
  EXPECT_EQ(reports[1], AnyValue("sibling"));

  EXPECT_FALSE(web->setBoolPreference("noSuchPreference", true));
}

TEST_F(WebViewTest, TheMainQueueRunsOnTheEngineThreadWhenWorkArrivesFromAnyThread) {
  std::atomic<int> ran{0};
  std::atomic<bool> onMain{true};
  const auto mainThread = std::this_thread::get_id();
  std::thread worker([&] {
    for (int i = 0; i < 100; ++i) {
      MainQueue::shared().post([&] {
        if (std::this_thread::get_id() != mainThread) onMain = false;
        ++ran;
      });
      if (i % 10 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  // runUntil only turns the GLib loop: the queue runs because its source
  // was woken.
  EXPECT_TRUE(engine().runUntil([&] { return ran.load() == 100; }, std::chrono::seconds(5)));
  worker.join();
  EXPECT_TRUE(onMain.load());
  EXPECT_TRUE(MainQueue::shared().isCurrent());
}

TEST(WebKitEngineTest, StartingAgainGivesTheSameEngineAndOtherThreadsAreRefused) {
  auto first = webkit::Engine::start();
  ASSERT_TRUE(first) << first.error();
  auto again = webkit::Engine::start();
  ASSERT_TRUE(again);
  EXPECT_EQ(*first, *again);
  std::expected<webkit::Engine*, std::string> elsewhere;
  std::thread([&] { elsewhere = webkit::Engine::start(); }).join();
  EXPECT_FALSE(elsewhere);
}

}  // namespace
}  // namespace appex
