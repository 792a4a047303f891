// Lookups in a HashedStrMap of field-name-like keys (64, 4096 and one
// million of them) against std::unordered_map<std::string, int> over the same
// texts, and the raw throughput of djb2_hash against std::hash.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "util/HashedStrMap.h"

namespace {

// Names shaped like extracted fields: "src_port_412", "http_status_9".
std::vector<std::string> makeFieldNames(size_t count) {
  static const char* const kPrefixes[] = {"src", "dest", "http", "user", "event",
                                          "log", "process", "file", "net", "db"};
  static const char* const kWords[] = {"ip", "port", "status", "name", "id",
                                       "bytes", "count", "path", "method", "time"};
  std::vector<std::string> names;
  names.reserve(count);
  char buf[64];
  for (size_t i = 0; i < count; ++i) {
    std::snprintf(buf, sizeof buf, "%s_%s_%zu", kPrefixes[i % 10], kWords[(i / 10) % 10], i / 100);
    names.emplace_back(buf);
  }
  return names;
}

// Built once per key count and shared by the lookup benchmarks.
struct Fixture {
  std::vector<std::string> names;
  HashedStrMap_KeyPool queryPool;
  std::vector<HashedStrReference> queries;  // pre-hashed, in random order
  std::vector<std::string> queryTexts;      // the same texts, same order
  HashedStrMap<int> hashed;
  std::unordered_map<std::string, int> plain;

  explicit Fixture(size_t count) : names(makeFieldNames(count)) {
    for (size_t i = 0; i < names.size(); ++i) {
      const std::string& n = names[i];
      hashed.index(n.data(), n.size(), djb2_hash(n.data(), n.size())) = static_cast<int>(i);
      plain.emplace(n, static_cast<int>(i));
    }
    queryTexts = names;
    std::shuffle(queryTexts.begin(), queryTexts.end(), std::mt19937(42));
    queries.reserve(queryTexts.size());
    for (const std::string& t : queryTexts) queries.push_back(queryPool.create(t.data(), t.size()));
  }
};

Fixture& fixture(size_t count) {
  static std::map<size_t, Fixture*>* const fixtures = new std::map<size_t, Fixture*>;
  Fixture*& f = (*fixtures)[count];
  if (f == nullptr) f = new Fixture(count);
  return *f;
}

void BM_HashedStr_MapFindPrehashed(benchmark::State& state) {
  Fixture& f = fixture(static_cast<size_t>(state.range(0)));
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.hashed._internal_find(f.queries[i]));
    if (++i == f.queries.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_HashedStr_MapFindPrehashed)->Arg(64)->Arg(4096)->Arg(1000000);

void BM_HashedStr_MapFindHashingBytes(benchmark::State& state) {
  Fixture& f = fixture(static_cast<size_t>(state.range(0)));
  size_t i = 0;
  for (auto _ : state) {
    const std::string& t = f.queryTexts[i];
    benchmark::DoNotOptimize(f.hashed._internal_find(t.data(), t.size(), djb2_hash(t.data(), t.size())));
    if (++i == f.queryTexts.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_HashedStr_MapFindHashingBytes)->Arg(64)->Arg(4096)->Arg(1000000);

void BM_HashedStr_UnorderedMapFind(benchmark::State& state) {
  Fixture& f = fixture(static_cast<size_t>(state.range(0)));
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.plain.find(f.queryTexts[i]));
    if (++i == f.queryTexts.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_HashedStr_UnorderedMapFind)->Arg(64)->Arg(4096)->Arg(1000000);

std::string randomBytes(size_t n) {
  std::mt19937 rng(7);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(rng());
  return s;
}

void BM_HashedStr_Djb2(benchmark::State& state) {
  const std::string data = randomBytes(static_cast<size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(djb2_hash(data.data(), data.size()));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(data.size()));
}
BENCHMARK(BM_HashedStr_Djb2)->Range(8, 64 << 10);

void BM_HashedStr_StdHash(benchmark::State& state) {
  const std::string data = randomBytes(static_cast<size_t>(state.range(0)));
  const std::hash<std::string_view> hasher;
  for (auto _ : state) benchmark::DoNotOptimize(hasher(std::string_view(data)));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(data.size()));
}
BENCHMARK(BM_HashedStr_StdHash)->Range(8, 64 << 10);

}  // namespace
