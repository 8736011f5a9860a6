#include "platform/sqlite_user_defaults.h"

#include <boost/json/serialize.hpp>
#include <sqlite3.h>

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <system_error>
#include <vector>

#include "core/log.h"
#include "host/json.h"

namespace appex {
namespace {

// The schema this code writes; a database marked newer is refused rather than
// written with assumptions it may break.
constexpr int kSchemaVersion = 1;
constexpr int kBusyTimeoutMs = 5000;

struct DbCloser {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct StatementFinalizer {
  void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using DbHandle = std::unique_ptr<sqlite3, DbCloser>;
using StatementHandle = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

bool validDomain(std::string_view domain) {
  if (domain.empty() || domain.size() > 200 || domain.front() == '.') return false;
  for (char c : domain) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '.' || c == '-' || c == '_';
    if (!ok) return false;
  }
  return true;
}

std::expected<StatementHandle, std::string> prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) {
    return std::unexpected(std::string(sqlite3_errmsg(db)));
  }
  return StatementHandle(statement);
}

// Runs `sql` and returns the first column of its first row as text (empty
// when there is no row).
std::expected<std::string, std::string> queryText(sqlite3* db, const char* sql) {
  auto statement = prepare(db, sql);
  if (!statement) return std::unexpected(statement.error());
  const int rc = sqlite3_step(statement->get());
  if (rc == SQLITE_ROW) {
    const auto* text = sqlite3_column_text(statement->get(), 0);
    return std::string(text ? reinterpret_cast<const char*>(text) : "");
  }
  if (rc == SQLITE_DONE) return std::string();
  return std::unexpected(std::string(sqlite3_errmsg(db)));
}

std::expected<void, std::string> exec(sqlite3* db, const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message ? message : sqlite3_errmsg(db);
    sqlite3_free(message);
    return std::unexpected(text);
  }
  return {};
}

}  // namespace

std::filesystem::path SqliteUserDefaults::defaultDataDirectory() {
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && xdg[0] == '/') {
    return std::filesystem::path(xdg) / "appex";
  }
  std::filesystem::path home;
  if (const char* h = std::getenv("HOME"); h && h[0] != '\0') {
    home = h;
  } else if (const passwd* pw = getpwuid(getuid()); pw && pw->pw_dir) {
    home = pw->pw_dir;
  }
  return home / ".local" / "share" / "appex";
}

std::filesystem::path SqliteUserDefaults::databasePath(const std::filesystem::path& dataDirectory,
                                                       std::string_view domain) {
  return dataDirectory / (std::string(domain) + ".sqlite");
}

