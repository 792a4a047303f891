#include "framework/SearchEvaluator.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertiesMap.h"
#include "framework/LimitsStanza.h"
#include "util/Logger.h"
#include "util/Regex.h"
#include "util/RegexMatch.h"

namespace {

Logger gLogger("SearchEvaluator");

bool searchLimitFlag(const char* key, bool dflt) {
  PropertiesMap stanza;
  if (!getLimitsStanza("search", stanza)) return dflt;
  return stanza.get(key).toBool(dflt, dflt);
}

// Dotted-quad IPv4, each part 0-255 without sign or blanks.
bool parseIPv4(const Str& text, uint32_t& out) {
  in_addr a;
  if (inet_pton(AF_INET, text.c_str(), &a) != 1) return false;
  out = ntohl(a.s_addr);
  return true;
}

// The shape "digits and dots, a slash, digits": a value written as a
// subnet, valid or not.
bool looksLikeCidr(const Str& value) {
  size_t slash = value.find('/');
  if (slash == Str::npos || slash == 0 || slash + 1 == value.size()) return false;
  if (value.find_first_not_of("0123456789.") != slash) return false;
  return value.find_first_not_of("0123456789", slash + 1) == Str::npos;
}

// "a.b.c.d/n" with n from 0 to 32; the network is the address masked, so
// "10.1.2.3/8" is 10.0.0.0/8.
bool parseCidr(const Str& value, uint32_t& net, uint32_t& mask) {
  size_t slash = value.find('/');
  uint32_t addr;
  if (!parseIPv4(value.substr(0, slash), addr)) return false;
  Str bits = value.substr(slash + 1);
  if (bits.size() > 2) return false;
  long n = bits.toLong(-1);
  if (n < 0 || n > 32) return false;
  mask = n == 0 ? 0 : ~uint32_t(0) << (32 - n);
  net = addr & mask;
  return true;
}

bool isComparatorChar(char c) { return c == '!' || c == '=' || c == '<' || c == '>'; }
bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}
bool isWordChar(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
         c >= 0x80;
}

bool isComparatorToken(const Str& t) {
  return t == "=" || t == "!=" || t == "<" || t == ">" || t == "<=" || t == ">=";
}

Str lower(const StrSegment& s) {
  Str out(s);
  out.toLowercase();
  return out;
}

// The text of a token as a value: outer quotes dropped, backslash escapes
// resolved.
Str unquote(const Str& token, bool& quoted) {
  StrSegment body(token);
  quoted = token.size() >= 2 && token.front() == '"' && token.back() == '"';
  if (quoted) body = StrSegment(token.data() + 1, token.size() - 2);
  Str out;
  for (size_t i = 0; i < body.size(); ++i) {
    char c = body.data()[i];
    if (c == '\\' && i + 1 < body.size()) c = body.data()[++i];
    out.push_back(c);
  }
  return out;
}

bool parseNumber(const Str& s, double& out) {
  if (s.empty()) return false;
  char* end = nullptr;
  out = strtod(s.c_str(), &end);
  return end == s.c_str() + s.size();
}

}  // namespace

SearchParsingException::SearchParsingException(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  _text.vformat(fmt, ap);
  va_end(ap);
}

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
    if (isSpace(c)) {
      flush();
      continue;
    }
    if (isComparatorChar(c)) {
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
    if (delim.size() > 0 && !isSpace(delim.data()[0])) _tokens.emplace_back(delim);
  }
  if (rest.size() > 0) _tokens.emplace_back(rest);
}

RETokenizer RETokenizer::fromSettings(const Str& text) {
  return RETokenizer(text, searchLimitFlag("use_regex_tokenizer", false),
                     searchLimitFlag("allow_term_directive", true),
                     searchLimitFlag("allow_case_directive", true));
}

// ---- LispyNode ----

