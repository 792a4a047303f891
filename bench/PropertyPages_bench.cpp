// fillLayers over a cache of 1,000 stanzas, half of them source patterns:
// with every stanza regex still to compile (cold), with the process-wide
// pattern map warm but each stanza's own pointer cold (new cache), and
// fully warm. The baseline matches the same 500 compiled regexes directly.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <vector>

#include "libbundle/FillLayers.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/testing/FixedConfCache.h"
#include "util/Regex.h"

namespace {

constexpr int kStanzas = 1000;
const char kContext[] = "source::/var/log/app250/current.log|host::web250|st250";

// `generation` goes into every pattern name, as an empty alternative that
// changes nothing about what it matches, so a new generation has no
// compiled regex anywhere yet.
std::map<Str, PropertiesMap> makeStanzas(int generation) {
  std::map<Str, PropertiesMap> stanzas;
  for (int i = 0; i < kStanzas / 2; ++i) {
    PropertiesMap pattern;
    pattern.put("TIME_FORMAT", "%s");
    pattern.getEmbeddedProperty().setSourceType(SOURCE_APP);
    stanzas[Str().format("source::/var/log/app%d/....log(?:|g%d)", i, generation)] = pattern;
    PropertiesMap plain;
    plain.put("TZ", "UTC");
    plain.getEmbeddedProperty().setSourceType(SOURCE_APP);
    stanzas[Str().format("st%d", i)] = plain;
  }
  PropertiesMap dflt;
  dflt.put("MAX_TIMESTAMP_LOOKAHEAD", "128");
  stanzas["default"] = dflt;
  return stanzas;
}

void BM_PropertyPages_FillLayersCold(benchmark::State& state) {
  static int generation = 1000;
  // Held across iterations, so the last one is destroyed while the clock is
  // stopped.
  std::unique_ptr<FixedConfCache> cache;
  for (auto _ : state) {
    state.PauseTiming();
    cache = std::make_unique<FixedConfCache>();
    cache->set(makeStanzas(++generation));
    { ScopedIConfCacheLock rebuild(*cache); }  // the copy-in is not what is measured
    PropertiesMap out;
    state.ResumeTiming();
    fillLayersImpl(*cache, &out, kContext, true);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PropertyPages_FillLayersCold)->Unit(benchmark::kMicrosecond);

void BM_PropertyPages_FillLayersNewCache(benchmark::State& state) {
  const std::map<Str, PropertiesMap> stanzas = makeStanzas(0);
  {
    FixedConfCache warmup;
    warmup.set(stanzas);
    PropertiesMap out;
    fillLayersImpl(warmup, &out, kContext, true);
  }
  std::unique_ptr<FixedConfCache> cache;
  for (auto _ : state) {
    state.PauseTiming();
    cache = std::make_unique<FixedConfCache>();
    cache->set(stanzas);
    { ScopedIConfCacheLock rebuild(*cache); }
    PropertiesMap out;
    state.ResumeTiming();
    fillLayersImpl(*cache, &out, kContext, true);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PropertyPages_FillLayersNewCache)->Unit(benchmark::kMicrosecond);

void BM_PropertyPages_FillLayersWarm(benchmark::State& state) {
  FixedConfCache cache;
  cache.set(makeStanzas(0));
  for (auto _ : state) {
    PropertiesMap out;
    fillLayersImpl(cache, &out, kContext, true);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PropertyPages_FillLayersWarm)->Unit(benchmark::kMicrosecond);

// The floor: the whole-string matches of the 500 patterns against the three
// contexts, with nothing else.
void BM_PropertyPages_RegexOnlyBaseline(benchmark::State& state) {
  std::vector<Regex> regexes;
  for (int i = 0; i < kStanzas / 2; ++i) {
    regexes.emplace_back(Str().format("source::/var/log/app%d/.*\\.log(?:|g0)", i));
  }
  const StrSegment contexts[] = {"source::/var/log/app250/current.log", "host::web250", "st250"};
  for (auto _ : state) {
    int hits = 0;
    for (const StrSegment& c : contexts) {
      for (const Regex& r : regexes) hits += r.matchesWhole(c);
    }
    benchmark::DoNotOptimize(hits);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PropertyPages_RegexOnlyBaseline)->Unit(benchmark::kMicrosecond);

}  // namespace
