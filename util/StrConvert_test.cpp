// Numeric and boolean conversions of Str and StrSegment, checked against the
// C library's strtol family where it can serve as the oracle.
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/testing/TestText.h"

namespace {

// Random strings near the numeric grammar; half of them digits only, with
// an optional sign and blank, so that successes and overflows are common.
std::string randomNumberish(std::mt19937& rng) {
  std::string s = randomText(rng, " \t+-0123456789012345678901234567890123456789xaf", 23);
  if (rng() % 2) {
    std::string digits;
    for (char ch : s) {
      if (isdigit(static_cast<unsigned char>(ch))) digits.push_back(ch);
    }
    if (rng() % 3 == 0) digits.insert(0, "-");
    if (rng() % 4 == 0) digits.insert(0, " ");
    s = digits;
  }
  return s;
}

bool startsWithMinusAfterSpace(const std::string& s) {
  size_t i = 0;
  while (i < s.size() && isspace(static_cast<unsigned char>(s[i]))) ++i;
  return i < s.size() && s[i] == '-';
}

// Expects `ok` from the four forms of one integer target (try and value
// form, of Str and of StrSegment), the try forms to leave `stored` in a
// target that held 777, and the value forms to give `stored` or 3.
template <class T>
void expectForms(const Str& str, const StrSegment& seg, int base, bool ok, T stored,
                 bool (Str::*strTry)(T&, int) const, T (Str::*strTo)(T, int) const,
                 bool (StrSegment::*segTry)(T&, int) const, T (StrSegment::*segTo)(T, int) const) {
  T a = 777, b = 777;
  EXPECT_EQ(ok, (str.*strTry)(a, base));
  EXPECT_EQ(stored, a);
  EXPECT_EQ(ok, (seg.*segTry)(b, base));
  EXPECT_EQ(stored, b);
  EXPECT_EQ(ok ? stored : T(3), (str.*strTo)(3, base));
  EXPECT_EQ(ok ? stored : T(3), (seg.*segTo)(3, base));
}

// Every integer form of Str and StrSegment against strtol & co. applied step
// by step: what is stored on failure, which forms write only on success, and
// that segment forms read only their own bytes.
TEST(StrConvert, IntegersAgreeWithStrtolFamily) {
  std::mt19937 rng(11);
  const int kBases[] = {10, 10, 16, 8, 0};
  for (int iter = 0; iter < 20000 && !HasFailure(); ++iter) {
    const std::string s = randomNumberish(rng);
    const int base = kBases[rng() % 5];
    SCOPED_TRACE("\"" + s + "\" base " + std::to_string(base));
    const Str str(s);
    // An unterminated view of the text followed by more digits.
    const std::string padded = s + "987";
    const StrSegment seg(padded.data(), s.size());

    char* end = nullptr;
    errno = 0;
    const long lv = strtol(s.c_str(), &end, base);
    const bool lok = !(errno == ERANGE && (lv == LONG_MAX || lv == LONG_MIN)) &&
                     end != s.c_str() && *end == '\0';
    expectForms<long>(str, seg, base, lok, lv, &Str::tryToLong, &Str::toLong,
                      &StrSegment::tryToLong, &StrSegment::toLong);
    expectForms<long long>(str, seg, base, lok, lv, &Str::tryToLongLong, &Str::toLongLong,
                           &StrSegment::tryToLongLong, &StrSegment::toLongLong);
    const bool iok = lok && lv >= INT_MIN && lv <= INT_MAX;
    expectForms<int>(str, seg, base, iok, iok ? static_cast<int>(lv) : 777, &Str::tryToInt,
                     &Str::toInt, &StrSegment::tryToInt, &StrSegment::toInt);

    // A minus fails before the C library, which would wrap it.
    const bool minus = startsWithMinusAfterSpace(s);
    errno = 0;
    const unsigned long ulv = strtoul(s.c_str(), &end, base);
    const bool ulok = !minus && !(errno == ERANGE && ulv == ULONG_MAX) && end != s.c_str() &&
                      *end == '\0';
    const unsigned long stored = minus ? 777 : ulv;
    expectForms<unsigned long>(str, seg, base, ulok, stored, &Str::tryToUnsignedLong,
                               &Str::toUnsignedLong, &StrSegment::tryToUnsignedLong,
                               &StrSegment::toUnsignedLong);
    expectForms<unsigned long long>(str, seg, base, ulok, stored, &Str::tryToUnsignedLongLong,
                                    &Str::toUnsignedLongLong, &StrSegment::tryToUnsignedLongLong,
                                    &StrSegment::toUnsignedLongLong);
    expectForms<size_t>(str, seg, base, ulok, ulok ? ulv : 777, &Str::tryToSizet, &Str::toSizet,
                        &StrSegment::tryToSizet, &StrSegment::toSizet);
    const bool uok = ulok && ulv <= UINT_MAX;
    expectForms<unsigned>(str, seg, base, uok, uok ? static_cast<unsigned>(ulv) : 777,
                          &Str::tryToUnsigned, &Str::toUnsigned, &StrSegment::tryToUnsigned,
                          &StrSegment::toUnsigned);
  }
}

// What the random texts cannot reach: exact limits, every kind of leading
// white space, other bases.
TEST(StrConvert, IntegerBoundaries) {
  const struct { const char* text; int base; long l; bool intOk; } kSigned[] = {
      {"9223372036854775807", 10, LONG_MAX, false}, {"-9223372036854775808", 10, LONG_MIN, false},
      {"\t\n\v\f\r 3", 10, 3, true}, {"z", 36, 35, true}, {"2147483647", 10, INT_MAX, true},
      {"-2147483648", 10, INT_MIN, true}, {"2147483648", 10, 2147483648L, false},
      {"-2147483649", 10, -2147483649L, false}, {"7fffffff", 16, INT_MAX, true},
      {"80000000", 16, 0x80000000L, false}, {"-0x80000000", 0, INT_MIN, true},
  };
  for (const auto& c : kSigned) {
    SCOPED_TRACE(std::string(c.text) + " base " + std::to_string(c.base));
    long l = 777;
    errno = ERANGE;  // the extreme value is refused only when this call raised it
    EXPECT_TRUE(Str(c.text).tryToLong(l, c.base));
    EXPECT_EQ(c.l, l);
    int i = 777;
    EXPECT_EQ(c.intOk, Str(c.text).tryToInt(i, c.base));
    EXPECT_EQ(c.intOk ? c.l : 777, i);
  }
  const struct { const char* text; int base; unsigned long long ull; bool uOk; } kUnsigned[] = {
      {"18446744073709551615", 10, ULLONG_MAX, false}, {"4294967295", 10, 4294967295u, true},
      {"4294967296", 10, 4294967296u, false}, {"ffffffff", 16, 4294967295u, true},
      {"100000000", 16, 4294967296u, false}, {"037777777777", 0, 4294967295u, true},
      {"0XFF", 16, 255, true},
  };
  for (const auto& c : kUnsigned) {
    SCOPED_TRACE(std::string(c.text) + " base " + std::to_string(c.base));
    unsigned long long ull = 777;
    errno = ERANGE;
    EXPECT_TRUE(Str(c.text).tryToUnsignedLongLong(ull, c.base));
    EXPECT_EQ(c.ull, ull);
    unsigned u = 777;
    EXPECT_EQ(c.uOk, Str(c.text).tryToUnsigned(u, c.base));
    EXPECT_EQ(c.uOk ? c.ull : 777u, u);
  }
  // A minus after any white space fails before the C library could wrap it.
  for (const char* text : {"\t\n\v\f\r -5", "-0"}) {
    unsigned long ul = 777;
    EXPECT_FALSE(Str(text).tryToUnsignedLong(ul)) << text;
    EXPECT_EQ(777u, ul) << text;
  }
  // Parsing stops at a NUL byte, and a NUL where it stops is no garbage.
  EXPECT_EQ(12, Str(std::string("12\0x", 4)).toLong(0));
}

TEST(StrConvertDouble, AcceptedAndRefusedShapes) {
  // Empty text, or a first byte that is neither a digit nor "-", is refused
  // with the target untouched; later failures have stored strtod's result.
  const struct { const char* text; bool ok; double stored; } kCases[] = {
      {"-0", true, -0.0},
      {"0x10", true, 16.0},  // strtod's own hexadecimal form after a leading digit
      {"-inf", true, -HUGE_VAL},  // only the first byte is vetted
      {"1.7976931348623157e308", true, std::numeric_limits<double>::max()},
      {"2.2250738585072014e-308", true, std::numeric_limits<double>::min()},
      {"", false, 777}, {"+1", false, 777}, {" 1", false, 777}, {".5", false, 777},
      {"inf", false, 777}, {"nan", false, 777}, {"1.5x", false, 1.5}, {"1e400", false, HUGE_VAL},
      {"1e-400", false, 0.0},  // underflow sets errno
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    double d = 777;
    errno = ERANGE;  // any errno fails, so it must be cleared first
    EXPECT_EQ(c.ok, Str(c.text).tryToDouble(d));
    EXPECT_EQ(c.stored, d);
    EXPECT_EQ(std::signbit(c.stored), std::signbit(d));
    EXPECT_EQ(c.ok ? c.stored : 9.5, Str(c.text).toDouble(9.5));
    EXPECT_EQ(c.ok ? c.stored : 9.5, StrSegment(c.text).toDouble(9.5));
  }
  double d = 0;
  EXPECT_TRUE(StrSegment("1.5e3xyz", 5).tryToDouble(d));  // a segment needs no terminator
  EXPECT_EQ(1500.0, d);
}

TEST(StrConvertDouble, AgreesWithStrtod) {
  std::mt19937 rng(12);
  for (int iter = 0; iter < 20000; ++iter) {
    const std::string s = randomText(rng, "0123456789..--+eE x", 9);
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
    ASSERT_EQ(errno == 0 && end != s.c_str() && *end == '\0', ok);
    ASSERT_EQ(v, d);
  }
}

TEST(StrConvertBool, WordsAndRefusals) {
  const struct { const char* text; bool ok; bool value; } kCases[] = {
      {"t", true, true}, {"T", true, true}, {"true", true, true}, {"TrUe", true, true},
      {"yes", true, true}, {"YES", true, true}, {"1", true, true},
      {"f", true, false}, {"F", true, false}, {"FALSE", true, false}, {"no", true, false},
      {"nO", true, false}, {"0", true, false},
      {"", false, false}, {"on", false, false}, {"off", false, false}, {"00", false, false},
      {"01", false, false}, {" 1", false, false}, {"1 ", false, false}, {"2", false, false},
      {"tr", false, false}, {"truee", false, false}, {" true", false, false},
      {"ye", false, false}, {"yess", false, false}, {"maybe", false, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    for (bool start : {true, false}) {
      bool b = start;  // refusals leave it alone
      EXPECT_EQ(c.ok, Str(c.text).tryToBool(b));
      EXPECT_EQ(c.ok ? c.value : start, b);
      bool sb = start;
      EXPECT_EQ(c.ok, StrSegment(c.text).tryToBool(sb));
      EXPECT_EQ(c.ok ? c.value : start, sb);
    }
    // The value form: the word's value, else whenEmpty for "", else whenInvalid.
    const bool empty = *c.text == '\0';
    EXPECT_EQ(c.ok ? c.value : empty, Str(c.text).toBool(true, false));
    EXPECT_EQ(c.ok ? c.value : !empty, Str(c.text).toBool(false, true));
    EXPECT_EQ(c.ok ? c.value : empty, StrSegment(c.text).toBool(true, false));
    EXPECT_EQ(c.ok ? c.value : !empty, StrSegment(c.text).toBool(false, true));
  }
  bool b = false;
  EXPECT_TRUE(StrSegment("truex", 4).tryToBool(b));  // a segment needs no terminator
  EXPECT_TRUE(b);
}

}  // namespace
