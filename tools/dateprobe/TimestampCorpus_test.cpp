// testdata/timestamp_corpus.tsv, the corpus of log lines and the instants
// the date parser must give them: first its consistency, which catches a
// hand edit that leaves it contradicting itself, then the parser on the
// shipped patterns held to every row.

#include <cstdlib>
#include <map>
#include <ctime>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/testing/DateParserTestSupport.h"
#include "util/testing/FixedClock.h"
#include "util/testing/XmlTestInit.h"

namespace {

// The conditions stated in the file's header.
constexpr long long CORPUS_NOW = 1781524800;  // 2026-06-15 12:00:00 UTC
constexpr long long MAX_AGO_SECS = 1825LL * 86400;
constexpr long long MAX_HENCE_SECS = 7LL * 86400;

struct CorpusRow {
  int lineNumber;
  std::vector<std::string> fields;  // seconds, usec, utc, shape, note, line
};

std::vector<CorpusRow> readCorpus(std::vector<std::string>* header) {
  const char* dir = std::getenv("KESTRO_TESTDATA");
  const std::string path = std::string(dir ? dir : "testdata") + "/timestamp_corpus.tsv";
  std::ifstream in(path);
  EXPECT_TRUE(in.good()) << path;
  std::vector<CorpusRow> rows;
  std::string text;
  for (int n = 1; std::getline(in, text); ++n) {
    if (text.empty()) continue;
    if (text[0] == '#') {
      header->push_back(text);
      continue;
    }
    CorpusRow row{n, {}};
    size_t start = 0;
    // The line is the last column and may hold tabs of its own.
    while (row.fields.size() < 5) {
      const size_t tab = text.find('\t', start);
      if (tab == std::string::npos) break;
      row.fields.push_back(text.substr(start, tab - start));
      start = tab + 1;
    }
    row.fields.push_back(text.substr(start));
    rows.push_back(row);
  }
  return rows;
}

// The instant as the utc column writes it, by the C library.
std::string utcText(long long seconds, long usec) {
  const time_t t = static_cast<time_t>(seconds);
  tm broken{};
  gmtime_r(&t, &broken);
  char buf[64];
  strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &broken);
  std::string out = buf;
  if (usec != 0) {
    char frac[16];
    snprintf(frac, sizeof frac, ".%06ld", usec);
    out += frac;
  }
  return out + "Z";
}

TEST(TimestampCorpus, HeaderStatesTheConditionsTheValuesAssume) {
  std::vector<std::string> header;
  readCorpus(&header);
  std::string all;
  for (const std::string& h : header) all += h + "\n";
  for (const char* needed : {"2026-06-15 12:00:00 UTC (1781524800)", "TZ         UTC",
                             "MAX_DAYS_AGO 1825, MAX_DAYS_HENCE 7",
                             "MAX_TIMESTAMP_LOOKAHEAD 150", "utc_seconds", "microseconds"}) {
    EXPECT_NE(std::string::npos, all.find(needed)) << needed;
  }
}

TEST(TimestampCorpus, EveryRowAgreesWithItselfAndTheWindow) {
  std::vector<std::string> header;
  const std::vector<CorpusRow> rows = readCorpus(&header);
  std::set<std::string> datedShapes;
  std::set<std::string> lines;
  int dated = 0;
  int undated = 0;
  for (const CorpusRow& row : rows) {
    SCOPED_TRACE("corpus line " + std::to_string(row.lineNumber));
    ASSERT_EQ(6u, row.fields.size());
    const std::string& line = row.fields[5];
    EXPECT_FALSE(line.empty());
    EXPECT_FALSE(row.fields[3].empty());
    EXPECT_FALSE(row.fields[4].empty()) << "an empty note is written \"-\"";
    EXPECT_TRUE(lines.insert(line).second) << "duplicate line: " << line;
    if (row.fields[0] == "-") {
      ++undated;
      EXPECT_EQ("-", row.fields[1]);
      EXPECT_EQ("-", row.fields[2]);
      continue;
    }
    ++dated;
    datedShapes.insert(row.fields[3]);
    char* end = nullptr;
    const long long seconds = std::strtoll(row.fields[0].c_str(), &end, 10);
    EXPECT_EQ('\0', *end) << row.fields[0];
    const long usec = std::strtol(row.fields[1].c_str(), &end, 10);
    EXPECT_EQ('\0', *end) << row.fields[1];
    EXPECT_GE(usec, 0);
    EXPECT_LE(usec, 999999);
    EXPECT_EQ(utcText(seconds, usec), row.fields[2]);
    // Both bounds are inclusive, as the parser's window is.
    EXPECT_GE(seconds + MAX_AGO_SECS, CORPUS_NOW) << row.fields[2];
    EXPECT_LE(seconds - MAX_HENCE_SECS, CORPUS_NOW) << row.fields[2];
  }
  EXPECT_GE(dated, 400);
  EXPECT_GE(datedShapes.size(), 120u);
  EXPECT_GE(undated, 60);
}

