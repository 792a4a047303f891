// Search strings such as `error host=web* NOT (a OR b)` as a tree of
// ParseNode objects, evaluated against result rows and translated into
// index predicates (LispyNode).
//
// Precedence, tightest first: comparators, NOT, OR, then AND (explicit or by
// adjacency), so `a b OR c` means `a AND (b OR c)`. Negations are pushed to
// the leaves (De Morgan), so a group never carries one.
//
// Settled here:
// - Order comparisons (<, <=, >, >=) compare as numbers when the search
//   value and the row value both parse in full as numbers; otherwise as
//   byte strings, case-folded to lower case, in lexicographic order.
// - Equality is a case-insensitive wildcard match ("*" only).
// - A row without the compared field fails every comparison, so its
//   negation ("!=" is the negation of "=") holds: `x!=1` and `NOT x=1` are
//   the same node and both match rows without x.
// - Terms are matched, case-insensitively, against the tokens of the row's
//   "_raw" value: runs of letters, digits and "_", and runs of
//   non-whitespace. A quoted text with several words is a phrase: every
//   word must be a token and the raw text must contain the phrase.
// - Typeahead information is the list of plain (not negated) term texts
//   and field names, which is what getKeywords and getFields return.
#pragma once

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "framework/SearchResults.h"
#include "framework/WildcardMatcherTrie.h"
#include "util/Str.h"
#include "util/StrVector.h"
#include "util/WildcardMatcher.h"

class SearchParsingException : public std::exception {
 public:
  explicit SearchParsingException(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  const char* what() const noexcept override { return _text.c_str(); }

 private:
  Str _text;
};

// Splits a search string into tokens. Quoted tokens keep their quotes and
// backslashes; "(" and ")" stand alone except in "TERM(...)" and
// "CASE(...)"; comparator runs of "!=<>" are tokens of their own.
//
// The regex path cuts the text repeatedly with
// ^(.*?)(\s+|\(|\)|(?<!\\)"(?:\\.|[^"\\]+)*"|!?=|[<>]=?): group 1 is a token when
// not empty, group 2 one unless it is whitespace, and what is left at the
// end is the last token. It knows no directives: "TERM(a b)" gives "TERM",
// "(", "a", "b", ")". A quote left open is taken with the rest as it is.
class RETokenizer {
 public:
  explicit RETokenizer(const Str& text, bool allowTermDirective = true,
                       bool allowCaseDirective = true);
  // The regex path when `useRegex`, else as above.
  RETokenizer(const Str& text, bool useRegex, bool allowTermDirective, bool allowCaseDirective);
  // With "use_regex_tokenizer" (default false), "allow_term_directive" and
  // "allow_case_directive" (default true) from limits stanza "search"; the
  // defaults when there is no configuration.
  static RETokenizer fromSettings(const Str& text);
  const StrVector& tokens() const { return _tokens; }

 private:
  StrVector _tokens;
};

// The index predicate: a term (text as stored in the index, where
// "field::value" names an indexed field value and "*" matches every
// event), or AND / OR / NOT of children. Printed as `term`,
// `(and a b)`, `(or a b)`, `(not a)`.
struct LispyNode {
  enum Kind { TERM, AND, OR, NOT };
  Kind kind = TERM;
  Str text;
  std::vector<std::unique_ptr<LispyNode>> children;

  static std::unique_ptr<LispyNode> term(const Str& text);
  static std::unique_ptr<LispyNode> op(Kind kind);
  Str toString() const;
};

class ParseNode {
 public:
  virtual ~ParseNode() = default;
  virtual void pushNOT() = 0;
  // Canonical form: groups "(AND ...)" / "(OR ...)", terms as written
  // (phrases quoted), comparisons "key=value", "key<value", "key::value";
  // a negated leaf has "NOT " in front.
  virtual Str toString() const = 0;
  virtual bool isGROUP() const { return false; }
  virtual bool isDIRECTIVE() const { return false; }
  virtual bool isCMP() const { return false; }
  virtual bool isTERM() const { return false; }
  virtual bool isQUOTED() const { return false; }
  virtual bool isLeaf() const { return false; }
  virtual void setValue(bool v) {
    _value = v;
    _known = true;
  }
  virtual void resetValue() { _known = false; }
  // True when decided, with the value in `out`.
  virtual bool getValue(bool& out) const {
    out = _value;
    return _known;
  }
  virtual bool hasValue() const { return _known; }
  virtual std::unique_ptr<LispyNode> toLispyNode() const = 0;
  // Non-fatal remarks by level ("DEBUG", "INFO", "WARN", "ERROR").
  const std::map<Str, std::set<Str>>& messages() const { return _messages; }
  virtual void getMessages(std::map<Str, std::set<Str>>& out) const;
  static Str lispyEscape(const Str& text);

