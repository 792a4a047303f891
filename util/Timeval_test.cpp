#include "util/Timeval.h"

#include <gtest/gtest.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "util/DateTime.h"
#include "util/TimeWarnings.h"
#include "util/testing/CivilTime.h"
#include "util/testing/LogCapture.h"
#include "util/testing/ScopedTz.h"

// How failures print a Timeval.
void PrintTo(const Timeval& t, std::ostream* os) {
  *os << "(" << t.tv_sec << ", " << t.tv_usec << ")";
}

namespace {

std::string show(const Timeval& t) {
  std::ostringstream os;
  PrintTo(t, &os);
  return os.str();
}

typedef __int128 Wide;
constexpr Wide USEC = 1000000;

// The instant as one exact count of microseconds: the oracle for arithmetic.
Wide totalUsec(const Timeval& t) { return Wide(t.tv_sec) * USEC + t.tv_usec; }

Timeval fromTotal(Wide total) {
  if (total > totalUsec(Timeval::max())) return Timeval::max();
  if (total < totalUsec(Timeval::min())) return Timeval::min();
  Wide sec = total / USEC, usec = total % USEC;
  if (usec < 0) usec += USEC, sec -= 1;
  return Timeval(static_cast<int64_t>(sec), static_cast<int64_t>(usec));
}

// All six operations by `amount` (the seconds taking its low 32 bits)
// against the exact count, saturated at both ends.
void expectArithmeticMatchesTheCount(const Timeval& start, unsigned long long amount) {
  SCOPED_TRACE(testing::Message() << show(start) << " by " << amount);
  const Wide at = totalUsec(start);
  const unsigned sec = static_cast<unsigned>(amount);
  Timeval t = start;
  t.addUsec(amount);
  EXPECT_EQ(fromTotal(at + Wide(amount)), t);
  t = start;
  t.subtractUsec(amount);
  EXPECT_EQ(fromTotal(at - Wide(amount)), t);
  t = start;
  t.addMsec(amount);
  EXPECT_EQ(fromTotal(at + Wide(amount) * 1000), t);
  t = start;
  t.subtractMsec(amount);
  EXPECT_EQ(fromTotal(at - Wide(amount) * 1000), t);
  t = start;
  t.addSec(sec);
  EXPECT_EQ(fromTotal(at + Wide(sec) * USEC), t);
  t = start;
  t.subtractSec(sec);
  EXPECT_EQ(fromTotal(at - Wide(sec) * USEC), t);
}

Timeval gFixedNow;
void fixedClock(Timeval* now) { *now = gFixedNow; }

int64_t randomSeconds(std::mt19937_64& rng) {
  switch (rng() % 4) {
    case 0: return INT64_MAX - static_cast<int64_t>(rng() % 3);
    case 1: return INT64_MIN + static_cast<int64_t>(rng() % 3);
    case 2: return static_cast<int64_t>(rng());
    default: return static_cast<int64_t>(rng() % 4000000000ULL) - 2000000000;
  }
}

unsigned long long randomAmount(std::mt19937_64& rng) {
  switch (rng() % 4) {
    case 0: return rng();
    case 1: return ULLONG_MAX - rng() % 3;
    case 2: return rng() % 3000000;
    default: return rng() >> (rng() % 64);
  }
}

}  // namespace

TEST(Timeval, SpecialValuesAndComparison) {
  EXPECT_EQ(INT64_MIN, Timeval::min().tv_sec);
  EXPECT_EQ(0, Timeval::min().tv_usec);
  EXPECT_EQ(INT64_MAX, Timeval::max().tv_sec);
  EXPECT_EQ(999999, Timeval::max().tv_usec);
  EXPECT_FALSE(Timeval(INT64_MAX, 999998).isMax());  // both fields count
  EXPECT_FALSE(Timeval(INT64_MIN, 1).isMin());
  const struct { Timeval a, b; bool less; bool equal; } kCases[] = {
      {{1, 0}, {2, 0}, true, false},
      {{1, 999999}, {2, 0}, true, false},  // seconds decide first
      {{2, 1}, {2, 0}, false, false}, {{2, 5}, {2, 5}, false, true},
      {Timeval::min(), {INT64_MIN, 1}, true, false}, {{-1, 999999}, {0, 0}, true, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << show(c.a) << " vs " << show(c.b));
    EXPECT_EQ(c.less, c.a < c.b);
    EXPECT_EQ(c.less || c.equal, c.a <= c.b);
    EXPECT_EQ(c.equal, c.a == c.b);
    EXPECT_EQ(!c.less && !c.equal, c.a > c.b);
  }
}

