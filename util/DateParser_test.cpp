// The date parser on small pattern files: what a line yields, its regions,
// candidate order, the memory of winning patterns and of the date text,
// the settings that shape the search, and the messages it logs.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "util/DateParser.h"
#include "util/DateParserConfigRef.h"
#include "util/DateTimeRegex.h"
#include "util/DateTimeRegexList.h"
#include "util/HashedStr.h"
#include "util/Regex.h"
#include "util/testing/DateParserTestSupport.h"
#include "util/testing/FixedClock.h"
#include "util/testing/GuessTestSupport.h"
#include "util/testing/LogCapture.h"
#include "util/testing/ScopedTz.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/XmlTestInit.h"

namespace {

// 2026-06-15 12:00:00 UTC.
const Timeval NOW(1781524800, 0);

class ZoneEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { ASSERT_TRUE(useStagedZonesWithGmtDefault()) << "build stage_zoneinfo"; }
};
const bool kZoneEnvironmentAdded =
    (::testing::AddGlobalTestEnvironment(new ZoneEnvironment), true);

struct Parsed {
  bool ok = false;
  Timeval t;
  int ts = -1, te = -1, ds = -1, de = -1;
};

class DateParserTest : public ::testing::Test {
 protected:
  explicit DateParserTest(bool useMemory = false)
      : _file(writeFile()), _parser(useMemory, _file), _clock(NOW) {}

  Parsed parse(const std::string& line, ExtraTimevalParseInfo* extra = nullptr) {
    Parsed p;
    p.ok = _parser->parseDate(p.t, StrSegment(line), NOW, p.ts, p.te, p.ds, p.de, extra);
    return p;
  }
  DateParser& parser() { return *_parser; }

 private:
  Pathname writeFile() {
    writeTestFile(_dir / "mini.xml", MINI_PATTERNS);
    return _dir / "mini.xml";
  }

  TestTempDir _dir;
  Pathname _file;
  ShippedDateParser _parser;
  ScopedFixedClock _clock;
};

TEST_F(DateParserTest, LinesYieldTheirInstantAndRegions) {
  const struct {
    const char* line;
    int64_t seconds;
    int ts, te, ds, de;
  } kCases[] = {
      {"2026-06-15 11:58:01 started", 1781524681, 11, 19, 0, 10},
      {"at 15/06/2026 11:58:01.5", 1781524681, 14, 24, 3, 13},
      {"2026-06-15 12:30:00 AM midnight", 1781483400, 11, 22, 0, 10},
      {"2026-06-15 12:30:00 PM noon", 1781526600, 11, 22, 0, 10},
      {"2026-06-15 04:58:01 PDT", 1781524681, 11, 23, 0, 10},
      {"2026-06-15 13:58:01 +0200", 1781524681, 11, 25, 0, 10},
      {"2026-06-15 10:28:01 -0130", 1781524681, 11, 25, 0, 10},
      {"1781524681 job done", 1781524681, 0, 10, -1, -1},
      // No date: the time of day takes today.
      {"11:58:01 tick", 1781524681, 0, 8, -1, -1},
  };
  for (const auto& c : kCases) {
    const Parsed p = parse(c.line);
    ASSERT_TRUE(p.ok) << c.line;
    EXPECT_EQ(c.seconds, p.t.tv_sec) << c.line;
    EXPECT_EQ(c.ts, p.ts) << c.line;
    EXPECT_EQ(c.te, p.te) << c.line;
    EXPECT_EQ(c.ds, p.ds) << c.line;
    EXPECT_EQ(c.de, p.de) << c.line;
  }
}

// A first line with nothing readable has no previous time to fall back on;
// after a good line it takes that line's time, and says so.
TEST_F(DateParserTest, ALineWithoutTimestampTakesThePreviousTime) {
  ScopedLogCapture log("DateParserVerbose");
  EXPECT_FALSE(parse("no time here").ok);
  ASSERT_TRUE(parse("2026-06-15 11:58:01 first").ok);
  const Parsed p = parse("no time here");
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(1781524681, p.t.tv_sec);
  EXPECT_EQ(-1, p.ts);
  EXPECT_NE(std::string::npos,
            log.text().find("WARN Failed to parse timestamp. Defaulting to timestamp of previous "
                            "event (" +
                            p.t.asctime() + ")."));
  // With parse info asked for, a fallback needs the info of a parse that
  // saved some; the good line above saved none.
  ExtraTimevalParseInfo extra;
  EXPECT_FALSE(parse("no time here", &extra).ok);
  ASSERT_TRUE(parse("2026-06-15 11:58:02.25 second", &extra).ok);
  EXPECT_EQ(2, extra.subsecDigits);
  ExtraTimevalParseInfo again;
  ASSERT_TRUE(parse("no time here", &again).ok);
  EXPECT_EQ(2, again.subsecDigits);
}

