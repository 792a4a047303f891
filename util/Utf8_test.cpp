#include "util/Utf8.h"

#include <clocale>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <locale.h>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <uchar.h>

#include <gtest/gtest.h>

#include "util/Str.h"
#include "util/StrSegment.h"

using namespace std::string_view_literals;

namespace {

std::string hex(std::string_view s) {
  std::string out;
  char buf[4];
  for (unsigned char c : s) {
    snprintf(buf, sizeof buf, "%02X ", c);
    out += buf;
  }
  return out;
}

bool isCont(unsigned char c) { return c >= 0x80 && c <= 0xBF; }

// A strict decoder written from the UTF-8 definition itself: assemble the
// code point from the bit pattern, then refuse overlong forms, surrogates
// and values past U+10FFFF. Knows nothing of the validator's gap.
bool strictValid(std::string_view s) {
  size_t i = 0;
  while (i < s.size()) {
    const unsigned char c = s[i];
    size_t n;
    uint32_t cp;
    uint32_t min;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      n = 2, cp = c & 0x1F, min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
      n = 3, cp = c & 0x0F, min = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
      n = 4, cp = c & 0x07, min = 0x10000;
    } else {
      return false;
    }
    if (s.size() - i < n) return false;
    for (size_t k = 1; k < n; ++k) {
      if (!isCont(s[i + k])) return false;
      cp = (cp << 6) | (s[i + k] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += n;
  }
  return true;
}

// The one deviation the validator is meant to have: after a lead F0-F4 the
// second byte is held only to the range bound of its lead, so a
// non-continuation byte there slips through. Replacing every such byte by
// the smallest continuation byte the lead allows must turn a text the
// validator accepts into one the strict decoder accepts.
std::string closeGap(std::string s) {
  size_t i = 0;
  while (i < s.size()) {
    const unsigned char c = s[i];
    if (c >= 0xF0 && c <= 0xF4 && s.size() - i >= 4 && !isCont(s[i + 1]) && isCont(s[i + 2]) &&
        isCont(s[i + 3])) {
      const unsigned char second = s[i + 1];
      const bool inBound = c == 0xF0 ? second > 0x8F : c == 0xF4 ? second <= 0x8F : true;
      if (inBound) s[i + 1] = static_cast<char>(c == 0xF0 ? 0x90 : 0x80);
      i += 4;
    } else {
      ++i;
    }
  }
  return s;
}

void expectAgreesWithReference(const std::string& s) {
  const bool got = mem_is_valid_utf8(s.data(), s.size());
  const bool want = strictValid(closeGap(s));
  ASSERT_EQ(want, got) << hex(s);
}

TEST(Utf8Validate, AcceptsEveryBoundaryAndTheGap) {
  const struct {
    std::string_view text;
    const char* why;
  } kCases[] = {
      {""sv, "empty"},
      {"\x00"sv, "NUL is a character"},
      {"\x7F"sv, "last one-byte"},
      {"\xC2\x80"sv, "first two-byte"},
      {"\xDF\xBF"sv, "last two-byte"},
      {"\xE0\xA0\x80"sv, "first three-byte"},
      {"\xED\x9F\xBF"sv, "last below the surrogates"},
      {"\xEE\x80\x80"sv, "first above the surrogates"},
      {"\xEF\xBF\xBF"sv, "last three-byte"},
      {"\xF0\x90\x80\x80"sv, "first four-byte"},
      {"\xF4\x8F\xBF\xBF"sv, "U+10FFFF"},
      {"a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z"sv, "one of each length"},
      {"\xF1\x41\x80\x80"sv, "gap: F1 with an ASCII second byte"},
      {"\xF3\xFF\x80\x80"sv, "gap: F3 with FF second"},
      {"\xF2\x00\xBF\xBF"sv, "gap: F2 with NUL second"},
      {"\xF0\xC0\x80\x80"sv, "gap: F0 second above 8F but not a continuation"},
      {"\xF4\x00\x80\x80"sv, "gap: F4 second at most 8F but not a continuation"},
  };
  for (const auto& c : kCases) {
    EXPECT_TRUE(mem_is_valid_utf8(c.text.data(), c.text.size())) << c.why << ": " << hex(c.text);
  }
}

TEST(Utf8Validate, RejectsEachViolation) {
  const struct {
    std::string_view text;
    const char* why;
  } kCases[] = {
      {"\x80"sv, "continuation as lead"},
      {"\xBF"sv, "continuation as lead"},
      {"\xC0\x80"sv, "overlong lead C0"},
      {"\xC1\xBF"sv, "overlong lead C1"},
      {"\xC2"sv, "cut off"},
      {"a\xC3"sv, "cut off at the end"},
      {"\xC2\x7F"sv, "second below 80"},
      {"\xC2\xC0"sv, "second above BF"},
      {"\xE0\x9F\xBF"sv, "overlong after E0"},
      {"\xED\xA0\x80"sv, "surrogate"},
      {"\xED\xBF\xBF"sv, "last surrogate"},
      {"\xE1\x80"sv, "three-byte cut off"},
      {"\xE1\x41\x80"sv, "three-byte second not continuation"},
      {"\xE1\x80\x41"sv, "three-byte third not continuation"},
      {"\xF0\x8F\xBF\xBF"sv, "overlong after F0"},
      {"\xF4\x90\x80\x80"sv, "past U+10FFFF"},
      {"\xF1\x80\x80"sv, "four-byte cut off"},
      {"\xF1\x41\x41\x80"sv, "gap does not reach the third byte"},
      {"\xF1\x80\x80\x41"sv, "fourth not continuation"},
      {"\xF5\x80\x80\x80"sv, "lead F5"},
      {"\xFF"sv, "lead FF"},
      {"abc\xE2\x82"sv, "cut off after good text"},
  };
  for (const auto& c : kCases) {
    EXPECT_FALSE(mem_is_valid_utf8(c.text.data(), c.text.size())) << c.why << ": " << hex(c.text);
  }
}

TEST(Utf8Validate, AgreesWithStrictDecoderOnAllShortSequences) {
  std::string s;
  for (int a = 0; a < 256; ++a) {
    expectAgreesWithReference(std::string(1, static_cast<char>(a)));
    for (int b = 0; b < 256; ++b) {
      expectAgreesWithReference({static_cast<char>(a), static_cast<char>(b)});
    }
  }
  for (int a = 0xE0; a <= 0xEF; ++a) {
    for (int b = 0; b < 256; ++b) {
      for (int c = 0; c < 256; ++c) {
        expectAgreesWithReference({static_cast<char>(a), static_cast<char>(b), static_cast<char>(c)});
      }
    }
  }
  const int kTail[] = {0x00, 0x7F, 0x80, 0xBF, 0xC0, 0xFF};
  for (int a = 0xF0; a <= 0xF7; ++a) {
    for (int b = 0; b < 256; ++b) {
      for (int c : kTail) {
        for (int d : kTail) {
          expectAgreesWithReference({static_cast<char>(a), static_cast<char>(b),
                                     static_cast<char>(c), static_cast<char>(d)});
        }
      }
    }
  }
}

TEST(Utf8Validate, AgreesWithStrictDecoderOnRandomText) {
  // Bytes at and around every boundary the rules name.
  const unsigned char kBytes[] = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC1,
                                  0xC2, 0xDF, 0xE0, 0xE1, 0xED, 0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5,
                                  0xFF};
  std::mt19937 rng(20240611);
  for (int round = 0; round < 100000; ++round) {
    std::string s(rng() % 12, '\0');
    for (char& c : s) c = static_cast<char>(kBytes[rng() % sizeof kBytes]);
    expectAgreesWithReference(s);
  }
}

TEST(Utf8Step, LeadByteAloneDecidesLength) {
  const struct {
    int lo, hi;
    size_t len;
  } kRanges[] = {{0x00, 0x7F, 1}, {0x80, 0xDF, 2}, {0xE0, 0xEF, 3}, {0xF0, 0xF4, 4}, {0xF5, 0xFF, 1}};
  int covered = 0;
  for (const auto& r : kRanges) {
    for (int b = r.lo; b <= r.hi; ++b, ++covered) {
      EXPECT_EQ(r.len, utf8_char_len(static_cast<unsigned char>(b))) << b;
    }
  }
  EXPECT_EQ(256, covered);
}

TEST(Utf8Step, LenCountsByLeadBytes) {
  const struct {
    std::string_view text;
    size_t chars;
  } kCases[] = {
      {""sv, 0},
      {"abc"sv, 3},
      {"\xC3\xA4"sv, 1},
      {"a\xE2\x82\xAC"sv "b"sv, 3},
      {"\xF0\x9F\x98\x80"sv, 1},
      {"\x80\x80"sv, 1},        // a stray continuation byte steps like a two-byte lead
      {"\xFF\xFF"sv, 2},        // F5 and up step one
      {"\xE2\x82"sv, 1},        // cut off: still one character
      {"a\xF0"sv, 2},
      {"a\x00" "b"sv, 3},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.chars, StrSegment(c.text).len_utf8()) << hex(c.text);
  }
}