// Every pair of an edge start and an edge amount, then random pairs.
TEST(Timeval, ArithmeticMatchesExactCountWithSaturation) {
  const Timeval kStarts[] = {
      Timeval::max(), {INT64_MAX, 999998}, {INT64_MAX, 0}, {INT64_MAX - 1, 600000},
      {INT64_MAX - 1, 500000}, {INT64_MAX - 5, 0}, Timeval::min(), {INT64_MIN, 1},
      {INT64_MIN + 1, 0}, {10, 999999}, {10, 0}, {0, 600000}, {0, 100000}, {0, 0},
  };
  for (const Timeval& start : kStarts) {
    for (unsigned long long amount : {0ULL, 1ULL, 2ULL, 3ULL, 200ULL, 1000ULL, 1001ULL, 1500ULL,
                                      500000ULL, 1000000ULL, 1500000ULL, 4294967295ULL,
                                      ULLONG_MAX}) {
      expectArithmeticMatchesTheCount(start, amount);
    }
  }
  std::mt19937_64 rng(20240611);
  for (int i = 0; i < 20000; ++i) {
    const Timeval start(randomSeconds(rng), static_cast<int64_t>(rng() % 1000000));
    const unsigned long long amount = randomAmount(rng);
    expectArithmeticMatchesTheCount(start, amount);
    expectArithmeticMatchesTheCount(start, amount / 1000);
  }
}

TEST(TimevalDeathTest, UnnormalisedCarryAsserts) {
  EXPECT_DEATH(Timeval(0, 1500000).addUsec(600000), "_tv\\.tv_usec < 2000000");
  EXPECT_DEATH(Timeval(0, -500000).subtractUsec(600000), "_tv\\.tv_usec >= -1000000");
}

TEST(Timeval, DifferencesMatchExactCount) {
  const struct { Timeval a, b; int64_t usec; int64_t msec; double sec; } kCases[] = {
      {{5, 250000}, {7, 0}, -1750000, -1750, -1.75}, {{7, 0}, {5, 250000}, 1750000, 1750, 1.75},
      {{0, 500}, {0, 1000}, -500, -1, -0.0005},  // milliseconds floor
      {{3, 3}, {3, 3}, 0, 0, 0.0},
      {Timeval::max(), Timeval::min(), INT64_MAX, INT64_MAX, 1.8446744073709552e19},
      {Timeval::min(), Timeval::max(), INT64_MIN, INT64_MIN, -1.8446744073709552e19},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << show(c.a) << " - " << show(c.b));
    EXPECT_EQ(c.usec, Timeval::usecDifference(c.a, c.b));
    EXPECT_EQ(c.msec, Timeval::msecDifference(c.a, c.b));
    EXPECT_DOUBLE_EQ(c.sec, Timeval::secDifferenceAsDouble(c.a, c.b));
  }
  std::mt19937_64 rng(7);
  for (int i = 0; i < 10000; ++i) {
    const Timeval a(static_cast<int64_t>(rng() % 2000000000000ULL) - 1000000000000,
                    rng() % 1000000);
    const Timeval b(static_cast<int64_t>(rng() % 2000000000000ULL) - 1000000000000,
                    rng() % 1000000);
    const Wide diff = totalUsec(a) - totalUsec(b);
    Wide floorMs = diff / 1000;
    if (diff % 1000 < 0) floorMs -= 1;
    SCOPED_TRACE(testing::Message() << show(a) << " - " << show(b));
    EXPECT_EQ(static_cast<int64_t>(diff), Timeval::usecDifference(a, b));
    EXPECT_EQ(static_cast<int64_t>(floorMs), Timeval::msecDifference(a, b));
    EXPECT_NEAR(static_cast<double>(diff) / 1e6, Timeval::secDifferenceAsDouble(a, b), 1e-3);
  }
}