TEST_F(DateParserTest, AZoneOutOfRangeIsDroppedAndLoggedAtDebug) {
  ScopedLogCapture log("DateParserVerbose");
  const Parsed p = parse("2026-06-15 11:58:01 +2500");
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(1781524681, p.t.tv_sec);  // UTC, the TZ setting
  EXPECT_EQ(25, p.te);                // the region is the whole match
  EXPECT_NE(std::string::npos,
            log.text().find("DEBUG Ignored invalid timezone specifier \"+2500\"."));
}

// é is two bytes: 20 of them and the timestamp make 39 characters in 59
// bytes.
TEST_F(DateParserTest, TheLookaheadCountsCharacters) {
  std::string line;
  for (int i = 0; i < 20; ++i) line += "\xC3\xA9";
  line += "2026-06-15 11:58:01 tail";
  parser().setDateLookahead(38);
  EXPECT_FALSE(parse(line).ok);
  parser().setDateLookahead(39);
  EXPECT_TRUE(parse(line).ok);
  parser().setDateLookahead(0);
  EXPECT_EQ(0, parser().getDateLookahead());
  EXPECT_TRUE(parse(line).ok);
}

TEST_F(DateParserTest, ATimePrefixLimitsTheSearchAndShiftsTheRegions) {
  parser().setTimePrefix(new Regex("ts="));
  EXPECT_FALSE(parse("2026-06-15 11:58:01 no prefix").ok);
  EXPECT_FALSE(parse("2026-06-15 11:58:01 ts=").ok);
  const Parsed p = parse("2026-06-14 10:00:00 ts=2026-06-15 11:58:01");
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(1781524681, p.t.tv_sec);
  EXPECT_EQ(34, p.ts);
  EXPECT_EQ(42, p.te);
  EXPECT_EQ(23, p.ds);
  EXPECT_EQ(33, p.de);
  parser().setTimePrefix(nullptr);
  EXPECT_TRUE(parse("2026-06-15 11:58:01 no prefix").ok);
}

// A date outside the window drops out and the next date pattern wins.
TEST_F(DateParserTest, ADateOutsideTheWindowGivesWayToTheNextBest) {
  const Parsed p = parse("2001-01-01 build, run 14/06/2026 11:58:01");
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(1781438281, p.t.tv_sec);
  EXPECT_EQ(22, p.ds);
  // With no other date the time goes on alone, and the guesser dates it
  // by the previous event: June 14 again.
  ScopedLogCapture log("DateParserVerbose");
  const Parsed alone = parse("2001-01-01 11:58:01 old");
  ASSERT_TRUE(alone.ok);
  EXPECT_EQ(1781438281, alone.t.tv_sec);
  EXPECT_EQ(-1, alone.ds);
  EXPECT_NE(std::string::npos,
            log.text().find("DEBUG Could not use regex to parse timestamp from \"2001-01-01"));
}

TEST_F(DateParserTest, TimeFormatIsTriedFirst) {
  ScopedLogCapture log("DateParserVerbose");
  ASSERT_TRUE(parser().setTimeFormat("%d.%m.%Y %H:%M"));
  Parsed p = parse("15.06.2026 11:58 then 2026-06-14 10:00:00");
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(1781524680, p.t.tv_sec);
  EXPECT_EQ(0, p.ts);
  EXPECT_EQ(16, p.te);
  EXPECT_EQ(-1, p.ds);
  // Not at the start: logged, and the patterns take over.
  p = parse("x 2026-06-14 10:00:00");
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(1781431200, p.t.tv_sec);
  EXPECT_NE(std::string::npos,
            log.text().find("DEBUG Could not use strptime to parse timestamp from \"x "
                            "2026-06-14 10:00:00\"."));
  // Outside the window: refused, whatever the patterns would say.
  EXPECT_FALSE(parser().dateTimeFromString(p.t, StrSegment("15.06.2001 11:58"), p.ts, p.te, p.ds,
                                           p.de, nullptr));
  EXPECT_NE(std::string::npos, log.text().find("WARN The TIME_FORMAT specified is matching"));
  EXPECT_FALSE(parser().setTimeFormat(""));
}