 protected:
  bool _value = false;
  bool _known = false;
  std::map<Str, std::set<Str>> _messages;
};

class ParseNodeDIRECTIVE : public ParseNode {
 public:
  explicit ParseNodeDIRECTIVE(const Str& word) : _word(word) {}
  void pushNOT() override {}
  Str toString() const override { return _word; }
  bool isDIRECTIVE() const override { return true; }
  std::unique_ptr<LispyNode> toLispyNode() const override { return LispyNode::term("*"); }
  const Str& word() const { return _word; }

 private:
  Str _word;
};

class ParseNodeTERM : public ParseNode {
 public:
  // `token` as tokenized: quotes and backslashes still in it.
  explicit ParseNodeTERM(const Str& token);
  void pushNOT() override { _isNegated = !_isNegated; }
  Str toString() const override;
  bool isTERM() const override { return true; }
  bool isQUOTED() const override { return _isQuoted; }
  bool isLeaf() const override { return true; }
  std::unique_ptr<LispyNode> toLispyNode() const override;

  bool isNegated() const { return _isNegated; }
  const Str& termString() const { return _text; }
  bool isMetaAll() const;
  bool isPhrase() const { return _isPhrase; }
  // False for a phrase with a wildcard.
  bool isExact() const;
  // Marks the term found (or its sub-term) when `token` matches; decided
  // terms return at once.
  void hit(const StrSegment& lowerToken);
  // After the tokens: a phrase needs all its words and the phrase itself in
  // `lowerRaw`; an unfound term is decided as not found.
  void finish(const StrSegment& lowerRaw);

 private:
  Str _text;
  bool _isNegated = false;
  bool _isPhrase = false;
  bool _isQuoted = false;
  bool _found = false;
  WildcardMatcher _matcher;
  std::vector<WildcardMatcher> _words;
  std::vector<bool> _wordHit;
  WildcardMatcher _phrase;
};

class ParseNodeCMP : public ParseNode {
 public:
  explicit ParseNodeCMP(const Str& cmp);
  void pushNOT() override { _isNegated = !_isNegated; }
  Str toString() const override;
  bool isCMP() const override { return true; }
  bool isLeaf() const override { return true; }
  std::unique_ptr<LispyNode> toLispyNode() const override;

  // An equality whose value is written "a.b.c.d/n" compares as a subnet:
  // it holds for IPv4 values inside it ("10.0.0.0/8" takes "10.9.8.7", not
  // "11.0.0.1" nor "host"). A value of that shape that is not a subnet
  // ("300.0.0.0/8", "10.0.0.0/33") throws "Invalid CIDR subnet: %s".
  void setSides(const Str& key, const Str& value);
  void setIndexed(bool v) { _indexed = v; }
  bool hasSides() const { return _hasSides; }
  bool isNegated() const { return _isNegated; }
  bool isLT() const { return _isLT; }
  bool isGT() const { return _isGT; }
  bool isEQ() const { return _orEQ; }
  const Str& getKey() const { return _key; }
  const Str& getVal() const { return _value; }
  const Str& getCmp() const { return _cmp; }
  // Equality against a non-numeric value: decided by wildcard matching of
  // the lowered value alone, so a trie of such values can stand in for it.
  bool isPlainMatch() const { return _hasSides && !_isLT && !_isGT && !_isNum && !_isCidr; }
  const Str& getLowerVal() const { return _lowerValue; }
  // Decides from the row's values (true when any satisfies it).
  void evaluate(const StrVector& values);
  void evaluate(const SearchResult* row, size_t keyIndex);

