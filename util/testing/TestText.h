// Text helpers for the string tests: a readable spelling of raw bytes for
// failure messages, seeded random text, UTF-8 written from the bit layout so
// that no test leans on the code under test, the C library's UTF-8 locale as
// an outside oracle, and the system's Unicode character data. Test code only.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <functional>
#include <locale.h>
#include <random>
#include <string>
#include <string_view>
#include <vector>

// Bytes 0x20 to 0x7E as they are, every other byte as "\xhh".
inline std::string printable(std::string_view s) {
  std::string out;
  for (unsigned char c : s) {
    char buf[8];
    snprintf(buf, sizeof buf, c >= 0x20 && c < 0x7F ? "%c" : "\\x%02x", c);
    out += buf;
  }
  return out;
}

// minLen to maxLen bytes, each drawn from `alphabet` (which may hold NUL).
inline std::string randomText(std::mt19937& rng, std::string_view alphabet, size_t maxLen,
                              size_t minLen = 0) {
  std::string s(minLen + rng() % (maxLen - minLen + 1), '\0');
  for (char& c : s) c = alphabet[rng() % alphabet.size()];
  return s;
}

// The UTF-8 bytes of `cp`, surrogates included; no range check.
inline std::string encodeUtf8(uint32_t cp) {
  if (cp < 0x80) return std::string(1, static_cast<char>(cp));
  const int n = cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
  std::string s(n, '\0');
  for (int i = n - 1; i > 0; --i, cp >>= 6) s[i] = static_cast<char>(0x80 | (cp & 0x3F));
  s[0] = static_cast<char>(((0xFF << (8 - n)) & 0xFF) | cp);
  return s;
}

// The C library in the C.UTF-8 locale, on this thread while the object lives.
// ok() is false when the system has no such locale. One owner: the test.
class ScopedUtf8Locale {
 public:
  ScopedUtf8Locale() : _loc(newlocale(LC_ALL_MASK, "C.UTF-8", nullptr)) {
    if (_loc != nullptr) _old = uselocale(_loc);
  }
  ~ScopedUtf8Locale() {
    if (_loc == nullptr) return;
    uselocale(_old);
    freelocale(_loc);
  }
  ScopedUtf8Locale(const ScopedUtf8Locale&) = delete;
  ScopedUtf8Locale& operator=(const ScopedUtf8Locale&) = delete;
  bool ok() const { return _loc != nullptr; }

 private:
  locale_t _loc;
  locale_t _old = nullptr;
};

// Where the system keeps the Unicode character database.
inline const char UNICODE_DATA_DIR[] = "/usr/share/unicode/";

// Calls `row` with the fields of each line of UnicodeData.txt (code point,
// name, category, ..., split at ';'); false when the file is absent.
inline bool forEachUnicodeDataRow(const std::function<void(const std::vector<std::string>&)>& row) {
  std::ifstream in(std::string(UNICODE_DATA_DIR) + "UnicodeData.txt");
  if (!in) return false;
  std::string line;
  std::vector<std::string> fields;
  while (std::getline(in, line)) {
    fields.clear();
    for (size_t pos = 0;; ++pos) {
      const size_t semi = std::min(line.find(';', pos), line.size());
      fields.push_back(line.substr(pos, semi - pos));
      if ((pos = semi) == line.size()) break;
    }
    row(fields);
  }
  return true;
}
