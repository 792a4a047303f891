// Numeric and boolean conversions of Str and StrSegment, checked against the
// C library's strtol family where it can serve as the oracle.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "util/Str.h"
#include "util/StrSegment.h"

namespace {

TEST(StrConvertSigned, AcceptedShapes) {
  const struct { const char* text; int base; long value; } kCases[] = {
      {"0", 10, 0},
      {"-5", 10, -5},
      {"+7", 10, 7},
      {" 12", 10, 12},          // leading white space is the C library's to skip
      {"\t\n\v\f\r 3", 10, 3},
      {"  -42", 10, -42},
      {"9223372036854775807", 10, LONG_MAX},
      {"-9223372036854775808", 10, LONG_MIN},
      {"ff", 16, 255},
      {"0x1F", 16, 31},
      {"-0x10", 16, -16},
      {"777", 8, 511},
      {"0x10", 0, 16},
      {"010", 0, 8},   // base 0: a leading zero is octal
      {"10", 0, 10},
      {"z", 36, 35},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.text) + " base " + std::to_string(c.base));
    long l = 1;
    EXPECT_TRUE(Str(c.text).tryToLong(l, c.base));
    EXPECT_EQ(c.value, l);
    long long ll = 1;
    EXPECT_TRUE(Str(c.text).tryToLongLong(ll, c.base));
    EXPECT_EQ(c.value, ll);
    EXPECT_EQ(c.value, Str(c.text).toLong(99, c.base));
    EXPECT_EQ(c.value, Str(c.text).toLongLong(99, c.base));
    EXPECT_EQ(c.value, StrSegment(c.text).toLong(99, c.base));
  }
}

TEST(StrConvertSigned, RejectsAndHasAlreadyStoredTheResult) {
  const struct { const char* text; int base; long stored; } kCases[] = {
      {"", 10, 0},
      {" ", 10, 0},
      {"-", 10, 0},
      {"abc", 10, 0},
      {"12 ", 10, 12},  // a trailing blank is trailing garbage
      {"12a", 10, 12},
      {"1 2", 10, 1},
      {"9223372036854775808", 10, LONG_MAX},   // overflow at the top
      {"-9223372036854775809", 10, LONG_MIN},  // and at the bottom
      {"99999999999999999999999", 10, LONG_MAX},
      {"8", 8, 0},      // nothing consumed in base 8
      {"09", 0, 0},     // octal stops at the 9
      {"0x", 16, 0},
      {"1.5", 10, 1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.text) + " base " + std::to_string(c.base));
    long l = 777;
    EXPECT_FALSE(Str(c.text).tryToLong(l, c.base));
    EXPECT_EQ(c.stored, l);
    long long ll = 777;
    EXPECT_FALSE(Str(c.text).tryToLongLong(ll, c.base));
    EXPECT_EQ(c.stored, ll);
    EXPECT_EQ(-3, Str(c.text).toLong(-3, c.base));
    EXPECT_EQ(-3, Str(c.text).toLongLong(-3, c.base));
    EXPECT_EQ(-3, StrSegment(c.text).toLongLong(-3, c.base));
  }
}

TEST(StrConvertSigned, ClearsErrnoBeforeConverting) {
  // The extreme value is refused only when this call raised ERANGE.
  long l = 0;
  errno = ERANGE;
  EXPECT_TRUE(Str("9223372036854775807").tryToLong(l));
  EXPECT_EQ(LONG_MAX, l);
  unsigned long ul = 0;
  errno = ERANGE;
  EXPECT_TRUE(Str("18446744073709551615").tryToUnsignedLong(ul));
  EXPECT_EQ(ULONG_MAX, ul);
  double d = 0;
  errno = ERANGE;
  EXPECT_TRUE(Str("1.5").tryToDouble(d));
  EXPECT_EQ(1.5, d);
}