TEST_F(DateParserTest, HasTimeWantsATimeAndADate) {
  ScopedTz zone("UTC");
  EXPECT_TRUE(parser().hasTime(StrSegment("2026-06-15 11:58:01")));
  EXPECT_TRUE(parser().hasTime(StrSegment("1781524681 epoch")));
  EXPECT_FALSE(parser().hasTime(StrSegment("11:58:01 no date")));
  EXPECT_FALSE(parser().hasTime(StrSegment("nothing")));
  // Far from the previous event by new patterns: no timestamp.
  ScopedLogCapture log("DateParserVerbose");
  ASSERT_TRUE(parse("2026-06-15 11:58:01").ok);
  parser().reset();
  EXPECT_FALSE(parser().hasTime(StrSegment("2026-06-10 11:58:01")));
  EXPECT_EQ(1u, parser().getAttempts());
  EXPECT_NE(std::string::npos,
            log.text().find("MAX_DIFF_SECS_AGO (3600) or MAX_DIFF_SECS_HENCE (604800)"));
  // The same patterns again: suspicious, but a timestamp.
  EXPECT_TRUE(parser().hasTime(StrSegment("2026-06-10 11:58:01")));
  EXPECT_NE(std::string::npos, log.text().find("WARN Accepted time (Wed Jun 10 11:58:01 2026)"));
}

// The date of the file name dates the lines that carry only a time.
TEST_F(DateParserTest, ADateFromTheSourceNameCompletesTimesAlone) {
  parser().setDateByString(StrSegment("/var/log/app-2026-06-10.log"), true);
  Parsed p = parse("11:58:01 tick");
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(1781092681, p.t.tv_sec);  // 2026-06-10
  // A name without a date changes nothing.
  parser().setDateByString(StrSegment("/var/log/app.log"), true);
  p = parse("11:58:02 tick");
  EXPECT_EQ(1781092682, p.t.tv_sec);
}

// Patterns whose ties are easy to follow: two hour-minute forms of equal
// score, a stronger hour-minute-second form, two readings of one dotted
// text that differ only in the order of their extractions, and two readings
// of one slashed date.
constexpr const char* ORDER_PATTERNS = R"(<datetime>
  <define name="colon_hm" extract="hour,minute">
    <text>(?&lt;![\d:])(\d\d):(\d\d)(?![\d:])</text>
  </define>
  <define name="letter_hm" extract="hour,minute">
    <text>T(\d\d)h(\d\d)</text>
  </define>
  <define name="colon_hms" extract="hour,minute,second">
    <text>(?&lt;![\d:])(\d\d):(\d\d):(\d\d)(?!\d)</text>
  </define>
  <define name="dot_hm" extract="hour,minute">
    <text>@(\d\d)\.(\d\d)</text>
  </define>
  <define name="dot_mh" extract="minute,hour">
    <text>@(\d\d)\.(\d\d)</text>
  </define>
  <define name="ymd" extract="year,month,day">
    <text>(?&lt;!\d)(\d{4})-(\d\d)-(\d\d)(?!\d)</text>
  </define>
  <define name="mdy" extract="month,day,year">
    <text>(?&lt;!\d)(\d\d)/(\d\d)/(\d{4})(?!\d)</text>
  </define>
  <define name="dmy" extract="day,month,year">
    <text>(?&lt;!\d)(\d\d)/(\d\d)/(\d{4})(?!\d)</text>
  </define>
  <timePatterns>
    <use name="colon_hm"/>
    <use name="letter_hm"/>
    <use name="colon_hms"/>
    <use name="dot_hm"/>
    <use name="dot_mh"/>
  </timePatterns>
  <datePatterns>
    <use name="ymd"/>
    <use name="mdy"/>
    <use name="dmy"/>
  </datePatterns>
</datetime>
)";

// Builds extractions by hand, pointing into strings the caller keeps.
class Ex {
 public:
  Ex& set(int code, const char* text) {
    _e.ptr[code] = text;
    _e.len[code] = std::strlen(text);
    ++_e.count;
    return *this;
  }
  const DateTimeRegexExtractions& get() const { return _e; }

 private:
  DateTimeRegexExtractions _e;
};

class DateParserFiles : public ::testing::Test {
 protected:
  DateParserFiles() : _clock(NOW) {
    writeTestFile(_dir / "mini.xml", MINI_PATTERNS);
    writeTestFile(_dir / "order.xml", ORDER_PATTERNS);
  }

  Pathname mini() const { return _dir / "mini.xml"; }
  Pathname order() const { return _dir / "order.xml"; }

  static Parsed parse(DateParser& p, const std::string& line, ExtraTimevalParseInfo* extra = nullptr) {
    Parsed r;
    r.ok = p.parseDate(r.t, StrSegment(line), NOW, r.ts, r.te, r.ds, r.de, extra);
    return r;
  }
  // A unique context per test, so that the deduplicating channel never
  // swallows a message another test already logged.
  static void tag(DateParser& p) {
    static int serial = 0;
    p.setContext(Str().format("files-%d", ++serial));
  }
  static int count(const std::string& text, const std::string& needle) {
    int n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
    return n;
  }

  TestTempDir _dir;
  ScopedFixedClock _clock;
};

