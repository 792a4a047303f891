#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "util/Regex.h"

namespace {

TEST(RegexReplace, ReplacesWithAndWithoutBackReferences) {
  const struct {
    const char* pattern;
    const char* input;
    const char* replacement;
    bool expand;
    const char* output;
    size_t count;
  } kCases[] = {
      {"x*", "ab", "-", true, "-a-b", 2},  // no empty match is visited at the very end
      {"x*", "", "-", true, "", 0}, {"a", "banana", "o", true, "bonono", 3},
      {"a", "banana", "", true, "bnn", 3}, {"(a)(n)", "banana", "\\2\\1", true, "bnanaa", 2},
      {"b+", "abbbc", "[\\0]", true, "a[bbb]c", 1},
      {"(a)", "a", "<\\5>", true, "<\\5>", 1},  // beyond the capture count: literal
      {"(a)", "a", "<\\01>", true, "<a>", 1},   // the number is read as decimal
      {"a", "a", "<\\1>", true, "<\\1>", 1}, {"(a)", "a", "\\1", false, "\\1", 1},
      {"(a)", "a", "x\\\\\\1", true, "x\\a", 1},  // "\\" ahead of a reference is one "\"
      {"(a)", "a", "x\\y", true, "x\\y", 1},      // no reference at all: kept as written
      {"(a)|(b)", "ab", "[\\1\\2]", true, "[a][b]", 2},
      {"(\\w+)@(\\w+)", "mail joe@host now", "\\2 at \\1", true, "mail host at joe now", 1},
      {"\xc3\xa9", "caf\xc3\xa9 \xc3\xa9t\xc3\xa9", "e", true, "cafe ete", 3},
      {"z", "abc", "-", true, "abc", 0},
      {nullptr, "abc", "x", true, "abc", 0},  // an empty regex copies the input
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.pattern != nullptr ? c.pattern : "<empty regex>") + " -> " +
                 c.replacement);
    const Regex r = c.pattern != nullptr ? Regex(c.pattern) : Regex();
    Str out = "stale";
    EXPECT_EQ(c.count, r.replaceAll(StrSegment(c.input), c.replacement, out, c.expand));
    EXPECT_EQ(c.output, out);
  }
}

TEST(RegexReplace, ReplacesOnlyTheListedOccurrences) {
  const struct {
    const char* pattern;
    const char* input;
    std::set<unsigned long> occurrences;
    const char* output;
    size_t count;
  } kCases[] = {
      {"a", "aaa", {0}, "aaa", 0},  // ordinals start at 1
      {"a", "aaa", {2}, "aba", 1}, {"a", "aaaa", {1, 3}, "bab" "a", 2}, {"a", "aaa", {5}, "aaa", 0},
      {"a", "aaa", {3, 7}, "aab", 1},
      {"x*", "ab", {2}, "a-b", 1},  // the empty match before "b" is the second
      {"x*", "ab", {1}, "-ab", 1},  // stops at once; the rest is copied
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.input);
    const Regex r(c.pattern);
    Str out;
    const char* replacement = std::string(c.pattern) == "x*" ? "-" : "b";
    EXPECT_EQ(c.count, r.replace(StrSegment(c.input), replacement, out, c.occurrences, true));
    EXPECT_EQ(c.output, out);
  }
}

// Bytes that a pattern would otherwise read as syntax, UTF-8 and a NUL
// followed by digits, whose escape must not swallow them.
std::string randomText(std::mt19937& rng, size_t maxLen) {
  static const std::vector<std::string> kPieces = {
      "a", "b", "Z", "0", "7", "_", ".", "*", "+", "?", "(", ")", "[", "]", "{", "}", "\\",
      "^", "$", "|", "-", "#", " ", "\n", "/", std::string(1, '\0'), "\xc3\xa9", "\xe2\x82\xac"};
  std::string s;
  const size_t n = rng() % (maxLen + 1);
  for (size_t i = 0; i < n; ++i) s += kPieces[rng() % kPieces.size()];
  return s;
}

TEST(RegexEscape, EscapesExactlyTheMetaBytes) {
  const struct { std::string in; const char* out; } kCases[] = {
      {"a.b", "a\\.b"}, {"A_z09", "A_z09"}, {"(x)", "\\(x\\)"}, {"\xc3\xa9", "\xc3\xa9"},
      {" -", "\\ \\-"}, {std::string("\0", 1), "\\0"}, {"\\", "\\\\"},
      {std::string("\0" "1", 2), "\\0001"},  // a digit after the NUL stays a digit
      {std::string("\0" "9", 2), "\\09"},
  };
  for (const auto& c : kCases) {
    Str out = "keep:";
    Regex::escapeMetaChars(c.in, out);
    EXPECT_EQ(std::string("keep:") + c.out, out) << c.in;
  }
}

// The escaped text, as a pattern, matches the text and only the text, and
// replacing with it agrees with Str's own literal replacement.
TEST(RegexEscape, EscapedTextMatchesItselfLiterally) {
  std::mt19937 rng(7);
  for (int iter = 0; iter < 2000; ++iter) {
    const std::string text = randomText(rng, 6);
    if (text.empty()) continue;
    Str pattern;
    Regex::escapeMetaChars(text, pattern);
    const Regex r(pattern);
    ASSERT_TRUE(r.matchesWhole(text)) << pattern;

    const std::string input = randomText(rng, 5) + text + randomText(rng, 5) + text;
    Str expected(input);
    const size_t expectedCount = expected.replaceAll(Str(text), Str("<>"));
    Str out;
    ASSERT_EQ(expectedCount, r.replaceAll(StrSegment(input), "<>", out, false)) << pattern;
    ASSERT_EQ(expected, out) << pattern;
  }
}

// replace with a set of ordinals against a reference that finds the
// literal's occurrences by hand and rebuilds the text.
TEST(RegexReplace, OccurrenceSetsAgreeWithReference) {
  std::mt19937 rng(99);
  const Regex r("ab");
  for (int iter = 0; iter < 2000; ++iter) {
    std::string input;
    for (int i = 0, n = static_cast<int>(rng() % 20); i < n; ++i) input.push_back("abc"[rng() % 3]);
    std::set<unsigned long> occurrences;
    for (int i = 0, n = static_cast<int>(rng() % 4); i < n; ++i) occurrences.insert(rng() % 6);

    std::string expected;
    size_t expectedCount = 0;
    unsigned long ordinal = 0;
    size_t pos = 0;
    for (size_t hit; (hit = input.find("ab", pos)) != std::string::npos; pos = hit + 2) {
      expected += input.substr(pos, hit - pos);
      ++ordinal;
      const bool listed = occurrences.empty() || occurrences.count(ordinal) != 0;
      expected += listed ? "X" : "ab";
      if (listed) ++expectedCount;
      if (listed && !occurrences.empty() && expectedCount == occurrences.size()) {
        pos = hit + 2;
        break;
      }
    }
    expected += input.substr(pos);

    Str out;
    ASSERT_EQ(expectedCount, r.replace(StrSegment(input), "X", out, occurrences, true)) << input;
    ASSERT_EQ(expected, out) << input;
  }
}

}  // namespace