TEST(StrConvertInt, ThirtyTwoBitLimitsWriteOnlyOnSuccess) {
  const struct { const char* text; int base; bool ok; int value; } kCases[] = {
      {"2147483647", 10, true, INT_MAX},
      {"-2147483648", 10, true, INT_MIN},
      {"2147483648", 10, false, 0},
      {"-2147483649", 10, false, 0},
      {"9223372036854775808", 10, false, 0},
      {"-5", 10, true, -5},
      {" 12", 10, true, 12},
      {"12 ", 10, false, 0},
      {"", 10, false, 0},
      {"7fffffff", 16, true, INT_MAX},
      {"80000000", 16, false, 0},
      {"-0x80000000", 0, true, INT_MIN},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.text) + " base " + std::to_string(c.base));
    int out = 777;
    EXPECT_EQ(c.ok, Str(c.text).tryToInt(out, c.base));
    EXPECT_EQ(c.ok ? c.value : 777, out);
    int segOut = 777;
    EXPECT_EQ(c.ok, StrSegment(c.text).tryToInt(segOut, c.base));
    EXPECT_EQ(c.ok ? c.value : 777, segOut);
    EXPECT_EQ(c.ok ? c.value : -9, Str(c.text).toInt(-9, c.base));
    EXPECT_EQ(c.ok ? c.value : -9, StrSegment(c.text).toInt(-9, c.base));
  }
  // Through tryToLong, the 2^31 that int refuses is fine.
  long l = 0;
  EXPECT_TRUE(Str("2147483648").tryToLong(l));
  EXPECT_EQ(2147483648L, l);
}

TEST(StrConvertUnsigned, AcceptedShapes) {
  const struct { const char* text; int base; unsigned long long value; } kCases[] = {
      {"0", 10, 0},
      {"+5", 10, 5},
      {" 12", 10, 12},
      {"4294967295", 10, 4294967295ull},
      {"4294967296", 10, 4294967296ull},
      {"18446744073709551615", 10, ULLONG_MAX},
      {"ffffffffffffffff", 16, ULLONG_MAX},
      {"0XFF", 16, 255},
      {"17", 8, 15},
      {"0x10", 0, 16},
      {"010", 0, 8},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.text) + " base " + std::to_string(c.base));
    unsigned long ul = 1;
    EXPECT_TRUE(Str(c.text).tryToUnsignedLong(ul, c.base));
    EXPECT_EQ(c.value, ul);
    unsigned long long ull = 1;
    EXPECT_TRUE(Str(c.text).tryToUnsignedLongLong(ull, c.base));
    EXPECT_EQ(c.value, ull);
    size_t sz = 1;
    EXPECT_TRUE(Str(c.text).tryToSizet(sz, c.base));
    EXPECT_EQ(c.value, sz);
    EXPECT_EQ(c.value, Str(c.text).toUnsignedLong(3, c.base));
    EXPECT_EQ(c.value, Str(c.text).toUnsignedLongLong(3, c.base));
    EXPECT_EQ(c.value, Str(c.text).toSizet(3, c.base));
    EXPECT_EQ(c.value, StrSegment(c.text).toSizet(3, c.base));
  }
}

TEST(StrConvertUnsigned, LeadingMinusFailsWithoutWriting) {
  // The C library would wrap these to huge values.
  for (const char* text : {"-5", "  -5", "\t\n-5", "-0", "-", "-18446744073709551615", " -x"}) {
    SCOPED_TRACE(text);
    unsigned long ul = 777;
    EXPECT_FALSE(Str(text).tryToUnsignedLong(ul));
    EXPECT_EQ(777u, ul);
    unsigned long long ull = 777;
    EXPECT_FALSE(Str(text).tryToUnsignedLongLong(ull));
    EXPECT_EQ(777u, ull);
    unsigned u = 777;
    EXPECT_FALSE(Str(text).tryToUnsigned(u));
    EXPECT_EQ(777u, u);
    size_t sz = 777;
    EXPECT_FALSE(Str(text).tryToSizet(sz));
    EXPECT_EQ(777u, sz);
    EXPECT_EQ(4u, Str(text).toUnsigned(4));
    EXPECT_EQ(4u, StrSegment(text).toUnsignedLong(4));
  }
  // Signed targets take the minus as a sign.
  int i = 0;
  EXPECT_TRUE(Str("-5").tryToInt(i));
  EXPECT_EQ(-5, i);
}

TEST(StrConvertUnsigned, RejectsAndHasAlreadyStoredTheResult) {
  const struct { const char* text; int base; unsigned long long stored; } kCases[] = {
      {"", 10, 0},
      {"12 ", 10, 12},
      {"12x", 10, 12},
      {"18446744073709551616", 10, ULLONG_MAX},  // overflow
      {"+", 10, 0},
      {"9", 8, 0},
      {"0x", 16, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.text) + " base " + std::to_string(c.base));
    unsigned long ul = 777;
    EXPECT_FALSE(Str(c.text).tryToUnsignedLong(ul, c.base));
    EXPECT_EQ(c.stored, ul);
    unsigned long long ull = 777;
    EXPECT_FALSE(Str(c.text).tryToUnsignedLongLong(ull, c.base));
    EXPECT_EQ(c.stored, ull);
    size_t sz = 777;  // the size form writes only on success
    EXPECT_FALSE(Str(c.text).tryToSizet(sz, c.base));
    EXPECT_EQ(777u, sz);
    EXPECT_EQ(5u, Str(c.text).toUnsignedLongLong(5, c.base));
  }
}

