// Timestamp patterns over generated log lines, the way the date parser runs
// them (first hit wins), compiled to machine code and interpreted, beside a
// plain scan of the same lines; and wildcard lists of 1,000 patterns against
// a loop over the same matchers one by one.
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "util/Regex.h"
#include "util/RegexMatch.h"
#include "util/WildcardList.h"
#include "util/WildcardMatcher.h"

namespace {

const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
const char* const kHosts[] = {"web01", "web02", "db-primary", "cache7", "lb-east", "mail"};

// Log lines in the shapes a server meets: syslog, web access, ISO 8601
// application logs, epoch-stamped metrics, and one line in eight with no
// time at all.
struct LogLines {
  std::string text;
  std::vector<StrSegment> lines;
};

const LogLines& logLines(size_t count) {
  static std::map<size_t, std::unique_ptr<LogLines>> cache;
  std::unique_ptr<LogLines>& slot = cache[count];
  if (slot) return *slot;
  slot = std::make_unique<LogLines>();
  std::mt19937 rng(20091011);
  std::vector<size_t> ends;
  char buf[256];
  for (size_t i = 0; i < count; ++i) {
    const int d = 1 + static_cast<int>(rng() % 28);
    const int h = static_cast<int>(rng() % 24);
    const int m = static_cast<int>(rng() % 60);
    const int s = static_cast<int>(rng() % 60);
    const char* mon = kMonths[rng() % 12];
    const char* host = kHosts[rng() % 6];
    int n = 0;
    switch (rng() % 8) {
      case 0:
      case 1:
        n = snprintf(buf, sizeof buf,
                     "%s %2d %02d:%02d:%02d %s sshd[%u]: Accepted password for joe from "
                     "10.1.%u.%u port %u ssh2",
                     mon, d, h, m, s, host, static_cast<unsigned>(rng() % 30000),
                     static_cast<unsigned>(rng() % 256), static_cast<unsigned>(rng() % 256),
                     static_cast<unsigned>(rng() % 65536));
        break;
      case 2:
      case 3:
        n = snprintf(buf, sizeof buf,
                     "10.2.%u.%u - - [%02d/%s/2009:%02d:%02d:%02d -0700] \"GET /item/%u "
                     "HTTP/1.1\" 200 %u",
                     static_cast<unsigned>(rng() % 256), static_cast<unsigned>(rng() % 256), d,
                     mon, h, m, s, static_cast<unsigned>(rng() % 100000),
                     static_cast<unsigned>(rng() % 50000));
        break;
      case 4:
      case 5:
        n = snprintf(buf, sizeof buf,
                     "2009-10-%02dT%02d:%02d:%02d.%03uZ INFO [worker-%u] com.example.Service - "
                     "request done in %u ms",
                     d, h, m, s, static_cast<unsigned>(rng() % 1000),
                     static_cast<unsigned>(rng() % 16), static_cast<unsigned>(rng() % 900));
        break;
      case 6:
        n = snprintf(buf, sizeof buf, "%u host=%s cpu=%u.%u mem=%u",
                     1255263073u + static_cast<unsigned>(rng() % 100000), host,
                     static_cast<unsigned>(rng() % 100), static_cast<unsigned>(rng() % 10),
                     static_cast<unsigned>(rng() % 64000));
        break;
      default:
        n = snprintf(buf, sizeof buf, "    at com.example.Service.handle(Service.java:%u)",
                     static_cast<unsigned>(rng() % 2000));
        break;
    }
    slot->text.append(buf, static_cast<size_t>(n));
    ends.push_back(slot->text.size());
  }
  size_t begin = 0;
  for (size_t end : ends) {
    slot->lines.emplace_back(slot->text.data() + begin, end - begin);
    begin = end;
  }
  return *slot;
}

// 40 timestamp patterns in the style of a timestamp pattern file: the same
// fields with different separators, orders and optional parts. The ones the
// generated lines hit are spread through the list, so a line tries many
// patterns before it wins, and a line without a time tries them all.
std::vector<std::string> timestampPatterns() {
  const std::string month = "(jan|feb|mar|apr|may|jun|jul|aug|sep|oct|nov|dec)\\w*";
  const std::string hms = "(\\d{1,2}):(\\d\\d):(\\d\\d)";
  std::vector<std::string> p;
  for (const char* sep : {"-", "/", "\\.", "_"}) {
    p.push_back(std::string("(\\d{4})") + sep + "(\\d\\d)" + sep + "(\\d\\d) " + hms + ",(\\d{3})");
  }
  p.push_back("(\\d\\d)\\.(\\d\\d)\\.(\\d{4}) " + hms);
  p.push_back("\\b" + month + " +(\\d{1,2}) " + hms);  // syslog
  for (const char* sep : {"-", "/", "\\."}) {
    p.push_back(std::string("(\\d{1,2})") + sep + "(\\d{1,2})" + sep + "(\\d{2,4}) " + hms);
  }
  p.push_back("(\\d{4})(\\d\\d)(\\d\\d)[T ]?(\\d\\d)(\\d\\d)(\\d\\d)\\b");
  for (const char* sep : {" ", "-", "\\.", ","}) {
    p.push_back("(\\d{1,2})" + std::string(sep) + month + sep + "(\\d{4}) " + hms);
  }
  p.push_back(month + " (\\d{1,2}), (\\d{4}) " + hms + " ([ap]m)");
  p.push_back("(mon|tue|wed|thu|fri|sat|sun)\\w* " + month + " (\\d{1,2}) " + hms + " (\\d{4})");
  p.push_back("(\\d{2})(\\d{2})(\\d{2}) " + hms);
  p.push_back("t=(\\d{10})\\.(\\d+)");
  p.push_back("(\\d{1,2})/" + month + "/(\\d{4}):" + hms + " ([+-]\\d{4})");  // access log
  for (const char* sep : {"T", " ", "_"}) {
    p.push_back(std::string("(\\d{4})/(\\d\\d)/(\\d\\d)") + sep + hms);
  }
  p.push_back("@(\\d{10,13})\\b");
  p.push_back("(\\d{4})\\.(\\d{3}) " + hms);
  p.push_back(hms + "\\.(\\d+) (\\d{4})-(\\d\\d)-(\\d\\d)");
  p.push_back("\\[(\\d{4})/(\\d\\d)/(\\d\\d) " + hms + "\\]");
  p.push_back("date=(\\d{4})-(\\d\\d)-(\\d\\d) time=" + hms);
  p.push_back("(\\d{4})-(\\d\\d)-(\\d\\d)T" + hms + "(?:\\.(\\d+))?(z|[+-]\\d\\d:?\\d\\d)?");  // ISO
  for (const char* sep : {"-", "/"}) {
    p.push_back(std::string("(\\d\\d)") + sep + month + sep + "(\\d\\d) " + hms);
  }
  p.push_back("(\\d{4}) " + month + " (\\d{1,2}) " + hms);
  p.push_back(hms + " (\\d{1,2})/(\\d{1,2})/(\\d{4})");
  p.push_back("(\\d{4})-(\\d{3})T" + hms);
  p.push_back("ts:(\\d{4})(\\d\\d)(\\d\\d)");
  p.push_back("^(\\d{10})(?:\\.(\\d{1,6}))?\\b");  // epoch seconds
  p.push_back("(\\d{1,2})h(\\d\\d)m(\\d\\d)s");
  p.push_back("(\\d{4})-(\\d\\d)-(\\d\\d)@" + hms);
  p.push_back("(\\d\\d)(\\d\\d)(\\d{4})-" + hms);
  p.push_back("(\\d{1,2}) " + month + " (\\d{4})");
  p.push_back("(\\d{4})-(\\d\\d)-(\\d\\d)");  // a bare date: the catch-all at the end
  return p;
}

std::vector<Regex> compiledPatterns(bool study) {
  std::vector<Regex> out;
  for (const auto& text : timestampPatterns()) out.emplace_back(text, study, Regex::CASELESS);
  return out;
}

// Each line against the patterns in order until one matches, with groups,
// as the date parser does. Items are lines; "attempts" counts pattern runs.
// The counts go to counters rather than through DoNotOptimize: its lvalue
// form ("+m,r") left a stale count here under g++ 12 at -O1 and up.
void BM_Regex_TimestampFirstHit(benchmark::State& state) {
  const bool study = state.range(0) != 0;
  const LogLines& lines = logLines(static_cast<size_t>(state.range(1)));
  const std::vector<Regex> patterns = compiledPatterns(study);
  RegexMatch m;
  size_t hits = 0;
  size_t attempts = 0;
  for (auto _ : state) {
    for (const StrSegment& line : lines.lines) {
      for (const Regex& r : patterns) {
        ++attempts;
        if (r.matches(line, &m)) {
          ++hits;
          break;
        }
      }
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * lines.lines.size()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * lines.text.size()));
  state.counters["attempts"] = benchmark::Counter(static_cast<double>(attempts), benchmark::Counter::kIsRate);
  state.counters["hit_ratio"] =
      static_cast<double>(hits) / static_cast<double>(state.iterations() * lines.lines.size());
  state.counters["patterns"] = static_cast<double>(patterns.size());
  state.SetLabel(study ? "jit" : "interpreted");
}
BENCHMARK(BM_Regex_TimestampFirstHit)
    ->ArgsProduct({{1, 0}, {1 << 12, 1 << 16, 1 << 20}})
    ->Unit(benchmark::kMillisecond);

// Baseline: one pass over the same lines looking for the first ':'.
void BM_Regex_LineScanBaseline(benchmark::State& state) {
  const LogLines& lines = logLines(static_cast<size_t>(state.range(0)));
  size_t found = 0;
  for (auto _ : state) {
    for (const StrSegment& line : lines.lines) {
      found += memchr(line.data(), ':', line.size()) != nullptr;
    }
  }
  state.counters["found_ratio"] =
      static_cast<double>(found) / static_cast<double>(state.iterations() * lines.lines.size());
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * lines.lines.size()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * lines.text.size()));
}
BENCHMARK(BM_Regex_LineScanBaseline)->Arg(1 << 12)->Arg(1 << 16)->Arg(1 << 20);

