#include "util/WildcardMatcher.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

// The reference: plain backtracking over `*`.
bool refMatch(const char* p, const char* t) {
  if (*p == '\0') return *t == '\0';
  if (*p == '*') return refMatch(p + 1, t) || (*t != '\0' && refMatch(p, t + 1));
  return *p == *t && refMatch(p + 1, t + 1);
}

std::vector<std::string> literalsOf(const std::string& pattern) {
  std::vector<std::string> out;
  std::string current;
  for (char c : pattern) {
    if (c != '*') {
      current.push_back(c);
    } else if (!current.empty()) {
      out.push_back(current);
      current.clear();
    }
  }
  if (!current.empty()) out.push_back(current);
  return out;
}

// The span that isMatch reports, found with std::string::find: where the
// first literal after a hard start was first found, and behind the last
// literal found; a lone literal with a hard end is the tail.
std::pair<size_t, size_t> refSpan(const std::string& pattern, const std::string& text) {
  const std::vector<std::string> lits = literalsOf(pattern);
  const bool hardStart = !pattern.empty() && pattern.front() != '*';
  const bool hardEnd = !pattern.empty() && pattern.back() != '*';
  size_t start = 0;
  size_t end = text.size();
  if (pattern.empty() || (lits.size() == 1 && hardStart && hardEnd)) return {start, end};
  size_t scan = hardStart ? lits[0].size() : 0;
  for (size_t i = hardStart ? 1 : 0; i < lits.size(); ++i) {
    const size_t pos = text.find(lits[i], scan);
    if (i == 0) start = pos;
    scan = pos + lits[i].size();
    end = scan;
  }
  if (hardEnd && lits.size() == 1 && scan < text.size()) {
    start = text.size() - lits[0].size();
    end = text.size();
  }
  return {start, end};
}

bool hasBorder(const std::string& s) {
  for (size_t k = 1; k < s.size(); ++k) {
    if (s.compare(0, k, s, s.size() - k, k) == 0) return true;
  }
  return false;
}

// Puts the literals and the captures back together as the capture form
// promises; "" when they do not fit the pattern.
std::string rebuild(const std::string& pattern, const StrVector& caps) {
  const std::vector<std::string> lits = literalsOf(pattern);
  const bool hardStart = pattern.front() != '*';
  const bool hardEnd = pattern.back() != '*';
  std::string out = hardStart ? lits[0] : "";
  size_t k = 0;
  const size_t middleEnd = hardEnd ? lits.size() - 1 : lits.size();
  for (size_t i = hardStart ? 1 : 0; i < middleEnd; ++i) {
    if (k >= caps.size()) return "<short>";
    out += caps[k++] + lits[i];
  }
  if (!hardEnd) {
    if (k >= caps.size()) return "<short>";
    out += caps[k++];
  } else {
    if (k >= caps.size()) return "<short>";
    while (k < caps.size()) out += caps[k++] + lits.back();
  }
  return out;
}

TEST(WildcardMatcher, AgreesWithBacktrackingReference) {
  std::mt19937 rng(31337);
  const char patternAlphabet[] = "ab*";
  int hits = 0;
  for (int iter = 0; iter < 50000; ++iter) {
    std::string pattern;
    for (int i = 0, n = static_cast<int>(rng() % 8); i < n; ++i) {
      pattern.push_back(patternAlphabet[rng() % 3]);
    }
    std::string text;
    for (int i = 0, n = static_cast<int>(rng() % 11); i < n; ++i) {
      text.push_back("ab"[rng() % 2]);
    }
    SCOPED_TRACE("pattern '" + pattern + "' text '" + text + "'");
    const bool expected = refMatch(pattern.c_str(), text.c_str());
    const WildcardMatcher m(pattern.c_str());
    size_t start = 99;
    size_t end = 99;
    ASSERT_EQ(expected, m.isMatch(StrSegment(text), start, end));
    if (expected) {
      ++hits;
      const auto span = refSpan(pattern, text);
      ASSERT_EQ(span.first, start);
      ASSERT_EQ(span.second, end);
      ASSERT_LE(start, end);
      ASSERT_LE(end, text.size());
    }
    size_t s2 = 0;
    size_t e2 = 0;
    ASSERT_EQ(expected, m.isMatch(text.c_str(), s2, e2));

    StrVector caps;
    const bool captured = m.isMatch(text.c_str(), caps);
    if (captured) {
      ASSERT_TRUE(expected);
      if (!pattern.empty() && m.getMatcherType() != 4) {
        ASSERT_EQ(text, rebuild(pattern, caps));
      }
    }
    const std::vector<std::string> lits = literalsOf(pattern);
    if (lits.empty() || pattern.back() == '*' || !hasBorder(lits.back())) {
      ASSERT_EQ(expected, captured);
    }
  }
  EXPECT_GT(hits, 5000);  // the generator reaches both outcomes
}