TEST(StrConvertUnsigned, ThirtyTwoBitLimitsWriteOnlyOnSuccess) {
  const struct { const char* text; int base; bool ok; unsigned value; } kCases[] = {
      {"4294967295", 10, true, 4294967295u},
      {"4294967296", 10, false, 0},
      {"18446744073709551616", 10, false, 0},
      {"0", 10, true, 0},
      {" 7", 10, true, 7},
      {"7 ", 10, false, 0},
      {"ffffffff", 16, true, 4294967295u},
      {"100000000", 16, false, 0},
      {"037777777777", 0, true, 4294967295u},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.text) + " base " + std::to_string(c.base));
    unsigned out = 777;
    EXPECT_EQ(c.ok, Str(c.text).tryToUnsigned(out, c.base));
    EXPECT_EQ(c.ok ? c.value : 777u, out);
    unsigned segOut = 777;
    EXPECT_EQ(c.ok, StrSegment(c.text).tryToUnsigned(segOut, c.base));
    EXPECT_EQ(c.ok ? c.value : 777u, segOut);
    EXPECT_EQ(c.ok ? c.value : 9u, Str(c.text).toUnsigned(9, c.base));
  }
}

TEST(StrConvert, EmbeddedNulEndsTheNumber) {
  // Parsing stops at a NUL byte, and a NUL where it stops is no garbage.
  const Str text(std::string("12\0x", 4));
  long l = 0;
  EXPECT_TRUE(text.tryToLong(l));
  EXPECT_EQ(12, l);
}

// Random strings near the numeric grammar, against strtol & co. applied
// step by step.
std::string randomNumberish(std::mt19937& rng) {
  static const char kAlphabet[] = " \t+-0123456789012345678901234567890123456789xaf";
  std::string s;
  const int n = rng() % 24;
  for (int i = 0; i < n; ++i) s.push_back(kAlphabet[rng() % (sizeof kAlphabet - 1)]);
  if (rng() % 2) {  // mostly well formed, so that successes are common
    s.erase(std::remove_if(s.begin(), s.end(), [](char ch) { return !isdigit(ch); }), s.end());
    if (rng() % 3 == 0) s.insert(0, "-");
    if (rng() % 4 == 0) s.insert(0, " ");
  }
  return s;
}

bool startsWithMinusAfterSpace(const std::string& s) {
  size_t i = 0;
  while (i < s.size() && isspace(static_cast<unsigned char>(s[i]))) ++i;
  return i < s.size() && s[i] == '-';
}

TEST(StrConvert, IntegersAgreeWithStrtolFamily) {
  std::mt19937 rng(11);
  const int kBases[] = {10, 10, 16, 8, 0};
  for (int iter = 0; iter < 20000; ++iter) {
    const std::string s = randomNumberish(rng);
    const int base = kBases[rng() % 5];
    SCOPED_TRACE("\"" + s + "\" base " + std::to_string(base));
    const Str str(s);
    char* end = nullptr;

    errno = 0;
    const long lv = strtol(s.c_str(), &end, base);
    const bool lok = !(errno == ERANGE && (lv == LONG_MAX || lv == LONG_MIN)) &&
                     end != s.c_str() && *end == '\0';
    long l = 777;
    ASSERT_EQ(lok, str.tryToLong(l, base));
    ASSERT_EQ(lv, l);

    errno = 0;
    const long long llv = strtoll(s.c_str(), &end, base);
    long long ll = 777;
    ASSERT_EQ(lok, str.tryToLongLong(ll, base));
    ASSERT_EQ(llv, ll);

    int i = 777;
    const bool iok = lok && lv >= INT_MIN && lv <= INT_MAX;
    ASSERT_EQ(iok, str.tryToInt(i, base));
    ASSERT_EQ(iok ? static_cast<int>(lv) : 777, i);

    const bool minus = startsWithMinusAfterSpace(s);
    errno = 0;
    const unsigned long ulv = strtoul(s.c_str(), &end, base);
    const bool ulok = !minus && !(errno == ERANGE && ulv == ULONG_MAX) &&
                      end != s.c_str() && *end == '\0';
    unsigned long ul = 777;
    ASSERT_EQ(ulok, str.tryToUnsignedLong(ul, base));
    ASSERT_EQ(minus ? 777ul : ulv, ul);

    errno = 0;
    const unsigned long long ullv = strtoull(s.c_str(), &end, base);
    unsigned long long ull = 777;
    ASSERT_EQ(ulok, str.tryToUnsignedLongLong(ull, base));
    ASSERT_EQ(minus ? 777ull : ullv, ull);

    unsigned u = 777;
    const bool uok = ulok && ulv <= UINT_MAX;
    ASSERT_EQ(uok, str.tryToUnsigned(u, base));
    ASSERT_EQ(uok ? static_cast<unsigned>(ulv) : 777u, u);

    size_t sz = 777;
    ASSERT_EQ(ulok, str.tryToSizet(sz, base));
    ASSERT_EQ(ulok ? ullv : 777u, sz);

    // The segment forms read only their own bytes: an unterminated view of
    // the text followed by more digits must give the same answers.
    const std::string padded = s + "987";
    const StrSegment seg(padded.data(), s.size());
    long sl = 777;
    ASSERT_EQ(lok, seg.tryToLong(sl, base));
    ASSERT_EQ(lv, sl);
    ASSERT_EQ(uok ? static_cast<unsigned>(ulv) : 5u, seg.toUnsigned(5, base));
    ASSERT_EQ(iok ? static_cast<int>(lv) : 5, seg.toInt(5, base));
  }
}

