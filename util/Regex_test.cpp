#include "util/Regex.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

#include "util/RegexMatch.h"
#include "util/testing/ThrownText.h"

namespace {

// The whole match of `pattern` over `subject` in `mode`, or "<none>".
std::string matchText(const Regex& r, const std::string& subject, Regex::MatchMode mode) {
  StrSegment s(subject);
  RegexMatch m;
  if (!r.matchBase(s, &m, false, mode)) return "<none>";
  EXPECT_TRUE(m.isValid());
  return std::string(m.getMatch().view());
}

TEST(Regex, EmptyPatternMatchesNothing) {
  const Regex empty("");
  EXPECT_FALSE(empty.isCompiled());
  for (const char* subject : {"", "a", "anything at all"}) {
    StrSegment s(subject);
    RegexMatch m;
    EXPECT_FALSE(empty.match(s, &m, false, false)) << subject;
    EXPECT_FALSE(empty.match(s, &m, false, true)) << subject;
    EXPECT_FALSE(empty.matchesPartial(subject, &m)) << subject;
    EXPECT_FALSE(m.isValid());
    EXPECT_EQ(StrSegment::npos, StrSegment::mem_regexmatch(empty, subject, s.size(), false, false));
  }
  const Regex unset;
  StrSegment s("x");
  EXPECT_FALSE(unset.match(s));
}

TEST(Regex, MatchesInEachMode) {
  const struct {
    const char* pattern;
    int options;
    const char* subject;
    const char* search;   // whole match in mode 0
    const char* whole;    // mode 1
    const char* partial;  // mode 2
  } kCases[] = {
      {"a|ab", 0, "ab", "a", "ab", "a"},  // whole mode must try the longer branch
      {"abc", 0, "xab", "<none>", "<none>", "ab"},  // the subject ends inside the pattern
      {"b", 0, "ab", "b", "<none>", "b"}, {"abc", 0, "xabc", "abc", "<none>", "abc"},
      {"\\d{4}-\\d\\d", 0, "on 2009-1", "<none>", "<none>", "2009-1"}, {"x*", 0, "", "", "", ""},
      {"^.$", 0, "\xc3\xa9", "\xc3\xa9", "\xc3\xa9", "\xc3\xa9"},  // one character, two bytes
      {"HELLO", Regex::CASELESS, "say hello", "hello", "<none>", "hello"},
      {"a.b", 0, "a\nb", "<none>", "<none>", "<none>"},
      {"a.b", Regex::DOTALL, "a\nb", "a\nb", "a\nb", "a\nb"},
      {"^b", Regex::MULTILINE, "a\nb", "b", "<none>", "b"},
      {"a b", Regex::EXTENDED, "ab", "ab", "ab", "ab"},
      {"a+", Regex::UNGREEDY, "aaa", "a", "aaa", "a"},
      {"a\\Q", 0, "a", "a", "a", "a"},  // its whole-string form does not compile
      {"a\\Q", 0, "ba", "a", "<none>", "a"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.pattern);
    SCOPED_TRACE(c.subject);
    for (bool study : {true, false}) {
      const Regex r(c.pattern, study, c.options);
      EXPECT_EQ(c.search, matchText(r, c.subject, Regex::MATCH_SEARCH)) << study;
      EXPECT_EQ(c.whole, matchText(r, c.subject, Regex::MATCH_WHOLE)) << study;
      EXPECT_EQ(c.partial, matchText(r, c.subject, Regex::MATCH_PARTIAL)) << study;
    }
  }
}

TEST(Regex, WholeStringFormFallsBackWhenItDoesNotCompile) {
  EXPECT_TRUE(Regex("a|ab").hasWholeStringForm());
  // "\Q" quotes the closing ")\z" of the whole-string form.
  const Regex quoted("a\\Q");
  EXPECT_FALSE(quoted.hasWholeStringForm());
  EXPECT_TRUE(quoted.matchesWhole("a"));
  EXPECT_FALSE(quoted.matchesWhole("aa"));
}

TEST(Regex, RejectsPatternsThatDoNotCompile) {
  const struct { const char* pattern; int options; const char* message; } kCases[] = {
      {"a(", 0, "Regex: missing closing parenthesis"},
      {"[z-a]", 0, "Regex: range out of order in character class"},
      {"(?<n>a)(?<n>b)", 0, "Regex: two named subpatterns have the same name (PCRE2_DUPNAMES not set)"},
      {"\\", 0, "Regex: \\ at end of pattern"},
      {"\xff", 0, "Regex: UTF-8 error: illegal byte (0xfe or 0xff)"},
      {"\xff", Regex::NO_UTF8_CHECK, "Regex: UTF-8 error: illegal byte (0xfe or 0xff)"},
      {"a", Regex::NEVER_UTF, "Regex: using UTF is disabled by the application"},
      {"a", 0x400, "Regex: unrecognised compile-time option bit(s)"},    // NOTEMPTY: match time
      {"a", 0x80, "Regex: unrecognised compile-time option bit(s)"},     // NOTBOL: match time
      {"a", 0x8000, "Regex: unrecognised compile-time option bit(s)"},   // PARTIAL_SOFT
      {"a", 0x600000, "Regex: inconsistent newline options"},
      {"a", 0x700000, "Regex: inconsistent newline options"},
      {"a", Regex::BSR_ANYCRLF | Regex::BSR_UNICODE, "Regex: inconsistent \\R options"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.pattern);
    Regex r;
    EXPECT_EQ(c.message,
              thrownText<RegexException>([&] { r._internal_init(c.pattern, true, c.options); }));
    EXPECT_FALSE(r.isCompiled());
    EXPECT_FALSE(r.matches("a"));
  }
  // The same names are fine when duplicates are allowed.
  EXPECT_TRUE(Regex("(?<n>a)|(?<n>b)", true, Regex::DUPNAMES).matches("b"));
}

// Every bit of the classic option word that PCRE2 can express is taken,
// and the newline and \R conventions change what the pattern means.
TEST(Regex, ClassicOptionWordKeepsItsMeaning) {
  const struct { const char* pattern; int options; const char* subject; bool hit; } kRows[] = {
      // Accepted and without effect: EXTRA is PCRE2's only behaviour, and
      // the pattern is checked for UTF-8 all the same.
      {"ab", Regex::EXTRA, "xaby", true},
      {"ab", Regex::NO_UTF8_CHECK, "xaby", true},
      {"ab", Regex::AUTO_CALLOUT | Regex::NO_AUTO_POSSESS | Regex::NO_START_OPTIMIZE, "ab", true},
      // Newline conventions decide where ^ and $ stand in multiline mode.
      {"^b$", Regex::MULTILINE, "a\nb\nc", true},
      {"^b$", Regex::MULTILINE | Regex::NEWLINE_CR, "a\nb\nc", false},
      {"^b$", Regex::MULTILINE | Regex::NEWLINE_CR, "a\rb\rc", true},
      {"^b$", Regex::MULTILINE | Regex::NEWLINE_LF, "a\rb\rc", false},
      {"^b$", Regex::MULTILINE | Regex::NEWLINE_CRLF, "a\r\nb\r\nc", true},
      {"^b$", Regex::MULTILINE | Regex::NEWLINE_CRLF, "a\nb\nc", false},
      {"^b$", Regex::MULTILINE | Regex::NEWLINE_ANY, "a\xc2\x85" "b\xe2\x80\xa8" "c", true},
      {"^b$", Regex::MULTILINE | Regex::NEWLINE_ANYCRLF, "a\rb\nc", true},
      {"^b$", Regex::MULTILINE | Regex::NEWLINE_ANYCRLF, "a\xc2\x85" "b\xc2\x85" "c", false},
      {"a.b", Regex::NEWLINE_CR, "a\nb", true},
      {"a.b", Regex::NEWLINE_CR, "a\rb", false},
      // \R: any Unicode line end by default and with BSR_UNICODE; CR, LF and
      // CRLF only with BSR_ANYCRLF.
      {"a\\Rb", 0, "a\xe2\x80\xa8" "b", true},
      {"a\\Rb", Regex::BSR_UNICODE, "a\xe2\x80\xa8" "b", true},
      {"a\\Rb", Regex::BSR_ANYCRLF, "a\xe2\x80\xa8" "b", false},
      {"a\\Rb", Regex::BSR_ANYCRLF, "a\r\nb", true},
      // Compatibility mode: \u is a code point escape, and a reference to
      // a group that did not take part matches the empty string.
      {"\\u0041", Regex::JAVASCRIPT_COMPAT, "A", true},
      {"(a)?\\1b", Regex::JAVASCRIPT_COMPAT, "b", true},
      {"(a)?\\1b", 0, "b", false},
  };
  for (const auto& c : kRows) {
    SCOPED_TRACE(testing::Message() << c.pattern << " options 0x" << std::hex << c.options);
    const Regex r(c.pattern, true, c.options);
    EXPECT_EQ(c.hit, r.matches(c.subject));
  }
  // A newline convention reaches the whole-string form: "." stops at CR.
  const Regex crWhole("a.*", true, Regex::NEWLINE_CR);
  EXPECT_TRUE(crWhole.matchesWhole("a\nb"));
  EXPECT_FALSE(crWhole.matchesWhole("a\rb"));
}

TEST(Regex, ReportsGroupsNamesAndAnchoring) {
  const struct { const char* pattern; int options; int32_t captures; bool anchored; } kCases[] = {
      {"a", 0, 0, false}, {"^a", 0, 0, true}, {"\\Aa", 0, 0, true},
      {"^a", Regex::MULTILINE, 0, false}, {"a", Regex::ANCHORED, 0, true},
      {"(a)(?:b)(c)?", 0, 2, false},
      {"(?<year>\\d+)-(?P<month>\\d+)", 0, 2, false},
      {"(a)(b)", Regex::NO_AUTO_CAPTURE, 0, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.pattern);
    const Regex r(c.pattern, true, c.options);
    EXPECT_EQ(c.captures, r.getCaptureCount());
    EXPECT_EQ(c.anchored, r.isAnchored());
    EXPECT_EQ(c.pattern, r.getPattern());
  }
  const Regex named("(?<year>\\d+)-(x)?(?P<month>\\d+)");
  const std::map<Str, int32_t> expected = {{"month", 3}, {"year", 1}};
  EXPECT_EQ(expected, named.getNameMap());
}

TEST(Regex, AdvanceWalksSuccessiveMatchesAndStopsOnEmpty) {
  const Regex r("([a-z])(\\d)");
  StrSegment s("a1-b2 c3");
  RegexMatch m;
  std::vector<std::string> seen;
  while (r.match(s, &m, true, false)) seen.emplace_back(m.getMatch().view());
  EXPECT_EQ((std::vector<std::string>{"a1", "b2", "c3"}), seen);
  EXPECT_TRUE(s.empty());

  // A pattern that matches the empty string still ends the loop.
  const Regex star("x*");
  StrSegment empty("");
  EXPECT_FALSE(star.match(empty, &m, true, false));
  EXPECT_FALSE(star.matchBase(empty, &m, true, Regex::MATCH_PARTIAL));
  EXPECT_TRUE(star.matchBase(empty, &m, true, Regex::MATCH_WHOLE));
  EXPECT_TRUE(star.match(empty, &m, false, false));

  StrSegment nullSubject(nullptr, 0);
  EXPECT_TRUE(star.match(nullSubject, &m, false, false));
  EXPECT_EQ(0u, m.getMatch().size());
}

TEST(Regex, InvalidUtf8SubjectsDoNotMatch) {
  const Regex r("a");
  for (const char* subject : {"a\xff", "\xc3" "a", "a\xc3\x28", "\xed\xa0\x80" "a", "\xf8\x88\x80\x80\x80"}) {
    SCOPED_TRACE(subject);
    StrSegment s(subject);
    EXPECT_FALSE(r.match(s, nullptr, false, false));
    EXPECT_FALSE(r.matchesPartial(subject, nullptr));
  }
  EXPECT_TRUE(r.matches("\xc3\xa9" "a"));
}

TEST(Regex, PartialMatchCountsAsHitWithGroupsUnset) {
  const Regex r("(\\d+):(\\d+):(\\d+)");
  RegexMatch m;
  const Str cut = "at 12:3";
  ASSERT_TRUE(r.matchesPartial(cut, &m));
  EXPECT_EQ("12:3", m.getMatch().view());
  ASSERT_EQ(3u, m.size());
  for (size_t i = 1; i <= 3; ++i) EXPECT_EQ(nullptr, m.getGroup(i).data()) << i;
  // A complete match wins over a partial one and has its groups.
  const Str whole = "at 12:34:56 and 7";
  ASSERT_TRUE(r.matchesPartial(whole, &m));
  EXPECT_EQ("34", m.getGroup(2).view());
  EXPECT_FALSE(r.matchesPartial("no digits", &m));
}

TEST(Regex, PathologicalPatternsEndAsNonMatches) {
  const std::string as(5000, 'a');
  const struct {
    const char* pattern;
    std::string subject;
    bool expected;
    const char* later;  // matches afterwards: a limit hit leaves no trace
  } kCases[] = {
      {"(a+)+$", as + "b", false, "aa"},
      {"(a|aa)+$", as + "b", false, "aaa"},
      {"(.*a){12}x", as, false, "aaaaaaaaaaaax"},
      {"(a+)+b", as + "b", true, "ab"},  // the same shape that can succeed does
      {"^(a|b)*$", std::string(20000, 'a'), true, "abba"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.pattern);
    for (bool study : {true, false}) {
      const Regex r(c.pattern, study);
      for (auto mode : {Regex::MATCH_SEARCH, Regex::MATCH_WHOLE, Regex::MATCH_PARTIAL}) {
        StrSegment s(c.subject);
        EXPECT_EQ(c.expected, r.matchBase(s, nullptr, false, mode)) << mode << study;
        EXPECT_TRUE(r.matchesWhole(c.later)) << mode << study;
      }
    }
  }
}

TEST(Regex, ManyGroupsAreAllReported) {
  std::string pattern;
  std::string subject;
  for (int i = 0; i < 600; ++i) {
    pattern += "(.)";
    subject.push_back(static_cast<char>('a' + i % 26));
  }
  const Regex r(pattern);
  RegexMatch m;
  ASSERT_TRUE(r.matches(subject, &m));
  ASSERT_EQ(600u, m.size());
  for (size_t i = 1; i <= 600; ++i) {
    ASSERT_EQ(std::string(1, subject[i - 1]), m.getGroup(i).view()) << i;
  }
}

TEST(Regex, CopiesRecompile) {
  Regex original("(?<w>\\w+)@", true, Regex::CASELESS);
  Regex copy(original);
  Regex assigned;
  assigned = original;
  original.cleanup();
  EXPECT_FALSE(original.matches("joe@"));
  for (const Regex* r : {&copy, &assigned}) {
    RegexMatch m;
    ASSERT_TRUE(r->matches("mail JOE@host", &m));
    EXPECT_EQ("JOE", m.getGroup(1).view());
    EXPECT_EQ(1u, r->getNameMap().count("w"));
  }
  Regex moved(std::move(copy));
  EXPECT_TRUE(moved.matches("a@"));
}

TEST(StrSegmentRegex, MemRegexMatchWithItsOwnNewlinesAndAnchors) {
  const size_t npos = StrSegment::npos;
  const struct {
    const char* pattern;
    std::string data;
    bool anchored, whole;
    size_t expected;
  } kCases[] = {
      {"a.b", "a\rb", false, false, npos},  // CR is a newline here
      {"a$", std::string("a\xc2\x85", 3), false, false, 0},  // so is NEL
      {"b", "\xff" "b", false, false, 1},  // invalid bytes are skipped, not fatal
      {"b", "\xff" "b", true, false, npos},  // anchored at the data, not the "b"
      {"b", "ab", false, false, 1}, {"b", "ab", true, false, npos}, {"a|ab", "ab", false, true, 0},
      {"b", "ab", false, true, npos}, {"a$", "a\r", false, false, 0},
      {"^b", "a\r\nb", false, false, npos}, {"(?m)^b", "a\rb", false, false, 2},
      {"a\\Rb", "a\xe2\x80\xa8" "b", false, false, 0}, {"a*b", "*ca\xc6" "byc", true, false, npos},
      {"b", "\xff" "b", false, true, npos}, {"\\xff", "\xff", false, false, npos},
      {"x*", "", false, true, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.pattern);
    const Regex r(c.pattern);
    EXPECT_EQ(c.expected,
              StrSegment::mem_regexmatch(r, c.data.data(), c.data.size(), c.anchored, c.whole));
  }
  // The base matcher keeps the default newline: CR is an ordinary byte.
  EXPECT_TRUE(Regex("a.b").matches("a\rb"));
  EXPECT_FALSE(Regex("a$").matches("a\r"));
}

TEST(StrSegmentRegex, MemRegexMatchFromAStartOffset) {
  const Regex r("\\d+");
  const char* data = "ab12cd34";
  EXPECT_EQ(2u, StrSegment::mem_regexmatch(r, data, 8, 0, false, false));
  EXPECT_EQ(0u, StrSegment::mem_regexmatch(r, data, 8, 2, false, false));
  EXPECT_EQ(0u, StrSegment::mem_regexmatch(r, data, 8, 3, false, false));  // "2cd34"
  EXPECT_EQ(2u, StrSegment::mem_regexmatch(r, data, 8, 4, false, false));
  EXPECT_EQ(StrSegment::npos, StrSegment::mem_regexmatch(r, data, 8, 4, true, false));
  EXPECT_EQ(0u, StrSegment::mem_regexmatch(r, data, 8, 6, true, true));
  EXPECT_EQ(StrSegment::npos, StrSegment::mem_regexmatch(r, data, 8, 8, false, false));
  EXPECT_EQ(StrSegment::npos, StrSegment::mem_regexmatch(r, data, 8, 9, false, false));
  const Regex star("x*");
  EXPECT_EQ(0u, StrSegment::mem_regexmatch(star, data, 8, 8, false, false));
  EXPECT_EQ(0u, StrSegment::mem_regexmatch(star, nullptr, 0, false, false));
}

TEST(StrSegmentRegexDeathTest, NullDataNeedsZeroLength) {
  const Regex r("a");
  EXPECT_DEATH(StrSegment::mem_regexmatch(r, nullptr, 3, false, false), "datalen == 0");
  EXPECT_DEATH(StrSegment::mem_regexmatch(r, nullptr, 3, 1, false, false), "datalen == 0");
}

TEST(Regex, SharedAcrossThreadsGivesIdenticalResults) {
  const Regex patterns[] = {
      Regex("(\\d{4})-(\\d\\d)-(\\d\\d)[T ](\\d\\d):(\\d\\d)"),
      Regex("(?<host>[a-z]+\\d*)\\s+(?<proc>\\w+)\\[(\\d+)\\]"),
      Regex("(a+)+$"),
      Regex("\\b(\\w+)\\s+\\1\\b", false, Regex::CASELESS),
  };
  std::mt19937 rng(1234);
  const char* pieces[] = {"2009-10-11 12:11:13 ", "web01 sshd[42] ", "aaaaaaaaaab ",
                          "the The ", "\xc3\xa9t\xc3\xa9 ", "x", "2009-1", "\xff"};
  std::vector<std::string> subjects;
  for (int i = 0; i < 200; ++i) {
    std::string s;
    for (int j = 0, n = static_cast<int>(rng() % 6); j < n; ++j) s += pieces[rng() % 8];
    subjects.push_back(s);
  }
  // Each result: the mode, the whole match and the groups, flattened.
  auto run = [&](std::vector<std::string>* out) {
    for (const auto& subject : subjects) {
      for (const Regex& r : patterns) {
        for (auto mode : {Regex::MATCH_SEARCH, Regex::MATCH_WHOLE, Regex::MATCH_PARTIAL}) {
          StrSegment s(subject);
          RegexMatch m;
          std::string line = r.matchBase(s, &m, false, mode) ? "+" : "-";
          line += m.getMatch().view();
          for (const auto& g : m.getGroups()) line += "|" + std::string(g.view());
          out->push_back(line);
        }
        out->push_back(std::to_string(
            StrSegment::mem_regexmatch(r, subject.data(), subject.size(), false, false)));
      }
    }
  };
  std::vector<std::string> expected;
  run(&expected);
  std::vector<std::vector<std::string>> results(8);
  std::vector<std::thread> threads;
  for (auto& r : results) {
    threads.emplace_back([&run, &r] {
      for (int round = 0; round < 3; ++round) {
        std::vector<std::string> once;
        run(&once);
        if (round == 0) r = once;
        if (once != r) r.push_back("<diverged>");
      }
    });
  }
  for (auto& t : threads) t.join();
  for (const auto& r : results) EXPECT_EQ(expected, r);
}

}  // namespace
