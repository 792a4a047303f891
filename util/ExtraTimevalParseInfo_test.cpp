#include "util/ExtraTimevalParseInfo.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <ctime>
#include <random>
#include <string>

#include "util/DateTime.h"
#include "util/Timeval.h"
#include "util/testing/CivilTime.h"
#include "util/testing/ScopedTz.h"

namespace {

// Event records store the fields in this order.
using E = ExtraTimevalParseInfo;
static_assert(offsetof(E, subsecDigits) < offsetof(E, timezoneKnown) &&
              offsetof(E, timezoneKnown) < offsetof(E, tzOffset) &&
              offsetof(E, tzOffset) < offsetof(E, year) && offsetof(E, year) < offsetof(E, month) &&
              offsetof(E, month) < offsetof(E, mday) && offsetof(E, mday) < offsetof(E, wday) &&
              offsetof(E, wday) < offsetof(E, hour) && offsetof(E, hour) < offsetof(E, minute) &&
              offsetof(E, minute) < offsetof(E, second));

// The reading in civilFields' words; the record has no day of the year, so
// that field always reads 0.
std::string readingOf(const E& info) {
  tm t{};
  t.tm_year = info.year - 1900;
  t.tm_mon = info.month;
  t.tm_mday = info.mday;
  t.tm_wday = info.wday;
  t.tm_hour = info.hour;
  t.tm_min = info.minute;
  t.tm_sec = info.second;
  return civilFields(t);
}

std::string withoutYday(tm t) {
  t.tm_yday = 0;
  return civilFields(t);
}

TEST(ExtraTimevalParseInfo, FromGmtUnixtimeAgreesWithGmtimeR) {
  std::mt19937_64 rng(31);
  for (int i = 0; i < 5000; ++i) {
    const long t = static_cast<long>(rng() % 32535244800ULL) - 2000000000L;
    E info;
    info.subsecDigits = -3;
    info.timezoneKnown = false;
    info.tzOffset = 3600;
    info.fromGmtUnixtime(t);
    SCOPED_TRACE(t);
    EXPECT_EQ(withoutYday(utcFields(t)), readingOf(info));
    EXPECT_EQ(-3, info.subsecDigits);  // left alone
    EXPECT_TRUE(info.timezoneKnown);
    EXPECT_EQ(0, info.tzOffset);
  }
  E refused;  // reads as the end of the range
  refused.fromGmtUnixtime(32535244800);
  EXPECT_EQ("9999-12-31 23:59:59 wday 5 yday 0", readingOf(refused));
}

TEST(ExtraTimevalParseInfo, SetFromLocalReading) {
  ScopedTz tz("Asia/Kathmandu");
  std::mt19937_64 rng(45);
  for (int i = 0; i < 2000; ++i) {
    const Timeval t(static_cast<int64_t>(rng() % 4000000000ULL), rng() % 1000000);
    LocalStructTmHires local;
    t.localtime(&local);
    E info;
    info.timezoneKnown = true;
    info.set(local);
    const time_t tt = t.tv_sec;
    tm want;
    ASSERT_NE(nullptr, localtime_r(&tt, &want));
    SCOPED_TRACE(t.tv_sec);
    EXPECT_EQ(withoutYday(want), readingOf(info));
    EXPECT_EQ(6, info.subsecDigits);
    EXPECT_FALSE(info.timezoneKnown);
    EXPECT_EQ(want.tm_gmtoff, info.tzOffset);
  }
}

}  // namespace
