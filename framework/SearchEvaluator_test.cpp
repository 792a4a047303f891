#include "framework/SearchEvaluator.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "framework/SearchResultsInfo.h"
#include "libbundle/testing/BundleTree.h"
#include "util/WildcardList.h"
#include "util/Timeval.h"

namespace {

StrVector squashAll(const StrVector& values) {
  StrVector out;
  for (const Str& v : values) out.push_back(squashed_str(v));
  return out;
}

struct Case {
  const char* search;
  const char* expect;
};

TEST(SearchEvaluatorTest, GrammarTable) {
  const Case cases[] = {
      {"", "(AND)"},
      {"a", "(AND a)"},
      {"a b", "(AND a b)"},
      {"a AND b", "(AND a b)"},
      {"a OR b", "(OR a b)"},
      {"NOT a", "(AND NOT a)"},
      {"NOT NOT a", "(AND a)"},
      {"NOT NOT NOT a", "(AND NOT a)"},
      {"a b OR c", "(AND a (OR b c))"},
      {"a OR b c", "(AND (OR a b) c)"},
      {"a OR b OR c", "(OR a b c)"},
      {"(a OR b) c", "(AND (OR a b) c)"},
      {"NOT (a OR b)", "(AND NOT a NOT b)"},
      {"NOT (a b)", "(OR NOT a NOT b)"},
      {"NOT (a OR b c)", "(OR (AND NOT a NOT b) NOT c)"},
      {"x=1", "(AND x=1)"},
      {"x!=1", "(AND NOT x=1)"},
      {"x<1", "(AND x<1)"},
      {"x<=1", "(AND x<=1)"},
      {"x>1", "(AND x>1)"},
      {"x>=1", "(AND x>=1)"},
      {"x = 1", "(AND x=1)"},
      {"x=\"a b\"", "(AND x=\"a b\")"},
      {"\"x\"=1", "(AND x=1)"},
      {"NOT x=1", "(AND NOT x=1)"},
      {"NOT x!=1", "(AND x=1)"},
      {"x=1 OR y=2", "(OR x=1 y=2)"},
      {"x=1 y=2", "(AND x=1 y=2)"},
      {"host=web*", "(AND host=web*)"},
      {"error host=web* NOT (a OR b)", "(AND error host=web* NOT a NOT b)"},
      {"\"a b\"", "(AND \"a b\")"},
      {"\"a OR b\"", "(AND \"a OR b\")"},
      {"\"AND\"", "(AND \"AND\")"},
      {"and", "(AND and)"},
      {"or", "(AND or)"},
      {"a and b", "(AND a and b)"},
      {"x::y", "(AND x::y)"},
      {"\"x::y\"", "(AND \"x::y\")"},
      {"NOT x::y", "(AND NOT x::y)"},
      {"index::main", "(AND index::main)"},
      {"(a)", "(AND a)"},
      {"((a))", "(AND a)"},
      {"((a b))", "(AND a b)"},
      {"(a (b c))", "(AND a b c)"},
      {"(a OR (b OR c))", "(OR a b c)"},
      {"((a OR b) OR c)", "(OR a b c)"},
      {"a (b OR c) d", "(AND a (OR b c) d)"},
      {"NOT (NOT a)", "(AND a)"},
      {"NOT (a OR NOT b)", "(AND NOT a b)"},
      {"a AND NOT b", "(AND a NOT b)"},
      {"a OR NOT b", "(OR a NOT b)"},
      {"NOT a OR b", "(OR NOT a b)"},
      {"NOT a b", "(AND NOT a b)"},
      {"a\\ b", "(AND a b)"},
      {"a\\\"b", "(AND a\"b)"},
      {"TERM(a b)", "(AND TERM(a b))"},
      {"CASE(Foo)", "(AND CASE(Foo))"},
      {"TERM (a)", "(AND TERM a)"},
      {"x!=\"\"", "(AND NOT x=\"\")"},
      {"*", "(AND *)"},
      {"meta::all", "(AND meta::all)"},
      {"a*", "(AND a*)"},
      {"*a", "(AND *a)"},
      {"a*b", "(AND a*b)"},
      {"x=a*", "(AND x=a*)"},
      {"a,b", "(AND a,b)"},
      {"a=b OR c=d e=f", "(AND (OR a=b c=d) e=f)"},
      {"(x=1 OR x=2) (y=3 OR y=4)", "(AND (OR x=1 x=2) (OR y=3 y=4))"},
      {"NOT (x=1 OR y<2)", "(AND NOT x=1 NOT y<2)"},
      {"a OR b AND c", "(AND (OR a b) c)"},
      {"a AND b OR c", "(AND a (OR b c))"},
      {"a b c d", "(AND a b c d)"},
      {"a OR b OR c OR d", "(OR a b c d)"},
      {"(a b) OR (c d)", "(OR (AND a b) (AND c d))"},
      {"NOT ((a b) OR c)", "(AND (OR NOT a NOT b) NOT c)"},
      {"x>=-1.5", "(AND x>=-1.5)"},
      {"x<abc", "(AND x<abc)"},
      {"count>10 status!=200", "(AND count>10 NOT status=200)"},
      {"a (b)", "(AND a b)"},
      {"(a) (b)", "(AND a b)"},
      {"(((a OR b)))", "(OR a b)"},
      {"a OR (b)", "(OR a b)"},
      {"foo=\"bar baz\" qux", "(AND foo=\"bar baz\" qux)"},
      {"()", "(AND)"},
      {"NOT NOT", "(AND)"},
  };
  for (const Case& c : cases) {
    try {
      SearchEvaluator ev{Str(c.search)};
      EXPECT_EQ(ev.toString(), c.expect) << c.search;
    } catch (const SearchParsingException& e) {
      ADD_FAILURE() << c.search << ": " << e.what();
    }
  }
}

TEST(SearchEvaluatorTest, BadSearches) {
  static const std::string kDeep(501, '(');
  const Case cases[] = {
      {"a=b=c", "Comparator '=' has an invalid term on the left hand side"},
      {"ip=300.0.0.0/8", "Invalid CIDR subnet: 300.0.0.0/8"},
      {"ip!=10.0.0.0/33", "Invalid CIDR subnet: 10.0.0.0/33"},
      {"ip=10.0.0/8", "Invalid CIDR subnet: 10.0.0/8"},
      {"a)b", "unbalanced parentheses"},
      {"(a", "unbalanced parentheses"},
      {"a)", "unbalanced parentheses"},
      {"a OR", "'OR' operator is missing a clause on the right hand side"},
      {"OR a", "'OR' operator is missing a clause on the left hand side"},
      {"a AND", "'AND' operator is missing a clause on the right hand side"},
      {"AND a", "'AND' operator is missing a clause on the left hand side"},
      {"a OR OR b", "Invalid search: OR OR"},
      {"a OR AND b", "Invalid search: OR AND"},
      {"a AND OR b", "Invalid search: AND OR"},
      {"a AND AND b", "Invalid search: AND AND"},
      {"NOT", "NOT requires an argument"},
      {"a NOT", "NOT requires an argument"},
      {"NOT OR a", "NOT must not be followed by a binary operator"},
      {"NOT AND a", "'AND' operator is missing a clause on the left hand side"},
      {"=", "Comparator '=' is missing a term on the left hand side"},
      {"a=", "Comparator '=' is missing a term on the right hand side"},
      {"=b", "Comparator '=' is missing a term on the left hand side"},
      {"a<", "Comparator '<' is missing a term on the right hand side"},
      {"<b", "Comparator '<' is missing a term on the left hand side"},
      {"(a)=b", "Comparator '=' has an invalid term on the left hand side"},
      {"a=(b)", "Comparator '=' has an invalid term on the right hand side"},
      {"a = = b", "Comparator '=' has an invalid term on the right hand side"},
      {"x=1 = 2", "Comparator '=' has an invalid term on the left hand side"},
      {"index<3", "Range queries are not supported for index"},
      {"index>=main", "Range queries are not supported for index"},
      {"(", "unbalanced parentheses"},
      {")", "unbalanced parentheses"},
      {"((a)", "unbalanced parentheses"},
      {"a b)", "unbalanced parentheses"},
      {"a OR NOT", "NOT requires an argument"},
      {"a AND NOT", "NOT requires an argument"},
      {"x=1 OR", "'OR' operator is missing a clause on the right hand side"},
      {"OR OR", "'OR' operator is missing a clause on the left hand side"},
      {"AND", "'AND' operator is missing a clause on the left hand side"},
      {"OR", "'OR' operator is missing a clause on the left hand side"},
      {"a OR b OR", "'OR' operator is missing a clause on the right hand side"},
      {"(a OR) b", "'OR' operator is missing a clause on the right hand side"},
      {"(OR a)", "'OR' operator is missing a clause on the left hand side"},
      {"a=b<c", "Comparator '<' has an invalid term on the left hand side"},
      {kDeep.c_str(), "Parentheses nested deeper than 500"},
  };
  for (const Case& c : cases) {
    try {
      SearchEvaluator ev{Str(c.search)};
      ADD_FAILURE() << c.search << " parsed as " << ev.toString();
    } catch (const SearchParsingException& e) {
      EXPECT_STREQ(e.what(), c.expect) << c.search;
    }
  }
}

TEST(SearchEvaluatorTest, UnbalancedAllowedAndMessages) {
  const std::string deepest = std::string(500, '(') + "a" + std::string(500, ')');
  EXPECT_EQ(SearchEvaluator(Str(deepest)).toString(), "(AND a)");
  SearchEvaluator ev(Str("(a OR b"), true);
  EXPECT_EQ(ev.toString(), "(OR a b)");
  EXPECT_THROW(SearchEvaluator(Str("a)"), true), SearchParsingException);
  SearchEvaluator q(Str("\"x::y\""));
  SearchResultsInfo info;
  q.getMessages(info);
  const char* kText = "Searching for \"x::y\" will match literal pattern, not x=y";
  EXPECT_EQ(info.messages().at("DEBUG"), std::set<Str>{kText});
  EXPECT_EQ(q.root()->messages().at("DEBUG").at("SEARCHEVALUATOR_COLON_DEPRECATED"), kText);
}

TEST(SearchEvaluatorTest, Tokenizer) {
  struct T {
    const char* in;
    StrVector out;
  } cases[] = {
      {"a!=b", {"a", "!=", "b"}},
      {"x>=\"1 2\")", {"x", ">=", "\"1 2\"", ")"}},
      {"TERM(a b) c", {"TERM(a b)", "c"}},
      {"CASE(X)(y)", {"CASE(X)", "(", "y", ")"}},
      {"a\\ b\t c", {"a\\ b", "c"}},
      {"\"q\\\"x\"y", {"\"q\\\"x\"", "y"}},
      {"  ", {}},
  };
  for (const T& t : cases) EXPECT_EQ(RETokenizer(t.in).tokens(), t.out) << t.in;
  EXPECT_EQ(RETokenizer("TERM(a b)", false).tokens(), (StrVector{"TERM", "(", "a", "b", ")"}));
}

// Rows for evaluation: _raw plus fields.
SearchResult* addRow(SearchResults& sr, const char* raw, std::map<Str, Str> fields) {
  SearchResult* r = sr.addNewResult();
  if (raw != nullptr) r->setValue(Str("_raw"), raw);
  for (auto& [k, v] : fields) r->setValue(k, v);
  return r;
}

TEST(SearchEvaluatorTest, MatchTable) {
  SearchResults sr;
  SearchResult* r0 = addRow(sr, "ERROR at host web01: disk full", {{"host", "web01"}, {"n", "15"}});
  SearchResult* r1 = addRow(sr, "info ok", {{"host", "db02"}, {"n", "abc"}});
  SearchResult* r2 = addRow(sr, nullptr, {{"n", "-2.5"}});
  struct M {
    const char* search;
    int expect[3];
  } cases[] = {
      {"error", {1, 0, 1}},
      {"err*", {1, 0, 1}},
      {"NOT error", {0, 1, 1}},
      {"host=web*", {1, 0, 0}},
      {"host!=web*", {0, 1, 1}},
      {"n>10", {1, 1, 0}},  // "abc" > "10" as text
      {"n<=-2.5", {0, 0, 1}},
      {"n>abb", {0, 1, 0}},
      {"n<2", {0, 0, 1}},
      {"\"disk full\"", {1, 0, 1}},
      {"\"full disk\"", {0, 0, 1}},
      {"web01:", {1, 0, 1}},
      {"error OR ok", {1, 1, 1}},
      {"HOST=WEB01", {0, 0, 0}},
      {"host=WEB01", {1, 0, 0}},
      {"*", {1, 1, 1}},
      {"", {1, 1, 1}},
  };
  for (const M& m : cases) {
    SearchEvaluator ev{Str(m.search)};
    for (int i = 0; i < 3; ++i) EXPECT_EQ(ev.isMatch(sr[i], {}), m.expect[i]) << m.search << " row " << i;
  }
  (void)r0;
  (void)r1;
  (void)r2;
  SearchEvaluator ev(Str("n<20 host=web*"));
  EXPECT_EQ(ev.isMatch(sr[0], {"host"}), 2);
  EXPECT_EQ(ev.isMatch(sr[1], {"host"}), 0);
  SearchResults copy;
  copy.append(sr);
  EXPECT_FALSE(ev.filter(copy, {"host"}, false));
  EXPECT_EQ(copy.size(), 2u);  // rows 0 and 2 wait on the ignored field
  SearchResults copy2;
  copy2.append(sr);
  EXPECT_TRUE(ev.filter(copy2, {}, false));
  ASSERT_EQ(copy2.size(), 1u);
  Str h;
  EXPECT_TRUE(copy2[0]->getValue(Str("host"), h));
  EXPECT_EQ(h, "web01");
}

TEST(SearchEvaluatorTest, LispyAndKeywords) {
  struct L {
    const char* search;
    const char* lispy;
  } cases[] = {
      {"a b", "(and a b)"},
      {"a OR NOT b", "(or a (not b))"},
      {"x=1 y<3", "(and 1 *)"},  // x is not indexed: its value is a term
      {"x::Web", "(and x::web)"},
      {"\"a b\" c", "(and (and a b) c)"},
      {"NOT \"a* b\"", "(and *)"},
      {"x!=1", "(and *)"},  // another 1 may stand in the text
      {"a\\ b", "(and a\\ b)"},
  };
  for (const L& l : cases) {
    SearchEvaluator ev{Str(l.search)};
    EXPECT_EQ(ev.lispyQuery()->toString(), l.lispy) << l.search;
  }
  SearchEvaluator ev(Str("Foo NOT bar x=1 y>2 *"));
  std::set<Str> kw, fields;
  ev.getKeywords(kw);
  ev.getFields(fields);
  EXPECT_EQ(kw, std::set<Str>{"foo"});
  EXPECT_EQ(fields, (std::set<Str>{"x", "y"}));
}

// Random trees over a few terms and comparisons, checked against a direct
// evaluation of the same tree.
struct RandTree {
  // kind 0: term, 1: cmp, 2: AND, 3: OR, 4: NOT
  int kind = 0;
  std::string text;
  std::vector<RandTree> kids;
};

const char* kTerms[] = {"alpha", "beta", "gamma", "del*"};
const char* kCmps[] = {"f=1", "f>2", "g!=x", "g=y*", "f<=3"};

RandTree randTree(std::mt19937& rng, int depth) {
  RandTree t;
  t.kind = depth <= 0 ? static_cast<int>(rng() % 2) : static_cast<int>(rng() % 5);
  if (t.kind == 0) t.text = kTerms[rng() % 4];
  if (t.kind == 1) t.text = kCmps[rng() % 5];
  if (t.kind == 2 || t.kind == 3) {
    size_t n = 1 + rng() % 3;
    for (size_t i = 0; i < n; ++i) t.kids.push_back(randTree(rng, depth - 1));
  }
  if (t.kind == 4) t.kids.push_back(randTree(rng, depth - 1));
  return t;
}

std::string render(const RandTree& t) {
  switch (t.kind) {
    case 0:
    case 1:
      return t.text;
    case 4:
      return "NOT (" + render(t.kids[0]) + ")";
    default: {
      std::string s = "(";
      for (size_t i = 0; i < t.kids.size(); ++i) {
        if (i) s += t.kind == 2 ? " AND " : " OR ";
        s += "(" + render(t.kids[i]) + ")";
      }
      return s + ")";
    }
  }
}

struct RefRow {
  std::set<std::string> words;
  const char* f;  // nullptr: missing
  const char* g;
};

bool refEval(const RandTree& t, const RefRow& r) {
  switch (t.kind) {
    case 0:
      if (t.text == "del*") {
        for (const std::string& w : r.words)
          if (w.compare(0, 3, "del") == 0) return true;
        return false;
      }
      return r.words.count(t.text) > 0;
    case 1: {
      if (t.text[0] == 'f') {
        // A missing field holds where the comparison has no "or equal".
        if (r.f == nullptr) return t.text == "f>2";
        double v = atof(r.f);
        if (t.text == "f=1") return v == 1;
        if (t.text == "f>2") return v > 2;
        return v <= 3;
      }
      if (r.g == nullptr) return t.text == "g!=x";
      std::string g = r.g;
      if (t.text == "g!=x") return g != "x";
      return g.compare(0, 1, "y") == 0;
    }
    case 2:
      for (const RandTree& k : t.kids)
        if (!refEval(k, r)) return false;
      return true;
    case 3:
      for (const RandTree& k : t.kids)
        if (refEval(k, r)) return true;
      return false;
    default:
      return !refEval(t.kids[0], r);
  }
}

TEST(SearchEvaluatorTest, PropertiesAgainstReference) {
  std::mt19937 rng(777);
  const char* allWords[] = {"alpha", "beta", "gamma", "delta", "zeta"};
  const char* fv[] = {nullptr, "1", "2.5", "4", "0"};
  const char* gv[] = {nullptr, "x", "yes", "no"};
  std::vector<RefRow> refRows;
  SearchResults base;
  for (int i = 0; i < 60; ++i) {
    RefRow r;
    std::string raw;
    for (const char* w : allWords) {
      if (rng() % 2) {
        r.words.insert(w);
        raw += std::string(w) + " ";
      }
    }
    if (raw.empty()) {
      raw = "none";
      r.words.insert("none");
    }
    r.f = fv[rng() % 5];
    r.g = gv[rng() % 4];
    SearchResult* row = base.addNewResult();
    row->setValue(Str("_raw"), raw);
    if (r.f) row->setValue(Str("f"), r.f);
    if (r.g) row->setValue(Str("g"), r.g);
    refRows.push_back(r);
  }
  for (int iter = 0; iter < 300; ++iter) {
    RandTree t = randTree(rng, 3);
    std::string s = render(t);
    SearchEvaluator ev{Str(s)};
    SearchEvaluator notnot{Str("NOT NOT (" + s + ")")};
    SearchEvaluator neg{Str("NOT (" + s + ")")};
    for (size_t i = 0; i < refRows.size(); ++i) {
      int want = refEval(t, refRows[i]) ? 1 : 0;
      // 2 (not proved) counts as a miss.
      ASSERT_EQ(ev.isMatch(base[i], {}) == 1, want == 1) << s << " row " << i;
      ASSERT_EQ(notnot.isMatch(base[i], {}) == 1, want == 1) << s;
      ASSERT_EQ(neg.isMatch(base[i], {}) == 1, want == 0) << s;
    }
    SearchResults rows;
    rows.append(base);
    ev.filter(rows, {}, false);
    size_t expectCount = 0;
    for (const RefRow& r : refRows) expectCount += refEval(t, r) ? 1 : 0;
    ASSERT_EQ(rows.size(), expectCount) << s;
  }
  // De Morgan, spelled both ways.
  for (int iter = 0; iter < 100; ++iter) {
    std::string a = render(randTree(rng, 2)), b = render(randTree(rng, 2));
    SearchEvaluator l1{Str("NOT ((" + a + ") (" + b + "))")};
    SearchEvaluator r1{Str("NOT (" + a + ") OR NOT (" + b + ")")};
    SearchEvaluator l2{Str("NOT ((" + a + ") OR (" + b + "))")};
    SearchEvaluator r2{Str("NOT (" + a + ") NOT (" + b + ")")};
    for (size_t i = 0; i < base.size(); ++i) {
      ASSERT_EQ(l1.isMatch(base[i], {}) == 1, r1.isMatch(base[i], {}) == 1) << a << " / " << b;
      ASSERT_EQ(l2.isMatch(base[i], {}) == 1, r2.isMatch(base[i], {}) == 1) << a << " / " << b;
    }
  }
}

TEST(SearchEvaluatorTest, RegexTokenizerCuts) {
  const struct {
    const char* text;
    StrVector tokens;
  } kCases[] = {
      {"a!=b", {"a", "!=", "b"}},
      {"x<=5 y>3 z<7", {"x", "<=", "5", "y", ">", "3", "z", "<", "7"}},
      {"  (a OR b)  ", {"(", "a", "OR", "b", ")"}},
      {"\"a b\" c", {"\"a b\"", "c"}},
      {"\"a \\\"q\\\" b\"", {"\"a \\\"q\\\" b\""}},   // escaped quotes stay inside
      {"x\\\"y", {"x\\\"y"}},                         // an escaped quote opens nothing
      {"TERM(a b)", {"TERM", "(", "a", "b", ")"}},    // no directives on this path
      {"a\n\tb", {"a", "b"}},
      {"tail", {"tail"}},
      {"", {}},
      {"\"open quote", {"\"open", "quote"}},          // never closed: not a quoted token
      {"a==b", {"a", "=", "=", "b"}},                 // "!?=" takes one "=" at a time
  };
  for (const auto& c : kCases) {
    RETokenizer tok(Str(c.text), true, true, true);
    EXPECT_EQ(tok.tokens(), c.tokens) << c.text;
  }
}

// Where neither path has a quirk to show, the two must agree.
TEST(SearchEvaluatorTest, RegexAndScanningTokenizersAgree) {
  const char* const kAlphabet[] = {"a", "b1", " ", "(", ")", "=", "!=", "<", ">=", "\"q r\"", "OR"};
  std::mt19937 rng(7);
  for (int n = 0; n < 2000; ++n) {
    Str text;
    size_t len = rng() % 8;
    for (size_t i = 0; i < len; ++i) text.append(kAlphabet[rng() % 11]);
    RETokenizer scan(text, false, true, true), cut(text, true, true, true);
    // Runs of comparator bytes are one token to the scanner only.
    bool cmpRun = false;
    for (size_t i = 1; i < text.size(); ++i) {
      auto isCmp = [](char ch) { return ch == '=' || ch == '!' || ch == '<' || ch == '>'; };
      if (isCmp(text[i - 1]) && isCmp(text[i])) cmpRun = true;
    }
    if (cmpRun) continue;
    EXPECT_EQ(scan.tokens(), cut.tokens()) << text;
  }
}

TEST(SearchEvaluatorTest, TokenizerSettingsDefaultWithoutConfiguration) {
  RETokenizer tok = RETokenizer::fromSettings(Str("TERM(a b) x"));
  EXPECT_EQ(tok.tokens(), (StrVector{"TERM(a b)", "x"}));  // the scanning path, directives on
}

// The trie must decide exactly as trying each comparison in turn does.
TEST(SearchEvaluatorTest, CmpVectorTrieAgreesWithEachComparison) {
  const struct { const char* cmp; const char* value; } kCmps[] = {
      {"=", "web*"}, {"=", "Web01"}, {"!=", "*01"}, {"=", "*"}, {"=", "42"},
      {"<", "m"},    {">=", "10"},   {"=", "a*b*c"}, {"!=", "db"}, {"=", ""},
  };
  const char* kValues[] = {"web01", "WEB02", "db", "42", "42.0", "abc", "axbyc", "", "9", "zz"};
  std::mt19937 rng(3);
  for (int n = 0; n < 300; ++n) {
    std::vector<std::unique_ptr<ParseNodeCMP>> a, b;
    ParseNodeCMPVector fast, slow;
    for (const auto& c : kCmps) {
      a.push_back(std::make_unique<ParseNodeCMP>(Str(c.cmp)));
      b.push_back(std::make_unique<ParseNodeCMP>(Str(c.cmp)));
      a.back()->setSides(Str("host"), Str(c.value));
      b.back()->setSides(Str("host"), Str(c.value));
      fast.add(a.back().get());
      slow.add(b.back().get());
    }
    fast.optimize(Str("host"));
    StrVector values;
    for (size_t k = rng() % 4; k > 0; --k) values.push_back(Str(kValues[rng() % 10]));
    fast.evaluate(squashAll(values), values);
    slow.evaluate(squashAll(values), values);
    for (size_t i = 0; i < a.size(); ++i) {
      bool va = false, vb = false;
      ASSERT_TRUE(a[i]->getValue(va));
      ASSERT_TRUE(b[i]->getValue(vb));
      EXPECT_EQ(va, vb) << kCmps[i].cmp << kCmps[i].value << " over " << values.size() << " values";
    }
  }
}

TEST(SearchEvaluatorTest, CidrValuesCompareAsSubnets) {
  const struct {
    const char* cmp;
    const char* value;
    const char* row;
    bool expect;
  } kCases[] = {
      {"=", "10.0.0.0/8", "10.9.8.7", true},
      {"=", "10.0.0.0/8", "11.0.0.1", false},
      {"=", "10.0.0.0/8", "host", false},          // not an address at all
      {"=", "10.1.2.3/8", "10.200.0.1", true},     // host bits of the subnet ignored
      {"=", "192.168.1.0/24", "192.168.1.255", true},
      {"=", "192.168.1.0/24", "192.168.2.0", false},
      {"=", "0.0.0.0/0", "255.255.255.255", true},
      {"=", "1.2.3.4/32", "1.2.3.4", true},
      {"=", "1.2.3.4/32", "1.2.3.5", false},
      {"!=", "10.0.0.0/8", "10.0.0.1", false},
      {"!=", "10.0.0.0/8", "9.255.255.255", true},
      {"=", "10.0.0.0/8", "10.0.0.01", false},     // not a dotted quad
      {"<", "10.0.0.0/8", "0", true},              // order compares text, no subnet
  };
  for (const auto& c : kCases) {
    ParseNodeCMP cmp{Str(c.cmp)};
    cmp.setSides(Str("ip"), Str(c.value));
    cmp.evaluate(squashAll({Str(c.row)}), {Str(c.row)});
    bool v = false;
    ASSERT_TRUE(cmp.getValue(v));
    EXPECT_EQ(v, c.expect) << c.cmp << c.value << " against " << c.row;
  }
  // The index cannot answer a subnet, so the predicate takes everything.
  ParseNodeCMP cmp{Str("=")};
  cmp.setSides(Str("ip"), Str("10.0.0.0/8"));
  Timeval e, l;
  EXPECT_EQ(cmp.toLispyNode(e, l)->toString(), "*");
  // Values of another shape stay wildcard values.
  ParseNodeCMP path{Str("=")};
  path.setSides(Str("uri"), Str("/a/*"));
  path.evaluate(squashAll({Str("/a/b")}), {Str("/a/b")});
  bool v = false;
  ASSERT_TRUE(path.getValue(v));
  EXPECT_TRUE(v);
}

}  // namespace

