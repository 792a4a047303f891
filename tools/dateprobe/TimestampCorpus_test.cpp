// Consistency of testdata/timestamp_corpus.tsv, the corpus of log lines and
// the instants the date parser must give them. The parser's own tests read
// the file; these catch a hand edit that leaves it contradicting itself.

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

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

}  // namespace
