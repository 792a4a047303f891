#include "util/StrSegment.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "util/Assert.h"
#include "util/Str.h"
#include "util/StrMem.h"
#include "util/StrVector.h"

const CharacterClass StrSegment::default_trimchars(" \t");

StrSegmentTokenAcceptor::~StrSegmentTokenAcceptor() = default;

StrSegment::StrSegment(const char* cstr) : _data(cstr), _len(std::strlen(cstr)) {}

void StrSegment::_advanceTo(const char* p) {
  kassert(_len >= (size_type) (p - _data));
  _len -= static_cast<size_type>(p - _data);
  _data = p;
}

// ---- Searches: the standard string's rules, over the view. ----

StrSegment::size_type StrSegment::find(char c, size_type pos) const { return view().find(c, pos); }
StrSegment::size_type StrSegment::find(const char* s, size_type pos) const {
  return view().find(s, pos);
}
StrSegment::size_type StrSegment::find(const char* s, size_type pos, size_type n) const {
  return view().find(s, pos, n);
}
StrSegment::size_type StrSegment::find(const StrSegment& s, size_type pos) const {
  return view().find(s.view(), pos);
}
StrSegment::size_type StrSegment::rfind(char c, size_type pos) const { return view().rfind(c, pos); }
StrSegment::size_type StrSegment::rfind(const char* s, size_type pos) const {
  return view().rfind(s, pos);
}
StrSegment::size_type StrSegment::rfind(const char* s, size_type pos, size_type n) const {
  return view().rfind(s, pos, n);
}
StrSegment::size_type StrSegment::rfind(const StrSegment& s, size_type pos) const {
  return view().rfind(s.view(), pos);
}

StrSegment::size_type StrSegment::find_first_of(const CharacterClass& cc, size_type pos) const {
  return cclass_find(cc, _data, _len, pos, true);
}
StrSegment::size_type StrSegment::find_first_of(const char* set, size_type pos) const {
  return view().find_first_of(set, pos);
}
StrSegment::size_type StrSegment::find_first_not_of(const CharacterClass& cc, size_type pos) const {
  return cclass_find(cc, _data, _len, pos, false);
}
StrSegment::size_type StrSegment::find_first_not_of(const char* set, size_type pos) const {
  return view().find_first_not_of(set, pos);
}
StrSegment::size_type StrSegment::find_first_not_of(char c, size_type pos) const {
  return view().find_first_not_of(c, pos);
}
StrSegment::size_type StrSegment::find_last_of(const CharacterClass& cc, size_type pos) const {
  return cclass_rfind(cc, _data, _len, pos, true);
}
StrSegment::size_type StrSegment::find_last_of(const char* set, size_type pos) const {
  return view().find_last_of(set, pos);
}
StrSegment::size_type StrSegment::find_last_not_of(const CharacterClass& cc, size_type pos) const {
  return cclass_rfind(cc, _data, _len, pos, false);
}
StrSegment::size_type StrSegment::find_last_not_of(const char* set, size_type pos) const {
  return view().find_last_not_of(set, pos);
}
StrSegment::size_type StrSegment::find_last_not_of(char c, size_type pos) const {
  return view().find_last_not_of(c, pos);
}

bool StrSegment::startswith(const StrSegment& prefix) const {
  return mem_startswith(_data, _len, prefix._data, prefix._len);
}

bool StrSegment::endswith(const StrSegment& suffix) const {
  return mem_endswith(_data, _len, suffix._data, suffix._len);
}

int StrSegment::compare(const StrSegment& other) const {
  const size_type n = std::min(_len, other._len);
  if (n != 0) {
    const int r = std::memcmp(_data, other._data, n);
    if (r != 0) return r;
  }
  return static_cast<int>(static_cast<long long>(_len) - static_cast<long long>(other._len));
}

bool StrSegment::equals(const StrSegment& other) const {
  return _len == other._len && (_len == 0 || std::memcmp(_data, other._data, _len) == 0);
}

StrSegment::size_type StrSegment::count_char(char target, size_type start, size_type count) const {
  const size_type n = mem_bytes_for_substring(_len, start, count);
  return static_cast<size_type>(std::count(_data + start, _data + start + n, target));
}

StrSegment::size_type StrSegment::count_char(const CharacterClass& target, size_type start,
                                             size_type count) const {
  const size_type n = mem_bytes_for_substring(_len, start, count);
  return static_cast<size_type>(std::count_if(_data + start, _data + start + n,
                                              [&](char c) { return target.contains(c); }));
}

