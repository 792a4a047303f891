// Str: the system's owning byte string. It publicly extends std::string and
// adds no data, so a Str may hold NUL bytes and offers everything the
// standard string does; text is UTF-8 by convention, never by check.
// Thread story: as std::string, const methods concurrent, the rest owned by
// one thread at a time.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <map>
#include <string>

#include "util/CharacterClass.h"
#include "util/StrSegment.h"
#include "util/StrSegmentVocabulary.h"

class HashedStrReference;
class StrVector;
class XmlAttribute;
class XmlDocument;
class XmlNode;

class Str : public std::string, public StrSegmentVocabulary<Str> {
 public:
  typedef std::string::size_type size_type;
  using std::string::npos;

  Str() = default;
  Str(const Str&) = default;
  Str(Str&&) noexcept = default;
  Str& operator=(const Str&) = default;
  Str& operator=(Str&&) noexcept = default;
  using std::string::string;
  Str(const std::string& s) : std::string(s) {}
  Str(std::string&& s) noexcept : std::string(std::move(s)) {}
  Str(const StrSegment& s) : std::string(s.data(), s.size()) {}
  explicit Str(const HashedStrReference& key);
  // The node serialised as XmlContents writes it (XmlAppends.cpp).
  explicit Str(const XmlNode& node);
  using std::string::operator=;

  // An empty Str to return by reference.
  static const Str EMPTY_STR;

  // The standard string's own searches, comparison and copy stand; the
  // CharacterClass searches come from StrSegment.
  using std::string::find;
  using std::string::rfind;
  using std::string::find_first_of;
  using std::string::find_first_not_of;
  using std::string::find_last_of;
  using std::string::find_last_not_of;
  using std::string::compare;
  using std::string::copy;
  size_type find_first_of(const CharacterClass& cc, size_type pos = 0) const {
    return segment().find_first_of(cc, pos);
  }
  size_type find_first_not_of(const CharacterClass& cc, size_type pos = 0) const {
    return segment().find_first_not_of(cc, pos);
  }
  size_type find_last_of(const CharacterClass& cc, size_type pos = npos) const {
    return segment().find_last_of(cc, pos);
  }
  size_type find_last_not_of(const CharacterClass& cc, size_type pos = npos) const {
    return segment().find_last_not_of(cc, pos);
  }
  operator StrSegment() const { return segment(); }

  // ---- Conversions (StrConvert.cpp). Never throw. ----
  // Booleans, caseless: "t", "true", "yes" and exactly "1" are true; "f",
  // "false", "no" and exactly "0" are false. Anything else ("on", "off", "")
  // fails and leaves `out` alone.
  bool tryToBool(bool& out) const;
  // The parsed value; else whenEmpty for "", else whenInvalid.
  bool toBool(bool whenEmpty, bool whenInvalid) const;
  // Integers by strtol and kin: leading white space is accepted, anything
  // after the number (a trailing blank too) is refused, and an overflow to
  // the extreme fails. Unsigned targets refuse a leading "-" without writing
  // `out`; the 64-bit forms may overwrite `out` on a later failure, the
  // 32-bit and size forms write it only on success.
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
  // strtod, but the first byte must be a digit or "-" ("+1", ".5", " 1",
  // "inf" refused), and any errno (underflow too) or trailing byte fails;
  // `out` may already hold the value then ("1.5x" leaves 1.5).
  bool tryToDouble(double& out) const;
  double toDouble(double dflt) const;