TEST_F(DateParserFiles, TimeListScoresFollowTheBaseOfTheHourText) {
  const TimeRegexList list;
  const struct {
    const char* hour;
    const char* minute;
    const char* second;
    const char* subsecond;
    const char* ampm;
    const char* zone;
    int score;
  } kCases[] = {
      {"9", "05", "07", nullptr, nullptr, nullptr, 8},
      {"09", "05", "07", "123456", nullptr, nullptr, 15},
      // a 12-hour hour with its marker and a second: base h + 4, then + 6
      {"09", "05", "07", nullptr, "am", nullptr, 12},
      {"12", "00", "00", nullptr, "a", nullptr, 12},
      // hour 0 is no 12-hour value: the marker counts nothing
      {"00", "05", "07", nullptr, "pm", nullptr, 9},
      // numeric zones that pass add 1 + their length, colon included
      {"09", "05", "07", nullptr, nullptr, "+0530", 15},
      {"09", "05", "07", nullptr, nullptr, "-08:00", 16},
      {"09", "05", nullptr, nullptr, nullptr, "Z", 8},
      // a zone that fails keeps the score as it was
      {"09", "05", "07", nullptr, nullptr, "+0560", 9},
      {"09", "05", "07", nullptr, nullptr, "+24:00", 9},
      {"23", nullptr, nullptr, nullptr, nullptr, "PDT", -1},
  };
  for (const auto& c : kCases) {
    Ex ex;
    if (c.hour) ex.set(DateTimeRegex::HOUR, c.hour);
    if (c.minute) ex.set(DateTimeRegex::MINUTE, c.minute);
    if (c.second) ex.set(DateTimeRegex::SECOND, c.second);
    if (c.subsecond) ex.set(DateTimeRegex::SUBSECOND, c.subsecond);
    if (c.ampm) ex.set(DateTimeRegex::AMPM, c.ampm);
    if (c.zone) ex.set(DateTimeRegex::ZONE, c.zone);
    DP_parseState ps;
    EXPECT_EQ(c.score, list.parse(ex.get(), &ps))
        << (c.hour ? c.hour : "-") << ":" << (c.minute ? c.minute : "-") << ":"
        << (c.second ? c.second : "-") << "." << (c.subsecond ? c.subsecond : "-") << " "
        << (c.ampm ? c.ampm : "-") << " " << (c.zone ? c.zone : "-");
  }
}

TEST_F(DateParserFiles, CandidatesRankByScoreThenStartThenFileOrder) {
  const struct {
    const char* line;
    int64_t seconds;
    int ts, te;
  } kCases[] = {
      // equal scores: the earlier match in the line wins
      {"2026-06-15 T07h30 then 08:45", 1781508600, 11, 17},
      {"2026-06-15 08:45 then T07h30", 1781513100, 11, 16},
      // a higher score wins from further right
      {"2026-06-15 07:30 then 08:45:10", 1781513110, 22, 30},
      // same text, same score: the first in the file reads it
      {"2026-06-15 @10.20", 1781518800, 11, 17},
  };
  for (bool memory : {false, true}) {
    for (const auto& c : kCases) {
      ShippedDateParser p(memory, order());
      Parsed r = parse(*p, c.line);
      ASSERT_TRUE(r.ok) << c.line;
      EXPECT_EQ(Timeval(c.seconds, 0), r.t) << c.line << " memory " << memory;
      EXPECT_EQ(c.ts, r.ts) << c.line;
      EXPECT_EQ(c.te, r.te) << c.line;
      EXPECT_EQ(0, r.ds) << c.line;
      EXPECT_EQ(10, r.de) << c.line;
    }
  }
}

TEST_F(DateParserFiles, DateOutsideTheWindowYieldsToTheNextReading) {
  ShippedDateParser p(false, order());
  // month-first reads 6 July, three weeks ahead; day-first reads 7 June
  Parsed r = parse(*p, "07/06/2026 10:00");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1780826400, 0), r.t);  // 2026-06-07 10:00:00
  EXPECT_EQ(0, r.ds);
  EXPECT_EQ(10, r.de);
  // both readings in the window: the first in the file
  r = parse(*p, "06/07/2026 10:00");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1780826400, 0), r.t);
}

TEST_F(DateParserFiles, LookaheadSettingKeepsZeroAndFoldsNegatives) {
  DateParser p(false);
  const struct {
    int in, out;
  } kCases[] = {{150, 150}, {1, 1}, {0, 0}, {-1, -1}, {-7, -1}};
  for (const auto& c : kCases) {
    p.setDateLookahead(c.in);
    EXPECT_EQ(c.out, p.getDateLookahead()) << c.in;
  }
  // zero searches the whole line
  ShippedDateParser q(false, mini());
  q->setDateLookahead(0);
  Parsed r = parse(*q, std::string(200, 'x') + " 2026-06-15 11:58:01");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1781524681, 0), r.t);
}

