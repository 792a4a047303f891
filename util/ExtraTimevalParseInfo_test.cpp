#include "util/ExtraTimevalParseInfo.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <random>

#include "util/DateTime.h"
#include "util/Timeval.h"

// Event records store the fields in this order.
static_assert(offsetof(ExtraTimevalParseInfo, subsecDigits) <
              offsetof(ExtraTimevalParseInfo, timezoneKnown));
static_assert(offsetof(ExtraTimevalParseInfo, timezoneKnown) <
              offsetof(ExtraTimevalParseInfo, tzOffset));
static_assert(offsetof(ExtraTimevalParseInfo, tzOffset) < offsetof(ExtraTimevalParseInfo, year));
static_assert(offsetof(ExtraTimevalParseInfo, year) < offsetof(ExtraTimevalParseInfo, month));
static_assert(offsetof(ExtraTimevalParseInfo, month) < offsetof(ExtraTimevalParseInfo, mday));
static_assert(offsetof(ExtraTimevalParseInfo, mday) < offsetof(ExtraTimevalParseInfo, wday));
static_assert(offsetof(ExtraTimevalParseInfo, wday) < offsetof(ExtraTimevalParseInfo, hour));
static_assert(offsetof(ExtraTimevalParseInfo, hour) < offsetof(ExtraTimevalParseInfo, minute));
static_assert(offsetof(ExtraTimevalParseInfo, minute) < offsetof(ExtraTimevalParseInfo, second));

namespace {

void expectReading(const tm& want, const ExtraTimevalParseInfo& got) {
  EXPECT_EQ(want.tm_year + 1900, got.year);
  EXPECT_EQ(want.tm_mon, got.month);
  EXPECT_EQ(want.tm_mday, got.mday);
  EXPECT_EQ(want.tm_wday, got.wday);
  EXPECT_EQ(want.tm_hour, got.hour);
  EXPECT_EQ(want.tm_min, got.minute);
  EXPECT_EQ(want.tm_sec, got.second);
}

}  // namespace

TEST(ExtraTimevalParseInfo, FromGmtUnixtimeAgreesWithGmtimeR) {
  std::mt19937_64 rng(31);
  for (int i = 0; i < 5000; ++i) {
    const long t = static_cast<long>(rng() % 32535244800ULL) - 2000000000L;
    ExtraTimevalParseInfo info;
    info.subsecDigits = -3;
    info.timezoneKnown = false;
    info.tzOffset = 3600;
    info.fromGmtUnixtime(t);
    const time_t tt = t;
    tm want;
    ASSERT_NE(nullptr, gmtime_r(&tt, &want));
    SCOPED_TRACE(t);
    expectReading(want, info);
    EXPECT_EQ(-3, info.subsecDigits);  // left alone
    EXPECT_TRUE(info.timezoneKnown);
    EXPECT_EQ(0, info.tzOffset);
  }
}

TEST(ExtraTimevalParseInfo, FromGmtUnixtimeOfARefusedTimeReadsAsTheRangeEnd) {
  ExtraTimevalParseInfo info;
  info.fromGmtUnixtime(32535244800);
  EXPECT_EQ(9999, info.year);
  EXPECT_EQ(11, info.month);
  EXPECT_EQ(31, info.mday);
  EXPECT_EQ(5, info.wday);
  EXPECT_EQ(23, info.hour);
}

TEST(ExtraTimevalParseInfo, SetFromLocalReading) {
  const char* old = std::getenv("TZ");
  const std::string saved = old != nullptr ? old : "";
  setenv("TZ", "Asia/Kathmandu", 1);
  tzset();
  std::mt19937_64 rng(45);
  for (int i = 0; i < 2000; ++i) {
    const Timeval t(static_cast<int64_t>(rng() % 4000000000ULL), rng() % 1000000);
    LocalStructTmHires local;
    t.localtime(&local);
    ExtraTimevalParseInfo info;
    info.timezoneKnown = true;
    info.set(local);
    const time_t tt = t.tv_sec;
    tm want;
    ASSERT_NE(nullptr, localtime_r(&tt, &want));
    SCOPED_TRACE(t.tv_sec);
    expectReading(want, info);
    EXPECT_EQ(6, info.subsecDigits);
    EXPECT_FALSE(info.timezoneKnown);
    EXPECT_EQ(want.tm_gmtoff, info.tzOffset);
  }
  if (old != nullptr) {
    setenv("TZ", saved.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}
