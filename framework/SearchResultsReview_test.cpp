// The CSV exchange format of SearchResults byte for byte, multi-value
// encoding, damaged headers and records, gzipped and split files, and the
// temporary files behind a table.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "framework/SearchResults.h"
#include "util/LogAppender.h"
#include "util/LogChannel.h"
#include "util/Logger.h"
#include "util/testing/GzipTestSupport.h"
#include "util/testing/TestTempDir.h"

namespace {

// Sends every log channel into one file for the length of a test, so that
// messages are found whatever channel the code logs on.
class AllLogs {
 public:
  AllLogs() {
    if (!Logger::isInitialized()) Logger::initialize();
    static unsigned serial = 0;
    _path = _dir / "all.log";
    _appender = LogAppender::find(Str().format("reviewAllLogs%u", ++serial), true);
    const std::map<Str, Pathname> none;
    _appender->setAttribute("fileName", _path, none);
    _appender->setAttribute("layout.ConversionPattern", "%p %m%n", none);
    std::vector<LogChannel*> channels{&LogChannel::root()};
    for (const auto& [name, chan] : LogChannel::getAll()) channels.push_back(chan);
    for (LogChannel* c : channels) {
      _saved.push_back({c, c->level(), c->appenders()});
      c->setAppenders({_appender});
      c->setLevel(LOGLEVEL_DEBUG);
    }
  }
  ~AllLogs() {
    for (const auto& s : _saved) {
      s.chan->setAppenders(s.appenders);
      s.chan->setLevel(static_cast<LogLevel>(s.level));
    }
    _appender->setAttribute("fileName", "", {});
  }
  std::string text() const { return readTestFile(_path); }
  bool has(const std::string& needle) const { return text().find(needle) != std::string::npos; }

 private:
  struct Saved {
    LogChannel* chan;
    int level;
    std::vector<LogAppender*> appenders;
  };
  TestTempDir _dir;
  Pathname _path;
  LogAppender* _appender;
  std::vector<Saved> _saved;
};

// A value of one cell in a table literal: absent, or present (maybe empty).
struct Cell {
  bool present;
  std::string value;
};
const Cell kMissing{false, ""};
Cell v(const std::string& s) { return {true, s}; }

void addRow(SearchResults& t, const std::vector<std::string>& cols, const std::vector<Cell>& cells) {
  SearchResult* r = t.addNewResult();
  for (size_t i = 0; i < cols.size(); ++i) {
    const size_t idx = t.keyIndex(Str(cols[i]), true);
    if (cells[i].present) r->setValue(idx, StrSegment(Str(cells[i].value)));
  }
}

std::string cellOf(const SearchResults& t, size_t row, const char* name) {
  Str out;
  if (!t[row]->getValue(Str(name), out)) return "<missing>";
  return out;
}

std::string toCsv(const SearchResults& t, const StrVector& fields = StrVector(),
                  bool dropCR = false) {
  Str out;
  EXPECT_TRUE(t.toCSV(out, fields, SIZE_MAX, true, dropCR));
  return out;
}

TEST(SearchResultsReview, CsvEscapeQuotesEverythingButAlphanumerics) {
  const struct {
    std::string in;
    bool dropCR;
    std::string out;
  } kCases[] = {
      {"", false, "\"\""},
      {"abc", false, "abc"},
      {"ABC123", false, "ABC123"},
      {"123", false, "123"},
      {"a b", false, "\"a b\""},
      {"_raw", false, "\"_raw\""},  // underscore is not alphanumeric
      {"1.5", false, "\"1.5\""},
      {"-1", false, "\"-1\""},
      {"a,b", false, "\"a,b\""},
      {"a\"b", false, "\"a\"\"b\""},
      {"\"", false, "\"\"\"\""},
      {"\"\"", false, "\"\"\"\"\"\""},
      {"a\nb", false, "\"a\nb\""},
      {"a\r\nb", false, "\"a\r\nb\""},
      {"a\r\nb", true, "\"a\nb\""},
      {"a\rb", true, "\"ab\""},    // the CR still opened the quote
      {"\r", true, "\"\""},
      {"abc", true, "abc"},
      {"\xc3\xa9t\xc3\xa9", false, "\"\xc3\xa9t\xc3\xa9\""},  // bytes above 127
      {std::string("a\0b", 3), false, std::string("\"a\0b\"", 5)},
      {"ab\"", false, "\"ab\"\"\""},  // the quote opens after bare bytes
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.in));
    Str out("pre|");
    SearchResults::csvEscape(StrSegment(Str(c.in)), out, c.dropCR);
    EXPECT_EQ(std::string(out), "pre|" + c.out);
  }
}

