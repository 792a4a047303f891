#include "framework/SearchResults.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <random>
#include <set>

#include "util/Timeval.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"

namespace {

// Rows as (name -> value) maps; a missing name is a missing value.
using Row = std::map<std::string, std::string>;

std::vector<Row> rowsOf(SearchResults& sr) {
  std::vector<Row> out;
  for (size_t i = 0; i < sr.size(); ++i) {
    Row r;
    for (size_t k = 1; k <= sr.keyCount(); ++k) {
      Str v;
      if (sr[i]->getValue(k, v)) r[sr.getKeyFromIndex(k)] = v;
    }
    out.push_back(r);
  }
  return out;
}

int runShell(const std::string& cmd) { return std::system(cmd.c_str()); }

TEST(SearchResultsTest, CsvEscapeCases) {
  struct Case {
    std::string in, out;
  } cases[] = {
      {"abc", "abc"},        {"", "\"\""},           {"a b", "\"a b\""},
      {"a\"b", "\"a\"\"b\""}, {"x,y", "\"x,y\""},     {"l1\nl2", "\"l1\nl2\""},
      {"A9z", "A9z"},        {"_x", "\"_x\""},       {"\"", "\"\"\"\""},
  };
  for (const Case& c : cases) {
    Str out;
    SearchResults::csvEscape(c.in, out, false);
    EXPECT_EQ(out, c.out) << c.in;
  }
  Str out;
  SearchResults::csvEscape("a\r\nb", out, true);
  EXPECT_EQ(out, "\"a\nb\"");
}

TEST(SearchResultsTest, DecodeMV) {
  StrVector v;
  EXPECT_TRUE(SearchResults::decodeMV("$a$$b$;$c$", v));
  EXPECT_EQ(v, (StrVector{"a$b", "c"}));
  EXPECT_FALSE(SearchResults::decodeMV("x", v));
  EXPECT_TRUE(v.empty());
  EXPECT_FALSE(SearchResults::decodeMV("$a$x$b$", v));
  EXPECT_TRUE(v.empty());
  EXPECT_TRUE(SearchResults::decodeMV("", v));
  EXPECT_TRUE(v.empty());
  for (StrVector in : {StrVector{"", "$", "$$;"}, StrVector{"one"}, StrVector{";", "a;b$c"}}) {
    Str enc;
    SearchResults::encodeMV(in, enc);
    ASSERT_TRUE(SearchResults::decodeMV(enc, v)) << enc;
    EXPECT_EQ(v, in) << enc;
  }
}

TEST(SearchResultsTest, MultiValuesThroughRows) {
  SearchResults sr;
  SearchResult* r = sr.addNewResult();
  r->setMultiValues("x", StrVector{"one", "two$"}, " ");
  Str plain;
  ASSERT_TRUE(r->getValue(Str("x"), plain));
  EXPECT_EQ(plain, "one two$");
  size_t x = sr.keyIndex("x");
  EXPECT_EQ(sr.getKeyFromIndex(sr.getMVIndex(x)), "__mv_x");
  StrVector got;
  EXPECT_TRUE(r->getMultiValues(x, got));
  EXPECT_EQ(got, (StrVector{"one", "two$"}));
  r->setValue(sr.getMVIndex(x), "garbage");
  ScopedLogCapture log("SearchResults");
  EXPECT_TRUE(r->getMultiValues(x, got));
  EXPECT_TRUE(got.empty());
  EXPECT_NE(log.text().find("Corrupt internal representation for multi-value field 'x'"),
            std::string::npos);
  SearchResult* r2 = sr.addNewResult();
  EXPECT_FALSE(r2->getMultiValues(x, got));
  r2->setValue(x, "solo");
  EXPECT_TRUE(r2->getMultiValues(x, got));
  EXPECT_EQ(got, StrVector{"solo"});
}

TEST(SearchResultsTest, EmptyAndMissingWriteDifferently) {
  SearchResults sr;
  sr.keyIndex("a", true);
  sr.keyIndex("b", true);
  sr.addNewResult()->setValue(Str("a"), "");
  Str out;
  ASSERT_TRUE(sr.toCSV(out));
  EXPECT_EQ(out, "a,b\n\"\",\n");
  SearchResults back;
  ASSERT_TRUE(back.fromCSV(out));
  EXPECT_EQ(rowsOf(back), (std::vector<Row>{{{"a", ""}}}));
}

TEST(SearchResultsTest, KeysRowsAndMoves) {
  SearchResults a;
  for (int i = 0; i < 4; ++i) {
    SearchResult* r = a.addNewResult();
    r->setValue(Str("n"), Str(std::to_string(i)));
    if (i % 2) r->setValue(Str("odd"), "y");
  }
  const Str* before = a[1]->valuePtr(a.keyIndex("n"));
  SearchResults b;
  b.keyIndex("other", true);
  b.moveResult(a, 1);
  EXPECT_EQ(a.size(), 3u);
  ASSERT_EQ(b.size(), 1u);
  EXPECT_EQ(b[0]->valuePtr(b.keyIndex("n")), before);  // passed on, not copied
  EXPECT_EQ(rowsOf(b), (std::vector<Row>{{{"n", "1"}, {"odd", "y"}}}));

  SearchResults c;
  c.usurp(a, false);
  EXPECT_EQ(a.size(), 0u);
  EXPECT_EQ(a.keyCount(), 0u);
  EXPECT_EQ(c.size(), 3u);
  EXPECT_EQ(c[0]->parent(), &c);

  SearchResults d;
  d.append(c, 1, 5);
  EXPECT_EQ(rowsOf(d), (std::vector<Row>{{{"n", "2"}}, {{"n", "3"}, {"odd", "y"}}}));
  d.appendDestructive(b);
  EXPECT_EQ(b.size(), 0u);
  EXPECT_EQ(d.size(), 3u);
  d.slice(1, 1);
  EXPECT_EQ(rowsOf(d), (std::vector<Row>{{{"n", "3"}, {"odd", "y"}}}));

  EXPECT_TRUE(c.renameKey("odd", "isodd"));
  EXPECT_FALSE(c.renameKey("n", "isodd"));
  EXPECT_FALSE(c.renameKey("none", "x"));
  EXPECT_TRUE(c.removeKey("n"));
  EXPECT_FALSE(c.removeKey("n"));
  EXPECT_EQ(rowsOf(c), (std::vector<Row>{{}, {}, {{"isodd", "y"}}}));

  SearchResults e;
  e.clone(c, true);
  EXPECT_EQ(rowsOf(e), rowsOf(c));
  EXPECT_EQ(e[2]->hash(), c[2]->hash());
  EXPECT_NE(e[2]->hash(), e[0]->hash());
}

TEST(SearchResultsTest, GuessTimeOrder) {
  struct Case {
    std::vector<const char*> times;
    int order;
  } cases[] = {{{"1", "2", "2", "5"}, 1}, {{"9", "3.5", "1"}, -1}, {{"1", "3", "2"}, 0},
               {{"4"}, 0},                 {{"x", "1", "y", "2"}, 1},
               {{"2", "2", "2"}, 1}};  // never decreasing, though never rising
  for (const Case& c : cases) {
    SearchResults sr;
    for (const char* t : c.times) sr.addNewResult()->setValue(Str("_time"), t);
    EXPECT_EQ(sr.guessTimeOrder(), c.order);
  }
}

TEST(SearchResultsTest, HeaderProblems) {
  ScopedLogCapture log("SearchResults");
  SearchResults sr;
  ASSERT_TRUE(sr.fromCSV(Str("a,b,a\n1,2,3\n"), 0, SIZE_MAX, false));
  EXPECT_EQ(rowsOf(sr), (std::vector<Row>{{{"a", "1"}, {"b", "2"}}}));
  EXPECT_NE(log.text().find("Corrupt csv header, 2 columns with the same name 'a' (col #1 and "
                            "#3, #3 will be ignored)"),
            std::string::npos);
  SearchResults e;
  ASSERT_TRUE(e.fromCSV(Str("a,,_secret,_raw\n1,2,3,4\n"), 0, SIZE_MAX, true));
  EXPECT_EQ(rowsOf(e), (std::vector<Row>{{{"a", "1"}, {"_raw", "4"}}}));
  EXPECT_NE(log.text().find("Corrupt csv header, contains empty value (col #2)"),
            std::string::npos);
  EXPECT_NE(log.text().find("External csv file contains internal field name '_secret'"),
            std::string::npos);
  SearchResults bad;
  EXPECT_FALSE(bad.fromCSV(Str("")));
  EXPECT_EQ(bad.lastErrorKey(), "SEARCHRESULTS_CSV_HEADER_PARSE_FAIL");
  EXPECT_FALSE(bad.fromCSV(Str("\"a,b\n")));
  EXPECT_NE(log.text().find("Could not parse csv header."), std::string::npos);
  SearchResults lines;
  ASSERT_TRUE(lines.fromCSV(Str("a,b\n1\n\"x\"y,2\n3,4,5\n6,7\n")));
  EXPECT_EQ(rowsOf(lines).size(), 3u);
  EXPECT_NE(log.text().find("Corrupt CSV line, char #3"), std::string::npos);
  EXPECT_NE(log.text().find("encountered 2 inconsistent number of column errors."),
            std::string::npos);
}

TEST(SearchResultsTest, StartAndCount) {
  SearchResults sr;
  ASSERT_TRUE(sr.fromCSV(Str("v\n0\n1\n2\n3\n"), 1, 2));
  EXPECT_EQ(rowsOf(sr), (std::vector<Row>{{{"v", "1"}}, {{"v", "2"}}}));
}

// Our files through Python's csv module and the real gzip.
TEST(SearchResultsTest, OursReadByPythonAndGzip) {
  TestTempDir dir;
  SearchResults sr;
  const char* vals[][3] = {{"plain", "has \"quote\"", "multi\nline"},
                           {"", "a,b", "\xc3\xa9t\xc3\xa9"},
                           {"x", nullptr, "end"}};
  for (auto& row : vals) {
    SearchResult* r = sr.addNewResult();
    const char* names[] = {"f1", "f 2", "f3"};
    for (int k = 0; k < 3; ++k)
      if (row[k] != nullptr) r->setValue(Str(names[k]), row[k]);
  }
  Pathname plain = dir / "out.csv", gz = dir / "out.csv.gz";
  ASSERT_TRUE(sr.toCSV(plain));
  ASSERT_TRUE(sr.toCSV(gz));
  EXPECT_FALSE(Pathname(plain + ".tmp").exists());
  writeTestFile(dir / "dump.py",
                "import csv,sys\n"
                "with open(sys.argv[1], newline='', encoding='utf-8') as f:\n"
                "  for row in csv.reader(f):\n"
                "    print('|'.join(c.replace('\\n','<NL>') for c in row))\n");
  std::string py = "python3 " + std::string(dir / "dump.py") + " ";
  const std::string plainS = plain, gzS = gz;
  ASSERT_EQ(runShell(py + plainS + " > " + std::string(dir / "p.txt")), 0);
  ASSERT_EQ(runShell("gzip -dc " + gzS + " > " + std::string(dir / "g.csv")), 0);
  ASSERT_EQ(runShell(py + std::string(dir / "g.csv") + " > " + std::string(dir / "g.txt")), 0);
  const std::string expect =
      "f1|f 2|f3\nplain|has \"quote\"|multi<NL>line\n|a,b|\xc3\xa9t\xc3\xa9\nx||end\n";
  EXPECT_EQ(readTestFile(dir / "p.txt"), expect);
  EXPECT_EQ(readTestFile(dir / "g.txt"), expect);
  SearchResults back;
  ASSERT_TRUE(back.fromCSV(gz));
  EXPECT_EQ(rowsOf(back), rowsOf(sr));
}

// Python's files read by ours.
TEST(SearchResultsTest, PythonsReadByOurs) {
  TestTempDir dir;
  writeTestFile(dir / "make.py",
                "import csv,sys,gzip\n"
                "rows=[['a','b','a','c'],['x\\ny','say \"hi\"','dup',''],['','q,r','z','w']]\n"
                "with open(sys.argv[1],'w',newline='') as f: csv.writer(f).writerows(rows)\n"
                "with gzip.open(sys.argv[2],'wt',newline='') as f: "
                "csv.writer(f, quoting=csv.QUOTE_ALL).writerows(rows)\n");
  Pathname p = dir / "py.csv", g = dir / "py.csv.gz";
  ASSERT_EQ(runShell("python3 " + std::string(dir / "make.py") + " " + std::string(p) + " " + std::string(g)), 0);
  const std::vector<Row> expectPlain = {{{"a", "x\ny"}, {"b", "say \"hi\""}},
                                        {{"b", "q,r"}, {"c", "w"}}};
  SearchResults sr;
  ASSERT_TRUE(sr.fromCSV(p));
  EXPECT_EQ(rowsOf(sr), expectPlain);
  // Python's default writes an empty value bare, which reads as missing;
  // with every field quoted the empty values stay present.
  SearchResults sg;
  ASSERT_TRUE(sg.fromCSV(g));
  const std::vector<Row> expectQuoted = {{{"a", "x\ny"}, {"b", "say \"hi\""}, {"c", ""}},
                                         {{"a", ""}, {"b", "q,r"}, {"c", "w"}}};
  EXPECT_EQ(rowsOf(sg), expectQuoted);
  SearchResults missing;
  EXPECT_FALSE(missing.fromCSV(dir / "nope.csv"));
  EXPECT_EQ(missing.lastErrorKey(), "SEARCHRESULTS_ERROR_READING_FILE__" + std::string(dir / "nope.csv"));
  writeTestFile(dir / "bad.csv.gz", "not gzip at all");
  EXPECT_FALSE(missing.fromCSV(dir / "bad.csv.gz"));
  EXPECT_EQ(missing.lastErrorKey(), "SEARCHRESULTS_GZOPEN_FAIL__" + std::string(dir / "bad.csv.gz"));
}

TEST(SearchResultsTest, WriteFailuresAndScopedWriter) {
  ScopedLogCapture log("SearchResults");
  SearchResults sr;
  sr.addNewResult()->setValue(Str("a"), "1");
  EXPECT_FALSE(sr.toCSV(Pathname("/nonexistent-dir/x.csv")));
  EXPECT_EQ(sr.lastErrorKey().find("SEARCHRESULTS_RETRY_WRITE_FAIL__/nonexistent-dir/x.csv_"), 0u);
  EXPECT_NE(log.text().find("Unable to open output file: path=/nonexistent-dir/x.csv.tmp"),
            std::string::npos);
  ScopedCSVWriter none{Pathname("")};
  EXPECT_FALSE(none.valid());
  EXPECT_FALSE(none.write("x"));
  EXPECT_NE(log.text().find("ScopedCSVWriter called with empty filename, ignoring"),
            std::string::npos);
  TestTempDir dir;
  {
    ScopedCSVWriter w(dir / "w.gz");
    ASSERT_TRUE(w.valid());
    ASSERT_TRUE(sr.toCSV(w));
  }
  SearchResults back;
  ASSERT_TRUE(back.fromCSV(dir / "w.gz"));
  EXPECT_EQ(rowsOf(back), rowsOf(sr));
}

// Random tables with arbitrary bytes survive a write and a read.
TEST(SearchResultsTest, RoundTripProperty) {
  std::mt19937 rng(12345);
  for (int iter = 0; iter < 200; ++iter) {
    SearchResults sr;
    int nkeys = 1 + static_cast<int>(rng() % 5);
    for (int k = 0; k < nkeys; ++k) sr.keyIndex(Str(std::string("k") + std::to_string(k)), true);
    int nrows = static_cast<int>(rng() % 6);
    for (int r = 0; r < nrows; ++r) {
      SearchResult* row = sr.addNewResult();
      for (int k = 1; k <= nkeys; ++k) {
        if (rng() % 4 == 0) continue;
        std::string v;
        size_t len = rng() % 8;
        for (size_t i = 0; i < len; ++i) {
          const char pick[] = {'"', ',', '\n', '\r', 'a', '$', ';', ' '};
          v.push_back(rng() % 2 ? pick[rng() % 8] : static_cast<char>(rng() % 256));
        }
        row->setValue(static_cast<size_t>(k), v);
      }
    }
    Str out;
    ASSERT_TRUE(sr.toCSV(out));
    SearchResults back;
    ASSERT_TRUE(back.fromCSV(out));
    // With one column a row with no value writes an empty line, which
    // reads as no record at all.
    std::vector<Row> want;
    for (const Row& r : rowsOf(sr))
      if (nkeys > 1 || !r.empty()) want.push_back(r);
    EXPECT_EQ(rowsOf(back), want) << iter;
  }
}

TEST(SearchResultsTest, SplitFile) {
  TestTempDir dir;
  SearchResults sr;
  for (int i = 0; i < 5; ++i) sr.addNewResult()->setValue(Str("v"), Str("r " + std::to_string(i)));
  Pathname src = dir / "all.csv.gz";
  ASSERT_TRUE(sr.toCSV(src));
  std::vector<Pathname> pieces;
  ASSERT_TRUE(sr.splitFile(src, 2, pieces));
  ASSERT_EQ(pieces.size(), 3u);
  EXPECT_EQ(std::string(pieces[2]), std::string(dir / "srsplit_2_all.csv.gz"));
  SearchResults joined;
  for (const Pathname& p : pieces) ASSERT_TRUE(joined.fromCSV(p));
  EXPECT_EQ(rowsOf(joined), rowsOf(sr));
  EXPECT_FALSE(sr.splitFile(dir / "missing.csv", 2, pieces));
  EXPECT_TRUE(pieces.empty());
}

TEST(SearchResultsTest, SplitFileRemovesPiecesWhenOneCannotBeWritten) {
  ScopedLogCapture log("SearchResults");
  TestTempDir dir;
  SearchResults sr;
  for (int i = 0; i < 5; ++i) sr.addNewResult()->setValue(Str("v"), Str(std::to_string(i)));
  Pathname src = dir / "all.csv";
  ASSERT_TRUE(sr.toCSV(src));
  // A directory where the second piece must go: its rename cannot succeed.
  ASSERT_EQ(::mkdir(std::string(dir / "srsplit_1_all.csv").c_str(), 0700), 0);
  std::vector<Pathname> pieces;
  EXPECT_FALSE(sr.splitFile(src, 2, pieces));
  EXPECT_TRUE(pieces.empty());
  EXPECT_EQ(sr.lastErrorKey(), "SEARCHRESULTS_SPLITFILE_WRITE_FAIL__" + std::string(src));
  EXPECT_FALSE((dir / "srsplit_0_all.csv").exists());  // the written piece is gone again
  EXPECT_FALSE((dir / "srsplit_1_all.csv.tmp").exists());
  EXPECT_TRUE(src.exists());
}

TEST(SearchResultsTest, SettingsHaveDefaults) {
  EXPECT_GT(SearchResults::getMaxResultRows(), 0u);
  EXPECT_GE(SearchResults::getToCSVMaxRetry(), 1u);
}

TEST(SearchResultsTest, ColumnOrderLeadsThenTableOrder) {
  const struct {
    StrVector order;
    const char* header;
  } kCases[] = {
      {{}, "a,b,c,\"__mv_c\""},
      {{"c", "a"}, "c,\"__mv_c\",a,b"},       // the companion follows its field
      {{"zz", "b", "b"}, "b,a,c,\"__mv_c\""},  // unknown and repeated names skipped
  };
  for (const auto& k : kCases) {
    SearchResults sr;
    SearchResult* r = sr.addNewResult();
    r->setValue(Str("a"), "1");
    r->setValue(Str("b"), "2");
    r->setMultiValues(Str("c"), {"x", "y"}, " ");
    sr.setColumnOrder(k.order);
    Str csv;
    ASSERT_TRUE(sr.toCSV(csv));
    EXPECT_EQ(csv.substr(0, csv.find('\n')), std::string(k.header)) << k.header;
  }
  // The order follows a rename and a clone, and a name that appears later
  // takes its place.
  SearchResults sr;
  sr.setColumnOrder({"later", "b"});
  sr.addNewResult()->setValue(Str("a"), "1");
  sr.addNewResult()->setValue(Str("b"), "2");
  ASSERT_TRUE(sr.renameKey(Str("b"), Str("bee")));
  StrVector order;
  sr.getColumnOrder(order);
  EXPECT_EQ(order, (StrVector{"bee", "a"}));
  sr[0]->setValue(Str("later"), "3");
  SearchResults copy;
  copy.clone(sr, false);
  copy.getColumnOrder(order);
  EXPECT_EQ(order, (StrVector{"later", "bee", "a"}));
  sr.freeAll();
  sr.keyIndex(Str("z"), true);
  sr.keyIndex(Str("later"), true);
  sr.getColumnOrder(order);
  EXPECT_EQ(order, (StrVector{"z", "later"}));
}

TEST(SearchResultsTest, CollapseDropsEmptyColumns) {
  SearchResults sr;
  for (const char* k : {"gone1", "a", "gone2", "b", "gone3"}) sr.keyIndex(Str(k), true);
  sr.addNewResult()->setValue(Str("a"), "1");
  SearchResult* r = sr.addNewResult();
  r->setValue(Str("b"), "");  // empty is a value
  r->setValue(Str("gone3"), "tmp");
  r->removeValue(sr.keyIndex(Str("gone3")));
  Str before;
  ASSERT_TRUE(sr.toCSV(before, {"a", "b"}));
  EXPECT_EQ(sr.collapse(), 3u);
  EXPECT_EQ(sr.keyCount(), 2u);
  EXPECT_EQ(sr.getKeyFromIndex(1), "a");
  EXPECT_EQ(sr.getKeyFromIndex(2), "b");
  EXPECT_LE(sr[0]->slotCount(), 1u);
  Str after;
  ASSERT_TRUE(sr.toCSV(after));
  EXPECT_EQ(after, before);  // same table, fewer columns
  EXPECT_EQ(sr.collapse(), 0u);
}

TEST(SearchResultsTest, GetTimevalReadsEpochSeconds) {
  const struct {
    const char* text;
    bool ok;
    int64_t sec, usec;
  } kCases[] = {
      {"1700000000", true, 1700000000, 0},
      {"1700000000.5", true, 1700000000, 500000},
      {"1.0000019", true, 1, 1},  // the seventh digit is truncated
      {"-1.25", true, -2, 750000},
      {"-3", true, -3, 0},
      {"0.000001", true, 0, 1},
      {"", false, 0, 0},
      {"12abc", false, 0, 0},
      {"1e9", false, 0, 0},
      {".5", false, 0, 0},
      {"5.", false, 0, 0},
      {"-", false, 0, 0},
      {" 5", false, 0, 0},
      {"1234567890123456789", false, 0, 0},  // past 18 digits
  };
  for (const auto& c : kCases) {
    SearchResults sr;
    SearchResult* r = sr.addNewResult();
    r->setValue(Str("_time"), c.text);
    r->setValue(Str("other"), c.text);
    for (size_t index : {size_t(0), sr.keyIndex(Str("other"))}) {
      Timeval tv(77, 77);
      EXPECT_EQ(r->getTimeval(tv, index), c.ok) << c.text;
      if (c.ok) {
        EXPECT_EQ(tv.tv_sec, c.sec) << c.text;
        EXPECT_EQ(tv.tv_usec, c.usec) << c.text;
      } else {
        EXPECT_EQ(tv.tv_sec, 77) << c.text;  // untouched
      }
    }
  }
  SearchResults sr;
  Timeval tv;
  EXPECT_FALSE(sr.addNewResult()->getTimeval(tv));  // no _time column at all
}

// A table holding the awkward cases: quoted newlines, CRs, empties, mv.
void fillAwkward(SearchResults& sr) {
  const char* kValues[][3] = {
      {"plain", "", "a\nb"},
      {"with \"quotes\"", "x,y", "line1\rline2\n"},
      {"", "\n", "end"},
  };
  for (const auto& v : kValues) {
    SearchResult* r = sr.addNewResult();
    r->setValue(Str("one"), v[0]);
    r->setValue(Str("two"), v[1]);
    r->setMultiValues(Str("three"), {v[2], "$"}, "\n");
  }
}

TEST(SearchResultsTest, ReadersAgreeWithStringParser) {
  SearchResults src;
  fillAwkward(src);
  Str csv;
  ASSERT_TRUE(src.toCSV(csv));
  SearchResults fromStr;
  ASSERT_TRUE(fromStr.fromCSV(csv));
  ASSERT_EQ(rowsOf(fromStr), rowsOf(src));

  StringLineReader lines(csv);
  SearchResults fromLines;
  ASSERT_TRUE(fromLines.fromCSV(lines));
  EXPECT_EQ(rowsOf(fromLines), rowsOf(src));

  TestTempDir dir;
  for (const char* name : {"t.csv", "t.csv.gz"}) {
    Pathname p(std::string(dir.path()) + "/" + name);
    ASSERT_TRUE(src.toCSV(p)) << name;
    FileBackedLineReader reader(p);
    ASSERT_TRUE(reader.valid()) << name;
    SearchResults fromFile;
    ASSERT_TRUE(fromFile.fromCSV(reader, 1, 1)) << name;
    ASSERT_EQ(fromFile.size(), 1u) << name;
    EXPECT_EQ(rowsOf(fromFile)[0], rowsOf(src)[1]) << name;
    ASSERT_TRUE(reader.rewind()) << name;
    SearchResults again;
    ASSERT_TRUE(again.fromCSV(reader)) << name;
    EXPECT_EQ(rowsOf(again), rowsOf(src)) << name;
  }

  Pathname p(std::string(dir.path()) + "/star.csv");
  ASSERT_TRUE(src.toCSV(p));
  ScopedFileStar f(p, "r");
  ASSERT_TRUE(f.valid());
  SearchResults fromStar;
  ASSERT_TRUE(fromStar.fromCSV(static_cast<FileStar&>(f), 0, 2));
  EXPECT_EQ(fromStar.size(), 2u);
  Str rest;
  EXPECT_TRUE(f.readline(rest));  // the stream stays open where reading stopped
}

// A carriage return inside a quoted value is data: every reader gives the
// value back byte for byte, while the "\r\n" that ends a record goes.
TEST(SearchResultsTest, EveryReaderKeepsCrLfInsideQuotes) {
  TestTempDir dir;
  writeTestFile(dir / "make.py",
                "import csv,sys,gzip\n"
                "rows=[['v','w'],['a\\r\\nb','x'],['\\r','c\\rd\\n'],['e\\r\\n','f']]\n"
                "with open(sys.argv[1],'w',newline='') as f: csv.writer(f).writerows(rows)\n"
                "with gzip.open(sys.argv[2],'wt',newline='') as f: csv.writer(f).writerows(rows)\n");
  const Pathname p = dir / "crlf.csv", g = dir / "crlf.csv.gz";
  ASSERT_EQ(runShell("python3 " + std::string(dir / "make.py") + " " + std::string(p) + " " +
                     std::string(g)),
            0);
  const std::vector<Row> expect = {{{"v", "a\r\nb"}, {"w", "x"}},
                                   {{"v", "\r"}, {"w", "c\rd\n"}},
                                   {{"v", "e\r\n"}, {"w", "f"}}};
  const Str text = readTestFile(p);
  ASSERT_NE(text.find("\"a\r\nb\",x\r\n"), Str::npos);  // Python ends records with CRLF
  const std::vector<std::pair<const char*, std::function<bool(SearchResults&)>>> kReaders = {
      {"string", [&](SearchResults& sr) { return sr.fromCSV(text); }},
      {"path", [&](SearchResults& sr) { return sr.fromCSV(p); }},
      {"gzip path", [&](SearchResults& sr) { return sr.fromCSV(g); }},
      {"string lines",
       [&](SearchResults& sr) {
         StringLineReader r(text);
         return sr.fromCSV(r);
       }},
      {"file lines",
       [&](SearchResults& sr) {
         FileBackedLineReader r(p);
         return sr.fromCSV(r);
       }},
      {"gzip lines",
       [&](SearchResults& sr) {
         FileBackedLineReader r(g);
         return sr.fromCSV(r);
       }},
      {"stream",
       [&](SearchResults& sr) {
         ScopedFileStar f(p, "r");
         return sr.fromCSV(static_cast<FileStar&>(f));
       }},
  };
  for (const auto& [name, read] : kReaders) {
    SearchResults sr;
    ASSERT_TRUE(read(sr)) << name;
    EXPECT_EQ(rowsOf(sr), expect) << name;
  }
}

TEST(SearchResultsTest, ReaderFailures) {
  ScopedLogCapture log("SearchResults");
  TestTempDir dir;
  FileBackedLineReader missing(Pathname(std::string(dir.path()) + "/absent.csv"));
  EXPECT_FALSE(missing.valid());
  EXPECT_NE(log.text().find("Error while reading"), std::string::npos);

  const char* kBad[] = {"", "\n"};  // nothing, or an empty header
  for (const char* text : kBad) {
    StringLineReader lines{StrSegment(text)};
    SearchResults sr;
    EXPECT_FALSE(sr.fromCSV(lines)) << text;
    EXPECT_EQ(sr.lastErrorKey(), "SEARCHRESULTS_CSV_HEADER_PARSE_FAIL");
  }
  // An unclosed quote swallows the rest of the input into one record
  // instead of looping or crashing.
  StringLineReader lines{StrSegment("a,b\n1,\"open\n2,3\n")};
  SearchResults sr;
  EXPECT_TRUE(sr.fromCSV(lines));
  EXPECT_LE(sr.size(), 1u);
  // A quote open at the end: the whole text and the lines agree on where
  // the record stops.
  for (const char* text : {"v\n1v\"\n", "v\n1v\"\n\n", "v\n1v\"\r\n", "v\n\"x\n"}) {
    SearchResults whole, byLine;
    ASSERT_TRUE(whole.fromCSV(Str(text)));
    StringLineReader r{StrSegment(text)};
    ASSERT_TRUE(byLine.fromCSV(r));
    EXPECT_EQ(rowsOf(whole), rowsOf(byLine)) << text;
  }
}

TEST(SearchResultsTest, IteratorAndInserter) {
  SearchResults sr;
  {
    SearchResultInserter ins(sr, {"k", "v"});
    const std::vector<std::vector<const char*>> kRows = {
        {"a", "1"}, {"b"}, {}, {"c", "3", "extra", "more"}};
    for (const auto& row : kRows) {
      for (const char* t : row) ins.processToken(Str(t));
      EXPECT_EQ(ins.endRow(), !row.empty());
    }
    EXPECT_EQ(ins.droppedTokens(), 2u);
    ins.processToken(Str("pending"));  // never ended: freed, not appended
  }
  const std::vector<Row> expected = {{{"k", "a"}, {"v", "1"}}, {{"k", "b"}}, {{"k", "c"}, {"v", "3"}}};
  EXPECT_EQ(rowsOf(sr), expected);
  SearchResultIterator it(sr);
  for (int pass = 0; pass < 2; ++pass) {
    size_t n = 0;
    while (SearchResult* r = it.next()) {
      EXPECT_EQ(r, sr[n]);
      ++n;
    }
    EXPECT_EQ(n, sr.size());
    EXPECT_EQ(it.next(), nullptr);
    it.reset();
  }
}

TEST(SearchResultsTest, SpillsToFilesAndReadsThemBack) {
  TestTempDir dir;
  std::vector<Row> all;
  Pathname tmp;
  {
    SearchResults sr;
    ASSERT_TRUE(sr.createTempDir(dir.path()));
    tmp = sr.tempDir();
    EXPECT_NE(std::string(tmp).find("/srtemp_"), std::string::npos);
    for (int f = 0; f < 3; ++f) {
      for (int i = 0; i < 4; ++i) {
        SearchResult* r = sr.addNewResult();
        r->setValue(Str("n"), Str(std::to_string(f * 4 + i)));
        if (i % 2) r->setMultiValues(Str("m"), {"a", "b c"}, " ");
      }
      std::vector<Row> part = rowsOf(sr);
      all.insert(all.end(), part.begin(), part.end());
      ASSERT_TRUE(sr.writeFile());
      EXPECT_TRUE(sr.empty());
    }
    ASSERT_EQ(sr.files().size(), 3u);
    std::vector<Row> back;
    while (sr.nextFile()) {
      std::vector<Row> part = rowsOf(sr);
      back.insert(back.end(), part.begin(), part.end());
    }
    EXPECT_EQ(back, all);
    const Pathname second = sr.files()[1];
    EXPECT_TRUE(sr.deleteFile(sr.files()[1]));  // an entry of the list itself
    EXPECT_EQ(sr.files().size(), 2u);
    EXPECT_FALSE(second.exists());
    EXPECT_TRUE(sr.files()[1].exists());
    EXPECT_TRUE(tmp.exists());
  }
  EXPECT_FALSE(tmp.exists());  // the destructor removes files and directory
}

TEST(SearchResultsTest, CowFilesSurvive) {
  ScopedLogCapture log("SearchResults");
  TestTempDir dir;
  Pathname shared = dir.path() / "shared.csv";
  {
    SearchResults owner;
    owner.addNewResult()->setValue(Str("x"), "1");
    ASSERT_TRUE(owner.toCSV(shared));
  }
  {
    SearchResults sr;
    sr.addFile(shared);
    sr.setCowFiles(true);
    ASSERT_TRUE(sr.nextFile());
    EXPECT_EQ(sr.size(), 1u);
    EXPECT_FALSE(sr.nextFile());
  }
  EXPECT_TRUE(shared.exists());
  EXPECT_NE(log.text().find("Copy on write file not deleted: " + std::string(shared)),
            std::string::npos);
  {
    SearchResults sr;  // not shared: deleted with the table
    sr.addFile(shared);
  }
  EXPECT_FALSE(shared.exists());
}

TEST(SearchResultsTest, FileFailures) {
  ScopedLogCapture log("SearchResults");
  TestTempDir dir;
  SearchResults sr;
  EXPECT_FALSE(sr.createTempDir(dir.path() / "no" / "such"));
  EXPECT_NE(log.text().find("Could not create directory \""), std::string::npos);
  ASSERT_TRUE(sr.createTempDir(dir.path()));
  sr.addNewResult()->setValue(Str("x"), "1");
  ASSERT_EQ(::rmdir(sr.tempDir().c_str()), 0);  // pulled away underneath
  EXPECT_FALSE(sr.writeFile());
  EXPECT_EQ(sr.size(), 1u);  // rows kept when the spill fails
  EXPECT_TRUE(sr.files().empty());
  EXPECT_TRUE(sr.deleteFile(dir.path() / "never-existed.csv"));
  sr.addFile(dir.path() / "gone.csv");
  EXPECT_FALSE(sr.nextFile());  // unreadable file ends the walk
}

}  // namespace

