#include "util/UnicodeCodepoint.h"

#include <algorithm>
#include <cstdio>
#include <cwctype>
#include <fstream>
#include <locale.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/UnicodeTables.h"

namespace {

const char UCD[] = "/usr/share/unicode/";

// Packs a code point's UTF-8 bytes, written here from the bit layout so as
// not to lean on the code under test.
uint32_t pack(uint32_t cp) {
  if (cp < 0x80) return cp;
  if (cp < 0x800) return (0xC0 | cp >> 6) << 8 | (0x80 | (cp & 0x3F));
  if (cp < 0x10000) {
    return (0xE0 | cp >> 12) << 16 | (0x80 | (cp >> 6 & 0x3F)) << 8 | (0x80 | (cp & 0x3F));
  }
  return (0xF0 | cp >> 18) << 24 | (0x80 | (cp >> 12 & 0x3F)) << 16 |
         (0x80 | (cp >> 6 & 0x3F)) << 8 | (0x80 | (cp & 0x3F));
}

std::string u(uint32_t cp) {
  char buf[16];
  snprintf(buf, sizeof buf, "U+%04X", cp);
  return buf;
}

constexpr uint32_t CODE_POINTS = 0x110000;

// One line of UnicodeData.txt, the fields this test needs.
struct CharData {
  std::string category = "Cn";
  uint32_t upper = 0;  // 0: no mapping
  uint32_t lower = 0;
};

// UnicodeData.txt by code point, First/Last ranges expanded; empty when the
// file is absent.
std::vector<CharData> readUnicodeData() {
  std::ifstream in(std::string(UCD) + "UnicodeData.txt");
  if (!in) return {};
  std::vector<CharData> out(CODE_POINTS);
  std::string line;
  uint32_t rangeStart = 0;
  while (std::getline(in, line)) {
    std::vector<std::string> f;
    for (size_t pos = 0; f.size() < 15; ++pos) {
      const size_t semi = std::min(line.find(';', pos), line.size());
      f.push_back(line.substr(pos, semi - pos));
      pos = semi;
    }
    const uint32_t cp = std::stoul(f[0], nullptr, 16);
    CharData d;
    d.category = f[2];
    if (!f[12].empty()) d.upper = std::stoul(f[12], nullptr, 16);
    if (!f[13].empty()) d.lower = std::stoul(f[13], nullptr, 16);
    if (f[1].find(", First>") != std::string::npos) {
      rangeStart = cp;
    } else if (f[1].find(", Last>") != std::string::npos) {
      for (uint32_t c = rangeStart; c <= cp; ++c) out[c] = d;
    } else {
      out[cp] = d;
    }
  }
  return out;
}

// Whether a property file lists each code point under `prop`; empty when the
// file is absent.
std::vector<bool> readProperty(const char* file, const std::string& prop) {
  std::ifstream in(std::string(UCD) + file);
  if (!in) return {};
  std::vector<bool> out(CODE_POINTS);
  std::string line;
  while (std::getline(in, line)) {
    line = line.substr(0, line.find('#'));
    const size_t semi = line.find(';');
    if (semi == std::string::npos) continue;
    std::string name = line.substr(semi + 1);
    name.erase(0, name.find_first_not_of(' '));
    name.erase(name.find_last_not_of(' ') + 1);
    if (name != prop) continue;
    const uint32_t lo = std::stoul(line, nullptr, 16);
    const size_t dots = line.find("..");
    const uint32_t hi = dots < semi ? std::stoul(line.substr(dots + 2), nullptr, 16) : lo;
    for (uint32_t c = lo; c <= hi; ++c) out[c] = true;
  }
  return out;
}

class UnicodeData : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    chars = new std::vector<CharData>(readUnicodeData());
    alphabetic = new std::vector<bool>(readProperty("DerivedCoreProperties.txt", "Alphabetic"));
    whiteSpace = new std::vector<bool>(readProperty("PropList.txt", "White_Space"));
  }
  void SetUp() override {
    if (chars->empty() || alphabetic->empty() || whiteSpace->empty()) {
      GTEST_SKIP() << "no Unicode data under " << UCD;
    }
  }
  static const std::string& category(uint32_t cp) { return (*chars)[cp].category; }
  static std::vector<CharData>* chars;
  static std::vector<bool>* alphabetic;
  static std::vector<bool>* whiteSpace;
};
std::vector<CharData>* UnicodeData::chars;
std::vector<bool>* UnicodeData::alphabetic;
std::vector<bool>* UnicodeData::whiteSpace;

