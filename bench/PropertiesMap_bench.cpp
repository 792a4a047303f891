// Reading settings out of a merged stanza (fill over a 1,000-key map, every
// key found, and every key missed) and merging two 1,000-key layers into a
// fresh map with addLayerTo, each beside the same work on a
// std::map<std::string, std::string>.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "libbundle/PropertiesMap.h"

namespace {

constexpr size_t kKeys = 1000;

// Setting names as configuration writes them: "TIME_FORMAT_17",
// "MAX_DAYS_AGO_412".
std::vector<Str> settingNames(size_t count, const char* salt) {
  static const char* const kStems[] = {
      "TIME_FORMAT", "TIME_PREFIX", "MAX_DAYS_AGO",  "SHOULD_LINEMERGE", "TRUNCATE",
      "TZ",          "priority",    "REPORT-fields", "EXTRACT-ip",       "LINE_BREAKER"};
  std::vector<Str> names;
  names.reserve(count);
  char buf[64];
  for (size_t i = 0; i < count; ++i) {
    std::snprintf(buf, sizeof buf, "%s%s_%zu", kStems[i % 10], salt, i / 10);
    names.emplace_back(buf);
  }
  return names;
}

PropertiesMap layerOf(const std::vector<Str>& names, PropertySourceType type) {
  PropertiesMap m;
  for (const Str& n : names) {
    m.put(n, "value of " + n);
    m.getProperty(n)->setSourceType(type);
  }
  m.getEmbeddedProperty().setSourceType(type);
  return m;
}

std::map<std::string, std::string> plainOf(const std::vector<Str>& names) {
  std::map<std::string, std::string> m;
  for (const Str& n : names) m.emplace(n, "value of " + n);
  return m;
}

std::vector<Str> shuffled(std::vector<Str> names) {
  std::shuffle(names.begin(), names.end(), std::mt19937(42));
  return names;
}

// range(0): 1 looks up keys that are there, 0 keys that are not.
void BM_PropertiesMap_Fill(benchmark::State& state) {
  const std::vector<Str> names = settingNames(kKeys, "");
  const PropertiesMap m = layerOf(names, SOURCE_APP);
  const std::vector<Str> queries = shuffled(state.range(0) ? names : settingNames(kKeys, "X"));
  Str out;
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(m.fill(queries[i], out));
    if (++i == queries.size()) i = 0;
  }
  state.SetLabel(state.range(0) ? "hits" : "misses");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PropertiesMap_Fill)->Arg(1)->Arg(0);

void BM_PropertiesMap_StdMapFindBaseline(benchmark::State& state) {
  const std::vector<Str> names = settingNames(kKeys, "");
  const std::map<std::string, std::string> m = plainOf(names);
  const std::vector<Str> queries = shuffled(state.range(0) ? names : settingNames(kKeys, "X"));
  std::string out;
  size_t i = 0;
  for (auto _ : state) {
    const auto it = m.find(queries[i]);
    if (it != m.end() && !it->second.empty()) out = it->second;
    benchmark::DoNotOptimize(out);
    if (++i == queries.size()) i = 0;
  }
  state.SetLabel(state.range(0) ? "hits" : "misses");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PropertiesMap_StdMapFindBaseline)->Arg(1)->Arg(0);

// Two layers of 1,000 keys; range(0) of them (per thousand) are shared, so
// 0 merges 2,000 distinct keys and 1000 merges the same 1,000 twice.
std::vector<Str> secondLayerNames(int sharedPerThousand) {
  std::vector<Str> names = settingNames(kKeys, "B");
  const std::vector<Str> first = settingNames(kKeys, "");
  for (size_t i = 0; i < static_cast<size_t>(sharedPerThousand); ++i) names[i] = first[i];
  return names;
}

void BM_PropertiesMap_AddLayerTo(benchmark::State& state) {
  const PropertiesMap user = layerOf(settingNames(kKeys, ""), SOURCE_USER);
  const PropertiesMap app = layerOf(secondLayerNames(static_cast<int>(state.range(0))), SOURCE_APP);
  for (auto _ : state) {
    PropertiesMap merged;
    user.addLayerTo(merged, true, "user");
    app.addLayerTo(merged, true, "app");
    benchmark::DoNotOptimize(merged.size());
  }
  state.SetItemsProcessed(state.iterations() * 2 * static_cast<int64_t>(kKeys));
}
BENCHMARK(BM_PropertiesMap_AddLayerTo)->Arg(0)->Arg(500)->Arg(1000);

void BM_PropertiesMap_StdMapMergeBaseline(benchmark::State& state) {
  const auto user = plainOf(settingNames(kKeys, ""));
  const auto app = plainOf(secondLayerNames(static_cast<int>(state.range(0))));
  for (auto _ : state) {
    std::map<std::string, std::string> merged;
    merged.insert(user.begin(), user.end());
    merged.insert(app.begin(), app.end());
    benchmark::DoNotOptimize(merged.size());
  }
  state.SetItemsProcessed(state.iterations() * 2 * static_cast<int64_t>(kKeys));
}
BENCHMARK(BM_PropertiesMap_StdMapMergeBaseline)->Arg(0)->Arg(500)->Arg(1000);

}  // namespace
