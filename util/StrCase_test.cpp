#include <cstdio>
#include <cwctype>
#include <fstream>
#include <locale.h>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/Str.h"
#include "util/UnicodeTables.h"

namespace {

std::string hex(const std::string& s) {
  std::string out;
  char buf[4];
  for (unsigned char c : s) {
    snprintf(buf, sizeof buf, "%02X ", c);
    out += buf;
  }
  return out;
}

// UTF-8 of a code point, written here from the bit layout.
std::string enc(uint32_t cp) {
  std::string s;
  if (cp < 0x80) {
    s += static_cast<char>(cp);
  } else if (cp < 0x800) {
    s += static_cast<char>(0xC0 | cp >> 6);
  } else if (cp < 0x10000) {
    s += static_cast<char>(0xE0 | cp >> 12);
    s += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
  } else {
    s += static_cast<char>(0xF0 | cp >> 18);
    s += static_cast<char>(0x80 | (cp >> 12 & 0x3F));
    s += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
  }
  if (cp >= 0x80) s += static_cast<char>(0x80 | (cp & 0x3F));
  return s;
}

Str lower(const Str& s) {
  Str out("stale");
  Str::str_tolower(s, &out);
  return out;
}

Str upper(const Str& s) {
  Str out("stale");
  Str::str_toupper(s, &out);
  return out;
}

TEST(StrCase, FoldsEachKindOfCharacter) {
  const struct {
    const char* text;
    const char* lower;
    const char* upper;
    const char* why;
  } kCases[] = {
      {"", "", "", ""},
      {"Hello, World 42!", "hello, world 42!", "HELLO, WORLD 42!", "ASCII by the C library"},
      {"\xC3\x84\xC3\xB6\xC3\x9C", "\xC3\xA4\xC3\xB6\xC3\xBC", "\xC3\x84\xC3\x96\xC3\x9C", ""},
      {"Stra\xC3\x9F" "e", "stra\xC3\x9F" "e", "STRA\xC3\x9F" "E", "sharp s stays"},
      {"\xD0\x9F\xD1\x80\xD0\xB8", "\xD0\xBF\xD1\x80\xD0\xB8", "\xD0\x9F\xD0\xA0\xD0\x98", ""},
      {"\xE2\x84\xAA", "k", "\xE2\x84\xAA", "Kelvin sign shrinks to one byte"},
      {"\xC4\xB1", "\xC4\xB1", "I", "dotless i uppers to ASCII"},
      {"\xC4\xB0", "i", "\xC4\xB0", "dotted capital I lowers to ASCII"},
      {"\xC8\xBA", "\xE2\xB1\xA5", "\xC8\xBA", "two bytes grow to three"},
      {"\xC7\x84\xC7\x85\xC7\x86", "\xC7\x86\xC7\x86\xC7\x86", "\xC7\x84\xC7\x85\xC7\x84",
       "title case only lowers"},
      {"\xF0\x90\x90\x80", "\xF0\x90\x90\x80", "\xF0\x90\x90\x80", "four-byte: no case"},
      {"\x80" "A", "\x80" "a", "\x80" "A", "stray continuation byte copied"},
      {"A\xC3", "a\xC3", "A\xC3", "cut-off lead copied"},
      {"\xC0\x80", "\xC0\x80", "\xC0\x80", "overlong NUL: below C280, copied byte by byte"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.why) + ": " + hex(c.text));
    EXPECT_EQ(c.lower, lower(c.text));
    EXPECT_EQ(c.upper, upper(c.text));
    Str s(c.text);
    s.toLowercase();
    EXPECT_EQ(c.lower, s);
    s = c.text;
    s.toUppercase();
    EXPECT_EQ(c.upper, s);
  }
}

TEST(StrCase, WholeBmpFoldsLikeTheCLibrary) {
  locale_t loc = newlocale(LC_ALL_MASK, "C.UTF-8", nullptr);
  if (loc == nullptr) GTEST_SKIP() << "no C.UTF-8 locale";
  Str text;
  std::string wantLower;
  std::string wantUpper;
  for (uint32_t cp = 0x80; cp < 0x10000; ++cp) {
    // Skip surrogates, and title case, whose row carries only the lower case.
    if ((cp >= 0xD800 && cp <= 0xDFFF) || cp == 0x1C5 || cp == 0x1C8 || cp == 0x1CB || cp == 0x1F2) {
      continue;
    }
    text += enc(cp);
    wantLower += enc(towlower_l(cp, loc));
    wantUpper += enc(towupper_l(cp, loc));
  }
  freelocale(loc);
  // Compare in slices so that a failure names where.
  const Str gotLower = lower(text);
  const Str gotUpper = upper(text);
  ASSERT_EQ(wantLower.size(), gotLower.size());
  ASSERT_EQ(wantUpper.size(), gotUpper.size());
  for (size_t i = 0; i < wantLower.size(); i += 3000) {
    EXPECT_EQ(wantLower.substr(i, 3000), gotLower.substr(i, 3000)) << i;
    EXPECT_EQ(wantUpper.substr(i, 3000), gotUpper.substr(i, 3000)) << i;
  }
}

Str resolved(const std::string& s) {
  Str out(s);
  out.resolveUnicodeCombiningMarks();
  return out;
}

