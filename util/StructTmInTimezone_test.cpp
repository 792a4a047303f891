// The view of an explicit Timezone: breakdown, the way back, the renderer
// slots, and the last day of 1969.
#include <gtest/gtest.h>

#include <climits>
#include <ctime>
#include <string>

#include "util/DateTime.h"
#include "util/TimeFormat.h"
#include "util/Timeval.h"
#include "util/Timezone.h"
#include "util/testing/CivilTime.h"
#include "util/testing/ScopedTz.h"
#include "util/testing/TimezoneTestSupport.h"

namespace {

Timezone staged(const char* name) {
  Timezone zone;
  EXPECT_TRUE(loadStagedZone(name, &zone)) << name << ": build the stage_zoneinfo target";
  return zone;
}

// Times whose local reading falls on December 31, 1969: the quirk's rows
// first, then the neighbours on either side that break down normally.
TEST(StructTmInTimezone, JustBefore1970InTheZoneIsDecember31) {
  const struct { const char* zone; long t; const char* fields; } kCases[] = {
      {"America/New_York", 0, "1969-12-31 19:00:00 wday 3 yday 364"},
      {"America/New_York", 17999, "1969-12-31 23:59:59 wday 3 yday 364"},
      {"America/New_York", 18000, "1970-01-01 00:00:00 wday 4 yday 0"},
      {"America/New_York", -68399, "1969-12-31 00:00:01 wday 3 yday 364"},
      {"America/New_York", -68400, "1969-12-31 00:00:00 wday 3 yday 364"},  // a normal breakdown
      {"America/New_York", -68401, "1969-12-30 23:59:59 wday 2 yday 363"},
      {"Asia/Tokyo", -32401, "1969-12-31 23:59:59 wday 3 yday 364"},
      {"Asia/Tokyo", -32400, "1970-01-01 00:00:00 wday 4 yday 0"},
      {"Pacific/Kiritimati", 38399, "1969-12-31 23:59:59 wday 3 yday 364"},  // -10:40 then
      {"Etc/UTC", -1, "1969-12-31 23:59:59 wday 3 yday 364"},
      {"Etc/UTC", -86399, "1969-12-31 00:00:01 wday 3 yday 364"},
  };
  for (const auto& c : kCases) {
    const Timezone zone = staged(c.zone);
    StructTmInTimezone t(&zone);
    ASSERT_TRUE(t.fromUnixTime(c.t)) << c.zone << " " << c.t;
    EXPECT_EQ(c.fields, civilFields(t)) << c.zone << " " << c.t;
  }
}

TEST(StructTmInTimezone, FromUnixTimeStoresTheZonesMetadata) {
  const Timezone zone = staged("America/New_York");
  StructTmInTimezone t(&zone);
  ASSERT_TRUE(t.fromUnixTime(civilUtc(2024, 7, 4, 16, 0)));
  EXPECT_EQ("2024-07-04 12:00:00 wday 4 yday 185 dst 1 -14400 EDT", civilFieldsAndZone(t));
  EXPECT_EQ(-14400, t.timezoneOffsetSeconds());
  EXPECT_EQ(&zone, t.getTimezone());
}

TEST(StructTmInTimezone, RefusesPastTheBreakdownLimitAndLeavesTheFields) {
  const Timezone tokyo = staged("Asia/Tokyo");
  StructTmInTimezone t(&tokyo);
  ASSERT_TRUE(t.fromUnixTime(0));
  const std::string before = civilFields(t);
  EXPECT_FALSE(t.fromUnixTime(StructTm::MAX_BREAKDOWN_TIME - 32400 + 1));
  EXPECT_EQ(before, civilFields(t));
  EXPECT_TRUE(t.fromUnixTime(StructTm::MAX_BREAKDOWN_TIME - 32400));
  const std::string limit = civilFields(utcFields(StructTm::MAX_BREAKDOWN_TIME));
  EXPECT_EQ(limit, civilFields(t));
  // The sums saturate instead of wrapping to the other end of time.
  EXPECT_FALSE(t.fromUnixTime(LONG_MAX));
  EXPECT_FALSE(t.fromUnixTime(LONG_MIN));
  EXPECT_EQ(limit, civilFields(t));
}

TEST(StructTmInTimezone, ToUnixTimeInGapsAndOverlaps) {
  const Timezone zone = staged("America/New_York");
  const struct { int mon, mday, hour, min, isdst; long expected; } kCases[] = {
      {7, 4, 12, 0, -1, civilUtc(2024, 7, 4, 16, 0)},
      {7, 4, 12, 0, 0, civilUtc(2024, 7, 4, 16, 0)},   // a unique reading ignores isdst
      {11, 3, 1, 30, 1, civilUtc(2024, 11, 3, 5, 30)},  // the daylight reading
      {11, 3, 1, 30, 0, civilUtc(2024, 11, 3, 6, 30)},  // the standard one
      {11, 3, 1, 30, -1, -1},                           // either: refused
      {3, 10, 2, 30, -1, -1},                           // does not exist
      {3, 10, 2, 30, 1, -1},
      {3, 9, 27, 30, -1, civilUtc(2024, 3, 10, 7, 30)},  // 03:30 EDT the next day
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
  EXPECT_EQ(civilUtc(2024, 2, 1, 11, 0), t.toUnixTime());
  EXPECT_EQ("2024-02-01 12:00:00 wday 4 yday 31 dst 0 3600 CET", civilFieldsAndZone(t));
}

TEST(StructTmInTimezone, RendererSlotsSpeakForTheZone) {
  const Timezone ny = staged("America/New_York");
  StructTmInTimezone t(&ny);
  ASSERT_TRUE(t.fromUnixTime(civilUtc(2024, 11, 3, 5, 30)));  // 01:30 EDT, the first reading
  const render_tm_ops* ops = t.getRenderOps();
  EXPECT_EQ(civilUtc(2024, 11, 3, 5, 30), ops->to_epoch(ops, &t));
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
  const char kFormat[] = "%Y-%m-%d %H:%M:%S %a %j %Z %z %s";
  const TimeFormat format(kFormat);
  ASSERT_TRUE(format.isSet());
  for (const char* name : {"America/New_York", "Australia/Lord_Howe", "Asia/Kathmandu",
                           "Europe/Dublin", "America/St_Johns"}) {
    ScopedTz tz(stagedZoneTz(name).c_str());
    const Timezone zone = staged(name);
    for (long t = civilUtc(2023, 1, 1); t < civilUtc(2025, 1, 1); t += 86400 * 7 + 3671) {
      StructTmInTimezone ours(&zone);
      ASSERT_TRUE(ours.fromUnixTime(t));
      Str got;
      ours.appendFtime(got, format);
      const time_t tt = t;
      tm theirs;
      ASSERT_NE(nullptr, localtime_r(&tt, &theirs));
      char expect[128];
      ASSERT_GT(strftime(expect, sizeof expect, kFormat, &theirs), 0u);
      ASSERT_EQ(expect, got) << name << " " << t;
    }
  }
}

TEST(StructTmInTimezone, TimevalBreaksDownAndBackInAZone) {
  const Timezone zone = staged("Australia/Sydney");
  for (long t : {0L, 1700000000L, civilUtc(2024, 4, 6, 15, 59, 59), civilUtc(2024, 4, 6, 16, 0)}) {
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
