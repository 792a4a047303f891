#include <cstdio>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "util/DateTime.h"
#include "util/TimeFormat.h"
#include "util/testing/ScopedTz.h"

namespace {

// Every view renders a compiled format as the C library's strftime renders
// the same text over the same fields.
TEST(StructTmFormat, EachViewAgreesWithItsStrftime) {
  ScopedTz tz("America/Chicago");
  const char* const kShared[] = {"%Y-%m-%d %H:%M:%S %z", "%a %b %e %T %Z %Y", "%c",
                                 "%G-W%V-%u %j", "%I:%M %p"};
  std::mt19937_64 rng(5);
  for (int i = 0; i < 500; ++i) {
    const long t = std::uniform_int_distribution<long>(0, 32503679999L)(rng);
    GmtStructTm gmt;
    LocalStructTm local;
    LocalStructTmHires hires;
    StructTmInTimezone zoned(nullptr);  // no zone: the local view
    StructTmInTimezoneHires zonedHires(nullptr);
    ASSERT_TRUE(gmt.fromUnixTime(t) && local.fromUnixTime(t) && hires.fromUnixTime(t) &&
                zoned.fromUnixTime(t) && zonedHires.fromUnixTime(t));
    for (const char* text : kShared) {
      SCOPED_TRACE(testing::Message() << text << " " << t);
      const TimeFormat f(text);
      const auto render = [&f](const auto& view) {
        Str out;
        view.appendFtime(out, f);
        return out;
      };
      Str expectGmt, expectLocal;
      gmt.appendFtime(expectGmt, text);  // the C library's strftime
      local.appendFtime(expectLocal, text);
      EXPECT_EQ(expectGmt, render(gmt));
      EXPECT_EQ(expectLocal, render(local));
      EXPECT_EQ(expectLocal, render(hires));
      EXPECT_EQ(expectLocal, render(zoned));
      EXPECT_EQ(expectLocal, render(zonedHires));
    }
  }
}

TEST(StructTmFormat, HiresViewsRenderTheirMicroseconds) {
  const TimeFormat f("%S.%6N|%3N");
  for (uint64_t usec : {0ULL, 7ULL, 123456ULL, 999999ULL}) {
    char expected[32];
    std::snprintf(expected, sizeof expected, "05.%06llu|%03llu", static_cast<unsigned long long>(usec),
                  static_cast<unsigned long long>(usec / 1000));
    LocalStructTmHires hires;
    ASSERT_TRUE(hires.fromUnixTime(65));
    hires.microseconds = usec;
    StructTmInTimezoneHires zoned(nullptr);
    ASSERT_TRUE(zoned.fromUnixTime(65));
    zoned.microseconds = usec;
    Str a, b, plain;
    hires.appendFtime(a, f);
    zoned.appendFtime(b, f);
    EXPECT_EQ(expected, a) << usec;
    EXPECT_EQ(expected, b) << usec;
    LocalStructTm local;  // the plain views have no subseconds
    ASSERT_TRUE(local.fromUnixTime(65));
    local.appendFtime(plain, f);
    EXPECT_EQ("05.000000|000", plain);
  }
}

}  // namespace
