// The nodes of a parsed search: groups of AND / OR, terms matched against
// the tokens of an event's text, and comparisons of a field's values; each
// decides against one row and translates into an index predicate.
#pragma once

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "framework/GenericCleaner.h"
#include "framework/WildcardMatcherTrie.h"
#include "libbundle/PropertyPagesContext.h"
#include "util/Regex.h"
#include "util/Str.h"
#include "util/StrVector.h"
#include "util/WildcardMatcher.h"

class SearchResult;
class SearchResults;
class SearchResultsInfo;
class Timeval;

// Every failure to parse a search; the text is the operator's message.
class SearchParsingException : public std::exception {
 public:
  explicit SearchParsingException(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  const char* what() const noexcept override { return _text.c_str(); }

 private:
  Str _text;
};

// A row value as comparisons see it: ASCII letters folded to lower case,
// every other byte kept. "Web01.É" gives "web01.É".
Str squashed_str(const StrSegment& value);

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

// A node decides once per row: resetValue() forgets, setValue() decides,
// getValue() reports. One owner at a time; a group owns its children.
class ParseNode {
 public:
  // Remarks by level ("DEBUG", "INFO", "WARN", "ERROR"), then by message
  // key, each with its text.
  using MessageTable = std::map<Str, std::map<Str, Str>>;

  virtual ~ParseNode() = default;
  // Negates the node in place (De Morgan for groups).
  virtual void pushNOT() = 0;
  // Canonical form: groups "(AND ...)" / "(OR ...)", terms as written
  // (quoted ones in quotes), comparisons "key=value", "key<value",
  // "key::value"; a negated leaf has "NOT " in front.
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
  // Adds this node's remarks (and, for a group, its children's) to `info`.
  virtual void getMessages(SearchResultsInfo& info) const;
  // Whether the index predicate selects exactly the rows this node
  // matches. A group answers for itself alone unless `recurse`.
  virtual bool isExact(bool recurse) const = 0;
  // Whether deciding the node needs the event's raw text: false only where
  // the index can answer alone.
  virtual bool needRaw(bool recurse) const = 0;
  // The index predicate. Comparisons of "_time" that every match must
  // satisfy narrow [earliest, latest] (seconds; zero means open) instead.
  virtual std::unique_ptr<LispyNode> toLispyNode(Timeval& earliest, Timeval& latest) const = 0;
  // The indexes named by "index" comparisons: wanted ones in `indexes`,
  // negated ones in `excluded`.
  virtual void getIndexes(std::set<Str>& indexes, std::set<Str>& excluded) const {
    (void)indexes;
    (void)excluded;
  }
  // Decides the comparisons of `field` as if every row had `value` there.
  virtual void assertFieldValue(const Str& field, const Str& value) {
    (void)field;
    (void)value;
  }

  const MessageTable& messages() const { return _messages; }
  // Brackets, parentheses, blanks and backslashes escaped with a backslash.
  static Str lispyEscape(const Str& text);

 protected:
  bool _value = false;
  bool _known = false;
  MessageTable _messages;
};

// "AND", "OR" or "NOT" between tokenizing and ParseNodeGROUP::associate.
class ParseNodeDIRECTIVE : public ParseNode {
 public:
  explicit ParseNodeDIRECTIVE(const Str& word) : _word(word) {}
  void pushNOT() override {}
  Str toString() const override { return _word; }
  bool isDIRECTIVE() const override { return true; }
  bool isExact(bool) const override { return false; }
  bool needRaw(bool) const override { return true; }
  std::unique_ptr<LispyNode> toLispyNode(Timeval&, Timeval&) const override {
    return LispyNode::term("*");
  }
  const Str& word() const { return _word; }

 private:
  Str _word;
};

// A search term. Plain terms match one token of the raw text, without
// regard to case, "*" standing for any run of bytes. A quoted text of
// several words is a phrase: each word is a sub-term that must be hit, and
// then the phrase must stand in the raw text with no letter or digit
// touching either end ("disk full" is in "a disk full.", not in "disk
// fuller"). "CASE(Foo)" matches case as written; "TERM(a.b)" is the
// literal a.b as one term, never a phrase.
class ParseNodeTERM : public ParseNode, public ICleanCallback {
 public:
  // `token` as tokenized: quotes, backslashes and directives still in it.
  explicit ParseNodeTERM(const Str& token);
  void pushNOT() override { _isNegated = !_isNegated; }
  Str toString() const override;
  bool isTERM() const override { return true; }
  bool isQUOTED() const override { return _isQuoted; }
  bool isLeaf() const override { return true; }
  void resetValue() override;
  bool isExact(bool) const override;
  bool needRaw(bool) const override;
  std::unique_ptr<LispyNode> toLispyNode(Timeval&, Timeval&) const override;

