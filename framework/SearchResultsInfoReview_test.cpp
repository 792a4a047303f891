// A search's metrics as the one-row CSV that other processes read: four
// prefixed columns for each.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/SearchResults.h"
#include "framework/SearchResultsInfo.h"

namespace {

std::string cell(const SearchResults& t, const char* name) {
  Str out;
  if (t.empty() || !t[0]->getValue(Str(name), out)) return "<missing>";
  return out;
}

TEST(SearchResultsInfoReview, MetricsTakeFourPrefixedColumnsEach) {
  SearchResultsInfo info;
  info.updateMetric(Str("command.search"), 2.5);
  info.updateMetric(Str("command.search"), 1.5);
  info.updateCountMetrics(Str("command.search"), 30, 7);
  info.updateCountMetrics(Str("command.search"), 5, 1);
  const SearchResultsInfo::Metric& m = info.metrics().at(Str("command.search"));
  EXPECT_DOUBLE_EQ(m.durationMs, 4.0);
  EXPECT_EQ(m.invocations, 2u);
  EXPECT_EQ(m.inCount, 35u);
  EXPECT_EQ(m.outCount, 8u);

  SearchResults t;
  info.toSearchResults(t);
  ASSERT_EQ(t.size(), 1u);
  EXPECT_EQ(std::stod(cell(t, "duration.command.search")), 4.0);
  EXPECT_EQ(cell(t, "invocations.command.search"), "2");
  EXPECT_EQ(cell(t, "in_ct.command.search"), "35");
  EXPECT_EQ(cell(t, "out_ct.command.search"), "8");

  Str csv;
  ASSERT_TRUE(info.toCSV(csv));
  SearchResultsInfo back;
  ASSERT_TRUE(back.fromCSV(csv));
  ASSERT_EQ(back.metrics().count(Str("command.search")), 1u);
  const SearchResultsInfo::Metric& b = back.metrics().at(Str("command.search"));
  EXPECT_DOUBLE_EQ(b.durationMs, 4.0);
  EXPECT_EQ(b.invocations, 2u);
  EXPECT_EQ(b.inCount, 35u);
  EXPECT_EQ(b.outCount, 8u);
  EXPECT_EQ(back.get(Str("duration.command.search")), nullptr);
}

}  // namespace
