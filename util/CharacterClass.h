// A set of byte values, 256 bits wide, for delimiters and legal characters.
// Immutable once built, so the named classes are safe from any thread; their
// constructors are constexpr, so they exist before any dynamic initialiser.
#pragma once

#include <cstddef>
#include <cstdint>

class Str;

class CharacterClass {
 public:
  // Every byte gets !flag, then each byte of the NUL-terminated `members`
  // gets `flag`: CharacterClass(",;", false) is "anything but , and ;".
  // Byte 0 can never be listed here; see CharacterClassIncludingNul.
  constexpr CharacterClass(const char* members, bool flag = true) : _words{} {
    setAll(!flag);
    set(members, flag);
  }
  CharacterClass(const Str& members, bool flag = true);
  // An empty class (or, with flag true, the full class) to be filled by set().
  constexpr explicit CharacterClass(bool flag = false) : _words{} { setAll(flag); }

  bool contains(unsigned char c) const { return (_words[c >> 6] >> (c & 63)) & 1; }
  bool contains(char c) const { return contains(static_cast<unsigned char>(c)); }

  constexpr void setAll(bool flag) {
    for (uint64_t& w : _words) w = flag ? ~uint64_t{0} : 0;
  }
  constexpr void set(char c, bool flag) {
    const unsigned char u = static_cast<unsigned char>(c);
    const uint64_t bit = uint64_t{1} << (u & 63);
    _words[u >> 6] = flag ? (_words[u >> 6] | bit) : (_words[u >> 6] & ~bit);
  }
  // Sets each byte of the NUL-terminated list.
  constexpr void set(const char* members, bool flag) {
    for (; *members != '\0'; ++members) set(*members, flag);
  }
  // Sets each of the `len` bytes at `members`, NUL bytes included.
  void set_multi(const char* members, size_t len, bool flag);

  bool operator==(const CharacterClass& o) const;

  // Blank, tab, line feed, vertical tab, form feed, carriage return.
  static const CharacterClass ALL_WHITESPACES;
  static const CharacterClass DIGITS;
  static const CharacterClass ALPHA;
  static const CharacterClass ALPHA_UNDER;
  static const CharacterClass ALPHA_NUM;
  static const CharacterClass ALPHA_NUM_UNDER;
  static const CharacterClass ALPHA_NUM_UNDER_DASH;
  static const CharacterClass ALPHA_NUM_UNDER_DASH_DOT;
  // Blank and comma.
  static const CharacterClass COMMA_OR_SPACE;
  // Double quote and backslash: the bytes a quoted search term escapes.
  static const CharacterClass SEARCH_ESC;

 private:
  uint64_t _words[4];
};

// As CharacterClass(const char*, flag), and byte 0 also gets `flag`.
class CharacterClassIncludingNul : public CharacterClass {
 public:
  constexpr CharacterClassIncludingNul(const char* members, bool flag = true)
      : CharacterClass(members, flag) {
    set('\0', flag);
  }
};