TEST(Timeval, SecondsToTicks) {
  const struct { double seconds; uint64_t ticks; } kCases[] = {
      {1.5, 1500000}, {0.0, 0}, {-1.0, 0}, {1e20, UINT64_MAX},
      {1e13, 10000000000000000000ULL},  // above 2^63 still exact
  };
  for (const auto& c : kCases) EXPECT_EQ(c.ticks, Timeval::secondsToTicks(c.seconds)) << c.seconds;
}

TEST(Timeval, SetToUnixTimeAcceptsDigitsAndFraction) {
  const struct { const char* text; int64_t sec; int64_t usec; } kCases[] = {
      {"12.", 12, 0},  // a bare dot is a zero fraction
      {"12", 12, 0}, {"0.5", 0, 500000}, {"1.000001", 1, 1}, {"007.25", 7, 250000},
      {"1.1234567899", 1, 123456},  // digits past the sixth add nothing
      {"9223372036854775807", INT64_MAX, 0},
  };
  for (const auto& c : kCases) {
    Timeval t(77, 77);
    EXPECT_TRUE(t.setToUnixTime(c.text)) << c.text;
    EXPECT_EQ(Timeval(c.sec, c.usec), t) << c.text;
  }
  for (const char* text : {"", "1.5x", ".5", "-1", "+1", " 1", "1 ", "1..2", "x", "1e5",
                           "9223372036854775808", "12.3.4"}) {
    Timeval t(77, 77);
    EXPECT_FALSE(t.setToUnixTime(text)) << text;
    EXPECT_EQ(Timeval(77, 77), t) << text;
  }
}

TEST(ConvertStringToMilliseconds, ReadsSecondsWithRoundedFraction) {
  const struct { const char* text; unsigned long long ms; unsigned long used; } kCases[] = {
      {"1.5", 1500, 3},
      {"  \t2", 2000, 4},        // blanks count in the consumed length
      {"1.2344", 1234, 6},
      {"1.2345", 1235, 6},       // rounds at the fourth digit
      {"1.23449", 1234, 7},      // the fifth digit is not seen
      {"0.9999", 1000, 6},
      {"0.0004", 1, 6},          // a non-zero fraction never gives 0
      {"0.00001", 1, 7}, {"0.0000", 0, 6}, {"0", 0, 1}, {"12.", 12000, 3}, {".25", 250, 3},
      {"3s", 3000, 1},           // stops at the first foreign byte
      {"18446744073709551616", ULLONG_MAX, 20},  // seconds overflow
      {"18446744073709552", ULLONG_MAX, 17},     // overflow only when scaled
      {"18446744073709551.615", 18446744073709551615ULL, 21},
  };
  for (const auto& c : kCases) {
    unsigned long long ms = 7;
    unsigned long used = 7;
    EXPECT_TRUE(convert_string_to_milliseconds(c.text, &ms, &used)) << c.text;
    EXPECT_EQ(c.ms, ms) << c.text;
    EXPECT_EQ(c.used, used) << c.text;
    EXPECT_TRUE(convert_string_to_milliseconds(c.text, &ms, nullptr)) << c.text;
  }
  for (const char* text : {"", "  ", ".", " .x", "x1", "-1"}) {  // no digits: nothing changes
    unsigned long long ms = 7;
    unsigned long used = 7;
    EXPECT_FALSE(convert_string_to_milliseconds(text, &ms, &used)) << text;
    EXPECT_EQ(7u, ms) << text;
    EXPECT_EQ(7u, used) << text;
  }
}

TEST(Timeval, SerializeWritesBase32From1601) {
  // strtoull with base 32 reads exactly the record's digit set.
  const int64_t kEpoch1601 = -11644473600;
  const struct { Timeval t; const char* text; } kCases[] = {
      {{0, 123}, "zNULLzTIMEzzzz"},  // zero seconds is no time
      {Timeval::min(), "zMINzTIMEzzzzz"}, {Timeval::max(), "zMAXzTIMEzzzzz"},
      {{kEpoch1601, 0}, "00000000000000"}, {{kEpoch1601 + 1, 1}, "000000010000V8"},
      {{kEpoch1601 + 0xffffffffff, 999999}, "VVVVVVVVTPLHGO"},
      {{kEpoch1601 + 0x10000000000, 0}, "VVVVVVVVTPLIFV"},  // clamped, 999999999 ns
      {{kEpoch1601 - 1, 0}, "VVVVVVVVTPLIFV"},              // before 1601 clamps too
      {{INT64_MAX, 0}, "VVVVVVVVTPLIFV"},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.text, std::string(c.t.serialize())) << show(c.t);
}

