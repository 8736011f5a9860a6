// Costs of the concurrency core and the message record, each beside a plain
// baseline measured in the same run.
#include <benchmark/benchmark.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <iostream>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "bench/ratio_reporter.h"
#include "core/key_value_set.h"
#include "core/threaded_dictionary.h"
#include "host/json.h"
#include "host/message.h"

namespace appex::bench {
namespace {

constexpr int kEntries = 100;

std::unordered_map<std::string, int> sampleMap() {
  std::unordered_map<std::string, int> m;
  for (int i = 0; i < kEntries; ++i) m["key" + std::to_string(i)] = i;
  return m;
}

struct SharedMutexMap {
  std::shared_mutex mutex;
  std::unordered_map<std::string, int> map = sampleMap();
};

SharedMutexMap& baselineMap() {
  static SharedMutexMap m;
  return m;
}
ThreadedDictionary<std::string, int>& threadedMap() {
  static ThreadedDictionary<std::string, int> d(sampleMap());
  return d;
}

const std::string kKey = "key42";

void SharedMutexRead(benchmark::State& state) {
  auto& m = baselineMap();
  for (auto _ : state) {
    std::shared_lock lock(m.mutex);
    auto it = m.map.find(kKey);
    benchmark::DoNotOptimize(it->second);
  }
}
BENCHMARK(SharedMutexRead);
BENCHMARK(SharedMutexRead)->Threads(2)->UseRealTime();

void ThreadedDictionaryRead(benchmark::State& state) {
  auto& d = threadedMap();
  for (auto _ : state) benchmark::DoNotOptimize(d.get(kKey));
}
BENCHMARK(ThreadedDictionaryRead);
BENCHMARK(ThreadedDictionaryRead)->Threads(2)->UseRealTime();

void SharedMutexWrite(benchmark::State& state) {
  auto& m = baselineMap();
  int i = 0;
  for (auto _ : state) {
    std::unique_lock lock(m.mutex);
    m.map[kKey] = ++i;
  }
}
BENCHMARK(SharedMutexWrite);
BENCHMARK(SharedMutexWrite)->Threads(2)->UseRealTime();

// A waiting write (barrier), comparable to a unique lock.
void ThreadedDictionaryRemoveValue(benchmark::State& state) {
  auto& d = threadedMap();
  for (auto _ : state) benchmark::DoNotOptimize(d.removeValue("absent"));
}
BENCHMARK(ThreadedDictionaryRemoveValue);
BENCHMARK(ThreadedDictionaryRemoveValue)->Threads(2)->UseRealTime();

// A non-waiting write followed by a read that must see it: the full cost of
// handing a write to the pool.
void ThreadedDictionarySetThenGet(benchmark::State& state) {
  auto& d = threadedMap();
  int i = 0;
  for (auto _ : state) {
    d.set(kKey, ++i);
    benchmark::DoNotOptimize(d.get(kKey));
  }
}
BENCHMARK(ThreadedDictionarySetThenGet);

struct Tab {
  int id;
};
using TabPtr = std::shared_ptr<Tab>;

void KeyValueSetLookup(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  KeyValueSet<TabPtr, int> set([](const TabPtr& a, const TabPtr& b) { return a->id == b->id; });
  for (int i = 0; i < n; ++i) set.set(std::make_shared<Tab>(Tab{i}), i);
  auto wanted = std::make_shared<Tab>(Tab{n - 1});  // the last entry: a full walk
  for (auto _ : state) benchmark::DoNotOptimize(set.indexOf(wanted));
}
BENCHMARK(KeyValueSetLookup)->Arg(10)->Arg(100)->Arg(1000);

// The same lookup through the set's key index (the registries' setup): the
// same cost among 10 or 1,000 entries.
void KeyValueSetIndexedLookup(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  KeyValueSet<TabPtr, std::string> set([](const TabPtr& a, const TabPtr& b) { return a->id == b->id; },
                                       [](const TabPtr& t) { return std::hash<int>{}(t->id); },
                                       [](const std::string& v) { return std::string_view(v); });
  for (int i = 0; i < n; ++i) set.set(std::make_shared<Tab>(Tab{i}), std::to_string(i));
  auto wanted = std::make_shared<Tab>(Tab{n - 1});
  for (auto _ : state) benchmark::DoNotOptimize(set.indexOf(wanted));
}
BENCHMARK(KeyValueSetIndexedLookup)->Arg(10)->Arg(1000);

// Baseline: the same walk over a plain vector under a shared lock, no copy.
void VectorScanLookup(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  std::shared_mutex mutex;
  std::vector<std::pair<TabPtr, int>> v;
  for (int i = 0; i < n; ++i) v.emplace_back(std::make_shared<Tab>(Tab{i}), i);
  auto wanted = std::make_shared<Tab>(Tab{n - 1});
  for (auto _ : state) {
    std::shared_lock lock(mutex);
    std::ptrdiff_t found = -1;
    for (std::size_t i = 0; i < v.size(); ++i) {
      if (v[i].first->id == wanted->id) {
        found = static_cast<std::ptrdiff_t>(i);
        break;
      }
    }
    benchmark::DoNotOptimize(found);
  }
}
BENCHMARK(VectorScanLookup)->Arg(10)->Arg(100)->Arg(1000);

const char* kTypicalAsk =
    R"({"type":"ASK","uid":"ipcp_1700000000000_417","cmd":"messaging","args":{"target":"api",)"
    R"("action":{"cmd":"tabs.query","args":{"active":true,"currentWindow":true,)"
    R"("meta":{"tabId":"6F1C2E4A-0D3B-4C55-9E7A-2B8D1F0A9C31","tabUrl":"https://example.com/a?b=c"}}}},)"
    R"("frameId":0})";

void MessageParseBuild(benchmark::State& state) {
  const auto value = boost::json::parse(kTypicalAsk);
  for (auto _ : state) {
    auto m = Message::parse(value.as_object());
    benchmark::DoNotOptimize(m->build());
  }
}
BENCHMARK(MessageParseBuild);

// Baseline: copying the same dictionary once (what parse and build must at
// least do).
void DictionaryCopy(benchmark::State& state) {
  const auto value = boost::json::parse(kTypicalAsk);
  for (auto _ : state) {
    boost::json::object copy = value.as_object();
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(DictionaryCopy);

void JsonStringify(benchmark::State& state) {
  const std::optional<AnyValue> value = boost::json::parse(kTypicalAsk);
  for (auto _ : state) benchmark::DoNotOptimize(JSON::stringify(value));
}
BENCHMARK(JsonStringify);

void BoostSerialize(benchmark::State& state) {
  const auto value = boost::json::parse(kTypicalAsk);
  for (auto _ : state) benchmark::DoNotOptimize(boost::json::serialize(value));
}
BENCHMARK(BoostSerialize);

}  // namespace
}  // namespace appex::bench

int main(int argc, char** argv) {
  using appex::bench::Comparison;
  benchmark::Initialize(&argc, argv);
  appex::bench::RatioReporter reporter({
      {"ThreadedDictionary read, uncontended", "ThreadedDictionaryRead", "SharedMutexRead", 2.0},
      {"ThreadedDictionary read, 2 threads", "ThreadedDictionaryRead/real_time/threads:2",
       "SharedMutexRead/real_time/threads:2"},
      {"ThreadedDictionary waiting write, uncontended", "ThreadedDictionaryRemoveValue",
       "SharedMutexWrite"},
      {"ThreadedDictionary waiting write, 2 threads",
       "ThreadedDictionaryRemoveValue/real_time/threads:2", "SharedMutexWrite/real_time/threads:2"},
      {"ThreadedDictionary async write + read", "ThreadedDictionarySetThenGet", "SharedMutexWrite"},
      {"KeyValueSet lookup, 10 entries", "KeyValueSetLookup/10", "VectorScanLookup/10"},
      {"KeyValueSet lookup, 100 entries", "KeyValueSetLookup/100", "VectorScanLookup/100"},
      {"KeyValueSet lookup, 1000 entries", "KeyValueSetLookup/1000", "VectorScanLookup/1000"},
      {"KeyValueSet indexed lookup, 1000 entries (vs 10)", "KeyValueSetIndexedLookup/1000",
       "KeyValueSetIndexedLookup/10", 1.5},
      {"Message parse + build (typical ask)", "MessageParseBuild", "DictionaryCopy"},
      {"JSON stringify (typical ask)", "JsonStringify", "BoostSerialize"},
  });
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const bool ok = reporter.PrintTable(std::cout);
  benchmark::Shutdown();
  return ok ? 0 : 1;
}