bool isBmpCharacter(uint32_t cp) { return cp >= 0x80 && cp < 0x10000 && (cp < 0xD800 || cp > 0xDFFF); }

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
  const struct {
    uint32_t cp;
    unsigned classes;
    uint32_t lower, upper;
    const char* why;
  } kCases[] = {
      {'A', ALPHA | PRINT | UPPER, 'a', 'A', "ASCII goes to the C library"},
      {'7', DIGIT | PRINT, '7', '7', ""},
      {' ', SPACE | PRINT, ' ', ' ', ""},
      {'\t', SPACE | CNTRL, '\t', '\t', ""},
      {'~', PUNCT | PRINT, '~', '~', ""},
      {0x80, CNTRL, 0x80, 0x80, "first row"},
      {0x85, CNTRL | SPACE, 0x85, 0x85, "next line: control and white space"},
      {0xA0, SPACE | PRINT, 0xA0, 0xA0, "no-break space prints but is no graph"},
      {0xAD, 0, 0xAD, 0xAD, "soft hyphen is a format character"},
      {0xC4, ALPHA | PRINT | UPPER, 0xE4, 0xC4, ""},
      {0xE4, ALPHA | PRINT | LOWER, 0xE4, 0xC4, ""},
      {0xDF, ALPHA | PRINT, 0xDF, 0xDF, "sharp s has no simple upper case"},
      {0xAA, ALPHA | PRINT, 0xAA, 0xAA, "ordinal indicator: a letter without case"},
      {0xFF, ALPHA | PRINT | LOWER, 0xFF, 0x178, "upper case three bytes away"},
      {0x100, ALPHA | PRINT | UPPER, 0x101, 0x100, "pair run, even"},
      {0x101, ALPHA | PRINT | LOWER, 0x101, 0x100, "pair run, odd"},
      {0x139, ALPHA | PRINT | UPPER, 0x13A, 0x139, "pairs starting odd take deltas"},
      {0x130, ALPHA | PRINT | UPPER, 'i', 0x130, "lowers to ASCII"},
      {0x131, ALPHA | PRINT | LOWER, 0x131, 'I', "uppers to ASCII"},
      {0x1C5, ALPHA | PRINT | UPPER, 0x1C6, 0x1C5, "title case only lowers"},
      {0x23A, ALPHA | PRINT | UPPER, 0x2C65, 0x23A, "two bytes to three"},
      {0x2C65, ALPHA | PRINT | LOWER, 0x2C65, 0x23A, "three bytes to two"},
      {0x301, PRINT, 0x301, 0x301, "combining acute: printable mark"},
      {0x3A3, ALPHA | PRINT | UPPER, 0x3C3, 0x3A3, ""},
      {0x3C2, ALPHA | PRINT | LOWER, 0x3C2, 0x3A3, "final sigma"},
      {0x416, ALPHA | PRINT | UPPER, 0x436, 0x416, ""},
      {0x660, DIGIT | PRINT, 0x660, 0x660, "Arabic-Indic zero: alnum, not alpha"},
      {0x2028, SPACE, 0x2028, 0x2028, "line separator does not print"},
      {0x20AC, PUNCT | PRINT, 0x20AC, 0x20AC, "currency symbols are punctuation"},
      {0x212A, ALPHA | PRINT | UPPER, 'k', 0x212A, "Kelvin sign lowers to ASCII"},
      {0x2160, ALPHA | PRINT | UPPER, 0x2170, 0x2160, "Roman numerals have case"},
      {0x3000, SPACE | PRINT, 0x3000, 0x3000, ""},
      {0x4E2D, ALPHA | PRINT, 0x4E2D, 0x4E2D, ""},
      {0xE000, 0, 0xE000, 0xE000, "private use has no class"},
      {0xFF21, ALPHA | PRINT | UPPER, 0xFF41, 0xFF21, ""},
      {0xFFFF, 0, 0xFFFF, 0xFFFF, "noncharacter"},
      {0x10400, PRINT, 0x10400, 0x10400, "four-byte characters only print"},
      {0x1F600, PRINT, 0x1F600, 0x1F600, ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(u(c.cp) + " " + c.why);
    const UnicodeCodepoint ch(pack(c.cp));
    EXPECT_EQ((c.classes & ALPHA) != 0, ch.isAlpha());
    EXPECT_EQ((c.classes & (ALPHA | DIGIT)) != 0, ch.isAlnum());
    EXPECT_EQ((c.classes & SPACE) != 0, ch.isSpace());
    EXPECT_EQ((c.classes & CNTRL) != 0, ch.isCntrl());
    EXPECT_EQ((c.classes & PRINT) != 0, ch.isPrint());
    EXPECT_EQ((c.classes & PRINT) != 0 && (c.classes & SPACE) == 0, ch.isGraph());
    EXPECT_EQ((c.classes & PUNCT) != 0, ch.isPunct());
    EXPECT_EQ((c.classes & UPPER) != 0, ch.isUpper());
    EXPECT_EQ((c.classes & LOWER) != 0, ch.isLower());
    EXPECT_EQ(pack(c.lower), ch.toLowercase().utf8bytes());
    EXPECT_EQ(pack(c.upper), ch.toUppercase().utf8bytes());
  }
}