TEST(Timeval, SerializeResurrectRoundTripsToTheMicrosecond) {
  std::mt19937_64 rng(1601);
  const uint64_t maxSec = 0xffffffffffULL - 11644473600ULL;
  for (int i = 0; i < 20000; ++i) {
    const Timeval t(static_cast<int64_t>(1 + rng() % maxSec),
                    static_cast<int64_t>(rng() % 1000000));
    const Str text = t.serialize();
    SCOPED_TRACE(testing::Message() << show(t) << " " << text);
    ASSERT_EQ(14u, text.size());
    // An outside reading of the two fields.
    EXPECT_EQ(uint64_t(t.tv_sec) + 11644473600ULL,
              std::strtoull(text.substr(0, 8).c_str(), nullptr, 32));
    EXPECT_EQ(uint64_t(t.tv_usec) * 1000, std::strtoull(text.substr(8).c_str(), nullptr, 32));
    Timeval back;
    ASSERT_TRUE(back.resurrect(text));
    EXPECT_EQ(t, back);
    Str lower = text;
    for (char& ch : lower) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    Timeval fromLower;
    ASSERT_TRUE(fromLower.resurrect(lower));
    EXPECT_EQ(t, fromLower);
  }
}

TEST(Timeval, ResurrectEdgeValuesAndSpecialWords) {
  const struct { const char* text; Timeval want; } kCases[] = {
      {"00000000000000", Timeval::max()},  // 1601 lies before 1970
      {"0AR1147V000000", Timeval::max()},  // the last second before 1970
      {"0AR11480000000", Timeval()},       // 1970 itself
      {"0AR11481TPLIFV", {1, 999999}},     // 999999999 ns rounds, capped in the second
      {"0AR1148100000V", {1, 0}},          // 31 ns round down
      {"0AR11481000100", {1, 1}},          // 1024 ns: (1024 + 500) / 1000
      // The special words in any case.
      {"zNULLzTIMEzzzz", Timeval()}, {"ZNULLZTIMEZZZZ", Timeval()}, {"znullztimezzzz", Timeval()},
      {"zMINzTIMEzzzzz", Timeval::min()}, {"ZmInZtImEzZzZz", Timeval::min()},
      {"zMAXzTIMEzzzzz", Timeval::max()}, {"zmaxzTimeZZZZZ", Timeval::max()},
  };
  for (const auto& c : kCases) {
    Timeval t(5, 5);
    EXPECT_TRUE(t.resurrect(Str(c.text))) << c.text;
    EXPECT_EQ(c.want, t) << c.text;
  }
}

TEST(Timeval, ResurrectRejectsMalformedAndLeavesValueAlone) {
  const Str kBad[] = {
      "", "0AR1148100000", "0AR114810000000",  // 13 and 15 characters
      "0AR11481W00000", "0AR11481w00000",      // W is past V
      "0AR11481TPLIG0",                        // 1000000000 ns
      "0AR11481VVVVVV", "0AR11481-00000", Str("0AR11481\0" "00000", 14),
      "zNULLzTIMEzzz", "zNULLzTIMEzzzzz", "zNULLzTIMEzzzy", "zZZZZZZZZZZZZZ",
  };
  for (const Str& text : kBad) {
    Timeval t(5, 5);
    EXPECT_FALSE(t.resurrect(text)) << text;
    EXPECT_EQ(Timeval(5, 5), t) << text;
  }
}

TEST(Timeval, RenderSubsecondsWritesExactlyN) {
  const struct { int64_t usec; unsigned long n; const char* text; } kCases[] = {
      {123456, 3, "123"}, {123456, 6, "123456"}, {123456, 8, "12345600"}, {5000, 3, "005"},
      {0, 1, "0"}, {999999, 0, ""},
      {-3, 2, "00"},        // out of range renders as its bound
      {1000000, 7, "9999990"},
  };
  for (const auto& c : kCases) {
    char buffer[16];
    std::memset(buffer, 'x', sizeof buffer);
    Timeval(9, c.usec).renderSubseconds(buffer, c.n);
    EXPECT_EQ(c.text, std::string(buffer, c.n)) << c.usec << "/" << c.n;
    EXPECT_EQ('x', buffer[c.n]) << "no terminator after " << c.n;
  }
}

