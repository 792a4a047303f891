#include "util/HorspoolStr.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

TEST(HorspoolStr, FindsTheFirstFittingOccurrence) {
  const size_t npos = StrSegment::npos;
  const struct { const char* needle; const char* haystack; size_t start, expected; } kCases[] = {
      {"abc", "xabc", 2, npos},  // would not fit
      {"", "abc", 0, npos},      // the empty needle is never found
      {"abc", "abc", 0, 0}, {"abc", "xxabcabc", 0, 2}, {"abc", "xxabcabc", 3, 5},
      {"abc", "ab", 0, npos}, {"abc", "abc", 1, npos}, {"a", "bbba", 0, 3}, {"a", "bbba", 4, npos},
      {"aab", "aaaab", 0, 2}, {nullptr, "abc", 0, npos}, {"abc", "", 0, npos},
      {"abc", "abc", npos, npos},
  };
  for (const auto& c : kCases) {
    const HorspoolStr h(c.needle);
    EXPECT_EQ(c.expected, h.findIn(StrSegment(c.haystack), c.start))
        << (c.needle ? c.needle : "<null>") << " in " << c.haystack << " from " << c.start;
  }
}

TEST(HorspoolStr, SkipTableCoversOnlyTheLast256Bytes) {
  // A needle of 300 bytes whose first byte occurs nowhere else: the search
  // must not skip past a match although that byte is not indexed.
  std::string needle(300, 'b');
  needle[0] = 'a';
  needle[299] = 'c';
  const std::string haystack = std::string(500, 'b') + needle + "bb";
  const HorspoolStr h(needle.c_str());
  EXPECT_EQ(500u, h.findIn(StrSegment(haystack), 0));
  EXPECT_EQ(300u, h.length());
}

// Against std::string::find over small alphabets, where near misses are
// common, and needles around the 255 and 256 byte marks.
TEST(HorspoolStr, AgreesWithStringFind) {
  std::mt19937 rng(2024);
  const size_t lengths[] = {1, 2, 3, 5, 8, 254, 255, 256, 257, 300};
  const char kAlphabet[] = {'a', '\xff', 'b', '\x80'};  // high bytes index the table too
  for (int iter = 0; iter < 20000; ++iter) {
    const int alphabet = 2 + static_cast<int>(rng() % 3);
    const size_t nlen = iter % 4 == 0 ? lengths[rng() % 10] : 1 + rng() % 6;
    std::string needle;
    for (size_t i = 0; i < nlen; ++i) needle.push_back(kAlphabet[rng() % alphabet]);
    std::string haystack;
    const size_t hlen = rng() % (2 * nlen + 40);
    for (size_t i = 0; i < hlen; ++i) haystack.push_back(kAlphabet[rng() % alphabet]);
    // Plant the needle sometimes, since long random needles rarely occur.
    if (rng() % 2 && hlen >= nlen) haystack.replace(rng() % (hlen - nlen + 1), nlen, needle);
    const size_t start = rng() % (haystack.size() + 2);
    const HorspoolStr h(needle.c_str());
    const size_t expected = start <= haystack.size() ? haystack.find(needle, start) : std::string::npos;
    ASSERT_EQ(expected, h.findIn(StrSegment(haystack), start))
        << needle << " in " << haystack << " from " << start;
  }
}

}  // namespace
