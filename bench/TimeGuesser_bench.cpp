// Timeval::set on a complete raw parse result, by the way its zone is given,
// beside the C library turning the same civil time into an instant (timegm,
// and mktime under TZ=":<staged New York file>"). Needs the staged zoneinfo
// of this build tree (the stage_zoneinfo target).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <ctime>
#include <random>
#include <vector>

#include "util/DateParserGuesser.h"
#include "util/ExtraTimevalParseInfo.h"
#include "util/TimeFormatRawParseResult.h"
#include "util/TimeGuesser.h"
#include "util/Timeval.h"
#include "util/TimezoneCache.h"
#include "util/testing/TimezoneTestSupport.h"

namespace {

constexpr size_t SAMPLES = 1024;
const char NEW_YORK[] = "America/New_York";

// Civil times of 2025-07-14: within one hour (a stream), or over the day.
std::vector<tm> civilTimes(bool oneHour) {
  std::mt19937 rng(2025);
  std::vector<tm> out(SAMPLES);
  for (tm& t : out) {
    t = tm{};
    t.tm_year = 125;
    t.tm_mon = 6;
    t.tm_mday = 14;
    t.tm_hour = oneHour ? 10 : static_cast<int>(rng() % 24);
    t.tm_min = static_cast<int>(rng() % 60);
    t.tm_sec = static_cast<int>(rng() % 60);
    t.tm_isdst = -1;
  }
  return out;
}

enum ZoneShape { NUMERIC_OFFSET, ABBREVIATION, NAMED_ONE_HOUR, NAMED_ANY_HOUR };
const char* const SHAPE_LABELS[] = {"offset -0400", "abbreviation EDT, name cache",
                                    "TZ America/New_York, one hour",
                                    "TZ America/New_York, any hour"};

std::vector<TimeFormatRawParseResult> rawResults(ZoneShape shape) {
  std::vector<TimeFormatRawParseResult> out;
  for (const tm& t : civilTimes(shape != NAMED_ANY_HOUR)) {
    TimeFormatRawParseResult raw;
    raw.storeYear(t.tm_year + 1900);
    raw.storeMonth(t.tm_mon);
    raw.storeMday(t.tm_mday);
    raw.storeHour24(t.tm_hour);
    raw.storeMinute(t.tm_min);
    raw.storeSecond(t.tm_sec);
    if (shape == NUMERIC_OFFSET) raw.storeTzOffset(-14400);
    if (shape == ABBREVIATION) raw.storeTzName(StrSegment("EDT", 3));
    out.push_back(raw);
  }
  return out;
}

bool useStagedZones(benchmark::State& state) {
  const Pathname dir = stagedZoneinfoDir();
  if (dir.empty()) {
    state.SkipWithError("no staged zoneinfo: build the stage_zoneinfo target");
    return false;
  }
  setupTimezoneSupport(dir);
  return true;
}

void BM_TimeGuesser_Set(benchmark::State& state) {
  if (!useStagedZones(state)) return;
  const auto shape = static_cast<ZoneShape>(state.range(0));
  state.SetLabel(SHAPE_LABELS[shape]);
  const std::vector<TimeFormatRawParseResult> raws = rawResults(shape);
  DateParserGuesser guesser;
  if (shape == NAMED_ONE_HOUR || shape == NAMED_ANY_HOUR) guesser.setTZ(NEW_YORK);
  ExtraTimevalParseInfo extra;
  size_t i = 0;
  for (auto _ : state) {
    TimeFormatRawParseResult raw = raws[i++ & (SAMPLES - 1)];
    Timeval out;
    benchmark::DoNotOptimize(out.set(&raw, &guesser, &extra));
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimeGuesser_Set)->DenseRange(NUMERIC_OFFSET, NAMED_ANY_HOUR);

// The abbreviation through the stateless guesser: the table is bisected on
// every call.
void BM_TimeGuesser_SetBasicAbbreviation(benchmark::State& state) {
  if (!useStagedZones(state)) return;
  const std::vector<TimeFormatRawParseResult> raws = rawResults(ABBREVIATION);
  size_t i = 0;
  for (auto _ : state) {
    TimeFormatRawParseResult raw = raws[i++ & (SAMPLES - 1)];
    Timeval out;
    benchmark::DoNotOptimize(out.set(&raw, TimeGuesser::basic(), nullptr));
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimeGuesser_SetBasicAbbreviation);

void BM_TimeGuesser_Timegm(benchmark::State& state) {
  const std::vector<tm> times = civilTimes(true);
  size_t i = 0;
  for (auto _ : state) {
    tm t = times[i++ & (SAMPLES - 1)];
    benchmark::DoNotOptimize(timegm(&t) + 14400);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimeGuesser_Timegm);

void BM_TimeGuesser_Mktime(benchmark::State& state) {
  const Pathname dir = stagedZoneinfoDir();
  if (dir.empty()) {
    state.SkipWithError("no staged zoneinfo: build the stage_zoneinfo target");
    return;
  }
  ::setenv("TZ", (":" + dir / NEW_YORK).c_str(), 1);
  ::tzset();
  const std::vector<tm> times = civilTimes(state.range(0) == 0);
  state.SetLabel(state.range(0) == 0 ? "one hour" : "any hour");
  size_t i = 0;
  for (auto _ : state) {
    tm t = times[i++ & (SAMPLES - 1)];
    benchmark::DoNotOptimize(mktime(&t));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimeGuesser_Mktime)->DenseRange(0, 1);

}  // namespace
