// Costs of storage.local.set and storage.local.get, each beside raw SQLite
// doing the least the same guarantee needs, measured in the same run on the
// same file system: an upsert committed with WAL and synchronous=FULL for a
// set (durable when it returns), a prepared point query for a get. A set of
// ten keys is one such commit: it stands beside one raw commit of ten
// upserts (same work) and one raw commit of one (what a key costs alone).
//
// Then the same set with the router relaying "storage.onChanged" to the
// background page and to every open tab (simulated browser), as it does
// inside the set before the command answers: with 1,000 tabs open it must
// stay under twice the set with one tab, and the relay alone (the change
// event without the write) must grow linearly with the tabs.
//
// The databases live in a fresh folder under $APPEX_BENCH_DIR (default: the
// system's temporary folder); use a real disk there, as fsync cost is most
// of what a set measures.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "api/safari_storage_api.h"
#include "core/context.h"
#include "core/log.h"
#include "core/main_queue.h"
#include "host/event_payload.h"
#include "host/safari_messaging_api.h"
#include "platform/bundle.h"
#include "platform/sim/sim_browser.h"
#include "platform/sim/sim_window.h"
#include "platform/sqlite_user_defaults.h"
#include "platform/web_view.h"
#include "tabs/safari_tab_api.h"

namespace appex::bench {
namespace {

constexpr const char* kDomain = "com.example.bench";

std::filesystem::path& benchFolder() {
  static std::filesystem::path folder = [] {
    const char* base = std::getenv("APPEX_BENCH_DIR");
    std::string pattern =
        ((base && *base) ? std::filesystem::path(base) : std::filesystem::temp_directory_path()) /
        "appex-storage-bench-XXXXXX";
    return std::filesystem::path(::mkdtemp(pattern.data()));
  }();
  return folder;
}

SafariStorageAPI& storage() {
  static std::shared_ptr<SafariStorageAPI> api = [] {
    auto store = SqliteUserDefaults::open(benchFolder() / "api", kDomain);
    if (!store) {
      std::fprintf(stderr, "%s\n", store.error().c_str());
      std::exit(1);
    }
    return std::make_shared<SafariStorageAPI>(*store, kDomain);
  }();
  return *api;
}

// The raw baseline: one connection, the same pragmas and table, prepared
// statements.
struct RawSqlite {
  sqlite3* db = nullptr;
  sqlite3_stmt* upsert = nullptr;
  sqlite3_stmt* select = nullptr;

