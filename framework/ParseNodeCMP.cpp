// The comparisons of a search: one field's values against a value, and
// the comparisons of one field decided together.
#include <arpa/inet.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "framework/LimitsStanza.h"
#include "framework/ParseNode.h"
#include "framework/SearchResults.h"
#include "libbundle/PropertiesMap.h"
#include "util/Timeval.h"

namespace {

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

bool parseNumber(const Str& s, double& out) {
  if (s.empty()) return false;
  char* end = nullptr;
  out = strtod(s.c_str(), &end);
  return end == s.c_str() + s.size();
}

}  // namespace

// ---- CMP ----

ParseNodeCMP::ParseNodeCMP(const Str& cmp, const PropertyPagesContext* context)
    : _cmp(cmp), _indexedValue("true") {
  if (context != nullptr) {
    _context = *context;
    _hasContext = true;
  }
  if (cmp == "!=") {
    _isNegated = true;
    _orEQ = true;
  } else {
    _isLT = !cmp.empty() && cmp.front() == '<';
    _isGT = !cmp.empty() && cmp.front() == '>';
    _orEQ = (!cmp.empty() && cmp.back() == '=') || cmp == "::";
  }
}

void ParseNodeCMP::readFieldSettings() {
  PropertiesMap stanza;
  if (!getConfStanza("fields", _key, _hasContext ? &_context : nullptr, stanza)) return;
  if (stanza.get("INDEXED").toBool(false, false)) _indexed = true;
  const Str& iv = stanza.get("INDEXED_VALUE");
  if (!iv.empty()) _indexedValue = iv;
}

void ParseNodeCMP::setSides(const Str& key, const Str& value, const GenericCleaner* cleaner,
                            bool caseSensitive) {
  _key = key;
  _hasSides = true;
  _isCS = caseSensitive;
  readFieldSettings();
  setVal(value, cleaner);
}

void ParseNodeCMP::setVal(const Str& value, const GenericCleaner* cleaner) {
  _value = value;
  _lowerValue = squashed_str(value);
  _matcher.init((_isCS ? _value : _lowerValue).c_str());
  _isNum = parseNumber(value, _num);
  _isCidr = false;
  _valueTokens.clear();
  _lastMajorEnd = 0;
  static const GenericCleaner kBlanksOnly;
  (cleaner != nullptr ? cleaner : &kBlanksOnly)->clean(_lowerValue, *this);
  if (_isLT || _isGT || !looksLikeCidr(value)) return;
  if (!parseCidr(value, _cidrNet, _cidrMask)) {
    throw SearchParsingException("Invalid CIDR subnet: %s", value.c_str());
  }
  _isCidr = true;
}

