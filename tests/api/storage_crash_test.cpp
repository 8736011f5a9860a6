// A write that storage.local.set acknowledged survives the process being
// killed at any moment: a child writes and acknowledges, the parent kills it
// with SIGKILL after a random delay, then reopens the store and checks every
// acknowledged key and the database's integrity.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>

#include "platform/sqlite_user_defaults.h"
#include "tests/platform/defaults_test_folder.h"

extern char** environ;

namespace appex {
namespace {

constexpr const char* kDomain = "com.example.extension";
constexpr int kRounds = 20;

// Starts the writer with its standard output on a pipe; returns its pid and
// the pipe's reading end.
std::pair<pid_t, FILE*> startWriter(const std::string& folder, long first) {
  int fds[2];
  if (::pipe(fds) != 0) return {-1, nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  const std::string firstText = std::to_string(first);
  const char* argv[] = {APPEX_STORAGE_CRASH_WRITER, folder.c_str(), kDomain, firstText.c_str(), nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char**>(argv), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  return {pid, ::fdopen(fds[0], "r")};
}

std::string integrityCheck(const std::filesystem::path& file) {
  sqlite3* db = nullptr;
  sqlite3_stmt* s = nullptr;
  std::string result = "<failed>";
  sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  if (sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &s, nullptr) == SQLITE_OK && sqlite3_step(s) == SQLITE_ROW) {
    result = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
  }
  sqlite3_finalize(s);
  sqlite3_close(db);
  return result;
}

TEST(StorageCrashTest, EveryAcknowledgedSetSurvivesSigkill) {
  testing::TemporaryFolder folder;
  const unsigned seed = std::random_device{}();
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> delayMs(0, 60);
  SCOPED_TRACE("seed " + std::to_string(seed));

  long next = 0;
  long totalAcked = 0;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    auto [pid, out] = startWriter(folder.path().string(), next);
    ASSERT_GT(pid, 0);

    // Kill at a random moment: sometimes before the store is even open.
    std::this_thread::sleep_for(std::chrono::milliseconds(delayMs(random)));
    ::kill(pid, SIGKILL);
    // Acks already in the pipe were given before the kill: they count.
    long acked = -1;
    for (long i; std::fscanf(out, "ack %ld\n", &i) == 1; acked = i) {
      EXPECT_EQ(i, acked < 0 ? next : acked + 1) << "acks arrive in order";
    }
    std::fclose(out);
    int status = 0;
    ::waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the writer ran until killed";

    auto store = SqliteUserDefaults::open(folder.path(), kDomain);
    ASSERT_TRUE(store) << store.error();
    for (long i = 0; i <= std::max(acked, next - 1); ++i) {
      const std::string n = std::to_string(i);
      ASSERT_EQ((*store)->stringForKey("k" + n), "v" + n) << "acknowledged write " << i << " lost";
    }
    store->reset();
    ASSERT_EQ(integrityCheck(SqliteUserDefaults::databasePath(folder.path(), kDomain)), "ok");
    if (acked >= 0) {
      totalAcked += acked - next + 1;
      next = acked + 1;
    }
  }
  EXPECT_GT(totalAcked, 0) << "the writer never got to write";
}

}  // namespace
}  // namespace appex
