#include "util/WildcardMatcher.h"

#include <cstring>

#include "util/Assert.h"

WildcardMatcher::WildcardMatcher(const WildcardMatcher& other)
    : _pattern(other._pattern),
      _literals(other._literals),
      _hardEnd(other._hardEnd),
      _hardStart(other._hardStart),
      _singleWord(other._singleWord) {
  _rebuildPointers();
}

WildcardMatcher& WildcardMatcher::operator=(const WildcardMatcher& other) {
  if (this != &other) {
    _pattern = other._pattern;
    _literals = other._literals;
    _hardEnd = other._hardEnd;
    _hardStart = other._hardStart;
    _singleWord = other._singleWord;
    _rebuildPointers();
  }
  return *this;
}

void WildcardMatcher::init(const char* pattern) {
  if (pattern == nullptr) pattern = "";
  _pattern.assign(pattern);
  _literals.clear();
  _hardStart = false;
  _hardEnd = false;
  _singleWord = false;
  if (*pattern == '\0') {
    _hardStart = _hardEnd = _singleWord = true;
    _literals.push_back('\0');
    _rebuildPointers();
    return;
  }

  _literals.reserve(_pattern.size() + 1);
  bool inLiteral = false;
  bool sawStar = false;
  size_t count = 0;
  for (const char* p = pattern; *p != '\0'; ++p) {
    if (*p == '*') {
      if (inLiteral) _literals.push_back('\0');
      inLiteral = false;
      sawStar = true;
      continue;
    }
    if (!inLiteral) {
      inLiteral = true;
      if (count == 0 && !sawStar) _hardStart = true;
      ++count;
    }
    _literals.push_back(*p);
  }
  if (inLiteral) {
    _literals.push_back('\0');
    _hardEnd = true;
    _singleWord = _hardStart && count == 1;
  }
  _rebuildPointers();
}

void WildcardMatcher::_rebuildPointers() {
  _literalStarts.clear();
  _searchers.clear();
  const char* const base = _literals.data();
  for (size_t i = 0; i < _literals.size();) {
    _literalStarts.push_back(base + i);
    _searchers.emplace_back(base + i);
    i += _searchers.back().length() + 1;
  }
}

bool WildcardMatcher::isMatch(const StrSegment& text, size_t& start, size_t& end) const {
  start = 0;
  end = text.size();
  if (_singleWord) return text.equals(StrSegment(_literalStarts[0], _searchers[0].length()));

  const size_t count = _searchers.size();
  size_t scan = 0;
  size_t i = 0;
  if (_hardStart) {
    const HorspoolStr& first = _searchers[0];
    if (!text.startswith(StrSegment(first.getNeedle(), first.length()))) return false;
    scan = first.length();
    i = 1;
  }
  bool startSet = _hardStart;
  for (; i < count; ++i) {
    const size_t pos = _searchers[i].findIn(text, scan);
    if (pos == StrSegment::npos) return false;
    if (!startSet) {
      start = pos;
      startSet = true;
    }
    scan = pos + _searchers[i].length();
    end = scan;
  }
  if (_hardEnd && scan < text.size()) {
    // The last literal was found somewhere; it must also be the tail.
    const HorspoolStr& last = _searchers[count - 1];
    const size_t slen = last.length();
    const size_t hlen = text.size();
    kassert(slen < hlen);
    if (std::memcmp(text.data() + hlen - slen, last.getNeedle(), slen) != 0) return false;
    if (count == 1) {
      start = hlen - slen;
      end = hlen;
    }
  }
  return true;
}

bool WildcardMatcher::isMatch(const char* text, size_t& start, size_t& end) const {
  return isMatch(StrSegment(text), start, end);
}

bool WildcardMatcher::isMatch(const char* text, StrVector& captures) const {
  captures.clear();
  if (_singleWord) return std::strcmp(text, _literalStarts[0]) == 0;

  const size_t count = _literalStarts.size();
  const char* p = text;
  size_t i = 0;
  if (_hardStart) {
    if (std::strncmp(p, _literalStarts[0], _searchers[0].length()) != 0) return false;
    p += _searchers[0].length();
    i = 1;
  }
  const size_t middleEnd = _hardEnd ? count - 1 : count;
  for (; i < middleEnd; ++i) {
    const char* hit = std::strstr(p, _literalStarts[i]);
    if (hit == nullptr) return false;
    captures.append(StrSegment(p, static_cast<size_t>(hit - p)));
    p = hit + _searchers[i].length();
  }
  if (!_hardEnd) {
    captures.append(StrSegment(p));
    return true;
  }
  const char* const last = _literalStarts[count - 1];
  const size_t lastLen = _searchers[count - 1].length();
  while (true) {
    const char* hit = std::strstr(p, last);
    if (hit == nullptr) return false;
    captures.append(StrSegment(p, static_cast<size_t>(hit - p)));
    p = hit + lastLen;
    if (*p == '\0') return true;
  }
}

int WildcardMatcher::getMatcherType() const {
  if (_singleWord) return 4;
  if (!_literalStarts.empty()) return 3;
  if (!_hardStart && !_hardEnd) return -1;
  if (_hardStart && _hardEnd) return 2;
  return _hardStart ? 1 : 0;
}

const char* WildcardMatcher::getWord() const {
  return _literalStarts.empty() ? "" : _literalStarts[0];
}

Str WildcardMatcher::getPatternPrefix() const {
  return _hardStart ? Str(_literalStarts[0]) : Str();
}

Str WildcardMatcher::getPatternSuffix() const {
  return _hardEnd ? Str(_literalStarts.back()) : Str();
}

Str WildcardMatcher::debugOpaqueMatcher() const {
  // Appended piece by piece: the optimiser warns falsely about the
  // temporaries of operator+ here.
  Str out("pattern=\"");
  out += _pattern;
  out += "\" literals=[";
  for (size_t i = 0; i < _literalStarts.size(); ++i) {
    if (i != 0) out.push_back(',');
    out.push_back('"');
    out += _literalStarts[i];
    out.push_back('"');
  }
  out.appendFormat("] hardStart=%d hardEnd=%d singleWord=%d", _hardStart ? 1 : 0,
                   _hardEnd ? 1 : 0, _singleWord ? 1 : 0);
  return out;
}

WildcardMatcherVec::WildcardMatcherVec(const StrVector& patterns) {
  _matchers.reserve(patterns.size());
  for (const Str& p : patterns) _matchers.push_back(std::make_unique<WildcardMatcher>(p.c_str()));
}

bool WildcardMatcherVec::isMatch(const StrVector& path) const {
  if (path.size() != _matchers.size()) return false;
  size_t start = 0;
  size_t end = 0;
  for (size_t i = 0; i < path.size(); ++i) {
    if (!_matchers[i]->isMatch(StrSegment(path[i]), start, end)) return false;
  }
  return true;
}