bool ParseNodeCMP::acceptToken(const char* bytes, size_t length, size_t position) {
  // Minor tokens lie inside the major one before them, which the index
  // holds whole.
  if (position < _lastMajorEnd) return true;
  _valueTokens.emplace_back(bytes, length);
  _lastMajorEnd = position + length;
  return true;
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

bool ParseNodeCMP::test(const Str& squashed, const Str& plain) const {
  if (_isCidr) {
    uint32_t addr;
    return parseIPv4(plain, addr) && (addr & _cidrMask) == _cidrNet;
  }
  double n;
  if (_isNum && parseNumber(plain, n)) {
    if (_isLT) return n < _num || (_orEQ && n == _num);
    if (_isGT) return n > _num || (_orEQ && n == _num);
    return n == _num;
  }
  if (!_isLT && !_isGT) {
    size_t s, e;
    return _matcher.isMatch(_isCS ? plain : squashed, s, e);
  }
  int c = squashed.compare(_lowerValue);
  if (_isLT) return c < 0 || (_orEQ && c == 0);
  return c > 0 || (_orEQ && c == 0);
}

void ParseNodeCMP::evaluate(const StrVector& squashed, const StrVector& plain) {
  bool any = false;
  for (size_t i = 0; i < squashed.size() && i < plain.size() && !any; ++i) {
    any = test(squashed[i], plain[i]);
  }
  setCmpValue(any);
}

void ParseNodeCMP::evaluate(const SearchResult* row) {
  if (_known) return;
  StrVector plain;
  if (_keyIndex == 0 || !row->getMultiValues(_keyIndex, plain)) {
    setCmpValue(false);
    return;
  }
  StrVector squashed;
  squashed.reserve(plain.size());
  for (const Str& v : plain) squashed.push_back(squashed_str(v));
  evaluate(squashed, plain);
}

void ParseNodeCMP::setKeyIndex(SearchResults& results, bool create) {
  _keyIndex = results.keyIndex(_key, create);
}

bool ParseNodeCMP::isExact(bool) const { return _indexed && !_isLT && !_isGT && !_isCidr; }

Str ParseNodeCMP::toIndex() const {
  if (_indexed) {
    Str t(lispyEscape(squashed_str(_key)));
    t.append("::");
    t.append(StrSegment(lispyEscape(_lowerValue)));
    return t;
  }
  const Str low = squashed_str(_indexedValue);
  if (low == "false") return Str();
  if (low == "true") {
    // The value's major tokens, as the index keeps them.
    Str out;
    for (const Str& t : _valueTokens) {
      if (!out.empty()) out.push_back(' ');
      out.append(StrSegment(lispyEscape(t)));
    }
    return out;
  }
  Str rewritten;
  if (_indexedValue.size() > 2 && _indexedValue[0] == 's' && _indexedValue[1] == '/') {
    // s/re/replacement/flags
    StrVector parts;
    Str cur;
    for (size_t i = 2; i < _indexedValue.size(); ++i) {
      char c = _indexedValue[i];
      if (c == '\\' && i + 1 < _indexedValue.size() && _indexedValue[i + 1] == '/') {
        cur.push_back('/');
        ++i;
      } else if (c == '/') {
        parts.push_back(cur);
        cur.clear();
      } else {
        cur.push_back(c);
      }
    }
    parts.push_back(cur);
    if (parts.size() != 3) return Str();
    try {
      Regex re(parts[0]);
      if (parts[2].find('g') != Str::npos) {
        re.replaceAll(_value, parts[1], rewritten, true);
      } else {
        re.replace(_value, parts[1], rewritten, std::set<unsigned long>{1}, true);
      }
    } catch (const std::exception&) {
      return Str();
    }
  } else {
    rewritten = _indexedValue;
    const Str mark("<VALUE>");
    for (size_t at = rewritten.find(mark); at != Str::npos;
         at = rewritten.find(mark, at + _value.size())) {
      rewritten.replace(at, mark.size(), _value);
    }
  }
  return lispyEscape(squashed_str(rewritten));
}

std::unique_ptr<LispyNode> ParseNodeCMP::toLispyNode(Timeval& earliest, Timeval& latest) const {
  if (_key == "_time" && _isNum && !_isNegated && (_isLT || _isGT)) {
    if (_isGT) {
      const int64_t t = static_cast<int64_t>(std::floor(_num));
      if (earliest.tv_sec == 0 || t > earliest.tv_sec) earliest = Timeval(t, 0);
    } else {
      const int64_t t = static_cast<int64_t>(std::ceil(_num));
      if (latest.tv_sec == 0 || t < latest.tv_sec) latest = Timeval(t, 0);
    }
    return LispyNode::term("*");
  }
  // Only equality narrows what the index returns.
  if (_isLT || _isGT || _isCidr || (_isNegated && (!_indexed || _value.find('*') != Str::npos))) {
    return LispyNode::term("*");
  }
  const Str t = toIndex();
  if (t.empty()) return LispyNode::term("*");
  std::unique_ptr<LispyNode> n;
  if (t.find(' ') == Str::npos || _indexed) {
    n = LispyNode::term(t);
  } else {
    n = LispyNode::op(LispyNode::AND);
    for (size_t i = 0; i < t.size();) {
      size_t j = t.find(' ', i);
      if (j == Str::npos) j = t.size();
      n->children.push_back(LispyNode::term(t.substr(i, j - i)));
      i = j + 1;
    }
  }
  if (!_isNegated) return n;
  auto neg = LispyNode::op(LispyNode::NOT);
  neg->children.push_back(std::move(n));
  return neg;
}

void ParseNodeCMP::getIndexes(std::set<Str>& indexes, std::set<Str>& excluded) const {
  if (_key != "index" || _isLT || _isGT) return;
  (_isNegated ? excluded : indexes).insert(_lowerValue);
}

void ParseNodeCMP::assertFieldValue(const Str& field, const Str& value) {
  if (field != _key) return;
  evaluate(StrVector{squashed_str(value)}, StrVector{value});
}

// ---- CMPVector ----

void ParseNodeCMPVector::optimize(const Str& field) {
  unoptimize();
  _trie = std::make_unique<WildcardMatcherTrie<ParseNodeCMP*>>();
  for (ParseNodeCMP* c : _cmps) {
    if (!c->isPlainMatch() || c->getKey() != field) continue;
    _trie->insert(c->getLowerVal(), c);
    _inTrie.push_back(c);
  }
}

void ParseNodeCMPVector::unoptimize() {
  _trie.reset();
  _inTrie.clear();
}

void ParseNodeCMPVector::evaluate(const StrVector& squashed, const StrVector& plain) const {
  std::vector<ParseNodeCMP*> hits;
  if (!_inTrie.empty()) {
    for (const Str& v : squashed) _trie->find(v, hits);
  }
  for (ParseNodeCMP* c : _cmps) {
    if (c->hasValue()) continue;
    if (std::find(_inTrie.begin(), _inTrie.end(), c) != _inTrie.end()) {
      c->setCmpValue(std::find(hits.begin(), hits.end(), c) != hits.end());
    } else {
      c->evaluate(squashed, plain);
    }
  }
}

void ParseNodeCMPVector::unsetCmpValues() const {
  for (ParseNodeCMP* c : _cmps) {
    if (!c->hasValue()) c->setCmpValue(!c->isEQ());
  }
}

