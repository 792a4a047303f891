#include "framework/WildcardMatcherTrie.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace {

TEST(WildcardMatcherTrie, FindsEveryMatchingPattern) {
  WildcardMatcherTrie<int> trie;
  const char* kPatterns[] = {"abc", "ab*", "*c", "*", "a*c", "b", "", "abc"};
  for (int i = 0; i < 8; ++i) trie.insert(Str(kPatterns[i]), i);
  EXPECT_EQ(trie.size(), 8u);
  const struct {
    const char* text;
    std::vector<int> values;  // shorter prefixes first
  } kCases[] = {
      {"abc", {2, 3, 4, 1, 0, 7}},
      {"abx", {3, 1}},
      {"b", {3, 5}},
      {"", {3, 6}},
      {"xc", {2, 3}},
      {"ab", {3, 1}},   // "ab*" takes the empty run
      {"abcd", {3, 1}},  // "abc" is a whole-value pattern
  };
  for (const auto& c : kCases) {
    std::vector<int> got;
    EXPECT_EQ(trie.find(StrSegment(c.text), got), c.values.size()) << c.text;
    EXPECT_EQ(got, c.values) << c.text;
  }
}

// The trie must find what trying every pattern in turn finds.
TEST(WildcardMatcherTrie, AgreesWithLinearScan) {
  std::mt19937 rng(11);
  const char kBytes[] = "ab*";
  auto randomText = [&](bool stars) {
    Str s;
    size_t len = rng() % 6;
    for (size_t i = 0; i < len; ++i) s.push_back(kBytes[rng() % (stars ? 3 : 2)]);
    return s;
  };
  for (int round = 0; round < 50; ++round) {
    WildcardMatcherTrie<size_t> trie;
    std::vector<Str> patterns;
    for (size_t i = 0; i < 20; ++i) {
      patterns.push_back(randomText(true));
      trie.insert(patterns.back(), i);
    }
    for (int q = 0; q < 40; ++q) {
      Str text = randomText(false);
      std::vector<size_t> got, want;
      trie.find(text, got);
      for (size_t i = 0; i < patterns.size(); ++i) {
        size_t s, e;
        if (WildcardMatcher(patterns[i].c_str()).isMatch(StrSegment(text), s, e)) want.push_back(i);
      }
      std::sort(got.begin(), got.end());
      EXPECT_EQ(got, want) << text;
    }
  }
}

}  // namespace
