#include "libzero/UTF8Converter.h"

#include <cassert>

namespace {

constexpr uint32_t BYTE_ORDER_MARK = 0xFEFF;
constexpr uint32_t MAX_CODEPOINT = 0x10FFFF;

bool isSurrogate(uint32_t u) { return u >= 0xD800 && u <= 0xDFFF; }

void appendDecoded(uint32_t codepoint, std::string& out) {
  if (codepoint < 0x80) {
    out.push_back(static_cast<char>(codepoint));
  } else if (codepoint != BYTE_ORDER_MARK) {
    UTF8Converter::appendUtf8(codepoint, out);
  }
}

class Utf8Engine : public UTF8Converter {
 public:
  Utf8Engine() : UTF8Converter(FILE_ENCODING_UTF8, "UTF-8") {}

  // Runs of plain ASCII go out in one append: they are nearly all of a
  // configuration file.
  size_t toUtf8(const unsigned char* in, size_t len, bool atEnd,
                std::string& out) const override {
    size_t i = 0;
    size_t run = 0;
    while (i < len) {
      if (in[i] < 0x80) {
        ++i;
        continue;
      }
      out.append(reinterpret_cast<const char*>(in + run), i - run);
      uint32_t codepoint = 0;
      const int n = decodeUtf8(in + i, len - i, &codepoint);
      if (n == 0 && !atEnd) return i;
      if (n <= 0) {
        ++i;  // a continuation byte never starts a character, so one is enough
      } else {
        if (codepoint != BYTE_ORDER_MARK) out.append(reinterpret_cast<const char*>(in + i), n);
        i += static_cast<size_t>(n);
      }
      run = i;
    }
    out.append(reinterpret_cast<const char*>(in + run), len - run);
    return len;
  }

  void fromCodepoint(uint32_t codepoint, std::string& out) const override {
    appendUtf8(codepoint, out);
  }
};

template <bool BigEndian>
class Utf16Engine : public UTF8Converter {
 public:
  Utf16Engine()
      : UTF8Converter(BigEndian ? FILE_ENCODING_UTF16BE : FILE_ENCODING_UTF16LE,
                      BigEndian ? "UTF-16BE" : "UTF-16LE") {}

  size_t toUtf8(const unsigned char* in, size_t len, bool atEnd,
                std::string& out) const override {
    size_t i = 0;
    while (i + 2 <= len) {
      const uint32_t u = unit(in + i);
      if (!isSurrogate(u)) {
        appendDecoded(u, out);
        i += 2;
      } else if (u >= 0xDC00) {
        i += 2;  // a low surrogate with no high one ahead of it
      } else if (i + 4 > len) {
        if (!atEnd) return i;
        i += 2;
      } else {
        const uint32_t low = unit(in + i + 2);
        if (low >= 0xDC00 && low <= 0xDFFF) {
          appendDecoded(0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00), out);
          i += 4;
        } else {
          i += 2;  // the unit after a lone high surrogate is read for itself
        }
      }
    }
    return i < len && !atEnd ? i : len;
  }

  void fromCodepoint(uint32_t codepoint, std::string& out) const override {
    assert(codepoint <= MAX_CODEPOINT && !isSurrogate(codepoint));
    if (codepoint < 0x10000) {
      putUnit(codepoint, out);
    } else {
      codepoint -= 0x10000;
      putUnit(0xD800 + (codepoint >> 10), out);
      putUnit(0xDC00 + (codepoint & 0x3FF), out);
    }
  }

 private:
  static uint32_t unit(const unsigned char* p) {
    return BigEndian ? (uint32_t{p[0]} << 8 | p[1]) : (uint32_t{p[1]} << 8 | p[0]);
  }
  static void putUnit(uint32_t u, std::string& out) {
    const char hi = static_cast<char>(u >> 8);
    const char lo = static_cast<char>(u & 0xFF);
    out.push_back(BigEndian ? hi : lo);
    out.push_back(BigEndian ? lo : hi);
  }
};

template <bool BigEndian>
class Utf32Engine : public UTF8Converter {
 public:
  Utf32Engine()
      : UTF8Converter(BigEndian ? FILE_ENCODING_UTF32BE : FILE_ENCODING_UTF32LE,
                      BigEndian ? "UTF-32BE" : "UTF-32LE") {}

