#include "util/Utf8.h"

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <uchar.h>

#include <gtest/gtest.h>

#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/testing/TestText.h"
#include "util/testing/ThrownText.h"

using namespace std::string_view_literals;

namespace {

bool isCont(unsigned char c) { return c >= 0x80 && c <= 0xBF; }

// A strict decoder written from the UTF-8 definition itself: assemble the
// code point from the bit pattern, then refuse overlong forms, surrogates
// and values past U+10FFFF. Knows nothing of the validator's gap.
bool strictValid(std::string_view s) {
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = s[i];
    const size_t n = c < 0x80 ? 1 : c >> 5 == 6 ? 2 : c >> 4 == 14 ? 3 : c >> 3 == 30 ? 4 : 0;
    if (n == 0 || s.size() - i < n) return false;
    uint32_t cp = n == 1 ? c : c & (0x7F >> n);
    for (size_t k = 1; k < n; ++k) {
      if (!isCont(s[i + k])) return false;
      cp = (cp << 6) | (s[i + k] & 0x3F);
    }
    const uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
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
  for (size_t i = 0; i < s.size(); ++i) {
    const unsigned char c = s[i];
    if (c < 0xF0 || c > 0xF4 || s.size() - i < 4 || isCont(s[i + 1]) || !isCont(s[i + 2]) ||
        !isCont(s[i + 3])) {
      continue;
    }
    const unsigned char second = s[i + 1];
    if (c == 0xF0 ? second > 0x8F : c == 0xF4 ? second <= 0x8F : true) {
      s[i + 1] = static_cast<char>(c == 0xF0 ? 0x90 : 0x80);
    }
    i += 3;
  }
  return s;
}

void expectAgreesWithReference(const std::string& s) {
  const bool got = mem_is_valid_utf8(s.data(), s.size());
  const bool want = strictValid(closeGap(s));
  ASSERT_EQ(want, got) << printable(s);
}

// The outside check of the reference above, at the bounds the rules name.
TEST(Utf8Validate, AcceptsEachBoundaryAndTheGapAndRejectsEachViolation) {
  for (std::string_view text : {
           ""sv, "\x00\x7F"sv,
           "\xC2\x80"sv, "\xDF\xBF"sv,  // first and last two-byte
           "\xE0\xA0\x80"sv, "\xED\x9F\xBF"sv, "\xEE\x80\x80"sv, "\xEF\xBF\xBF"sv,
           "\xF0\x90\x80\x80"sv, "\xF4\x8F\xBF\xBF"sv,  // first four-byte, U+10FFFF
           "\xF1\x41\x80\x80"sv, "\xF3\xFF\x80\x80"sv,  // the gap: any second byte after F1-F3
           "\xF0\xC0\x80\x80"sv,  // F0 needs only a second byte above 8F
           "\xF4\x00\x80\x80"sv,  // F4 only one at most 8F
       }) {
    EXPECT_TRUE(mem_is_valid_utf8(text.data(), text.size())) << printable(text);
  }
  for (std::string_view text : {
           "\x80"sv, "\xC1\xBF"sv, "\xF5\x80\x80\x80"sv,  // no lead byte
           "a\xC3"sv, "\xE1\x80"sv, "\xF1\x80\x80"sv,        // cut off
           "\xC2\x7F"sv, "\xC2\xC0"sv, "\xE1\x41\x80"sv, "\xE1\x80\x41"sv,
           "\xE0\x9F\xBF"sv, "\xF0\x8F\xBF\xBF"sv,  // overlong
           "\xED\xA0\x80"sv,                          // surrogate
           "\xF4\x90\x80\x80"sv,                      // past U+10FFFF
           "\xF1\x41\x41\x80"sv, "\xF1\x80\x80\x41"sv,  // the gap ends at the second byte
       }) {
    EXPECT_FALSE(mem_is_valid_utf8(text.data(), text.size())) << printable(text);
  }
}

TEST(Utf8Validate, AgreesWithStrictDecoderOnAllShortSequences) {
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
  const std::string_view kBytes = "\x00\x41\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2"
                                   "\xDF\xE0\xE1\xED\xEF\xF0\xF1\xF3\xF4\xF5\xFF"sv;
  std::mt19937 rng(20240611);
  for (int i = 0; i < 100000; ++i) expectAgreesWithReference(randomText(rng, kBytes, 11));
}

TEST(Utf8Step, LeadByteAloneDecidesLength) {
  const struct { int lo, hi; size_t len; } kRanges[] = {
      {0x00, 0x7F, 1}, {0x80, 0xDF, 2}, {0xE0, 0xEF, 3}, {0xF0, 0xF4, 4}, {0xF5, 0xFF, 1}};
  int covered = 0;
  for (const auto& r : kRanges) {
    for (int b = r.lo; b <= r.hi; ++b, ++covered) {
      EXPECT_EQ(r.len, utf8_char_len(static_cast<unsigned char>(b))) << b;
    }
  }
  EXPECT_EQ(256, covered);
}

TEST(Utf8Step, LenCountsByLeadBytes) {
  const struct { std::string_view text; size_t chars; } kCases[] = {
      {""sv, 0}, {"a\x00\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"sv, 5},
      {"\x80\x80"sv, 1},  // a stray continuation byte steps like a two-byte lead
      {"\xFF\xFF"sv, 2},  // F5 and up step one
      {"a\xE2\x82"sv, 2},  // cut off: still one character
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.chars, StrSegment(c.text).len_utf8()) << printable(c.text);
  }
}

