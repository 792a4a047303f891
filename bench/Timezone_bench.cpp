// Zone lookups and zone loads, each beside the C library doing the nearest
// equivalent work on the same zone file (TZ=":<staged file>"). Needs the
// staged zoneinfo of this build tree (the stage_zoneinfo target).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "util/DateTime.h"
#include "util/Timezone.h"
#include "util/testing/TimezoneTestSupport.h"

namespace {

const char* const ZONES[] = {"America/New_York", "Europe/London", "Asia/Tokyo",
                             "Australia/Lord_Howe"};
constexpr int ZONE_COUNT = sizeof ZONES / sizeof ZONES[0];

std::vector<long> randomInstants() {
  std::mt19937_64 rng(1970);
  std::vector<long> out(1024);
  for (long& t : out) t = 31536000 + static_cast<long>(rng() % (4102444800ULL - 31536000));
  return out;
}

bool loadZone(int which, Timezone* zone, benchmark::State& state) {
  if (loadStagedZone(ZONES[which], zone)) {
    state.SetLabel(ZONES[which]);
    return true;
  }
  state.SkipWithError("no staged zoneinfo: build the stage_zoneinfo target");
  return false;
}

void pointLibcAt(int which) {
  ::setenv("TZ", (":" + stagedZoneinfoDir() / ZONES[which]).c_str(), 1);
  ::tzset();
}

void BM_Timezone_SearchAt(benchmark::State& state) {
  Timezone zone;
  if (!loadZone(static_cast<int>(state.range(0)), &zone, state)) return;
  const std::vector<long> times = randomInstants();
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(zone.searchAt(times[i++ & 1023]));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Timezone_SearchAt)->DenseRange(0, ZONE_COUNT - 1);

void BM_Timezone_ReverseSearchAt(benchmark::State& state) {
  Timezone zone;
  if (!loadZone(static_cast<int>(state.range(0)), &zone, state)) return;
  const std::vector<long> times = randomInstants();
  size_t i = 0;
  for (auto _ : state) {
    reverse_search_result_type_t how;
    benchmark::DoNotOptimize(zone.reverseSearchAt(times[i++ & 1023], &how));
    benchmark::DoNotOptimize(how);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Timezone_ReverseSearchAt)->DenseRange(0, ZONE_COUNT - 1);

// The whole breakdown in the zone's view.
void BM_Timezone_FromUnixTime(benchmark::State& state) {
  Timezone zone;
  if (!loadZone(static_cast<int>(state.range(0)), &zone, state)) return;
  const std::vector<long> times = randomInstants();
  StructTmInTimezone t(&zone);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(t.fromUnixTime(times[i++ & 1023]));
    benchmark::DoNotOptimize(t);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Timezone_FromUnixTime)->DenseRange(0, ZONE_COUNT - 1);

// Baseline: the C library's localtime_r on the same file.
void BM_Timezone_FromUnixTime_Libc(benchmark::State& state) {
  Timezone zone;
  if (!loadZone(static_cast<int>(state.range(0)), &zone, state)) return;
  pointLibcAt(static_cast<int>(state.range(0)));
  const std::vector<long> times = randomInstants();
  size_t i = 0;
  for (auto _ : state) {
    const time_t t = times[i++ & 1023];
    tm out;
    benchmark::DoNotOptimize(localtime_r(&t, &out));
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Timezone_FromUnixTime_Libc)->DenseRange(0, ZONE_COUNT - 1);

// Local fields back to an instant.
void BM_Timezone_ToUnixTime(benchmark::State& state) {
  Timezone zone;
  if (!loadZone(static_cast<int>(state.range(0)), &zone, state)) return;
  std::vector<StructTmInTimezone> fields;
  for (long t : randomInstants()) {
    fields.emplace_back(&zone);
    fields.back().fromUnixTime(t);
  }
  size_t i = 0;
  for (auto _ : state) {
    StructTmInTimezone t = fields[i++ & 1023];
    benchmark::DoNotOptimize(t.toUnixTime());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Timezone_ToUnixTime)->DenseRange(0, ZONE_COUNT - 1);

// Baseline: mktime on the same file.
void BM_Timezone_ToUnixTime_Libc(benchmark::State& state) {
  Timezone zone;
  if (!loadZone(static_cast<int>(state.range(0)), &zone, state)) return;
  pointLibcAt(static_cast<int>(state.range(0)));
  std::vector<tm> fields;
  for (long t : randomInstants()) {
    const time_t tt = t;
    fields.emplace_back();
    localtime_r(&tt, &fields.back());
  }
  size_t i = 0;
  for (auto _ : state) {
    tm t = fields[i++ & 1023];
    benchmark::DoNotOptimize(std::mktime(&t));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Timezone_ToUnixTime_Libc)->DenseRange(0, ZONE_COUNT - 1);

// A whole zone from its own file: open, map, parse, footer.
void BM_Timezone_LoadFromFile(benchmark::State& state) {
  const Pathname path = stagedZoneinfoDir() / ZONES[state.range(0)];
  auto zone = std::make_unique<Timezone>();
  if (!zone->fromExactZoneinfoPath(path, true)) {
    state.SkipWithError("no staged zoneinfo: build the stage_zoneinfo target");
    return;
  }
  state.SetLabel(ZONES[state.range(0)]);
  for (auto _ : state) benchmark::DoNotOptimize(zone->fromExactZoneinfoPath(path, true));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Timezone_LoadFromFile)->DenseRange(0, ZONE_COUNT - 1);

// The same zone out of the packed file: open, map, bisect the index, parse.
void BM_Timezone_LoadFromPackedFile(benchmark::State& state) {
  const Pathname pack = stagedZoneinfoDir() + ".tzpack";
  auto zone = std::make_unique<Timezone>();
  if (!zone->fromPackedZoneinfoPath(pack, ZONES[state.range(0)], true)) {
    state.SkipWithError("no staged zoneinfo: build the stage_zoneinfo target");
    return;
  }
  state.SetLabel(ZONES[state.range(0)]);
  for (auto _ : state) {
    benchmark::DoNotOptimize(zone->fromPackedZoneinfoPath(pack, ZONES[state.range(0)], true));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Timezone_LoadFromPackedFile)->DenseRange(0, ZONE_COUNT - 1);

// Baseline: the C library rereading a zone file when TZ changes; every other
// load is Etc/UTC, since it skips a file that it has just read.
void BM_Timezone_LoadFromFile_Libc(benchmark::State& state) {
  const Pathname dir = stagedZoneinfoDir();
  if (dir.empty()) {
    state.SkipWithError("no staged zoneinfo: build the stage_zoneinfo target");
    return;
  }
  const std::string a = ":" + dir / ZONES[state.range(0)];
  const std::string b = ":" + dir / "Etc/UTC";
  state.SetLabel(ZONES[state.range(0)]);
  bool flip = false;
  for (auto _ : state) {
    ::setenv("TZ", (flip = !flip) ? a.c_str() : b.c_str(), 1);
    ::tzset();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Timezone_LoadFromFile_Libc)->DenseRange(0, ZONE_COUNT - 1);

}  // namespace
