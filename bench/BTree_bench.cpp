// The disk B-tree at the file tracker's shape (8-byte keys, order 255) with
// 16-byte records: inserts of random keys into a fresh tree, and lookups of
// present keys in a built one, at 10,000 and 1,000,000 keys. The files sit
// in the page cache (just written), so the figures are system-call and
// copy costs, not the disk's. std::map over the same keys is the baseline.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/BenchDir.h"
#include "util/BTree.h"
#include "util/Pathname.h"
#include "util/testing/BTreeTestTypes.h"

namespace {

constexpr uint32_t kOrder = 255;

std::vector<uint64_t> randomKeys(size_t n, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::vector<uint64_t> keys(n);
  for (auto& k : keys) k = rng() | 1;  // never the blank key
  return keys;
}

// One built tree per size, kept open for the lookups of every run.
struct BuiltTree {
  BenchDir dir;
  U64Key blank{0};
  std::unique_ptr<bt::BTree> tree;
  std::vector<uint64_t> keys;
};

BuiltTree& builtTree(size_t n) {
  static std::map<size_t, std::unique_ptr<BuiltTree>> cache;
  auto& slot = cache[n];
  if (!slot) {
    slot = std::make_unique<BuiltTree>();
    slot->keys = randomKeys(n, 42);
    slot->tree = std::make_unique<bt::BTree>(slot->blank, kOrder);
    if (!slot->tree->open(slot->dir.path())) std::abort();
    for (uint64_t k : slot->keys) slot->tree->addUpdate(U64Key(k), PairRecord(k, ~k));
  }
  return *slot;
}

void BM_BTree_Insert(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  const std::vector<uint64_t> keys = randomKeys(n, 7);
  const U64Key blank(0);
  for (auto _ : state) {
    state.PauseTiming();
    {
      BenchDir dir;
      bt::BTree tree(blank, kOrder);
      if (!tree.open(dir.path())) std::abort();
      state.ResumeTiming();
      for (uint64_t k : keys) tree.addUpdate(U64Key(k), PairRecord(k, ~k));
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}
BENCHMARK(BM_BTree_Insert)->Arg(10000)->Arg(1000000)->Unit(benchmark::kMillisecond)->Iterations(1);

void BM_BTree_Update(benchmark::State& state) {
  BuiltTree& built = builtTree(static_cast<size_t>(state.range(0)));
  std::mt19937_64 rng(3);
  for (auto _ : state) {
    const uint64_t k = built.keys[rng() % built.keys.size()];
    built.tree->addUpdate(U64Key(k), PairRecord(k, ~k));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BTree_Update)->Arg(10000)->Arg(1000000);

void BM_BTree_Lookup(benchmark::State& state) {
  BuiltTree& built = builtTree(static_cast<size_t>(state.range(0)));
  std::mt19937_64 rng(5);
  PairRecord rec;
  for (auto _ : state) {
    const uint64_t k = built.keys[rng() % built.keys.size()];
    benchmark::DoNotOptimize(built.tree->retrieve(U64Key(k), rec));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BTree_Lookup)->Arg(10000)->Arg(1000000);

void BM_BTree_LookupMissing(benchmark::State& state) {
  BuiltTree& built = builtTree(static_cast<size_t>(state.range(0)));
  std::mt19937_64 rng(9);
  PairRecord rec;
  for (auto _ : state) {
    // Even keys are never inserted.
    benchmark::DoNotOptimize(built.tree->retrieve(U64Key(rng() & ~uint64_t{1}), rec));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BTree_LookupMissing)->Arg(10000)->Arg(1000000);

// The baseline: the same keys in memory.
void BM_BTree_StdMapLookup(benchmark::State& state) {
  const std::vector<uint64_t> keys = randomKeys(static_cast<size_t>(state.range(0)), 42);
  std::map<uint64_t, std::pair<uint64_t, uint64_t>> map;
  for (uint64_t k : keys) map[k] = {k, ~k};
  std::mt19937_64 rng(5);
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.find(keys[rng() % keys.size()]));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BTree_StdMapLookup)->Arg(10000)->Arg(1000000);

}  // namespace