TEST(StrConvert, SegmentsNeedNoTerminator) {
  const StrSegment seg("123456", 3);
  int i = 0;
  EXPECT_TRUE(seg.tryToInt(i));
  EXPECT_EQ(123, i);
  unsigned u = 0;
  EXPECT_TRUE(seg.tryToUnsigned(u));
  EXPECT_EQ(123u, u);
  long l = 0;
  EXPECT_TRUE(seg.tryToLong(l));
  EXPECT_EQ(123, l);
  unsigned long ul = 0;
  EXPECT_TRUE(seg.tryToUnsignedLong(ul));
  EXPECT_EQ(123u, ul);
  long long ll = 0;
  EXPECT_TRUE(seg.tryToLongLong(ll));
  EXPECT_EQ(123, ll);
  unsigned long long ull = 0;
  EXPECT_TRUE(seg.tryToUnsignedLongLong(ull));
  EXPECT_EQ(123u, ull);
  size_t sz = 0;
  EXPECT_TRUE(seg.tryToSizet(sz));
  EXPECT_EQ(123u, sz);
  double d = 0;
  EXPECT_TRUE(StrSegment("1.5e3xyz", 5).tryToDouble(d));
  EXPECT_EQ(1500.0, d);
  EXPECT_EQ(2.5, StrSegment("2.5 ", 3).toDouble(0));
  bool b = false;
  EXPECT_TRUE(StrSegment("truex", 4).tryToBool(b));
  EXPECT_TRUE(b);
  EXPECT_FALSE(StrSegment("0123", 1).toBool(true, true));
  // A trailing blank outside the view does not count; inside it does.
  EXPECT_EQ(12, StrSegment("12 ", 2).toInt(-1));
  EXPECT_EQ(-1, StrSegment("12 ", 3).toInt(-1));
}

TEST(StrConvertDouble, AcceptedShapes) {
  const struct { const char* text; double value; } kCases[] = {
      {"0", 0.0},
      {"-0", -0.0},
      {"1e5", 1e5},
      {"0x10", 16.0},  // strtod's own hexadecimal form after a leading digit
      {"-2.5", -2.5},
      {"1.", 1.0},
      {"123.456e-2", 1.23456},
      {"1E+2", 100.0},
      {"1.7976931348623157e308", std::numeric_limits<double>::max()},
      {"2.2250738585072014e-308", std::numeric_limits<double>::min()},
      {"-inf", -std::numeric_limits<double>::infinity()},  // only the first byte is vetted
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    double d = 777;
    EXPECT_TRUE(Str(c.text).tryToDouble(d));
    EXPECT_EQ(c.value, d);
    EXPECT_EQ(std::signbit(c.value), std::signbit(d));
    EXPECT_EQ(c.value, Str(c.text).toDouble(9.5));
    EXPECT_EQ(c.value, StrSegment(c.text).toDouble(9.5));
  }
}