namespace {

TEST(SearchResultsTest, RandomFileNamesAndNewFiles) {
  for (bool gzip : {false, true}) {
    const Str name = SearchResults::getRandomFileName(gzip);
    const std::string ext = gzip ? ".csv.gz" : ".csv";
    ASSERT_EQ(name.size(), 10 + 16 + ext.size()) << name;
    EXPECT_EQ(name.compare(0, 10, "srfiletmp_"), 0) << name;
    EXPECT_EQ(name.find_first_not_of("0123456789abcdef", 10), 26u) << name;
    EXPECT_EQ(name.substr(26), ext) << name;
  }
  TestTempDir dir;
  std::set<std::string> made;
  for (int i = 0; i < 50; ++i) {
    Pathname p;
    ASSERT_TRUE(SearchResults::createNewFileInDir(dir.path(), i % 2 == 1, p));
    EXPECT_EQ(std::string(p).rfind(std::string(dir.path()) + "/srfiletmp_", 0), 0u) << p;
    EXPECT_TRUE(p.exists()) << p;
    EXPECT_EQ(readTestFile(p), "") << p;
    made.insert(p);
  }
  EXPECT_EQ(made.size(), 50u);
  Pathname untouched("keep");
  errno = 0;
  EXPECT_FALSE(SearchResults::createNewFileInDir(dir / "absent", false, untouched));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(untouched, "keep");
}

}  // namespace

