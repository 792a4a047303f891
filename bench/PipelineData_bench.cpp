// Serialising events for a persistent queue and reading them back: a
// 300-byte event with 10 fields on a shared channel.
#include <benchmark/benchmark.h>

#include "framework/PipelineData.h"
#include "util/InputStream.h"
#include "util/OutputStream.h"
#include "util/StrMem.h"

namespace {

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

}  // namespace
