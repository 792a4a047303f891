// The date parser on a small pattern file: what a line yields, its regions,
// the settings that shape the search, and the messages it logs.

#include <string>

#include <gtest/gtest.h>

#include "util/DateParser.h"
#include "util/DateParserConfigRef.h"
#include "util/HashedStr.h"
#include "util/Regex.h"
#include "util/testing/DateParserTestSupport.h"
#include "util/testing/FixedClock.h"
#include "util/testing/LogCapture.h"
#include "util/testing/ScopedTz.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/XmlTestInit.h"

namespace {

// 2026-06-15 12:00:00 UTC.
const Timeval NOW(1781524800, 0);

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
  } kTypes[] = {
      {0, "TIMESTAMP_USING_PREVIOUS", "WARN"},
      {1, "TIMESTAMP_CONSECUTIVE_LIMIT", "WARN"},
      {2, "TIMESTAMP_TOO_FAR_FROM_PREVIOUS", "WARN"},
      {3, "TIMESTAMP_SOMEWHAT_FAR_FROM_PREVIOUS", "WARN"},
      {4, "TIMESTAMP_FORMAT_CHANGED", "WARN"},
      {5, "TIMESTAMP_INVALID_TIMEZONE", "DEBUG"},
      {6, "TIMESTAMP_STRPTIME_GENERIC_FAIL", "DEBUG"},
      {7, "TIMESTAMP_STRPTIME_OUTSIDE_WINDOW", "WARN"},
      {8, "TIMESTAMP_REGEX_GENERIC_FAIL", "DEBUG"},
      {9, "TIMESTAMP_REGEX_OUTSIDE_WINDOW", "WARN"},
  };
  for (const auto& t : kTypes) {
    EXPECT_STREQ(t.name, DateParser::getMessageTypeAsStr(t.type));
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
  EXPECT_STREQ("Accepted time format has changed, possibly indicating a problem in extracting "
               "timestamps.",
               DateParser::getMessageFormat(4));
}

TEST(DateParserContext, AllThreeFormsDoubleThePercentSigns) {
  DateParser parser(false);
  parser.setContext(StrSegment("source::/a%b|x"));
  EXPECT_EQ(" Context: source::/a%%b|x", parser.getContext());
  parser.setContext(Str("%%"));
  EXPECT_EQ(" Context: %%%%", parser.getContext());
  const HashedStrReference key = HashedStrReference::_allocMem("host::h%");
  parser.setContext(key);
  key._freeMem();
  EXPECT_EQ(" Context: host::h%%", parser.getContext());
  parser.setContext(Str());
  EXPECT_EQ(" Context: ", parser.getContext());
}

}  // namespace
