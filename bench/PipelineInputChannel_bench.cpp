// Channel lookup by pieces among 1000 live channels, with the heap
// allocations each lookup makes counted (the key is built on the stack, so
// the count should be zero below 1500 bytes), and the meta-key text form
// printed and parsed one atom kind at a time.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "bench/BenchAllocations.h"
#include "framework/PipelineDataMetaKey.h"
#include "framework/PipelineInputChannel.h"

namespace {

struct ChannelFixture {
  std::vector<Str> sources, hosts;
  Str sourcetype = "sourcetype::access_combined", channel = "tcp:9997";
  PipelineInputChannelSet set{true};
  std::vector<PipelineInputChannelReference> held;

  explicit ChannelFixture(size_t count, size_t sourceLength) {
    for (size_t i = 0; i < count; i++) {
      Str source = "source::/var/log/app/" + std::to_string(i) + ".log";
      if (source.size() < sourceLength) source.append(sourceLength - source.size(), 'x');
      sources.push_back(source);
      hosts.push_back("host::web" + std::to_string(i % 37));
    }
    for (size_t i = 0; i < count; i++) {
      const Str* pieces[4] = {&sources[i], &hosts[i], &sourcetype, &channel};
      held.emplace_back(pieces, &set, false);
    }
  }
};

void BM_PipelineInputChannel_LookupByPieces(benchmark::State& state) {
  static ChannelFixture* normal = new ChannelFixture(1000, 0);
  static ChannelFixture* large = new ChannelFixture(1000, 2000);
  ChannelFixture& f = state.range(0) == 0 ? *normal : *large;
  size_t i = 0;
  uint64_t before = tAllocations;
  for (auto _ : state) {
    const Str* pieces[4] = {&f.sources[i], &f.hosts[i], &f.sourcetype, &f.channel};
    PipelineInputChannelReference ref(pieces, &f.set, false);
    benchmark::DoNotOptimize(ref.get());
    if (++i == f.sources.size()) i = 0;
  }
  state.counters["allocs/lookup"] = benchmark::Counter(
      static_cast<double>(tAllocations - before) / static_cast<double>(state.iterations()));
}
BENCHMARK(BM_PipelineInputChannel_LookupByPieces)->Arg(0)->Arg(1)->ArgNames({"longKey"});

const char* const ATOM_TEXTS[] = {
    "date_year::2026",             // number
    "k::some_value",               // pooled string
    "date_month::november",        // predefined string
    "_subsecond::.123456",         // encoded subseconds
    "flag",                        // key alone
    "msg::\"quoted \\\"value\\\"\"",  // escaped string
};
const char* const ATOM_NAMES[] = {"unsigned", "string", "predefined", "subsecond", "missing",
                                  "quoted"};

void BM_PipelineDataMetaKey_Parse(benchmark::State& state) {
  const Str text = ATOM_TEXTS[state.range(0)];
  state.SetLabel(ATOM_NAMES[state.range(0)]);
  uint64_t before = tAllocations;
  for (auto _ : state) {
    PipelineDataMetaKey meta;
    meta.parse(text.data(), text.data() + text.size());
    benchmark::DoNotOptimize(meta.atoms().data());
  }
  state.counters["allocs/parse"] = benchmark::Counter(
      static_cast<double>(tAllocations - before) / static_cast<double>(state.iterations()));
}
BENCHMARK(BM_PipelineDataMetaKey_Parse)->DenseRange(0, 5);

void BM_PipelineDataMetaKey_Print(benchmark::State& state) {
  const Str text = ATOM_TEXTS[state.range(0)];
  state.SetLabel(ATOM_NAMES[state.range(0)]);
  PipelineDataMetaKey meta;
  meta.parse(text.data(), text.data() + text.size());
  Str out;
  out.reserve(256);
  for (auto _ : state) {
    out.clear();
    meta.appendTo(&out, StrSegment(), nullptr);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_PipelineDataMetaKey_Print)->DenseRange(0, 5);

void BM_PipelineDataMetaKey_PrintRawAndPunct(benchmark::State& state) {
  const Str raw = "127.0.0.1 - - [23/Nov/2026:12:00:01 -0800] \"GET /index.html HTTP/1.1\" 200 1043";
  PipelineDataMetaKey meta;
  meta.appendRawOffsetLen("clientip", raw, 0, 9);
  meta.appendPunct();
  Str out;
  out.reserve(256);
  for (auto _ : state) {
    out.clear();
    meta.appendTo(&out, raw, nullptr);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_PipelineDataMetaKey_PrintRawAndPunct);

}  // namespace

// The replacement pair below is malloc/free throughout; GCC cannot see that
// the library's inlined string code reaches this operator new.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(size_t size) {
  tAllocations++;
  if (void* p = std::malloc(size != 0 ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
