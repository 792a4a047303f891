// The view of an explicit Timezone: breakdown, the way back, the renderer
// slots, and the last day of 1969.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "util/DateTime.h"
#include "util/TimeFormat.h"
#include "util/Timeval.h"
#include "util/Timezone.h"
#include "util/testing/TimezoneTestSupport.h"

namespace {

Timezone staged(const char* name) {
  Timezone zone;
  EXPECT_TRUE(loadStagedZone(name, &zone)) << name << ": build the stage_zoneinfo target";
  return zone;
}

long civil(int year, int month, int day, int hour, int minute, int second = 0) {
  tm t{};
  t.tm_year = year - 1900;
  t.tm_mon = month - 1;
  t.tm_mday = day;
  t.tm_hour = hour;
  t.tm_min = minute;
  t.tm_sec = second;
  return timegm(&t);
}

// Points the C library at one staged zone for the life of the object.
class ScopedZoneFile {
 public:
  explicit ScopedZoneFile(const char* name) {
    const char* tz = std::getenv("TZ");
    _had = tz != nullptr;
    if (_had) _saved = tz;
    ::setenv("TZ", (":" + stagedZoneinfoDir() / name).c_str(), 1);
    ::tzset();
  }
  ~ScopedZoneFile() {
    if (_had) {
      ::setenv("TZ", _saved.c_str(), 1);
    } else {
      ::unsetenv("TZ");
    }
    ::tzset();
  }

