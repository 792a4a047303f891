#include "libbundle/StanzaPattern.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <thread>
#include <vector>

#include "util/Regex.h"
#include "util/testing/LogCapture.h"

namespace {

bool patternMatches(const Str& stanza, const Str& context) {
  const Regex* regex = getRegexPatternFromFilePattern(stanza, false);
  return regex != nullptr && regex->matchesWhole(context);
}

TEST(StanzaPattern, MatchesWholeContextByItsWildcards) {
  const struct {
    const char* stanza;
    const char* context;
    bool matches;
  } kCases[] = {
      {"source::/var/log/*.log", "source::/var/log/x.log", true},
      {"source::/var/*.log", "source::/var/log/x.log", false},  // "*" stops at "/"
      {"source::/var/....log", "source::/var/log/x.log", true},  // "..." crosses "/"
      {"source::/var/....log", "source::/var/log/xlog", false},  // the fourth "." is literal
      {"source::/var/log/*.log", "source::/var/log/x.log.1", false},  // whole string
      {"source::/var/log/*.log", "xsource::/var/log/x.log", false},
      {"source::*.log", "source::a.log", true},
      {"source::*.log", "source::a.LOG", false},  // source patterns keep case
      {"source::/VAR/...", "source::/var/x", false},
      {"source::/var/[ab]*", "source::/var/bx", true},  // regex syntax stays active
      {"source::/var/[ab]*", "source::/var/cx", false},
      {"host::web*", "host::WEB01", true},  // host patterns ignore case
      {"host::web01", "host::WEB01", true},  // even without a wildcard
      {"host::web01", "host::web011", false},
      {"host::web*", "HOST::web01", false},  // but not in the prefix
      {"sourcetype::a*", "sourcetype::abc", true},
      {"sourcetype::a*", "sourcetype::a/b", false},
      {"source::*", "source::", true},
      {"source::(*", "source::(x", false},  // does not compile: never matches
      {"source::/var/log/*.log", "source::/var/log/.log", true},  // "*" may be empty
      {"source::/var/log/*.log", "source::/var/log/x.log\n", false},  // the very end
      {"source::/var/log/*.log", "source::/VAR/log/x.log", false},
      {"source::/var/log/*.log", "host::/var/log/x.log", false},  // the prefix is part of it
      {"host::WEB*", "host::web-a", true},
      {"host::web*", "host::web/01", false},
      {"host::web...", "host::web/01", true},
      {"rule::acc*", "rule::access", true},  // any prefix before "::"
      {"rule::acc*", "rule::Access", false},
      // The part up to "::" is taken as it is written, regex syntax and all.
      {"a.b::*", "axb::x", true},
      {"a.b::*", "a.b::x", true},
      {"a+::*", "aaa::x", true},
      {"(x::*", "(x::y", false},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.matches, patternMatches(c.stanza, c.context)) << c.stanza << " vs " << c.context;
  }
}

TEST(StanzaPattern, NamesThatApplyOnlyExactlyHaveNoRegex) {
  for (const char* name : {"access*", "default", "", "source::/var/log/x.log", "a:b*",
                           "source:/x/*", "sourcetype::plain", "...", "*", "syslog", "a...b",
                           "source::", "source::a.b", "source::a?b",
                           "HOST::web01",  // only the lower-case prefix is a host stanza
                           "Host::web01", "hosts::web01"}) {
    EXPECT_EQ(nullptr, getRegexPatternFromFilePattern(name, false)) << name;
    EXPECT_EQ(nullptr, getRegexPatternFromFilePattern(name, true)) << name;
  }
}

TEST(StanzaPattern, BuiltOnceAndLoggedOnce) {
  ScopedLogCapture capture("StanzaPattern");
  const Regex* first = getRegexPatternFromFilePattern("source::/once/*.log", false);
  const Regex* second = getRegexPatternFromFilePattern("source::/once/*.log", true);
  ASSERT_NE(nullptr, first);
  EXPECT_EQ(first, second);
  EXPECT_EQ("source::/once/[^/]*\\.log", first->getPattern());
  EXPECT_EQ(std::vector<std::string>{"INFO Expanded file pattern source::/once/*.log into "
                                     "source::/once/[^/]*\\.log"},
            capture.lines());
}