namespace {

TEST(SearchResultsTest, ReadCSVLineJoinsLinesWhileAQuoteIsOpen) {
  const char* kText = "a,\"b\r\nc\"\r\n\"\"\"x\"\n\"open\nlast";
  StringLineReader r{StrSegment(kText)};
  const std::vector<std::string> kRecords = {"a,\"b\r\nc\"\r", "\"\"\"x\"", "\"open\nlast"};
  Str rec;
  for (const std::string& want : kRecords) {
    ASSERT_TRUE(SearchResults::readCSVLine(r, rec));
    EXPECT_EQ(rec, want);
  }
  EXPECT_FALSE(SearchResults::readCSVLine(r, rec));
}

TEST(SearchResultsTest, OpenFileTakesBatchesAndJoinsTheFileList) {
  TestTempDir dir;
  for (const char* leaf : {"batches.csv", "batches.csv.gz"}) {
    const Pathname p = dir / leaf;
    SearchResults sr;
    ASSERT_TRUE(sr.openFile(p)) << leaf;
    EXPECT_FALSE(sr.openFile(dir / "second.csv"));  // one at a time
    sr.addNewResult()->setValue(Str("a"), "1");
    SearchResult* r = sr.addNewResult();
    r->setValue(Str("a"), "2");
    r->setMultiValues(Str("b"), {"x", "y"}, "\n");
    ASSERT_TRUE(sr.appendCSV());
    EXPECT_EQ(sr.size(), 0u);
    sr.addNewResult()->setValue(Str("b"), "z");
    sr.addNewResult()->setValue(Str("c"), "dropped");  // not among the first batch's columns
    ASSERT_TRUE(sr.appendCSV());
    ASSERT_TRUE(sr.closeFile());
    EXPECT_FALSE(sr.hasOpenFile());
    ASSERT_EQ(sr.files(), std::vector<Pathname>{p});
    sr.setCowFiles(true);  // keep it for reading back
    SearchResults back;
    ASSERT_TRUE(back.fromCSV(p)) << leaf;
    EXPECT_EQ(rowsOf(back), (std::vector<Row>{{{"a", "1"}},
                                             {{"a", "2"}, {"b", "x\ny"}, {"__mv_b", "$x$;$y$"}},
                                             {{"b", "z"}},
                                             {}}))
        << leaf;
  }
}

TEST(SearchResultsTest, FileLifecycleMessages) {
  ScopedLogCapture log("SearchResults", "%m%n");
  TestTempDir dir;
  {
    SearchResults sr;
    ASSERT_TRUE(sr.openFile(dir / "left.csv"));
    sr.addNewResult()->setValue(Str("a"), "1");
    ASSERT_TRUE(sr.appendCSV());
    sr.setKeepFiles(true);
  }
  EXPECT_NE(log.text().find("CSV File still open at SearchResults destructor.\n"), std::string::npos);
  EXPECT_NE(log.text().find("For debugging, temporary file not deleted: " +
                            std::string(dir / "left.csv")),
            std::string::npos);
  EXPECT_EQ(readTestFile(dir / "left.csv"), "a\n1\n");
}

TEST(SearchResultsTest, WriteAllToCSVJoinsMemoryAndFiles) {
  TestTempDir dir;
  SearchResults sr;
  ASSERT_TRUE(sr.createTempDir(dir.path()));
  sr.addNewResult()->setValue(Str("a"), "1");
  ASSERT_TRUE(sr.writeFile());
  sr.addNewResult()->setValue(Str("b"), "2");
  ASSERT_TRUE(sr.writeFile());
  SearchResult* r = sr.addNewResult();
  r->setValue(Str("c"), "3");
  r->setValue(Str("a"), "0");
  const Pathname all = dir / "all.csv";
  ASSERT_TRUE(sr.writeAllToCSV(all));
  EXPECT_EQ(readTestFile(all), "a,b,c\n0,,3\n1,,\n,2,\n");  // spilled rows keep the columns
  {
    ScopedFileDescriptor fd(Pathname(dir / "fd.csv").openCreateOrReplace(Pathname::CREATE_NORMAL));
    ASSERT_TRUE(fd.valid());
    ASSERT_TRUE(sr.toCSV(FileDescriptor(fd), {"c", "a"}));
  }
  EXPECT_EQ(readTestFile(dir / "fd.csv"), "c,a\n3,0\n");
  EXPECT_FALSE(sr.toCSV(FileDescriptor()));
  EXPECT_EQ(sr.files().size(), 2u);
  EXPECT_EQ(sr.size(), 1u);
}

}  // namespace