TEST_F(DateParserFiles, TheContextReachesTheLogWithItsPercentSigns) {
  ShippedDateParser p(false, mini());
  p->setContext(Str("uniq-ctx-%d%s"));
  ScopedLogCapture log("DateParserVerbose");
  ASSERT_TRUE(parse(*p, "2026-06-15 11:58:01 first").ok);
  ASSERT_TRUE(parse(*p, "no timestamp at all").ok);
  const std::string text = log.text();
  EXPECT_EQ(1, count(text,
                     "WARN Failed to parse timestamp. Defaulting to timestamp of previous event "
                     "(Mon Jun 15 11:58:01 2026). Context: uniq-ctx-%d%s"))
      << text;
}

// With a format in force, hasTime asks the format alone: a line the
// patterns would read counts as no timestamp.
TEST_F(DateParserFiles, HasTimeTakesTheExplicitFormatAlone) {
  ShippedDateParser p(false, mini());
  tag(*p);
  ASSERT_TRUE(p->setTimeFormat(Str("%Y/%m/%d %H:%M:%S")));
  ScopedLogCapture log("DateParserVerbose");
  EXPECT_TRUE(p->hasTime(StrSegment("2026/06/15 11:00:00 by format")));
  EXPECT_FALSE(p->hasTime(StrSegment("2026-06-15 11:00:00 by pattern")));
  EXPECT_EQ(1, count(log.text(), "DEBUG Could not use strptime to parse timestamp from \"2026-06-15 "
                                 "11:00:00 by pattern\"."))
      << log.text();
}

TEST_F(DateParserFiles, TenWinsInARowAreNoLongerChallenged) {
  ShippedDateParser p(true, mini());
  for (int i = 1; i <= 10; ++i) ASSERT_TRUE(parse(*p, Str().format("2026-06-15 11:00:%02d x", i)).ok);
  EXPECT_EQ(10u, p->getTimeState().hits);
  // the remembered pattern has no zone; the stronger one is not tried
  Parsed r = parse(*p, "2026-06-15 11:00:11 +0100 x");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1781521211, 0), r.t);
  EXPECT_EQ(10u, p->getTimeState().hits);
  // a line it cannot read sends the search round every pattern again
  r = parse(*p, "1781524681 x");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1781524681, 0), r.t);
  EXPECT_EQ(1u, p->getTimeState().hits);
}

TEST_F(DateParserFiles, WithoutMemoryEveryLineIsReadAfresh) {
  ShippedDateParser p(false, mini());
  for (int i = 1; i <= 12; ++i) ASSERT_TRUE(parse(*p, Str().format("2026-06-15 11:00:%02d x", i)).ok);
  Parsed r = parse(*p, "2026-06-15 11:00:13 +0100 x");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1781517613, 0), r.t);
  EXPECT_EQ(0u, p->getAvgGapSecs());
}

TEST_F(DateParserFiles, AverageGapFollowsTheStream) {
  ShippedDateParser p(true, mini());
  ASSERT_TRUE(parse(*p, "2026-06-15 11:00:00 a").ok);
  uint64_t avg = p->getAvgGapSecs();
  ASSERT_TRUE(parse(*p, "2026-06-15 11:00:30 b").ok);
  avg = (30 + 2 * avg) / 3;
  EXPECT_EQ(avg, p->getAvgGapSecs());
  // an equal or earlier time leaves it alone
  ASSERT_TRUE(parse(*p, "2026-06-15 11:00:30 c").ok);
  ASSERT_TRUE(parse(*p, "2026-06-15 10:00:00 d").ok);
  EXPECT_EQ(avg, p->getAvgGapSecs());
}

TEST_F(DateParserFiles, DiffLimitsTakeOnlyPositiveValues) {
  ShippedDateParser p(false, mini());
  const struct {
    int ago, hence, wantAgo, wantHence;
  } kCases[] = {{0, 0, 3600, 604800}, {-5, 10, 3600, 10}, {60, -1, 60, 10}, {1, 2, 1, 2}};
  for (const auto& c : kCases) {
    p->setMinMaxDiffSecs(c.ago, c.hence);
    EXPECT_EQ(c.wantAgo, p->getGuesser().maxDiffSecsAgo) << c.ago;
    EXPECT_EQ(c.wantHence, p->getGuesser().maxDiffSecsHence) << c.hence;
  }
}

