// StrSegment: a non-owning view of bytes, a pointer and a length, valid only
// as long as the bytes it points at. The read-only string vocabulary of the
// system is defined here once; Str and HashedStrReference offer it by
// delegation (util/StrSegmentVocabulary.h).
//
// A segment is a plain value: copying it copies the view, never the bytes.
// Thread story: const methods are safe from any thread while the bytes live.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "util/CharacterClass.h"

class Regex;
class Str;
class StrVector;
class StrSegmentVector;
class StrSegment;

// Receives the tokens of a split, one call per token, in order. The token
// refers into the text being split; copy it to keep it.
class StrSegmentTokenAcceptor {
 public:
  virtual ~StrSegmentTokenAcceptor();
  virtual void acceptToken(StrSegment& token) = 0;
};

class StrSegment {
 public:
  typedef size_t size_type;
  static constexpr size_type npos = static_cast<size_type>(-1);

  // Blank and tab: what trim and trimInPlace remove when given no class.
  static const CharacterClass default_trimchars;

  constexpr StrSegment() : _data(""), _len(0) {}
  constexpr StrSegment(const char* data, size_type len) : _data(data), _len(len) {}
  // Up to the NUL.
  StrSegment(const char* cstr);
  StrSegment(const std::string& s) : _data(s.data()), _len(s.size()) {}
  constexpr StrSegment(std::string_view v) : _data(v.data()), _len(v.size()) {}

  const char* data() const { return _data; }
  size_type size() const { return _len; }
  size_type length() const { return _len; }
  bool empty() const { return _len == 0; }
  const char* begin() const { return _data; }
  const char* end() const { return _data + _len; }
  char operator[](size_type i) const { return _data[i]; }
  std::string_view view() const { return std::string_view(_data, _len); }

  void assign(const char* data, size_type len) {
    _data = data;
    _len = len;
  }
  void assign(const StrSegment& other) { *this = other; }
  void clear() { _len = 0; }

  // Searches: the position found, or npos. Start positions and empty needles
  // follow the standard string's rules.
  size_type find(char c, size_type pos = 0) const;
  size_type find(const char* s, size_type pos = 0) const;
  size_type find(const char* s, size_type pos, size_type n) const;
  size_type find(const StrSegment& s, size_type pos = 0) const;
  size_type rfind(char c, size_type pos = npos) const;
  size_type rfind(const char* s, size_type pos = npos) const;
  size_type rfind(const char* s, size_type pos, size_type n) const;
  size_type rfind(const StrSegment& s, size_type pos = npos) const;
  size_type find_first_of(const CharacterClass& cc, size_type pos = 0) const;
  size_type find_first_of(const char* set, size_type pos = 0) const;
  size_type find_first_of(char c, size_type pos = 0) const { return find(c, pos); }
  size_type find_first_not_of(const CharacterClass& cc, size_type pos = 0) const;
  size_type find_first_not_of(const char* set, size_type pos = 0) const;
  size_type find_first_not_of(char c, size_type pos = 0) const;
  size_type find_last_of(const CharacterClass& cc, size_type pos = npos) const;
  size_type find_last_of(const char* set, size_type pos = npos) const;
  size_type find_last_of(char c, size_type pos = npos) const { return rfind(c, pos); }
  size_type find_last_not_of(const CharacterClass& cc, size_type pos = npos) const;
  size_type find_last_not_of(const char* set, size_type pos = npos) const;
  size_type find_last_not_of(char c, size_type pos = npos) const;

  // The offset of the first match of `regex` in the `len` bytes at `data`,
  // or npos. Newlines are any of the Unicode line ends, \R likewise; with
  // `anchored` the match must start at the first byte, with `wholeString` it
  // must cover all `len` bytes. The bytes are taken as UTF-8 unchecked:
  // invalid sequences match nothing, the text around them as usual. The
  // second form searches the tail from `start`, its offset relative to that
  // tail, and gives npos when `start` is past `len`.
  // REQUIRES: data is not null unless len is 0 ("datalen == 0").
  static size_type mem_regexmatch(const Regex& regex, const char* data, size_type len,
                                  bool anchored, bool wholeString);
  static size_type mem_regexmatch(const Regex& regex, const char* data, size_type len,
                                  size_type start, bool anchored, bool wholeString);

