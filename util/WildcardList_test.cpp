#include "util/WildcardList.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

bool refMatch(const char* p, const char* t) {
  if (*p == '\0') return *t == '\0';
  if (*p == '*') return refMatch(p + 1, t) || (*t != '\0' && refMatch(p, t + 1));
  return *p == *t && refMatch(p + 1, t + 1);
}

// The list's rules without the trie: every pattern is tried in turn.
class RefList {
 public:
  explicit RefList(bool keep) : _keep(keep) {}

  void add(const std::string& pattern) {
    if (pattern.empty() || (_keep && _seen.count(pattern) != 0)) return;
    _patterns.push_back(pattern);
    if (_exclusions && !_exclusions->_patterns.empty()) _exclusions->erase(pattern);
    if (_keep) _seen.insert(pattern);
  }
  void erase(const std::string& pattern) {
    if (pattern.empty()) return;
    if (!_exclusions) _exclusions = std::make_unique<RefList>(true);
    _exclusions->add(pattern);
  }
  bool isHit(const std::string& text) const {
    if (_patterns.empty()) return false;
    if (_exclusions && _exclusions->isHit(text)) return false;
    for (const auto& p : _patterns) {
      if (refMatch(p.c_str(), text.c_str())) return true;
    }
    return false;
  }
  // The pattern that decides a hit: the shortest literal prefix first, then
  // the earliest added. "*" itself decides at once.
  const std::string* decider(const std::string& text) const {
    for (const auto& p : _patterns) {
      if (p == "*") return &p;
    }
    const std::string* best = nullptr;
    size_t bestPrefix = 0;
    for (const auto& p : _patterns) {
      const size_t prefix = p.find('*') == std::string::npos ? p.size() : p.find('*');
      if (text.compare(0, prefix, p, 0, prefix) != 0 || !refMatch(p.c_str(), text.c_str())) continue;
      if (best == nullptr || prefix < bestPrefix) {
        best = &p;
        bestPrefix = prefix;
      }
    }
    return best;
  }

 private:
  bool _keep;
  std::vector<std::string> _patterns;
  std::set<std::string> _seen;
  std::unique_ptr<RefList> _exclusions;
};

TEST(WildcardList, EmptyListAndEmptyPatterns) {
  WildcardList list(true);
  EXPECT_FALSE(list.isHit(""));
  EXPECT_FALSE(list.isHit("a"));
  list.processToken("");
  list.erase("");
  EXPECT_EQ(0u, list.size());
  EXPECT_EQ(nullptr, list.getExclusions());
  list.erase("a");  // exclusions alone are no patterns
  EXPECT_FALSE(list.isHit("b"));
}

TEST(WildcardList, FilesPatternsByPrefix) {
  WildcardList list(true);
  for (const char* p : {"abc", "abd*", "*x", "abc", "a"}) list.processToken(p);
  EXPECT_EQ(4u, list.size());  // the repeated "abc" was ignored
  EXPECT_EQ(4u, list.getNodeCount());  // a, ab, abc, abd
  EXPECT_EQ((std::set<Str>{"*x", "a", "abc", "abd*"}), list.getPatterns());
  EXPECT_EQ(1u, list.getRoot().entries().size());  // "*x"
  EXPECT_EQ(1u, list.getRoot().getChildCount());

  WildcardList counting(false);
  counting.processToken("abc");
  counting.processToken("abc");
  EXPECT_EQ(2u, counting.size());
  EXPECT_TRUE(counting.getPatterns().empty());

  ITokenHandler& handler = counting;
  handler.processToken(Str("q*"), true);
  EXPECT_TRUE(counting.isHit("qq"));
}

TEST(WildcardList, ClearStartsOver) {
  WildcardList list(true);
  list.processToken("*");
  list.processToken("ab*");
  list.erase("abc");
  list.clear();
  EXPECT_EQ(0u, list.size());
  EXPECT_EQ(0u, list.getNodeCount());
  EXPECT_EQ(nullptr, list.getExclusions());
  EXPECT_TRUE(list.getPatterns().empty());
  EXPECT_FALSE(list.isHit("abc"));
  list.processToken("abc");
  EXPECT_TRUE(list.isHit("abc"));
  EXPECT_FALSE(list.isHit("xyz"));
}

// Random additions and erasures against the loop over every pattern. The
// reference holds the list's rules: an erased pattern excludes what it
// matches, even from "*", until it is added again; the span reported is that
// of the deciding pattern, "*" first, then the shortest literal prefix, so
// a pattern at the root beats longer prefixes.
TEST(WildcardList, AgreesWithBruteForce) {
  std::mt19937 rng(555);
  const char alphabet[] = "abc*";
  auto randomPattern = [&](int maxLen) {
    std::string s;
    for (int i = 0, n = static_cast<int>(rng() % (maxLen + 1)); i < n; ++i) {
      s.push_back(alphabet[rng() % (rng() % 3 == 0 ? 4 : 3)]);
    }
    return s;
  };
  for (int round = 0; round < 60; ++round) {
    const bool keep = round % 2 == 0;
    WildcardList list(keep);
    RefList ref(keep);
    for (int op = 0; op < 40; ++op) {
      const std::string p = randomPattern(5);
      if (rng() % 4 == 0) {
        list.erase(p);
        ref.erase(p);
      } else {
        list.processToken(p);
        ref.add(p);
      }
    }
    for (int t = 0; t < 300; ++t) {
      std::string text;
      for (int i = 0, n = static_cast<int>(rng() % 7); i < n; ++i) text.push_back("abc"[rng() % 3]);
      SCOPED_TRACE("round " + std::to_string(round) + " text '" + text + "'");
      const bool expected = ref.isHit(text);
      ASSERT_EQ(expected, list.isHit(text));
      size_t start = 99;
      size_t end = 99;
      ASSERT_EQ(expected, list.isHit(text, start, end));
      if (expected) {
        const std::string* decider = ref.decider(text);
        ASSERT_NE(nullptr, decider);
        size_t s = 0;
        size_t e = text.size();
        if (*decider != "*") WildcardMatcher(decider->c_str()).isMatch(StrSegment(text), s, e);
        ASSERT_EQ(s, start) << *decider;
        ASSERT_EQ(e, end) << *decider;
      }
    }
  }
}

TEST(WildcardList, ScalesToManyPatterns) {
  WildcardList list;
  for (int i = 0; i < 1000; ++i) list.processToken("host" + std::to_string(i) + "*");
  EXPECT_TRUE(list.isHit("host999.example"));
  EXPECT_TRUE(list.isHit("host5"));
  EXPECT_FALSE(list.isHit("hos"));
  EXPECT_FALSE(list.isHit("web1"));
  // A long prefix makes a deep trie; tearing it down must not recurse.
  WildcardList deep;
  deep.processToken(std::string(200000, 'a') + "*");
  EXPECT_TRUE(deep.isHit(std::string(200001, 'a')));
}

}  // namespace
