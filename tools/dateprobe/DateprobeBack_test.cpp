// The real back in process: the sample table against fixed clocks across
// the years the stock settings promise, the settings of the context taken
// into account, and a broken pattern file reported as the tool reports it.

#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "loaderinfo/LoaderInfo.h"
#include "framework/DateprobeBack.h"
#include "tools/dateprobe/SelfTestCase.h"
#include "tools/dateprobe/SelfTestRun.h"
#include "util/DateParseException.h"
#include "util/DateTime.h"
#include "util/testing/FixedClock.h"
#include "util/testing/ScopedTz.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/ThrownText.h"
#include "util/testing/XmlTestInit.h"

namespace {

// The staged install tree, made the install root of the process as the
// tool's start-up makes it.
Pathname stagedHome() {
  LoaderInfo::getInstance().populateFromEnvironment();
  const char* home = std::getenv("KESTRO_HOME");
  EXPECT_NE(nullptr, home) << "KESTRO_HOME is not set";
  return Pathname(home != nullptr ? home : "");
}

// Runs the whole table on a fresh back at `now`; returns the passes.
int runTableAt(const Timeval& now, const DateprobePropsFiller& filler) {
  ScopedFixedClock clock(now);
  DateprobeBack back(filler, stagedHome());
  back.setUp("*");
  LocalStructTm local;
  now.localtime(&local);
  FILE* sink = fopen("/dev/null", "w");
  const int passes = runSelfTest(back, selfTestCases, false, 0, now, local.tm_year + 1900, sink);
  fclose(sink);
  return passes;
}

// The stock window reaches back to the table's oldest rows (2004) from the
// first to the last day of every year through 2033. In UTC only: the
// process settles its default zone once, so other zones are run by the
// end-to-end tests, each in a process of its own.
TEST(DateprobeBack, TheTablePassesInEveryYearThrough2033) {
  const DateprobePropsFiller stock = propsPagesFiller();
  for (const char* zone : {"UTC"}) {
    ScopedTz tz(zone);
    for (int year = 2026; year <= 2033; ++year) {
      for (const auto& [month, day] : {std::pair{1, 1}, std::pair{7, 1}, std::pair{12, 31}}) {
        tm broken = {};
        broken.tm_year = year - 1900;
        broken.tm_mon = month - 1;
        broken.tm_mday = day;
        broken.tm_hour = 12;
        const Timeval now(timegm(&broken), 0);
        EXPECT_EQ(92, runTableAt(now, stock)) << zone << " " << year << "-" << month << "-" << day;
      }
    }
  }
}

// The built-in window of five years is what the stock stanza widens: with
// it, the oldest rows fail once they are more than five years old.
TEST(DateprobeBack, WithoutTheStockWindowOldRowsFail) {
  ScopedTz tz("UTC");
  const auto none = [](PropertiesMap&, const Str&) {};
  EXPECT_GT(92, runTableAt(Timeval(1781524800, 0), none));
}

// The settings of the context count, but the patterns are always the
// stock file's, whatever DATETIME_CONFIG names.
TEST(DateprobeBack, SettingsCountButThePatternsAreAlwaysTheStockOnes) {
  ScopedTz tz("UTC");
  const Timeval now(1781524800, 0);
  ScopedFixedClock clock(now);
  Str seenContext;
  DateprobeBack back(
      [&](PropertiesMap& props, const Str& context) {
        seenContext = context;
        props.put("DATETIME_CONFIG", "NONE");
        props.put("TZ", "Asia/Kolkata");
      },
      stagedHome());
  back.setUp("syslog");
  EXPECT_EQ("syslog", seenContext);
  DateprobeParse p;
  ASSERT_TRUE(back.parseDetailed("x 2026-06-15 11:58:01.250", now, &p));
  EXPECT_EQ(1781524681 - 19800, p.time.tv_sec);  // Kolkata, 5:30 east
  EXPECT_EQ(250000, p.time.tv_usec);
  EXPECT_EQ(3, p.subsecDigits);
  EXPECT_EQ(13, p.timeStart);
  EXPECT_EQ(2, p.dateStart);
  EXPECT_FALSE(back.lastPatternName().empty());
}

TEST(DateprobeBack, AMissingPatternFileIsAnExceptionOfSetUp) {
  stagedHome();
  TestTempDir home;
  DateprobeBack back([](PropertiesMap&, const Str&) {}, home.path());
  const std::string text = thrownText<DateParseException>([&] { back.setUp("*"); });
  EXPECT_EQ(0u, text.find("Can't open DatePaser XML configuration file \"" +
                          std::string(home.path()) + "/etc/datetime.xml\": "))
      << text;
}

}  // namespace
