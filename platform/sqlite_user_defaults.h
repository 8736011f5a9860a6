// SqliteUserDefaults: UserDefaults kept in one SQLite database per domain
// (the extension's bundle identifier), "<data folder>/<domain>.sqlite".
//
// Table `defaults` (key TEXT PRIMARY KEY, value TEXT holding the value as
// JSON). The database runs in WAL mode with synchronous=FULL and every call
// that writes is one transaction (a batch of keys included: all of it or
// none of it), so a write that returned success survives a crash of the
// process or the machine, at the cost of one sync per call. All values are also held in memory: reads
// never touch the database. A store that cannot be opened, or whose file is
// not a sound database, is reported by `open` and the file is left exactly as
// it was (nothing here ever deletes a database file).
//
// One object per database file in a process: the in-memory copy does not see
// writes made through another connection.
//
// Thread-safe: writes are serialised on the connection; reads take a shared
// lock on the in-memory copy only, so they do not wait for a write's sync.
#pragma once

#include <expected>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "platform/user_defaults.h"

struct sqlite3;
struct sqlite3_stmt;

namespace appex {

class SqliteUserDefaults final : public UserDefaults {
 public:
  // Opens, creating the folder and the database if needed, the store of
  // `domain` under `dataDirectory`. `domain` must be a bundle-identifier-like
  // name (letters, digits, '.', '-', '_'; not starting with '.').
  static std::expected<std::shared_ptr<SqliteUserDefaults>, std::string> open(
      const std::filesystem::path& dataDirectory, std::string_view domain);

  // "$XDG_DATA_HOME/appex" when XDG_DATA_HOME is an absolute path, else
  // "$HOME/.local/share/appex" (the account's home folder if HOME is unset).
  static std::filesystem::path defaultDataDirectory();

  // Where `open` keeps the database of `domain`.
  static std::filesystem::path databasePath(const std::filesystem::path& dataDirectory,
                                            std::string_view domain);

  ~SqliteUserDefaults() override;
  SqliteUserDefaults(const SqliteUserDefaults&) = delete;
  SqliteUserDefaults& operator=(const SqliteUserDefaults&) = delete;

  std::optional<std::string> stringForKey(std::string_view key) override;
  std::expected<void, std::string> setObject(std::string_view key, const AnyValue& value) override;
  std::expected<void, std::string> removeObject(std::string_view key) override;
  std::expected<void, std::string> setObjects(std::span<const std::pair<std::string, AnyValue>> items) override;
  std::expected<void, std::string> removeObjects(std::span<const std::string> keys) override;
  Dictionary dictionaryRepresentation() override;
  std::expected<void, std::string> removePersistentDomain(std::string_view name) override;
  // Copies the write-ahead log into the database file (passive checkpoint).
  bool synchronize() override;

  const std::string& domain() const { return domain_; }
  const std::filesystem::path& databaseFile() const { return file_; }

 private:
  using Values = std::map<std::string, AnyValue, std::less<>>;

  SqliteUserDefaults(std::string domain, std::filesystem::path file, sqlite3* db,
                     sqlite3_stmt* upsert, sqlite3_stmt* remove, sqlite3_stmt* removeAll,
                     Values values);

  // Runs a prepared write with up to two text parameters. Caller holds
  // writeMutex_.
  std::expected<void, std::string> runWrite(sqlite3_stmt* statement, std::string_view first,
                                             std::string_view second);
  // Runs `writes` (each a runWrite) in one transaction: committed when all
  // succeed, rolled back at the first failure. Caller holds writeMutex_.
  template <class Writes>
  std::expected<void, std::string> inTransaction(Writes writes);
  std::expected<void, std::string> failure(const char* what) const;

  const std::string domain_;
  const std::filesystem::path file_;

  std::mutex writeMutex_;  // guards db_ and the statements
  sqlite3* db_;
  sqlite3_stmt* upsert_;
  sqlite3_stmt* remove_;
  sqlite3_stmt* removeAll_;

  std::shared_mutex valuesMutex_;  // guards values_
  Values values_;
};

}  // namespace appex