 private:
  std::string _saved;
  bool _had = false;
};

// Times whose local reading falls on December 31, 1969: the quirk's rows
// first, then the neighbours on either side that break down normally.
TEST(StructTmInTimezone, JustBefore1970InTheZoneIsDecember31) {
  const struct {
    const char* zone;
    long t;
    int mday, mon, year, wday, yday, hour, min, sec;
  } kCases[] = {
      {"America/New_York", 0, 31, 11, 69, 3, 364, 19, 0, 0},
      {"America/New_York", 17999, 31, 11, 69, 3, 364, 23, 59, 59},
      {"America/New_York", 18000, 1, 0, 70, 4, 0, 0, 0, 0},
      {"America/New_York", -68399, 31, 11, 69, 3, 364, 0, 0, 1},
      {"America/New_York", -68400, 31, 11, 69, 3, 364, 0, 0, 0},  // a normal breakdown
      {"America/New_York", -68401, 30, 11, 69, 2, 363, 23, 59, 59},
      {"Asia/Tokyo", -32401, 31, 11, 69, 3, 364, 23, 59, 59},
      {"Asia/Tokyo", -32400, 1, 0, 70, 4, 0, 0, 0, 0},
      {"Pacific/Kiritimati", 38399, 31, 11, 69, 3, 364, 23, 59, 59},  // -10:40 then
      {"Etc/UTC", -1, 31, 11, 69, 3, 364, 23, 59, 59},
      {"Etc/UTC", -86399, 31, 11, 69, 3, 364, 0, 0, 1},
  };
  for (const auto& c : kCases) {
    const Timezone zone = staged(c.zone);
    StructTmInTimezone t(&zone);
    ASSERT_TRUE(t.fromUnixTime(c.t)) << c.zone << " " << c.t;
    EXPECT_EQ(c.mday, t.tm_mday) << c.zone << " " << c.t;
    EXPECT_EQ(c.mon, t.tm_mon) << c.zone << " " << c.t;
    EXPECT_EQ(c.year, t.tm_year) << c.zone << " " << c.t;
    EXPECT_EQ(c.wday, t.tm_wday) << c.zone << " " << c.t;
    EXPECT_EQ(c.yday, t.tm_yday) << c.zone << " " << c.t;
    EXPECT_EQ(c.hour * 3600 + c.min * 60 + c.sec, t.tm_hour * 3600 + t.tm_min * 60 + t.tm_sec)
        << c.zone << " " << c.t;
  }
}

TEST(StructTmInTimezone, FromUnixTimeStoresTheZonesMetadata) {
  const Timezone zone = staged("America/New_York");
  StructTmInTimezone t(&zone);
  ASSERT_TRUE(t.fromUnixTime(civil(2024, 7, 4, 16, 0)));
  EXPECT_EQ(12, t.tm_hour);
  EXPECT_EQ(1, t.tm_isdst);
  EXPECT_EQ(-14400, t.tm_gmtoff);
  EXPECT_EQ(-14400, t.timezoneOffsetSeconds());
  EXPECT_STREQ("EDT", t.tm_zone);
  EXPECT_EQ(&zone, t.getTimezone());
}

TEST(StructTmInTimezone, RefusesPastTheBreakdownLimitAndLeavesTheFields) {
  const Timezone tokyo = staged("Asia/Tokyo");
  StructTmInTimezone t(&tokyo);
  ASSERT_TRUE(t.fromUnixTime(0));
  const tm before = t;
  EXPECT_FALSE(t.fromUnixTime(StructTm::MAX_BREAKDOWN_TIME - 32400 + 1));
  EXPECT_EQ(before.tm_year, t.tm_year);
  EXPECT_EQ(before.tm_hour, t.tm_hour);
  EXPECT_TRUE(t.fromUnixTime(StructTm::MAX_BREAKDOWN_TIME - 32400));
  GmtStructTm limit;
  ASSERT_TRUE(limit.fromUnixTime(StructTm::MAX_BREAKDOWN_TIME));
  EXPECT_EQ(limit.tm_year, t.tm_year);
  EXPECT_EQ(limit.tm_hour, t.tm_hour);
  // The sums saturate instead of wrapping to the other end of time.
  EXPECT_FALSE(t.fromUnixTime(LONG_MAX));
  EXPECT_FALSE(t.fromUnixTime(LONG_MIN));
  EXPECT_EQ(limit.tm_year, t.tm_year);
}

TEST(StructTmInTimezone, NullZoneIsTheLocalView) {
  ScopedZoneFile tz("Australia/Lord_Howe");
  StructTmInTimezone zoned(nullptr);
  LocalStructTm local;
  for (long t : {0L, 1700000000L, civil(2024, 4, 7, 1, 45)}) {
    ASSERT_TRUE(zoned.fromUnixTime(t));
    ASSERT_TRUE(local.fromUnixTime(t));
    EXPECT_EQ(local.tm_hour, zoned.tm_hour);
    EXPECT_EQ(local.tm_min, zoned.tm_min);
    EXPECT_EQ(local.tm_gmtoff, zoned.tm_gmtoff);
    EXPECT_EQ(t, zoned.toUnixTime());
  }
}

TEST(StructTmInTimezone, ToUnixTimeInGapsAndOverlaps) {
  const Timezone zone = staged("America/New_York");
  const struct { int mon, mday, hour, min, isdst; long expected; } kCases[] = {
      {7, 4, 12, 0, -1, civil(2024, 7, 4, 16, 0)},
      {7, 4, 12, 0, 0, civil(2024, 7, 4, 16, 0)},   // a unique reading ignores isdst
      {11, 3, 1, 30, 1, civil(2024, 11, 3, 5, 30)},  // the daylight reading
      {11, 3, 1, 30, 0, civil(2024, 11, 3, 6, 30)},  // the standard one
      {11, 3, 1, 30, -1, -1},                        // either: refused
      {3, 10, 2, 30, -1, -1},                        // does not exist
      {3, 10, 2, 30, 1, -1},
      {3, 9, 27, 30, -1, civil(2024, 3, 10, 7, 30)},  // 03:30 EDT the next day
  };
  for (const auto& c : kCases) {
    StructTmInTimezone t(&zone);
    t.tm_year = 124;
    t.tm_mon = c.mon - 1;
    t.tm_mday = c.mday;
    t.tm_hour = c.hour;
    t.tm_min = c.min;
    t.tm_isdst = c.isdst;
    const tm before = t;
    EXPECT_EQ(c.expected, t.toUnixTime()) << c.mon << "/" << c.mday << " " << c.hour;
    if (c.expected == -1) {
      EXPECT_EQ(before.tm_isdst, t.tm_isdst);
      EXPECT_EQ(before.tm_hour, t.tm_hour);
    }
  }
}

TEST(StructTmInTimezone, ToUnixTimeNormalisesAndStoresTheReading) {
  const Timezone zone = staged("Europe/Paris");
  StructTmInTimezone t(&zone);
  t.tm_year = 124;
  t.tm_mon = 0;
  t.tm_mday = 32;  // February 1
  t.tm_hour = 12;
  t.tm_isdst = 1;
  EXPECT_EQ(civil(2024, 2, 1, 11, 0), t.toUnixTime());
  EXPECT_EQ(1, t.tm_mon);
  EXPECT_EQ(1, t.tm_mday);
  EXPECT_EQ(4, t.tm_wday);
  EXPECT_EQ(0, t.tm_isdst);
  EXPECT_EQ(3600, t.tm_gmtoff);
  EXPECT_STREQ("CET", t.tm_zone);
}

TEST(StructTmInTimezone, RendererSlotsSpeakForTheZone) {
  const Timezone ny = staged("America/New_York");
  StructTmInTimezone t(&ny);
  ASSERT_TRUE(t.fromUnixTime(civil(2024, 11, 3, 5, 30)));  // 01:30 EDT, the first reading
  const render_tm_ops* ops = t.getRenderOps();
  EXPECT_EQ(civil(2024, 11, 3, 5, 30), ops->to_epoch(ops, &t));
  char name[8];
  ASSERT_TRUE(ops->get_tzname(ops, &t, name, sizeof name));
  EXPECT_STREQ("EDT", name);
  EXPECT_EQ(-14400, ops->tz_sec_offset(ops, &t));
  // Without a daylight flag the offset is looked up again: ambiguous here.
  StructTm unknown = t;
  unknown.tm_isdst = -1;
  EXPECT_EQ(0, ops->tz_sec_offset(ops, &unknown));
  unknown.tm_hour = 12;
  EXPECT_EQ(-18000, ops->tz_sec_offset(ops, &unknown));
  // A constant zone answers its constant.
  const Timezone kolkata = staged("Asia/Kolkata");
  StructTmInTimezone k(&kolkata);
  k.tm_isdst = -1;
  EXPECT_EQ(19800, k.getRenderOps()->tz_sec_offset(k.getRenderOps(), &k));
  // The slots are the local ones with no zone.
  StructTmInTimezone local(nullptr);
  LocalStructTm plain;
  EXPECT_EQ(plain.getRenderOps()->to_epoch, local.getRenderOps()->to_epoch);
  local.setTimezone(&ny);
  EXPECT_NE(plain.getRenderOps()->to_epoch, local.getRenderOps()->to_epoch);
}

// TimeFormat renders the zone's view as strftime renders the same instant
// with the C library pointed at the same file.
TEST(StructTmInTimezone, RendersAsStrftimeDoesInThatZone) {
  const TimeFormat format("%Y-%m-%d %H:%M:%S %a %j %Z %z %s");
  ASSERT_TRUE(format.isSet());
  for (const char* name : {"America/New_York", "Australia/Lord_Howe", "Asia/Kathmandu",
                           "Europe/Dublin", "America/St_Johns"}) {
    ScopedZoneFile tz(name);
    const Timezone zone = staged(name);
    for (long t = civil(2023, 1, 1, 0, 0); t < civil(2025, 1, 1, 0, 0); t += 86400 * 7 + 3671) {
      StructTmInTimezone ours(&zone);
      ASSERT_TRUE(ours.fromUnixTime(t));
      Str got;
      ours.appendFtime(got, format);
      const time_t tt = t;
      tm theirs;
      ASSERT_NE(nullptr, localtime_r(&tt, &theirs));
      char expect[128];
      ASSERT_GT(strftime(expect, sizeof expect, "%Y-%m-%d %H:%M:%S %a %j %Z %z %s", &theirs), 0u);
      ASSERT_EQ(expect, got) << name << " " << t;
    }
  }
}

TEST(StructTmInTimezone, TimevalBreaksDownAndBackInAZone) {
  const Timezone zone = staged("Australia/Sydney");
  for (long t : {0L, 1700000000L, civil(2024, 4, 6, 15, 59, 59), civil(2024, 4, 6, 16, 0)}) {
    StructTmInTimezoneHires broken(&zone);
    Timeval(t, 123456).localtime(&broken);
    EXPECT_EQ(123456u, broken.microseconds);
    Timeval back;
    // The daylight flag picks the reading in the autumn overlap.
    ASSERT_TRUE(back.set(broken)) << t;
    EXPECT_EQ(Timeval(t, 123456), back);
  }
}

}  // namespace