TEST(Timeval, RenderUnixTimeAppends) {
  const struct { Timeval t; unsigned long digits; const char* text; } kCases[] = {
      {{12, 345000}, 4, "<12.3450"}, {{12, 345000}, 0, "<12"},
      {{1700000000, 7}, 6, "<1700000000.000007"}, {{-5, 0}, 2, "<-5.00"},
  };
  for (const auto& c : kCases) {
    Str out("<");
    c.t.renderUnixTime(out, c.digits);
    EXPECT_EQ(c.text, std::string(out));
  }
}

TEST(Timeval, EncodedSubsecondsFollowsTheRenderedDigits) {
  const struct { int64_t usec; unsigned long digits; uint64_t code; } kCases[] = {
      {999999, 0, 1}, {1500, 4, 124} /* ".0015" */, {0, 9, 512} /* nine zero digits */,
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.code, Timeval(1, c.usec).encodedSubseconds(c.digits)) << c.usec << "/" << c.digits;
  }
  // The encoding restated over the text renderSubseconds gives: z leading
  // zeros and the rest read by strtoull.
  std::mt19937_64 rng(44);
  for (int i = 0; i < 20000; ++i) {
    const int64_t usec = (rng() % 3 == 0) ? static_cast<int64_t>(rng() % 1000) * 1000
                                          : static_cast<int64_t>(rng() % 1000000);
    const unsigned long digits = 1 + rng() % 12;
    char text[16];
    Timeval(0, usec).renderSubseconds(text, digits);
    text[digits] = '\0';
    const size_t zeros = std::strspn(text, "0");
    const uint64_t code = Timeval(0, usec).encodedSubseconds(digits);
    SCOPED_TRACE(testing::Message() << text << " code " << code);
    if (zeros == digits) {
      EXPECT_EQ(uint64_t{1} << digits, code);
    } else {
      const uint64_t v = std::strtoull(text + zeros, nullptr, 10);
      EXPECT_EQ((2 * v + 1) << zeros, code);
      EXPECT_EQ(zeros, static_cast<size_t>(__builtin_ctzll(code)));  // the lowest set bit
    }
  }
}

TEST(Timeval, DescribeDifferenceChoosesUnitAndPrecision) {
  const struct { Timeval a, b; const char* text; } kCases[] = {
      {{5, 0}, {5, 0}, "0 microseconds"},
      {{5, 1}, {5, 0}, "1 microsecond"},   // no plural for one
      {{5, 0}, {5, 1}, "-1 microsecond"}, {{5, 3000}, {5, 0}, "3000 microseconds"},
      {{5, 4000}, {5, 0}, "4 milliseconds"},  // both on whole milliseconds
      {{5, 3001}, {5, 0}, "3.001 milliseconds"}, {{5, 500}, {5, 4500}, "-4.000 milliseconds"},
      {{5, 9949}, {5, 0}, "9.949 milliseconds"},
      {{5, 9950}, {5, 0}, " 9.95 milliseconds"},  // 9.95 takes 2 decimals
      {{5, 99499}, {5, 0}, "99.50 milliseconds"},
      {{5, 99501}, {5, 0}, " 99.5 milliseconds"},  // 99.5 takes 1 decimal
      {{5, 999000}, {5, 0}, "999 milliseconds"}, {{8, 1}, {5, 0}, "3.000 seconds"},
      {{0, 0}, {12, 500000}, "-12.50 seconds"}, {{150, 0}, {0, 0}, "150.0 seconds"},
      {{8000, 0}, {0, 0}, "8000.0 seconds"},  // exactly 8000000000 us is not over
      {{8000, 1}, {0, 0}, "2.222 hours"}, {{36000, 0}, {0, 0}, "10.00 hours"},
      {{360000, 0}, {0, 0}, "100.0 hours"}, {Timeval::max(), Timeval::min(), "5124095576.0 hours"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.text, std::string(Timeval::describeDifference(c.a, c.b)))
        << show(c.a) << " - " << show(c.b);
  }
}