  bool contains(char c) const { return find(c) != npos; }
  bool contains(const StrSegment& s) const { return find(s) != npos; }
  bool contains(const char* s) const { return find(s) != npos; }

  // An empty prefix is always there; the CharacterClass forms test the first
  // (last) byte and are false on an empty segment.
  bool startswith(const StrSegment& prefix) const;
  bool startswith(const char* prefix) const { return startswith(StrSegment(prefix)); }
  bool startswith(const CharacterClass& cc) const { return _len != 0 && cc.contains(_data[0]); }
  bool startswith(char c) const { return _len != 0 && _data[0] == c; }
  bool endswith(const StrSegment& suffix) const;
  bool endswith(const char* suffix) const { return endswith(StrSegment(suffix)); }
  bool endswith(const CharacterClass& cc) const { return _len != 0 && cc.contains(_data[_len - 1]); }
  bool endswith(char c) const { return _len != 0 && _data[_len - 1] == c; }

  // Bytes compared as unsigned over the shorter length; on a tie the
  // difference of the lengths, narrowed to 32 bits.
  int compare(const StrSegment& other) const;
  // Caseless comparison of UTF-8 text by the Unicode tables: -1, 0 or 1.
  // REQUIRES: both texts valid UTF-8 (a stray high byte that differs from its
  // counterpart ends the process).
  int compareIgnoreCase(const StrSegment& other) const;
  // Lengths first, then bytes.
  bool equals(const StrSegment& other) const;
  bool operator==(const StrSegment& o) const { return equals(o); }
  bool operator!=(const StrSegment& o) const { return !equals(o); }
  bool operator<(const StrSegment& o) const { return compare(o) < 0; }

  // Occurrences inside the window [start, start + count), clipped to the end;
  // 0 when start is at or past the end or count is 0.
  size_type count_char(char target, size_type start = 0, size_type count = npos) const;
  size_type count_char(const CharacterClass& target, size_type start = 0,
                       size_type count = npos) const;
  // Whether any byte satisfies the C library's isspace.
  bool containsWhitespace() const;

  // Copies up to `count` bytes from `pos` to `dest`, unterminated, and
  // returns how many. Throws std::out_of_range when pos is past the end.
  size_type copy(char* dest, size_type count, size_type pos = 0) const;
  // NUL-terminated copies: copystr's from new[] (caller delete[]s), strdup's
  // from malloc (caller free()s; null when malloc fails).
  char* copystr() const;
  char* strdup() const;

  // The view [pos, pos + count), clipped to the end. Throws std::out_of_range
  // ("basic_string::substr") when pos is past the end.
  StrSegment substr(size_type pos, size_type count = npos) const;
  // The view without the members of `cc` at the chosen ends.
  StrSegment trim(const CharacterClass& cc = default_trimchars, bool left = true,
                  bool right = true) const;
  void trimInPlace(const CharacterClass& cc = default_trimchars, bool left = true,
                   bool right = true);

  // Tokenisers. A maxsplits of 0 passes the text on whole as one token; each
  // delimiter consumed counts one, and after the last permitted split the
  // rest, delimiters included, is one token. Empty text gives no token.
  // split keeps empty tokens ("a," gives "a" and ""); splitNonEmpty skips
  // runs of delimiters, and once maxsplits runs out it still skips the
  // leading delimiters of the remainder. An empty StrSegment delimiter gives
  // one token per byte. The Into forms append to the vector.
  void split(StrSegmentTokenAcceptor& acceptor, char delim, size_type maxsplits = npos) const;
  void split(StrSegmentTokenAcceptor& acceptor, const char* delim, size_type maxsplits = npos) const;
  void split(StrSegmentTokenAcceptor& acceptor, const StrSegment& delim,
             size_type maxsplits = npos) const;
  void split(StrSegmentTokenAcceptor& acceptor, const CharacterClass& delim,
             size_type maxsplits = npos) const;
  void splitNonEmpty(StrSegmentTokenAcceptor& acceptor, char delim, size_type maxsplits = npos) const;
  void splitNonEmpty(StrSegmentTokenAcceptor& acceptor, const char* delim,
                     size_type maxsplits = npos) const;
  void splitNonEmpty(StrSegmentTokenAcceptor& acceptor, const StrSegment& delim,
                     size_type maxsplits = npos) const;
  void splitNonEmpty(StrSegmentTokenAcceptor& acceptor, const CharacterClass& delim,
                     size_type maxsplits = npos) const;
  template <class Vec, class Delim>
  void splitInto(Vec& target, const Delim& delim, size_type maxsplits = npos) const;
  template <class Vec, class Delim>
  void splitNonEmptyInto(Vec& target, const Delim& delim, size_type maxsplits = npos) const;
  // Lines end at each line feed; a carriage return just before it is dropped
  // when the line has other bytes. An empty line between two line feeds is an
  // empty token; a non-empty tail after the last line feed is a token and
  // keeps a final carriage return ("a\r\nb\r" gives "a" and "b\r").
  void splitlines(StrSegmentTokenAcceptor& acceptor) const;
  template <class Vec>
  void splitlinesInto(Vec& target) const;

