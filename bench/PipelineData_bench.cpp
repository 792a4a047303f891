// Serialising events for a persistent queue and reading them back: a
// 300-byte event with 10 fields on a shared channel, alone and from a
// queue block of events written back to back, with the allocations per
// event read back.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "bench/BenchAllocations.h"
#include "framework/PipelineData.h"
#include "util/InputStream.h"
#include "util/OutputStream.h"
#include "util/StrMem.h"

namespace {

const int EVENTS_PER_BLOCK = 1000;

CowPipelineData typicalEvent() {
  CowPipelineData pd;
  PipelineData* w = pd.writable();
  auto put = [w](const char* k, const Str& v) { w->internal_put(k, std::strlen(k), djb2_hash(k), v); };
  put("_raw", Str(std::string(300, 'x')));
  put("_conf", "source::/var/log/app.log|host::web01|app|");
  put("_time", "1700000000");
  put("_done", "_done");
  put("_linecount", "1");
  put("_path", "/var/log/app.log");
  for (int i = 0; i < 6; i++) put(("field" + std::to_string(i)).c_str(), "value" + std::to_string(i));
  return pd;
}

// Range 0: the typical event; 1: the same raw with nothing else.
CowPipelineData eventOfShape(int shape, benchmark::State& state) {
  if (shape == 0) {
    state.SetLabel("typical");
    return typicalEvent();
  }
  state.SetLabel("raw only");
  CowPipelineData pd;
  pd.writable()->internal_put("_raw", 4, djb2_hash("_raw"), Str(std::string(300, 'x')));
  return pd;
}

void BM_PipelineData_Serialize(benchmark::State& state) {
  CowPipelineData pd = typicalEvent();
  NativeByteOrderOutputStream out(4096, 2);
  for (auto _ : state) {
    out.rewind();
    pd->serialize(out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * out.size()));
}
BENCHMARK(BM_PipelineData_Serialize);

void BM_PipelineData_Ressurrect(benchmark::State& state) {
  CowPipelineData pd = typicalEvent();
  NativeByteOrderOutputStream out(4096, 2);
  pd->serialize(out);
  for (auto _ : state) {
    CowPipelineData back;
    NativeByteOrderInputStream in(out.data(), out.size());
    if (!back.writable()->ressurrect(in, false)) state.SkipWithError("refused");
    benchmark::DoNotOptimize(back.get());
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * out.size()));
}
BENCHMARK(BM_PipelineData_Ressurrect);

// A queue block of events read back one by one, each into a fresh handle
// that a consumer would then pass on.
void BM_PipelineData_ReadQueueBlock(benchmark::State& state) {
  CowPipelineData pd = eventOfShape(static_cast<int>(state.range(0)), state);
  NativeByteOrderOutputStream out(1 << 20, 2);
  for (int i = 0; i < EVENTS_PER_BLOCK; i++) pd->serialize(out);
  uint64_t allocations = 0;
  for (auto _ : state) {
    NativeByteOrderInputStream in(out.data(), out.size());
    const uint64_t before = tAllocations;
    for (int i = 0; i < EVENTS_PER_BLOCK; i++) {
      CowPipelineData back;
      if (!back.writable()->ressurrect(in, false)) state.SkipWithError("refused");
      benchmark::DoNotOptimize(back.get());
    }
    allocations += tAllocations - before;
  }
  const double events = static_cast<double>(state.iterations()) * EVENTS_PER_BLOCK;
  state.counters["allocs/event"] = static_cast<double>(allocations) / events;
  state.SetItemsProcessed(static_cast<int64_t>(events));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * out.size()));
}
BENCHMARK(BM_PipelineData_ReadQueueBlock)->DenseRange(0, 1);

// Baseline: copying the block's bytes, the least a reader could do.
void BM_PipelineData_Baseline_CopyBlock(benchmark::State& state) {
  CowPipelineData pd = typicalEvent();
  NativeByteOrderOutputStream out(1 << 20, 2);
  for (int i = 0; i < EVENTS_PER_BLOCK; i++) pd->serialize(out);
  std::vector<char> copy(out.size());
  for (auto _ : state) {
    std::memcpy(copy.data(), out.data(), out.size());
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * EVENTS_PER_BLOCK);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * out.size()));
}
BENCHMARK(BM_PipelineData_Baseline_CopyBlock);

}  // namespace