TEST(Timeval, SnapSecondAndMillisecond) {
  const struct { Timeval t; unsigned span; Timeval want; } kSeconds[] = {
      {{125, 999999}, 1, {125, 0}},  // span 1 only clears the microseconds
      {{125, 5}, 0, {125, 0}}, {{125, 5}, 60, {120, 0}}, {{120, 5}, 60, {120, 0}},
      {{-1, 5}, 60, {-60, 0}},       // down, toward minus infinity
      {{INT64_MIN + 1, 0}, 3, {INT64_MIN, 0}},
  }, kMillis[] = {
      {{7, 123456}, 10, {7, 120000}}, {{7, 123456}, 1, {7, 123000}}, {{7, 123456}, 0, {7, 123000}},
      {{7, 999999}, 999, {7, 999000}}, {{7, 998999}, 999, {7, 0}},
  };
  for (const auto& c : kSeconds) {
    Timeval t = c.t;
    t.snapSecond(c.span);
    EXPECT_EQ(c.want, t) << show(c.t) << " span " << c.span;
  }
  for (const auto& c : kMillis) {
    Timeval t = c.t;
    t.snapMillisecond(c.span);
    EXPECT_EQ(c.want, t) << show(c.t) << " span " << c.span;
  }
}

TEST(Timeval, AsctimeSpecialWordsFirst) {
  ScopedTz tz("UTC");
  EXPECT_EQ("MAX_TIME", std::string(Timeval::max().asctime()));
  EXPECT_EQ("MIN_TIME", std::string(Timeval::min().asctime()));
  EXPECT_EQ("ZERO_TIME", std::string(Timeval(0, 0).asctime()));
  EXPECT_EQ("ZERO_TIME", std::string(Timeval(0, 500000).asctime()));  // never the 1970 date
  EXPECT_EQ("Thu Jan  1 00:00:01 1970", std::string(Timeval(1, 0).asctime()));
  EXPECT_EQ("INVALID_TIME (32535244800)", std::string(Timeval(32535244800, 0).asctime()));
}

TEST(Timeval, AsctimeMatchesTheCLibraryLocally) {
  ScopedTz tz("America/New_York");
  std::mt19937_64 rng(99);
  for (int i = 0; i < 2000; ++i) {
    const time_t t = static_cast<time_t>(rng() % 32535244799ULL) + 1;
    tm broken;
    char buffer[64];
    ASSERT_NE(nullptr, localtime_r(&t, &broken));
    ASSERT_NE(nullptr, asctime_r(&broken, buffer));
    EXPECT_EQ(std::string(buffer, 24), std::string(Timeval(t, 0).asctime())) << t;
  }
}

TEST(Timeval, GmtimeRefusesPastTheYear3000Edge) {
  GmtStructTm out;
  ASSERT_TRUE(Timeval(32535244799, 0).gmtime(&out));
  EXPECT_EQ(civilFields(utcFields(32535244799)), civilFields(out));
  out.tm_year = 42;
  EXPECT_FALSE(Timeval(32535244800, 0).gmtime(&out));
  EXPECT_EQ(42, out.tm_year);
}

TEST(Timeval, LocaltimeClampsRefusedTimesAndWarns) {
  ScopedTz tz("Asia/Kolkata");
  ScopedLogCapture capture(TIME_WARNING_CHANNEL);
  LocalStructTmHires high;
  Timeval(32535244800, 5).localtime(&high);
  EXPECT_EQ("9999-12-31 23:59:59 wday 5 yday 364", civilFields(high));
  EXPECT_EQ(-1, high.tm_isdst);
  EXPECT_EQ(999999u, high.microseconds);
  EXPECT_EQ(19800, high.tm_gmtoff);  // set up from time 0 in the zone

  LocalStructTmHires low;
  low.microseconds = 7;
  Timeval::min().localtime(&low);
  EXPECT_EQ("1900-01-01 00:00:00 wday 1 yday 0", civilFields(low));
  EXPECT_EQ(-1, low.tm_isdst);
  EXPECT_EQ(0u, low.microseconds);

  StructTmInTimezoneHires zoned;
  Timeval(40000000000, 0).localtime(&zoned);
  EXPECT_EQ(8099, zoned.tm_year);
  EXPECT_EQ(999999u, zoned.microseconds);
  EXPECT_EQ(std::vector<std::string>({
                "WARN LocalStructTm::fromUnixTime(32535244800) failed!",
                "WARN LocalStructTm::fromUnixTime(-9223372036854775808) failed!",
                "WARN StructTmInTimezone::fromUnixTime(40000000000) failed!"}),
            capture.lines());
}