  bool isNegated() const { return _isNegated; }
  // The text, unquoted and unescaped, as written.
  const Str& termString() const { return _text; }
  // "meta::all", or stars alone: every event.
  bool isMetaAll() const;
  bool isPhrase() const { return _isPhrase; }
  // The literal before the first "*", lowered unless case-sensitive.
  Str prefix() const;
  // No "*" in the text.
  bool exact() const { return _text.find('*') == Str::npos; }
  bool isCS() const { return _isCS; }
  // The pattern tokens are matched with: the text, lowered unless
  // case-sensitive.
  const Str& pattern() const { return _pattern; }
  const std::vector<std::unique_ptr<ParseNodeTERM>>& subTerms() const { return _subTerms; }

  // A decided term returns at once. A plain term decides itself found when
  // the token matches; a phrase, when every sub-term was hit and the
  // phrase stands in the text given (the raw text, lowered unless
  // case-sensitive).
  void hit(const char* bytes, size_t length);
  // Decides the term as not found in a text.
  void unhit() { setValue(_isNegated); }
  // Tries one token on the term (a phrase: on its sub-terms). Never ends
  // the cleaning.
  bool acceptToken(const char* bytes, size_t length, size_t position) override;

 private:
  Str _text;
  Str _pattern;
  bool _isNegated = false;
  bool _isPhrase = false;
  bool _isQuoted = false;
  bool _isCS = false;
  bool _isLiteral = false;  // TERM(...)
  WildcardMatcher _matcher;
  std::unique_ptr<Regex> _phraseRegex;
  WildcardMatcher _phraseFallback;  // when the phrase is not UTF-8
  std::vector<std::unique_ptr<ParseNodeTERM>> _subTerms;
};

// A comparison "key <cmp> value": "=", "!=", "<", "<=", ">", ">=", or "::"
// for an indexed field.
//
// Settled here:
// - Equality is a wildcard match ("*" only) of the squashed values, or of
//   the values as written when the value is CASE(...). A value written
//   "a.b.c.d/n" is a subnet and holds for the IPv4 addresses inside it.
// - Order compares numbers when the value and the row's value both parse
//   in full with strtod, else the squashed texts byte by byte.
// - Conf "fields", stanza named after the field: "INDEXED = true" makes
//   `key=value` the indexed `key::value`. "INDEXED_VALUE" says what the
//   index holds of a value that is not indexed as a field: true (the
//   default) its tokens, false nothing, a sed expression "s/re/text/[g]"
//   the value rewritten by it, any other text itself with "<VALUE>"
//   replaced by the value.
class ParseNodeCMP : public ParseNode, public ICleanCallback {
 public:
  explicit ParseNodeCMP(const Str& cmp, const PropertyPagesContext* context = nullptr);
  void pushNOT() override { _isNegated = !_isNegated; }
  Str toString() const override;
  bool isCMP() const override { return true; }
  bool isLeaf() const override { return true; }
  bool isExact(bool) const override;
  bool needRaw(bool) const override { return false; }
  std::unique_ptr<LispyNode> toLispyNode(Timeval& earliest, Timeval& latest) const override;
  void getIndexes(std::set<Str>& indexes, std::set<Str>& excluded) const override;
  void assertFieldValue(const Str& field, const Str& value) override;

  // Takes the two sides and reads the field's settings. `cleaner` (null:
  // the default breakers) splits a value into the terms of the index
  // predicate.
  // Throws "Invalid CIDR subnet: %s" for a value of subnet shape that is
  // not one ("300.0.0.0/8", "10.0.0.0/33"), and for an INDEXED_VALUE sed
  // expression that does not compile.
  void setSides(const Str& key, const Str& value, const GenericCleaner* cleaner = nullptr,
                bool caseSensitive = false);
  void setIndexed(bool v) { _indexed = v; }
  bool isNegated() const { return _isNegated; }
  // Decides from whether a row's values satisfy the comparison before
  // negation.
  void setCmpValue(bool matched) { setValue(matched != _isNegated); }
  // The index term for the value: "key::value" when indexed, else the
  // value as the index holds it (see above); "" when the index has none.
  Str toIndex() const;
  const Str& getVal() const { return _value; }
  const Str& getKey() const { return _key; }
  bool isLT() const { return _isLT; }
  bool isGT() const { return _isGT; }
  bool isEQ() const { return _orEQ; }
  bool isIndexed() const { return _indexed; }
  bool hasSides() const { return _hasSides; }
  // Looks up (or, with `create`, adds) the key's column.
  void setKeyIndex(SearchResults& results, bool create);
  void setKeyIndex(size_t index) { _keyIndex = index; }
  size_t keyIndex() const { return _keyIndex; }
  // Decides from a row's values, given squashed and as written, in the
  // same order: true when any satisfies the comparison.
  void evaluate(const StrVector& squashed, const StrVector& plain);
  // Decides from the row's values at the key's column; a row without any
  // fails the comparison. A decided comparison is left alone.
  void evaluate(const SearchResult* row);
  // Collects the value's tokens for the index predicate.
  bool acceptToken(const char* bytes, size_t length, size_t position) override;
  bool isCS() const { return _isCS; }
  // Replaces the value, keeping the key and the comparator.
  void setVal(const Str& value, const GenericCleaner* cleaner);
  const Str& getCmp() const { return _cmp; }

