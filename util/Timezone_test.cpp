#include "util/Timezone.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "util/testing/CivilTime.h"
#include "util/testing/TimezoneTestSupport.h"

namespace {

Timezone staged(const char* name) {
  Timezone zone;
  EXPECT_TRUE(loadStagedZone(name, &zone)) << name << ": build the stage_zoneinfo target";
  return zone;
}

const char* abbrevAt(const Timezone& zone, unsigned long index) {
  return zone.abbreviation(zone.typeAt(index));
}

TEST(Timezone, FreshZoneHasNothingAndBothCycleFlags) {
  Timezone zone;
  EXPECT_EQ(0u, zone.timecnt());
  EXPECT_EQ(0u, zone.typecnt());
  EXPECT_TRUE(zone.firstCycle());
  EXPECT_TRUE(zone.lastCycle());
  EXPECT_FALSE(zone.hasConstantOffset());
  EXPECT_EQ(Timezone::NO_CONSTANT_OFFSET, zone.constantOffset());
  EXPECT_EQ(1073741824, Timezone::NO_CONSTANT_OFFSET);
  EXPECT_EQ(0u, zone.searchAt(0));
  EXPECT_EQ(0, zone.offsetSeconds(true));
}

TEST(Timezone, GmtIsNamedGmtOfKindGmt) {
  Timezone zone;
  ASSERT_TRUE(zone.setToGmt());
  ASSERT_EQ(1u, zone.typecnt());
  EXPECT_EQ(0u, zone.timecnt());
  EXPECT_STREQ("GMT", zone.abbreviation(&zone.type(0)));
  EXPECT_EQ(TimezoneOffset::KIND_GMT, zone.type(0).kind);
  EXPECT_EQ(0, zone.constantOffset());
  EXPECT_FALSE(zone.firstCycle());
  EXPECT_FALSE(zone.lastCycle());
}

TEST(Timezone, ConstantOffsetIsWestOfUtc) {
  const struct { const char* name; long west; long east; } kCases[] = {
      {"IST", -19800, 19800}, {"EST", 18000, -18000}, {"", 0, 0},
      {"X", LONG_MIN, Timezone::MAX_OFFSET},  // clamped short of the sentinel
      {"Y", Timezone::NO_CONSTANT_OFFSET, -Timezone::MAX_OFFSET},
  };
  for (const auto& c : kCases) {
    Timezone zone;
    ASSERT_TRUE(zone.setToConstantOffset(c.name, c.west));
    EXPECT_EQ(c.east, zone.constantOffset()) << c.name;
    EXPECT_EQ(c.east, zone.constantOffset(0, 1000)) << c.name;
    // offsetSeconds reads transitions only, and there are none.
    EXPECT_EQ(0, zone.offsetSeconds(false)) << c.name;
    EXPECT_EQ(0, zone.offsetSeconds(true)) << c.name;
    // With no transitions every instant reads as the first type.
    const TimezoneOffset* type = zone.typeAt(zone.searchAt(123));
    EXPECT_STREQ(c.name, zone.abbreviation(type)) << c.name;
    EXPECT_EQ(c.east, type->gmtoff) << c.name;
  }
}

TEST(Timezone, SearchAtFindsTheLastTransitionAtOrBefore) {
  const std::string bytes = buildTzif(simpleTzif({100, 200, 300}));
  Timezone zone;
  ASSERT_TRUE(zone.fromZoneinfoData(bytes.data(), bytes.size(), false));
  // Entry 0 is LMT from the beginning of time, entry 1 EST from 1906.
  ASSERT_EQ(5u, zone.timecnt());
  const long first = SIMPLE_TZIF_FIRST_TRANSITION;
  const struct { long t; unsigned long index; } kCases[] = {
      {LONG_MIN, 0}, {first - 1, 0}, {first, 1}, {99, 1}, {100, 2},
      {199, 2},      {200, 3},       {300, 4},   {LONG_MAX, 4},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.index, zone.searchAt(c.t)) << c.t;
  EXPECT_STREQ("LMT", abbrevAt(zone, 0));
  EXPECT_STREQ("EDT", abbrevAt(zone, 2));
}

// Spring gaps and autumn overlaps on both hemispheres, a 30-minute shift and
// a zone whose winter time is the daylight one.
TEST(Timezone, ReverseSearchClassifiesGapsAndOverlaps) {
  const struct {
    const char* zone;
    long local;
    reverse_search_result_type_t how;
    const char* first;   // abbreviation of the entry returned
    const char* second;  // of the next one, for an overlap
  } kCases[] = {
      {"America/New_York", civilUtc(2024, 3, 10, 2, 30), NO_SUCH_LOCAL_TIME, "EST", nullptr},
      {"America/New_York", civilUtc(2024, 11, 3, 1, 30), MIGHT_ALSO_BE_NEXT_INDEX, "EDT", "EST"},
      {"America/New_York", civilUtc(2024, 7, 1, 12, 0), UNIQUE_READING, "EDT", nullptr},
      {"America/New_York", civilUtc(2024, 3, 10, 1, 59), UNIQUE_READING, "EST", nullptr},
      {"America/New_York", civilUtc(2024, 3, 10, 3, 0), UNIQUE_READING, "EDT", nullptr},
      {"Australia/Sydney", civilUtc(2024, 10, 6, 2, 30), NO_SUCH_LOCAL_TIME, "AEST", nullptr},
      {"Australia/Sydney", civilUtc(2024, 4, 7, 2, 30), MIGHT_ALSO_BE_NEXT_INDEX, "AEDT", "AEST"},
      {"Europe/London", civilUtc(2024, 3, 31, 1, 30), NO_SUCH_LOCAL_TIME, "GMT", nullptr},
      {"Europe/London", civilUtc(2024, 10, 27, 1, 30), MIGHT_ALSO_BE_NEXT_INDEX, "BST", "GMT"},
      {"America/Santiago", civilUtc(2024, 9, 8, 0, 30), NO_SUCH_LOCAL_TIME, "-04", nullptr},
      {"America/Santiago", civilUtc(2024, 4, 6, 23, 30), MIGHT_ALSO_BE_NEXT_INDEX, "-03", "-04"},
      {"Australia/Lord_Howe", civilUtc(2024, 10, 6, 2, 15), NO_SUCH_LOCAL_TIME, "+1030", nullptr},
      {"Australia/Lord_Howe", civilUtc(2024, 4, 7, 1, 45), MIGHT_ALSO_BE_NEXT_INDEX, "+11",
       "+1030"},
      {"Europe/Dublin", civilUtc(2024, 3, 31, 1, 30), NO_SUCH_LOCAL_TIME, "GMT", nullptr},
      {"Europe/Dublin", civilUtc(2024, 10, 27, 1, 30), MIGHT_ALSO_BE_NEXT_INDEX, "IST", "GMT"},
      // Far beyond the stored years the footer's transitions still answer.
      {"America/New_York", civilUtc(2300, 3, 11, 2, 30), NO_SUCH_LOCAL_TIME, "EST", nullptr},
  };
  for (const auto& c : kCases) {
    const Timezone zone = staged(c.zone);
    reverse_search_result_type_t how;
    const unsigned long i = zone.reverseSearchAt(c.local, &how);
    EXPECT_EQ(c.how, how) << c.zone << " " << c.local;
    EXPECT_STREQ(c.first, abbrevAt(zone, i)) << c.zone << " " << c.local;
    if (c.second != nullptr) {
      EXPECT_STREQ(c.second, abbrevAt(zone, i + 1)) << c.zone;
    }
  }
}

TEST(Timezone, OffsetFromReverseSearchPicksTheReadingByIsdst) {
  const Timezone zone = staged("America/New_York");
  const long overlap = civilUtc(2024, 11, 3, 1, 30);
  EXPECT_EQ(nullptr, zone.offsetFromReverseSearch(overlap, -1));
  ASSERT_NE(nullptr, zone.offsetFromReverseSearch(overlap, 1));
  EXPECT_EQ(-14400, zone.offsetFromReverseSearch(overlap, 1)->gmtoff);
  EXPECT_EQ(-18000, zone.offsetFromReverseSearch(overlap, 0)->gmtoff);
  EXPECT_EQ(nullptr, zone.offsetFromReverseSearch(civilUtc(2024, 3, 10, 2, 30), 0));
  // A unique reading ignores isdst.
  const TimezoneOffset* edt = zone.offsetFromReverseSearch(civilUtc(2024, 7, 1), 0);
  ASSERT_NE(nullptr, edt);
  EXPECT_EQ(-14400, edt->gmtoff);
  // setStructTmMetadata copies the type's fields.
  tm t{};
  t.tm_isdst = -1;
  zone.setStructTmMetadata(&t, edt);
  EXPECT_EQ(1, t.tm_isdst);
  EXPECT_EQ(-14400, t.tm_gmtoff);
  EXPECT_STREQ("EDT", t.tm_zone);
}

TEST(Timezone, OverlapOfTwoStandardTimesIsAmbiguousForEveryIsdst) {
  // Moscow went from +04 to +03 in 2014, both standard time.
  const Timezone zone = staged("Europe/Moscow");
  const long local = civilUtc(2014, 10, 26, 1, 30);
  reverse_search_result_type_t how;
  zone.reverseSearchAt(local, &how);
  EXPECT_EQ(MIGHT_ALSO_BE_NEXT_INDEX, how);
  for (int isdst : {-1, 0, 1}) EXPECT_EQ(nullptr, zone.offsetFromReverseSearch(local, isdst));
}

TEST(Timezone, ReverseSearchOfUnrepresentableLocalTimesGivesAnEnd) {
  const Timezone zone = staged("Asia/Tokyo");  // +09:00 at the end
  const Timezone west = staged("America/New_York");
  reverse_search_result_type_t how;
  EXPECT_EQ(0u, zone.reverseSearchAt(LONG_MIN, &how));
  EXPECT_EQ(UNIQUE_READING, how);
  EXPECT_EQ(west.timecnt() - 1, west.reverseSearchAt(LONG_MAX, &how));
  EXPECT_EQ(UNIQUE_READING, how);
}

TEST(Timezone, ConstantOffsetOverARange) {
  const Timezone ny = staged("America/New_York");
  EXPECT_FALSE(ny.hasConstantOffset());
  EXPECT_EQ(-18000, ny.constantOffset(civilUtc(2024, 1, 1), civilUtc(2024, 2, 1)));
  EXPECT_EQ(-14400, ny.constantOffset(civilUtc(2024, 8, 1), civilUtc(2024, 6, 1)));
  EXPECT_EQ(Timezone::NO_CONSTANT_OFFSET,
            ny.constantOffset(civilUtc(2024, 1, 1), civilUtc(2024, 7, 1)));
  // Changes before 1970 do not count against a constant offset.
  const Timezone tokyo = staged("Asia/Tokyo");
  EXPECT_TRUE(tokyo.hasConstantOffset());
  EXPECT_EQ(32400, tokyo.constantOffset(LONG_MIN, LONG_MAX));
  const Timezone kolkata = staged("Asia/Kolkata");
  EXPECT_EQ(19800, kolkata.constantOffset());
}

TEST(Timezone, OffsetSecondsOfTheLatestTransitionOfThatKind) {
  const Timezone ny = staged("America/New_York");
  EXPECT_EQ(-18000, ny.offsetSeconds(false));
  EXPECT_EQ(-14400, ny.offsetSeconds(true));
  // Without daylight time the daylight question gets the standard answer.
  const Timezone tokyo = staged("Asia/Tokyo");
  EXPECT_EQ(32400, tokyo.offsetSeconds(false));
  const Timezone utc = staged("Etc/UTC");
  EXPECT_EQ(0, utc.offsetSeconds(true));
}

TEST(Timezone, SimilarZonesReadTheSameAroundAnInstant) {
  const long t = civilUtc(2024, 6, 1);
  const struct { const char* a; const char* b; bool similar; } kCases[] = {
      {"America/New_York", "US/Eastern", true},   // an alias
      {"America/New_York", "EST5EDT", true},      // same rules since 2007, same names
      {"America/New_York", "America/Toronto", true}, {"America/New_York", "America/Chicago", false},
      {"Asia/Tokyo", "Japan", true},
      {"Asia/Tokyo", "Asia/Seoul", false},        // same offset, other name
      {"Etc/UTC", "Etc/GMT", false},              // same offset, other name
      {"Europe/Paris", "Europe/Berlin", true},
      {"Europe/London", "Europe/Dublin", false},  // daylight flags differ
  };
  for (const auto& c : kCases) {
    const Timezone a = staged(c.a);
    const Timezone b = staged(c.b);
    EXPECT_EQ(c.similar, a.isSimilarTo(b, t)) << c.a << " " << c.b;
    EXPECT_EQ(c.similar, b.isSimilarTo(a, t)) << c.b << " " << c.a;
    EXPECT_TRUE(a.isSimilarTo(a, t)) << c.a;
  }
}

TEST(Timezone, EstimatedTzVariableReadsTheYearAhead) {
  const long t = civilUtc(2024, 1, 15);
  const struct { const char* zone; const char* tz; } kCases[] = {
      {"America/New_York", "EST5EDT,M3.2.0,M11.1.0"},
      {"Australia/Sydney", "AEST-10AEDT,M10.1.0,M4.1.0/3"},
      {"Europe/London", "GMT0BST,M3.5.0/1,M10.5.0"}, {"Europe/Paris", "CET-1CEST,M3.5.0,M10.5.0/3"},
      {"Australia/Lord_Howe", "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0"}, {"Asia/Tokyo", "JST-9"},
      {"Asia/Kolkata", "IST-5:30"}, {"Asia/Kathmandu", "<+0545>-5:45"},
      {"America/Sao_Paulo", "<-03>3"}, {"Etc/UTC", "UTC0"},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.tz, staged(c.zone).estimatedTzVariable(t)) << c.zone;
}

// For every staged zone, the rule estimated at an instant reproduces the
// next two transitions after it: in 2300 every rule comes from a footer.
TEST(Timezone, EstimatedTzVariableReproducesTheNextTransitions) {
  const Pathname dir = stagedZoneinfoDir();
  ASSERT_FALSE(dir.empty());
  int withRules = 0;
  for (const long t : {civilUtc(2300, 1, 1), civilUtc(2300, 7, 1)}) {
    for (const std::string& name : zoneNamesUnder(dir)) {
      Timezone zone;
      ASSERT_TRUE(zone.fromExactZoneinfoPath(dir / name.c_str(), true)) << name;
      const Str tz = zone.estimatedTzVariable(t);
      Timezone again;
      ASSERT_TRUE(again.fromPosixString(tz.c_str())) << name << " " << tz;
      const unsigned long i = zone.searchAt(t);
      const unsigned long j = again.searchAt(t);
      EXPECT_EQ(zone.typeAt(i)->gmtoff, again.typeAt(j)->gmtoff) << name << " " << tz;
      if (i + 2 >= zone.timecnt() || zone.transitionTime(i + 1) > t + 366L * 86400) continue;
      ++withRules;
      for (unsigned long k = 1; k <= 2; ++k) {
        ASSERT_LT(j + k, again.timecnt()) << name << " " << tz;
        EXPECT_EQ(zone.transitionTime(i + k), again.transitionTime(j + k)) << name << " " << tz;
        EXPECT_EQ(zone.typeAt(i + k)->gmtoff, again.typeAt(j + k)->gmtoff) << name << " " << tz;
      }
    }
  }
  EXPECT_GT(withRules, 100);
}

TEST(Timezone, CycleFlagsMarkFourHundredYearRepeats) {
  // A yearly rule fills 1200 entries from 1970, so both ends repeat.
  Timezone rule;
  ASSERT_TRUE(rule.fromPosixString("EST5EDT,M3.2.0,M11.1.0"));
  EXPECT_EQ(1200u, rule.timecnt());
  EXPECT_TRUE(rule.firstCycle());
  EXPECT_TRUE(rule.lastCycle());
  EXPECT_EQ(Timezone::GREGORIAN_CYCLE_SECONDS, rule.transitionTime(800) - rule.transitionTime(0));
  // A zone's history does not repeat; the rule appended behind it does.
  const Timezone ny = staged("America/New_York");
  EXPECT_EQ(1200u, ny.timecnt());
  EXPECT_FALSE(ny.firstCycle());
  EXPECT_TRUE(ny.lastCycle());
  // Up to 800 transitions, neither flag is set.
  const Timezone tokyo = staged("Asia/Tokyo");
  EXPECT_FALSE(tokyo.firstCycle());
  EXPECT_FALSE(tokyo.lastCycle());
}

TEST(TimezoneDeathTest, TypeAtPastTheTableIsAContractViolation) {
  const Timezone zone = staged("America/New_York");
  EXPECT_DEATH(zone.typeAt(zone.timecnt()), "index < _timecnt");
  EXPECT_DEATH(zone.transitionTime(zone.timecnt()), "i < _timecnt");
}

}  // namespace
