// DateParser::parseDate on streams of log lines with the shipped pattern
// file: one shape with the memory on (the indexing hot path), ten shapes in
// runs, and the same mix with the memory off; beside one PCRE2 JIT match per
// line and glibc strptime with the format known.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "util/DateParser.h"
#include "util/DateParserConfigRef.h"
#include "util/Pathname.h"
#include "util/Regex.h"
#include "util/RegexMatch.h"
#include "bench/BenchXmlInit.h"

namespace {

// 2026-06-15 12:00:00 UTC: every generated line lies in the hour before.
const Timeval NOW(1781524800, 0);
constexpr size_t LINES = 3600;

// One format per shape, each with the minute and the second of the line.
const char* const SHAPES[] = {
    "2026-06-15 11:%02d:%02d,123 INFO  [main] com.example.Server - request served",
    "Jun 15 11:%02d:%02d host-a sshd[812]: Accepted publickey for user-b from 192.0.2.10",
    "192.0.2.10 - - [15/Jun/2026:11:%02d:%02d +0000] \"GET /index.html HTTP/1.1\" 200 512",
    "2026-06-15T11:%02d:%02d.123456Z level=info msg=\"tick\" worker=3",
    "[Mon Jun 15 11:%02d:%02d 2026] [error] [client 192.0.2.10] File does not exist",
    "06/15/2026 11:%02d:%02d AM job=nightly state=running",
    "Mon, 15 Jun 2026 11:%02d:%02d GMT message delivered to user-b",
    "15-Jun-2026 11:%02d:%02d.250 WARNING disk usage at 91%%",
    "2026/06/15 11:%02d:%02d [notice] 812#0: signal process started",
    "<34>Jun 15 11:%02d:%02d host-b su: 'su root' failed for user-c on /dev/pts/8",
};
constexpr size_t SHAPE_COUNT = sizeof SHAPES / sizeof SHAPES[0];

// Line i of a stream: one second after line i - 1, within 11:00 to 11:59.
std::string lineOf(size_t shape, size_t i) {
  char buf[256];
  snprintf(buf, sizeof buf, SHAPES[shape], static_cast<int>(i / 60 % 60),
           static_cast<int>(i % 60));
  return buf;
}

// One shape, or every shape in runs of 100 lines.
std::vector<std::string> stream(bool mixed) {
  std::vector<std::string> lines;
  for (size_t i = 0; i < LINES; ++i) lines.push_back(lineOf(mixed ? i / 100 % SHAPE_COUNT : 0, i));
  return lines;
}

// A parser on the shipped file with TZ UTC; the handle keeps the file.
struct Parser {
  DateParserConfigRef ref;
  DateParser parser;
  explicit Parser(bool useMemory) : parser(useMemory) {
    ensureXmlInit();
    ref.load(Pathname(KESTRO_SOURCE_DIR) / "home" / "etc" / "datetime.xml", true);
    ref.assignTo(&parser);
    parser.setDateLookahead(150);
    parser.getGuesser().setTZ("UTC");
  }
};

void runParser(benchmark::State& state, bool useMemory, bool mixed) {
  Parser p(useMemory);
  const std::vector<std::string> lines = stream(mixed);
  // Every line must yield its own time, or the figure means nothing.
  for (size_t i = 0; i < lines.size(); ++i) {
    Timeval out;
    int ts, te, ds, de;
    if (!p.parser.parseDate(out, StrSegment(lines[i]), NOW, ts, te, ds, de, nullptr) ||
        out.tv_sec != NOW.tv_sec - 3600 + static_cast<int64_t>(i % 3600) || ts < 0) {
      state.SkipWithError(("misread: " + lines[i]).c_str());
      return;
    }
  }
  size_t i = 0;
  const uint64_t time0 = p.parser.getTimeEvaluations();
  const uint64_t date0 = p.parser.getDateEvaluations();
  for (auto _ : state) {
    Timeval out;
    int ts, te, ds, de;
    benchmark::DoNotOptimize(
        p.parser.parseDate(out, StrSegment(lines[i]), NOW, ts, te, ds, de, nullptr));
    benchmark::DoNotOptimize(out);
    if (++i == lines.size()) i = 0;
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["time_regex_per_line"] = (p.parser.getTimeEvaluations() - time0) / n;
  state.counters["date_regex_per_line"] = (p.parser.getDateEvaluations() - date0) / n;
  state.SetItemsProcessed(state.iterations());
}

void BM_DateParser_SteadyStreamMemoryOn(benchmark::State& state) { runParser(state, true, false); }
BENCHMARK(BM_DateParser_SteadyStreamMemoryOn);

void BM_DateParser_MixedStreamMemoryOn(benchmark::State& state) { runParser(state, true, true); }
BENCHMARK(BM_DateParser_MixedStreamMemoryOn);

void BM_DateParser_MixedStreamMemoryOff(benchmark::State& state) {
  runParser(state, false, true);
}
BENCHMARK(BM_DateParser_MixedStreamMemoryOff);

// Baseline: one match of the one pattern that fits the steady stream.
void BM_DateParser_BaselinePcreJitMatch(benchmark::State& state) {
  const Regex regex("(\\d{4})-(\\d\\d)-(\\d\\d) (\\d\\d):(\\d\\d):(\\d\\d),(\\d+)");
  const std::vector<std::string> lines = stream(false);
  RegexMatch match;
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(regex.matches(StrSegment(lines[i]), &match));
    if (++i == lines.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DateParser_BaselinePcreJitMatch);

// Baseline: glibc strptime with the format known, then timegm.
void BM_DateParser_BaselineStrptime(benchmark::State& state) {
  const std::vector<std::string> lines = stream(false);
  size_t i = 0;
  for (auto _ : state) {
    tm broken = {};
    benchmark::DoNotOptimize(strptime(lines[i].c_str(), "%Y-%m-%d %H:%M:%S", &broken));
    benchmark::DoNotOptimize(timegm(&broken));
    if (++i == lines.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DateParser_BaselineStrptime);

}  // namespace
