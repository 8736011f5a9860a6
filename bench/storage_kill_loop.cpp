// Storage kill loop: a write that storage.local.set acknowledged survives
// the process being killed at any moment, round after round on the same
// store.
//
// Each round starts the storage crash writer (tests/api/storage_crash_writer:
// it opens the store and sets "k<i>" = "v<i>" for i = first, first+1, ...,
// printing "ack <i>" after each set returns), kills it with SIGKILL after a
// random delay (a fifth of the time within the first few milliseconds, while
// the store is still being opened or created), then reopens the store as the
// extension would and checks that it opens, that every key acknowledged in
// any round so far reads back, and that SQLite's integrity check says "ok".
// The next round continues after the last acknowledged key.
//
// Usage: storage_kill_loop [--rounds N] [--max-delay-ms N] [--seed N] [--writer PATH]
// Exit status: 0 when every round holds, 1 on the first failure, 2 for bad
// usage.
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <thread>

#include "platform/sqlite_user_defaults.h"

extern char** environ;

namespace {

constexpr const char* kDomain = "com.example.extension";

struct Options {
  int rounds = 300;
  int maxDelayMs = 150;
  unsigned seed = std::random_device{}();
#ifdef APPEX_STORAGE_CRASH_WRITER
  std::string writer = APPEX_STORAGE_CRASH_WRITER;
#else
  std::string writer;
#endif
};

struct Writer {
  pid_t pid = -1;
  FILE* out = nullptr;
};

// Starts the writer with its standard output on a pipe.
Writer start(const std::string& program, const std::string& folder, long first) {
  int fds[2];
  if (::pipe(fds) != 0) return {};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  const std::string firstText = std::to_string(first);
  const char* argv[] = {program.c_str(), folder.c_str(), kDomain, firstText.c_str(), nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char**>(argv), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  if (pid < 0) {
    ::close(fds[0]);
    return {};
  }
  return {pid, ::fdopen(fds[0], "r")};
}

std::string integrityCheck(const std::filesystem::path& file) {
  sqlite3* db = nullptr;
  sqlite3_stmt* s = nullptr;
  std::string result = "<cannot open>";
  if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
    result = "<no result>";
    if (sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &s, nullptr) == SQLITE_OK &&
        sqlite3_step(s) == SQLITE_ROW) {
      result = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
    }
  }
  sqlite3_finalize(s);
  sqlite3_close(db);
  return result;
}

bool parse(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (i + 1 >= argc) return false;
    const char* v = argv[++i];
    if (a == "--rounds")
      o.rounds = std::atoi(v);
    else if (a == "--max-delay-ms")
      o.maxDelayMs = std::atoi(v);
    else if (a == "--seed")
      o.seed = static_cast<unsigned>(std::strtoul(v, nullptr, 10));
    else if (a == "--writer")
      o.writer = v;
    else
      return false;
  }
  return o.rounds > 0 && o.maxDelayMs > 0 && !o.writer.empty();
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (!parse(argc, argv, o)) {
    std::fprintf(stderr, "usage: %s [--rounds N] [--max-delay-ms N] [--seed N] [--writer PATH]\n", argv[0]);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const auto folder = std::filesystem::temp_directory_path() / ("appex-kill-loop-" + std::to_string(::getpid()));
  std::filesystem::create_directories(folder);
  auto fail = [&](int round, const std::string& what) {
    std::printf("FAIL in round %d (seed %u): %s\n", round, o.seed, what.c_str());
    std::printf("the store is left in %s\n", folder.c_str());
    return 1;
  };

  std::mt19937 random(o.seed);
  std::uniform_int_distribution<int> early(0, 5);
  std::uniform_int_distribution<int> late(0, o.maxDelayMs);
  std::printf("storage kill loop: %d rounds, kills within %d ms, seed %u\n", o.rounds, o.maxDelayMs, o.seed);

  long next = 0;           // the first key the next writer sets
  long killsSurvived = 0;  // rounds whose store reopened whole after the kill
  long emptyRounds = 0;    // killed before the first acknowledgement
  long long verified = 0;  // acknowledged writes read back, over all rounds
  const auto started = std::chrono::steady_clock::now();
  for (int round = 1; round <= o.rounds; ++round) {
    Writer w = start(o.writer, folder.string(), next);
    if (w.pid <= 0 || !w.out) return fail(round, "cannot start " + o.writer);

    // Kill at a random moment: sometimes before the store is even open.
    const int delay = random() % 5 == 0 ? early(random) : late(random);
    std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    ::kill(w.pid, SIGKILL);

    // Acknowledgements already in the pipe were given before the kill.
    long acked = -1;
    for (long i; std::fscanf(w.out, "ack %ld\n", &i) == 1; acked = i) {
      if (i != (acked < 0 ? next : acked + 1)) {
        std::fclose(w.out);
        return fail(round, "acknowledgement " + std::to_string(i) + " out of order");
      }
    }
    std::fclose(w.out);
    int status = 0;
    ::waitpid(w.pid, &status, 0);
    if (!(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)) {
      return fail(
          round, "the writer stopped by itself (status " + std::to_string(status) + "): the store did not open for it");
    }

    auto store = appex::SqliteUserDefaults::open(folder, kDomain);
    if (!store) return fail(round, "the store does not open: " + store.error());
    const long last = std::max(acked, next - 1);
    for (long i = 0; i <= last; ++i) {
      const std::string n = std::to_string(i);
      if ((*store)->stringForKey("k" + n) != "v" + n) {
        return fail(round, "acknowledged write k" + n + " is lost");
      }
    }
    verified += last + 1;
    store->reset();
    const std::string integrity = integrityCheck(appex::SqliteUserDefaults::databasePath(folder, kDomain));
    if (integrity != "ok") return fail(round, "integrity check: " + integrity);

    ++killsSurvived;
    if (acked < 0) {
      ++emptyRounds;
    } else {
      next = acked + 1;
    }
    if (round % 50 == 0 || round == o.rounds) {
      std::printf("  round %4d: %ld writes acknowledged so far\n", round, next);
    }
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::printf(
      "kills survived %ld/%d (%ld killed before their first acknowledgement); acknowledged writes %ld, "
      "all present after every kill (%lld reads checked); integrity ok every round; %.1f s\n",
      killsSurvived, o.rounds, emptyRounds, next, verified, seconds);
  std::error_code ec;
  std::filesystem::remove_all(folder, ec);
  std::printf("PASS\n");
  return 0;
}
