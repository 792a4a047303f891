// The limits that bound searches and their results, read from a real
// configuration root made before anything reads it; hence an executable of
// its own.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "framework/LimitsStanza.h"
#include "framework/SearchEvaluator.h"
#include "framework/SearchResults.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/testing/DefaultRootEnvironment.h"
#include "loaderinfo/LoaderInfo.h"

namespace {

const char* const kLimits =
    "[searchresults]\n"
    "maxresultrows = 1234\n"
    "tocsv_maxretry = 7\n"
    "tocsv_retryperiod_ms = 3\n"
    "[search]\n"
    "use_regex_tokenizer = false\n"
    "allow_term_directive = false\n"
    "allow_case_directive = true\n";

const auto* const gRoot = ::testing::AddGlobalTestEnvironment(
    new DefaultRootEnvironment({{"system/default/limits.conf", kLimits}}));

TEST(SearchLimitsReview, ResultSettingsComeFromTheSearchResultsStanza) {
  EXPECT_EQ(SearchResults::getMaxResultRows(), 1234u);
  EXPECT_EQ(SearchResults::getMaxResultRows(true), 1234u);
  EXPECT_EQ(SearchResults::getToCSVMaxRetry(), 7u);
  EXPECT_EQ(SearchResults::getToCSVRetryPeriodMs(), 3u);
}

TEST(SearchLimitsReview, StanzasAreFoundByName) {
  PropertiesMap found;
  EXPECT_TRUE(getLimitsStanza("searchresults", found));
  PropertiesMap missing;
  EXPECT_FALSE(getLimitsStanza("no_such_stanza", missing));
}

TEST(SearchLimitsReview, TokenizerDirectivesFollowTheSearchStanza) {
  const RETokenizer tokenizer = RETokenizer::fromSettings(Str("TERM(a b) CASE(c d) x<>y"));
  std::vector<std::string> got;
  for (const Str& s : tokenizer.tokens()) got.push_back(s);
  EXPECT_EQ(got, (std::vector<std::string>{"TERM", "(", "a", "b", ")", "CASE(c d)", "x", "<>",
                                           "y"}));
}

}  // namespace
