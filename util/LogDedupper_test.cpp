#include "util/LogDedupper.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "util/testing/LogCapture.h"
#include "util/Logger.h"
#include "util/testing/FixedClock.h"
#include "util/testing/ScopedTz.h"

namespace {

// A fixed clock in seconds from 1700000000 (Tue Nov 14 22:13:20 2023 UTC)
// and the zone at UTC, for one test.
class DedupClock {
 public:
  void set(int64_t seconds) { _clock.set(Timeval(1700000000 + seconds, 0)); }

 private:
  ScopedTz _zone{"UTC"};
  ScopedFixedClock _clock{Timeval(1700000000, 0)};
};

// The line that sums up `count` held messages, the first at `first`.
std::string summary(int count, const char* first) {
  return "\t\t\t\t" + std::to_string(count) +
         " similar messages suppressed.  First occurred at: " + first;
}

TEST(LogDedupper, HoldsBackPastTheCountAndSummarisesAfterTheSeconds) {
  DedupClock clock;
  Logger logger("DedupBasic", true, 60, 3);
  ScopedLogCapture capture("DedupBasic", "%m%n");
  for (int i = 1; i <= 3; ++i) logger.warn("x %d", i);  // within the count
  clock.set(1);
  logger.warn("x %d", 4);  // held, and the first held: stamped
  clock.set(2);
  logger.warn("x %d", 5);
  clock.set(30);
  logger.warn("y");  // another format: its own count
  clock.set(61);
  logger.warn("x %d", 6);  // exactly 60 s after the stamp: not yet more than 60
  EXPECT_EQ(std::vector<std::string>({"x 1", "x 2", "x 3", "y"}), capture.lines());
  clock.set(62);
  logger.warn("x %d", 7);  // 61 s: expired, with the count of calls past 3
  logger.warn("x %d", 8);  // afresh
  EXPECT_EQ(std::vector<std::string>(
                {"x 1", "x 2", "x 3", "y", "x 7", summary(4, "Tue Nov 14 22:13:21 2023"), "x 8"}),
            capture.lines());
}

TEST(LogDedupper, AnotherFormatsCallReleasesAnExpiredSummary) {
  DedupClock clock;
  Logger logger("DedupOther", true, 10, 1);
  ScopedLogCapture capture("DedupOther", "%p %m%n");
  logger.error("disk %s full", "a");
  logger.error("disk %s full", "b");  // held
  logger.error("disk %s full", "c");  // held; the latest message is kept
  clock.set(20);
  logger.info("unrelated");
  // The walk goes by format text, so "disk %s full" comes first.
  EXPECT_EQ(std::vector<std::string>(
                {"ERROR disk a full", "ERROR disk c full", summary(2, "Tue Nov 14 22:13:20 2023"),
                 "INFO unrelated"}),
            capture.lines());
}

TEST(LogDedupper, FlushLogsWhatItHolds) {
  DedupClock clock;
  Logger logger("DedupFlush", true, 60, 2);
  ScopedLogCapture capture("DedupFlush", "%m%n");
  for (int i = 0; i < 5; ++i) logger.warn("held %d", i);
  logger.warn("once");
  logger.flushDedup();
  logger.flushDedup();  // nothing left
  EXPECT_EQ(std::vector<std::string>({"held 0", "held 1", "once", "held 4",
                                      summary(3, "Tue Nov 14 22:13:20 2023"), "once"}),
            capture.lines());
  logger.warn("held %d", 9);  // the map was cleared: within the count again
  EXPECT_EQ("held 9", capture.lines().back());
}

TEST(LogDedupper, KeysOnTheFormatNotTheMessage) {
  DedupClock clock;
  Logger logger("DedupKey", true, 60, 1);
  ScopedLogCapture capture("DedupKey", "%m%n");
  logger.warn("a %s", "x");
  logger.warn("a %s", "y");  // same format, other text: held
  logger.warn("a x");        // other format, same text: logged
  EXPECT_EQ(std::vector<std::string>({"a x", "a x"}), capture.lines());
}

TEST(LogDedupper, ConcurrentCallersLogExactlyTheCount) {
  DedupClock clock;
  Logger logger("DedupThreads", true, 60, 100);
  ScopedLogCapture capture("DedupThreads", "%m%n");
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) logger.warn("busy %d/%d", t, i);
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(100u, capture.lines().size());
  clock.set(61);
  logger.warn("busy %d/%d", 9, 9);
  const std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(102u, lines.size());
  EXPECT_EQ("busy 9/9", lines[100]);
  EXPECT_EQ(summary(1501, "Tue Nov 14 22:13:20 2023"), lines[101]);
}

TEST(LogDedupper, ALoggerWithoutDedupLogsEveryRepeat) {
  Logger logger("DedupNone");
  ScopedLogCapture capture("DedupNone", "%m%n");
  for (int i = 0; i < 150; ++i) logger.warn("same");
  logger.flushDedup();
  EXPECT_EQ(150u, capture.lines().size());
}

}  // namespace