std::expected<std::shared_ptr<SqliteUserDefaults>, std::string> SqliteUserDefaults::open(
    const std::filesystem::path& dataDirectory, std::string_view domain) {
  if (!validDomain(domain)) {
    return std::unexpected("user defaults: \"" + std::string(domain) +
                           "\" is not a usable domain name");
  }
  std::error_code ec;
  std::filesystem::create_directories(dataDirectory, ec);
  if (ec) {
    return std::unexpected("user defaults: cannot create the data folder " +
                           dataDirectory.string() + ": " + ec.message());
  }
  const std::filesystem::path file = databasePath(dataDirectory, domain);
  const std::string where = "user defaults " + file.string() + ": ";

  sqlite3* raw = nullptr;
  const int rc = sqlite3_open_v2(file.c_str(), &raw,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                                 nullptr);
  DbHandle db(raw);
  if (rc != SQLITE_OK) {
    return std::unexpected(where + "cannot open: " +
                           (raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc)));
  }
  sqlite3_extended_result_codes(db.get(), 1);
  sqlite3_busy_timeout(db.get(), kBusyTimeoutMs);

  // The first statements read the file; a file that is not a database, or a
  // damaged one, fails here and is left untouched.
  auto mode = queryText(db.get(), "PRAGMA journal_mode=WAL");
  if (!mode) return std::unexpected(where + "not a usable database (" + mode.error() + ")");
  if (*mode != "wal") {
    return std::unexpected(where + "cannot switch to write-ahead logging (mode " + *mode + ")");
  }
  if (auto r = exec(db.get(), "PRAGMA synchronous=FULL"); !r) {
    return std::unexpected(where + r.error());
  }
  auto check = queryText(db.get(), "PRAGMA quick_check");
  if (!check) return std::unexpected(where + "not a usable database (" + check.error() + ")");
  if (*check != "ok") return std::unexpected(where + "damaged database (" + *check + ")");

  auto version = queryText(db.get(), "PRAGMA user_version");
  if (!version) return std::unexpected(where + version.error());
  if (std::atoi(version->c_str()) > kSchemaVersion) {
    return std::unexpected(where + "written by a newer version (schema " + *version + ")");
  }
  if (auto r = exec(db.get(),
                    "CREATE TABLE IF NOT EXISTS defaults ("
                    "key TEXT PRIMARY KEY NOT NULL, value TEXT NOT NULL) WITHOUT ROWID;"
                    "PRAGMA user_version=1");
      !r) {
    return std::unexpected(where + "cannot create the table (" + r.error() + ")");
  }

  Values values;
  {
    auto select = prepare(db.get(), "SELECT key, value FROM defaults");
    if (!select) return std::unexpected(where + select.error());
    int step;
    while ((step = sqlite3_step(select->get())) == SQLITE_ROW) {
      const auto* k = sqlite3_column_text(select->get(), 0);
      const auto* v = sqlite3_column_text(select->get(), 1);
      std::string key(k ? reinterpret_cast<const char*>(k) : "",
                      static_cast<std::size_t>(sqlite3_column_bytes(select->get(), 0)));
      std::string_view text(v ? reinterpret_cast<const char*>(v) : "",
                            static_cast<std::size_t>(sqlite3_column_bytes(select->get(), 1)));
      auto parsed = JSON::parse(text, /*allowFragments=*/true);
      if (!parsed) {
        // Written by something else; kept in the file, not served.
        logLine(where + "skipping unreadable value of key " + key);
        continue;
      }
      values.insert_or_assign(std::move(key), std::move(*parsed));
    }
    if (step != SQLITE_DONE) return std::unexpected(where + sqlite3_errmsg(db.get()));
  }

  auto upsert = prepare(db.get(),
                        "INSERT INTO defaults(key, value) VALUES(?1, ?2) "
                        "ON CONFLICT(key) DO UPDATE SET value = excluded.value");
  auto remove = prepare(db.get(), "DELETE FROM defaults WHERE key = ?1");
  auto removeAll = prepare(db.get(), "DELETE FROM defaults");
  if (!upsert || !remove || !removeAll) {
    return std::unexpected(where + "cannot prepare statements (" + sqlite3_errmsg(db.get()) + ")");
  }
  return std::shared_ptr<SqliteUserDefaults>(new SqliteUserDefaults(
      std::string(domain), file, db.release(), upsert->release(), remove->release(),
      removeAll->release(), std::move(values)));
}

SqliteUserDefaults::SqliteUserDefaults(std::string domain, std::filesystem::path file, sqlite3* db,
                                       sqlite3_stmt* upsert, sqlite3_stmt* remove,
                                       sqlite3_stmt* removeAll, Values values)
    : domain_(std::move(domain)),
      file_(std::move(file)),
      db_(db),
      upsert_(upsert),
      remove_(remove),
      removeAll_(removeAll),
      values_(std::move(values)) {}

SqliteUserDefaults::~SqliteUserDefaults() {
  sqlite3_finalize(upsert_);
  sqlite3_finalize(remove_);
  sqlite3_finalize(removeAll_);
  sqlite3_close_v2(db_);
}

std::expected<void, std::string> SqliteUserDefaults::runWrite(sqlite3_stmt* statement,
                                                              std::string_view first,
                                                              std::string_view second) {
  const int params = sqlite3_bind_parameter_count(statement);
  if (params >= 1) {
    sqlite3_bind_text64(statement, 1, first.data(), first.size(), SQLITE_STATIC, SQLITE_UTF8);
  }
  if (params >= 2) {
    sqlite3_bind_text64(statement, 2, second.data(), second.size(), SQLITE_STATIC, SQLITE_UTF8);
  }
  const int rc = sqlite3_step(statement);
  std::expected<void, std::string> result;
  if (rc != SQLITE_DONE) {
    result = std::unexpected("user defaults " + file_.string() + ": write failed (" +
                             sqlite3_errmsg(db_) + ")");
  }
  sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
  return result;
}

