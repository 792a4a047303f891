#include "framework/ParseNode.h"

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "framework/SearchResults.h"
#include "framework/SearchResultsInfo.h"
#include "util/CharacterClass.h"
#include "util/Timeval.h"

namespace {

// A regex over event text, which need not be valid UTF-8.
class TextRegex : public Regex {
 public:
  explicit TextRegex(const Str& pattern) {
    tolerateInvalidUtf8();
    _internal_init(pattern, true, 0);
  }
};

bool isWordByte(char c) {
  return CharacterClass::ALPHA_NUM_UNDER.contains(c) || static_cast<unsigned char>(c) >= 0x80;
}

// The text of a token as a value: outer quotes dropped, backslash escapes
// resolved.
Str unquote(const StrSegment& token, bool& quoted) {
  StrSegment body(token);
  quoted = token.size() >= 2 && token.data()[0] == '"' && token.data()[token.size() - 1] == '"';
  if (quoted) body = StrSegment(token.data() + 1, token.size() - 2);
  Str out;
  for (size_t i = 0; i < body.size(); ++i) {
    char c = body.data()[i];
    if (c == '\\' && i + 1 < body.size()) c = body.data()[++i];
    out.push_back(c);
  }
  return out;
}

// "NAME(inner)" as written by the tokenizer's directives.
bool stripDirective(const Str& token, const char* name, Str& inner) {
  const size_t n = strlen(name);
  if (token.size() < n + 2 || token.compare(0, n, name) != 0 || token[n] != '(' ||
      token.back() != ')') {
    return false;
  }
  inner = token.substr(n + 1, token.size() - n - 2);
  return true;
}

// A pattern that finds `phrase` in text, "*" as any run, with no letter or
// digit against either end.
Str phrasePattern(const Str& phrase, bool caseSensitive) {
  const char* edge = caseSensitive ? "A-Za-z0-9" : "a-z0-9";
  Str out;
  out.format("(?<![%s])", edge);
  size_t i = 0;
  while (i < phrase.size()) {
    size_t star = phrase.find('*', i);
    if (star == Str::npos) star = phrase.size();
    Regex::escapeMetaChars(phrase.substr(i, star - i), out);
    if (star < phrase.size()) out.append(".*?");
    i = star + 1;
  }
  out.appendFormat("(?![%s])", edge);
  return out;
}

// The words of a phrase: runs of word bytes and stars.
StrVector phraseWords(const Str& text) {
  StrVector words;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && !isWordByte(text[i]) && text[i] != '*') ++i;
    size_t j = i;
    while (j < text.size() && (isWordByte(text[j]) || text[j] == '*')) ++j;
    if (j > i) words.push_back(text.substr(i, j - i));
    i = j;
  }
  return words;
}

}  // namespace

SearchParsingException::SearchParsingException(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  _text.vformat(fmt, ap);
  va_end(ap);
}

