#include "framework/SearchEvaluator.h"

#include "framework/LimitsStanza.h"
#include "framework/SearchResultsInfo.h"
#include "framework/SearchTermCallback.h"
#include "libbundle/PropertiesMap.h"
#include "util/CharacterClass.h"
#include "util/Logger.h"
#include "util/Regex.h"
#include "util/RegexMatch.h"
#include "util/Timeval.h"
#include "util/WildcardList.h"

namespace {

Logger gLogger("SearchEvaluator");

constexpr size_t MAX_NESTING = 500;

bool searchLimitFlag(const char* key, bool dflt) {
  PropertiesMap stanza;
  if (!getLimitsStanza("search", stanza)) return dflt;
  return stanza.get(key).toBool(dflt, dflt);
}

bool isComparatorToken(const Str& t) {
  static const Regex kComparator(Str("!?=|[<>]=?"));
  return kComparator.matchesWhole(t);
}

}  // namespace

const CharacterClass RETokenizer::COMPARATORS("!=<>");

// ---- tokenizer ----

RETokenizer::RETokenizer(const Str& text, bool allowTermDirective, bool allowCaseDirective) {
  Str pending;
  bool pendingIsCmp = false;
  auto flush = [&]() {
    if (!pending.empty()) _tokens.push_back(pending);
    pending.clear();
    pendingIsCmp = false;
  };
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '\\') {
      if (pendingIsCmp) flush();
      pending.push_back(c);
      if (i + 1 < text.size()) pending.push_back(text[++i]);
      continue;
    }
    if (c == '"') {
      flush();
      pending.push_back(c);
      for (++i; i < text.size(); ++i) {
        pending.push_back(text[i]);
        if (text[i] == '\\' && i + 1 < text.size()) {
          pending.push_back(text[++i]);
          continue;
        }
        if (text[i] == '"') break;
      }
      flush();
      continue;
    }
    if (c == '(' &&
        ((pending == "TERM" && allowTermDirective) || (pending == "CASE" && allowCaseDirective))) {
      for (; i < text.size(); ++i) {
        pending.push_back(text[i]);
        if (text[i] == ')') break;
      }
      flush();
      continue;
    }
    if (c == '(' || c == ')') {
      flush();
      _tokens.emplace_back(Str(1, c));
      continue;
    }
    if (CharacterClass::ALL_WHITESPACES.contains(c)) {
      flush();
      continue;
    }
    if (COMPARATORS.contains(c)) {
      if (!pendingIsCmp) flush();
      pending.push_back(c);
      pendingIsCmp = true;
      continue;
    }
    if (pendingIsCmp) flush();
    pending.push_back(c);
  }
  flush();
}

RETokenizer::RETokenizer(const Str& text, bool useRegex, bool allowTermDirective,
                         bool allowCaseDirective)
    : RETokenizer(useRegex ? Str() : text, allowTermDirective, allowCaseDirective) {
  if (!useRegex) return;
  static const Regex kCut(
      Str("^(.*?)(\\s+|\\(|\\)|(?<!\\\\)\"(?:\\\\.|[^\"\\\\]+)*\"|!?=|[<>]=?)"));
  StrSegment rest(text);
  RegexMatch m;
  while (rest.size() > 0 && kCut.match(rest, &m, true)) {
    const StrSegment& pending = m.getGroup(1);
    const StrSegment& delim = m.getGroup(2);
    if (pending.size() > 0) _tokens.emplace_back(pending);
    if (delim.size() > 0 && !CharacterClass::ALL_WHITESPACES.contains(delim.data()[0])) _tokens.emplace_back(delim);
  }
  if (rest.size() > 0) _tokens.emplace_back(rest);
}

RETokenizer RETokenizer::fromSettings(const Str& text) {
  return RETokenizer(text, searchLimitFlag("use_regex_tokenizer", false),
                     searchLimitFlag("allow_term_directive", true),
                     searchLimitFlag("allow_case_directive", true));
}

// ---- SearchEvaluator ----

SearchEvaluator::SearchEvaluator(const Str& search, const PropertyPagesContext& context,
                                 bool useCleaner, bool allowUnbalanced)
    : _search(search), _context(context) {
  if (useCleaner) _cleaner = GenericCleaner::getShared();
  build(allowUnbalanced);
}

SearchEvaluator::SearchEvaluator(const Str& search, bool allowUnbalanced) : _search(search) {
  _cleaner = GenericCleaner::getShared();
  build(allowUnbalanced);
}

void SearchEvaluator::build(bool allowUnbalanced) {
  RETokenizer tok = RETokenizer::fromSettings(_search);
  std::unique_ptr<ParseNodeGROUP> root(new ParseNodeGROUP(true));
  std::vector<ParseNodeGROUP*> stack{root.get()};
  for (const Str& t : tok.tokens()) {
    gLogger.debug("looking at token '%s'", t.c_str());
    if (t == "(") {
      // The tree is walked recursively; its depth must not be the input's
      // to choose.
      if (stack.size() > MAX_NESTING) {
        throw SearchParsingException("Parentheses nested deeper than %zu", MAX_NESTING);
      }
      ParseNodeGROUP* g = new ParseNodeGROUP(true);
      stack.back()->append(g);
      stack.push_back(g);
    } else if (t == ")") {
      if (stack.size() == 1) throw SearchParsingException("unbalanced parentheses");
      stack.pop_back();
    } else if (t == "AND" || t == "OR" || t == "NOT") {
      stack.back()->append(new ParseNodeDIRECTIVE(t));
    } else if (isComparatorToken(t)) {
      stack.back()->append(new ParseNodeCMP(t, &_context));
    } else {
      stack.back()->append(new ParseNodeTERM(t));
    }
  }
  if (stack.size() > 1 && !allowUnbalanced) throw SearchParsingException("unbalanced parentheses");
  root->associate(_cleaner);
  root->collapse();
  _root = root.release();
  _root->getLeaves(_leaves, 0);
  initCMPS();
  _termCallback = std::make_unique<SearchTermCallback>(_terms, _root);
}

