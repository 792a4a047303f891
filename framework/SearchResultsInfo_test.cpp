#include "framework/SearchResultsInfo.h"

#include <gtest/gtest.h>

#include "util/testing/TestTempDir.h"

namespace {

SearchResultsInfo sample() {
  SearchResultsInfo info;
  info.set(Str("_search"), "search index=main \"a,b\" | stats count");
  info.set(Str("_sid"), "1700000000.42");
  info.set(Str("_tz"), "");  // empty is a value, not an absence
  info.set(Str("label"), "multi\nline $ text");
  info.set(Str("_ppc.app"), "search");
  info.updateMetric(Str("command.search"), 12.5);
  info.updateMetric(Str("command.search"), 0.5);
  info.updateCountMetrics(Str("command.search"), 100, 7);
  info.addMessage(Str("ERROR"), "bad; thing $x$");
  info.addMessage(Str("INFO"), "one");
  info.addMessage(Str("INFO"), "two");
  return info;
}

void expectSame(const SearchResultsInfo& a, const SearchResultsInfo& b) {
  EXPECT_EQ(a.fields(), b.fields());
  EXPECT_EQ(a.messages(), b.messages());
  ASSERT_EQ(a.metrics().size(), b.metrics().size());
  for (const auto& [name, m] : a.metrics()) {
    const auto& o = b.metrics().at(name);
    EXPECT_DOUBLE_EQ(m.durationMs, o.durationMs) << name;
    EXPECT_EQ(m.invocations, o.invocations) << name;
    EXPECT_EQ(m.inCount, o.inCount) << name;
    EXPECT_EQ(m.outCount, o.outCount) << name;
  }
}

TEST(SearchResultsInfo, RoundTripsThroughOneRowCsv) {
  SearchResultsInfo info = sample();
  Str csv;
  ASSERT_TRUE(info.toCSV(csv));
  SearchResults sr;
  ASSERT_TRUE(sr.fromCSV(csv));
  EXPECT_EQ(sr.size(), 1u);  // one record, even with a newline in a value
  SearchResultsInfo back;
  ASSERT_TRUE(back.fromCSV(csv));
  expectSame(info, back);
  EXPECT_EQ(back.metrics().at("command.search").invocations, 2u);
  EXPECT_DOUBLE_EQ(back.metrics().at("command.search").durationMs, 13.0);
}

TEST(SearchResultsInfo, RoundTripsThroughPlainAndGzippedFiles) {
  TestTempDir dir;
  SearchResultsInfo info = sample();
  for (const char* name : {"info.csv", "info.csv.gz"}) {
    Pathname p(std::string(dir.path()) + "/" + name);
    ASSERT_TRUE(info.toCSV(p)) << name;
    SearchResultsInfo back;
    ASSERT_TRUE(back.fromCSV(p)) << name;
    expectSame(info, back);
  }
  SearchResultsInfo missing;
  EXPECT_FALSE(missing.fromCSV(Pathname(std::string(dir.path()) + "/absent.csv")));
}

TEST(SearchResultsInfo, RejectsUnreadableInput) {
  const char* kBad[] = {
      "",                 // no header
      "_sid,label\n",     // a header but no row
  };
  for (const char* text : kBad) {
    SearchResultsInfo info = sample();
    EXPECT_FALSE(info.fromCSV(Str(text))) << text;
  }
}

TEST(SearchResultsInfo, DropsUnknownMessageLevels) {
  SearchResultsInfo info;
  EXPECT_FALSE(info.addMessage(Str("FATAL"), "x"));
  EXPECT_FALSE(info.addMessage(Str("warn"), "x"));
  EXPECT_TRUE(info.addMessage(Str("WARN"), "x"));
  EXPECT_TRUE(info.messages().count("WARN"));
  EXPECT_EQ(info.messages().size(), 1u);
  // A file naming a bad level keeps only the good pairs.
  SearchResultsInfo back;
  ASSERT_TRUE(back.fromCSV(Str("msgType,__mv_msgType,msg,__mv_msg\n,$BOGUS$;$INFO$,,$a$;$b$\n")));
  ASSERT_EQ(back.messages().size(), 1u);
  EXPECT_EQ(back.messages().at("INFO"), std::set<Str>{Str("b")});
}

TEST(SearchResultsInfo, WarnsMissingFieldsJoined) {
  const struct {
    StrVector missing;
    const char* text;
  } kCases[] = {
      {{"a"}, "Specified field(s) missing from results: a"},
      {{"a", "b c", "d"}, "Specified field(s) missing from results: a, b c, d"},
  };
  for (const auto& c : kCases) {
    SearchResultsInfo info;
    info.warnMissingFields(c.missing);
    ASSERT_EQ(info.messages().count("WARN"), 1u) << c.text;
    EXPECT_EQ(*info.messages().at("WARN").begin(), c.text);
  }
  SearchResultsInfo none;
  none.warnMissingFields({});
  EXPECT_TRUE(none.messages().empty());
}

TEST(SearchResultsInfo, CombinesPartsOfOneSearch) {
  SearchResultsInfo a, b;
  a.set(Str("_sid"), "s1");
  a.set(Str("_scan_count"), "10");
  a.set(Str("_drop_count"), "1");
  a.set(Str("_startTime"), "200.5");
  a.set(Str("_endTime"), "300");
  b.set(Str("_sid"), "other");  // the receiver's own value stays
  b.set(Str("_scan_count"), "32");
  b.set(Str("_drop_count"), "2");
  b.set(Str("_startTime"), "100");
  b.set(Str("_endTime"), "250");
  b.set(Str("_tz_name"), "UTC");
  a.updateMetric(Str("m"), 1);
  b.updateMetric(Str("m"), 2);
  b.updateCountMetrics(Str("m"), 5, 3);
  a.addMessage(Str("INFO"), "same");
  b.addMessage(Str("INFO"), "same");
  b.addMessage(Str("ERROR"), "only b");
  a.combine(b);
  const struct { const char* name; const char* value; } kFields[] = {
      {"_sid", "s1"}, {"_scan_count", "42"}, {"_drop_count", "3"},
      {"_startTime", "100"}, {"_endTime", "300"}, {"_tz_name", "UTC"},
  };
  for (const auto& f : kFields) {
    ASSERT_NE(a.get(Str(f.name)), nullptr) << f.name;
    EXPECT_EQ(*a.get(Str(f.name)), f.value) << f.name;
  }
  EXPECT_EQ(a.metrics().at("m").invocations, 2u);
  EXPECT_DOUBLE_EQ(a.metrics().at("m").durationMs, 3.0);
  EXPECT_EQ(a.metrics().at("m").inCount, 5u);
  EXPECT_EQ(a.messages().at("INFO").size(), 1u);
  EXPECT_EQ(a.messages().at("ERROR").size(), 1u);
}

}  // namespace
