// The command table's own cost: invokeAPI against calling the serving API
// directly, for a synchronous command (storage.local.get of one key, served
// from the store's in-memory copy) and for the cheapest path (an unknown
// command, which walks the whole table). The baseline is measured in the
// same run.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <iostream>
#include <unistd.h>

#include "api/safari_api_invoker.h"
#include "api/safari_storage_api.h"
#include "bench/ratio_reporter.h"
#include "core/context.h"
#include "platform/bundle.h"
#include "platform/sim/sim_browser.h"
#include "platform/sqlite_user_defaults.h"

namespace appex::bench {
namespace {

struct World {
  World() : scope(context) {
    folder = std::filesystem::temp_directory_path() / ("appex-api-bench-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder / "Bench.appex");
    context.set<Bundle>(Bundle::fromInfo(folder / "Bench.appex", Dictionary{{"CFBundleIdentifier", "b.b"}}).value());
    context.set<UserDefaults>(SqliteUserDefaults::open(folder / "data", "b.b").value());
    sim::SimBrowser::create()->install(context);
    SafariStorageAPI::shared()->set({{"k", "v"}});
  }
  ~World() { std::filesystem::remove_all(folder); }
  Context context;
  ScopedContext scope;
  std::filesystem::path folder;
};

World& world() {
  static World w;
  return w;
}

const std::optional<AnyValue> kKeys = AnyValue(List{"k"});

void DirectStorageGet(benchmark::State& state) {
  auto storage = SafariStorageAPI::shared();
  const std::vector<std::string> keys{"k"};
  for (auto _ : state) {
    ResultCallback done = [](Result r) { benchmark::DoNotOptimize(r); };
    done(success(storage->get(keys)));
  }
}
BENCHMARK(DirectStorageGet);

void InvokeStorageGet(benchmark::State& state) {
  SafariApiInvoker invoker(world().context);
  for (auto _ : state) {
    invoker.invokeAPI("storage.local.get", kKeys, [](Result r) { benchmark::DoNotOptimize(r); });
  }
}
BENCHMARK(InvokeStorageGet);

void DirectFailure(benchmark::State& state) {
  for (auto _ : state) {
    ResultCallback done = [](Result r) { benchmark::DoNotOptimize(r); };
    done(failure("[invokeAPI] Unknown cmd"));
  }
}
BENCHMARK(DirectFailure);

void InvokeUnknownCommand(benchmark::State& state) {
  SafariApiInvoker invoker(world().context);
  for (auto _ : state) {
    invoker.invokeAPI("no.such.command", std::nullopt, [](Result r) { benchmark::DoNotOptimize(r); });
  }
}
BENCHMARK(InvokeUnknownCommand);

}  // namespace
}  // namespace appex::bench

int main(int argc, char** argv) {
  appex::bench::world();
  benchmark::Initialize(&argc, argv);
  appex::bench::RatioReporter reporter({
      {"invokeAPI storage.local.get vs direct get", "InvokeStorageGet", "DirectStorageGet"},
      {"invokeAPI unknown command vs a bare failure", "InvokeUnknownCommand", "DirectFailure"},
  });
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintTable(std::cout);
  benchmark::Shutdown();
  return 0;
}
