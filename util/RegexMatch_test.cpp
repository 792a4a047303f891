#include "util/RegexMatch.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <limits>
#include <map>
#include <random>
#include <string>

#include "util/Regex.h"
#include "util/testing/ThrownText.h"

namespace {

// The one group of "^(.*)$" (DOTALL) over `text`, in `m`; `text` must
// outlive the match.
void captureAll(const Regex& r, const char* text, RegexMatch* m) {
  ASSERT_TRUE(r.matches(text, m)) << text;
}

TEST(RegexMatch, InitNeedsRegexSubjectAndOffsets) {
  const Regex r("(b)");
  const char* subject = "abc";
  const int offsets[] = {1, 2, 1, 2};
  RegexMatch m;
  m.init(nullptr, subject, offsets);
  m.init(&r, nullptr, offsets);
  m.init(&r, subject, nullptr);
  EXPECT_FALSE(m.isValid());
  EXPECT_EQ(nullptr, m.getRegex());
  EXPECT_EQ(0u, m.size());

  m.init(&r, subject, offsets);
  EXPECT_TRUE(m.isValid());
  EXPECT_EQ(&r, m.getRegex());
  EXPECT_EQ(subject, m.getSubject());
  EXPECT_EQ("b", m.getGroup(0).view());
  EXPECT_EQ(subject + 1, m.getGroup(1).data());

  m.reset();
  EXPECT_FALSE(m.isValid());
  EXPECT_EQ(nullptr, m.getMatch().data());
}

TEST(RegexMatch, GroupsThatTookNoPartAreNull) {
  const Regex r("(a)|(b)()");
  RegexMatch m;
  ASSERT_TRUE(r.matches("b", &m));
  ASSERT_EQ(3u, m.size());
  EXPECT_EQ(nullptr, m.getGroup(1).data());
  EXPECT_EQ("b", m.getGroup(2).view());
  EXPECT_NE(nullptr, m.getGroup(3).data());  // took part, matched nothing
  EXPECT_EQ(0u, m.getGroup(3).size());

  Str text = "kept";
  StrSegment seg("kept");
  EXPECT_FALSE(m.fetch(0, &text));
  EXPECT_TRUE(text.empty());
  EXPECT_FALSE(m.fetch(0, &seg));
  EXPECT_EQ(nullptr, seg.data());
  EXPECT_TRUE(m.fetch(1, &text));
  EXPECT_EQ("b", text);
  EXPECT_TRUE(m.fetch(2, &seg));
  EXPECT_EQ(0u, seg.size());
  text = "kept";
  EXPECT_FALSE(m.fetch(3, &text));  // out of range: 0-based
  EXPECT_TRUE(text.empty());
}

TEST(RegexMatch, GetGroupOutOfRangeThrows) {
  const Regex r("(a)(b)");
  RegexMatch m;
  ASSERT_TRUE(r.matches("ab", &m));
  EXPECT_EQ("ab", m.getGroup(0).view());
  EXPECT_EQ("b", m.getGroup(2).view());
  for (size_t n : {3u, 4u, 100u}) {
    EXPECT_EQ("IndexOutOfBounds Exception: idx = " + std::to_string(n - 1) + ", size = 2",
              thrownText<RegexException>([&] { m.getGroup(n); }));
  }
}

TEST(RegexMatch, SignedFetchReadsEachAcceptedShape) {
  const Regex all("^(.*)$", true, Regex::DOTALL);
  const struct { const char* text; long long value; } kCases[] = {
      {"- 5", -5},  // blanks after the sign are skipped too
      {"5", 5}, {" 5 ", 5}, {"\t5\t", 5}, {"-5", -5}, {"0", 0}, {"-0", 0}, {"10", 10},
      {"2147483647", 2147483647}, {"-2147483648", -2147483648LL},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    RegexMatch m;
    captureAll(all, c.text, &m);
    long long ll = 777;
    ASSERT_TRUE(m.fetch(0, &ll));
    EXPECT_EQ(c.value, ll);
    int i = 777;
    ASSERT_TRUE(m.fetch(0, &i));
    EXPECT_EQ(c.value, i);
  }
}

TEST(RegexMatch, SignedFetchRejectsAndKeepsTheTarget) {
  const Regex all("^(.*)$", true, Regex::DOTALL);
  for (const char* text : {"05", "00", "-05", "", "  ", "-", "+5", "5x", "x5", "1 2", "--5",
                           "5-", " \n5", "0x10", "1.5"}) {
    SCOPED_TRACE(text);
    RegexMatch m;
    captureAll(all, text, &m);
    int i = 777;
    EXPECT_FALSE(m.fetch(0, &i));
    EXPECT_EQ(777, i);
    long long ll = 777;
    EXPECT_FALSE(m._do_signed_fetch(0, &ll, 8));
    EXPECT_EQ(777, ll);
  }
  RegexMatch m;
  captureAll(all, "5", &m);
  int i = 777;
  EXPECT_FALSE(m.fetch(1, &i));  // no such group
  EXPECT_EQ(777, i);
  // Too wide for an int before its last digit, fine for a long long.
  captureAll(all, "21474836470", &m);
  EXPECT_FALSE(m.fetch(0, &i));
  EXPECT_EQ(777, i);
  long long ll = 0;
  EXPECT_TRUE(m.fetch(0, &ll));
  EXPECT_EQ(21474836470LL, ll);
}

// Only the value before the last digit is checked, so the last digit may
// carry the value past the type's range; the cast then wraps.
TEST(RegexMatch, LastDigitMayCarryPastTheLimit) {
  const Regex all("^(.*)$", true, Regex::DOTALL);
  RegexMatch m;
  captureAll(all, "2147483649", &m);
  int i = 0;
  ASSERT_TRUE(m.fetch(0, &i));
  EXPECT_EQ(static_cast<int>(static_cast<uint32_t>(2147483649u)), i);
  captureAll(all, "-2147483649", &m);
  ASSERT_TRUE(m.fetch(0, &i));
  EXPECT_EQ(INT_MAX, i);
  captureAll(all, "9223372036854775808", &m);
  long long ll = 0;
  ASSERT_TRUE(m.fetch(0, &ll));
  EXPECT_EQ(LLONG_MIN, ll);
  captureAll(all, "65539", &m);
  unsigned short us = 0;
  ASSERT_TRUE(m.fetch(0, &us));
  EXPECT_EQ(3, us);
  captureAll(all, "65540", &m);  // 6554 is above 65535 / 10
  EXPECT_FALSE(m.fetch(0, &us));
}

TEST(RegexMatch, UnsignedFetchCatchesTheWrapOfSixtyFourBits) {
  const Regex all("^(.*)$", true, Regex::DOTALL);
  const struct { const char* text; bool ok; unsigned long long value; } kCases[] = {
      {"18446744073709551615", true, 18446744073709551615ULL},
      {"18446744073709551610", true, 18446744073709551610ULL},
      {"18446744073709551616", false, 0},  // wraps to 0
      {"18446744073709551619", false, 0},  // wraps to 3
      {"184467440737095516150", false, 0},
      {" 42\t", true, 42},
      {"-1", false, 0},
      {"042", false, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    RegexMatch m;
    captureAll(all, c.text, &m);
    unsigned long long v = 777;
    EXPECT_EQ(c.ok, m.fetch(0, &v));
    EXPECT_EQ(c.ok ? c.value : 777, v);
  }
}

// The reader against a strict reference over random texts: outside the band
// that the last digit can reach past `max`, the two agree exactly.
TEST(RegexMatch, ParseUnsignedAgreesWithStrictReference) {
  std::mt19937 rng(42);
  const unsigned long long maxima[] = {9, 10, 99, 1000, 65535, 4294967295ULL,
                                       std::numeric_limits<unsigned long long>::max()};
  const char alphabet[] = "0123456789 \t-x";
  for (int iter = 0; iter < 20000; ++iter) {
    std::string text;
    const int len = static_cast<int>(rng() % 24);
    for (int i = 0; i < len; ++i) {
      text.push_back(rng() % 4 == 0 ? alphabet[rng() % (sizeof alphabet - 1)]
                                    : static_cast<char>('0' + rng() % 10));
    }
    const unsigned long long max = maxima[rng() % (sizeof maxima / sizeof maxima[0])];

    // Reference: blanks, a canonical decimal, blanks; value computed wide.
    size_t b = text.find_first_not_of(" \t");
    size_t e = text.find_last_not_of(" \t");
    bool shape = b != std::string::npos;
    unsigned __int128 wide = 0;
    if (shape) {
      const std::string digits = text.substr(b, e - b + 1);
      shape = digits.find_first_not_of("0123456789") == std::string::npos &&
              (digits.size() == 1 || digits[0] != '0') && digits.size() <= 30;
      for (char d : digits) wide = wide * 10 + static_cast<unsigned>(d - '0');
    }
    const unsigned __int128 band = static_cast<unsigned __int128>(max / 10) * 10 + 9;
    if (shape && wide > max && wide <= band) continue;  // the documented carry

    unsigned long long got = 0;
    const bool ok = RegexMatch::_parse_unsigned_val(StrSegment(text), &got, max);
    const bool expected = shape && wide <= max;
    ASSERT_EQ(expected, ok) << "'" << text << "' max " << max;
    if (ok) {
      ASSERT_EQ(static_cast<unsigned long long>(wide), got) << text;
    }
  }
  unsigned long long out = 0;
  EXPECT_FALSE(RegexMatch::_parse_unsigned_val(StrSegment(nullptr, 0), &out, 100));
}

TEST(RegexMatch, GetAllGroupsKeepsOnlyNamedGroupsThatTookPart) {
  const Regex r("(?<year>\\d{4})-(?<month>\\d\\d)(?:-(?<day>\\d\\d))?(x)?");
  RegexMatch m;
  ASSERT_TRUE(r.matches("on 2009-10 at", &m));
  std::map<Str, Str> texts = {{"stale", "1"}};
  m.getAllGroups(texts);
  EXPECT_EQ((std::map<Str, Str>{{"month", "10"}, {"year", "2009"}}), texts);
  std::map<Str, StrSegment> segments;
  m.getAllGroups(segments);
  ASSERT_EQ(2u, segments.size());
  EXPECT_EQ("2009", segments["year"].view());

  RegexMatch none;
  texts = {{"stale", "1"}};
  none.getAllGroups(texts);
  EXPECT_EQ(1u, texts.count("stale"));
}

}  // namespace