// printf into a std::string.
template <class... Args>
std::string printed(const char* fmt, Args... args) {
  char buf[128];
  const int n = snprintf(buf, sizeof buf, fmt, args...);
  return std::string(buf, static_cast<size_t>(n));
}

// 1,000 patterns of the shapes used for host and source lists: most with a
// literal prefix, one in ten starting with a star.
std::vector<std::string> wildcardPatterns() {
  std::vector<std::string> out;
  std::mt19937 rng(99);
  for (int i = 0; out.size() < 1000; ++i) {
    const unsigned r = static_cast<unsigned>(rng());
    switch (i % 10) {
      case 0: case 1: case 2: case 3: out.push_back(printed("host%u*", r % 5000)); break;
      case 4: case 5: case 6: out.push_back(printed("/var/log/app%u/*.log", r % 500)); break;
      case 7: case 8: out.push_back(printed("web%u-*-prod", r % 900)); break;
      default: out.push_back(printed("*.dc%u.example.com", r % 300)); break;
    }
  }
  return out;
}

std::vector<Str> wildcardTexts(size_t count) {
  std::vector<Str> out;
  std::mt19937 rng(7);
  for (size_t i = 0; i < count; ++i) {
    const unsigned r = static_cast<unsigned>(rng());
    switch (r % 4) {
      case 0: out.emplace_back(printed("host%u.example.com", r / 4 % 20000)); break;
      case 1: out.emplace_back(printed("/var/log/app%u/server.log", r / 4 % 2000)); break;
      case 2: out.emplace_back(printed("db%u.dc%u.example.com", r / 4 % 900, r / 4000 % 600)); break;
      default: out.emplace_back(printed("web%u-eu-prod", r / 4 % 2000)); break;
    }
  }
  return out;
}

