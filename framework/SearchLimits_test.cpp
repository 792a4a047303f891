// Search settings read from an install's own configuration: the limits of
// results and the shared cleaner.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "framework/GenericCleaner.h"
#include "framework/SearchEvaluator.h"
#include "framework/SearchResults.h"
#include "libbundle/testing/DefaultRootEnvironment.h"
#include "loaderinfo/LoaderInfo.h"

namespace {

const auto* const gRoot = ::testing::AddGlobalTestEnvironment(
    new DefaultRootEnvironment({{"system/default/limits.conf", "[searchresults]\ntocsv_maxretry = 0\ntocsv_retryperiod_ms = 1\n" "maxresultrows = 7\n"},
                                {"system/default/segmenters.conf", "[search]\nMAJOR = \\s |\nMINOR = .\n"}}));

TEST(SearchLimits, ZeroRetriesStillWriteOnce) {
  EXPECT_EQ(SearchResults::getToCSVMaxRetry(), 0u);
  EXPECT_EQ(SearchResults::getMaxResultRows(true), 7u);
  SearchResults sr;
  sr.addNewResult()->setValue(Str("a"), "1");
  TestTempDir dir;
  EXPECT_TRUE(sr.toCSV(dir / "once.csv"));
  EXPECT_EQ(readTestFile(dir / "once.csv"), "a\n1\n");
  EXPECT_FALSE(sr.toCSV(dir / "absent" / "x.csv"));
  const std::string key = sr.lastErrorKey();
  EXPECT_NE(key.find("_1_1_"), std::string::npos) << key;  // attempt 1 of the 1 made
}

TEST(SearchLimits, SharedCleanerTakesTheSegmentersStanza) {
  SearchResults sr;
  SearchResult* r = sr.addNewResult();
  r->setValue(Str("_raw"), "a|b-c.d");
  EXPECT_EQ(SearchEvaluator(Str("b-c")).isMatch(r, {}), 1);  // "-" breaks nothing here
  EXPECT_EQ(SearchEvaluator(Str("d")).isMatch(r, {}), 1);
  EXPECT_EQ(SearchEvaluator(Str("c")).isMatch(r, {}), 0);
}

}  // namespace
