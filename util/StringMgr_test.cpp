#include "util/StringMgr.h"

#include <gtest/gtest.h>

#include <string>

namespace {

int gLoaderCalls = 0;

// Stands in for the configuration layer's "literals" pages.
void loadTestLiterals(StringMgr& mgr) {
  ++gLoaderCalls;
  mgr.addLiteral("LOGIN", "FAILED", "Login failed for %s");
  mgr.addLiteral("SEARCH", "TIMEOUT", "Search timed out after %d seconds");
  mgr.addLiteral("DISK", "FULL", "Disk full");
  mgr.addLiteral("lower", "case", "never found: lookups upper-case the key");
  mgr.addLiteral("DISK_FULL", "", "second writer of DISK_FULL_ is a different key");
  mgr.addLiteral("DISK", "FULL", "a later duplicate is ignored");
}

// Runs before main, as the configuration layer's start-up would.
const bool kLoaderInstalled = (StringMgr::setLiteralsLoader(&loadTestLiterals), true);

const char* const MISS = "String not found in literals.conf: ";

// Runs first, in a fresh process, before anything has built the instance.
TEST(StringMgrDeathTest, LookupBeforeInstanceAsserts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(StringMgr::str("DISK_FULL"), "Assertion failed: _instance");
}

TEST(StringMgr, LoaderRunsOnceAndLookupsHitAfterNormalisation) {
  ASSERT_TRUE(kLoaderInstalled);
  StringMgr& first = StringMgr::instance();
  EXPECT_EQ(&first, &StringMgr::instance());
  EXPECT_EQ(1, gLoaderCalls);
  const struct { const char* key; const char* text; } kCases[] = {
      {"LOGIN_%FAILED", "Login failed for %s"},  // "%" is dropped
      {"DISK_FULL", "Disk full"},  // the first writer of a key wins
      {"LOGIN_FAILED", "Login failed for %s"}, {"Login_failed", "Login failed for %s"},
      {"%%login%_failed%", "Login failed for %s"},
      {"DISK_FULL_", "second writer of DISK_FULL_ is a different key"},
  };
  for (const auto& c : kCases) EXPECT_STREQ(c.text, StringMgr::str(c.key)) << c.key;
}

TEST(StringMgr, MissNamesTheKeyAsGiven) {
  StringMgr::instance();
  const struct { const char* key; const char* shown; } kCases[] = {
      {"other_missing", "other_missing"},  // case kept in the message
      {"lower_case", "lower_case"},        // stored keys are not normalised
      {"A__B__C", "A Arguments: B__C"},  // only the first "__" is rewritten
      {"PCT_%s", "PCT_%s"},  // "%" kept in the message, dropped in the key
      {"CANT_OPEN__path", "CANT_OPEN Arguments: path"}, {"__LEAD", " Arguments: LEAD"},
      {"TRAIL__", "TRAIL Arguments: "}, {"", ""},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(std::string(MISS) + c.shown, StringMgr::str(c.key)) << c.key;
  }
}

TEST(StringMgr, MissIsRememberedAndPointersSurviveLaterInserts) {
  StringMgr& mgr = StringMgr::instance();
  const char* hit = StringMgr::str("DISK_FULL");
  const char* miss = StringMgr::str("LATER__key");
  // A later caller with another spelling of the same key gets the first text.
  EXPECT_EQ(miss, StringMgr::str("later__%KEY"));
  mgr.addLiteral("LATER", "_KEY", "arrives too late");
  mgr.addLiteral("DISK", "FULL", "too late as well");
  for (int i = 0; i < 200; ++i) mgr.addLiteral("FILL", std::to_string(i), "x");
  EXPECT_EQ(hit, StringMgr::str("DISK_FULL"));
  EXPECT_EQ(miss, StringMgr::str("LATER__KEY"));
  EXPECT_STREQ("Disk full", hit);
  EXPECT_STREQ("String not found in literals.conf: LATER Arguments: key", miss);
  EXPECT_STREQ("x", StringMgr::str("FILL_199"));
}

TEST(StringMgr, FStrFormatsWithTheLookedUpText) {
  StringMgr::instance();
  EXPECT_EQ("Login failed for admin", StringMgr::fStr("login_failed", "admin"));
  EXPECT_EQ("Search timed out after 30 seconds", StringMgr::fStr("SEARCH_TIMEOUT", 30));
  EXPECT_EQ("String not found in literals.conf: NOPE Arguments: 7",
            StringMgr::fStr("NOPE__%d", 7));
}

}  // namespace