bool StrSegment::containsWhitespace() const {
  return std::any_of(begin(), end(),
                     [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; });
}

StrSegment::size_type StrSegment::copy(char* dest, size_type count, size_type pos) const {
  if (pos > _len) throw std::out_of_range("basic_string::copy");
  const size_type n = mem_bytes_for_substring(_len, pos, count);
  if (n != 0) std::memcpy(dest, _data + pos, n);
  return n;
}

char* StrSegment::copystr() const {
  char* p = new char[_len + 1];
  if (_len != 0) std::memcpy(p, _data, _len);
  p[_len] = '\0';
  return p;
}

char* StrSegment::strdup() const {
  char* p = static_cast<char*>(std::malloc(_len + 1));
  if (p == nullptr) return nullptr;
  if (_len != 0) std::memcpy(p, _data, _len);
  p[_len] = '\0';
  return p;
}

StrSegment StrSegment::substr(size_type pos, size_type count) const {
  if (pos > _len) throw std::out_of_range("basic_string::substr");
  return StrSegment(_data + pos, mem_bytes_for_substring(_len, pos, count));
}

StrSegment StrSegment::trim(const CharacterClass& cc, bool left, bool right) const {
  StrSegment s(*this);
  s.trimInPlace(cc, left, right);
  return s;
}

void StrSegment::trimInPlace(const CharacterClass& cc, bool left, bool right) {
  if (left) {
    const size_type first = cclass_find(cc, _data, _len, 0, false);
    _advanceTo(first == npos ? _data + _len : _data + first);
  }
  if (right) {
    const size_type last = cclass_rfind(cc, _data, _len, npos, false);
    _len = last == npos ? 0 : last + 1;
  }
}

// ---- Tokenisers ----

namespace {

// Finds the next delimiter at or after `pos`: its start, or npos, and its
// length in *dlen. One finder per delimiter shape; the split loops are shared.
struct CharDelim {
  char c;
  size_t next(const StrSegment& s, size_t pos, size_t* dlen) const {
    *dlen = 1;
    return s.find(c, pos);
  }
};
struct ClassDelim {
  const CharacterClass& cc;
  size_t next(const StrSegment& s, size_t pos, size_t* dlen) const {
    *dlen = 1;
    return cclass_find(cc, s.data(), s.size(), pos, true);
  }
};
struct SegmentDelim {
  const StrSegment& d;
  size_t next(const StrSegment& s, size_t pos, size_t* dlen) const {
    *dlen = d.size();
    return s.find(d, pos);
  }
};

void emit(StrSegmentTokenAcceptor& acceptor, const char* p, size_t len) {
  StrSegment token(p, len);
  acceptor.acceptToken(token);
}

template <class Finder>
void splitKeepingEmpty(const StrSegment& s, StrSegmentTokenAcceptor& acceptor, const Finder& f,
                       size_t maxsplits) {
  if (s.empty()) return;
  size_t pos = 0, splits = 0, dlen = 0;
  while (splits < maxsplits) {
    const size_t at = f.next(s, pos, &dlen);
    if (at == StrSegment::npos) break;
    emit(acceptor, s.data() + pos, at - pos);
    pos = at + dlen;
    ++splits;
  }
  emit(acceptor, s.data() + pos, s.size() - pos);
}

template <class Finder>
void splitSkippingEmpty(const StrSegment& s, StrSegmentTokenAcceptor& acceptor, const Finder& f,
                        size_t maxsplits) {
  size_t pos = 0, splits = 0, dlen = 0;
  for (;;) {
    // Skip the run of delimiters ahead of the next token.
    size_t at;
    while ((at = f.next(s, pos, &dlen)) == pos && pos < s.size()) pos += dlen;
    if (pos >= s.size()) return;
    if (splits == maxsplits || at == StrSegment::npos) break;
    emit(acceptor, s.data() + pos, at - pos);
    pos = at + dlen;
    ++splits;
  }
  emit(acceptor, s.data() + pos, s.size() - pos);
}

// An empty delimiter cuts between every byte until maxsplits runs out.
void splitBytes(const StrSegment& s, StrSegmentTokenAcceptor& acceptor, size_t maxsplits) {
  size_t pos = 0;
  for (size_t splits = 0; pos + 1 < s.size() && splits < maxsplits; ++splits, ++pos) {
    emit(acceptor, s.data() + pos, 1);
  }
  if (pos < s.size()) emit(acceptor, s.data() + pos, s.size() - pos);
}

}  // namespace