  // Equality against a non-numeric, non-subnet value, case-folded: decided
  // by wildcard matching of the squashed value alone, so a trie of such
  // values can stand in for it.
  bool isPlainMatch() const {
    return _hasSides && !_isLT && !_isGT && !_isNum && !_isCidr && !_isCS;
  }
  const Str& getLowerVal() const { return _lowerValue; }

 private:
  bool test(const Str& squashed, const Str& plain) const;
  void readFieldSettings();
  Str _cmp;
  bool _isNegated = false;
  bool _isLT = false;
  bool _isGT = false;
  bool _orEQ = false;
  Str _key;
  Str _value;
  size_t _keyIndex = 0;
  bool _indexed = false;
  WildcardMatcher _matcher;
  double _num = 0;
  bool _isNum = false;
  PropertyPagesContext _context;
  bool _hasContext = false;
  Str _lowerValue;
  bool _hasSides = false;
  bool _isCS = false;
  bool _isCidr = false;
  uint32_t _cidrNet = 0;
  uint32_t _cidrMask = 0;
  Str _indexedValue;  // INDEXED_VALUE as configured, "true" by default
  StrVector _valueTokens;
  size_t _lastMajorEnd = 0;
};

// The comparisons of one field. Plain-match comparisons are looked up
// together in a trie of their values, once per row value, instead of each
// one trying every value; the others are tried in turn. Borrows the
// comparisons, which must outlive it. One owner at a time.
class ParseNodeCMPVector {
 public:
  void add(ParseNodeCMP* cmp) { _cmps.push_back(cmp); }
  const std::vector<ParseNodeCMP*>& cmps() const { return _cmps; }
  // Builds the trie for `field`'s comparisons; ones added afterwards are
  // tried in turn.
  void optimize(const Str& field);
  // Drops the trie: every comparison is tried in turn.
  void unoptimize();
  // Decides every undecided comparison from the row's values, squashed
  // and as written, in the same order.
  void evaluate(const StrVector& squashed, const StrVector& plain) const;
  // Gives every undecided comparison the inverse of its "or equal" flag:
  // the row has no value for the field.
  void unsetCmpValues() const;

 private:
  std::vector<ParseNodeCMP*> _cmps;
  std::vector<ParseNodeCMP*> _inTrie;
  std::unique_ptr<WildcardMatcherTrie<ParseNodeCMP*>> _trie;
};

// AND (conjunctive) or OR of children; owns them.
class ParseNodeGROUP : public ParseNode {
 public:
  explicit ParseNodeGROUP(bool isConj) : _isConj(isConj) {}
  ~ParseNodeGROUP() override;
  ParseNodeGROUP(const ParseNodeGROUP&) = delete;
  ParseNodeGROUP& operator=(const ParseNodeGROUP&) = delete;
  void pushNOT() override;
  Str toString() const override;
  bool isGROUP() const override { return true; }
  void resetValue() override;
  // Short-circuit over the children; an OR whose children are all false
  // stays undecided.
  bool getValue(bool& out) const override;
  void getMessages(SearchResultsInfo& info) const override;
  bool isExact(bool recurse) const override;
  bool needRaw(bool recurse) const override;
  std::unique_ptr<LispyNode> toLispyNode(Timeval& earliest, Timeval& latest) const override;
  void getIndexes(std::set<Str>& indexes, std::set<Str>& excluded) const override;
  void assertFieldValue(const Str& field, const Str& value) override;

  // Rewrites the flat child list into the tree; throws
  // SearchParsingException. `cleaner` goes to the comparisons.
  void associate(const GenericCleaner* cleaner);
  // Flattens one-child groups and merges children of the same sense.
  void collapse();
  // Appends the leaves under this group, depth first.
  void getLeaves(std::vector<ParseNode*>& out, size_t depth = 0) const;
  bool isCONJ() const { return _isConj; }
  void append(ParseNode* child) { _children.push_back(child); }
  const std::vector<ParseNode*>& children() const { return _children; }

 private:
  void eraseAt(size_t i);
  std::vector<ParseNode*> _children;
  bool _isConj;
};