TEST(Utf8Step, LenMatchesMultibyteCountOnValidText) {
  ScopedUtf8Locale loc;
  if (!loc.ok()) GTEST_SKIP() << "no C.UTF-8 locale";
  std::mt19937 rng(7);
  for (int round = 0; round < 2000; ++round) {
    std::string s;
    for (size_t k = rng() % 20; k > 0; --k) {
      const uint32_t kTops[] = {0x80, 0x800, 0x10000, 0x110000};
      const uint32_t cp = rng() % kTops[rng() % 4];
      s += (cp >= 0xD800 && cp <= 0xDFFF) || cp == 0 ? "x" : encodeUtf8(cp);
    }
    EXPECT_EQ(mbstowcs(nullptr, s.c_str(), 0), StrSegment(s).len_utf8()) << printable(s);
  }
}

TEST(Utf8Truncate, AwareTruncateBacksOffContinuationBytes) {
  const struct { std::string_view text; size_t n; size_t len; } kCases[] = {
      {"abc"sv, 5, 3}, {"abc"sv, 3, 3},  // short enough: untouched
      {"abc"sv, 2, 2},
      {"\xC3\xA4\xE2\x82\xAC"sv, 4, 2},  // inside the euro sign: back to its lead
      {"\xE2\x82\xAC" "x"sv, 3, 3},         // exactly at a boundary
      {"\x80\x80\x80"sv, 2, 0},             // never below 0
  };
  for (const auto& c : kCases) {
    StrSegment seg(c.text);
    EXPECT_EQ(c.len, seg.utf8_aware_truncate(c.n)) << printable(c.text) << " n=" << c.n;
    EXPECT_EQ(c.len, seg.size()) << printable(c.text) << " n=" << c.n;
    EXPECT_EQ(c.text.data(), seg.data());
  }
  // On valid text every cut is valid and no longer valid prefix fits.
  const std::string text = "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z\xC3\x9F";
  for (size_t n = 0; n <= text.size() + 1; ++n) {
    StrSegment seg(text);
    const size_t len = seg.utf8_aware_truncate(n);
    EXPECT_LE(len, n);
    EXPECT_TRUE(mem_is_valid_utf8(text.data(), len)) << n;
    for (size_t longer = len + 1; longer <= std::min(n, text.size()); ++longer) {
      EXPECT_FALSE(mem_is_valid_utf8(text.data(), longer)) << n << " " << longer;
    }
  }
}

