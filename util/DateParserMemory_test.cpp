// The memory of a date parser on long generated streams: how many pattern
// evaluations a line costs once a pattern has settled, when the date text
// of the last line is reused, and what resets both.

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "util/DateParser.h"
#include "util/testing/DateParserTestSupport.h"
#include "util/testing/FixedClock.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/XmlTestInit.h"

namespace {

// 2026-06-15 12:00:00 UTC, and that day's midnight.
const Timeval NOW(1781524800, 0);
constexpr int64_t MIDNIGHT = 1781481600;

// "2026-06-15 hh:mm:ss host-a app: event" for `secs` seconds after midnight.
std::string lineAt(int secs, const char* tail = " host-a app: event") {
  char buf[64];
  snprintf(buf, sizeof buf, "2026-06-15 %02d:%02d:%02d", secs / 3600, secs / 60 % 60, secs % 60);
  return buf + std::string(tail);
}

// What one line cost in evaluations of each list.
struct Cost {
  bool ok;
  Timeval t;
  uint64_t time;
  uint64_t date;
};

class DateParserMemoryTest : public ::testing::Test {
 protected:
  DateParserMemoryTest() : _parser(true, writeFile()), _clock(NOW) {}

  Cost parse(const std::string& line, const Timeval& now = NOW) {
    const uint64_t time0 = _parser->getTimeEvaluations();
    const uint64_t date0 = _parser->getDateEvaluations();
    Cost c{};
    int ts, te, ds, de;
    c.ok = _parser->parseDate(c.t, StrSegment(line), now, ts, te, ds, de, nullptr);
    c.time = _parser->getTimeEvaluations() - time0;
    c.date = _parser->getDateEvaluations() - date0;
    return c;
  }
  // Parses a line every 7 seconds from `from` for `count` lines; checks
  // each result.
  void steadyStream(int from, int count) {
    for (int i = 0; i < count; ++i) {
      const Cost c = parse(lineAt(from + 7 * i));
      ASSERT_TRUE(c.ok);
      ASSERT_EQ(MIDNIGHT + from + 7 * i, c.t.tv_sec);
    }
  }
  DateParser& parser() { return *_parser; }

 private:
  Pathname writeFile() {
    writeTestFile(_dir / "mini.xml", MINI_PATTERNS);
    return _dir / "mini.xml";
  }