TEST(SearchResultsReview, DropCrRemovesCarriageReturnsOnlyWhenAsked) {
  SearchResults t;
  addRow(t, {"x", "y"}, {v("a\r\nb"), v("c")});
  EXPECT_EQ(toCsv(t, {}, false), "x,y\n\"a\r\nb\",c\n");
  EXPECT_EQ(toCsv(t, {}, true), "x,y\n\"a\nb\",c\n");
}

TEST(SearchResultsReview, SplitsRecordsIntoFieldsAndPresence) {
  const struct {
    std::string line;
    std::vector<std::string> fields;
    std::vector<bool> present;
  } kCases[] = {
      {"a,b,c", {"a", "b", "c"}, {true, true, true}},
      {"a,,c", {"a", "", "c"}, {true, false, true}},
      {"\"\",x", {"", "x"}, {true, true}},
      {",", {"", ""}, {false, false}},
      {"\"a,b\",c", {"a,b", "c"}, {true, true}},
      {"\"a\"\"b\"", {"a\"b"}, {true}},
      {"\"a\"\",b\"", {"a\",b"}, {true}},
      {"\"a\nb\",c", {"a\nb", "c"}, {true, true}},
      {"x,\"y\"", {"x", "y"}, {true, true}},
      {"\"\"\"\"", {"\""}, {true}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.line));
    StrVector fields;
    std::vector<bool> present;
    ASSERT_TRUE(SearchResults::splitCSVLine(StrSegment(Str(c.line)), fields, present));
    ASSERT_EQ(fields.size(), c.fields.size());
    for (size_t i = 0; i < fields.size(); ++i) EXPECT_EQ(std::string(fields[i]), c.fields[i]);
    EXPECT_EQ(present, c.present);
  }
}

TEST(SearchResultsReview, RejectsRecordsWithUnclosedQuotes) {
  for (const char* line : {"\"abc", "a,\"b", "\"a\"\"", "x,\"y\"\",z"}) {
    SCOPED_TRACE(line);
    StrVector fields;
    std::vector<bool> present;
    EXPECT_FALSE(SearchResults::splitCSVLine(StrSegment(line), fields, present));
  }
}

