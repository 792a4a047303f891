// FileTracker: lookups that hit the pending map in memory against lookups
// that go to the fish bucket on disk (page cache warm), commits that
// overwrite a record in place, pending updates, and the MD5 identity over a
// typical window of bytes. The bare tree's figures are in BTree_bench.cpp.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "framework/FileTracker.h"
#include "bench/BenchDir.h"
#include "util/LogChannel.h"
#include "util/Logger.h"
#include "util/Pathname.h"

namespace {

FishRecord recordAt(int64_t seekPtr) {
  return FishRecord(1700000000, 1700000000, CRC_t(0x5eec), CRC_t(0xf11e), seekPtr, 0);
}

// One tracker per size with every key committed, and the same keys pending
// in a second tracker.
struct Trackers {
  BenchDir committedDir, pendingDir;
  FileTracker committed, pending;
  std::vector<CRC_t> keys;
};

Trackers& trackers(size_t n) {
  static std::map<size_t, std::unique_ptr<Trackers>> cache;
  auto& slot = cache[n];
  if (!slot) {
    if (!Logger::isInitialized()) Logger::initialize();
    LogChannel::root().setLevel(LOGLEVEL_ERROR);
    slot = std::make_unique<Trackers>();
    if (!slot->committed.init(slot->committedDir.path()) ||
        !slot->pending.init(slot->pendingDir.path())) {
      std::abort();
    }
    std::mt19937_64 rng(n);
    for (size_t i = 0; i < n; ++i) {
      const CRC_t key(rng() | 1);
      slot->keys.push_back(key);
      slot->committed.addUpdate(key, recordAt(int64_t(i)));
      slot->pending.addUpdatePending(key, int64_t(i), CRC_t(0x5eec), CRC_t(0xf11e), "/var/log/x");
    }
  }
  return *slot;
}

void BM_FileTracker_LookupCommitted(benchmark::State& state) {
  Trackers& t = trackers(size_t(state.range(0)));
  FishRecord got;
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(t.committed.retrieve(t.keys[i], got, Pathname()));
    if (++i == t.keys.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FileTracker_LookupCommitted)->Arg(10000)->Arg(100000);

void BM_FileTracker_LookupPending(benchmark::State& state) {
  Trackers& t = trackers(size_t(state.range(0)));
  FishRecord got;
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(t.pending.retrieve(t.keys[i], got, Pathname()));
    if (++i == t.keys.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FileTracker_LookupPending)->Arg(10000)->Arg(100000);

// A commit of a known file: one record overwritten in place.
void BM_FileTracker_Update(benchmark::State& state) {
  Trackers& t = trackers(size_t(state.range(0)));
  size_t i = 0;
  int64_t ptr = 0;
  for (auto _ : state) {
    t.committed.addUpdate(t.keys[i], recordAt(++ptr));
    if (++i == t.keys.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FileTracker_Update)->Arg(10000)->Arg(100000);

void BM_FileTracker_AddUpdatePending(benchmark::State& state) {
  Trackers& t = trackers(size_t(state.range(0)));
  size_t i = 0;
  int64_t ptr = 0;
  for (auto _ : state) {
    t.pending.addUpdatePending(t.keys[i], ++ptr, CRC_t(0x5eec), CRC_t(0xf11e), "/var/log/x");
    if (++i == t.keys.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FileTracker_AddUpdatePending)->Arg(10000)->Arg(100000);

void BM_FileTracker_ComputeCRC(benchmark::State& state) {
  const std::string bytes(size_t(state.range(0)), 'x');
  for (auto _ : state) {
    benchmark::DoNotOptimize(FileTracker::computeCRC(bytes.data(), bytes.size()));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FileTracker_ComputeCRC)->Arg(256)->Arg(4096);

}  // namespace
