// Timeval's record form and breakdown, each beside the C library doing the
// nearest equivalent work.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <ctime>
#include <random>
#include <vector>

#include "util/DateTime.h"
#include "util/Timeval.h"

namespace {

std::vector<Timeval> randomInstants(size_t n) {
  std::mt19937_64 rng(1970);
  std::vector<Timeval> out;
  out.reserve(n);
  for (size_t i = 0; i < n; ++i) {
    out.emplace_back(static_cast<int64_t>(1 + rng() % 4102444800ULL),
                     static_cast<int64_t>(rng() % 1000000));
  }
  return out;
}

void BM_Timeval_Serialize(benchmark::State& state) {
  const std::vector<Timeval> times = randomInstants(1024);
  size_t i = 0;
  for (auto _ : state) {
    Str text = times[i++ & 1023].serialize();
    benchmark::DoNotOptimize(text);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Timeval_Serialize);

// Baseline: a fixed-width hexadecimal rendering of the same two fields.
void BM_Timeval_Serialize_Snprintf(benchmark::State& state) {
  const std::vector<Timeval> times = randomInstants(1024);
  size_t i = 0;
  for (auto _ : state) {
    const Timeval& t = times[i++ & 1023];
    char text[32];
    std::snprintf(text, sizeof text, "%010llx%08llx", static_cast<unsigned long long>(t.tv_sec),
                  static_cast<unsigned long long>(t.tv_usec * 1000));
    benchmark::DoNotOptimize(text);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Timeval_Serialize_Snprintf);

void BM_Timeval_Resurrect(benchmark::State& state) {
  std::vector<Str> texts;
  for (const Timeval& t : randomInstants(1024)) texts.push_back(t.serialize());
  size_t i = 0;
  Timeval back;
  for (auto _ : state) {
    benchmark::DoNotOptimize(back.resurrect(texts[i++ & 1023]));
    benchmark::DoNotOptimize(back);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Timeval_Resurrect);

void BM_Timeval_GmtBreakdown(benchmark::State& state) {
  const std::vector<Timeval> times = randomInstants(1024);
  size_t i = 0;
  GmtStructTm out;
  for (auto _ : state) {
    benchmark::DoNotOptimize(times[i++ & 1023].gmtime(&out));
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Timeval_GmtBreakdown);

void BM_Timeval_GmtBreakdown_Libc(benchmark::State& state) {
  const std::vector<Timeval> times = randomInstants(1024);
  size_t i = 0;
  tm out;
  for (auto _ : state) {
    const time_t t = times[i++ & 1023].tv_sec;
    benchmark::DoNotOptimize(gmtime_r(&t, &out));
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Timeval_GmtBreakdown_Libc);

}  // namespace
