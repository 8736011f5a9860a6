#include "api/safari_storage_api.h"

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

#include "core/context.h"
#include "platform/bundle.h"
#include "platform/sqlite_user_defaults.h"
#include "tests/platform/defaults_test_folder.h"

namespace appex {
namespace {

AnyValue json(const char* text) { return boost::json::parse(text); }

// A context with a real store in a temporary folder and a bundle naming its
// domain, as the host sets them up; records every "change" payload.
class StorageApiTest : public ::testing::Test {
 protected:
  StorageApiTest() { start(); }

  void start() {
    context_ = std::make_unique<Context>();
    scope_ = std::make_unique<ScopedContext>(*context_);
    defaults = *SqliteUserDefaults::open(folder_.path(), "com.example.extension");
    context_->set<UserDefaults>(defaults);
    context_->set<Bundle>(*Bundle::fromInfo("/b", Dictionary{{"CFBundleIdentifier", "com.example.extension"}}));
    storage = SafariStorageAPI::shared();
    storage->emitter()->on("change", [this](const EventPayload& p, const std::string&) {
      std::lock_guard lock(mutex_);
      events_.push_back(p.value);
    });
  }

  // Drops every object, as the end of the process would, and starts again
  // on the same folder.
  void restart() {
    storage = nullptr;
    defaults = nullptr;
    scope_ = nullptr;
    context_ = nullptr;
    start();
  }

  std::vector<AnyValue> events() {
    std::lock_guard lock(mutex_);
    return events_;
  }

  testing::TemporaryFolder folder_;
  std::mutex mutex_;
  std::vector<AnyValue> events_;
  std::unique_ptr<Context> context_;
  std::unique_ptr<ScopedContext> scope_;
  std::shared_ptr<SqliteUserDefaults> defaults;
  std::shared_ptr<SafariStorageAPI> storage;
};

TEST_F(StorageApiTest, SetAndRemoveFireOneEventPerCallWithEachKeysOldAndNewValue) {
  storage->set({{"a", "0"}});
  storage->set({{"a", "1"}, {"b", "x"}, {"b", "y"}});
  storage->set({});
  storage->remove({"a", "never"});
  storage->remove({});
  const std::vector<AnyValue> expected = {
      json(R"({"a":{"oldValue":null,"newValue":"0"}})"),
      json(R"({"a":{"oldValue":"0","newValue":"1"},"b":{"oldValue":"x","newValue":"y"}})"),
      json("{}"),
      json(R"({"a":{"oldValue":"1","newValue":null},"never":{"oldValue":null,"newValue":null}})"),
      json("{}")};
  EXPECT_EQ(events(), expected);
  EXPECT_EQ(AnyValue(storage->get({"a", "b"})), json(R"({"a":null,"b":"y"})"));
}

TEST_F(StorageApiTest, GetAnswersNullForMissingAndNonStringValues) {
  storage->set({{"a", "1"}});
  ASSERT_TRUE(defaults->setObject("n", 5));
  EXPECT_EQ(AnyValue(storage->get({"a", "b", "n", "a"})), json(R"({"a":"1","b":null,"n":null})"));
}

TEST_F(StorageApiTest, ClearReportsEveryKeyOfTheDomainAndEmptiesTheDatabase) {
  storage->set({{"a", "1"}});
  ASSERT_TRUE(defaults->setObject("foreign", json("[1]")));  // not written through the API
  storage->clear();
  EXPECT_EQ(events().back(), json(R"({"a":{"oldValue":"1","newValue":null},"foreign":{"oldValue":null,"newValue":null}})"));
  EXPECT_EQ(AnyValue(storage->get({"a", "foreign"})), json(R"({"a":null,"foreign":null})"));
  storage->clear();
  EXPECT_EQ(events().back(), json("{}"));
  restart();
  EXPECT_TRUE(storage->all().empty());
}

TEST_F(StorageApiTest, ValuesSurviveTheStoreBeingDestroyedAndReopened) {
  storage->set({{"kept", "yes"}, {"gone", "soon"}});
  storage->remove({"gone"});
  ASSERT_TRUE(defaults->setObject("shape", json(R"({"x":[null]})")));
  restart();
  EXPECT_EQ(AnyValue(storage->all()), json(R"({"kept":"yes","shape":{"x":[null]}})")) << "all: any shape";
}

TEST_F(StorageApiTest, ListenersRunOnTheCallingThreadAfterTheWrite) {
  std::thread::id thread;
  std::optional<std::string> seen;
  storage->emitter()->on("change", [&](const EventPayload&, const std::string&) {
    thread = std::this_thread::get_id();
    seen = defaults->stringForKey("k");
  });
  storage->set({{"k", "v"}});
  EXPECT_EQ(thread, std::this_thread::get_id());
  EXPECT_EQ(seen, "v");
}

TEST_F(StorageApiTest, ThreadsWritingAtOnceEachGetTheirOwnEvent) {
  constexpr int kThreads = 4, kEach = 20;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        std::string key = "t";
        key.append(std::to_string(t)).append("-").append(std::to_string(i));
        storage->set({{key, key}});
      }
    });
  }
  for (auto& t : threads) t.join();
  const auto e = events();
  ASSERT_EQ(e.size(), std::size_t{kThreads * kEach});
  for (const auto& event : e) EXPECT_EQ(event.as_object().size(), 1u);
  restart();
  EXPECT_EQ(storage->all().size(), std::size_t{kThreads * kEach});
}

}  // namespace
}  // namespace appex