// The C library's multibyte functions in a UTF-8 locale, on this thread only.
class Utf8Locale {
 public:
  Utf8Locale() : _loc(newlocale(LC_ALL_MASK, "C.UTF-8", nullptr)) {
    if (_loc != nullptr) _old = uselocale(_loc);
  }
  ~Utf8Locale() {
    if (_loc == nullptr) return;
    uselocale(_old);
    freelocale(_loc);
  }
  bool ok() const { return _loc != nullptr; }

 private:
  locale_t _loc;
  locale_t _old = nullptr;
};

TEST(Utf8Step, LenMatchesMultibyteCountOnValidText) {
  Utf8Locale loc;
  if (!loc.ok()) GTEST_SKIP() << "no C.UTF-8 locale";
  std::mt19937 rng(7);
  utf8_character_buffer buf;
  for (int round = 0; round < 2000; ++round) {
    std::string s;
    const size_t n = rng() % 20;
    for (size_t k = 0; k < n; ++k) {
      const uint32_t kTops[] = {0x80, 0x800, 0x10000, 0x110000};
      uint32_t cp = rng() % kTops[rng() % 4];
      if (cp >= 0xD800 && cp <= 0xDFFF) cp = 'x';
      if (cp < 0x80) {
        s.push_back(static_cast<char>(cp == 0 ? 'y' : cp));
      } else {
        s.append(buf.data(), buf._set(cp));
      }
    }
    EXPECT_EQ(mbstowcs(nullptr, s.c_str(), 0), StrSegment(s).len_utf8()) << hex(s);
  }
}

