// Events through the queues: an in-memory queue with 1 and 4 producers
// against one consumer, a persistent writer once it has spilled to its
// file, and the spill's write rate against plain sequential writes of the
// same record bytes.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "framework/PersistentQueueWriter.h"
#include "framework/ProducerConsumerQueue.h"
#include "util/ConditionWaitTimeout.h"
#include "util/FileDescriptor.h"
#include "util/OutputStream.h"
#include "util/StrMem.h"

namespace {

constexpr int kBatch = 20000;

CowPipelineData event300() {
  CowPipelineData pd;
  PipelineData* w = pd.writable();
  w->internal_put("_raw", 4, djb2_hash("_raw"), Str(std::string(300, 'x')));
  w->internal_put("_time", 5, djb2_hash("_time"), Str("1700000000"));
  return pd;
}

const Pathname& benchDir() {
  static const Pathname dir = [] {
    char templ[] = "/tmp/kestro-queue-bench-XXXXXX";
    if (::mkdtemp(templ) == nullptr) std::abort();
    return Pathname(templ);
  }();
  return dir;
}

// kBatch events per iteration from `producers` threads to one consumer.
void BM_Queue_InMemory(benchmark::State& state) {
  const int producers = static_cast<int>(state.range(0));
  Str name("bench");
  ProducerConsumerQueue q(name, 1 << 20);
  const ConditionWaitTimeout wait(1, 0);
  const CowPipelineData model = event300();
  for (auto _ : state) {
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; p++) {
      threads.emplace_back([&] {
        for (int i = 0; i < kBatch / producers; i++) {
          CowPipelineData e;
          e.createFrom(model);
          while (!q.insertAndClear(e, wait)) {
          }
        }
      });
    }
    CowPipelineData out;
    for (int i = 0; i < kBatch / producers * producers;) {
      if (q.remove(out, wait)) i++;
    }
    for (std::thread& t : threads) t.join();
  }
  state.SetItemsProcessed(state.iterations() * (kBatch / producers * producers));
}
BENCHMARK(BM_Queue_InMemory)->Arg(1)->Arg(4)->UseRealTime();

// Insert and remove through the file of a writer that has spilled, with
// about 1000 events kept in the file so that the area wraps.
void BM_Queue_PersistentThroughFile(benchmark::State& state) {
  const Pathname path = benchDir() / "through";
  path.unlink();
  PersistentQueueWriter w(0, 64 << 20, path);
  const CowPipelineData model = event300();
  CowPipelineData out;
  for (int i = 0; i < 1000; i++) {
    CowPipelineData e = model;
    w.insertAndClear(e);
  }
  for (auto _ : state) {
    CowPipelineData e = model;
    if (!w.insertAndClear(e) || !w.remove(out)) state.SkipWithError("refused");
  }
  state.SetItemsProcessed(state.iterations());
  w.shutdown();
}
BENCHMARK(BM_Queue_PersistentThroughFile)->UseRealTime();

// The spill's write rate: records (8-byte length and serialised event)
// appended with a header commit each.
void BM_Queue_SpillWrite(benchmark::State& state) {
  const Pathname path = benchDir() / "spill";
  const CowPipelineData model = event300();
  NativeByteOrderOutputStream probe(4096, 3);
  model->serialize(probe);
  const uint64_t recordBytes = probe.size() + 8;
  for (auto _ : state) {
    state.PauseTiming();
    path.unlink();
    PersistentQueueWriter w(0, 64 << 20, path);
    state.ResumeTiming();
    for (int i = 0; i < kBatch; i++) {
      CowPipelineData e = model;
      if (!w.insertAndClear(e)) state.SkipWithError("refused");
    }
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBatch * recordBytes));
}
BENCHMARK(BM_Queue_SpillWrite)->Unit(benchmark::kMillisecond)->UseRealTime();

// Baseline: the same record bytes written one record per write() call.
void BM_Queue_SequentialWriteBaseline(benchmark::State& state) {
  const Pathname path = benchDir() / "plain";
  const CowPipelineData model = event300();
  NativeByteOrderOutputStream out(4096, 3);
  const uint64_t length = 0;
  out.write(8, reinterpret_cast<const unsigned char*>(&length));
  model->serialize(out);
  for (auto _ : state) {
    state.PauseTiming();
    ScopedFileDescriptor fd(path.openCreateOrReplace(Pathname::CREATE_PRIVATE));
    state.ResumeTiming();
    for (int i = 0; i < kBatch; i++) {
      if (fd.write(out.data(), out.size()) != static_cast<ssize_t>(out.size())) {
        state.SkipWithError("write failed");
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBatch * out.size()));
}
BENCHMARK(BM_Queue_SequentialWriteBaseline)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