TEST_F(UnicodeData, EveryBmpCharacterHasItsDataClasses) {
  for (uint32_t cp = 0x80; cp < 0x10000; ++cp) {
    if (!isBmpCharacter(cp)) continue;
    const std::string& gc = category(cp);
    const bool graphic = std::string("LMNPS").find(gc[0]) != std::string::npos || gc == "Zs";
    const UnicodeCodepoint ch(pack(cp));
    SCOPED_TRACE(u(cp) + " " + gc);
    ASSERT_EQ((*alphabetic)[cp], ch.isAlpha());
    ASSERT_EQ((*alphabetic)[cp] || gc == "Nd", ch.isAlnum());
    ASSERT_EQ((*whiteSpace)[cp], ch.isSpace());
    ASSERT_EQ(gc == "Cc", ch.isCntrl());
    ASSERT_EQ(graphic, ch.isPrint());
    ASSERT_EQ(graphic && !(*whiteSpace)[cp], ch.isGraph());
    ASSERT_EQ(gc[0] == 'P' || gc[0] == 'S', ch.isPunct());
  }
}

TEST_F(UnicodeData, EveryBmpCharacterFoldsByItsSimpleMappings) {
  for (uint32_t cp = 0x80; cp < 0x10000; ++cp) {
    if (!isBmpCharacter(cp)) continue;
    const CharData& d = (*chars)[cp];
    const UnicodeCodepoint ch(pack(cp));
    SCOPED_TRACE(u(cp) + " " + d.category);
    ASSERT_EQ(pack(d.lower ? d.lower : cp), ch.toLowercase().utf8bytes());
    // A row carries one mapping; title case letters keep the lower one.
    const uint32_t upper = d.upper && d.category != "Lt" ? d.upper : cp;
    ASSERT_EQ(pack(upper), ch.toUppercase().utf8bytes());
    ASSERT_EQ(d.lower != 0, ch.isUpper());
    ASSERT_EQ(d.lower == 0 && d.upper != 0, ch.isLower());
  }
}

TEST_F(UnicodeData, SupplementaryPlanesOnlyPrint) {
  // Every fifth code point: one row covers them all, so any stride finds a
  // fault in it.
  for (uint32_t cp = 0x10000; cp < CODE_POINTS; cp += 5) {
    const std::string& gc = category(cp);
    const bool graphic = std::string("LMNPS").find(gc[0]) != std::string::npos;
    const UnicodeCodepoint ch(pack(cp));
    if (graphic) {
      ASSERT_EQ(UNICODE_PRINT, UnicodeCodepoint::getFlags(pack(cp))) << u(cp);
    }
    ASSERT_EQ(pack(cp), ch.toLowercase().utf8bytes()) << u(cp);
    ASSERT_EQ(pack(cp), ch.toUppercase().utf8bytes()) << u(cp);
  }
}

TEST_F(UnicodeData, CaseAgreesWithTheCLibrary) {
  locale_t loc = newlocale(LC_ALL_MASK, "C.UTF-8", nullptr);
  if (loc == nullptr) GTEST_SKIP() << "no C.UTF-8 locale";
  int compared = 0;
  for (uint32_t cp = 0x80; cp < 0x10000; ++cp) {
    // Only what this data assigns: a C library on a newer Unicode may know more.
    if (!isBmpCharacter(cp) || category(cp) == "Cn") continue;
    const UnicodeCodepoint ch(pack(cp));
    EXPECT_EQ(pack(towlower_l(cp, loc)), ch.toLowercase().utf8bytes()) << u(cp);
    if (category(cp) != "Lt") {
      EXPECT_EQ(pack(towupper_l(cp, loc)), ch.toUppercase().utf8bytes()) << u(cp);
    }
    ++compared;
  }
  freelocale(loc);
  EXPECT_GT(compared, 50000);
}

TEST(UnicodeCodepoint, AccumulatedBytesPackBigEndFirst) {
  const struct {
    const char* text;
    uint32_t packed;
  } kCases[] = {{"A", 0x41}, {"\xC3\xA4", 0xC3A4}, {"\xE2\x82\xAC", 0xE282AC},
                {"\xF0\x9F\x98\x80", 0xF09F9880}};
  for (const auto& c : kCases) {
    UnicodeCodepoint ch;
    for (const char* p = c.text; *p != '\0'; ++p) ch._accumulateUtf8Byte(static_cast<unsigned char>(*p));
    EXPECT_EQ(c.packed, ch.utf8bytes()) << c.text;
    char out[4];
    const size_t n = UnicodeCodepoint::writeUtf8(c.packed, out);
    EXPECT_EQ(std::string(c.text), std::string(out, n));
  }
}

TEST(UnicodeCodepointDeathTest, PackedValuesBelowC280AreNoCharacter) {
  EXPECT_DEATH(UnicodeCodepoint::getFlags(0xC27F), "utf8bytes >= 0xC280");
  EXPECT_DEATH(UnicodeCodepoint(0x80).isAlpha(), "utf8bytes >= 0xC280");
  EXPECT_DEATH(UnicodeCodepoint(0xBF).toLowercase(), "utf8bytes >= 0xC280");
}

}  // namespace
