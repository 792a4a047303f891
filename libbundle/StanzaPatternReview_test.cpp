// Stanza names turned into patterns: the regular expression each name
// becomes, which contexts it covers, and which names stay plain names.
#include "libbundle/StanzaPattern.h"

#include <gtest/gtest.h>

#include "util/Regex.h"

namespace {

bool covers(const char* stanza, const char* context) {
  const Regex* regex = getRegexPatternFromFilePattern(stanza, true);
  return regex != nullptr && regex->matchesWhole(context);
}

TEST(StanzaPatternReview, ConvertsWildcardsAndEscapesLoneDots) {
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
  };
  for (const auto& c : kCases) {
    const Regex* regex = getRegexPatternFromFilePattern(c.name, false);
    ASSERT_NE(nullptr, regex) << c.name;
    EXPECT_EQ(c.regex, regex->getPattern()) << c.name;
    // The flag changes nothing: the same compiled form either way.
    EXPECT_EQ(regex, getRegexPatternFromFilePattern(c.name, true)) << c.name;
  }
}

TEST(StanzaPatternReview, PlainNamesHaveNoPattern) {
  for (const char* name : {"syslog", "a...b", "source::", "source::a.b", "source::a?b",
                           "HOST::web01",  // only the lower-case prefix is a host stanza
                           "Host::web01", "hosts::web01"}) {
    EXPECT_EQ(nullptr, getRegexPatternFromFilePattern(name, false)) << name;
    EXPECT_EQ(nullptr, getRegexPatternFromFilePattern(name, true)) << name;
  }
}

TEST(StanzaPatternReview, CoversOnlyWholeContexts) {
  const struct {
    const char* stanza;
    const char* context;
    bool covered;
  } kCases[] = {
      {"source::/var/log/*.log", "source::/var/log/.log", true},  // "*" may be empty
      {"source::/var/log/*.log", "source::/var/log/sub/x.log", false},  // "*" stops at "/"
      {"source::/var/log/*.log", "source::/var/log/x.log\n", false},  // the very end
      {"source::/var/log/*.log", "source::/VAR/log/x.log", false},    // case counts
      {"source::/VAR/log/*.log", "source::/var/log/x.log", false},
      {"source::/var/log/*.log", "host::/var/log/x.log", false},  // the prefix is part of it
      {"source::/var/log/*", "source::/var/log/", true},
      {"source::(a|b)*.log", "source::b1.log", true},
      {"source::(a|b)*.log", "source::c1.log", false},
      {"host::web01", "host::web01", true},
      {"host::WEB*", "host::web-a", true},
      {"host::web01", "HOST::web01", false},  // the caseless part starts after "::"
      {"host::web*", "host::web/01", false},
      {"host::web...", "host::web/01", true},
      {"rule::acc*", "rule::access", true},
      {"rule::acc*", "rule::Access", false},
      // The part up to "::" is taken as it is written, regex syntax and all.
      {"a.b::*", "axb::x", true},
      {"a.b::*", "a.b::x", true},
      {"a+::*", "aaa::x", true},
      {"(x::*", "(x::y", false},  // does not compile
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.covered, covers(c.stanza, c.context)) << c.stanza << " on " << c.context;
  }
}

TEST(StanzaPatternReview, PatternThatDoesNotCompileNeverMatches) {
  for (const char* name : {"source::(*.log", "source::[*", "host::(web"}) {
    const Regex* regex = getRegexPatternFromFilePattern(name, false);
    if (regex == nullptr) continue;  // no pattern at all matches nothing either
    for (const char* context : {"source::(x.log", "source::[x", "host::(web", "", "x"}) {
      EXPECT_FALSE(regex->matchesWhole(context)) << name << " on " << context;
    }
  }
}

}  // namespace