std::unique_ptr<LispyNode> LispyNode::term(const Str& text) {
  auto n = std::make_unique<LispyNode>();
  n->text = text;
  return n;
}

std::unique_ptr<LispyNode> LispyNode::op(Kind kind) {
  auto n = std::make_unique<LispyNode>();
  n->kind = kind;
  return n;
}

Str LispyNode::toString() const {
  if (kind == TERM) return text;
  Str out(kind == AND ? "(and" : kind == OR ? "(or" : "(not");
  for (const auto& c : children) {
    out.push_back(' ');
    out.append(c->toString());
  }
  out.push_back(')');
  return out;
}

// ---- ParseNode ----

void ParseNode::getMessages(std::map<Str, std::set<Str>>& out) const {
  for (const auto& [level, texts] : _messages) out[level].insert(texts.begin(), texts.end());
}

Str ParseNode::lispyEscape(const Str& text) {
  // Brackets and spaces delimit predicates; backslash escapes them.
  Str out;
  for (char c : text) {
    if (c == '[' || c == ']' || c == ' ' || c == '\\' || c == '(' || c == ')') out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

// ---- TERM ----

ParseNodeTERM::ParseNodeTERM(const Str& token) {
  _text = unquote(token, _isQuoted);
  Str low = lower(_text);
  _matcher.init(low.c_str());
  size_t i = 0;
  StrVector words;
  while (i < low.size()) {
    while (i < low.size() && !isWordChar(static_cast<unsigned char>(low[i])) && low[i] != '*') ++i;
    size_t j = i;
    while (j < low.size() && (isWordChar(static_cast<unsigned char>(low[j])) || low[j] == '*')) ++j;
    if (j > i) words.push_back(low.substr(i, j - i));
    i = j;
  }
  _isPhrase = _isQuoted && (words.size() > 1 || (words.size() == 1 && words[0] != low));
  if (_isPhrase) {
    for (const Str& w : words) _words.emplace_back(w.c_str());
    _wordHit.assign(_words.size(), false);
    Str p("*");
    p.append(StrSegment(low));
    p.push_back('*');
    _phrase.init(p.c_str());
  }
}

Str ParseNodeTERM::toString() const {
  Str out(_isNegated ? "NOT " : "");
  if (_isQuoted) {
    out.push_back('"');
    out.append(StrSegment(_text));
    out.push_back('"');
  } else {
    out.append(StrSegment(_text));
  }
  return out;
}

bool ParseNodeTERM::isMetaAll() const {
  return _text == "meta::all" || (!_text.empty() && _text.find_first_not_of('*') == Str::npos);
}

bool ParseNodeTERM::isExact() const { return !(_isPhrase && _text.find('*') != Str::npos); }

void ParseNodeTERM::hit(const StrSegment& tok) {
  if (_known || _found) return;
  size_t s, e;
  if (_isPhrase) {
    for (size_t i = 0; i < _words.size(); ++i) {
      if (!_wordHit[i] && _words[i].isMatch(tok, s, e)) _wordHit[i] = true;
    }
    return;
  }
  if (_matcher.isMatch(tok, s, e)) {
    _found = true;
    setValue(!_isNegated);
  }
}

void ParseNodeTERM::finish(const StrSegment& lowerRaw) {
  if (!_known && _isPhrase) {
    bool all = true;
    for (bool h : _wordHit) all = all && h;
    size_t s, e;
    _found = all && _phrase.isMatch(lowerRaw, s, e);
  }
  if (!_known) setValue(_found != _isNegated);
  _found = false;
  _wordHit.assign(_wordHit.size(), false);
}

std::unique_ptr<LispyNode> ParseNodeTERM::toLispyNode() const {
  std::unique_ptr<LispyNode> inner;
  if (isMetaAll()) {
    inner = LispyNode::term("*");
  } else if (_isPhrase) {
    inner = LispyNode::op(LispyNode::AND);
    for (const WildcardMatcher& w : _words) {
      inner->children.push_back(LispyNode::term(lispyEscape(w.getPattern())));
    }
  } else {
    inner = LispyNode::term(lispyEscape(lower(_text)));
  }
  if (!_isNegated) return inner;
  // The index can only exclude what it matches exactly.
  if (!isExact() || isMetaAll()) return LispyNode::term("*");
  auto n = LispyNode::op(LispyNode::NOT);
  n->children.push_back(std::move(inner));
  return n;
}

// ---- CMP ----

ParseNodeCMP::ParseNodeCMP(const Str& cmp) : _cmp(cmp) {
  if (cmp == "!=") {
    _isNegated = true;
    _orEQ = true;
  } else {
    _isLT = !cmp.empty() && cmp.front() == '<';
    _isGT = !cmp.empty() && cmp.front() == '>';
    _orEQ = (!cmp.empty() && cmp.back() == '=') || cmp == "::";
  }
}

void ParseNodeCMP::setSides(const Str& key, const Str& value) {
  _key = key;
  _value = value;
  _lowerValue = lower(value);
  _matcher.init(_lowerValue.c_str());
  _isNum = parseNumber(value, _num);
  _hasSides = true;
  _isCidr = false;
  if (_isLT || _isGT || !looksLikeCidr(value)) return;
  if (!parseCidr(value, _cidrNet, _cidrMask)) {
    throw SearchParsingException("Invalid CIDR subnet: %s", value.c_str());
  }
  _isCidr = true;
}

Str ParseNodeCMP::toString() const {
  Str out(_isNegated ? "NOT " : "");
  out.append(StrSegment(_key));
  if (_indexed) {
    out.append("::");
  } else if (_isLT || _isGT) {
    out.push_back(_isLT ? '<' : '>');
    if (_orEQ) out.push_back('=');
  } else {
    out.push_back('=');
  }
  // Values with blanks (or none at all) are quoted so the form reads back.
  bool quote = _value.empty() || _value.find_first_of(" \t\n\"") != Str::npos;
  if (quote) out.push_back('"');
  out.append(StrSegment(_value));
  if (quote) out.push_back('"');
  return out;
}

bool ParseNodeCMP::test(const Str& lowerValue) const {
  if (_isCidr) {
    uint32_t addr;
    return parseIPv4(lowerValue, addr) && (addr & _cidrMask) == _cidrNet;
  }
  bool range = _isLT || _isGT;
  double n;
  if (_isNum && parseNumber(lowerValue, n)) {
    if (_isLT) return n < _num || (_orEQ && n == _num);
    if (_isGT) return n > _num || (_orEQ && n == _num);
    return n == _num;
  }
  if (!range) {
    size_t s, e;
    return _matcher.isMatch(lowerValue, s, e);
  }
  int c = lowerValue.compare(_lowerValue);
  if (_isLT) return c < 0 || (_orEQ && c == 0);
  return c > 0 || (_orEQ && c == 0);
}

void ParseNodeCMP::evaluate(const StrVector& values) {
  bool any = false;
  for (const Str& v : values) {
    if (test(lower(v))) {
      any = true;
      break;
    }
  }
  setValue(any != _isNegated);
}

void ParseNodeCMP::evaluate(const SearchResult* row, size_t keyIndex) {
  if (_known) return;
  StrVector values;
  if (keyIndex == 0 || !row->getMultiValues(keyIndex, values)) {
    // Nothing satisfies the comparison; a negation of it then holds.
    setValue(_isNegated);
    return;
  }
  evaluate(values);
}

std::unique_ptr<LispyNode> ParseNodeCMP::toLispyNode() const {
  // Only equality narrows what the index returns.
  if (_isLT || _isGT || _isCidr || (_isNegated && _value.find('*') != Str::npos)) {
    return LispyNode::term("*");
  }
  Str t(lispyEscape(lower(_key)));
  t.append("::");
  t.append(StrSegment(lispyEscape(_lowerValue)));
  auto n = LispyNode::term(t);
  if (!_isNegated) return n;
  auto neg = LispyNode::op(LispyNode::NOT);
  neg->children.push_back(std::move(n));
  return neg;
}

// ---- CMPVector ----

void ParseNodeCMPVector::optimize() {
  for (ParseNodeCMP* c : _cmps) {
    if (!c->isPlainMatch()) continue;
    _trie.insert(c->getLowerVal(), c);
    _inTrie.push_back(c);
  }
  _optimized = true;
}

void ParseNodeCMPVector::evaluate(const StrVector& values) const {
  std::vector<ParseNodeCMP*> hits;
  if (!_inTrie.empty()) {
    for (const Str& v : values) _trie.find(lower(v), hits);
  }
  for (ParseNodeCMP* c : _cmps) {
    if (c->hasValue()) continue;
    bool covered = _optimized && c->isPlainMatch();
    if (!covered) {
      c->evaluate(values);
      continue;
    }
    bool hit = std::find(hits.begin(), hits.end(), c) != hits.end();
    c->setValue(hit != c->isNegated());
  }
}

void ParseNodeCMPVector::evaluate(const SearchResult* row, size_t keyIndex) const {
  StrVector values;
  if (keyIndex == 0 || !row->getMultiValues(keyIndex, values)) {
    for (ParseNodeCMP* c : _cmps) c->evaluate(row, keyIndex);
    return;
  }
  evaluate(values);
}

// ---- GROUP ----

ParseNodeGROUP::~ParseNodeGROUP() {
  for (ParseNode* c : _children) delete c;
}

void ParseNodeGROUP::pushNOT() {
  _isConj = !_isConj;
  for (ParseNode* c : _children) c->pushNOT();
}

Str ParseNodeGROUP::toString() const {
  Str out(_isConj ? "(AND" : "(OR");
  for (const ParseNode* c : _children) {
    out.push_back(' ');
    out.append(c->toString());
  }
  out.push_back(')');
  return out;
}

void ParseNodeGROUP::resetValue() {
  _known = false;
  for (ParseNode* c : _children) c->resetValue();
}

bool ParseNodeGROUP::getValue(bool& out) const {
  if (_children.empty()) {
    out = _isConj;
    return true;
  }
  for (const ParseNode* c : _children) {
    bool v;
    if (c->getValue(v)) {
      if (v != _isConj) {
        out = v;
        return true;
      }
    } else if (_isConj) {
      out = false;
      return false;
    }
  }
  out = false;
  if (_isConj) out = true;
  return _isConj;
}

std::unique_ptr<LispyNode> ParseNodeGROUP::toLispyNode() const {
  auto n = LispyNode::op(_isConj ? LispyNode::AND : LispyNode::OR);
  for (const ParseNode* c : _children) n->children.push_back(c->toLispyNode());
  return n;
}

void ParseNodeGROUP::getMessages(std::map<Str, std::set<Str>>& out) const {
  ParseNode::getMessages(out);
  for (const ParseNode* c : _children) c->getMessages(out);
}

void ParseNodeGROUP::eraseAt(size_t i) {
  delete _children[i];
  _children.erase(_children.begin() + static_cast<std::ptrdiff_t>(i));
}

namespace {

const ParseNodeDIRECTIVE* asDirective(const ParseNode* n) {
  return n != nullptr && n->isDIRECTIVE() ? static_cast<const ParseNodeDIRECTIVE*>(n) : nullptr;
}

bool isWord(const ParseNode* n, const char* w) {
  const ParseNodeDIRECTIVE* d = asDirective(n);
  return d != nullptr && d->word() == w;
}

}  // namespace

void ParseNodeGROUP::associate() {
  // 1. Comparators take the terms beside them.
  for (size_t i = 0; i < _children.size(); ++i) {
    ParseNode* c = _children[i];
    if (c->isGROUP()) {
      static_cast<ParseNodeGROUP*>(c)->associate();
      continue;
    }
    if (!c->isCMP()) continue;
    ParseNodeCMP* cmp = static_cast<ParseNodeCMP*>(c);
    if (cmp->hasSides()) continue;
    const char* op = cmp->getCmp().c_str();
    if (i == 0) throw SearchParsingException("Comparator '%s' is missing a term on the left hand side", op);
    if (i + 1 >= _children.size())
      throw SearchParsingException("Comparator '%s' is missing a term on the right hand side", op);
    if (!_children[i - 1]->isTERM())
      throw SearchParsingException("Comparator '%s' has an invalid term on the left hand side", op);
    if (!_children[i + 1]->isTERM())
      throw SearchParsingException("Comparator '%s' has an invalid term on the right hand side", op);
    Str key = static_cast<ParseNodeTERM*>(_children[i - 1])->termString();
    Str value = static_cast<ParseNodeTERM*>(_children[i + 1])->termString();
    if (key == "index" && (cmp->isLT() || cmp->isGT()))
      throw SearchParsingException("Range queries are not supported for index");
    cmp->setSides(key, value);
    eraseAt(i + 1);
    eraseAt(i - 1);
    --i;
  }
  // 2. AND is what adjacency means already.
  for (size_t i = 0; i < _children.size();) {
    if (!isWord(_children[i], "AND")) {
      ++i;
      continue;
    }
    ParseNode* left = i > 0 ? _children[i - 1] : nullptr;
    ParseNode* right = i + 1 < _children.size() ? _children[i + 1] : nullptr;
    if (isWord(left, "OR")) throw SearchParsingException("Invalid search: OR AND");
    if (isWord(left, "AND")) throw SearchParsingException("Invalid search: AND AND");
    if (left == nullptr || left->isDIRECTIVE())
      throw SearchParsingException("'AND' operator is missing a clause on the left hand side");
    if (isWord(right, "OR")) throw SearchParsingException("Invalid search: AND OR");
    if (isWord(right, "AND")) throw SearchParsingException("Invalid search: AND AND");
    if (right == nullptr)
      throw SearchParsingException("'AND' operator is missing a clause on the right hand side");
    eraseAt(i);
  }
  // 3. field::value names an indexed field.
  for (size_t i = 0; i < _children.size(); ++i) {
    if (!_children[i]->isTERM()) continue;
    ParseNodeTERM* t = static_cast<ParseNodeTERM*>(_children[i]);
    const Str& text = t->termString();
    size_t pos = text.find("::");
    if (pos == Str::npos || pos == 0 || pos + 2 >= text.size() || t->isMetaAll()) continue;
    if (t->isQUOTED()) {
      Str msg;
      msg.format("Searching for \"%s\" will match literal pattern, not %s=%s", text.c_str(),
                 text.substr(0, pos).c_str(), text.substr(pos + 2).c_str());
      _messages["DEBUG"].insert(msg);
      continue;
    }
    ParseNodeCMP* cmp = new ParseNodeCMP("::");
    cmp->setSides(text.substr(0, pos), text.substr(pos + 2));
    cmp->setIndexed(true);
    if (t->isNegated()) cmp->pushNOT();
    delete t;
    _children[i] = cmp;
  }
  // 4. NOT applies to the clause after it.
  for (size_t i = 0; i < _children.size();) {
    if (!isWord(_children[i], "NOT")) {
      ++i;
      continue;
    }
    if (i + 1 >= _children.size()) throw SearchParsingException("NOT requires an argument");
    ParseNode* next = _children[i + 1];
    if (isWord(next, "NOT")) {
      eraseAt(i + 1);
      eraseAt(i);
      continue;
    }
    if (next->isDIRECTIVE()) throw SearchParsingException("NOT must not be followed by a binary operator");
    next->pushNOT();
    eraseAt(i);
    ++i;
  }
  // 5. OR binds its neighbours; a run of them makes one group.
  for (size_t i = 0; i < _children.size();) {
    if (!_children[i]->isDIRECTIVE()) {
      ++i;
      continue;
    }
    if (!isWord(_children[i], "OR")) throw SearchParsingException("Unknown directive");
    if (i == 0)
      throw SearchParsingException("'OR' operator is missing a clause on the left hand side");
    if (i + 1 >= _children.size())
      throw SearchParsingException("'OR' operator is missing a clause on the right hand side");
    ParseNode* left = _children[i - 1];
    ParseNode* right = _children[i + 1];
    if (right->isDIRECTIVE() || left->isDIRECTIVE()) throw SearchParsingException("Invalid search: OR OR");
    ParseNodeGROUP* g;
    if (left->isGROUP() && !static_cast<ParseNodeGROUP*>(left)->isCONJ()) {
      g = static_cast<ParseNodeGROUP*>(left);
    } else {
      g = new ParseNodeGROUP(false);
      g->append(left);
      _children[i - 1] = g;
    }
    g->append(right);
    delete _children[i];  // the OR itself
    _children.erase(_children.begin() + static_cast<std::ptrdiff_t>(i),
                    _children.begin() + static_cast<std::ptrdiff_t>(i + 2));
  }
}

void ParseNodeGROUP::collapse() {
  std::vector<ParseNode*> out;
  for (ParseNode* c : _children) {
    if (!c->isGROUP()) {
      out.push_back(c);
      continue;
    }
    ParseNodeGROUP* g = static_cast<ParseNodeGROUP*>(c);
    g->collapse();
    if (g->_children.size() == 1 || (g->_isConj == _isConj && !g->_children.empty())) {
      for (ParseNode* gc : g->_children) out.push_back(gc);
      g->_children.clear();
      // A lone child keeps its own sense; merge it again if it matches ours.
      delete g;
    } else {
      out.push_back(g);
    }
  }
  _children.swap(out);
  // One child group of the other sense: take its place.
  if (_children.size() == 1 && _children[0]->isGROUP()) {
    ParseNodeGROUP* g = static_cast<ParseNodeGROUP*>(_children[0]);
    _isConj = g->_isConj;
    std::vector<ParseNode*> grand;
    grand.swap(g->_children);
    delete g;
    _children.swap(grand);
  }
}

void ParseNodeGROUP::getLeaves(std::vector<ParseNode*>& out, size_t depth) const {
  for (ParseNode* c : _children) {
    if (c->isGROUP()) {
      static_cast<ParseNodeGROUP*>(c)->getLeaves(out, depth + 1);
    } else {
      out.push_back(c);
    }
  }
}

// ---- SearchEvaluator ----

SearchEvaluator::SearchEvaluator(const Str& search, bool allowUnbalanced) : _search(search) {
  RETokenizer tok = RETokenizer::fromSettings(search);
  std::unique_ptr<ParseNodeGROUP> root(new ParseNodeGROUP(true));
  std::vector<ParseNodeGROUP*> stack{root.get()};
  for (const Str& t : tok.tokens()) {
    gLogger.debug("looking at token '%s'", t.c_str());
    if (t == "(") {
      ParseNodeGROUP* g = new ParseNodeGROUP(true);
      stack.back()->append(g);
      stack.push_back(g);
    } else if (t == ")") {
      if (stack.size() == 1) throw SearchParsingException("unbalanced parentheses");
      stack.pop_back();
    } else if (t == "AND" || t == "OR" || t == "NOT") {
      stack.back()->append(new ParseNodeDIRECTIVE(t));
    } else if (isComparatorToken(t)) {
      stack.back()->append(new ParseNodeCMP(t));
    } else {
      stack.back()->append(new ParseNodeTERM(t));
    }
  }
  if (stack.size() > 1 && !allowUnbalanced) throw SearchParsingException("unbalanced parentheses");
  root->associate();
  root->collapse();
  _root = root.release();
  _root->getLeaves(_leaves);
  for (ParseNode* l : _leaves) {
    if (l->isTERM()) _terms.push_back(static_cast<ParseNodeTERM*>(l));
    if (l->isCMP()) {
      ParseNodeCMP* c = static_cast<ParseNodeCMP*>(l);
      _cmps[c->getKey()].add(c);
    }
  }
  for (auto& [field, cmps] : _cmps) cmps.optimize();
}

SearchEvaluator::~SearchEvaluator() { delete _root; }

void SearchEvaluator::initKeys(const SearchResults& results) {
  _keysFor = &results;
  _rawIndex = results.keyIndex(Str("_raw"));
  _keyIndexes.clear();
  for (const auto& [field, cmps] : _cmps) _keyIndexes[field] = results.keyIndex(field);
}

int SearchEvaluator::isMatch(const SearchResult* row, const std::set<Str>& ignoredFields) {
  if (_keysFor != row->parent()) initKeys(*row->parent());
  _root->resetValue();
  bool v;
  const Str* raw = row->valuePtr(_rawIndex);
  if (raw == nullptr || raw->empty()) {
    for (ParseNodeTERM* t : _terms) t->setValue(true);
  } else if (!_terms.empty()) {
    Str low = lower(*raw);
    const char* p = low.data();
    size_t n = low.size();
    // Minor tokens (word runs) and major ones (non-space runs).
    for (size_t i = 0; i < n && !_root->getValue(v);) {
      size_t j = i;
      while (j < n && isWordChar(static_cast<unsigned char>(p[j]))) ++j;
      if (j > i) {
        for (ParseNodeTERM* t : _terms) t->hit(StrSegment(p + i, j - i));
      }
      i = j == i ? i + 1 : j;
    }
    for (size_t i = 0; i < n && !_root->getValue(v);) {
      size_t j = i;
      while (j < n && !isSpace(p[j])) ++j;
      if (j > i) {
        for (ParseNodeTERM* t : _terms) t->hit(StrSegment(p + i, j - i));
      }
      i = j == i ? i + 1 : j;
    }
    for (ParseNodeTERM* t : _terms) t->finish(low);
  }
  if (_root->getValue(v)) return v ? 1 : 0;
  bool skipped = false;
  for (const auto& [field, cmps] : _cmps) {
    if (ignoredFields.count(field)) {
      skipped = true;
      continue;
    }
    size_t idx = _keyIndexes[field];
    cmps.evaluate(row, idx);
    if (_root->getValue(v)) return v ? 1 : 0;
  }
  // With every leaf decided, an OR that never saw a true child is false:
  // "undecided" is kept for rows where an ignored field could still matter.
  bool known = _root->getValue(v);
  if (known || !skipped) return v ? 1 : 0;
  return 2;
}

bool SearchEvaluator::filter(SearchResults& results, const std::set<Str>& ignoredFields,
                             bool keysReady) {
  if (!keysReady) initKeys(results);
  bool allDecided = true;
  std::vector<size_t> drop;
  for (size_t i = 0; i < results.size(); ++i) {
    int m = isMatch(results[i], ignoredFields);
    if (m == 0 || (m == 2 && ignoredFields.empty())) {
      drop.push_back(i);
    } else if (m == 2) {
      allDecided = false;
    }
  }
  results.eraseResults(drop);
  return allDecided;
}

void SearchEvaluator::getKeywords(std::set<Str>& out) const {
  for (const ParseNodeTERM* t : _terms) {
    if (!t->isNegated() && !t->isMetaAll()) out.insert(lower(t->termString()));
  }
}

void SearchEvaluator::getFields(std::set<Str>& out) const {
  for (const auto& [field, cmps] : _cmps) out.insert(field);
}