  RawSqlite() {
    std::filesystem::create_directories(benchFolder() / "raw");
    sqlite3_open((benchFolder() / "raw" / "raw.sqlite").c_str(), &db);
    sqlite3_exec(db,
                 "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
                 "CREATE TABLE IF NOT EXISTS defaults (key TEXT PRIMARY KEY NOT NULL, value TEXT NOT NULL) WITHOUT ROWID",
                 nullptr, nullptr, nullptr);
    sqlite3_prepare_v2(db,
                       "INSERT INTO defaults(key, value) VALUES(?1, ?2) "
                       "ON CONFLICT(key) DO UPDATE SET value = excluded.value",
                       -1, &upsert, nullptr);
    sqlite3_prepare_v2(db, "SELECT value FROM defaults WHERE key = ?1", -1, &select, nullptr);
  }
};

RawSqlite& raw() {
  static RawSqlite r;
  return r;
}

void RawSqliteInsertCommit(benchmark::State& state) {
  auto& r = raw();
  long i = 0;
  for (auto _ : state) {
    const std::string value = "\"value " + std::to_string(++i) + "\"";
    sqlite3_bind_text(r.upsert, 1, "key", -1, SQLITE_STATIC);
    sqlite3_bind_text(r.upsert, 2, value.c_str(), -1, SQLITE_TRANSIENT);
    if (sqlite3_step(r.upsert) != SQLITE_DONE) state.SkipWithError("insert failed");
    sqlite3_reset(r.upsert);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(RawSqliteInsertCommit)->UseRealTime();

// Ten upserts, one commit.
void RawSqliteCommit10(benchmark::State& state) {
  auto& r = raw();
  long i = 0;
  for (auto _ : state) {
    sqlite3_exec(r.db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    ++i;
    for (int k = 0; k < 10; ++k) {
      const std::string key = "key" + std::to_string(k);
      const std::string value = "\"value " + std::to_string(i) + "\"";
      sqlite3_bind_text(r.upsert, 1, key.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(r.upsert, 2, value.c_str(), -1, SQLITE_TRANSIENT);
      if (sqlite3_step(r.upsert) != SQLITE_DONE) state.SkipWithError("insert failed");
      sqlite3_reset(r.upsert);
    }
    if (sqlite3_exec(r.db, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) state.SkipWithError("commit failed");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(RawSqliteCommit10)->UseRealTime();

void StorageLocalSet10(benchmark::State& state) {
  auto& api = storage();
  long i = 0;
  for (auto _ : state) {
    std::vector<std::pair<std::string, std::string>> items;
    ++i;
    for (int k = 0; k < 10; ++k) items.emplace_back("key" + std::to_string(k), "value " + std::to_string(i));
    api.set(items);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(StorageLocalSet10)->UseRealTime();

void StorageLocalSet(benchmark::State& state) {
  auto& api = storage();
  long i = 0;
  for (auto _ : state) api.set({{"key", "value " + std::to_string(++i)}});
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(StorageLocalSet)->UseRealTime();

void RawSqliteSelect(benchmark::State& state) {
  auto& r = raw();
  for (auto _ : state) {
    sqlite3_bind_text(r.select, 1, "key", -1, SQLITE_STATIC);
    if (sqlite3_step(r.select) == SQLITE_ROW) {
      std::string value(reinterpret_cast<const char*>(sqlite3_column_text(r.select, 0)));
      benchmark::DoNotOptimize(value);
    }
    sqlite3_reset(r.select);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(RawSqliteSelect)->UseRealTime();

void StorageLocalGet(benchmark::State& state) {
  auto& api = storage();
  api.set({{"key", "value"}});
  const std::vector<std::string> keys{"key"};
  for (auto _ : state) benchmark::DoNotOptimize(api.get(keys));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(StorageLocalGet)->UseRealTime();

// A background page that is never answered: the relay's asks to it cost
// what the bridge does, nothing more.
class SilentWebView final : public WebView {
 public:
  void evaluateScript(std::string) override {}
  void addScriptMessageHandler(const std::string&, ScriptMessageCallback) override {}
  void removeScriptMessageHandler(const std::string&) override {}
  bool setBoolPreference(const std::string&, bool) override { return true; }
  void setNavigationDelegate(std::weak_ptr<NavigationDelegate>) override {}
  bool loadFileURL(const std::string&, const std::string&) override { return true; }
  void reload() override {}
};

// The extension with `tabs` open tabs (windows of 50, each tab one page,
// all known to the registry), its store and the router's event relays.
struct RelayWorld {
  explicit RelayWorld(int tabs) : scope(context) {
    const auto folder = benchFolder() / ("relay-" + std::to_string(tabs));
    std::filesystem::create_directories(folder / "Bench.appex");
    context.set<Bundle>(Bundle::fromInfo(folder / "Bench.appex", Dictionary{{"CFBundleIdentifier", kDomain}}).value());
    context.set<UserDefaults>(SqliteUserDefaults::open(folder / "data", kDomain).value());
    sim->setDelivery(sim::Delivery::inlineOnCaller);
    sim->install(context);
    std::shared_ptr<sim::SimWindow> window;
    for (int i = 0; i < tabs; ++i) {
      if (i % 50 == 0) window = sim->openWindow();
      window->addTab("https://site" + std::to_string(i) + ".example/", "Title");
    }
    SafariTabAPI::shared()->refreshTabs([](auto) {});
    SafariMessagingAPI::shared()->setBackgroundWebview(std::make_shared<SilentWebView>());
    storage = SafariStorageAPI::shared();
    MainQueue::shared().drain();
  }
  ~RelayWorld() { MainQueue::shared().drain(); }

  Context context;
  ScopedContext scope;
  std::shared_ptr<sim::SimBrowser> sim = sim::SimBrowser::create();
  std::shared_ptr<SafariStorageAPI> storage;
};

// The pages keep every message they receive, so each run is a fixed, small
// number of changes.
constexpr int kRelayedChanges = 20;

void StorageSetRelayed(benchmark::State& state) {
  RelayWorld world(static_cast<int>(state.range(0)));
  long i = 0;
  for (auto _ : state) {
    world.storage->set({{"key", "value " + std::to_string(++i)}});
    state.PauseTiming();
    MainQueue::shared().drain();  // the background page's asks, posted to the main queue
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(StorageSetRelayed)->Arg(1)->Arg(1000)->Iterations(kRelayedChanges)->UseRealTime();

// The relay alone: the "change" event of a set, without the write.
void ChangeRelay(benchmark::State& state) {
  RelayWorld world(static_cast<int>(state.range(0)));
  const AnyValue change = Dictionary{{"key", Dictionary{{"oldValue", "a"}, {"newValue", "b"}}}};
  for (auto _ : state) {
    world.storage->emitter()->fire("change", EventPayload::json(change));
    state.PauseTiming();
    MainQueue::shared().drain();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ChangeRelay)->Arg(100)->Arg(1000)->Iterations(kRelayedChanges)->UseRealTime();

// Prints the usual console output, then one row per compared pair: the
// median over the repetitions of each side, as operations per second, and
// the ratio of the times. fsync latency swings with whatever else the disk
// is doing, so the runs are repeated and interleaved (see main).
class StorageReporter : public benchmark::ConsoleReporter {
 public:
  struct Row {
    std::string label, subject, baseline;
    double target = 0;  // ratio to stay under; 0 when there is none
  };
  explicit StorageReporter(std::vector<Row> rows)
      : ConsoleReporter(::isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular), rows_(std::move(rows)) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
        nsPerOp_[run.run_name.str()].push_back(run.GetAdjustedRealTime());
        nsPerOp_[run.run_name.str() + " (cpu)"].push_back(run.GetAdjustedCPUTime());
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintTable(std::ostream& out) const {
    out << "\n" << std::left << std::setw(40) << "case" << std::right << std::setw(12) << "ops/s"
        << std::setw(16) << "baseline ops/s" << std::setw(10) << "ratio" << "   baseline\n";
    for (const auto& row : rows_) {
      const double s = median(row.subject), b = median(row.baseline);
      if (s <= 0 || b <= 0) continue;
      out << std::left << std::setw(40) << row.label << std::right << std::fixed << std::setprecision(0)
          << std::setw(12) << 1e9 / s << std::setw(16) << 1e9 / b << std::setprecision(2) << std::setw(9)
          << s / b << "x   " << row.baseline;
      if (row.target > 0) out << "   target <" << row.target << "x" << (s / b <= row.target ? "" : "  MISSED");
      out << "\n";
    }
    out << "(medians of the repetitions; ratio = case time / baseline time, same run)\n";
  }

 private:
  double median(const std::string& name) const {
    auto it = nsPerOp_.find(name);
    if (it == nsPerOp_.end() || it->second.empty()) return 0;
    std::vector<double> v = it->second;
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
  }

  std::vector<Row> rows_;
  std::map<std::string, std::vector<double>> nsPerOp_;
};

}  // namespace
}  // namespace appex::bench

int main(int argc, char** argv) {
  // Unless told otherwise: five interleaved repetitions of every case.
  std::vector<char*> args(argv, argv + argc);
  const bool chosen = std::any_of(args.begin() + 1, args.end(), [](const char* a) {
    return std::string_view(a).starts_with("--benchmark_repetitions");
  });
  char repetitions[] = "--benchmark_repetitions=5";
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  if (!chosen) {
    args.push_back(repetitions);
    args.push_back(interleave);
  }
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  appex::bench::StorageReporter reporter({
      {"storage.local.set, one key, durable", "StorageLocalSet/real_time", "RawSqliteInsertCommit/real_time"},
      // One transaction: as fast as raw SQLite doing the same commit, and
      // at least half the rate of a raw commit of a single key.
      {"storage.local.set, ten keys (same work)", "StorageLocalSet10/real_time", "RawSqliteCommit10/real_time", 1.5},
      {"storage.local.set, ten keys (one key)", "StorageLocalSet10/real_time", "RawSqliteInsertCommit/real_time", 2},
      {"set + relay, 1000 tabs (vs 1 tab)", "StorageSetRelayed/1000/iterations:20/real_time",
       "StorageSetRelayed/1/iterations:20/real_time", 2},
      {"relay alone, 1000 tabs (vs 100 tabs)", "ChangeRelay/1000/iterations:20/real_time",
       "ChangeRelay/100/iterations:20/real_time", 15},
      // The relaying thread's own time: what the set waits for, without
      // the queue workers that file the parked replies meanwhile.
      {"relay alone, cpu, 1000 tabs (vs 100)", "ChangeRelay/1000/iterations:20/real_time (cpu)",
       "ChangeRelay/100/iterations:20/real_time (cpu)", 15},
      {"storage.local.get, one key", "StorageLocalGet/real_time", "RawSqliteSelect/real_time"},
  });
  // Every first sighting of a tab logs a line; keep them off the table.
  appex::setLogSink([](appex::LogDestination, std::string_view) {});
  std::cout << "databases in " << appex::bench::benchFolder().string() << "\n";
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintTable(std::cout);
  benchmark::Shutdown();
  std::error_code ec;
  std::filesystem::remove_all(appex::bench::benchFolder(), ec);
  return 0;
}