  // ---- Building text (Str.cpp) ----
  // printf-style; format/vformat replace the contents, the append forms add.
  // A format that the C library refuses even with a 1 MiB buffer appends
  // nothing.
  Str& format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  Str& vformat(const char* fmt, va_list args) __attribute__((format(printf, 2, 0)));
  Str& appendFormat(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  Str& appendVformat(const char* fmt, va_list args) __attribute__((format(printf, 2, 0)));
  Str& append_double(double d);                      // "%lf"
  Str& append_longlong(long long v);                 // "%lld"
  Str& append_unsignedlonglong(unsigned long long v);  // "%llu"

  // The concatenation, sized once.
  static Str operator_plus(const char* a, size_type alen, const char* b, size_type blen);
  static Str operator_plus(const char* a, const char* b);
  static Str operator_plus(const StrSegment& a, const StrSegment& b);

  using std::string::append;
  using std::string::assign;
  Str& append(const HashedStrReference& key);
  Str& append(const StrSegment& seg) { std::string::append(seg.data(), seg.size()); return *this; }
  Str& assign(const HashedStrReference& key);
  Str& prepend(const HashedStrReference& key);
  // The serialised form, as XmlContents writes it: a node as markup
  // ("<a x=\"1\">t</a>"), an attribute as x="1", a document with its XML
  // declaration (XmlAppends.cpp). REQUIRES: as XmlContents.
  Str& append(const XmlNode& node);
  Str& append(const XmlAttribute& attr);
  Str& append(const XmlDocument& doc);
  Str& prepend(const StrSegment& seg) { insert(0, seg.data(), seg.size()); return *this; }

  // Replaces each occurrence of `from`, left to right, never rescanning the
  // inserted text; returns the count. An empty `from` replaces nothing.
  size_type replaceAll(const Str& from, const Str& to);
  // Overwrites each member byte with `to`; returns the count.
  size_type replaceAll(const CharacterClass& cc, char to);

  // As the standard substr, but a Str. Throws std::out_of_range
  // ("basic_string::substr") when pos is past the end.
  Str substr(size_type pos = 0, size_type count = npos) const;
  // By characters (lead-byte stepping). Throws std::out_of_range with this
  // text followed by " accessed out of range" when `start` characters reach
  // or pass the end. A count of npos takes the rest.
  Str substr_utf8(size_type start, size_type count = npos) const;

  // Trimming of `cc` members (blank and tab by default) at the chosen ends.
  Str trim(const CharacterClass& cc = StrSegment::default_trimchars, bool left = true,
           bool right = true) const;
  void trimInPlace(const CharacterClass& cc = StrSegment::default_trimchars, bool left = true,
                   bool right = true);
  void leftTrimInPlace(const CharacterClass& cc = StrSegment::default_trimchars);
  void rightTrimInPlace(const CharacterClass& cc = StrSegment::default_trimchars);
  // Removes a first byte `q` and a last byte equal to it, when the length is
  // at least 2. A lone quote byte stays.
  void stripQuotes(char q = '"');

  // ---- Case and Unicode (StrCase.cpp) ----
  // Folds by the C library below 0x80 and by the Unicode tables above.
  void toLowercase();
  void toUppercase();
  // Writes the folded copy of `in` to *out (cleared first).
  static void str_tolower(const Str& in, Str* out);
  static void str_toupper(const Str& in, Str* out);
  // Replaces base letters followed by combining marks with the precomposed
  // character where one exists ("e" U+0301 becomes U+00E9). ASCII text and
  // text with nothing to replace are left alone.
  void resolveUnicodeCombiningMarks();

  // ---- Escaping (StrEscape.cpp) ----
  // In place: bytes 0x20-0x7E stay, line feed and carriage return become
  // "\n" and "\r", tab a blank, any other byte "\xHH" (upper-case hex).
  // Untouched (no copy) when nothing needs it.
  void makeSafeForLogging();
  // Percent-encodes every byte outside A-Z a-z 0-9 "-_.~" as %HH; a blank is
  // %20. uriEncode works in place and does nothing when nothing needs it.
  void uriEncode();
  Str asUriEncoded() const;
  void appendUriEncodedTo(Str& out) const;
  // Decodes %HH (either case) and "+" (a blank); a "%" without two hex
  // digits stays literal. Returns whether the result is valid UTF-8; if not,
  // the text is left as it was. Untouched when there is no "%" or "+".
  bool uriDecode();
  // Appends `seg` as a CSV field: as it is, or in double quotes with inner
  // double quotes doubled when it holds a comma, CR, LF or double quote.
  void appendAsCSV(const StrSegment& seg);
  // A copy with `esc` before each member of `cc`.
  Str asEscaped(const CharacterClass& cc, char esc) const;
  // As a search term: "" for empty text; quoted with \ before \ and " when
  // any byte is outside ALPHA_NUM_UNDER; else quoted only if forceQuote.
  Str asEscapedSearchTerm(bool forceQuote = false) const;
  // Undoes asEscapedSearchTerm when the first byte is a double quote.
  void unescapeSearchTerm();

  // List encoding: every element is terminated by `sep` (unless sep is NUL),
  // with LF as "\n", CR as "\r", and "\" before "\" and before `sep`.
  void encodeListElement(const Str& element, char sep);
  // Clears this and encodes each element.
  void encodeStrVec(const StrVector& vec, char sep);
  // Clears `target` and decodes into it; text after the last `sep` is
  // dropped. Returns the number of elements.
  size_type decodeStrVec(StrVector& target, char sep) const;
  // Key, value, key, value... in key order.
  void encodeStrMap(const std::map<Str, Str>& map, char sep);
  // Clears `map` and decodes; false (map empty) for an odd element count.
  // A later duplicate key overwrites.
  bool decodeStrMap(std::map<Str, Str>& map, char sep) const;
};

// A Str with a flag saying that it was set.
class optional_Str {
 public:
  bool isSet() const { return _set; }
  const Str& get() const { return _value; }
  void set(const Str& v) {
    _value = v;
    _set = true;
  }
  // Sets the flag and stores a + b, sized once.
  void set(const Str& a, const Str& b);
  void reset() {
    _value.clear();
    _set = false;
  }

 private:
  Str _value;
  bool _set = false;
};