TEST(SearchResultsReview, InQuoteTracksAnOpenQuote) {
  const struct {
    const char* text;
    bool open;
  } kCases[] = {
      {"abc", false},    {"\"abc", true},     {"\"a\"", false},  {"\"a\"\"b\"", false},
      {"a,\"b", true},   {"\"\"\"\"", false}, {"\"\"\"", true},  {"", false},
      {"\"a\nb", true},  {"x,\"y\",\"", true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(SearchResults::inQuote(StrSegment(c.text)), c.open);
  }
}

TEST(SearchResultsReview, QuotedNewlinesKeepOneRecordAcrossPhysicalLines) {
  SearchResults t;
  ASSERT_TRUE(t.fromCSV(Str("x,y\n\"a\nb\",c\n\"\n\n\",\"d,\ne\"\nf,g\n")));
  ASSERT_EQ(t.size(), 3u);
  EXPECT_EQ(cellOf(t, 0, "x"), "a\nb");
  EXPECT_EQ(cellOf(t, 0, "y"), "c");
  EXPECT_EQ(cellOf(t, 1, "x"), "\n\n");
  EXPECT_EQ(cellOf(t, 1, "y"), "d,\ne");
  EXPECT_EQ(cellOf(t, 2, "x"), "f");
}

TEST(SearchResultsReview, ReadingKeepsEmptyApartFromMissing) {
  SearchResults t;
  ASSERT_TRUE(t.fromCSV(Str("x,y,z\n\"\",,1\n,\"\",\n")));
  ASSERT_EQ(t.size(), 2u);
  EXPECT_EQ(cellOf(t, 0, "x"), "");
  EXPECT_EQ(cellOf(t, 0, "y"), "<missing>");
  EXPECT_EQ(cellOf(t, 0, "z"), "1");
  EXPECT_EQ(cellOf(t, 1, "x"), "<missing>");
  EXPECT_EQ(cellOf(t, 1, "y"), "");
  EXPECT_EQ(cellOf(t, 1, "z"), "<missing>");
}

TEST(SearchResultsReview, ReadsAWindowOfRecordsAndAppends) {
  const Str text("n\n0\n1\n\"2\n2\"\n3\n4\n");
  SearchResults t;
  ASSERT_TRUE(t.fromCSV(text, 1, 2));
  ASSERT_EQ(t.size(), 2u);
  EXPECT_EQ(cellOf(t, 0, "n"), "1");
  EXPECT_EQ(cellOf(t, 1, "n"), "2\n2");
  ASSERT_TRUE(t.fromCSV(text, 4, 10));
  ASSERT_EQ(t.size(), 3u);
  EXPECT_EQ(cellOf(t, 2, "n"), "4");
}

TEST(SearchResultsReview, OddFieldNamesRoundTripThroughTheHeader) {
  SearchResults t;
  const std::vector<std::string> cols{"a b", "c,d", "e\"f", "_raw", "date_hour"};
  addRow(t, cols, {v("1"), v("2"), v("3"), v("4"), v("5")});
  SearchResults back;
  ASSERT_TRUE(back.fromCSV(Str(toCsv(t))));
  ASSERT_EQ(back.size(), 1u);
  for (size_t i = 0; i < cols.size(); ++i)
    EXPECT_EQ(cellOf(back, 0, cols[i].c_str()), std::to_string(i + 1)) << cols[i];
}

TEST(SearchResultsReview, ExternalFilesLoseInternalColumnsOnly) {
  const Str text("_raw,_time,_cd,__mv_x,x,_foo\nr,1,c,$a$;$b$,a b,f\n");
  {
    AllLogs logs;
    SearchResults t;
    ASSERT_TRUE(t.fromCSV(text, 0, SIZE_MAX, true));
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(cellOf(t, 0, "_raw"), "r");
    EXPECT_EQ(cellOf(t, 0, "_time"), "1");
    EXPECT_EQ(cellOf(t, 0, "x"), "a b");
    EXPECT_EQ(cellOf(t, 0, "__mv_x"), "$a$;$b$");
    EXPECT_EQ(t.keyIndex(Str("_cd")), 0u);
    EXPECT_EQ(t.keyIndex(Str("_foo")), 0u);
    EXPECT_TRUE(logs.has("External csv file contains internal field name '_cd', ignoring column."))
        << logs.text();
    EXPECT_TRUE(logs.has("External csv file contains internal field name '_foo', ignoring column."));
  }
  SearchResults inside;
  ASSERT_TRUE(inside.fromCSV(text));
  EXPECT_EQ(cellOf(inside, 0, "_cd"), "c");
  EXPECT_EQ(cellOf(inside, 0, "_foo"), "f");
}

TEST(SearchResultsReview, MismatchedQuotesInARecordAreLogged) {
  AllLogs logs;
  SearchResults t;
  t.fromCSV(Str("x,y\n1,\"2\n"));
  EXPECT_TRUE(logs.has("Mismatched quotes in csv: '")) << logs.text();
}

TEST(SearchResultsReview, DecodesMultiValueText) {
  const struct {
    const char* text;
    bool ok;
    std::vector<std::string> values;
  } kCases[] = {
      {"$a$$b$;$c$", true, {"a$b", "c"}},
      {"$one$;$two$", true, {"one", "two"}},
      {"", true, {}},
      {"$$", true, {""}},
      {"$$;$$", true, {"", ""}},
      {"$$$$$$", true, {"$$"}},
      {"$a$;;$b$", true, {"a", "b"}},  // ";" outside a value is skipped
      {";$a$", true, {"a"}},
      {"$a;b$", true, {"a;b"}},
      {"x", false, {}},
      {"$a$b", false, {}},
      {"$a$ $b$", false, {}},
      {"$a$,$b$", false, {}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    StrVector out{Str("stale")};
    EXPECT_EQ(SearchResults::decodeMV(StrSegment(c.text), out), c.ok);
    ASSERT_EQ(out.size(), c.values.size());
    for (size_t i = 0; i < out.size(); ++i) EXPECT_EQ(std::string(out[i]), c.values[i]);
  }
}

TEST(SearchResultsReview, UnterminatedMultiValueEndsTheScanWithSuccess) {
  StrVector out;
  EXPECT_TRUE(SearchResults::decodeMV(StrSegment("$a$;$bc"), out));
  ASSERT_GE(out.size(), 1u);
  EXPECT_EQ(std::string(out[0]), "a");
}

TEST(SearchResultsReview, EncodedMultiValuesDecodeToThemselves) {
  std::mt19937 rng(11);
  const std::string alphabet = "$;a \"\n,";
  for (int round = 0; round < 500; ++round) {
    StrVector values;
    for (size_t n = rng() % 4; n > 0; --n) {
      std::string s;
      for (size_t k = rng() % 5; k > 0; --k) s += alphabet[rng() % alphabet.size()];
      values.push_back(Str(s));
    }
    Str enc;
    SearchResults::encodeMV(values, enc);
    SCOPED_TRACE(std::string(enc));
    StrVector back;
    ASSERT_TRUE(SearchResults::decodeMV(StrSegment(enc), back));
    EXPECT_EQ(back, values);
  }
  Str enc;
  SearchResults::encodeMV({Str("a$b"), Str("c")}, enc);
  EXPECT_EQ(std::string(enc), "$a$$b$;$c$");
}

TEST(SearchResultsReview, MultiValuesComeFromTheCompanionOrThePlainValue) {
  SearchResults t;
  ASSERT_TRUE(t.fromCSV(Str("x,__mv_x\n\"a b\",$a$;$b$\np,\n,$q$\n,\nz,bad\n")));
  ASSERT_EQ(t.size(), 5u);
  const size_t x = t.keyIndex(Str("x"));
  ASSERT_NE(x, 0u);
  EXPECT_EQ(t.getMVIndex(x), t.keyIndex(Str("__mv_x")));
  const struct {
    size_t row;
    bool ok;
    std::vector<std::string> values;
  } kCases[] = {
      {0, true, {"a", "b"}},
      {1, true, {"p"}},
      {2, true, {"q"}},  // the companion alone is enough
      {3, false, {}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.row);
    StrVector out;
    EXPECT_EQ(t[c.row]->getMultiValues(x, out), c.ok);
    ASSERT_EQ(out.size(), c.values.size());
    for (size_t i = 0; i < out.size(); ++i) EXPECT_EQ(std::string(out[i]), c.values[i]);
  }
  AllLogs logs;
  StrVector out{Str("stale")};
  EXPECT_TRUE(t[4]->getMultiValues(x, out));
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(logs.has("Corrupt internal representation for multi-value field 'x'")) << logs.text();
}

TEST(SearchResultsReview, SetMultiValuesFillsBothColumnsOnlyForSeveralValues) {
  SearchResults t;
  SearchResult* one = t.addNewResult();
  one->setMultiValues(Str("x"), {Str("solo")}, StrSegment(" "));
  EXPECT_EQ(cellOf(t, 0, "x"), "solo");
  EXPECT_EQ(t.keyIndex(Str("__mv_x")), 0u);

  SearchResult* two = t.addNewResult();
  two->setMultiValues(Str("x"), {Str("a$"), Str("b")}, StrSegment("|"));
  EXPECT_EQ(cellOf(t, 1, "x"), "a$|b");
  EXPECT_EQ(cellOf(t, 1, "__mv_x"), "$a$$$;$b$");

  SearchResult* only = t.addNewResult();
  only->setOnlyMultiValues(Str("y"), {Str("c"), Str("d")});
  EXPECT_EQ(cellOf(t, 2, "y"), "<missing>");
  EXPECT_EQ(cellOf(t, 2, "__mv_y"), "$c$;$d$");
}

TEST(SearchResultsReview, CompanionColumnIsWrittenNextToItsField) {
  SearchResults t;
  t.keyIndex(Str("__mv_x"), true);
  t.keyIndex(Str("y"), true);
  SearchResult* r = t.addNewResult();
  r->setValue(Str("y"), StrSegment("1"));
  r->setMultiValues(Str("x"), {Str("a"), Str("b")}, StrSegment(" "));

  const std::string all = toCsv(t);
  const std::string header = all.substr(0, all.find('\n'));
  EXPECT_NE(header.find("x,\"__mv_x\""), std::string::npos) << header;
  EXPECT_EQ(header.find("__mv_x"), header.rfind("__mv_x")) << header;

  // Names and encodings hold "_" and "$", so both are quoted.
  EXPECT_EQ(toCsv(t, {Str("x")}), "x,\"__mv_x\"\n\"a b\",\"$a$;$b$\"\n");
  EXPECT_EQ(toCsv(t, {Str("y"), Str("x")}), "y,x,\"__mv_x\"\n1,\"a b\",\"$a$;$b$\"\n");
}

TEST(SearchResultsReview, ColumnIndexesCountFromOne) {
  SearchResults t;
  EXPECT_EQ(t.keyIndex(Str("a"), false), 0u);
  EXPECT_EQ(t.keyIndex(Str("a"), true), 1u);
  EXPECT_EQ(t.keyIndex(Str("b"), true), 2u);
  EXPECT_EQ(t.keyIndex(Str("a"), true), 1u);
  EXPECT_EQ(std::string(t.getKeyFromIndex(0)), "");
  EXPECT_EQ(std::string(t.getKeyFromIndex(2)), "b");
  EXPECT_EQ(std::string(t.getKeyFromIndex(3)), "");
  EXPECT_EQ(t.getMVIndex(1), 0u);
  Str out;
  SearchResult* r = t.addNewResult();
  EXPECT_FALSE(r->getValue(0, out));
  EXPECT_FALSE(r->getValue(7, out));
}

TEST(SearchResultsReview, ReadsGzipFilesMadeElsewhere) {
  if (!haveTool("gzip")) GTEST_SKIP() << "no gzip";
  TestTempDir dir;
  writeTestFile(dir / "in.csv", "x,y\n1,\"a\nb\"\n2,\n");
  ASSERT_EQ(runShell("gzip '" + std::string(dir / "in.csv") + "'"), 0);
  AllLogs logs;
  SearchResults t;
  ASSERT_TRUE(t.fromCSV(dir / "in.csv.gz"));
  ASSERT_EQ(t.size(), 2u);
  EXPECT_EQ(cellOf(t, 0, "y"), "a\nb");
  EXPECT_EQ(cellOf(t, 1, "y"), "<missing>");
  EXPECT_TRUE(logs.has("Reading from gzip'ed file '" + std::string(dir / "in.csv.gz") + "'"))
      << logs.text();
}

TEST(SearchResultsReview, ScopedWriterPicksGzipByNameUnlessTold) {
  TestTempDir dir;
  const struct {
    const char* name;
    int gzip;  // -1: by name
    bool gzipped;
  } kCases[] = {
      {"a.csv.gz", -1, true},
      {"b.csv", -1, false},
      {"c.csv.gz", 0, false},
      {"d.csv", 1, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const Pathname p = dir / c.name;
    {
      std::unique_ptr<ScopedCSVWriter> w =
          c.gzip < 0 ? std::make_unique<ScopedCSVWriter>(p)
                     : std::make_unique<ScopedCSVWriter>(p, c.gzip == 1);
      ASSERT_TRUE(w->valid());
      ASSERT_TRUE(w->write(StrSegment("x\n1\n")));
      ASSERT_TRUE(w->finish());
    }
    const std::string bytes = readTestFile(p);
    ASSERT_GE(bytes.size(), 2u);
    EXPECT_EQ(static_cast<unsigned char>(bytes[0]) == 0x1f &&
                  static_cast<unsigned char>(bytes[1]) == 0x8b,
              c.gzipped);
    if (!c.gzipped) {
      EXPECT_EQ(bytes, "x\n1\n");
    }
  }
  AllLogs logs;
  ScopedCSVWriter none{Pathname("")};
  EXPECT_FALSE(none.valid());
  EXPECT_TRUE(logs.has("ScopedCSVWriter called with empty filename, ignoring")) << logs.text();
}

}  // namespace