TEST(WildcardMatcher, EdgeCases) {
  const struct {
    const char* pattern;
    const char* text;
    bool match;
    size_t start;
    size_t end;
  } kCases[] = {
      {"a*a", "a", false, 0, 0},  // the literal must be found again behind the first
      {"a?c", "abc", false, 0, 0},  // "?" is an ordinary byte
      {"*", "", true, 0, 0}, {"*", "anything", true, 0, 8}, {"**", "ab", true, 0, 2},
      {"abc", "abc", true, 0, 3}, {"abc", "abcd", false, 0, 0}, {"abc", "xabc", false, 0, 0},
      {"", "", true, 0, 0}, {"", "a", false, 0, 0}, {"a*a", "aa", true, 0, 2},
      {"ab*ba", "aba", false, 0, 0}, {"a?c", "a?c", true, 0, 3}, {"*b*", "abc", true, 1, 2},
      {"a*", "abc", true, 0, 3}, {"*c", "cbc", true, 2, 3}, {"a*b", "abxb", true, 0, 2},
      {"*x*y", "axbxcy", true, 1, 6},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.pattern) + " / " + c.text);
    const WildcardMatcher m(c.pattern);
    size_t start = 99;
    size_t end = 99;
    ASSERT_EQ(c.match, m.isMatch(StrSegment(c.text), start, end));
    if (c.match) {
      EXPECT_EQ(c.start, start);
      EXPECT_EQ(c.end, end);
    }
  }
}

TEST(WildcardMatcher, DescribesItsShape) {
  const struct {
    const char* pattern;
    int type;
    const char* prefix;
    const char* suffix;
    const char* word;
    size_t literals;
  } kCases[] = {
      {"abc", 4, "abc", "abc", "abc", 1}, {"", 4, "", "", "", 1}, {"a*", 3, "a", "", "a", 1},
      {"*a", 3, "", "a", "a", 1}, {"a**b", 3, "a", "b", "a", 2}, {"*a*b*", 3, "", "", "a", 2},
      {"*", -1, "", "", "", 0}, {"***", -1, "", "", "", 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.pattern);
    const WildcardMatcher m(c.pattern);
    EXPECT_EQ(c.type, m.getMatcherType());
    EXPECT_EQ(c.prefix, m.getPatternPrefix());
    EXPECT_EQ(c.suffix, m.getPatternSuffix());
    EXPECT_STREQ(c.word, m.getWord());
    EXPECT_EQ(c.literals, m.getLiteralCount());
    EXPECT_EQ(c.pattern, m.getPattern());
  }
  EXPECT_EQ("pattern=\"a*b\" literals=[\"a\",\"b\"] hardStart=1 hardEnd=1 singleWord=0",
            WildcardMatcher("a*b").debugOpaqueMatcher());
}

TEST(WildcardMatcher, CapturesWhatEachStarCovered) {
  const struct {
    const char* pattern;
    const char* text;
    bool match;
    std::vector<std::string> captures;
  } kCases[] = {
      {"*b", "abab", true, {"a", "a"}},  // the last literal is searched again
      {"*aa", "aaa", false, {}},  // overlapping repeats are not found this way
      {"a*c*", "abcd", true, {"b", "d"}}, {"*", "xyz", true, {"xyz"}}, {"abc", "abc", true, {}},
      {"a*", "a", true, {""}}, {"*.log", "var.log.log", true, {"var", ""}},
      {"a*b", "ac", false, {}}, {"x*", "ab", false, {}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.pattern) + " / " + c.text);
    StrVector caps{"stale"};
    ASSERT_EQ(c.match, WildcardMatcher(c.pattern).isMatch(c.text, caps));
    if (c.match) {
      EXPECT_EQ(c.captures, std::vector<std::string>(caps.begin(), caps.end()));
    }
  }
}

TEST(WildcardMatcher, CopiesOwnTheirLiterals) {
  auto original = std::make_unique<WildcardMatcher>("ab*cd*ef");
  WildcardMatcher copy(*original);
  WildcardMatcher assigned("zzz");
  assigned = *original;
  original->init("something*else");
  original.reset();  // the copies must not point into it
  size_t start = 0;
  size_t end = 0;
  for (const WildcardMatcher* m : {&copy, &assigned}) {
    EXPECT_TRUE(m->isMatch(StrSegment("abXcdYef"), start, end));
    EXPECT_FALSE(m->isMatch(StrSegment("abXcdYe"), start, end));
    StrVector caps;
    EXPECT_TRUE(m->isMatch("ab1cd2ef", caps));
  }
  std::vector<WildcardMatcher> grown;
  for (int i = 0; i < 50; ++i) grown.emplace_back(("*" + std::to_string(i) + "*").c_str());
  for (int i = 0; i < 50; ++i) {
    EXPECT_TRUE(grown[i].isMatch(StrSegment("x" + std::to_string(i) + "y"), start, end)) << i;
  }
}

TEST(WildcardMatcherVec, MatchesElementByElement) {
  const WildcardMatcherVec path(StrVector{"var", "log*", "*.gz"});
  const struct { StrVector path; bool match; } kCases[] = {
      {{"var", "logs", "a.gz", "b"}, false},  // sizes must agree
      {{"var", "logs/a", "gz"}, false},       // no star reaches across elements
      {{"var", "logs", "a.gz"}, true}, {{"var", "log", ".gz"}, true}, {{"var", "logs"}, false},
      {{"var/logs", "", "a.gz"}, false}, {{"Var", "logs", "a.gz"}, false},
  };
  for (const auto& c : kCases) {
    Str joined;
    c.path.joinInto(joined, '/');
    EXPECT_EQ(c.match, path.isMatch(c.path)) << joined;
  }
  EXPECT_TRUE(WildcardMatcherVec(StrVector{}).isMatch(StrVector{}));
}

}  // namespace