TEST(StrCombiningMarks, ResolvesToPrecomposed) {
  const struct {
    const char* text;
    const char* want;
    const char* why;
  } kCases[] = {
      {"e\xCC\x81", "\xC3\xA9", "e acute"},
      {"Cafe\xCC\x81 au lait", "Caf\xC3\xA9 au lait", "inside text"},
      {"a\xCC\x8A" "b\xC3\xA4o\xCC\x88", "\xC3\xA5" "b\xC3\xA4\xC3\xB6", "two clusters, one precomposed"},
      {"a\xCC\xA3\xCC\x82", "\xE1\xBA\xAD", "dot below then circumflex"},
      {"a\xCC\x82\xCC\xA3", "\xE1\xBA\xAD", "either order: the mask has no order"},
      {"u\xCC\x88\xCC\x84", "\xC7\x96", "diaeresis then macron: U+01D6"},
      {"u\xCC\x84\xCC\x88", "\xE1\xB9\xBB", "macron then diaeresis: U+1E7B"},
      {"U\xCC\x88\xCC\x84", "\xC7\x95", "U+01D5"},
      {"U\xCC\x84\xCC\x88", "\xE1\xB9\xBA", "U+1E7A"},
      {"\xC3\xBC\xCC\x84", "\xC7\x96", "precomposed u umlaut then macron"},
      {"\xC5\xAB\xCC\x88", "\xE1\xB9\xBB", "precomposed u macron then diaeresis"},
      {"\xCE\xB1\xCC\x94\xCC\x81\xCD\x85", "\xE1\xBE\x85", "Greek with three marks"},
      {"\xE3\x81\x8B\xE3\x82\x99", "\xE3\x81\x8C", "kana voiced mark"},
      {"\xE0\xA4\x95\xE0\xA5\x88", "\xE0\xA4\x95\xE0\xA5\x88", "no table entry: copied"},
      {"=\xCC\xB8", "\xE2\x89\xA0", "not equal sign"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.why) + ": " + hex(c.text));
    EXPECT_EQ(c.want, resolved(c.text));
  }
}

TEST(StrCombiningMarks, LeavesTextWithNothingToReplaceAlone) {
  const char* const kCases[] = {
      "plain ASCII, with punctuation\t\n",
      "na\xC3\xAFve caf\xC3\xA9",           // already precomposed
      "x\xCC\x81",                           // no x with acute
      "\xCC\x81" "a",                        // a mark with no base
      "a\xCC\x81\xCC\x81",                   // a doubled mark has no precomposed form
      "a\xCC\x81\xCC\x80",                   // no a with acute and grave
      "e\xCC\xB5",                           // a mark outside the table
      "\xF0\x9F\x98\x80\xCC\x81",
      "\x80\xFF\xC3",                        // stray bytes
  };
  for (const char* text : kCases) {
    EXPECT_EQ(std::string(text), resolved(text)) << hex(text);
  }
}

// Canonical decompositions from UnicodeData.txt, one step each.
std::map<uint32_t, std::vector<uint32_t>> readDecompositions(std::map<uint32_t, std::string>* names) {
  std::map<uint32_t, std::vector<uint32_t>> out;
  std::ifstream in("/usr/share/unicode/UnicodeData.txt");
  std::string line;
  while (std::getline(in, line)) {
    std::vector<std::string> f;
    for (size_t pos = 0; f.size() < 6; ++pos) {
      const size_t semi = std::min(line.find(';', pos), line.size());
      f.push_back(line.substr(pos, semi - pos));
      pos = semi;
    }
    const uint32_t cp = std::stoul(f[0], nullptr, 16);
    (*names)[cp] = f[1];
    if (f[5].empty() || f[5][0] == '<') continue;
    std::vector<uint32_t>& parts = out[cp];
    for (size_t pos = 0; pos < f[5].size();) {
      size_t used = 0;
      parts.push_back(std::stoul(f[5].substr(pos), &used, 16));
      pos += used + 1;
    }
  }
  return out;
}

TEST(StrCombiningMarks, EveryCoveredLetterDecompositionRecomposes) {
  std::map<uint32_t, std::string> names;
  const auto decomp = readDecompositions(&names);
  if (decomp.empty()) GTEST_SKIP() << "no UnicodeData.txt";
  std::map<std::string, bool> isMark;
  for (const UnicodeCombiningMark& m : UNICODE_COMBINING_MARKS) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
      if ((m.utf8bytes >> shift) != 0) bytes += static_cast<char>(m.utf8bytes >> shift);
    }
    isMark[bytes] = true;
  }
  int tested = 0;
  std::string allDecomposed;
  std::string allPrecomposed;
  for (const auto& [cp, parts] : decomp) {
    const std::string& name = names[cp];
    if (name.rfind("LATIN ", 0) != 0 && name.rfind("GREEK ", 0) != 0 &&
        name.rfind("CYRILLIC ", 0) != 0) {
      continue;
    }
    // Walk the chain down to the base, keeping each partly composed form.
    // Every step must be base + one mark: a singleton (U+1F71 to U+03AC)
    // never comes back by composition.
    std::vector<std::string> forms;
    std::vector<std::string> marks;
    uint32_t base = cp;
    bool usable = true;
    for (auto it = decomp.find(base); it != decomp.end(); it = decomp.find(base)) {
      if (it->second.size() != 2 || !isMark[enc(it->second[1])]) {
        usable = false;
        break;
      }
      marks.insert(marks.begin(), enc(it->second[1]));
      base = it->second[0];
      std::string form = enc(base);
      for (const std::string& m : marks) form += m;
      forms.push_back(form);
    }
    if (!usable) continue;
    for (const std::string& form : forms) {
      EXPECT_EQ(enc(cp), resolved(form)) << name << " from " << hex(form);
    }
    const std::string& decomposed = forms.back();
    allDecomposed += "<" + decomposed + ">";
    allPrecomposed += "<" + enc(cp) + ">";
    ++tested;
  }
  EXPECT_GT(tested, 700);
  EXPECT_EQ(allPrecomposed, resolved(allDecomposed));
}

}  // namespace
