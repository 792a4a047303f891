// The escaping of log lines and URIs, on text that needs nothing (where both
// must cost no more than a scan) and on text that needs work, each beside a
// plain copy of the same bytes as the baseline.
#include <cstring>
#include <string>

#include <benchmark/benchmark.h>

#include "util/Str.h"

namespace {

// Unreserved in a URI and printable in a log line: nothing to do.
Str cleanText(size_t n) {
  static const char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789-_.~ABCXYZ";
  Str s;
  s.reserve(n);
  for (size_t i = 0; i < n; ++i) s.push_back(kAlphabet[(i * 7) % (sizeof kAlphabet - 1)]);
  return s;
}

// A log line with a tab, a line feed and UTF-8 every so often.
Str dirtyText(size_t n) {
  Str s = cleanText(n);
  for (size_t i = 0; i + 2 < n; i += 16) {
    s[i] = '\t';
    s[i + 1] = '\xc3';
    s[i + 2] = '\xa9';
  }
  if (n) s[n - 1] = '\n';
  return s;
}

void BM_Str_UriEncodeNoop(benchmark::State& state) {
  Str s = cleanText(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    s.uriEncode();
    benchmark::DoNotOptimize(s.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Str_UriEncodeNoop)->Range(8, 1 << 16);

void BM_Str_MakeSafeForLoggingNoop(benchmark::State& state) {
  Str s = cleanText(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    s.makeSafeForLogging();
    benchmark::DoNotOptimize(s.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Str_MakeSafeForLoggingNoop)->Range(8, 1 << 16);

// Baseline: the cheapest full pass, a memchr for a byte that is absent.
void BM_Str_MemchrBaseline(benchmark::State& state) {
  const Str s = cleanText(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(memchr(s.data(), '%', s.size()));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Str_MemchrBaseline)->Range(8, 1 << 16);

void BM_Str_AsUriEncoded(benchmark::State& state) {
  const Str s = dirtyText(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    Str encoded = s.asUriEncoded();
    benchmark::DoNotOptimize(encoded.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Str_AsUriEncoded)->Range(8, 1 << 16);

void BM_Str_UriDecode(benchmark::State& state) {
  const Str encoded = dirtyText(static_cast<size_t>(state.range(0))).asUriEncoded();
  for (auto _ : state) {
    Str s(encoded);
    benchmark::DoNotOptimize(s.uriDecode());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(encoded.size()));
}
BENCHMARK(BM_Str_UriDecode)->Range(8, 1 << 16);

void BM_Str_MakeSafeForLogging(benchmark::State& state) {
  const Str original = dirtyText(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    Str s(original);
    s.makeSafeForLogging();
    benchmark::DoNotOptimize(s.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Str_MakeSafeForLogging)->Range(8, 1 << 16);

// Baseline for the two loops above that copy their input first.
void BM_Str_CopyBaseline(benchmark::State& state) {
  const Str original = dirtyText(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    Str s(original);
    benchmark::DoNotOptimize(s.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Str_CopyBaseline)->Range(8, 1 << 16);

}  // namespace