  TestTempDir _dir;
  ShippedDateParser _parser;
  ScopedFixedClock _clock;
};

// A line costs one time evaluation once the time pattern has settled, and
// no date evaluation while the date text and the hour and minute repeat; a
// new minute costs the settled date pattern alone.
TEST_F(DateParserMemoryTest, ASteadyStreamCostsOneTimeRegexAndNoDateRegex) {
  const int start = 10 * 3600;
  steadyStream(start, 200);  // warm-up: 23 minutes, both patterns settle
  ASSERT_GE(parser().getTimeState().hits, 10u);
  ASSERT_GE(parser().getDateState().hits, 10u);
  int previousMinute = (start + 7 * 199) / 60;
  uint64_t minutes = 0;
  for (int i = 200; i < 800; ++i) {
    const int secs = start + 7 * i;
    const Cost c = parse(lineAt(secs));
    ASSERT_TRUE(c.ok);
    ASSERT_EQ(MIDNIGHT + secs, c.t.tv_sec);
    EXPECT_EQ(1u, c.time) << i;
    const bool newMinute = secs / 60 != previousMinute;
    EXPECT_EQ(newMinute ? 1u : 0u, c.date) << i;
    minutes += newMinute;
    previousMinute = secs / 60;
  }
  EXPECT_GE(minutes, 60u);
  EXPECT_LT(parser().getAvgGapSecs(), 8u);
}

// A settled date pattern that reads a date outside the window fails the
// line and resets the memory: the next line searches every pattern again.
TEST_F(DateParserMemoryTest, AResultOutsideTheWindowResetsTheMemory) {
  steadyStream(10 * 3600, 200);
  ScopedLogCapture log("DateParserVerbose");
  const Cost bad = parse("1999-01-01 11:00:00 host-a app: replayed");
  ASSERT_TRUE(bad.ok);  // the previous event's time
  EXPECT_EQ(MIDNIGHT + 10 * 3600 + 7 * 199, bad.t.tv_sec);
  EXPECT_EQ(nullptr, parser().getTimeState().lastRegex);
  EXPECT_EQ(0u, parser().getTimeState().hits);
  EXPECT_EQ(nullptr, parser().getDateState().lastRegex);
  const std::string text = log.text();
  EXPECT_NE(std::string::npos,
            text.find("WARN A possible timestamp match (" + Timeval(915188400, 0).asctime() +
                      ") is outside of the acceptable time window."));
  EXPECT_NE(std::string::npos, text.find("WARN Failed to parse timestamp. Defaulting to "
                                         "timestamp of previous event"));
  const Cost next = parse(lineAt(11 * 3600));
  ASSERT_TRUE(next.ok);
  EXPECT_EQ(4u, next.time);  // every time pattern
  EXPECT_EQ(2u, next.date);  // every date pattern
}

// A reused date text that no longer fits the window closes the shortcut by
// setting the average gap to 600 seconds; the next accepted line, 14
// seconds after the last good one, brings it to 404 and opens it again.
TEST_F(DateParserMemoryTest, AFailedDateReuseClosesTheShortcutUntilTheStreamSettles) {
  // Long enough for the average to come down from the first event's
  // distance to zero; ends at 11:32:13.
  steadyStream(11 * 3600 + 25 * 60 + 20, 60);
  const Cost same = parse(lineAt(11 * 3600 + 32 * 60 + 20));
  ASSERT_TRUE(same.ok);
  EXPECT_EQ(0u, same.date);
  // Two weeks earlier, June 15 lies past the window's 7 days ahead.
  const Timeval earlier(NOW.tv_sec - 14 * 86400, 0);
  const Cost failed = parse(lineAt(11 * 3600 + 32 * 60 + 27), earlier);
  EXPECT_EQ(600u, parser().getAvgGapSecs());
  EXPECT_EQ(MIDNIGHT + 11 * 3600 + 32 * 60 + 20, failed.t.tv_sec);  // the previous time
  // Closed: the same minute and date text cost a date search.
  const Cost closed = parse(lineAt(11 * 3600 + 32 * 60 + 34));
  ASSERT_TRUE(closed.ok);
  EXPECT_LE(1u, closed.date);
  EXPECT_EQ(404u, parser().getAvgGapSecs());
  // Open again.
  const Cost open = parse(lineAt(11 * 3600 + 32 * 60 + 41));
  ASSERT_TRUE(open.ok);
  EXPECT_EQ(0u, open.date);
}

// The remembered pattern, on its tenth win, loses to a better one: that is
// a change of format worth a warning.
TEST_F(DateParserMemoryTest, ASettledPatternDisplacedByABetterOneIsReported) {
  ScopedLogCapture log("DateParserVerbose");
  for (int i = 0; i < 9; ++i) ASSERT_TRUE(parse(lineAt(36000 + i, "")).ok);
  EXPECT_EQ(9u, parser().getTimeState().hits);
  EXPECT_EQ(std::string::npos, log.text().find("format has changed"));
  const Cost c = parse(lineAt(36009, " PDT"));
  ASSERT_TRUE(c.ok);
  EXPECT_EQ(MIDNIGHT + 36009 + 7 * 3600, c.t.tv_sec);
  EXPECT_EQ(1u, parser().getTimeState().hits);
  EXPECT_NE(std::string::npos,
            log.text().find("WARN Accepted time format has changed, possibly indicating a "
                            "problem in extracting timestamps."));
}

// Every 100000th repeat of one result is reported, in thousands; any other
// result starts the count again.
TEST_F(DateParserMemoryTest, RepeatedResultsAreReportedEveryHundredThousand) {
  ScopedLogCapture log("DateParserVerbose");
  const std::string line = lineAt(36000);
  ASSERT_TRUE(parse(line).ok);
  for (int i = 1; i <= 200000; ++i) {
    int ts, te, ds, de;
    Timeval t;
    ASSERT_TRUE(parser().parseDate(t, StrSegment(line), NOW, ts, te, ds, de, nullptr));
    if (i == 99999) {
      EXPECT_EQ(std::string::npos, log.text().find("consecutive"));
    }
  }
  EXPECT_EQ(200000u, parser().getSameTimeCount());
  const std::string text = log.text();
  const std::string tail =
      "K consecutive times.  If more than 200K events have the same timestamp, not all events "
      "may be retrieveable.";
  EXPECT_NE(std::string::npos, text.find("WARN The same timestamp has been used for 100" + tail));
  EXPECT_NE(std::string::npos, text.find("WARN The same timestamp has been used for 200" + tail));
  ASSERT_TRUE(parse(lineAt(36001)).ok);
  EXPECT_EQ(0u, parser().getSameTimeCount());
}

}  // namespace
