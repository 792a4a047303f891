#include "util/UnicodeCodepoint.h"

#include <cstdio>
#include <cwctype>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/UnicodeTables.h"
#include "util/testing/TestText.h"

namespace {

std::string u(uint32_t cp) {
  char buf[16];
  snprintf(buf, sizeof buf, "U+%04X", cp);
  return buf;
}

constexpr uint32_t CODE_POINTS = 0x110000;

// The UTF-8 bytes of `cp` packed big-end first, as the tables key it.
uint32_t packUtf8(uint32_t cp) {
  uint32_t packed = 0;
  for (unsigned char c : encodeUtf8(cp)) packed = packed << 8 | c;
  return packed;
}

// One line of UnicodeData.txt, the fields this test needs.
struct CharData {
  std::string category = "Cn";
  uint32_t upper = 0;  // 0: no mapping
  uint32_t lower = 0;
};

// Whether a property file lists each code point under `prop`; empty when the
// file is absent.
std::vector<bool> readProperty(const char* file, const std::string& prop) {
  std::ifstream in(std::string(UNICODE_DATA_DIR) + file);
  if (!in) return {};
  std::vector<bool> out(CODE_POINTS);
  for (std::string line; std::getline(in, line);) {
    unsigned lo = 0, hi = 0;
    char name[64] = "";
    if (sscanf(line.c_str(), "%x..%x ; %63[A-Za-z_]", &lo, &hi, name) != 3) {
      if (sscanf(line.c_str(), "%x ; %63[A-Za-z_]", &lo, name) != 2) continue;
      hi = lo;
    }
    for (uint32_t c = lo; c <= hi && name == prop; ++c) out[c] = true;
  }
  return out;
}

TEST(UnicodeTable, RowsAreSortedMergedAndEndWithTheSentinel) {
  const auto& t = UNICODE_CHARACTER_TABLE;
  EXPECT_EQ(0xC280u, t[0].utf8bytes);
  EXPECT_EQ(0xFFFFFFFFu, t[UNICODE_CHARACTER_ROWS - 1].utf8bytes);
  EXPECT_EQ(0u, t[UNICODE_CHARACTER_ROWS - 1].flags);
  for (size_t i = 1; i < UNICODE_CHARACTER_ROWS; ++i) {
    EXPECT_LT(t[i - 1].utf8bytes, t[i].utf8bytes) << i;
    // Identical neighbours would have been one row.
    EXPECT_NE(t[i - 1].flags, t[i].flags) << i;
    if ((t[i].flags & UNICODE_CASE_MASK) == UNICODE_CASE_PAIRS) {
      EXPECT_EQ(0u, t[i].utf8bytes & 1) << "pair run starts at a lower case: " << i;
    }
  }
}

TEST(UnicodeCodepoint, ClassesAndCaseOfChosenCharacters) {
  enum : unsigned { ALPHA = 1, DIGIT = 2, SPACE = 4, CNTRL = 8, PRINT = 16, PUNCT = 32,
                    UPPER = 64, LOWER = 128 };
  struct Case { uint32_t cp; unsigned classes; uint32_t lower, upper; const char* why; };
  // Every character from U+0080 to U+FFFF is checked against the character
  // database below; these are the ASCII path, the kinds of row and case.
  const Case kCases[] = {
      {'A', ALPHA | PRINT | UPPER, 'a', 'A', "ASCII goes to the C library"},
      {'7', DIGIT | PRINT, '7', '7', ""}, {'\t', SPACE | CNTRL, '\t', '\t', ""},
      {'~', PUNCT | PRINT, '~', '~', ""},
      {0x80, CNTRL, 0x80, 0x80, "first row"},
      {0xA0, SPACE | PRINT, 0xA0, 0xA0, "no-break space prints but is no graph"},
      {0xC4, ALPHA | PRINT | UPPER, 0xE4, 0xC4, ""},
      {0xFF, ALPHA | PRINT | LOWER, 0xFF, 0x178, "upper case three bytes away"},
      {0x100, ALPHA | PRINT | UPPER, 0x101, 0x100, "pair run, even"},
      {0x101, ALPHA | PRINT | LOWER, 0x101, 0x100, "pair run, odd"},
      {0x139, ALPHA | PRINT | UPPER, 0x13A, 0x139, "pairs starting odd take deltas"},
      {0x130, ALPHA | PRINT | UPPER, 'i', 0x130, "lowers to ASCII"},
      {0x1C5, ALPHA | PRINT | UPPER, 0x1C6, 0x1C5, "title case only lowers"},
      {0x23A, ALPHA | PRINT | UPPER, 0x2C65, 0x23A, "two bytes to three"},
      {0x2C65, ALPHA | PRINT | LOWER, 0x2C65, 0x23A, "three bytes to two"},
      {0x10400, PRINT, 0x10400, 0x10400, "four-byte characters only print"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(u(c.cp) + " " + c.why);
    const UnicodeCodepoint ch(packUtf8(c.cp));
    EXPECT_EQ((c.classes & ALPHA) != 0, ch.isAlpha());
    EXPECT_EQ((c.classes & (ALPHA | DIGIT)) != 0, ch.isAlnum());
    EXPECT_EQ((c.classes & SPACE) != 0, ch.isSpace());
    EXPECT_EQ((c.classes & CNTRL) != 0, ch.isCntrl());
    EXPECT_EQ((c.classes & PRINT) != 0, ch.isPrint());
    EXPECT_EQ((c.classes & PRINT) != 0 && (c.classes & SPACE) == 0, ch.isGraph());
    EXPECT_EQ((c.classes & PUNCT) != 0, ch.isPunct());
    EXPECT_EQ((c.classes & UPPER) != 0, ch.isUpper());
    EXPECT_EQ((c.classes & LOWER) != 0, ch.isLower());
    EXPECT_EQ(packUtf8(c.lower), ch.toLowercase().utf8bytes());
    EXPECT_EQ(packUtf8(c.upper), ch.toUppercase().utf8bytes());
  }
}

// Every character of the Basic Multilingual Plane against the character
// database and, for case, against the C library too; above it every fifth
// code point, since one row covers them all.
TEST(UnicodeData, EveryCharacterHasItsClassesAndCase) {
  std::vector<CharData> chars(CODE_POINTS);
  uint32_t rangeStart = 0;
  const bool found = forEachUnicodeDataRow([&](const std::vector<std::string>& f) {
    const uint32_t cp = std::stoul(f[0], nullptr, 16);
    CharData d{f[2], 0, 0};
    if (!f[12].empty()) d.upper = std::stoul(f[12], nullptr, 16);
    if (!f[13].empty()) d.lower = std::stoul(f[13], nullptr, 16);
    if (f[1].find(", First>") != std::string::npos) rangeStart = cp;
    for (uint32_t c = f[1].find(", Last>") != std::string::npos ? rangeStart : cp; c <= cp; ++c) {
      chars[c] = d;
    }
  });
  const std::vector<bool> alphabetic = readProperty("DerivedCoreProperties.txt", "Alphabetic");
  const std::vector<bool> whiteSpace = readProperty("PropList.txt", "White_Space");
  if (!found || alphabetic.empty() || whiteSpace.empty()) {
    GTEST_SKIP() << "no Unicode data under " << UNICODE_DATA_DIR;
  }
  ScopedUtf8Locale loc;
  int compared = 0;
  for (uint32_t cp = 0x80; cp < CODE_POINTS; cp += cp < 0x10000 ? 1 : 5) {
    if (cp >= 0xD800 && cp <= 0xDFFF) continue;
    const CharData& d = chars[cp];
    const std::string& gc = d.category;
    const bool graphic = std::string("LMNPS").find(gc[0]) != std::string::npos || gc == "Zs";
    const UnicodeCodepoint ch(packUtf8(cp));
    if (cp >= 0x10000) {
      const uint32_t flags = UnicodeCodepoint::getFlags(packUtf8(cp));
      ASSERT_EQ(graphic ? UNICODE_PRINT : flags, flags) << u(cp);
      ASSERT_EQ(packUtf8(cp), ch.toLowercase().utf8bytes()) << u(cp);
      ASSERT_EQ(packUtf8(cp), ch.toUppercase().utf8bytes()) << u(cp);
      continue;
    }
    SCOPED_TRACE(u(cp) + " " + gc);
    ASSERT_EQ(alphabetic[cp], ch.isAlpha());
    ASSERT_EQ(alphabetic[cp] || gc == "Nd", ch.isAlnum());
    ASSERT_EQ(whiteSpace[cp], ch.isSpace());
    ASSERT_EQ(gc == "Cc", ch.isCntrl());
    ASSERT_EQ(graphic, ch.isPrint());
    ASSERT_EQ(graphic && !whiteSpace[cp], ch.isGraph());
    ASSERT_EQ(gc[0] == 'P' || gc[0] == 'S', ch.isPunct());
    ASSERT_EQ(packUtf8(d.lower ? d.lower : cp), ch.toLowercase().utf8bytes());
    // A row carries one mapping; title case letters keep the lower one.
    const uint32_t upper = d.upper && gc != "Lt" ? d.upper : cp;
    ASSERT_EQ(packUtf8(upper), ch.toUppercase().utf8bytes());
    ASSERT_EQ(d.lower != 0, ch.isUpper());
    ASSERT_EQ(d.lower == 0 && d.upper != 0, ch.isLower());
    // Only what this data assigns: a C library on a newer Unicode may know more.
    if (!loc.ok() || gc == "Cn") continue;
    EXPECT_EQ(packUtf8(towlower(cp)), ch.toLowercase().utf8bytes());
    EXPECT_EQ(packUtf8(gc == "Lt" ? cp : towupper(cp)), ch.toUppercase().utf8bytes());
    ++compared;
  }
  EXPECT_TRUE(!loc.ok() || compared > 50000) << compared;
}

TEST(UnicodeCodepoint, AccumulatedBytesPackBigEndFirst) {
  for (uint32_t cp : {0x41u, 0xE4u, 0x20ACu, 0x1F600u}) {
    const std::string bytes = encodeUtf8(cp);
    UnicodeCodepoint ch;
    for (unsigned char b : bytes) ch._accumulateUtf8Byte(b);
    EXPECT_EQ(packUtf8(cp), ch.utf8bytes()) << u(cp);
    char out[4];
    EXPECT_EQ(bytes, std::string(out, UnicodeCodepoint::writeUtf8(ch.utf8bytes(), out)));
  }
  EXPECT_EQ(0xE282ACu, packUtf8(0x20AC));  // the packing itself, by hand
}

TEST(UnicodeCodepointDeathTest, PackedValuesBelowC280AreNoCharacter) {
  EXPECT_DEATH(UnicodeCodepoint::getFlags(0xC27F), "utf8bytes >= 0xC280");
  EXPECT_DEATH(UnicodeCodepoint(0x80).isAlpha(), "utf8bytes >= 0xC280");
  EXPECT_DEATH(UnicodeCodepoint(0xBF).toLowercase(), "utf8bytes >= 0xC280");
}

}  // namespace