  // Conversions, through a temporary Str, so the segment need not be
  // NUL-terminated. See Str for the rules.
  bool tryToBool(bool& out) const;
  bool toBool(bool whenEmpty, bool whenInvalid) const;
  bool tryToInt(int& out, int base = 10) const;
  int toInt(int dflt, int base = 10) const;
  bool tryToUnsigned(unsigned& out, int base = 10) const;
  unsigned toUnsigned(unsigned dflt, int base = 10) const;
  bool tryToLong(long& out, int base = 10) const;
  long toLong(long dflt, int base = 10) const;
  bool tryToUnsignedLong(unsigned long& out, int base = 10) const;
  unsigned long toUnsignedLong(unsigned long dflt, int base = 10) const;
  bool tryToLongLong(long long& out, int base = 10) const;
  long long toLongLong(long long dflt, int base = 10) const;
  bool tryToUnsignedLongLong(unsigned long long& out, int base = 10) const;
  unsigned long long toUnsignedLongLong(unsigned long long dflt, int base = 10) const;
  bool tryToSizet(size_t& out, int base = 10) const;
  size_t toSizet(size_t dflt, int base = 10) const;
  bool tryToDouble(double& out) const;
  double toDouble(double dflt) const;

  // Characters by the lead-byte stepping rule (no continuation byte is
  // looked at: a stray continuation byte counts as a two-byte lead).
  size_type len_utf8() const;
  // When longer than n bytes, cuts at n moved back off continuation bytes
  // (never below 0); returns the new length.
  size_type utf8_aware_truncate(size_type n);
  // When longer than n bytes, keeps the first n characters by stepping.
  void utf8_character_count_truncate(size_type n);

 private:
  // Moves the start to `p`, inside or at the end of the view.
  void _advanceTo(const char* p);

  const char* _data;
  size_type _len;
};

// Token acceptors that append to a vector.
class acceptor_PopulateStrVector : public StrSegmentTokenAcceptor {
 public:
  explicit acceptor_PopulateStrVector(StrVector& target) : _target(target) {}
  void acceptToken(StrSegment& token) override;

 private:
  StrVector& _target;
};

class acceptor_PopulateStrSegmentVector : public StrSegmentTokenAcceptor {
 public:
  explicit acceptor_PopulateStrSegmentVector(StrSegmentVector& target) : _target(target) {}
  void acceptToken(StrSegment& token) override;

 private:
  StrSegmentVector& _target;
};

namespace internal_str {
template <class Vec>
struct AcceptorFor;
template <>
struct AcceptorFor<StrVector> {
  typedef acceptor_PopulateStrVector type;
};
template <>
struct AcceptorFor<StrSegmentVector> {
  typedef acceptor_PopulateStrSegmentVector type;
};
}  // namespace internal_str

template <class Vec, class Delim>
void StrSegment::splitInto(Vec& target, const Delim& delim, size_type maxsplits) const {
  typename internal_str::AcceptorFor<Vec>::type acceptor(target);
  split(acceptor, delim, maxsplits);
}

template <class Vec, class Delim>
void StrSegment::splitNonEmptyInto(Vec& target, const Delim& delim, size_type maxsplits) const {
  typename internal_str::AcceptorFor<Vec>::type acceptor(target);
  splitNonEmpty(acceptor, delim, maxsplits);
}

template <class Vec>
void StrSegment::splitlinesInto(Vec& target) const {
  typename internal_str::AcceptorFor<Vec>::type acceptor(target);
  splitlines(acceptor);
}