void BM_WildcardList_IsHit(benchmark::State& state) {
  WildcardList list;
  for (const auto& p : wildcardPatterns()) list.processToken(p);
  const std::vector<Str> texts = wildcardTexts(static_cast<size_t>(state.range(0)));
  size_t hits = 0;
  for (auto _ : state) {
    for (const Str& t : texts) hits += list.isHit(t);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * texts.size()));
  state.counters["hit_ratio"] =
      static_cast<double>(hits) / static_cast<double>(state.iterations() * texts.size());
}
BENCHMARK(BM_WildcardList_IsHit)->Range(1 << 10, 1 << 16);

// Baseline: the same 1,000 matchers tried one after another.
void BM_WildcardList_MatcherLoopBaseline(benchmark::State& state) {
  std::vector<WildcardMatcher> matchers;
  for (const auto& p : wildcardPatterns()) matchers.emplace_back(p.c_str());
  const std::vector<Str> texts = wildcardTexts(static_cast<size_t>(state.range(0)));
  size_t hits = 0;
  size_t start = 0;
  size_t end = 0;
  for (auto _ : state) {
    for (const Str& t : texts) {
      for (const WildcardMatcher& m : matchers) {
        if (m.isMatch(StrSegment(t), start, end)) {
          ++hits;
          break;
        }
      }
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * texts.size()));
}
BENCHMARK(BM_WildcardList_MatcherLoopBaseline)->Range(1 << 10, 1 << 16);

}  // namespace