TEST(Timeval, LocaltimeAndSetRoundTrip) {
  ScopedTz tz("Australia/Lord_Howe");
  ScopedLogCapture capture(TIME_WARNING_CHANNEL);
  std::mt19937_64 rng(5);
  for (int i = 0; i < 3000; ++i) {
    const Timeval t(static_cast<int64_t>(rng() % 8000000000ULL) - 2000000000, rng() % 1000000);
    SCOPED_TRACE(show(t));
    const time_t tt = t.tv_sec;
    tm want;
    ASSERT_NE(nullptr, localtime_r(&tt, &want));
    LocalStructTmHires local;
    t.localtime(&local);
    EXPECT_EQ(civilFieldsAndZone(want), civilFieldsAndZone(local));
    EXPECT_EQ(uint64_t(t.tv_usec), local.microseconds);
    StructTmInTimezoneHires zoned;
    t.localtime(&zoned);
    EXPECT_EQ(civilFieldsAndZone(want), civilFieldsAndZone(zoned));
    GmtStructTm gmt;
    ASSERT_TRUE(t.gmtime(&gmt));
    if (t.tv_sec == -1) continue;  // -1 reads back as a failure
    Timeval back;
    ASSERT_TRUE(back.set(local));
    EXPECT_EQ(t, back);
    ASSERT_TRUE(back.set(gmt));
    EXPECT_EQ(Timeval(t.tv_sec, 0), back);
  }
  EXPECT_TRUE(capture.lines().empty());
}

TEST(Timeval, SetFailureSaturatesByYearAndWarns) {
  ScopedLogCapture capture(TIME_WARNING_CHANNEL);
  GmtStructTm lastSecondOf1969;
  static_cast<tm&>(lastSecondOf1969) = utcFields(-1);
  Timeval t(5, 5);
  EXPECT_FALSE(t.set(lastSecondOf1969));  // -1 always counts as failure
  EXPECT_TRUE(t.isMin());
  ASSERT_EQ(1u, capture.lines().size());
  EXPECT_EQ("WARN GmtStructTm::toUnixTime(1969-12-31 23:59:59) failed!", capture.lines()[0]);

  LocalStructTm farFuture;
  farFuture.tm_year = INT_MAX;
  farFuture.tm_mon = INT_MAX;  // past what mktime can normalise
  farFuture.tm_mday = INT_MAX;
  farFuture.tm_isdst = -1;
  EXPECT_FALSE(t.set(farFuture));
  EXPECT_TRUE(t.isMax());
  ASSERT_EQ(2u, capture.lines().size());
  EXPECT_EQ(0u, capture.lines()[1].find("WARN LocalStructTm::toUnixTime(")) << capture.lines()[1];
}

TEST(Timeval, ClockSeamFixesNow) {
  gFixedNow = Timeval(1234567890, 654321);
  const TimevalClock previous = setTimevalClock(&fixedClock);
  EXPECT_EQ(gFixedNow, Timeval::now());
  EXPECT_EQ(gFixedNow, CurrentTimeval());
  Timeval t;
  t.setToNow();
  EXPECT_EQ(gFixedNow, t);
  {
    ScopedTz tz("UTC");
    LocalStructTmHires local;
    local.setToNow();
    EXPECT_EQ(654321u, local.microseconds);
    EXPECT_EQ(109, local.tm_year);  // 2009-02-13 23:31:30
    EXPECT_EQ(31, local.tm_min);
    GmtStructTm gmt;
    gmt.setToNow();
    EXPECT_EQ(13, gmt.tm_mday);
  }
  setTimevalClock(previous);
  EXPECT_NE(gFixedNow, Timeval::now());
  CurrentTimeval assigned;
  assigned = gFixedNow;
  EXPECT_EQ(gFixedNow, assigned);
}