TEST(Utf8Truncate, AwareTruncateBacksOffContinuationBytes) {
  const struct {
    std::string_view text;
    size_t n;
    size_t len;
  } kCases[] = {
      {"abc"sv, 5, 3},  // short enough: untouched
      {"abc"sv, 3, 3},
      {"abc"sv, 2, 2},
      {"a\xC3\xA4"sv, 2, 1},                    // cut inside the two-byte character
      {"\xC3\xA4"sv, 1, 0},
      {"\xC3\xA4\xE2\x82\xAC"sv, 3, 2},         // before the euro sign
      {"\xC3\xA4\xE2\x82\xAC"sv, 4, 2},
      {"\xE2\x82\xAC" "x"sv, 3, 3},             // exactly at a boundary
      {"\x80\x80\x80"sv, 2, 0},                 // never below 0
      {"\xF0\x9F\x98\x80"sv, 0, 0},
  };
  for (const auto& c : kCases) {
    StrSegment seg(c.text);
    EXPECT_EQ(c.len, seg.utf8_aware_truncate(c.n)) << hex(c.text) << " n=" << c.n;
    EXPECT_EQ(c.len, seg.size()) << hex(c.text) << " n=" << c.n;
    EXPECT_EQ(c.text.data(), seg.data());
  }
}

TEST(Utf8Truncate, AwareTruncateOfValidTextStaysValidAndMaximal) {
  const std::string text = "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z\xC3\x9F";
  for (size_t n = 0; n <= text.size() + 1; ++n) {
    StrSegment seg(text);
    const size_t len = seg.utf8_aware_truncate(n);
    EXPECT_LE(len, n);
    EXPECT_TRUE(mem_is_valid_utf8(text.data(), len)) << n;
    // No longer valid prefix fits in n bytes.
    for (size_t longer = len + 1; longer <= std::min(n, text.size()); ++longer) {
      EXPECT_FALSE(mem_is_valid_utf8(text.data(), longer)) << n << " " << longer;
    }
  }
}

TEST(Utf8Truncate, CharacterCountTruncateKeepsFirstCharacters) {
  const struct {
    std::string_view text;
    size_t n;
    std::string_view want;
  } kCases[] = {
      {"a\xC3\xA4\xE2\x82\xAC"sv, 2, "a\xC3\xA4"sv},
      {"\xC3\xA4\xC3\xB6"sv, 1, "\xC3\xA4"sv},
      {"abc"sv, 5, "abc"sv},                      // byte length within n: untouched
      {"ab"sv, 2, "ab"sv},
      {"\xC3\xA4" "b"sv, 2, "\xC3\xA4" "b"sv},    // longer than n bytes, but only n characters
      {"\xE2\x82"sv, 1, "\xE2\x82"sv},            // first character overruns: left alone
      {"\xE2\x82\xAC\xE2\x82\xAC"sv, 0, ""sv},
      {"\x80\x80\x80"sv, 1, "\x80\x80"sv},        // stray byte steps two
  };
  for (const auto& c : kCases) {
    StrSegment seg(c.text);
    seg.utf8_character_count_truncate(c.n);
    EXPECT_EQ(c.want, seg.view()) << hex(c.text) << " n=" << c.n;
  }
}

