// TimeFormat::rawParse and render per line, beside the C library's strptime
// and strftime on the same formats.
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "util/DateTime.h"
#include "util/TimeFormat.h"

namespace {

// Two log formats, the lines they read, and what strptime is given for
// them. strptime has no subseconds: for the first format it reads up to
// the seconds, the fraction is taken with strtoul and the offset with a
// second strptime, which is the least work it needs for the same fields.
struct FormatCase {
  const char* label;
  const char* format;
  const char* strptimeHead;
  const char* strptimeTail;  // after the fraction, or null
};
const FormatCase CASES[] = {
    {"iso-ms-zone", "%Y-%m-%d %H:%M:%S.%3N %z", "%Y-%m-%d %H:%M:%S", " %z"},
    {"syslog", "%b %d %H:%M:%S", "%b %d %H:%M:%S", nullptr},
};

// 1024 lines of one format at instants a few minutes apart.
std::vector<std::string> linesFor(const FormatCase& c) {
  TimeFormat f(c.format);
  std::vector<std::string> lines;
  for (int i = 0; i < 1024; ++i) {
    GmtStructTm t;
    t.fromUnixTime(1700000000L + i * 317L);
    Str out;
    f.render(out, t, static_cast<unsigned long>(i) * 977 % 1000000, t.getRenderOps());
    lines.push_back(out);
  }
  return lines;
}

void BM_TimeFormat_RawParse(benchmark::State& state) {
  const FormatCase& c = CASES[state.range(0)];
  const TimeFormat f(c.format);
  const std::vector<std::string> lines = linesFor(c);
  size_t i = 0, bytes = 0;
  for (auto _ : state) {
    const std::string& line = lines[i++ & 1023];
    TimeFormatRawParseResult pr;
    benchmark::DoNotOptimize(f.rawParse(&pr, line.data(), line.data() + line.size()));
    benchmark::DoNotOptimize(pr);
    bytes += line.size();
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
  state.SetLabel(c.label);
}
BENCHMARK(BM_TimeFormat_RawParse)->DenseRange(0, 1);

void BM_TimeFormat_Strptime(benchmark::State& state) {
  const FormatCase& c = CASES[state.range(0)];
  const std::vector<std::string> lines = linesFor(c);
  size_t i = 0, bytes = 0;
  for (auto _ : state) {
    const std::string& line = lines[i++ & 1023];
    tm t{};
    const char* p = strptime(line.c_str(), c.strptimeHead, &t);
    if (p != nullptr && c.strptimeTail != nullptr && *p == '.') {
      char* after;
      benchmark::DoNotOptimize(std::strtoul(p + 1, &after, 10));
      p = strptime(after, c.strptimeTail, &t);
    }
    benchmark::DoNotOptimize(p);
    benchmark::DoNotOptimize(t);
    bytes += line.size();
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
  state.SetLabel(c.label);
}
BENCHMARK(BM_TimeFormat_Strptime)->DenseRange(0, 1);

// The formats as both renderers know them: strftime has no %3N, so the
// comparison leaves the fraction out.
const char* const RENDER_FORMATS[] = {"%Y-%m-%d %H:%M:%S %z", "%b %d %H:%M:%S"};

void BM_TimeFormat_Render(benchmark::State& state) {
  const TimeFormat f(RENDER_FORMATS[state.range(0)]);
  GmtStructTm t;
  t.fromUnixTime(1700000000L);
  Str out;
  for (auto _ : state) {
    out.clear();
    f.render(out, t, 123456, t.getRenderOps());
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(RENDER_FORMATS[state.range(0)]);
}
BENCHMARK(BM_TimeFormat_Render)->DenseRange(0, 1);

void BM_TimeFormat_Strftime(benchmark::State& state) {
  const char* format = RENDER_FORMATS[state.range(0)];
  GmtStructTm t;
  t.fromUnixTime(1700000000L);
  char buffer[64];
  for (auto _ : state) {
    benchmark::DoNotOptimize(std::strftime(buffer, sizeof buffer, format, &t));
    benchmark::DoNotOptimize(buffer);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(format);
}
BENCHMARK(BM_TimeFormat_Strftime)->DenseRange(0, 1);

}  // namespace