void SearchEvaluator::initCMPS() {
  for (ParseNode* l : _leaves) {
    if (l->isTERM()) {
      _terms.push_back(static_cast<ParseNodeTERM*>(l));
      _hasTerms = _hasTerms || !_terms.back()->isMetaAll();
    } else if (l->isCMP()) {
      ParseNodeCMP* c = static_cast<ParseNodeCMP*>(l);
      _cmps[c->getKey()].add(c);
    }
  }
  optimize(true);
}

SearchEvaluator::~SearchEvaluator() { delete _root; }

void SearchEvaluator::initKeys(const SearchResults& results, bool force) {
  if (_keysFor == &results && !force) return;
  initMappedKeys(results, {});
}

void SearchEvaluator::initMappedKeys(const SearchResults& results,
                                     const std::map<Str, Str>& fieldToColumn) {
  _keysFor = &results;
  _rawIndex = results.keyIndex(Str("_raw"));
  _fieldIndexes.clear();
  for (const auto& [field, cmps] : _cmps) {
    auto mapped = fieldToColumn.find(field);
    const size_t index = results.keyIndex(mapped == fieldToColumn.end() ? field : mapped->second);
    _fieldIndexes[field] = index;
    for (ParseNodeCMP* c : cmps.cmps()) c->setKeyIndex(index);
  }
}

void SearchEvaluator::optimize(bool useTries) {
  std::map<Str, bool> all;
  for (const auto& [field, cmps] : _cmps) all[field] = useTries;
  optimizeByFields(all);
}

void SearchEvaluator::optimizeByFields(const std::map<Str, bool>& useTries) {
  for (const auto& [field, use] : useTries) {
    auto it = _cmps.find(field);
    if (it == _cmps.end()) continue;
    if (use) {
      it->second.optimize(field);
    } else {
      it->second.unoptimize();
    }
  }
}

int SearchEvaluator::isMatch(const SearchResult* row, const std::set<Str>& ignoredFields) {
  if (_keysFor != row->parent()) initKeys(*row->parent(), true);
  _root->resetValue();
  bool v;
  const Str* raw = row->valuePtr(_rawIndex);
  if (raw == nullptr || raw->empty()) {
    // With no text to look at, terms cannot disqualify the row.
    for (ParseNodeTERM* t : _terms) t->setValue(true);
  } else if (!_terms.empty()) {
    _termCallback->tokenize(_cleaner, *raw);
    if (_root->getValue(v)) return v ? 1 : 0;
    if (_termCallback->hasPhrases()) {
      _termCallback->checkPhrases(*raw);
      if (_root->getValue(v)) return v ? 1 : 0;
    }
  }
  if (_root->getValue(v)) return v ? 1 : 0;
  StrVector plain, squashed;
  for (const auto& [field, cmps] : _cmps) {
    if (ignoredFields.count(field) != 0) continue;
    if (!row->getMultiValues(_fieldIndexes[field], plain)) {
      cmps.unsetCmpValues();
    } else {
      squashed.clear();
      for (const Str& p : plain) squashed.push_back(squashed_str(p));
      cmps.evaluate(squashed, plain);
    }
    if (_root->getValue(v)) return v ? 1 : 0;
  }
  return 2;
}

bool SearchEvaluator::filter(SearchResults& results, const std::set<Str>& ignoredFields,
                             bool keysReady) {
  if (!keysReady) initKeys(results, true);
  bool allDecided = true;
  std::vector<size_t> drop;
  for (size_t i = 0; i < results.size(); ++i) {
    const int m = isMatch(results[i], ignoredFields);
    if (m == 0 || (m == 2 && ignoredFields.empty())) {
      drop.push_back(i);
    } else if (m == 2) {
      allDecided = false;
    }
  }
  results.eraseResults(drop);
  return allDecided;
}

std::unique_ptr<LispyNode> SearchEvaluator::lispyQuery(Timeval& earliest, Timeval& latest) const {
  return _root->toLispyNode(earliest, latest);
}

std::unique_ptr<LispyNode> SearchEvaluator::lispyQuery() const {
  Timeval earliest, latest;
  return lispyQuery(earliest, latest);
}

void SearchEvaluator::getKeywords(std::set<Str>& out) const {
  for (const ParseNodeTERM* t : _terms) {
    if (!t->isNegated() && !t->isMetaAll()) out.insert(squashed_str(t->termString()));
  }
}

void SearchEvaluator::getFields(std::set<Str>& out) const {
  for (const auto& [field, cmps] : _cmps) out.insert(field);
}

void SearchEvaluator::getIndexes(std::set<Str>& out) const {
  std::set<Str> excluded;
  _root->getIndexes(out, excluded);
}

void SearchEvaluator::getTypeaheadInfo(std::set<Str>& keywords, std::set<Str>& fields) const {
  getKeywords(keywords);
  getFields(fields);
}

void SearchEvaluator::setRequiredFields(WildcardList& out) {
  _requiredFields.clear();
  getFields(_requiredFields);
  if (_hasTerms) _requiredFields.insert(Str("_raw"));
  for (const Str& f : _requiredFields) out.processToken(f);
}

void SearchEvaluator::changeBoolStrToNum() {
  for (auto& [field, cmps] : _cmps) {
    for (ParseNodeCMP* c : cmps.cmps()) {
      const Str low = squashed_str(c->getVal());
      if (low == "true" || low == "false") c->setVal(Str(low == "true" ? "1" : "0"), _cleaner);
    }
  }
  optimize(true);
}
