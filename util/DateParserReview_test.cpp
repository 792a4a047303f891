// The date parser seen from its callers: candidate order among patterns,
// the memory of winning patterns and of the date text, explicit formats
// with prefixes, quick checks, source dates and message texts.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "util/DateParser.h"
#include "util/DateParserConfigRef.h"
#include "util/DateTimeRegex.h"
#include "util/DateTimeRegexList.h"
#include "util/Regex.h"
#include "util/testing/DateParserTestSupport.h"
#include "util/testing/FixedClock.h"
#include "util/testing/GuessTestSupport.h"
#include "util/testing/LogCapture.h"
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

struct Parsed {
  bool ok = false;
  Timeval t;
  int ts = -1, te = -1, ds = -1, de = -1;
};

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

class DateParserReview : public ::testing::Test {
 protected:
  DateParserReview() : _clock(NOW) {
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
    p.setContext(Str().format("review-%d", ++serial));
  }
  static int count(const std::string& text, const std::string& needle) {
    int n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
    return n;
  }

  TestTempDir _dir;
  ScopedFixedClock _clock;
};

// ---------------------------------------------------------------- scores

TEST_F(DateParserReview, TimeListScoresFollowTheBaseOfTheHourText) {
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

// ------------------------------------------------------- candidate order

TEST_F(DateParserReview, CandidatesRankByScoreThenStartThenFileOrder) {
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

TEST_F(DateParserReview, DateOutsideTheWindowYieldsToTheNextReading) {
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

// ------------------------------------------------- regions and settings

TEST_F(DateParserReview, LookaheadSettingKeepsZeroAndFoldsNegatives) {
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

TEST_F(DateParserReview, ContextDoublesEveryPercentAndReachesTheLog) {
  ShippedDateParser p(false, mini());
  p->setContext(Str("src=a%b%%c"));
  EXPECT_EQ(Str(" Context: src=a%%b%%%%c"), p->getContext());
  p->setContext(StrSegment("%"));
  EXPECT_EQ(Str(" Context: %%"), p->getContext());
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

// -------------------------------------------------------- explicit format

// With a format in force, hasTime asks the format alone: a line the
// patterns would read counts as no timestamp.
TEST_F(DateParserReview, HasTimeTakesTheExplicitFormatAlone) {
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

// ---------------------------------------------------------- memory

TEST_F(DateParserReview, TenWinsInARowAreNoLongerChallenged) {
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

TEST_F(DateParserReview, WithoutMemoryEveryLineIsReadAfresh) {
  ShippedDateParser p(false, mini());
  for (int i = 1; i <= 12; ++i) ASSERT_TRUE(parse(*p, Str().format("2026-06-15 11:00:%02d x", i)).ok);
  Parsed r = parse(*p, "2026-06-15 11:00:13 +0100 x");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1781517613, 0), r.t);
  EXPECT_EQ(0u, p->getAvgGapSecs());
}

TEST_F(DateParserReview, AverageGapFollowsTheStream) {
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

TEST_F(DateParserReview, DiffLimitsTakeOnlyPositiveValues) {
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

// ------------------------------------------------------- source date

TEST_F(DateParserReview, SourceNameDatesTimeOnlyLines) {
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

// --------------------------------------------------------- messages

TEST_F(DateParserReview, MessageTableNamesAndFormats) {
  const struct {
    unsigned type;
    const char* name;
    const char* format;
  } kCases[] = {
      {0, "TIMESTAMP_USING_PREVIOUS", "Failed to parse timestamp. Defaulting to timestamp of previous event (%s)."},
      {1, "TIMESTAMP_CONSECUTIVE_LIMIT",
       "The same timestamp has been used for %uK consecutive times.  If more than 200K events have the same "
       "timestamp, not all events may be retrieveable."},
      {2, "TIMESTAMP_TOO_FAR_FROM_PREVIOUS",
       "Time parsed (%s) is too far away from the previous event's time (%s) to be accepted.  If this is a "
       "correct time, MAX_DIFF_SECS_AGO (%d) or MAX_DIFF_SECS_HENCE (%d) may be overly restrictive."},
      {3, "TIMESTAMP_SOMEWHAT_FAR_FROM_PREVIOUS",
       "Accepted time (%s) is suspiciously far away from the previous event's time (%s), but still accepted "
       "because it was extracted by the same pattern."},
      {4, "TIMESTAMP_FORMAT_CHANGED",
       "Accepted time format has changed, possibly indicating a problem in extracting timestamps."},
      {5, "TIMESTAMP_INVALID_TIMEZONE", "Ignored invalid timezone specifier \"%s\"."},
      {6, "TIMESTAMP_STRPTIME_GENERIC_FAIL", "Could not use strptime to parse timestamp from \"%s\"."},
      {7, "TIMESTAMP_STRPTIME_OUTSIDE_WINDOW",
       "The TIME_FORMAT specified is matching timestamps (%s) outside of the acceptable time window. If this "
       "timestamp is correct, consider adjusting MAX_DAYS_AGO and MAX_DAYS_HENCE."},
      {8, "TIMESTAMP_REGEX_GENERIC_FAIL", "Could not use regex to parse timestamp from \"%s\"."},
      {9, "TIMESTAMP_REGEX_OUTSIDE_WINDOW",
       "A possible timestamp match (%s) is outside of the acceptable time window. If this timestamp is "
       "correct, consider adjusting MAX_DAYS_AGO and MAX_DAYS_HENCE."},
  };
  for (const auto& c : kCases) {
    EXPECT_STREQ(c.name, DateParser::getMessageTypeAsStr(c.type)) << c.type;
    EXPECT_STREQ(c.format, DateParser::getMessageFormat(c.type)) << c.type;
  }
}

TEST_F(DateParserReview, BadZoneIsLoggedAtDebugAndTheTimeStands) {
  writeTestFile(_dir / "zone.xml", R"(<d>
  <define name="hmsz" extract="hour,minute,second,zone">
    <text>(\d\d):(\d\d):(\d\d) ([+-]\d{4})</text>
  </define>
  <define name="ymd" extract="year,month,day">
    <text>(\d{4})-(\d\d)-(\d\d)</text>
  </define>
  <timePatterns><use name="hmsz"/></timePatterns>
  <datePatterns><use name="ymd"/></datePatterns>
</d>)");
  ShippedDateParser p(false, _dir / "zone.xml");
  tag(*p);
  ScopedLogCapture log("DateParserVerbose");
  Parsed r = parse(*p, "2026-06-15 11:58:01 +2500 x");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1781524681, 0), r.t);
  EXPECT_EQ(1, count(log.text(), "DEBUG Ignored invalid timezone specifier \"+2500\".")) << log.text();
  r = parse(*p, "2026-06-15 11:58:01 -0130 x");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1781524681 + 5400, 0), r.t);
}

TEST_F(DateParserReview, ExcerptsAreCutAndMadeSafe) {
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

TEST_F(DateParserReview, FallbackWithoutSavedInfoLogsNothing) {
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

TEST_F(DateParserReview, ExplicitFormatRegionStartsAtZero) {
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

TEST_F(DateParserReview, RememberedPatternYieldsToAnEarlierTie) {
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

TEST_F(DateParserReview, HasTimeQuickModeStopsAfterTenFailures) {
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

TEST_F(DateParserReview, RememberedDatePatternIsNotReValidated) {
  ShippedDateParser p(true, order());
  Parsed r = parse(*p, "06/07/2026 10:00 first");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(Timeval(1780826400, 0), r.t);
  Timeval out;
  int ts, te, ds, de;
  p->getGuesser().now = NOW;
  EXPECT_FALSE(p->dateTimeFromString(out, StrSegment("07/06/2026 10:00 second"), ts, te, ds, de, nullptr));
}

TEST_F(DateParserReview, DateShortcutNeedsTheSameHourAndMinute) {
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
TEST_F(DateParserReview, QuickChecksTrustTheSettledPatternAlone) {
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
TEST_F(DateParserReview, TwelveHourLinesNeverReuseTheDateText) {
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
TEST_F(DateParserReview, RejectedDateExcerptRunsFromTheMatch) {
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

}  // namespace