TEST_F(DateParserFiles, SourceNameDatesTimeOnlyLines) {
  ShippedDateParser p(false, mini());
  p->setDateByString(StrSegment("/var/log/app/2026-06-01.log"), true);
  Parsed r = parse(*p, "12:30:00 started");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1780317000, 0), r.t);
  EXPECT_EQ(0, r.ts);
  EXPECT_EQ(-1, r.ds);

  // past the lookahead the name is read only when asked to
  ShippedDateParser q(false, mini());
  q->setDateLookahead(10);
  q->setDateByString(StrSegment("/var/log/app/2026-06-01.log"), false);
  r = parse(*q, "12:30:00 started");
  ASSERT_TRUE(r.ok);
  EXPECT_NE(Timeval(1780317000, 0), r.t);
  q->setDateByString(StrSegment("/var/log/app/2026-06-01.log"), true);
  EXPECT_EQ(10, q->getDateLookahead());
  r = parse(*q, "12:30:00 started");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1780317000, 0), r.t);
}

TEST_F(DateParserFiles, ExcerptsAreCutAndMadeSafe) {
  ShippedDateParser p(false, mini());
  tag(*p);
  ASSERT_TRUE(p->setTimeFormat(Str("%Y/%m/%d %H:%M:%S")));
  ScopedLogCapture log("DateParserVerbose");
  int ts, te, ds, de;
  Timeval out;
  p->getGuesser().now = NOW;
  const std::string line = "a\tb\x01" + std::string(200, 'z');
  EXPECT_FALSE(p->dateTimeFromString(out, StrSegment(line), ts, te, ds, de, nullptr));
  const std::string want = "DEBUG Could not use strptime to parse timestamp from \"a b\\x01" +
                           std::string(96, 'z') + "\".";
  EXPECT_EQ(1, count(log.text(), want)) << log.text();
}

TEST_F(DateParserFiles, FallbackWithoutSavedInfoLogsNothing) {
  ShippedDateParser p(false, mini());
  tag(*p);
  ScopedLogCapture log("DateParserVerbose");
  ASSERT_TRUE(parse(*p, "2026-06-15 11:58:01 good").ok);
  ExtraTimevalParseInfo extra;
  EXPECT_FALSE(parse(*p, "no stamp", &extra).ok);
  EXPECT_EQ(0, count(log.text(), "Failed to parse timestamp")) << log.text();
  // the previous time survives the failure
  Parsed r = parse(*p, "no stamp");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1781524681, 0), r.t);
}

TEST_F(DateParserFiles, ExplicitFormatRegionStartsAtZero) {
  ShippedDateParser p(false, mini());
  p->setTimePrefix(new Regex(Str("at=")));
  ASSERT_TRUE(p->setTimeFormat(Str("%d.%m.%Y %H:%M")));
  Parsed r = parse(*p, "xx at=15.06.2026 11:58 tail");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1781524680, 0), r.t);
  EXPECT_EQ(6, r.ts);
  EXPECT_GT(r.te, r.ts);
  EXPECT_FALSE(p->setTimeFormat(Str("")));
  // without a format the same line goes to the patterns, which find no time
  Timeval out;
  int ts, te, ds, de;
  EXPECT_FALSE(p->dateTimeFromString(out, StrSegment("xx at=15.06.2026 11:58 tail"), ts, te, ds, de, nullptr));
}

TEST_F(DateParserFiles, RememberedPatternYieldsToAnEarlierTie) {
  ShippedDateParser p(true, order());
  Parsed r = parse(*p, "2026-06-15 T07h30 x");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1781508600, 0), r.t);
  // the remembered letter form now matches later than an equal colon form
  r = parse(*p, "2026-06-15 08:45 then T07h31");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1781513100, 0), r.t);
  EXPECT_EQ(11, r.ts);
}

TEST_F(DateParserFiles, HasTimeQuickModeStopsAfterTenFailures) {
  ShippedDateParser p(false, mini());
  ASSERT_TRUE(parse(*p, "2026-06-15 11:58:01 anchor").ok);
  for (int i = 0; i < 12; ++i) {
    const bool alternate = (i % 2) == 0;
    p->hasTime(StrSegment(alternate ? "01/06/2026 11:58:01 far" : "2026-06-01 11:58:01 far"));
  }
  const uint32_t attempts = p->getAttempts();
  EXPECT_GE(attempts, 10u);
  // no longer quick: a far time is no reason to refuse
  EXPECT_TRUE(p->hasTime(StrSegment("01/06/2026 11:58:01 far")));
  EXPECT_TRUE(p->hasTime(StrSegment("2026-06-01 11:58:01 far")));
}

TEST_F(DateParserFiles, RememberedDatePatternIsNotReValidated) {
  ShippedDateParser p(true, order());
  Parsed r = parse(*p, "06/07/2026 10:00 first");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1780826400, 0), r.t);
  Timeval out;
  int ts, te, ds, de;
  p->getGuesser().now = NOW;
  EXPECT_FALSE(p->dateTimeFromString(out, StrSegment("07/06/2026 10:00 second"), ts, te, ds, de, nullptr));
}