TEST(Utf8Truncate, CharacterCountTruncateKeepsFirstCharacters) {
  const struct { std::string_view text; size_t n; std::string_view want; } kCases[] = {
      {"a\xC3\xA4\xE2\x82\xAC"sv, 2, "a\xC3\xA4"sv},
      {"abc"sv, 5, "abc"sv},                      // byte length within n: untouched
      {"\xC3\xA4" "b"sv, 2, "\xC3\xA4" "b"sv},    // longer than n bytes, but only n characters
      {"\xE2\x82"sv, 1, "\xE2\x82"sv},            // first character overruns: left alone
      {"\xE2\x82\xAC\xE2\x82\xAC"sv, 0, ""sv},
      {"\x80\x80\x80"sv, 1, "\x80\x80"sv},        // stray byte steps two
  };
  for (const auto& c : kCases) {
    StrSegment seg(c.text);
    seg.utf8_character_count_truncate(c.n);
    EXPECT_EQ(c.want, seg.view()) << printable(c.text) << " n=" << c.n;
  }
}

TEST(Utf8Substr, TakesCharactersAndThrowsWhenSkippingReachesTheEnd) {
  const Str text("a\xC3\xA4\xE2\x82\xAC" "b");
  const struct { size_t start, count; std::string_view want; } kCases[] = {
      {0, Str::npos, "a\xC3\xA4\xE2\x82\xAC" "b"sv}, {1, 2, "\xC3\xA4\xE2\x82\xAC"sv}, {2, 0, ""sv},
      {3, 9, "b"sv},  // count runs past the end
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.want, text.substr_utf8(c.start, c.count)) << c.start << "," << c.count;
  }
  EXPECT_EQ("", Str().substr_utf8(0));
  EXPECT_EQ("\xE2", Str("a\xE2").substr_utf8(1));
  const struct { std::string_view text; size_t start; } kThrows[] = {
      {"abc"sv, 3},  // skipping the last character reaches the end
      {"a\xE2"sv, 2}, {"\xF0\x9F"sv, 1},  // a cut-off lead steps past the end
      {""sv, 1},
  };
  for (const auto& c : kThrows) {
    EXPECT_EQ(std::string(c.text) + " accessed out of range",
              thrownText<std::out_of_range>([&] { Str(c.text).substr_utf8(c.start); }))
        << printable(c.text) << " start=" << c.start;
  }
}

TEST(Utf8Buffer, EncodesEveryCodePointLikeTheCLibrary) {
  ScopedUtf8Locale loc;
  if (!loc.ok()) GTEST_SKIP() << "no C.UTF-8 locale";
  utf8_character_buffer buf;
  for (uint32_t cp = 0x80; cp < 0x110000; ++cp) {
    const std::string_view got(buf.data(), buf._set(cp));
    ASSERT_EQ(got.size(), buf.size());
    // The C library refuses surrogates; they still get their three bytes.
    const bool surrogate = cp >= 0xD800 && cp <= 0xDFFF;
    char want[MB_LEN_MAX];
    mbstate_t state{};
    const size_t wantLen = c32rtomb(want, static_cast<char32_t>(cp), &state);
    ASSERT_EQ(surrogate ? encodeUtf8(cp) : std::string(want, wantLen), got) << cp;
    ASSERT_EQ(!surrogate, mem_is_valid_utf8(got.data(), got.size())) << cp;
    if (surrogate) continue;
    char32_t back = 0;
    state = mbstate_t{};
    ASSERT_EQ(got.size(), mbrtoc32(&back, got.data(), got.size(), &state)) << cp;
    ASSERT_EQ(cp, static_cast<uint32_t>(back));
  }
}

TEST(Utf8Buffer, NothingFromU110000Up) {
  for (uint32_t cp : {0x110000u, 0x1FFFFFu, 0xFFFFFFFFu}) {
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
