#include "platform/sqlite_user_defaults.h"

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#include "tests/platform/defaults_test_folder.h"

namespace appex {
namespace {

using testing::TemporaryFolder;

constexpr const char* kDomain = "com.example.extension";

std::shared_ptr<SqliteUserDefaults> openOrFail(const std::filesystem::path& dir,
                                               std::string_view domain = kDomain) {
  auto store = SqliteUserDefaults::open(dir, domain);
  if (!store) {
    ADD_FAILURE() << store.error();
    return nullptr;
  }
  return *store;
}

std::string readFile(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A second, independent connection: what is really on disk.
std::string sqlText(const std::filesystem::path& file, const std::string& sql) {
  sqlite3* db = nullptr;
  sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  sqlite3_stmt* s = nullptr;
  std::string out = "<error>";
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr) == SQLITE_OK) {
    out = sqlite3_step(s) == SQLITE_ROW ? reinterpret_cast<const char*>(sqlite3_column_text(s, 0)) : "<none>";
  }
  sqlite3_finalize(s);
  sqlite3_close(db);
  return out;
}

TEST(SqliteUserDefaultsTest, KeepsValuesOfEveryJsonShapeAcrossReopen) {
  TemporaryFolder folder;
  const AnyValue shapes = boost::json::parse(
      R"({"s":"text \u00e9 \u2028","i":-7,"f":2.5,"t":true,"n":null,"a":[1,"x",{"k":[]}],"o":{"p":{"q":"r"}},"empty":""})");
  {
    auto store = openOrFail(folder.path());
    ASSERT_TRUE(store);
    for (const auto& kv : shapes.as_object()) ASSERT_TRUE(store->setObject(kv.key(), kv.value()));
    EXPECT_EQ(AnyValue(store->dictionaryRepresentation()), shapes);
  }
  auto reopened = openOrFail(folder.path());
  ASSERT_TRUE(reopened);
  EXPECT_EQ(AnyValue(reopened->dictionaryRepresentation()), shapes);
  EXPECT_EQ(reopened->stringForKey("s"), "text \u00e9 \u2028");
  EXPECT_EQ(reopened->stringForKey("empty"), "");
  for (const char* nonString : {"i", "f", "t", "n", "a", "o", "never-set"}) {
    EXPECT_FALSE(reopened->stringForKey(nonString)) << nonString << " reads as absent";
  }
}

TEST(SqliteUserDefaultsTest, StoresOneJsonRowPerKeyInAWalDatabaseNamedAfterTheDomain) {
  TemporaryFolder folder;
  auto store = openOrFail(folder.path() / "nested" / "data");
  ASSERT_TRUE(store);
  ASSERT_TRUE(store->setObject("k", boost::json::string("v")));
  ASSERT_TRUE(store->setObject("k", boost::json::string("w")));
  const auto file = folder.path() / "nested" / "data" / "com.example.extension.sqlite";
  EXPECT_EQ(store->databaseFile(), file);
  EXPECT_EQ(sqlText(file, "PRAGMA journal_mode"), "wal");
  EXPECT_EQ(sqlText(file, "SELECT value FROM defaults WHERE key = 'k'"), "\"w\"") << "visible to another connection at once";
  EXPECT_EQ(sqlText(file, "SELECT count(*) FROM defaults"), "1");
}

TEST(SqliteUserDefaultsTest, RemovesKeysAndOnlyItsOwnPersistentDomain) {
  TemporaryFolder folder;
  {
    auto store = openOrFail(folder.path());
    ASSERT_TRUE(store);
    for (const char* k : {"a", "b", "c"}) ASSERT_TRUE(store->setObject(k, boost::json::string(k)));
    ASSERT_TRUE(store->removeObject("b"));
    ASSERT_TRUE(store->removeObject("never-there"));
    EXPECT_FALSE(store->stringForKey("b"));

    ASSERT_TRUE(store->removePersistentDomain("com.example.other"));
    EXPECT_EQ(store->dictionaryRepresentation().size(), 2u) << "another domain's name changes nothing";
  }
  auto store = openOrFail(folder.path());
  ASSERT_TRUE(store);
  EXPECT_EQ(store->dictionaryRepresentation().size(), 2u);
  ASSERT_TRUE(store->removePersistentDomain(kDomain));
  EXPECT_TRUE(store->synchronize());
  EXPECT_TRUE(store->dictionaryRepresentation().empty());
  store.reset();
  store = openOrFail(folder.path());
  EXPECT_TRUE(store->dictionaryRepresentation().empty()) << "the removal is persistent";
}

TEST(SqliteUserDefaultsOpenTest, RefusesADamagedOrForeignFileAndLeavesItUntouched) {
  TemporaryFolder folder;
  const auto file = SqliteUserDefaults::databasePath(folder.path(), kDomain);
  {
    std::ofstream out(file, std::ios::binary);
    out << std::string(8192, 'x');
  }
  const std::string before = readFile(file);
  auto store = SqliteUserDefaults::open(folder.path(), kDomain);
  ASSERT_FALSE(store);
  EXPECT_NE(store.error().find(file.string()), std::string::npos) << store.error();
  EXPECT_NE(store.error().find("not a usable database"), std::string::npos) << store.error();
  EXPECT_EQ(readFile(file), before);
  EXPECT_FALSE(std::filesystem::exists(file.string() + "-wal"));
}

TEST(SqliteUserDefaultsOpenTest, RefusesAStoreWrittenByANewerSchema) {
  TemporaryFolder folder;
  {
    auto store = openOrFail(folder.path());
    ASSERT_TRUE(store);
    ASSERT_TRUE(store->setObject("keep", boost::json::string("me")));
  }
  const auto file = SqliteUserDefaults::databasePath(folder.path(), kDomain);
  sqlite3* db = nullptr;
  sqlite3_open(file.c_str(), &db);
  sqlite3_exec(db, "PRAGMA user_version=2", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  auto store = SqliteUserDefaults::open(folder.path(), kDomain);
  ASSERT_FALSE(store);
  EXPECT_NE(store.error().find("newer version"), std::string::npos) << store.error();
  EXPECT_EQ(sqlText(file, "SELECT value FROM defaults"), "\"me\"");
}

TEST(SqliteUserDefaultsOpenTest, SkipsRowsItCannotReadButKeepsThemInTheFile) {
  TemporaryFolder folder;
  {
    auto store = openOrFail(folder.path());
    ASSERT_TRUE(store);
    ASSERT_TRUE(store->setObject("good", boost::json::string("v")));
  }
  const auto file = SqliteUserDefaults::databasePath(folder.path(), kDomain);
  sqlite3* db = nullptr;
  sqlite3_open(file.c_str(), &db);
  sqlite3_exec(db, "INSERT INTO defaults VALUES('bad', '{not json')", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  auto store = openOrFail(folder.path());
  ASSERT_TRUE(store);
  EXPECT_EQ(store->stringForKey("good"), "v");
  EXPECT_EQ(store->dictionaryRepresentation().size(), 1u);
  EXPECT_EQ(sqlText(file, "SELECT value FROM defaults WHERE key = 'bad'"), "{not json");
}

TEST(SqliteUserDefaultsOpenTest, RejectsDomainsThatAreNotPlainNamesAndUnusableFolders) {
  TemporaryFolder folder;
  using namespace std::string_view_literals;
  for (std::string_view bad : {""sv, "../escape"sv, "a/b"sv, ".hidden"sv, "white space"sv, "nul\0x"sv}) {
    auto store = SqliteUserDefaults::open(folder.path() / "d", bad);
    EXPECT_FALSE(store) << bad;
  }
  EXPECT_FALSE(std::filesystem::exists(folder.path() / "d")) << "nothing is created for a refused name";

  const auto blocker = folder.path() / "file";
  std::ofstream(blocker) << "x";
  auto store = SqliteUserDefaults::open(blocker / "data", kDomain);
  ASSERT_FALSE(store);
  EXPECT_NE(store.error().find("data folder"), std::string::npos) << store.error();
}

TEST(SqliteUserDefaultsOpenTest, DefaultFolderFollowsXdgDataHomeWhenAbsolute) {
  const char* savedXdg = std::getenv("XDG_DATA_HOME");
  const std::string xdg = savedXdg ? savedXdg : "";
  const std::string home = std::getenv("HOME") ? std::getenv("HOME") : "";
  ::setenv("XDG_DATA_HOME", "/srv/data", 1);
  EXPECT_EQ(SqliteUserDefaults::defaultDataDirectory(), "/srv/data/appex");
  ::setenv("XDG_DATA_HOME", "relative/data", 1);
  EXPECT_EQ(SqliteUserDefaults::defaultDataDirectory(), std::filesystem::path(home) / ".local/share/appex");
  ::unsetenv("XDG_DATA_HOME");
  EXPECT_EQ(SqliteUserDefaults::defaultDataDirectory(), std::filesystem::path(home) / ".local/share/appex");
  if (savedXdg) ::setenv("XDG_DATA_HOME", xdg.c_str(), 1);
}

TEST(SqliteUserDefaultsConcurrencyTest, WritersAndReadersShareOneStore) {
  TemporaryFolder folder;
  auto store = openOrFail(folder.path());
  ASSERT_TRUE(store);
  constexpr int kWriters = 4, kEach = 25;
  std::atomic<bool> writing{true};
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w] {
      for (int i = 0; i < kEach; ++i) {
        const std::string key = "w" + std::to_string(w) + "-" + std::to_string(i);
        EXPECT_TRUE(store->setObject(key, boost::json::string(key)));
        EXPECT_TRUE(store->setObject("shared", boost::json::string(key)));
        EXPECT_EQ(store->stringForKey(key), key) << "a writer reads its own write";
      }
    });
  }
  for (int r = 0; r < 2; ++r) {
    threads.emplace_back([&] {
      while (writing) {
        if (auto shared = store->stringForKey("shared")) EXPECT_EQ(shared->front(), 'w');
        for (const auto& kv : store->dictionaryRepresentation()) {
          EXPECT_EQ(kv.value().as_string(), kv.key() == "shared" ? kv.value().as_string() : kv.key());
        }
      }
    });
  }
  for (int w = 0; w < kWriters; ++w) threads[w].join();
  writing = false;
  for (std::size_t t = kWriters; t < threads.size(); ++t) threads[t].join();

  store.reset();
  store = openOrFail(folder.path());
  EXPECT_EQ(store->dictionaryRepresentation().size(), static_cast<std::size_t>(kWriters * kEach + 1));
  EXPECT_EQ(sqlText(SqliteUserDefaults::databasePath(folder.path(), kDomain), "PRAGMA integrity_check"), "ok");
}

}  // namespace
}  // namespace appex