// What the parser made of one row: the instant, or seconds "-" for none.
struct Outcome {
  std::string seconds;
  std::string usec;
};

// Parses every row in file order with `parser`, against the corpus clock.
// Each row starts with no previous event, as the corpus assumes, while the
// parser keeps its memory of patterns and date text from row to row. Counts
// the define that won each part of a dated row in *wins.
// `differences` replaces the expected seconds of the rows it names ("-" for
// nothing), with microseconds 0.
void parseCorpus(ShippedDateParser& parser, const std::vector<CorpusRow>& rows,
                 const std::map<int, std::string>& differences,
                 std::map<std::string, int>* wins) {
  const Timeval now(CORPUS_NOW, 0);
  ScopedFixedClock clock(now);
  for (const CorpusRow& row : rows) {
    const std::string& line = row.fields[5];
    SCOPED_TRACE("corpus line " + std::to_string(row.lineNumber) + ": " + line);
    parser->getGuesser().previous = Timeval();
    Timeval out;
    int ts = -1, te = -1, ds = -1, de = -1;
    ExtraTimevalParseInfo extra;
    const bool found = parser->parseDate(out, StrSegment(line), now, ts, te, ds, de, &extra);
    const Outcome got = found ? Outcome{std::to_string(out.tv_sec), std::to_string(out.tv_usec)}
                              : Outcome{"-", "-"};
    const auto difference = differences.find(row.lineNumber);
    const bool differs = difference != differences.end();
    const std::string seconds = differs ? difference->second : row.fields[0];
    const std::string usec = !differs ? row.fields[1] : seconds == "-" ? "-" : "0";
    EXPECT_EQ(seconds, got.seconds) << "expected " << row.fields[2] << ", got "
                                    << (found ? out.asctime() : Str("nothing"));
    EXPECT_EQ(usec, got.usec);
    if (!found) continue;
    // The regions lie inside the line and the time region is never empty.
    EXPECT_LE(0, ts);
    EXPECT_LT(ts, te);
    EXPECT_LE(static_cast<size_t>(te), line.size());
    if (ds >= 0) {
      EXPECT_LE(static_cast<size_t>(de), line.size());
    }
    const DateParserRegexConf* conf = parser->getConf();
    const Str* timeName = conf->getPatternName(parser->getTimeState().lastRegex);
    if (timeName != nullptr) ++(*wins)[*timeName];
    if (ds >= 0) {
      const Str* dateName = conf->getPatternName(parser->getDateState().lastRegex);
      if (dateName != nullptr) ++(*wins)[*dateName];
    }
  }
}

TEST(TimestampCorpus, ParserWithoutMemoryGivesEveryRowItsInstant) {
  std::vector<std::string> header;
  const std::vector<CorpusRow> rows = readCorpus(&header);
  ShippedDateParser parser(false);
  std::map<std::string, int> wins;
  parseCorpus(parser, rows, {}, &wins);

  // Every pattern of both lists is needed: each wins some row.
  const DateParserRegexConf* conf = parser->getConf();
  for (const DateTimeRegexList* list :
       {static_cast<const DateTimeRegexList*>(&conf->timeList),
        static_cast<const DateTimeRegexList*>(&conf->dateList)}) {
    ASSERT_FALSE(list->empty());
    for (const DateTimeRegex* regex : *list) {
      const Str* name = conf->getPatternName(regex);
      ASSERT_NE(nullptr, name);
      EXPECT_GE(wins[*name], 1) << *name << " wins no row of the corpus";
    }
  }
}

// In file order, rows of one shape follow each other, so a remembered
// pattern settles and goes unchallenged for as long as it matches. That is
// the price of the memory, and these rows pay it; every other row must
// come out as without memory.
TEST(TimestampCorpus, ParserWithMemoryDiffersOnlyWhereASettledPatternMisreads) {
  std::vector<std::string> header;
  const std::vector<CorpusRow> rows = readCorpus(&header);
  ShippedDateParser parser(true);
  std::map<std::string, int> wins;
  parseCorpus(parser, rows,
              {
                  // The settled time pattern reads "1:05:09" and ignores "PM".
                  {168, "1781485509"},
                  // ... and "12:00:00" without its "AM": noon, not midnight.
                  {169, "1781438400"},
                  // The settled year-first date pattern reads 2005-09-26,
                  // outside the window: nothing, and the memory is reset.
                  {250, "-"},
              },
              &wins);
  EXPECT_FALSE(wins.empty());
}

}  // namespace
