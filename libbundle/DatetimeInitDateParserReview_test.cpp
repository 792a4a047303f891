// initDateParser as a stage that sets one parser up again and again sees
// it: paths from the environment, values that mean "no limit", and which
// settings a later stanza without them leaves in place.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "libbundle/DatetimeInitUtils.h"
#include "libbundle/PropertiesMap.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/DateParser.h"
#include "util/DateParserConfigRef.h"
#include "util/DateParserRegexConf.h"
#include "util/testing/DateParserTestSupport.h"
#include "util/testing/FixedClock.h"
#include "util/testing/GuessTestSupport.h"
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

class InitDateParserReview : public ::testing::Test {
 protected:
  InitDateParserReview() : _clock(NOW) {
    writeTestFile(_home / "etc" / "datetime.xml", MINI_PATTERNS);
    writeTestFile(_home / "etc" / "alt" / "patterns.xml", MINI_PATTERNS);
    const char* old = getenv("KESTRO_HOME");
    _oldHome = old != nullptr ? old : "";
    setenv("KESTRO_HOME", std::string(_home.path()).c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
  }
  ~InitDateParserReview() override {
    unsetenv("REVIEW_PATTERN_DIR");
    if (!_oldHome.empty()) {
      setenv("KESTRO_HOME", _oldHome.c_str(), 1);
      LoaderInfo::getInstance().populateFromEnvironment();
    }
  }
  void init(std::initializer_list<std::pair<const char*, const char*>> settings,
            const Str& tzOverride = Str()) {
    PropertiesMap props;
    for (const auto& [key, value] : settings) props.put(key, value);
    DatetimeInitUtils::initDateParser(props, parser, ref, tzOverride, nullptr);
  }
  int64_t parse(const char* line) {
    Timeval out;
    int ts, te, ds, de;
    return parser.parseDate(out, StrSegment(line), NOW, ts, te, ds, de, nullptr) ? out.tv_sec : -1;
  }
  const Pathname& home() const { return _home.path(); }

  DateParser parser{false};
  DateParserConfigRef ref;

 private:
  TestTempDir _home;
  std::string _oldHome;
  ScopedFixedClock _clock;
};

// The variable holds an absolute path, which then names a place under the
// install root like any other absolute value.
TEST_F(InitDateParserReview, EnvironmentVariablesExpandBeforeTheRootIsAdded) {
  setenv("REVIEW_PATTERN_DIR", "/etc/alt", 1);
  init({{"DATETIME_CONFIG", "$REVIEW_PATTERN_DIR/patterns.xml"}, {"TZ", "UTC"}});
  EXPECT_TRUE(CachedDateParserConfig::contains(home() / "etc" / "alt" / "patterns.xml"));
  EXPECT_EQ(ref.get(), parser.getConf());
  EXPECT_EQ(1781524681, parse("2026-06-15 11:58:01"));
}

TEST_F(InitDateParserReview, LookaheadValuesAndTheirDefault) {
  const struct {
    const char* value;
    int lookahead;
  } kCases[] = {{"0", 0}, {"-3", -1}, {"20", 20}, {nullptr, 150}, {"", 150}};
  for (const auto& c : kCases) {
    if (c.value != nullptr) {
      init({{"MAX_TIMESTAMP_LOOKAHEAD", c.value}});
    } else {
      init({});
    }
    EXPECT_EQ(c.lookahead, parser.getDateLookahead()) << (c.value ? c.value : "(unset)");
  }
}

// Each setting-up starts the window and the lookahead from their defaults
// again, and a stanza without a prefix takes the old one away.
TEST_F(InitDateParserReview, LaterStanzasRestoreDefaultsAndDropThePrefix) {
  init({{"MAX_DAYS_AGO", "3"}, {"MAX_DAYS_HENCE", "1"}, {"MAX_TIMESTAMP_LOOKAHEAD", "12"},
        {"TIME_PREFIX", "at="}, {"TZ", "UTC"}});
  EXPECT_EQ(-1, parse("2026-06-15 11:58:01"));
  init({{"TZ", "UTC"}});
  EXPECT_EQ(1825 * 86400, parser.getGuesser().maxAgoSecs());
  EXPECT_EQ(7 * 86400, parser.getGuesser().maxHenceSecs());
  EXPECT_EQ(150, parser.getDateLookahead());
  EXPECT_EQ(1781524681, parse("2026-06-15 11:58:01"));
}

TEST_F(InitDateParserReview, DiffLimitsAboveZeroReplaceTheBuiltIns) {
  init({{"MAX_DIFF_SECS_AGO", "120"}, {"MAX_DIFF_SECS_HENCE", "240"}});
  EXPECT_EQ(120, parser.getGuesser().maxDiffSecsAgo);
  EXPECT_EQ(240, parser.getGuesser().maxDiffSecsHence);
  init({{"MAX_DIFF_SECS_AGO", "-1"}, {"MAX_DIFF_SECS_HENCE", "0"}});
  EXPECT_EQ(120, parser.getGuesser().maxDiffSecsAgo);
  EXPECT_EQ(240, parser.getGuesser().maxDiffSecsHence);
}

// A format and a zone are only ever set, never cleared, by a stanza: one
// without them leaves what an earlier one gave. A zone no lookup knows
// takes the override away.
TEST_F(InitDateParserReview, FormatAndZoneStayUntilAStanzaNamesOthers) {
  init({{"TIME_FORMAT", "%d.%m.%Y %H:%M"}, {"TZ", "Asia/Kolkata"}});
  EXPECT_EQ(1781524680 - 19800, parse("15.06.2026 11:58"));
  init({});
  EXPECT_EQ(1781524680 - 19800 + 86400, parse("16.06.2026 11:58"));
  EXPECT_TRUE(parser.getGuesser().haveOverride());
  init({{"TZ", "Not/AZone"}});
  EXPECT_FALSE(parser.getGuesser().haveOverride());
}

}  // namespace