TEST(StrConvertDouble, RefusedBeforeConversionLeaveTarget) {
  // Empty text, or a first byte that is neither a digit nor "-".
  for (const char* text : {"", "+1", ".5", " 1", "\t1", "inf", "nan", "INF", "e5", "x"}) {
    SCOPED_TRACE(text);
    double d = 777;
    EXPECT_FALSE(Str(text).tryToDouble(d));
    EXPECT_EQ(777, d);
    EXPECT_EQ(9.5, Str(text).toDouble(9.5));
    EXPECT_EQ(9.5, StrSegment(text).toDouble(9.5));
  }
}

TEST(StrConvertDouble, RefusedAfterConversionHaveStoredTheResult) {
  const struct { const char* text; double stored; } kCases[] = {
      {"-", 0.0},
      {"--1", 0.0},
      {"1.5x", 1.5},
      {"1 ", 1.0},
      {"1e", 1.0},
      {"0x", 0.0},
      {"1e-400", 0.0},  // underflow sets errno
      {"1e400", HUGE_VAL},
      {"-1e400", -HUGE_VAL},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    double d = 777;
    EXPECT_FALSE(Str(c.text).tryToDouble(d));
    EXPECT_EQ(c.stored, d);
    EXPECT_EQ(9.5, Str(c.text).toDouble(9.5));
  }
}

TEST(StrConvertDouble, AgreesWithStrtod) {
  std::mt19937 rng(12);
  static const char kAlphabet[] = "0123456789..--+eE x";
  for (int iter = 0; iter < 20000; ++iter) {
    std::string s;
    const int n = rng() % 10;
    for (int i = 0; i < n; ++i) s.push_back(kAlphabet[rng() % (sizeof kAlphabet - 1)]);
    SCOPED_TRACE("\"" + s + "\"");
    double d = 777;
    const bool ok = Str(s).tryToDouble(d);
    if (s.empty() || !(isdigit(static_cast<unsigned char>(s[0])) || s[0] == '-')) {
      ASSERT_FALSE(ok);
      ASSERT_EQ(777, d);
      continue;
    }
    char* end = nullptr;
    errno = 0;
    const double v = strtod(s.c_str(), &end);
    const bool expected = errno == 0 && end != s.c_str() && *end == '\0';
    ASSERT_EQ(expected, ok);
    ASSERT_EQ(v, d);
  }
}

TEST(StrConvertBool, Words) {
  const struct { const char* text; bool value; } kCases[] = {
      {"t", true}, {"T", true}, {"true", true}, {"TRUE", true}, {"TrUe", true},
      {"yes", true}, {"YES", true}, {"yEs", true}, {"1", true},
      {"f", false}, {"F", false}, {"false", false}, {"FALSE", false}, {"fAlSe", false},
      {"no", false}, {"NO", false}, {"nO", false}, {"0", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    for (bool start : {true, false}) {
      bool b = start;
      EXPECT_TRUE(Str(c.text).tryToBool(b));
      EXPECT_EQ(c.value, b);
      bool sb = start;
      EXPECT_TRUE(StrSegment(c.text).tryToBool(sb));
      EXPECT_EQ(c.value, sb);
    }
    EXPECT_EQ(c.value, Str(c.text).toBool(!c.value, !c.value));
    EXPECT_EQ(c.value, StrSegment(c.text).toBool(!c.value, !c.value));
  }
}

TEST(StrConvertBool, RefusedLeaveTarget) {
  for (const char* text : {"", "on", "off", "ON", "00", "01", "10", " 1", "1 ", "2", "-1",
                           "+1", "y", "n", "tr", "tru", "truee", " true", "true ", "ye",
                           "yess", "fals", "nope", "maybe"}) {
    SCOPED_TRACE(text);
    for (bool start : {true, false}) {
      bool b = start;
      EXPECT_FALSE(Str(text).tryToBool(b));
      EXPECT_EQ(start, b);
      bool sb = start;
      EXPECT_FALSE(StrSegment(text).tryToBool(sb));
      EXPECT_EQ(start, sb);
    }
  }
}

TEST(StrConvertBool, ToBoolDistinguishesEmptyFromInvalid) {
  const struct { const char* text; bool whenEmpty; bool whenInvalid; bool expected; } kCases[] = {
      {"", true, false, true},
      {"", false, true, false},
      {"maybe", true, false, false},
      {"maybe", false, true, true},
      {"on", false, true, true},
      {"yes", false, false, true},
      {"no", true, true, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(c.expected, Str(c.text).toBool(c.whenEmpty, c.whenInvalid));
    EXPECT_EQ(c.expected, StrSegment(c.text).toBool(c.whenEmpty, c.whenInvalid));
  }
}

}  // namespace