TEST(StanzaPattern, ConvertsWildcardsAndEscapesLoneDots) {
  const struct {
    const char* name;
    const char* regex;
  } kCases[] = {
      {"source::/var/log/*.log", "source::/var/log/[^/]*\\.log"},
      {"source::/var/....log", "source::/var/.*\\.log"},
      {"source::...", "source::.*"},
      {"source::*", "source::[^/]*"},
      {"source::a..b*", "source::a\\.\\.b[^/]*"},  // two dots are no ellipsis
      {"source::.....", "source::.*\\.\\."},        // the ellipsis is taken first
      {"source::x::*", "source::x::[^/]*"},         // only the first "::" splits
      {"source::(a|b)*", "source::(a|b)[^/]*"},     // regex syntax stays active
      {"rule::acc*", "rule::acc[^/]*"},             // any prefix before "::"
      {"::*", "::[^/]*"},
      {"a.b::*", "a.b::[^/]*"},  // the prefix is not converted
      {"host::web01", "host::(?i)web01"},
      {"host::", "host::(?i)"},
      {"host::web*.example.com", "host::(?i)web[^/]*\\.example\\.com"},
      {"host::a...b", "host::(?i)a.*b"},
      {"host::db.*", "host::(?i)db\\.[^/]*"},
  };
  for (const auto& c : kCases) {
    const Regex* regex = getRegexPatternFromFilePattern(c.name, false);
    ASSERT_NE(nullptr, regex) << c.name;
    EXPECT_EQ(c.regex, regex->getPattern()) << c.name;
    // The flag changes nothing: the same compiled form either way.
    EXPECT_EQ(regex, getRegexPatternFromFilePattern(c.name, true)) << c.name;
  }
}

TEST(StanzaPattern, PatternThatDoesNotCompileNeverMatches) {
  for (const char* name : {"source::(*.log", "source::[*", "host::(web"}) {
    const Regex* regex = getRegexPatternFromFilePattern(name, false);
    ASSERT_NE(nullptr, regex) << name;
    for (const char* context : {"source::(x.log", "source::[x", "host::(web", "", "x"}) {
      EXPECT_FALSE(regex->matchesWhole(context)) << name << " on " << context;
    }
  }
}

TEST(StanzaPattern, RacingThreadsAllGetTheSameRegex) {
  constexpr int kThreads = 8;
  constexpr int kNames = 50;
  std::vector<std::vector<const Regex*>> seen(kThreads, std::vector<const Regex*>(kNames));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &seen] {
      for (int n = 0; n < kNames; ++n) {
        seen[t][n] = getRegexPatternFromFilePattern(Str().format("source::/race/%d/*", n), false);
      }
    });
  }
  for (std::thread& th : threads) th.join();
  for (int n = 0; n < kNames; ++n) {
    ASSERT_NE(nullptr, seen[0][n]);
    for (int t = 1; t < kThreads; ++t) EXPECT_EQ(seen[0][n], seen[t][n]) << n;
  }
}

TEST(RegexMatchKey, SortsTypeThenPriorityDescendingThenNameAscending) {
  // In the order they must come out.
  const std::vector<RegexMatchKey> kOrder = {
      {SOURCE_USER, 0, "z"},
      {SOURCE_APP, 1000, "a"},
      {SOURCE_APP, 100, "b"},
      {SOURCE_APP, 100, "c"},
      {SOURCE_APP, 0, "A"},
      {SOURCE_SYSTEM_DEFAULT, 18446744073709551615ull, ""},
      {SOURCE_SYSTEM_DEFAULT, 5, "a"},
  };
  std::vector<RegexMatchKey> shuffled(kOrder.rbegin(), kOrder.rend());
  std::rotate(shuffled.begin(), shuffled.begin() + 3, shuffled.end());
  std::set<RegexMatchKey> sorted(shuffled.begin(), shuffled.end());
  ASSERT_EQ(kOrder.size(), sorted.size());
  auto it = sorted.begin();
  for (const RegexMatchKey& want : kOrder) {
    EXPECT_EQ(want.stanzaName, it->stanzaName);
    EXPECT_EQ(want.priority, it->priority);
    ++it;
  }
}

}  // namespace