  size_t toUtf8(const unsigned char* in, size_t len, bool atEnd,
                std::string& out) const override {
    size_t i = 0;
    for (; i + 4 <= len; i += 4) {
      const uint32_t u = BigEndian ? (uint32_t{in[i]} << 24 | uint32_t{in[i + 1]} << 16 |
                                      uint32_t{in[i + 2]} << 8 | in[i + 3])
                                   : (uint32_t{in[i + 3]} << 24 | uint32_t{in[i + 2]} << 16 |
                                      uint32_t{in[i + 1]} << 8 | in[i]);
      if (u <= MAX_CODEPOINT && !isSurrogate(u)) appendDecoded(u, out);
    }
    return i < len && !atEnd ? i : len;
  }

  void fromCodepoint(uint32_t codepoint, std::string& out) const override {
    assert(codepoint <= MAX_CODEPOINT && !isSurrogate(codepoint));
    for (int k = 0; k < 4; ++k) {
      const int shift = BigEndian ? 24 - 8 * k : 8 * k;
      out.push_back(static_cast<char>((codepoint >> shift) & 0xFF));
    }
  }
};

const Utf8Engine UTF8_ENGINE;
const Utf16Engine<false> UTF16LE_ENGINE;
const Utf16Engine<true> UTF16BE_ENGINE;
const Utf32Engine<false> UTF32LE_ENGINE;
const Utf32Engine<true> UTF32BE_ENGINE;

const UTF8Converter* const ENGINES[] = {&UTF8_ENGINE, &UTF16LE_ENGINE, &UTF16BE_ENGINE,
                                        &UTF32LE_ENGINE, &UTF32BE_ENGINE};

// "UTF-16le" and "utf_16LE" both fold to "UTF16LE".
bool sameName(const char* given, const char* canonical) {
  for (;;) {
    while (*given == '-' || *given == '_') ++given;
    while (*canonical == '-') ++canonical;
    char g = *given;
    if (g >= 'a' && g <= 'z') g = static_cast<char>(g - 'a' + 'A');
    if (g != *canonical) return false;
    if (g == '\0') return true;
    ++given;
    ++canonical;
  }
}

}  // namespace

const UTF8Converter* UTF8Converter::find_engine(const char* name) {
  if (name == nullptr) return nullptr;
  for (const UTF8Converter* engine : ENGINES) {
    if (sameName(name, engine->name())) return engine;
  }
  return nullptr;
}

const UTF8Converter* UTF8Converter::find_engine(FileEncoding encoding) {
  for (const UTF8Converter* engine : ENGINES) {
    if (engine->encoding() == fileEncodingKind(encoding)) return engine;
  }
  return nullptr;
}

int UTF8Converter::decodeUtf8(const unsigned char* p, size_t len, uint32_t* codepoint) {
  assert(len > 0);
  const unsigned char lead = p[0];
  if (lead < 0x80) {
    *codepoint = lead;
    return 1;
  }
  int follow;
  uint32_t cp;
  unsigned char lo = 0x80;
  unsigned char hi = 0xBF;
  if (lead < 0xC2) return -1;
  if (lead < 0xE0) {
    follow = 1;
    cp = lead & 0x1F;
  } else if (lead < 0xF0) {
    follow = 2;
    cp = lead & 0x0F;
    if (lead == 0xE0) lo = 0xA0;  // shorter forms exist
    if (lead == 0xED) hi = 0x9F;  // surrogates
  } else if (lead < 0xF5) {
    follow = 3;
    cp = lead & 0x07;
    if (lead == 0xF0) lo = 0x90;
    if (lead == 0xF4) hi = 0x8F;  // beyond 10FFFF
  } else {
    return -1;
  }
  for (int k = 1; k <= follow; ++k) {
    if (static_cast<size_t>(k) >= len) return 0;
    const unsigned char c = p[k];
    if (c < lo || c > hi) return -1;
    cp = cp << 6 | (c & 0x3F);
    lo = 0x80;
    hi = 0xBF;
  }
  *codepoint = cp;
  return follow + 1;
}

void UTF8Converter::appendUtf8(uint32_t codepoint, std::string& out) {
  assert(codepoint <= MAX_CODEPOINT);
  if (codepoint < 0x80) {
    out.push_back(static_cast<char>(codepoint));
  } else if (codepoint < 0x800) {
    out.push_back(static_cast<char>(0xC0 | codepoint >> 6));
    out.push_back(static_cast<char>(0x80 | (codepoint & 0x3F)));
  } else if (codepoint < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | codepoint >> 12));
    out.push_back(static_cast<char>(0x80 | (codepoint >> 6 & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (codepoint & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | codepoint >> 18));
    out.push_back(static_cast<char>(0x80 | (codepoint >> 12 & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (codepoint >> 6 & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (codepoint & 0x3F)));
  }
}
