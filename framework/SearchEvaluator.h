// Search strings such as `error host=web* NOT (a OR b)` as a tree of
// ParseNode objects, evaluated against result rows and translated into
// index predicates (LispyNode).
//
// Precedence, tightest first: comparators, NOT, OR, then AND (explicit or by
// adjacency), so `a b OR c` means `a AND (b OR c)`. Negations are pushed to
// the leaves (De Morgan), so a group never carries one.
//
// Settled here:
// - Terms are matched, case-insensitively, against the tokens that the
//   cleaner cuts from the row's "_raw" value (GenericCleaner.h). Without
//   the shared cleaner the default breakers cut it.
// - A row without a compared field gives each of that field's comparisons
//   the inverse of its "or equal" flag: `x=1`, `x<=1` and `x>=1` fail,
//   `x!=1`, `x<1` and `x>1` hold.
// - An OR whose children all failed leaves the row undecided (2): it has
//   not proved true, and filter drops it unless fields are ignored.
// - Typeahead information is the plain (not negated) term texts and the
//   compared field names.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <vector>

#include "framework/GenericCleaner.h"
#include "framework/ParseNode.h"
#include "framework/SearchResults.h"
#include "libbundle/PropertyPagesContext.h"
#include "util/Str.h"
#include "util/StrVector.h"

class SearchResultsInfo;
class SearchTermCallback;
class Timeval;
class WildcardList;

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
  // The bytes "!=<>".
  static const CharacterClass COMPARATORS;

 private:
  StrVector _tokens;
};

// One owner at a time. Only the shared cleaner is made under a lock.
class SearchEvaluator {
 public:
  // Parses `search` in `context` (which reads conf "fields"). With
  // `useCleaner` terms are cut by the process-wide cleaner. Unbalanced
  // "(" is closed at the end when allowed. Throws SearchParsingException
  // for a malformed search, with nothing left allocated; parentheses more
  // than 500 deep are "Parentheses nested deeper than 500".
  SearchEvaluator(const Str& search, const PropertyPagesContext& context, bool useCleaner,
                  bool allowUnbalanced);
  // The default root, no user or application, with the cleaner.
  explicit SearchEvaluator(const Str& search, bool allowUnbalanced = false);
  ~SearchEvaluator();
  SearchEvaluator(const SearchEvaluator&) = delete;
  SearchEvaluator& operator=(const SearchEvaluator&) = delete;

  // 0: the row fails, 1: it matches, 2: undecided (it has not proved
  // true; a field it needs may be among `ignoredFields`). Looks the
  // columns up first when the row belongs to a table not yet seen.
  int isMatch(const SearchResult* row, const std::set<Str>& ignoredFields);
  // Drops failing rows, and undecided ones when nothing is ignored. True
  // when no row stayed undecided.
  bool filter(SearchResults& results, const std::set<Str>& ignoredFields, bool keysReady);
  // Looks up the columns of `results` (again even for the same table when
  // `force`).
  void initKeys(const SearchResults& results, bool force);
  // As initKeys, with fields found under other column names:
  // {"host" -> "h"} reads field host from column "h".
  void initMappedKeys(const SearchResults& results, const std::map<Str, Str>& fieldToColumn);
  // Builds (or, false, drops) every field's trie of values.
  void optimize(bool useTries);
  // The same field by field; fields not named keep what they have.
  void optimizeByFields(const std::map<Str, bool>& useTries);

  // The index predicate; "_time" bounds every match must meet narrow
  // [earliest, latest] instead (seconds; zero means open).
  std::unique_ptr<LispyNode> lispyQuery(Timeval& earliest, Timeval& latest) const;
  std::unique_ptr<LispyNode> lispyQuery() const;
  // Plain (not negated, not meta-all) terms, lowered.
  void getKeywords(std::set<Str>& out) const;
  // The compared field names.
  void getFields(std::set<Str>& out) const;
  // The indexes an "index=" comparison asks for.
  void getIndexes(std::set<Str>& out) const;
  void getTypeaheadInfo(std::set<Str>& keywords, std::set<Str>& fields) const;
  // Adds the fields evaluation reads ("_raw" when there are terms) to
  // `out`, and remembers them (requiredFields()).
  void setRequiredFields(WildcardList& out);
  const std::set<Str>& requiredFields() const { return _requiredFields; }
  // Comparisons against "true" or "false" (any case) compare against 1
  // and 0 instead, for fields that hold booleans as numbers.
  void changeBoolStrToNum();
  void getMessages(SearchResultsInfo& info) const { _root->getMessages(info); }
  Str toString() const { return _root->toString(); }
  const ParseNodeGROUP* root() const { return _root; }

 private:
  void build(bool allowUnbalanced);
  void initCMPS();

  Str _search;
  PropertyPagesContext _context;
  const GenericCleaner* _cleaner = nullptr;
  std::unique_ptr<SearchTermCallback> _termCallback;
  ParseNodeGROUP* _root = nullptr;
  std::vector<ParseNode*> _leaves;
  std::map<Str, ParseNodeCMPVector> _cmps;
  size_t _rawIndex = 0;
  bool _hasTerms = false;
  std::set<Str> _requiredFields;
  std::vector<ParseNodeTERM*> _terms;
  std::map<Str, size_t> _fieldIndexes;
  const SearchResults* _keysFor = nullptr;
};