TEST(Utf8Substr, TakesCharacters) {
  const Str text("a\xC3\xA4\xE2\x82\xAC" "b");
  const struct {
    size_t start, count;
    std::string_view want;
  } kCases[] = {
      {0, Str::npos, "a\xC3\xA4\xE2\x82\xAC" "b"sv},
      {1, Str::npos, "\xC3\xA4\xE2\x82\xAC" "b"sv},
      {1, 2, "\xC3\xA4\xE2\x82\xAC"sv},
      {2, 1, "\xE2\x82\xAC"sv},
      {3, 9, "b"sv},   // count runs past the end
      {0, 0, ""sv},
      {2, 0, ""sv},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.want, text.substr_utf8(c.start, c.count)) << c.start << "," << c.count;
  }
  EXPECT_EQ("", Str().substr_utf8(0));
  EXPECT_EQ("\xE2", Str("a\xE2").substr_utf8(1));
}

TEST(Utf8Substr, ThrowsWhenSkippingReachesTheEnd) {
  const struct {
    std::string_view text;
    size_t start;
  } kCases[] = {
      {"abc"sv, 3},                 // skipping the last character reaches the end
      {"abc"sv, 4},
      {""sv, 1},
      {"a\xE2\x82\xAC"sv, 2},
      {"a\xE2"sv, 2},               // cut-off lead steps past the end
      {"\xF0\x9F"sv, 1},
  };
  for (const auto& c : kCases) {
    const Str text(c.text);
    try {
      text.substr_utf8(c.start);
      ADD_FAILURE() << "no throw: " << hex(c.text) << " start=" << c.start;
    } catch (const std::out_of_range& e) {
      EXPECT_EQ(std::string(c.text) + " accessed out of range", e.what()) << hex(c.text);
    }
  }
}

TEST(Utf8Buffer, EncodesEveryCodePointLikeTheCLibrary) {
  Utf8Locale loc;
  if (!loc.ok()) GTEST_SKIP() << "no C.UTF-8 locale";
  utf8_character_buffer buf;
  for (uint32_t cp = 0x80; cp < 0x110000; ++cp) {
    const size_t n = buf._set(cp);
    ASSERT_EQ(n, buf.size());
    char want[MB_LEN_MAX];
    mbstate_t state{};
    const size_t wantLen = c32rtomb(want, static_cast<char32_t>(cp), &state);
    if (cp >= 0xD800 && cp <= 0xDFFF) {
      // The C library refuses surrogates; they still get their three bytes.
      ASSERT_EQ(static_cast<size_t>(-1), wantLen);
      ASSERT_EQ(3u, n);
      ASSERT_FALSE(mem_is_valid_utf8(buf.data(), n)) << cp;
      continue;
    }
    ASSERT_EQ(std::string_view(want, wantLen), std::string_view(buf.data(), n)) << cp;
    ASSERT_TRUE(mem_is_valid_utf8(buf.data(), n)) << cp;
    char32_t back = 0;
    state = mbstate_t{};
    ASSERT_EQ(n, mbrtoc32(&back, buf.data(), n, &state)) << cp;
    ASSERT_EQ(cp, static_cast<uint32_t>(back));
  }
}

TEST(Utf8Buffer, NothingFromU110000Up) {
  for (uint32_t cp : {0x110000u, 0x110001u, 0x1FFFFFu, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    utf8_character_buffer buf;
    buf._set(0xE9);
    EXPECT_EQ(0u, buf._set(cp)) << cp;
    EXPECT_EQ(0u, buf.size()) << cp;
  }
}

TEST(Utf8BufferDeathTest, AsciiIsAContractViolation) {
  utf8_character_buffer buf;
  EXPECT_DEATH(buf._set(0x7F), "codepoint >= 0x80");
  EXPECT_DEATH(buf._set(0), "codepoint >= 0x80");
}

}  // namespace