Str squashed_str(const StrSegment& value) {
  Str out(value);
  out.toLowercase();
  return out;
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

void ParseNode::getMessages(SearchResultsInfo& info) const {
  for (const auto& [level, byKey] : _messages) {
    for (const auto& [key, text] : byKey) info.addMessage(level, text);
  }
}

Str ParseNode::lispyEscape(const Str& text) {
  Str out;
  for (char c : text) {
    if (c == '[' || c == ']' || c == ' ' || c == '\\' || c == '(' || c == ')') out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

// ---- TERM ----

ParseNodeTERM::ParseNodeTERM(const Str& token) {
  Str inner;
  if (stripDirective(token, "CASE", inner)) {
    _isCS = true;
    _text = unquote(inner, _isQuoted);
  } else if (stripDirective(token, "TERM", inner)) {
    _isLiteral = true;
    _text = inner;
  } else {
    _text = unquote(token, _isQuoted);
  }
  _pattern = _isCS ? _text : squashed_str(_text);
  _matcher.init(_pattern.c_str());
  if (!_isQuoted) return;
  StrVector words = phraseWords(_pattern);
  _isPhrase = words.size() > 1 || (words.size() == 1 && words[0] != _pattern);
  if (!_isPhrase) return;
  for (const Str& w : words) _subTerms.push_back(std::make_unique<ParseNodeTERM>(w));
  try {
    _phraseRegex = std::make_unique<TextRegex>(phrasePattern(_pattern, _isCS));
  } catch (const RegexException&) {
    // Bytes that are not UTF-8 cannot stand in a pattern: such a phrase is
    // found anywhere in the text, without the check at its ends.
    Str anywhere("*");
    anywhere.append(StrSegment(_pattern));
    anywhere.push_back('*');
    _phraseFallback.init(anywhere.c_str());
  }
}

Str ParseNodeTERM::toString() const {
  Str out(_isNegated ? "NOT " : "");
  if (_isCS) out.append("CASE(");
  if (_isLiteral) out.append("TERM(");
  if (_isQuoted) out.push_back('"');
  out.append(StrSegment(_text));
  if (_isQuoted) out.push_back('"');
  if (_isCS || _isLiteral) out.push_back(')');
  return out;
}

void ParseNodeTERM::resetValue() {
  _known = false;
  for (auto& s : _subTerms) s->resetValue();
}

bool ParseNodeTERM::isMetaAll() const {
  return _text == "meta::all" || (!_text.empty() && _text.find_first_not_of('*') == Str::npos);
}

bool ParseNodeTERM::isExact(bool) const { return !(_isPhrase && !exact()); }

bool ParseNodeTERM::needRaw(bool) const {
  if (isMetaAll()) return false;
  // The index holds tokens: one that a plain term names needs no more.
  return _isPhrase || _isCS || !isExact(false);
}

Str ParseNodeTERM::prefix() const {
  const size_t star = _pattern.find('*');
  return star == Str::npos ? _pattern : _pattern.substr(0, star);
}

void ParseNodeTERM::hit(const char* bytes, size_t length) {
  if (_known) return;
  const StrSegment text(bytes, length);
  if (_isPhrase) {
    bool v;
    for (const auto& s : _subTerms) {
      if (!s->getValue(v) || !v) return;
    }
    size_t s, e;
    if (_phraseRegex != nullptr ? _phraseRegex->matches(text) : _phraseFallback.isMatch(text, s, e)) {
      setValue(!_isNegated);
    }
    return;
  }
  size_t s, e;
  if (_matcher.isMatch(text, s, e)) setValue(!_isNegated);
}

bool ParseNodeTERM::acceptToken(const char* bytes, size_t length, size_t) {
  if (!_isPhrase) {
    if (_isCS) {
      hit(bytes, length);
    } else {
      const Str low = squashed_str(StrSegment(bytes, length));
      hit(low.data(), low.size());
    }
    return true;
  }
  for (auto& s : _subTerms) s->acceptToken(bytes, length, 0);
  return true;
}

std::unique_ptr<LispyNode> ParseNodeTERM::toLispyNode(Timeval&, Timeval&) const {
  std::unique_ptr<LispyNode> inner;
  if (isMetaAll()) {
    inner = LispyNode::term("*");
  } else if (_isPhrase) {
    inner = LispyNode::op(LispyNode::AND);
    for (const auto& w : _subTerms) inner->children.push_back(LispyNode::term(lispyEscape(w->pattern())));
  } else {
    inner = LispyNode::term(lispyEscape(squashed_str(_text)));
  }
  if (!_isNegated) return inner;
  // The index can only exclude what it matches exactly.
  if (!isExact(false) || isMetaAll() || _isCS) return LispyNode::term("*");
  auto n = LispyNode::op(LispyNode::NOT);
  n->children.push_back(std::move(inner));
  return n;
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
  // Every child agreed with the group's sense: true for AND; an OR that
  // never saw a true child has not proved the row.
  out = _isConj;
  return _isConj;
}

void ParseNodeGROUP::getMessages(SearchResultsInfo& info) const {
  ParseNode::getMessages(info);
  for (const ParseNode* c : _children) c->getMessages(info);
}

bool ParseNodeGROUP::isExact(bool recurse) const {
  if (!recurse) return true;
  for (const ParseNode* c : _children) {
    if (!c->isExact(true)) return false;
  }
  return true;
}

bool ParseNodeGROUP::needRaw(bool recurse) const {
  if (!recurse) return false;
  for (const ParseNode* c : _children) {
    if (c->needRaw(true)) return true;
  }
  return false;
}

std::unique_ptr<LispyNode> ParseNodeGROUP::toLispyNode(Timeval& earliest, Timeval& latest) const {
  auto n = LispyNode::op(_isConj ? LispyNode::AND : LispyNode::OR);
  // Below an OR no single comparison binds every match.
  Timeval e0, l0;
  for (const ParseNode* c : _children) {
    n->children.push_back(_isConj ? c->toLispyNode(earliest, latest) : c->toLispyNode(e0, l0));
  }
  return n;
}

void ParseNodeGROUP::getIndexes(std::set<Str>& indexes, std::set<Str>& excluded) const {
  for (const ParseNode* c : _children) c->getIndexes(indexes, excluded);
}

void ParseNodeGROUP::assertFieldValue(const Str& field, const Str& value) {
  for (ParseNode* c : _children) c->assertFieldValue(field, value);
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

void ParseNodeGROUP::associate(const GenericCleaner* cleaner) {
  // 1. Comparators take the terms beside them.
  for (size_t i = 0; i < _children.size(); ++i) {
    ParseNode* c = _children[i];
    if (c->isGROUP()) {
      static_cast<ParseNodeGROUP*>(c)->associate(cleaner);
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
    const ParseNodeTERM* right = static_cast<ParseNodeTERM*>(_children[i + 1]);
    if (key == "index" && (cmp->isLT() || cmp->isGT()))
      throw SearchParsingException("Range queries are not supported for index");
    cmp->setSides(key, right->termString(), cleaner, right->isCS());
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
      _messages["DEBUG"]["SEARCHEVALUATOR_COLON_DEPRECATED"] = msg;
      continue;
    }
    ParseNodeCMP* cmp = new ParseNodeCMP("::");
    cmp->setSides(text.substr(0, pos), text.substr(pos + 2), cleaner);
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
