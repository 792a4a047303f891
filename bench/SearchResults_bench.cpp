// Result tables: CSV writing and reading, plain and gzipped, and filtering
// 1,000,000 rows of 10 fields with a five-term search.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <random>
#include <string>

#include "framework/SearchEvaluator.h"
#include "framework/SearchResults.h"
#include "util/Pathname.h"
#include "util/Str.h"

namespace {

const size_t ROWS = 1000000;
const size_t CSV_ROWS = 200000;

void fillRows(SearchResults& sr, size_t rows) {
  std::mt19937 rng(99);
  const char* words[] = {"error", "warn", "info", "disk", "net", "user", "login", "fail"};
  const char* hosts[] = {"web01", "web02", "db01", "cache 3"};
  for (size_t i = 0; i < rows; ++i) {
    SearchResult* r = sr.addNewResult();
    std::string raw = std::to_string(1700000000 + i);
    for (int w = 0; w < 6; ++w) {
      raw.push_back(' ');
      raw.append(words[rng() % 8]);
    }
    r->setValue(Str("_raw"), raw);
    r->setValue(Str("_time"), Str(std::to_string(1700000000 + i)));
    r->setValue(Str("host"), hosts[rng() % 4]);
    r->setValue(Str("status"), Str(std::to_string(200 + rng() % 4 * 100)));
    r->setValue(Str("bytes"), Str(std::to_string(rng() % 100000)));
    std::string user("u");
    user.append(std::to_string(rng() % 1000));
    r->setValue(Str("user"), Str(user));
    r->setValue(Str("path"), "/a/b,\"c\"");
    r->setValue(Str("ms"), Str(std::to_string(rng() % 5000)));
    r->setValue(Str("region"), rng() % 2 ? "eu" : "us");
    r->setValue(Str("note"), "");
  }
}

Pathname benchFile(const char* leaf) {
  const char* tmp = std::getenv("TMPDIR");
  Pathname dir(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp");
  std::string name("kestro-sr-bench-");
  name.append(std::to_string(::getpid()));
  name.append(leaf);
  return dir / name;
}

void BM_SearchResults_WriteCSV(benchmark::State& state, const char* leaf) {
  SearchResults sr;
  fillRows(sr, CSV_ROWS);
  Pathname p = benchFile(leaf);
  Str bytes;
  sr.toCSV(bytes);
  for (auto _ : state) {
    if (!sr.toCSV(p)) state.SkipWithError("write failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
  ::unlink(p.c_str());
}

void BM_SearchResults_ReadCSV(benchmark::State& state, const char* leaf) {
  SearchResults sr;
  fillRows(sr, CSV_ROWS);
  Pathname p = benchFile(leaf);
  sr.toCSV(p);
  Str bytes;
  sr.toCSV(bytes);
  for (auto _ : state) {
    SearchResults in;
    if (!in.fromCSV(p)) state.SkipWithError("read failed");
    benchmark::DoNotOptimize(in.size());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
  ::unlink(p.c_str());
}

BENCHMARK_CAPTURE(BM_SearchResults_WriteCSV, plain, ".csv")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_SearchResults_WriteCSV, gzip, ".csv.gz")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_SearchResults_ReadCSV, plain, ".csv")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_SearchResults_ReadCSV, gzip, ".csv.gz")->Unit(benchmark::kMillisecond);

void BM_SearchResults_Filter(benchmark::State& state) {
  SearchResults base;
  fillRows(base, ROWS);
  SearchEvaluator ev(Str("error disk host=web* status<400 NOT region=us"));
  size_t kept = 0;
  for (auto _ : state) {
    kept = 0;
    for (size_t i = 0; i < base.size(); ++i) kept += ev.isMatch(base[i], {}) == 1;
  }
  state.counters["kept"] = static_cast<double>(kept);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * base.size()));
}
BENCHMARK(BM_SearchResults_Filter)->Unit(benchmark::kMillisecond);

// filter() itself, rows erased in place; the copy it works on is made
// outside the timing.
void BM_SearchResults_FilterCall(benchmark::State& state) {
  SearchResults base;
  fillRows(base, ROWS);
  SearchEvaluator ev(Str("error disk host=web* status<400 NOT region=us"));
  size_t kept = 0;
  for (auto _ : state) {
    state.PauseTiming();
    SearchResults rows;
    rows.append(base);
    state.ResumeTiming();
    ev.filter(rows, {}, false);
    kept = rows.size();
    state.PauseTiming();
    rows.freeAll();
    state.ResumeTiming();
  }
  state.counters["kept"] = static_cast<double>(kept);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * base.size()));
}
BENCHMARK(BM_SearchResults_FilterCall)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