namespace {

// A quote opens a value only at the start of a field; anywhere else it is
// data and joins no lines.
TEST(SearchResultsTest, QuoteInsideABareFieldOpensNothing) {
  const struct {
    const char* text;
    std::vector<Row> rows;
  } kCases[] = {
      {"x,y\na\"b,c\n1,2\n3,4\n",
       {{{"x", "a\"b"}, {"y", "c"}}, {{"x", "1"}, {"y", "2"}}, {{"x", "3"}, {"y", "4"}}}},
      {"x,y\na\"b,c\n", {{{"x", "a\"b"}, {"y", "c"}}}},
      {"x,y\n1,ab\"\n\"c\",d\n", {{{"x", "1"}, {"y", "ab\""}}, {{"x", "c"}, {"y", "d"}}}},
      {"x,y\n\"a\"\"\n\",b\n", {{{"x", "a\"\n"}, {"y", "b"}}}},  // "" inside stays open
  };
  for (const auto& c : kCases) {
    SearchResults whole, byLine;
    ASSERT_TRUE(whole.fromCSV(Str(c.text))) << c.text;
    StringLineReader r{StrSegment(c.text)};
    ASSERT_TRUE(byLine.fromCSV(r)) << c.text;
    EXPECT_EQ(rowsOf(whole), c.rows) << c.text;
    EXPECT_EQ(rowsOf(byLine), c.rows) << c.text;
  }
  const struct {
    const char* text;
    bool open;
  } kQuote[] = {{"\"a,b", true}, {"\"a\"\"", true}, {"x,\"", true}, {"a\"b", false},
                {"\"a\"", false}, {"\"\"", false}, {"\"a\"b\"", false}, {"", false}};
  for (const auto& q : kQuote) EXPECT_EQ(SearchResults::inQuote(Str(q.text)), q.open) << q.text;
}

TEST(SearchResultsTest, InconsistentColumnsReportNamesTheFile) {
  ScopedLogCapture log("SearchResults", "%m%n");
  TestTempDir dir;
  const Pathname p = dir / "ragged.csv";
  writeTestFile(p, "x,y\n1,2\n3\n4,5,6\n7,8\n");
  SearchResults sr;
  ASSERT_TRUE(sr.fromCSV(p));
  EXPECT_EQ(sr.size(), 4u);
  EXPECT_NE(log.text().find("While reading file '" + std::string(p) +
                            "', encountered 2 inconsistent number of column errors."),
            std::string::npos)
      << log.text();
}

}  // namespace