TEST_F(DateParserFiles, DateShortcutNeedsTheSameHourAndMinute) {
  ShippedDateParser p(true, mini());
  for (int line = 0; line < 60; ++line) {
    ASSERT_TRUE(parse(*p, Str().format("2026-06-10 08:00:00.%03d x", line + 1)).ok) << line;
  }
  ASSERT_LT(p->getAvgGapSecs(), 600u);
  uint64_t dates = p->getDateEvaluations();
  ASSERT_TRUE(parse(*p, "2026-06-10 08:00:00.900 x").ok);
  EXPECT_EQ(dates, p->getDateEvaluations());
  // another minute: the date is searched again
  Parsed r = parse(*p, "2026-06-10 08:01:00 x");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1781078460, 0), r.t);
  EXPECT_GT(p->getDateEvaluations(), dates);
  dates = p->getDateEvaluations();
  // a different date text at the remembered place is read, not reused
  r = parse(*p, "2026-06-11 08:01:00 x");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1781078460 + 86400, 0), r.t);
  EXPECT_GT(p->getDateEvaluations(), dates);
}

// A settled time pattern is the only one a quick check tries: a match with
// another number of extractions, or no match, is no timestamp, and counts
// as a failed attempt only in the first case. A full parse starts the
// count again.
TEST_F(DateParserFiles, QuickChecksTrustTheSettledPatternAlone) {
  ShippedDateParser p(true, mini());
  for (int s = 0; s < 12; ++s) ASSERT_TRUE(parse(*p, Str().format("2026-06-15 11:58:%02d x", s)).ok);
  ASSERT_GE(p->getTimeState().hits, 10u);
  ASSERT_EQ(3, p->getTimeState().lastCount);
  EXPECT_TRUE(p->hasTime(StrSegment("2026-06-15 11:58:31 same shape")));
  EXPECT_EQ(0u, p->getAttempts());
  EXPECT_FALSE(p->hasTime(StrSegment("2026-06-15 11:58:30.123 with a fraction")));
  EXPECT_EQ(1u, p->getAttempts());
  EXPECT_FALSE(p->hasTime(StrSegment("1781524681 an epoch")));
  EXPECT_EQ(1u, p->getAttempts());
  ASSERT_TRUE(parse(*p, "2026-06-15 11:58:40 x").ok);
  EXPECT_EQ(0u, p->getAttempts());
}

// Only a 24-hour time may reuse the date text: 12-hour lines search the
// date patterns every time.
TEST_F(DateParserFiles, TwelveHourLinesNeverReuseTheDateText) {
  ShippedDateParser p(true, mini());
  for (int s = 0; s < 50; ++s) ASSERT_TRUE(parse(*p, Str().format("2026-06-15 11:58:%02d am x", s)).ok);
  ASSERT_LT(p->getAvgGapSecs(), 600u);
  uint64_t dates = p->getDateEvaluations();
  Parsed r = parse(*p, "2026-06-15 11:58:55 am x");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1781524735, 0), r.t);
  EXPECT_EQ(dates + 1, p->getDateEvaluations());
  for (int s = 0; s < 50; ++s) ASSERT_TRUE(parse(*p, Str().format("2026-06-15 11:59:%02d x", s)).ok);
  dates = p->getDateEvaluations();
  ASSERT_TRUE(parse(*p, "2026-06-15 11:59:55 x").ok);
  EXPECT_EQ(dates, p->getDateEvaluations());
}

// The text noted for a rejected date starts at the match and is as long as
// the match's end offset, so a date late in the line brings some of what
// follows it.
TEST_F(DateParserFiles, RejectedDateExcerptRunsFromTheMatch) {
  ShippedDateParser p(false, mini());
  tag(*p);
  ScopedLogCapture log("DateParserVerbose");
  Timeval out;
  int ts, te, ds, de;
  p->getGuesser().now = NOW;
  p->dateTimeFromString(out, StrSegment("xxxxx 2030-06-07 10:00:00 tail of the line"), ts, te, ds, de, nullptr);
  EXPECT_EQ(1, count(log.text(), "DEBUG Could not use regex to parse timestamp from \"2030-06-07 10:00\"."))
      << log.text();
}

TEST(DateParserModes, NoneFindsNothingAndCurrentTakesTheClock) {
  ScopedFixedClock clock(NOW);
  DateParser parser(false);
  Timeval out;
  int ts, te, ds, de;
  EXPECT_FALSE(parser.parseDate(out, StrSegment("2026-06-15 11:58:01"), NOW, ts, te, ds, de,
                                nullptr));
  DateParserConfigRef ref;
  ref.load("CURRENT", false);
  ref.assignTo(&parser);
  ExtraTimevalParseInfo extra;
  ASSERT_TRUE(parser.parseDate(out, StrSegment("nothing"), Timeval(5, 0), ts, te, ds, de, &extra));
  EXPECT_EQ(NOW, out);
  EXPECT_EQ(-3, extra.subsecDigits);
  EXPECT_TRUE(parser.hasTime(StrSegment("nothing")));
  ref.load("NONE", false);
  ref.assignTo(&parser);
  EXPECT_FALSE(parser.hasTime(StrSegment("2026-06-15 11:58:01")));
  EXPECT_EQ(&DateParser::__emptyConf, parser.getConf());
}

