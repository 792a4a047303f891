// Search strings from the outside: how they are cut into tokens, which
// malformed ones are refused and with what words, how tightly the operators
// bind, and what a search says about rows.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "framework/SearchEvaluator.h"
#include "framework/SearchResults.h"
#include "util/testing/ThrownText.h"

namespace {

std::vector<std::string> tokensOf(const RETokenizer& t) {
  std::vector<std::string> out;
  for (const Str& s : t.tokens()) out.push_back(s);
  return out;
}

struct TokenCase {
  const char* text;
  std::vector<std::string> tokens;
};

TEST(SearchTokenizerReview, ScansQuotesEscapesComparatorsAndParentheses) {
  const TokenCase kCases[] = {
      {"a!=b", {"a", "!=", "b"}},
      {"a>=b", {"a", ">=", "b"}},
      {"a<b", {"a", "<", "b"}},
      {"a<>b", {"a", "<>", "b"}},  // one run of comparator bytes
      {"a==b", {"a", "==", "b"}},
      {"a=b=c", {"a", "=", "b", "=", "c"}},
      {"!x", {"!", "x"}},
      {"x=\"a b\"", {"x", "=", "\"a b\""}},
      {"\"a b\" c", {"\"a b\"", "c"}},
      {"ab\"cd ef\"gh", {"ab", "\"cd ef\"", "gh"}},
      {"a\"\"b", {"a", "\"\"", "b"}},
      {"\"a(b) OR c\"", {"\"a(b) OR c\""}},
      {"a\\ b", {"a\\ b"}},
      {"a\\\"b c", {"a\\\"b", "c"}},
      {"\"a\\\"b c\"", {"\"a\\\"b c\""}},
      {"\\(a\\)", {"\\(a\\)"}},
      {"a\\=b", {"a\\=b"}},
      {"\\\\\"a b\"", {"\\\\", "\"a b\""}},  // an escaped backslash escapes nothing else
      {"(a OR b)", {"(", "a", "OR", "b", ")"}},
      {"x(a)", {"x", "(", "a", ")"}},
      {"a=(b)", {"a", "=", "(", "b", ")"}},
      {"TERM(a b) c", {"TERM(a b)", "c"}},
      {"CASE(Foo Bar)", {"CASE(Foo Bar)"}},
      {"TERM(a(b) c)", {"TERM(a(b)", "c", ")"}},  // up to the first ")"
      {"TERM (a)", {"TERM", "(", "a", ")"}},
      {"xTERM(a)", {"xTERM", "(", "a", ")"}},
      {"  a \t b\nc\r\n", {"a", "b", "c"}},
      {"", {}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(tokensOf(RETokenizer(Str(c.text), true, true)), c.tokens);
  }
}

TEST(SearchTokenizerReview, DirectivesCanBeTurnedOffOneByOne) {
  const struct {
    bool term;
    bool caseDirective;
    std::vector<std::string> tokens;
  } kCases[] = {
      {true, true, {"TERM(a b)", "CASE(c)"}},
      {false, true, {"TERM", "(", "a", "b", ")", "CASE(c)"}},
      {true, false, {"TERM(a b)", "CASE", "(", "c", ")"}},
      {false, false, {"TERM", "(", "a", "b", ")", "CASE", "(", "c", ")"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.term << c.caseDirective);
    EXPECT_EQ(tokensOf(RETokenizer(Str("TERM(a b) CASE(c)"), false, c.term, c.caseDirective)),
              c.tokens);
  }
}

TEST(SearchTokenizerReview, RegexPathCutsAtItsDelimiters) {
  const TokenCase kCases[] = {
      {"a!=b", {"a", "!=", "b"}},
      {"a<=b", {"a", "<=", "b"}},
      {"a>b", {"a", ">", "b"}},
      {"a<>b", {"a", "<", ">", "b"}},
      {"a==b", {"a", "=", "=", "b"}},
      {"!x", {"!x"}},  // "!" alone is no delimiter
      {"a=!b", {"a", "=", "!b"}},
      {"TERM(a b)", {"TERM", "(", "a", "b", ")"}},
      {"x=\"a b\"", {"x", "=", "\"a b\""}},
      {"ab\"cd ef\"gh", {"ab", "\"cd ef\"", "gh"}},
      {"\"a\\\"b c\"", {"\"a\\\"b c\""}},
      {"a\\\"b c", {"a\\\"b", "c"}},
      {"a  \t b", {"a", "b"}},
      {"a", {"a"}},
      {"(a)", {"(", "a", ")"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(tokensOf(RETokenizer(Str(c.text), true, true, true)), c.tokens);
  }
}

std::string parseError(const char* search, bool allowUnbalanced = false) {
  return thrownText<SearchParsingException>(
      [&] { SearchEvaluator e(Str(search), allowUnbalanced); });
}

TEST(SearchGrammarReview, RefusesMalformedSearchesWithTheirMessages) {
  static_assert(std::is_base_of_v<std::exception, SearchParsingException>);
  const struct {
    const char* search;
    const char* message;
  } kCases[] = {
      {"a))", "unbalanced parentheses"},
      {")(", "unbalanced parentheses"},
      {"a !=", "Comparator '!=' is missing a term on the right hand side"},
      {"(x>=)", "Comparator '>=' is missing a term on the right hand side"},
      {"a=OR", "Comparator '=' has an invalid term on the right hand side"},
      {"NOT=b", "Comparator '=' has an invalid term on the left hand side"},
      {"x=1 (index>1)", "Range queries are not supported for index"},
      {"b (AND a)", "'AND' operator is missing a clause on the left hand side"},
      {"(a NOT) b", "NOT requires an argument"},
      {"a NOT OR b", "NOT must not be followed by a binary operator"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.search);
    EXPECT_EQ(parseError(c.search), c.message);
  }
}

TEST(SearchGrammarReview, ComparatorFlagsFollowTheirText) {
  const struct {
    const char* cmp;
    bool negated, lt, gt, eq;
  } kCases[] = {
      {"=", false, false, false, true},  {"!=", true, false, false, true},
      {"<", false, true, false, false},  {"<=", false, true, false, true},
      {">", false, false, true, false},  {">=", false, false, true, true},
      {"::", false, false, false, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.cmp);
    ParseNodeCMP n{Str(c.cmp)};
    EXPECT_EQ(n.isNegated(), c.negated);
    EXPECT_EQ(n.isLT(), c.lt);
    EXPECT_EQ(n.isGT(), c.gt);
    EXPECT_EQ(n.isEQ(), c.eq);
  }
}

TEST(SearchGrammarReview, GroupValueFollowsTheShortCircuitWalk) {
  // -1: undecided child, 0/1: decided.
  const struct {
    bool conj;
    std::vector<int> children;
    bool decided;
    bool value;
  } kCases[] = {
      {true, {}, true, true},
      {false, {}, true, false},
      {true, {1, 1}, true, true},
      {true, {1, 0}, true, false},
      {true, {0, -1}, true, false},
      {true, {1, -1}, false, false},
      {true, {-1, 0}, false, false},  // the walk stops at the undecided child
      {false, {0, 1}, true, true},
      {false, {-1, 1}, true, true},
      {false, {1, -1}, true, true},
      {false, {0, 0}, false, false},  // all false is still undecided in OR
      {false, {0, -1}, false, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.conj << " " << testing::PrintToString(c.children));
    ParseNodeGROUP g(c.conj);
    for (int child : c.children) {
      auto* t = new ParseNodeTERM(Str("t"));
      if (child >= 0) t->setValue(child == 1);
      g.append(t);
    }
    bool out = !c.value;
    EXPECT_EQ(g.getValue(out), c.decided);
    EXPECT_EQ(out, c.value);
  }
}

// One row for a search: "_raw" (absent when null) and other fields; a
// field given several values is set as a multi-value.
struct RowInput {
  const char* raw;
  std::map<std::string, std::vector<std::string>> fields;
};

SearchResult* makeRow(SearchResults& t, const RowInput& input) {
  SearchResult* r = t.addNewResult();
  if (input.raw != nullptr) r->setValue(Str("_raw"), StrSegment(input.raw));
  for (const auto& [name, values] : input.fields) {
    if (values.size() == 1) {
      r->setValue(Str(name), StrSegment(Str(values[0])));
    } else {
      StrVector vs;
      for (const auto& s : values) vs.push_back(Str(s));
      r->setMultiValues(Str(name), vs, StrSegment(" "));
    }
  }
  return r;
}

int matchOf(const char* search, const RowInput& input, const std::set<Str>& ignored = {}) {
  SearchResults t;
  SearchResult* r = makeRow(t, input);
  SearchEvaluator e{Str(search)};
  e.initKeys(t, true);
  return e.isMatch(r, ignored);
}

struct MatchCase {
  const char* search;
  RowInput row;
  bool matches;
};

void expectMatches(const std::vector<MatchCase>& cases) {
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.search << " | raw="
                                    << (c.row.raw ? c.row.raw : "<none>"));
    EXPECT_EQ(matchOf(c.search, c.row) == 1, c.matches);
  }
}

TEST(SearchEvaluatorReview, TermsMatchTokensOfTheRawText) {
  expectMatches({
      {"error", {"an error here", {}}, true},
      {"error", {"an errors here", {}}, false},
      {"err*", {"an error here", {}}, true},
      {"*ror", {"an error here", {}}, true},
      {"ERROR", {"an error here", {}}, true},
      {"error", {"AN ERROR", {}}, true},
      {"10.0.0.1", {"from 10.0.0.1 port", {}}, true},
      {"\"a b\"", {"x a b y", {}}, true},
      {"\"a b\"", {"A B", {}}, true},
      {"\"a b\"", {"a x b", {}}, false},
      {"\"a b\"", {"b a", {}}, false},
      {"\"a b\"", {"xa b", {}}, false},  // the phrase starts at a word boundary
      {"\"a b\"", {"a bc", {}}, false},
      {"\"a* c\"", {"abc c", {}}, true},
      {"a b", {"b a", {}}, true},
      {"a b", {"a", {}}, false},
      {"\"x::y\"", {"see x::y here", {}}, true},
      {"\"x::y\"", {"foo", {{"x", {"y"}}}}, false},  // a term, not a comparison
      {"x::y", {"foo", {{"x", {"y"}}}}, true},
      {"x::y", {"x::y", {{"x", {"z"}}}}, false},
      {"", {"anything", {}}, true},
      {"()", {"anything", {}}, true},
  });
}

TEST(SearchEvaluatorReview, RowsWithoutRawTextCannotBeDisqualifiedByTerms) {
  expectMatches({
      {"error", {nullptr, {{"x", {"1"}}}}, true},
      {"error", {"", {{"x", {"1"}}}}, true},
      {"error x=1", {nullptr, {{"x", {"1"}}}}, true},
      {"error x=1", {nullptr, {{"x", {"2"}}}}, false},
      {"NOT error", {nullptr, {{"x", {"1"}}}}, true},
      {"\"a b\"", {nullptr, {}}, true},
  });
}

TEST(SearchEvaluatorReview, OperatorsBindInTheirOrder) {
  expectMatches({
      // a AND (b OR c)
      {"a b OR c", {"b c", {}}, false},
      {"a b OR c", {"a c", {}}, true},
      {"a b OR c", {"a b", {}}, true},
      // (NOT a) OR b
      {"NOT a OR b", {"a b", {}}, true},
      {"NOT a OR b", {"c", {}}, true},
      // NOT (x=1)
      {"NOT x=1", {"r", {{"x", {"1"}}}}, false},
      {"NOT x=1", {"r", {{"x", {"2"}}}}, true},
      {"NOT (a OR b)", {"a", {}}, false},
      {"NOT (a OR b)", {"c", {}}, true},
      {"NOT (a b)", {"a", {}}, true},
      {"NOT (a b)", {"a b", {}}, false},
      {"NOT NOT a", {"a", {}}, true},
      {"NOT NOT a", {"b", {}}, false},
      {"a OR b OR c", {"c", {}}, true},
      {"a AND b", {"a b", {}}, true},
      {"a AND b", {"a", {}}, false},
      {"x=1 OR y=2", {"r", {{"y", {"2"}}}}, true},
      {"a OR x=1 b", {"b", {{"x", {"1"}}}}, true},
  });
}

TEST(SearchEvaluatorReview, FieldComparisons) {
  expectMatches({
      {"x=1", {"r", {{"x", {"1"}}}}, true},
      {"x=1", {"r", {{"x", {"2"}}}}, false},
      {"x=1", {"r", {}}, false},
      {"x!=1", {"r", {{"x", {"1"}}}}, false},
      {"x!=1", {"r", {{"x", {"2"}}}}, true},
      {"x!=1", {"r", {}}, true},
      {"NOT x=1", {"r", {}}, true},
      {"x=web*", {"r", {{"x", {"WEB01"}}}}, true},
      {"x=web*", {"r", {{"x", {"aweb"}}}}, false},
      {"x=*", {"r", {{"x", {""}}}}, true},
      {"x=*", {"r", {}}, false},
      {"x=\"a b\"", {"r", {{"x", {"a b"}}}}, true},
      {"x=\"a b\"", {"r", {{"x", {"a"}}}}, false},
      {"x>10", {"r", {{"x", {"9"}}}}, false},  // as numbers, not "9" > "10"
      {"x>10", {"r", {{"x", {"10.5"}}}}, true},
      {"x>10", {"r", {{"x", {"10"}}}}, false},
      {"x>=10", {"r", {{"x", {"10"}}}}, true},
      {"x<10", {"r", {{"x", {"10"}}}}, false},
      {"x<=10", {"r", {{"x", {"10"}}}}, true},
      {"x<10", {"r", {{"x", {"-3"}}}}, true},
      {"x<=10", {"r", {{"x", {"1e1"}}}}, true},
      {"x>1e1", {"r", {{"x", {"11"}}}}, true},
      {"x>a", {"r", {{"x", {"b"}}}}, true},
      {"x<a", {"r", {{"x", {"b"}}}}, false},
      {"x=5", {"r", {{"x", {"1", "5"}}}}, true},
      {"x=3", {"r", {{"x", {"1", "5"}}}}, false},
      {"x!=5", {"r", {{"x", {"1", "5"}}}}, false},
      {"x>4", {"r", {{"x", {"1", "5"}}}}, true},
      {"x<2", {"r", {{"x", {"1", "5"}}}}, true},
      {"x>9", {"r", {{"x", {"1", "5"}}}}, false},
  });
}

// Equality against a number compares numbers; several comparisons on one
// field are each decided, whether or not they share a lookup.
TEST(SearchEvaluatorReview, SeveralComparisonsOnOneField) {
  expectMatches({
      {"x=1", {"r", {{"x", {"1.0"}}}}, true},
      {"x=1", {"r", {{"x", {"01"}}}}, true},
      {"x!=1", {"r", {{"x", {"1.0"}}}}, false},
      {"x=\"a\\\"b\"", {"r", {{"x", {"a\"b"}}}}, true},
      {"x=1 x=2", {"r", {{"x", {"1", "2"}}}}, true},
      {"x=1 x=2", {"r", {{"x", {"1"}}}}, false},
      {"x=a* x=*b", {"r", {{"x", {"ab"}}}}, true},
      {"x=a* x=*b", {"r", {{"x", {"ac"}}}}, false},
      {"x!=a* x=ab", {"r", {{"x", {"ab"}}}}, false},
      {"x!=a* OR x=b", {"r", {{"x", {"b"}}}}, true},
      {"x=a* NOT x=ab", {"r", {{"x", {"ab"}}}}, false},
      {"x=a* NOT x=ab", {"r", {{"x", {"abc"}}}}, true},
      {"x=AB*", {"r", {{"x", {"abc"}}}}, true},
      {"x=a*c", {"r", {{"x", {"abc"}}}}, true},
      {"x=a*c x>5", {"r", {{"x", {"abc", "7"}}}}, true},
      {"x=a*c x<5", {"r", {{"x", {"abc", "7"}}}}, false},  // "abc" < "5" as text is false
      {"x=1 OR x=2 OR x=3", {"r", {{"x", {"3"}}}}, true},
      {"_raw=*foo*", {"a foo b", {}}, true},
      {"X=1", {"r", {{"x", {"1"}}}}, false},  // field names keep their case
  });
}

// A row value is a number when strtod reads all of it: leading blanks, hex
// and exponents included.
TEST(SearchEvaluatorReview, RowNumbersAreWhatStrtodReadsInFull) {
  expectMatches({
      {"x<10", {"r", {{"x", {" 70"}}}}, false},
      {"x>=16", {"r", {{"x", {"0x10"}}}}, true},
      {"x<=10", {"r", {{"x", {"1e1"}}}}, true},
  });
}

TEST(SearchEvaluatorReview, IgnoredFieldsLeaveTheRowUndecided) {
  const struct {
    const char* search;
    RowInput row;
    std::set<Str> ignored;
    int result;
  } kCases[] = {
      {"x=1", {"r", {{"x", {"2"}}}}, {Str("x")}, 2},
      {"x=1", {"r", {{"x", {"1"}}}}, {Str("y")}, 1},
      // Children are walked in order: an undecided one stops an AND walk
      // before a later false child is seen.
      {"x=1 a", {"b", {{"x", {"1"}}}}, {Str("x")}, 2},
      {"a x=1", {"b", {{"x", {"1"}}}}, {Str("x")}, 0},
      {"x=1 OR a", {"a", {}}, {Str("x")}, 1},
      {"x=1 y=2", {"r", {{"x", {"1"}}, {"y", {"3"}}}}, {Str("x")}, 2},
      {"y=2 x=1", {"r", {{"x", {"1"}}, {"y", {"3"}}}}, {Str("x")}, 0},
      {"y=3 x=1", {"r", {{"x", {"1"}}, {"y", {"3"}}}}, {Str("x")}, 2},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.search);
    EXPECT_EQ(matchOf(c.search, c.row, c.ignored), c.result);
  }
}

TEST(SearchEvaluatorReview, MissingFieldFailsInclusiveComparisonsAndSatisfiesTheirNegations) {
  const struct {
    const char* search;
    int result;
  } kCases[] = {
      {"x<=5", 0}, {"x>=5", 0}, {"x::5", 0}, {"x=*", 0},
      {"NOT x<=5", 1}, {"NOT x>=5", 1}, {"NOT x::5", 1}, {"x!=*", 1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.search);
    EXPECT_EQ(matchOf(c.search, {"r", {{"y", {"1"}}}}), c.result);
  }
}

std::vector<std::string> rawsOf(const SearchResults& t) {
  std::vector<std::string> out;
  for (size_t i = 0; i < t.size(); ++i) {
    Str s;
    t[i]->getValue(Str("_raw"), s);
    out.push_back(s);
  }
  return out;
}

TEST(SearchEvaluatorReview, FilterKeepsMatchesAndUndecidedRowsOnlyWhenFieldsAreIgnored) {
  {
    SearchResults t;
    for (const char* raw : {"a", "b", "c", "a b"}) makeRow(t, {raw, {}});
    SearchEvaluator e(Str("a"));
    EXPECT_TRUE(e.filter(t, {}, false));
    EXPECT_EQ(rawsOf(t), (std::vector<std::string>{"a", "a b"}));
  }
  {
    SearchResults t;
    makeRow(t, {"r1", {{"x", {"1"}}}});
    makeRow(t, {"r2", {{"x", {"2"}}}});
    SearchEvaluator e(Str("x=1"));
    EXPECT_FALSE(e.filter(t, {Str("x")}, false));
    EXPECT_EQ(rawsOf(t), (std::vector<std::string>{"r1", "r2"}));
    EXPECT_TRUE(e.filter(t, {}, true));
    EXPECT_EQ(rawsOf(t), (std::vector<std::string>{"r1"}));
  }
  {
    SearchResults t;
    for (const char* raw : {"a", "b", "c"}) makeRow(t, {raw, {}});
    SearchEvaluator e(Str("a OR b"));
    e.filter(t, {}, false);
    EXPECT_EQ(rawsOf(t), (std::vector<std::string>{"a", "b"}));
  }
}

}  // namespace