namespace {

// One row per raw text (nullptr: no _raw); fields as given.
struct EvalCase {
  const char* search;
  const char* raw;
  int expect;
};

void checkEvalCases(const std::vector<EvalCase>& cases, const std::map<Str, Str>& fields = {}) {
  for (const EvalCase& c : cases) {
    SearchResults sr;
    SearchResult* r = sr.addNewResult();
    if (c.raw != nullptr) r->setValue(Str("_raw"), c.raw);
    for (const auto& [k, v] : fields) r->setValue(k, v);
    SearchEvaluator ev{Str(c.search)};
    EXPECT_EQ(ev.isMatch(r, {}), c.expect) << c.search << " against " << (c.raw ? c.raw : "-");
  }
}

TEST(SearchEvaluatorTest, TermsAgainstTokensOfTheRawText) {
  checkEvalCases({
      {"\"disk full\"", "a Disk full.", 1},
      {"\"disk full\"", "disk fuller", 0},  // the phrase must end at a word's end
      {"\"disk full\"", "the full disk", 0},
      {"\"disk full\"", "xdisk full", 0},
      {"\"disk * now\"", "disk is full now", 1},
      {"\"a-b c\"", "x a-b c", 1},
      {"\"\xff a\"", "x \xff a y", 1},  // not UTF-8: found without the check at its ends
      {"CASE(Error)", "Error x", 1},
      {"CASE(Error)", "error x", 0},
      {"CASE(\"Disk Full\")", "a Disk Full", 1},
      {"CASE(\"Disk Full\")", "a disk full", 0},
      {"TERM(a.b)", "x a.b y", 1},
      {"TERM(a.b)", "x a.bc y", 0},
      {"web01", "host=web01.example", 1},  // a minor token
      {"web0", "host=web01.example", 0},
      {"web0*", "host=web01.example", 1},
      {"\"host=web01.example,\"", "x host=web01.example, y", 1},  // quoted: a phrase
      {"*", "   ", 1},
      {"meta::all", "x", 1},
      {"NOT error", "no errors", 1},
      {"a OR b", "c", 2},  // an OR that never saw a true child is not proved
      {"a OR b", "b", 1},
      {"NOT (a OR b)", "c", 1},
      {"error", "", 1},      // an empty raw cannot disqualify
      {"NOT error", nullptr, 1},
  });
}

// A row without the field: each comparison gets the inverse of its "or
// equal" flag.
TEST(SearchEvaluatorTest, MissingFieldTakesTheInverseOfOrEqual) {
  checkEvalCases({
      {"x=1", "r", 0},
      {"x!=1", "r", 1},
      {"x<1", "r", 1},
      {"x<=1", "r", 0},
      {"x>1", "r", 1},
      {"x>=1", "r", 0},
      {"x<5", "r", 1},
      {"x>5", "r", 1},
      {"NOT x<1", "r", 0},
      {"x::1", "r", 0},
      {"y=2", "r", 1},  // present: decided by value
  }, {{"y", "2"}});
}

// The trie path of the callback and each term taking tokens by itself.
TEST(SearchEvaluatorTest, TermTriesAgreeWithEachTermAlone) {
  const char* kTerms[] = {"err*", "web01", "*01", "a*b", "\"disk full\"", "CASE(Up)", "x.y",
                          "TERM(x.y)", "*", "d*k"};
  const char* kWords[] = {"error", "Up", "up", "web01", "disk", "full", "x.y", "a-b", "ab", "dk"};
  std::mt19937 rng(5);
  const GenericCleaner cleaner;
  for (int n = 0; n < 400; ++n) {
    std::string raw;
    for (size_t k = rng() % 6; k > 0; --k) raw += std::string(kWords[rng() % 10]) + " ";
    if (raw.empty()) continue;
    for (const char* t : kTerms) {
      SearchEvaluator ev{Str(t)};
      SearchResults sr;
      SearchResult* row = sr.addNewResult();
      row->setValue(Str("_raw"), raw);
      ParseNodeTERM alone{Str(t)};
      cleaner.clean(raw, alone);
      if (alone.isPhrase()) {
        Str low = squashed_str(raw);
        alone.hit(low.data(), low.size());
      }
      bool found = false;
      alone.getValue(found);
      EXPECT_EQ(ev.isMatch(row, {}), found ? 1 : 0) << t << " in " << raw;
    }
  }
}

TEST(SearchEvaluatorTest, FieldSettingsShapeTheIndexPredicate) {
  BundleTree tree;
  tree.put("system/default/fields.conf",
           "[host]\nINDEXED = true\n"
           "[code]\nINDEXED_VALUE = false\n"
           "[user]\nINDEXED_VALUE = s/^(\\w+)@.*/\\1/\n"
           "[sess]\nINDEXED_VALUE = sid_<VALUE>\n"
           "[bad]\nINDEXED_VALUE = s/(/x/\n");
  const PropertyPagesContext ctx(tree.setup(), User(""), Str(""));
  const struct {
    const char* search;
    const char* lispy;
    const char* tree;
  } kCases[] = {
      {"host=Web01", "(and host::web01)", "(AND host::Web01)"},
      {"NOT host=Web01", "(and (not host::web01))", "(AND NOT host::Web01)"},
      {"code=42", "(and *)", "(AND code=42)"},
      {"user=Bob@x.org", "(and bob)", "(AND user=Bob@x.org)"},
      {"sess=9", "(and sid_9)", "(AND sess=9)"},
      {"bad=1", "(and *)", "(AND bad=1)"},  // a sed that does not compile narrows nothing
      {"other=\"a b.c\"", "(and (and a b.c))", "(AND other=\"a b.c\")"},
  };
  for (const auto& c : kCases) {
    SearchEvaluator ev(Str(c.search), ctx, true, false);
    EXPECT_EQ(ev.lispyQuery()->toString(), c.lispy) << c.search;
    EXPECT_EQ(ev.toString(), c.tree) << c.search;
  }
}

TEST(SearchEvaluatorTest, IndexesFieldsAndTimeBounds) {
  SearchEvaluator ev(Str("index=Main NOT index=tmp (index=a OR x=1) err* NOT ok _time>=100 _time<200.5"));
  std::set<Str> indexes, keywords, fields;
  ev.getIndexes(indexes);
  EXPECT_EQ(indexes, (std::set<Str>{"a", "main"}));
  ev.getTypeaheadInfo(keywords, fields);
  EXPECT_EQ(keywords, std::set<Str>{"err*"});
  EXPECT_EQ(fields, (std::set<Str>{"_time", "index", "x"}));
  Timeval earliest, latest;
  ev.lispyQuery(earliest, latest);
  EXPECT_EQ(earliest.tv_sec, 100);
  EXPECT_EQ(latest.tv_sec, 201);
  // Below an OR a bound holds for some matches only.
  SearchEvaluator either(Str("_time>5 OR b"));
  Timeval e2, l2;
  EXPECT_EQ(either.lispyQuery(e2, l2)->toString(), "(or * b)");
  EXPECT_EQ(e2.tv_sec, 0);
  WildcardList required;
  ev.setRequiredFields(required);
  EXPECT_EQ(ev.requiredFields(), (std::set<Str>{"_raw", "_time", "index", "x"}));
  EXPECT_TRUE(required.isHit(Str("_raw")));
  EXPECT_FALSE(required.isHit(Str("y")));
  SearchEvaluator noTerms(Str("x=1 *"));
  WildcardList r2;
  noTerms.setRequiredFields(r2);
  EXPECT_EQ(noTerms.requiredFields(), std::set<Str>{"x"});
}

TEST(SearchEvaluatorTest, MappedKeysBooleansAndTries) {
  SearchResults sr;
  SearchResult* r = sr.addNewResult();
  r->setValue(Str("h"), "web01");
  r->setValue(Str("flag"), "1");
  SearchEvaluator ev(Str("host=web* flag=true"));
  EXPECT_EQ(ev.isMatch(r, {}), 0);  // no column "host", and "1" is not "true"
  ev.initMappedKeys(sr, {{"host", "h"}});
  ev.changeBoolStrToNum();
  EXPECT_EQ(ev.toString(), "(AND host=web* flag=1)");
  EXPECT_EQ(ev.isMatch(r, {}), 1);
  ev.optimize(false);
  EXPECT_EQ(ev.isMatch(r, {}), 1);
  ev.optimizeByFields({{"host", true}});
  EXPECT_EQ(ev.isMatch(r, {}), 1);
  ev.initKeys(sr, true);  // back to names as they are
  EXPECT_EQ(ev.isMatch(r, {}), 0);
}

}  // namespace

namespace {

// A row whose OR never saw a true child stays when fields are ignored, and
// is reported as undecided.
TEST(SearchEvaluatorTest, FilterKeepsUnprovedRowsWhileFieldsAreIgnored) {
  for (const char* search : {"a OR b", "x=1 OR x=2"}) {
    SearchResults sr;
    SearchResult* r = sr.addNewResult();
    r->setValue(Str("_raw"), "c");
    r->setValue(Str("x"), "3");
    SearchEvaluator ev{Str(search)};
    EXPECT_EQ(ev.isMatch(r, {}), 2) << search;
    EXPECT_FALSE(ev.filter(sr, {"unrelated"}, false)) << search;
    EXPECT_EQ(sr.size(), 1u) << search;
    EXPECT_TRUE(ev.filter(sr, {}, false)) << search;
    EXPECT_EQ(sr.size(), 0u) << search;
  }
}

}  // namespace
