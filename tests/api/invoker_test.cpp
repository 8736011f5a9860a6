#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "api/safari_storage_api.h"
#include "api/safari_toolbar_api.h"
#include "tests/api/api_fixture.h"

namespace appex::testing {
namespace {

AnyValue json(std::string_view text) { return boost::json::parse(text); }

std::string errorOf(const Result& r) { return r ? "<success>" : r.error().text; }

class InvokerTest : public ApiFixture {};

// Every validation message, in the order the checks run. Arguments are
// JSON text ("" = no arguments at all).
struct Rejection {
  const char* cmd;
  const char* args;
  const char* error;
};

TEST_F(InvokerTest, ValidationMessagesAreExact) {
  const Rejection cases[] = {
      {"tabs.Get", R"("x")", "[invokeAPI] Unknown cmd"},
      {"nope", "", "[invokeAPI] Unknown cmd"},
      {"extension.setPopupHeight", R"("300")", "[setPopupHeight] args should be popup height"},
      {"extension.setPopupHeight", "300.5", "[setPopupHeight] args should be popup height"},
      {"extension.setPopupHeight", "", "[setPopupHeight] args should be popup height"},
      {"tabs.get", "5", "[tabs.get] id is required"},
      {"tabs.get", "null", "[tabs.get] id is required"},
      {"tabs.get", R"("abc")", "[tabs.get] no tab found with id: abc"},
      {"tabs.remove", R"(["a"])", "[tabs.remove] id is required"},
      {"tabs.create", R"(["u"])", "[tabs.create] args must be a dictionary"},
      {"tabs.create", R"({"url":5})", "[tabs.create] url is required"},
      {"tabs.create", R"({"url":"not a url"})", "[tabs.create] Failed to create tab for unknown reason"},
      {"tabs.update", "", "[tabs.update] args must be a dictionary"},
      {"tabs.update", R"({"url":"https://a.test/"})", "[tabs.update] id is required"},
      {"tabs.update", R"({"id":"x"})", "[tabs.update] url is required"},
      {"tabs.update", R"({"id":"x","url":"https://a.test/"})",
       "[tabs.update] Failed to create tab for unknown reason"},
      {"tabs.query", "[]", "[tabs.query] args must be a dictionary"},
      {"windows.get", "1", "[windows.get] id is required"},
      {"windows.get", R"("w")", "[windows.get] no tab found with id: w"},
      {"windows.getLastFocused", "", "[windows.getLastFocused] no tab found"},
      {"windows.getAll", "", "[windows.create] args must be a dictionary"},
      {"windows.remove", "{}", "[windows.remove] id is required"},
      {"windows.create", "true", "[windows.create] args must be a dictionary"},
      {"windows.create", "{}", "[windows.create] url is required"},
      {"windows.create", R"({"url":"::"})", "[windows.create] Failed to create window for unknown reason"},
      {"storage.local.get", R"(["a",1])", "[storage.local.get] keys is required"},
      {"storage.local.get", R"({"a":"b"})", "[storage.local.get] keys is required"},
      {"storage.local.remove", R"("a")", "[storage.local.remove] keys is required"},
      {"storage.local.set", R"({"a":1})", "[storage.local.set] args must be a dictionary"},
      {"storage.local.set", R"([["a","1"]])", "[storage.local.set] args must be a dictionary"},
      {"browserAction.setIcon", "null", "[browserAction.setIcon] args must be a dictionary"},
      {"browserAction.setIcon", R"({"tabId":"t"})", "[browserAction.setIcon] path is required"},
      {"browserAction.setBadgeText", R"("3")", "[browserAction.setBadgeText] args must be a dictionary"},
      {"browserAction.setBadgeText", R"({"text":3})", "[browserAction.setBadgeText] text is required"},
      {"httpRequest", R"("https://a.test")", "[request] args must be a dictionary"},
      {"httpRequest", R"({"method":"GET"})", "[request] url is required"},
  };
  for (const auto& c : cases) {
    std::optional<AnyValue> args;
    if (*c.args) args = json(c.args);
    EXPECT_EQ(errorOf(invoke(c.cmd, args)), c.error) << c.cmd << " " << c.args;
  }
}

TEST_F(InvokerTest, TabAndWindowCommandsSucceedOnTheBrowser) {
  auto window = sim->openWindow();
  auto first = window->addTab("https://one.test/", "One", true);
  window->addTab("https://two.test/", "Two");

  auto all = invoke("tabs.all");
  ASSERT_TRUE(all) << errorOf(all);
  ASSERT_EQ(all.value()->as_array().size(), 2u);
  const std::string firstId(all.value()->as_array()[0].at("id").as_string());

  auto got = invoke("tabs.get", AnyValue(firstId));
  ASSERT_TRUE(got);
  EXPECT_EQ(got.value()->at("url"), "https://one.test/");

  auto active = invoke("tabs.query", json(R"({"active":true})"));
  ASSERT_TRUE(active);
  ASSERT_EQ(active.value()->as_array().size(), 1u);
  EXPECT_EQ(active.value()->as_array()[0].at("id"), firstId.c_str());

  // tabs.create without "active" opens the tab as active; tabs.update
  // without "active" leaves activation alone.
  auto created = invoke("tabs.create", json(R"({"url":"https://three.test/"})"));
  ASSERT_TRUE(created) << errorOf(created);
  EXPECT_EQ(window->activeTab()->pages().front()->url(), "https://three.test/");
  auto updated = invoke("tabs.update", Dictionary{{"id", firstId}, {"url", "https://one.test/b"}});
  ASSERT_TRUE(updated) << errorOf(updated);
  EXPECT_NE(window->activeTab(), first);

  auto focused = invoke("windows.getLastFocused");
  ASSERT_TRUE(focused);
  EXPECT_EQ(focused.value()->at("tabs"), boost::json::array{}) << "no populate: no tabs";
  auto windowsAll = invoke("windows.getAll", json(R"({"populate":true})"));
  ASSERT_TRUE(windowsAll);
  EXPECT_EQ(windowsAll.value()->as_array()[0].at("tabs").as_array().size(), 3u);

  EXPECT_EQ(invoke("tabs.remove", AnyValue("unknown")).value(), AnyValue(false));
  EXPECT_EQ(invoke("tabs.remove", AnyValue(firstId)).value(), AnyValue(true));
  EXPECT_EQ(window->tabs().size(), 2u);

  auto opened = invoke("windows.create", json(R"({"url":"https://w.test/"})"));
  ASSERT_TRUE(opened) << errorOf(opened);
  const std::string windowId(opened.value()->at("id").as_string());
  EXPECT_EQ(invoke("windows.remove", AnyValue(windowId)).value(), AnyValue(true));
  EXPECT_EQ(sim->windows().size(), 1u);
}

TEST_F(InvokerTest, StorageCommandsRoundTripAndReportChanges) {
  std::vector<AnyValue> changes;
  std::mutex m;
  auto storage = SafariStorageAPI::shared();
  auto dispose = storage->emitter()->on("change", [&](const EventPayload& p, const std::string&) {
    std::lock_guard lock(m);
    changes.push_back(p.value);
  });
  EXPECT_EQ(invoke("storage.local.set", json(R"({"a":"1","b":"2"})")).value(), AnyValue(true));
  EXPECT_EQ(invoke("storage.local.get", json(R"(["a","x"])")).value(), json(R"({"a":"1","x":null})"));
  EXPECT_EQ(invoke("storage.local.remove", json(R"(["b"])")).value(), AnyValue(true));
  EXPECT_EQ(invoke("storage.local.all").value(), json(R"({"a":"1"})"));
  EXPECT_EQ(invoke("storage.local.clear").value(), AnyValue(true));
  EXPECT_EQ(invoke("storage.local.all").value(), json("{}"));
  dispose();
  ASSERT_EQ(changes.size(), 3u);
  EXPECT_EQ(changes[0], json(R"({"a":{"oldValue":null,"newValue":"1"},"b":{"oldValue":null,"newValue":"2"}})"));
  EXPECT_EQ(changes[2], json(R"({"a":{"oldValue":"1","newValue":null}})"));
}

TEST_F(InvokerTest, ExtensionCommands) {
  auto info = invoke("extension.info");
  ASSERT_TRUE(info);
  const auto& d = info.value()->as_object();
  EXPECT_EQ(d.size(), 5u);
  EXPECT_EQ(d.at("version"), "2.1.0.57");
  EXPECT_EQ(d.at("internalBaseURI"), (bundlePath_.string() + "/Contents/Resources/Assets/").c_str());
  EXPECT_TRUE(d.at("storedVersion").is_null());
  EXPECT_TRUE(d.at("baseURI").is_string() || d.at("baseURI").is_null());

  EXPECT_EQ(invoke("extension.setPopupHeight", AnyValue(300)).value(), AnyValue(true));
  EXPECT_EQ(popup->preferredContentSize(), (Size{430, 300})) << "width kept";
  EXPECT_EQ(invoke("extension.closePopup").value(), AnyValue(true));
  EXPECT_EQ(popup->dismissals(), 1);
}

TEST_F(InvokerTest, ToolbarCommandsRecordAndAskForValidation) {
  sim->takeToolbarUpdates();
  EXPECT_EQ(invoke("browserAction.setBadgeText", json(R"({"text":"3","tabId":7})")).value(), AnyValue(true));
  auto toolbar = SafariToolbarAPI::shared();
  ASSERT_TRUE(toolbar->globalInfo()) << "a tabId that is not a string counts as absent";
  EXPECT_EQ(toolbar->globalInfo()->badgeText, "3");
  EXPECT_EQ(invoke("browserAction.setIcon", json(R"({"path":"icon.png","tabId":"t1"})")).value(),
            AnyValue(true));
  EXPECT_EQ(toolbar->tabInfo("t1")->image, "icon.png");
  EXPECT_EQ(sim->takeToolbarUpdates(), 2);
}

}  // namespace
}  // namespace appex::testing