 private:
  bool test(const Str& lowerValue) const;
  Str _cmp;
  Str _key;
  Str _value;
  Str _lowerValue;
  bool _hasSides = false;
  bool _isNegated = false;
  bool _isLT = false;
  bool _isGT = false;
  bool _orEQ = false;
  bool _indexed = false;
  bool _isNum = false;
  double _num = 0;
  bool _isCidr = false;
  uint32_t _cidrNet = 0;
  uint32_t _cidrMask = 0;
  WildcardMatcher _matcher;
};

// The comparisons of one field. Plain-match comparisons are looked up
// together in a trie of their values, once per row value, instead of each
// one trying every value; the others are tried in turn. Borrows the
// comparisons, which must outlive it. One owner at a time.
class ParseNodeCMPVector {
 public:
  void add(ParseNodeCMP* cmp) { _cmps.push_back(cmp); }
  const std::vector<ParseNodeCMP*>& cmps() const { return _cmps; }
  // Builds the trie; comparisons added afterwards are tried in turn.
  void optimize();
  // Decides every undecided comparison from the row's values.
  void evaluate(const StrVector& values) const;
  void evaluate(const SearchResult* row, size_t keyIndex) const;

 private:
  std::vector<ParseNodeCMP*> _cmps;
  std::vector<ParseNodeCMP*> _inTrie;
  WildcardMatcherTrie<ParseNodeCMP*> _trie;
  bool _optimized = false;
};

class ParseNodeGROUP : public ParseNode {
 public:
  explicit ParseNodeGROUP(bool isConj) : _isConj(isConj) {}
  ~ParseNodeGROUP() override;
  void pushNOT() override;
  Str toString() const override;
  bool isGROUP() const override { return true; }
  void resetValue() override;
  bool getValue(bool& out) const override;
  std::unique_ptr<LispyNode> toLispyNode() const override;
  void getMessages(std::map<Str, std::set<Str>>& out) const override;

  // Rewrites the flat child list into the tree; throws
  // SearchParsingException.
  void associate();
  void collapse();
  void getLeaves(std::vector<ParseNode*>& out, size_t depth = 0) const;
  bool isCONJ() const { return _isConj; }
  void append(ParseNode* child) { _children.push_back(child); }
  const std::vector<ParseNode*>& children() const { return _children; }

 private:
  void eraseAt(size_t i);
  std::vector<ParseNode*> _children;
  bool _isConj;
};

class SearchEvaluator {
 public:
  // Throws SearchParsingException for a malformed search.
  explicit SearchEvaluator(const Str& search, bool allowUnbalanced = false);
  ~SearchEvaluator();
  SearchEvaluator(const SearchEvaluator&) = delete;
  SearchEvaluator& operator=(const SearchEvaluator&) = delete;

  // 0: the row fails, 1: it matches, 2: undecided (a field it needs was
  // ignored).
  int isMatch(const SearchResult* row, const std::set<Str>& ignoredFields);
  // Drops failing rows (and undecided ones when nothing is ignored).
  // True when no row stayed undecided.
  bool filter(SearchResults& results, const std::set<Str>& ignoredFields, bool keysReady = false);
  void initKeys(const SearchResults& results);

  std::unique_ptr<LispyNode> lispyQuery() const { return _root->toLispyNode(); }
  void getKeywords(std::set<Str>& out) const;
  void getFields(std::set<Str>& out) const;
  void getMessages(std::map<Str, std::set<Str>>& out) const { _root->getMessages(out); }
  Str toString() const { return _root->toString(); }
  const ParseNodeGROUP* root() const { return _root; }

 private:
  Str _search;
  ParseNodeGROUP* _root = nullptr;
  std::vector<ParseNode*> _leaves;
  std::vector<ParseNodeTERM*> _terms;
  std::map<Str, ParseNodeCMPVector> _cmps;
  std::map<Str, size_t> _keyIndexes;
  size_t _rawIndex = 0;
  const SearchResults* _keysFor = nullptr;
};