TEST(DateParserMessages, EachTypeHasItsNameFormatAndLevel) {
  const struct {
    unsigned type;
    const char* name;
    const char* level;
    const char* format;
  } kTypes[] = {
      {0, "TIMESTAMP_USING_PREVIOUS", "WARN",
       "Failed to parse timestamp. Defaulting to timestamp of previous event (%s)."},
      {1, "TIMESTAMP_CONSECUTIVE_LIMIT", "WARN",
       "The same timestamp has been used for %uK consecutive times.  If more than 200K events have "
       "the same timestamp, not all events may be retrieveable."},
      {2, "TIMESTAMP_TOO_FAR_FROM_PREVIOUS", "WARN",
       "Time parsed (%s) is too far away from the previous event's time (%s) to be accepted.  If "
       "this is a correct time, MAX_DIFF_SECS_AGO (%d) or MAX_DIFF_SECS_HENCE (%d) may be overly "
       "restrictive."},
      {3, "TIMESTAMP_SOMEWHAT_FAR_FROM_PREVIOUS", "WARN",
       "Accepted time (%s) is suspiciously far away from the previous event's time (%s), but still "
       "accepted because it was extracted by the same pattern."},
      {4, "TIMESTAMP_FORMAT_CHANGED", "WARN",
       "Accepted time format has changed, possibly indicating a problem in extracting timestamps."},
      {5, "TIMESTAMP_INVALID_TIMEZONE", "DEBUG", "Ignored invalid timezone specifier \"%s\"."},
      {6, "TIMESTAMP_STRPTIME_GENERIC_FAIL", "DEBUG",
       "Could not use strptime to parse timestamp from \"%s\"."},
      {7, "TIMESTAMP_STRPTIME_OUTSIDE_WINDOW", "WARN",
       "The TIME_FORMAT specified is matching timestamps (%s) outside of the acceptable time window. "
       "If this timestamp is correct, consider adjusting MAX_DAYS_AGO and MAX_DAYS_HENCE."},
      {8, "TIMESTAMP_REGEX_GENERIC_FAIL", "DEBUG",
       "Could not use regex to parse timestamp from \"%s\"."},
      {9, "TIMESTAMP_REGEX_OUTSIDE_WINDOW", "WARN",
       "A possible timestamp match (%s) is outside of the acceptable time window. If this timestamp "
       "is correct, consider adjusting MAX_DAYS_AGO and MAX_DAYS_HENCE."},
  };
  for (const auto& t : kTypes) {
    EXPECT_STREQ(t.name, DateParser::getMessageTypeAsStr(t.type));
    EXPECT_STREQ(t.format, DateParser::getMessageFormat(t.type)) << t.name;
    // Through a logger of its own, so that no deduplication interferes.
    ScopedLogCapture log("DateParserMessagesTest");
    Logger logger("DateParserMessagesTest");
    DateParser parser(false);
    parser.setContext(Str("a%sb"));
    if (t.type == DateParser::TIMESTAMP_CONSECUTIVE_LIMIT) {
      parser.doLog(t.type, logger, 100u);
    } else {
      parser.doLog(t.type, logger, "X", "Y", 1, 2);
    }
    const std::string text = log.text();
    EXPECT_EQ(0u, text.find(std::string(t.level) + " ")) << t.name << ": " << text;
    EXPECT_NE(std::string::npos, text.find(" Context: a%sb\n")) << t.name << ": " << text;
  }
  EXPECT_STREQ("UNKNOWN", DateParser::getMessageTypeAsStr(10));
  EXPECT_STREQ("", DateParser::getMessageFormat(10));
}

TEST(DateParserContext, AllThreeFormsDoubleThePercentSigns) {
  DateParser parser(false);
  parser.setContext(StrSegment("source::/a%b|x"));
  EXPECT_EQ(" Context: source::/a%%b|x", parser.getContext());
  parser.setContext(Str("%%"));
  EXPECT_EQ(" Context: %%%%", parser.getContext());
  parser.setContext(Str("src=a%b%%c"));
  EXPECT_EQ(" Context: src=a%%b%%%%c", parser.getContext());
  const HashedStrReference key = HashedStrReference::_allocMem("host::h%");
  parser.setContext(key);
  key._freeMem();
  EXPECT_EQ(" Context: host::h%%", parser.getContext());
  parser.setContext(Str());
  EXPECT_EQ(" Context: ", parser.getContext());
}

}  // namespace