void StrSegment::split(StrSegmentTokenAcceptor& acceptor, char delim, size_type maxsplits) const {
  splitKeepingEmpty(*this, acceptor, CharDelim{delim}, maxsplits);
}
void StrSegment::split(StrSegmentTokenAcceptor& acceptor, const char* delim,
                       size_type maxsplits) const {
  split(acceptor, StrSegment(delim), maxsplits);
}
void StrSegment::split(StrSegmentTokenAcceptor& acceptor, const StrSegment& delim,
                       size_type maxsplits) const {
  if (delim.size() == 1) return split(acceptor, delim[0], maxsplits);
  if (delim.empty()) return splitBytes(*this, acceptor, maxsplits);
  splitKeepingEmpty(*this, acceptor, SegmentDelim{delim}, maxsplits);
}
void StrSegment::split(StrSegmentTokenAcceptor& acceptor, const CharacterClass& delim,
                       size_type maxsplits) const {
  splitKeepingEmpty(*this, acceptor, ClassDelim{delim}, maxsplits);
}

void StrSegment::splitNonEmpty(StrSegmentTokenAcceptor& acceptor, char delim,
                               size_type maxsplits) const {
  splitSkippingEmpty(*this, acceptor, CharDelim{delim}, maxsplits);
}
void StrSegment::splitNonEmpty(StrSegmentTokenAcceptor& acceptor, const char* delim,
                               size_type maxsplits) const {
  splitNonEmpty(acceptor, StrSegment(delim), maxsplits);
}
void StrSegment::splitNonEmpty(StrSegmentTokenAcceptor& acceptor, const StrSegment& delim,
                               size_type maxsplits) const {
  if (delim.size() == 1) return splitNonEmpty(acceptor, delim[0], maxsplits);
  if (delim.empty()) return splitBytes(*this, acceptor, maxsplits);
  splitSkippingEmpty(*this, acceptor, SegmentDelim{delim}, maxsplits);
}
void StrSegment::splitNonEmpty(StrSegmentTokenAcceptor& acceptor, const CharacterClass& delim,
                               size_type maxsplits) const {
  splitSkippingEmpty(*this, acceptor, ClassDelim{delim}, maxsplits);
}

void StrSegment::splitlines(StrSegmentTokenAcceptor& acceptor) const {
  size_type pos = 0;
  for (;;) {
    const size_type lf = find('\n', pos);
    if (lf == npos) break;
    size_type end = lf;
    // "\r\n" alone is a line holding "\r": only a line with other bytes
    // loses its carriage return.
    if (end - pos >= 2 && _data[end - 1] == '\r') --end;
    emit(acceptor, _data + pos, end - pos);
    pos = lf + 1;
  }
  if (pos < _len) emit(acceptor, _data + pos, _len - pos);
}

void acceptor_PopulateStrVector::acceptToken(StrSegment& token) { _target.append(token); }

void acceptor_PopulateStrSegmentVector::acceptToken(StrSegment& token) { _target.push_back(token); }

// ---- Conversions: through a NUL-terminated copy. ----

#define KESTRO_SEGMENT_CONVERSION(Type, tryName, toName)                 \
  bool StrSegment::tryName(Type& out, int base) const {                  \
    return Str(*this).tryName(out, base);                                \
  }                                                                      \
  Type StrSegment::toName(Type dflt, int base) const {                   \
    return Str(*this).toName(dflt, base);                                \
  }
KESTRO_SEGMENT_CONVERSION(int, tryToInt, toInt)
KESTRO_SEGMENT_CONVERSION(unsigned, tryToUnsigned, toUnsigned)
KESTRO_SEGMENT_CONVERSION(long, tryToLong, toLong)
KESTRO_SEGMENT_CONVERSION(unsigned long, tryToUnsignedLong, toUnsignedLong)
KESTRO_SEGMENT_CONVERSION(long long, tryToLongLong, toLongLong)
KESTRO_SEGMENT_CONVERSION(unsigned long long, tryToUnsignedLongLong, toUnsignedLongLong)
KESTRO_SEGMENT_CONVERSION(size_t, tryToSizet, toSizet)
#undef KESTRO_SEGMENT_CONVERSION

bool StrSegment::tryToBool(bool& out) const { return Str(*this).tryToBool(out); }
bool StrSegment::toBool(bool whenEmpty, bool whenInvalid) const {
  return Str(*this).toBool(whenEmpty, whenInvalid);
}
bool StrSegment::tryToDouble(double& out) const { return Str(*this).tryToDouble(out); }
double StrSegment::toDouble(double dflt) const { return Str(*this).toDouble(dflt); }