std::expected<void, std::string> SqliteUserDefaults::failure(const char* what) const {
  return std::unexpected("user defaults " + file_.string() + ": " + what + " failed (" + sqlite3_errmsg(db_) + ")");
}

template <class Writes>
std::expected<void, std::string> SqliteUserDefaults::inTransaction(Writes writes) {
  if (sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) return failure("begin");
  std::expected<void, std::string> result = writes();
  if (result && sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) result = failure("commit");
  // A failed write or commit leaves the transaction open (or SQLite has
  // already ended it); either way nothing of it stays.
  if (!result && !sqlite3_get_autocommit(db_)) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  return result;
}

std::optional<std::string> SqliteUserDefaults::stringForKey(std::string_view key) {
  std::shared_lock lock(valuesMutex_);
  auto it = values_.find(key);
  if (it == values_.end()) return std::nullopt;
  return asString(it->second);
}

std::expected<void, std::string> SqliteUserDefaults::setObject(std::string_view key,
                                                               const AnyValue& value) {
  const std::string text = boost::json::serialize(value);
  std::lock_guard write(writeMutex_);
  if (auto r = runWrite(upsert_, key, text); !r) return r;
  std::unique_lock lock(valuesMutex_);
  values_.insert_or_assign(std::string(key), value);
  return {};
}

std::expected<void, std::string> SqliteUserDefaults::removeObject(std::string_view key) {
  std::lock_guard write(writeMutex_);
  if (auto r = runWrite(remove_, key, {}); !r) return r;
  std::unique_lock lock(valuesMutex_);
  if (auto it = values_.find(key); it != values_.end()) values_.erase(it);
  return {};
}

std::expected<void, std::string> SqliteUserDefaults::setObjects(
    std::span<const std::pair<std::string, AnyValue>> items) {
  std::vector<std::string> texts;
  texts.reserve(items.size());
  for (const auto& [key, value] : items) texts.push_back(boost::json::serialize(value));
  std::lock_guard write(writeMutex_);
  auto r = inTransaction([&]() -> std::expected<void, std::string> {
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (auto w = runWrite(upsert_, items[i].first, texts[i]); !w) return w;
    }
    return {};
  });
  if (!r) return r;
  std::unique_lock lock(valuesMutex_);
  for (const auto& [key, value] : items) values_.insert_or_assign(key, value);
  return {};
}

std::expected<void, std::string> SqliteUserDefaults::removeObjects(std::span<const std::string> keys) {
  std::lock_guard write(writeMutex_);
  auto r = inTransaction([&]() -> std::expected<void, std::string> {
    for (const auto& key : keys) {
      if (auto w = runWrite(remove_, key, {}); !w) return w;
    }
    return {};
  });
  if (!r) return r;
  std::unique_lock lock(valuesMutex_);
  for (const auto& key : keys) {
    if (auto it = values_.find(key); it != values_.end()) values_.erase(it);
  }
  return {};
}

Dictionary SqliteUserDefaults::dictionaryRepresentation() {
  std::shared_lock lock(valuesMutex_);
  Dictionary out;
  out.reserve(values_.size());
  for (const auto& [key, value] : values_) out.emplace(key, value);
  return out;
}

std::expected<void, std::string> SqliteUserDefaults::removePersistentDomain(std::string_view name) {
  if (name != domain_) return {};
  std::lock_guard write(writeMutex_);
  if (auto r = runWrite(removeAll_, {}, {}); !r) return r;
  std::unique_lock lock(valuesMutex_);
  values_.clear();
  return {};
}

bool SqliteUserDefaults::synchronize() {
  std::lock_guard write(writeMutex_);
  return sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr) ==
         SQLITE_OK;
}

}  // namespace appex
