// initDateParser: each setting of a stanza reaches the parser, the pattern
// file is found under the install root, and a parser set up again and again
// keeps only what the later stanza gives.

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "libbundle/DatetimeInitUtils.h"
#include "libbundle/PropertiesMap.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/DateParseException.h"
#include "util/DateParser.h"
#include "util/DateParserConfigRef.h"
#include "util/testing/DateParserTestSupport.h"
#include "util/testing/FixedClock.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/ThrownText.h"
#include "util/testing/XmlTestInit.h"

namespace {

// 2026-06-15 12:00:00 UTC.
const Timeval NOW(1781524800, 0);

// An install root holding the small pattern file as etc/datetime.xml,
// etc/other.xml and etc/alt/patterns.xml, made the process's install root.
class InitDateParserTest : public ::testing::Test {
 protected:
  InitDateParserTest() : _clock(NOW) {
    writeTestFile(_home / "etc" / "datetime.xml", MINI_PATTERNS);
    writeTestFile(_home / "etc" / "other.xml", MINI_PATTERNS);
    writeTestFile(_home / "etc" / "alt" / "patterns.xml", MINI_PATTERNS);
    const char* old = getenv("KESTRO_HOME");
    _oldHome = old != nullptr ? old : "";
    setenv("KESTRO_HOME", std::string(_home.path()).c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
  }
  ~InitDateParserTest() override {
    if (!_oldHome.empty()) {
      setenv("KESTRO_HOME", _oldHome.c_str(), 1);
      LoaderInfo::getInstance().populateFromEnvironment();
    }
  }

  void init(const PropertiesMap& props, const Str& tzOverride = Str()) {
    DatetimeInitUtils::initDateParser(props, parser, ref, tzOverride, nullptr);
  }
  // The instant parseDate gives `line`, or -1 for nothing.
  int64_t parse(const char* line) {
    Timeval out;
    int ts, te, ds, de;
    return parser.parseDate(out, StrSegment(line), NOW, ts, te, ds, de, nullptr) ? out.tv_sec
                                                                                 : -1;
  }
  const Pathname& home() const { return _home.path(); }

  DateParser parser{false};
  DateParserConfigRef ref;

 private:
  TestTempDir _home;
  std::string _oldHome;
  ScopedFixedClock _clock;
};

PropertiesMap stanza(std::initializer_list<std::pair<const char*, const char*>> settings) {
  PropertiesMap props;
  for (const auto& [key, value] : settings) props.put(key, value);
  return props;
}

TEST_F(InitDateParserTest, DefaultsComeFromTheInstallRoot) {
  init(stanza({{"TZ", "UTC"}}));
  ASSERT_NE(nullptr, ref.get());
  EXPECT_NE(nullptr, ref.get()->find("ymd_date"));
  EXPECT_EQ(ref.get(), parser.getConf());
  EXPECT_EQ(DateParser::MODE_REGULAR, parser.getMode());
  EXPECT_EQ(150, parser.getDateLookahead());
  EXPECT_EQ(1825 * 86400, parser.getGuesser().maxAgoSecs());
  EXPECT_EQ(7 * 86400, parser.getGuesser().maxHenceSecs());
  EXPECT_EQ(3600, parser.getGuesser().maxDiffSecsAgo);
  EXPECT_EQ(604800, parser.getGuesser().maxDiffSecsHence);
  EXPECT_EQ(1781524681, parse("2026-06-15 11:58:01"));
}

// An absolute value names a file under the install root; a relative one is
// taken as written, which is how "NONE" and "CURRENT" survive.
TEST_F(InitDateParserTest, DatetimeConfigNamesTheFileOrAMode) {
  init(stanza({{"DATETIME_CONFIG", "/etc/other.xml"}}));
  EXPECT_TRUE(CachedDateParserConfig::contains(home() / "etc" / "other.xml"));
  EXPECT_NE(nullptr, parser.getConf()->find("dmy_date"));

  init(stanza({{"DATETIME_CONFIG", "NONE"}}));
  EXPECT_TRUE(ref.isNone());
  EXPECT_EQ(-1, parse("2026-06-15 11:58:01"));

  init(stanza({{"DATETIME_CONFIG", "CURRENT"}}));
  EXPECT_TRUE(ref.isCurrent());
  EXPECT_EQ(NOW.tv_sec, parse("no time at all"));

  const std::string text = thrownText<DateParseException>(
      [&] { init(stanza({{"DATETIME_CONFIG", "/etc/missing.xml"}})); });
  EXPECT_EQ(0u, text.find("Can't open DatePaser XML configuration file \"" +
                          std::string(home()) + "/etc/missing.xml\""))
      << text;
  EXPECT_TRUE(ref.isNone());
}

TEST_F(InitDateParserTest, LimitsAndLookaheadReachTheParser) {
  init(stanza({{"MAX_DAYS_AGO", "10"},
               {"MAX_DAYS_HENCE", "1"},
               {"MAX_DIFF_SECS_AGO", "60"},
               {"MAX_DIFF_SECS_HENCE", "0"},
               {"MAX_TIMESTAMP_LOOKAHEAD", "-5"},
               {"TZ", "UTC"}}));
  EXPECT_EQ(10 * 86400, parser.getGuesser().maxAgoSecs());
  EXPECT_EQ(86400, parser.getGuesser().maxHenceSecs());
  EXPECT_EQ(60, parser.getGuesser().maxDiffSecsAgo);
  EXPECT_EQ(604800, parser.getGuesser().maxDiffSecsHence);  // 0 leaves it
  EXPECT_EQ(-1, parser.getDateLookahead());
  // An epoch cannot be completed otherwise: 14 days back is outside.
  EXPECT_EQ(-1, parse("1780314400 job"));
  EXPECT_EQ(1781524681, parse("1781524681 job"));
}

TEST_F(InitDateParserTest, PrefixFormatAndZone) {
  init(stanza({{"TIME_PREFIX", "at="}, {"TIME_FORMAT", "%d.%m.%Y %H:%M"}, {"TZ", "UTC"}}));
  EXPECT_EQ(-1, parse("15.06.2026 11:58"));
  EXPECT_EQ(1781524680, parse("x at=15.06.2026 11:58"));

  // The override wins over TZ.
  init(stanza({{"TZ", "UTC"}}), "Asia/Kolkata");
  EXPECT_EQ(1781524681 - 19800, parse("2026-06-15 11:58:01"));
  init(stanza({{"TZ", "Asia/Kolkata"}}));
  EXPECT_EQ(1781524681 - 19800, parse("2026-06-15 11:58:01"));
}

// A prefix that does not compile is reported, and the parser runs without
// one rather than with the one it had.
TEST_F(InitDateParserTest, ABrokenPrefixMeansNoPrefix) {
  init(stanza({{"TIME_PREFIX", "at="}, {"TZ", "UTC"}}));
  EXPECT_EQ(-1, parse("2026-06-15 11:58:01"));
  ScopedLogCapture log("DatetimeInitUtils");
  init(stanza({{"TIME_PREFIX", "at=("}, {"TZ", "UTC"}}));
  EXPECT_NE(std::string::npos, log.text().find("Invalid regex at=( -- "));
  EXPECT_EQ(1781524681, parse("2026-06-15 11:58:01"));
}

// The variable holds an absolute path, which then names a place under the
// install root like any other absolute value.
TEST_F(InitDateParserTest, EnvironmentVariablesExpandBeforeTheRootIsAdded) {
  setenv("KESTRO_TEST_PATTERN_DIR", "/etc/alt", 1);
  init(stanza({{"DATETIME_CONFIG", "$KESTRO_TEST_PATTERN_DIR/patterns.xml"}, {"TZ", "UTC"}}));
  unsetenv("KESTRO_TEST_PATTERN_DIR");
  EXPECT_TRUE(CachedDateParserConfig::contains(home() / "etc" / "alt" / "patterns.xml"));
  EXPECT_EQ(ref.get(), parser.getConf());
  EXPECT_EQ(1781524681, parse("2026-06-15 11:58:01"));
}

TEST_F(InitDateParserTest, LookaheadValuesAndTheirDefault) {
  const struct {
    const char* value;
    int lookahead;
  } kCases[] = {{"0", 0}, {"-3", -1}, {"20", 20}, {nullptr, 150}, {"", 150}};
  for (const auto& c : kCases) {
    if (c.value != nullptr) {
      init(stanza({{"MAX_TIMESTAMP_LOOKAHEAD", c.value}}));
    } else {
      init(stanza({}));
    }
    EXPECT_EQ(c.lookahead, parser.getDateLookahead()) << (c.value ? c.value : "(unset)");
  }
}

// Each setting-up starts the window and the lookahead from their defaults
// again, and a stanza without a prefix takes the old one away.
TEST_F(InitDateParserTest, LaterStanzasRestoreDefaultsAndDropThePrefix) {
  init(stanza({{"MAX_DAYS_AGO", "3"}, {"MAX_DAYS_HENCE", "1"}, {"MAX_TIMESTAMP_LOOKAHEAD", "12"},
        {"TIME_PREFIX", "at="}, {"TZ", "UTC"}}));
  EXPECT_EQ(-1, parse("2026-06-15 11:58:01"));
  init(stanza({{"TZ", "UTC"}}));
  EXPECT_EQ(1825 * 86400, parser.getGuesser().maxAgoSecs());
  EXPECT_EQ(7 * 86400, parser.getGuesser().maxHenceSecs());
  EXPECT_EQ(150, parser.getDateLookahead());
  EXPECT_EQ(1781524681, parse("2026-06-15 11:58:01"));
}

TEST_F(InitDateParserTest, DiffLimitsAboveZeroReplaceTheBuiltIns) {
  init(stanza({{"MAX_DIFF_SECS_AGO", "120"}, {"MAX_DIFF_SECS_HENCE", "240"}}));
  EXPECT_EQ(120, parser.getGuesser().maxDiffSecsAgo);
  EXPECT_EQ(240, parser.getGuesser().maxDiffSecsHence);
  init(stanza({{"MAX_DIFF_SECS_AGO", "-1"}, {"MAX_DIFF_SECS_HENCE", "0"}}));
  EXPECT_EQ(120, parser.getGuesser().maxDiffSecsAgo);
  EXPECT_EQ(240, parser.getGuesser().maxDiffSecsHence);
}

// A format and a zone are only ever set, never cleared, by a stanza: one
// without them leaves what an earlier one gave. A zone no lookup knows
// takes the override away.
TEST_F(InitDateParserTest, FormatAndZoneStayUntilAStanzaNamesOthers) {
  init(stanza({{"TIME_FORMAT", "%d.%m.%Y %H:%M"}, {"TZ", "Asia/Kolkata"}}));
  EXPECT_EQ(1781524680 - 19800, parse("15.06.2026 11:58"));
  init(stanza({}));
  EXPECT_EQ(1781524680 - 19800 + 86400, parse("16.06.2026 11:58"));
  EXPECT_TRUE(parser.getGuesser().haveOverride());
  init(stanza({{"TZ", "Not/AZone"}}));
  EXPECT_FALSE(parser.getGuesser().haveOverride());
}

}  // namespace
