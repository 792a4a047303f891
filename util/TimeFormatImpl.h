// English day and month names shared by the parser, the renderer and the
// raw result of TimeFormat. Private to those files.
#pragma once

#include <cstddef>

namespace time_format_impl {

inline constexpr const char* WDAY_FULL_NAMES[7] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                   "Thursday", "Friday", "Saturday"};
inline constexpr const char* MONTH_FULL_NAMES[12] = {
    "January", "February", "March",     "April",   "May",      "June",
    "July",    "August",   "September", "October", "November", "December"};
inline constexpr char WDAY_ABBREVS[] = "SunMonTueWedThuFriSat";
inline constexpr char MONTH_ABBREVS[] = "JanFebMarAprMayJunJulAugSepOctNovDec";

inline char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

// Whether the n bytes at `a` equal those at `b`, ignoring ASCII case.
inline bool equalsNoCase(const char* a, const char* b, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (asciiLower(a[i]) != asciiLower(b[i])) return false;
  }
  return true;
}

// The index of the three letters at `text` among `count` abbreviations
// packed in `table`, ignoring case; -1 when none matches.
inline int findAbbrev(const char* table, int count, const char* text) {
  for (int i = 0; i < count; ++i) {
    if (equalsNoCase(table + 3 * i, text, 3)) return i;
  }
  return -1;
}

// The index of the full name spelt by the n bytes at `text`, ignoring case;
// -1 when none matches.
inline int findFullName(const char* const* names, int count, const char* text, size_t n) {
  for (int i = 0; i < count; ++i) {
    size_t len = 0;
    while (names[i][len] != '\0') ++len;
    if (len == n && equalsNoCase(names[i], text, n)) return i;
  }
  return -1;
}

}  // namespace time_format_impl
