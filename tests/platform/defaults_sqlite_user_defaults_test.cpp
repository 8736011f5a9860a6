#include "platform/sqlite_user_defaults.h"

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#include "tests/platform/defaults_test_folder.h"

namespace appex {
namespace {

constexpr const char* kDomain = "com.example.extension";

std::shared_ptr<SqliteUserDefaults> open(const std::filesystem::path& dir) {
  auto store = SqliteUserDefaults::open(dir, kDomain);
  EXPECT_TRUE(store) << store.error();
  return store ? *store : nullptr;
}

// What another connection sees on disk: the first column of the first row.
std::string onDisk(const std::filesystem::path& dir, const char* sql) {
  sqlite3* db = nullptr;
  sqlite3_open_v2(SqliteUserDefaults::databasePath(dir, kDomain).c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  sqlite3_stmt* s = nullptr;
  std::string out = "<none>";
  if (sqlite3_prepare_v2(db, sql, -1, &s, nullptr) == SQLITE_OK && sqlite3_step(s) == SQLITE_ROW) {
    out = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
  }
  sqlite3_finalize(s);
  sqlite3_close(db);
  return out;
}

TEST(SqliteUserDefaultsTest, KeepsEveryJsonShapeAcrossReopenAndReadsOnlyStringsAsStrings) {
  testing::TemporaryFolder folder;
  const AnyValue shapes = boost::json::parse(
      R"({"s":"t\u00e9 \u2028","e":"","i":-7,"f":2.5,"t":true,"n":null,"a":[1,{"k":[]}],"o":{"p":{}}})");
  {
    auto store = open(folder.path() / "made" / "here");
    for (const auto& kv : shapes.as_object()) ASSERT_TRUE(store->setObject(kv.key(), kv.value()));
    ASSERT_TRUE(store->setObject("s", shapes.at("s")));
    EXPECT_EQ(onDisk(folder.path() / "made" / "here", "SELECT value FROM defaults WHERE key = 'i'"), "-7")
        << "committed and visible to another connection at once";
  }
  auto store = open(folder.path() / "made" / "here");
  EXPECT_EQ(AnyValue(store->dictionaryRepresentation()), shapes);
  EXPECT_EQ(store->stringForKey("s"), "t\u00e9 \u2028");
  EXPECT_EQ(store->stringForKey("e"), "");
  for (const char* key : {"i", "f", "t", "n", "a", "o", "never-set"}) EXPECT_FALSE(store->stringForKey(key)) << key;
  EXPECT_EQ(onDisk(folder.path() / "made" / "here", "PRAGMA journal_mode"), "wal");
}

TEST(SqliteUserDefaultsTest, RemovesKeysAndOnlyItsOwnPersistentDomain) {
  testing::TemporaryFolder folder;
  auto store = open(folder.path());
  for (const char* k : {"a", "b", "c"}) ASSERT_TRUE(store->setObject(k, boost::json::string(k)));
  ASSERT_TRUE(store->removeObject("b"));
  ASSERT_TRUE(store->removeObject("never-there"));
  ASSERT_TRUE(store->removePersistentDomain("com.example.other"));
  EXPECT_EQ(store->dictionaryRepresentation().size(), 2u) << "another domain's name changes nothing";
  store = nullptr;
  store = open(folder.path());
  EXPECT_EQ(store->dictionaryRepresentation().size(), 2u);
  ASSERT_TRUE(store->removePersistentDomain(kDomain));
  EXPECT_TRUE(store->synchronize());
  store = nullptr;
  EXPECT_TRUE(open(folder.path())->dictionaryRepresentation().empty()) << "the removal is persistent";
}

TEST(SqliteUserDefaultsTest, OverwritesSurviveReopenAndBatchesAreAllOrNothing) {
  testing::TemporaryFolder folder;
  using Batch = std::vector<std::pair<std::string, AnyValue>>;
  {
    auto store = open(folder.path());
    ASSERT_TRUE(store->setObject("k", boost::json::string("old")));
    ASSERT_TRUE(store->setObject("k", boost::json::string("new")));
    ASSERT_TRUE(store->setObjects(Batch{{"a", "1"}, {"b", "2"}, {"a", "3"}}));
  }
  // Another connection makes the database refuse one key of each later
  // batch, halfway through it.
  onDisk(folder.path(),
         "CREATE TRIGGER refuse BEFORE INSERT ON defaults WHEN NEW.key = 'poison' "
         "BEGIN SELECT RAISE(ABORT, 'refused'); END");
  onDisk(folder.path(),
         "CREATE TRIGGER keep BEFORE DELETE ON defaults WHEN OLD.key = 'b' "
         "BEGIN SELECT RAISE(ABORT, 'refused'); END");
  auto store = open(folder.path());
  EXPECT_EQ(store->stringForKey("k"), "new") << "the overwrite reached the disk";
  EXPECT_EQ(store->stringForKey("a"), "3") << "a later pair for a key wins";

  auto set = store->setObjects(Batch{{"k", "lost"}, {"poison", "x"}, {"c", "lost"}});
  ASSERT_FALSE(set);
  EXPECT_NE(set.error().find("refused"), std::string::npos) << set.error();
  const std::vector<std::string> keys{"a", "b"};
  ASSERT_FALSE(store->removeObjects(keys));
  for (int reopened = 0; reopened < 2; ++reopened) {
    EXPECT_EQ(store->stringForKey("k"), "new");
    EXPECT_FALSE(store->stringForKey("c"));
    EXPECT_EQ(store->stringForKey("a"), "3") << "a removal batch is all or nothing too";
    store = nullptr;
    store = open(folder.path());
  }
  ASSERT_TRUE(store->setObjects(Batch{{"k", "after"}})) << "a failed batch leaves no transaction open";
}

TEST(SqliteUserDefaultsOpenTest, RefusesDamagedNewerOrMisplacedStoresAndNeverTouchesTheirFiles) {
  testing::TemporaryFolder folder;
  const auto file = SqliteUserDefaults::databasePath(folder.path(), kDomain);
  std::ofstream(file, std::ios::binary) << std::string(8192, 'x');
  auto garbage = SqliteUserDefaults::open(folder.path(), kDomain);
  ASSERT_FALSE(garbage);
  EXPECT_NE(garbage.error().find(file.string() + ": not a usable database"), std::string::npos) << garbage.error();
  std::ifstream in(file, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), std::string(8192, 'x'));

  std::filesystem::remove(file);
  ASSERT_TRUE(open(folder.path())->setObject("keep", boost::json::string("me")));
  onDisk(folder.path(), "PRAGMA user_version=2");
  auto newer = SqliteUserDefaults::open(folder.path(), kDomain);
  ASSERT_FALSE(newer);
  EXPECT_NE(newer.error().find("newer version"), std::string::npos) << newer.error();
  EXPECT_EQ(onDisk(folder.path(), "SELECT value FROM defaults"), "\"me\"");

  for (const char* bad : {"", "../escape", "a/b", ".hidden"}) {
    EXPECT_FALSE(SqliteUserDefaults::open(folder.path() / "d", bad)) << bad;
  }
  EXPECT_FALSE(std::filesystem::exists(folder.path() / "d")) << "nothing is created for a refused name";
  auto blocked = SqliteUserDefaults::open(file / "data", kDomain);
  ASSERT_FALSE(blocked);
  EXPECT_NE(blocked.error().find("cannot create the data folder"), std::string::npos) << blocked.error();
}

TEST(SqliteUserDefaultsConcurrencyTest, WritersAndReadersShareOneStore) {
  testing::TemporaryFolder folder;
  auto store = open(folder.path());
  constexpr int kWriters = 4, kEach = 25;
  std::atomic<int> writing{kWriters};
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w] {
      for (int i = 0; i < kEach; ++i) {
        std::string key = "w";
        key.append(std::to_string(w)).append("-").append(std::to_string(i));
        EXPECT_TRUE(store->setObject(key, boost::json::string(key)));
        EXPECT_EQ(store->stringForKey(key), key) << "a writer reads its own write";
      }
      --writing;
    });
  }
  for (int r = 0; r < 2; ++r) {
    threads.emplace_back([&] {
      while (writing > 0) {
        for (const auto& kv : store->dictionaryRepresentation()) EXPECT_EQ(kv.value().as_string(), kv.key());
      }
    });
  }
  for (auto& t : threads) t.join();
  store = nullptr;
  EXPECT_EQ(open(folder.path())->dictionaryRepresentation().size(), std::size_t{kWriters * kEach});
  EXPECT_EQ(onDisk(folder.path(), "PRAGMA integrity_check"), "ok");
}

}  // namespace
}  // namespace appex
