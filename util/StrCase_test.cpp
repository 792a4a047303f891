#include <cwctype>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/Str.h"
#include "util/UnicodeTables.h"
#include "util/testing/TestText.h"

namespace {

// str_tolower or str_toupper into a Str that must be cleared first.
Str folded(const Str& s, void (*fold)(const Str&, Str*)) {
  Str out("stale");
  fold(s, &out);
  return out;
}

TEST(StrCase, FoldsEachKindOfCharacter) {
  // All of U+0080 to U+FFFF is checked against the C library below; these
  // are ASCII, title case, four bytes, and bytes that form no character.
  const struct { const char* text; const char* lower; const char* upper; const char* why; }
      kCases[] = {
      {"", "", "", ""},
      {"Hello, World 42!", "hello, world 42!", "HELLO, WORLD 42!", "ASCII by the C library"},
      {"\xE2\x84\xAA", "k", "\xE2\x84\xAA", "Kelvin sign shrinks to one byte"},
      {"\xC7\x84\xC7\x85\xC7\x86", "\xC7\x86\xC7\x86\xC7\x86", "\xC7\x84\xC7\x85\xC7\x84",
       "title case only lowers"},
      {"\xF0\x90\x90\x80", "\xF0\x90\x90\x80", "\xF0\x90\x90\x80", "four-byte: no case"},
      {"\x80" "A", "\x80" "a", "\x80" "A", "stray continuation byte copied"},
      {"A\xC3", "a\xC3", "A\xC3", "cut-off lead copied"},
      {"\xC0\x80", "\xC0\x80", "\xC0\x80", "overlong NUL: below C280, copied byte by byte"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.why) + ": " + printable(c.text));
    EXPECT_EQ(c.lower, folded(c.text, Str::str_tolower));
    EXPECT_EQ(c.upper, folded(c.text, Str::str_toupper));
    Str s(c.text);
    s.toLowercase();
    EXPECT_EQ(c.lower, s);
    s = c.text;
    s.toUppercase();
    EXPECT_EQ(c.upper, s);
  }
}

TEST(StrCase, WholeBmpFoldsLikeTheCLibrary) {
  ScopedUtf8Locale loc;
  if (!loc.ok()) GTEST_SKIP() << "no C.UTF-8 locale";
  Str text;
  std::string wantLower;
  std::string wantUpper;
  for (uint32_t cp = 0x80; cp < 0x10000; ++cp) {
    // Skip surrogates, and title case, whose row carries only the lower case.
    if ((cp >= 0xD800 && cp <= 0xDFFF) || cp == 0x1C5 || cp == 0x1C8 || cp == 0x1CB || cp == 0x1F2) {
      continue;
    }
    text += encodeUtf8(cp);
    wantLower += encodeUtf8(towlower(cp));
    wantUpper += encodeUtf8(towupper(cp));
  }
  // Compare in slices so that a failure names where.
  const Str gotLower = folded(text, Str::str_tolower);
  const Str gotUpper = folded(text, Str::str_toupper);
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

TEST(StrCombiningMarks, ResolvesToPrecomposedWhereOneExists) {
  // A null `want` means the text stays as it is.
  const struct { const char* text; const char* want; const char* why; } kCases[] = {
      {"Cafe\xCC\x81 au lait", "Caf\xC3\xA9 au lait", "e acute inside text"},
      {"a\xCC\x8A" "b\xC3\xA4o\xCC\x88", "\xC3\xA5" "b\xC3\xA4\xC3\xB6", "two clusters"},
      {"a\xCC\xA3\xCC\x82", "\xE1\xBA\xAD", "dot below then circumflex"},
      {"a\xCC\x82\xCC\xA3", "\xE1\xBA\xAD", "either order: the mask has no order"},
      {"u\xCC\x88\xCC\x84", "\xC7\x96", "diaeresis then macron: U+01D6"},
      {"u\xCC\x84\xCC\x88", "\xE1\xB9\xBB", "macron then diaeresis: U+1E7B"},
      {"\xC3\xBC\xCC\x84", "\xC7\x96", "precomposed u umlaut then macron"},
      {"\xCE\xB1\xCC\x94\xCC\x81\xCD\x85", "\xE1\xBE\x85", "Greek with three marks"},
      {"\xE3\x81\x8B\xE3\x82\x99", "\xE3\x81\x8C", "kana voiced mark"},
      {"=\xCC\xB8", "\xE2\x89\xA0", "not equal sign"},
      {"\xE0\xA4\x95\xE0\xA5\x88", nullptr, "no table entry"},
      {"plain ASCII, with punctuation\t\n", nullptr, ""},
      {"na\xC3\xAFve caf\xC3\xA9", nullptr, "already precomposed"},
      {"x\xCC\x81", nullptr, "no x with acute"},
      {"\xCC\x81" "e\xCC\x81", "\xCC\x81\xC3\xA9", "a mark with no base stays"},
      {"a\xCC\x81\xCC\x81", "\xC3\xA1", "a doubled mark is one bit of the mask"},
      {"e\xCC\x81\xCC\x81", "\xC3\xA9", "likewise for e"},
      {"a\xCC\x81\xCC\x80", nullptr, "no a with acute and grave"},
      {"e\xCC\xB5", nullptr, "a mark outside the table"},
      {"\xF0\x9F\x98\x80\xCC\x81", nullptr, ""},
      {"\x80\xFF\xC3", nullptr, "stray bytes"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.why) + ": " + printable(c.text));
    EXPECT_EQ(c.want != nullptr ? c.want : c.text, resolved(c.text));
  }
}

TEST(StrCombiningMarks, EveryCoveredLetterDecompositionRecomposes) {
  // Canonical decompositions, one step each, of Latin, Greek and Cyrillic
  // letters.
  std::map<uint32_t, std::vector<uint32_t>> decomp;
  std::map<uint32_t, std::string> names;
  forEachUnicodeDataRow([&](const std::vector<std::string>& f) {
    if (f[5].empty() || f[5][0] == '<') return;
    const uint32_t cp = std::stoul(f[0], nullptr, 16);
    for (size_t pos = 0, used = 0; pos < f[5].size(); pos += used + 1) {
      decomp[cp].push_back(std::stoul(f[5].substr(pos), &used, 16));
    }
    for (const char* script : {"LATIN ", "GREEK ", "CYRILLIC "}) {
      if (f[1].rfind(script, 0) == 0) names[cp] = f[1];
    }
  });
  if (decomp.empty()) GTEST_SKIP() << "no UnicodeData.txt";
  std::set<std::string> markBytes;
  for (const UnicodeCombiningMark& m : UNICODE_COMBINING_MARKS) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
      if ((m.utf8bytes >> shift) != 0) bytes += static_cast<char>(m.utf8bytes >> shift);
    }
    markBytes.insert(bytes);
  }
  int tested = 0;
  std::string allDecomposed;
  std::string allPrecomposed;
  for (const auto& [cp, name] : names) {
    // Walk the chain down to the base, keeping each partly composed form.
    // Every step must be base + one mark: a singleton (U+1F71 to U+03AC)
    // never comes back by composition.
    std::vector<std::string> forms;
    std::vector<std::string> marks;
    uint32_t base = cp;
    bool usable = true;
    for (auto it = decomp.find(base); it != decomp.end(); it = decomp.find(base)) {
      if (it->second.size() != 2 || markBytes.count(encodeUtf8(it->second[1])) == 0) {
        usable = false;
        break;
      }
      marks.insert(marks.begin(), encodeUtf8(it->second[1]));
      base = it->second[0];
      std::string form = encodeUtf8(base);
      for (const std::string& m : marks) form += m;
      forms.push_back(form);
    }
    if (!usable) continue;
    for (const std::string& form : forms) {
      EXPECT_EQ(encodeUtf8(cp), resolved(form)) << name << " from " << printable(form);
    }
    allDecomposed += "<" + forms.back() + ">";
    allPrecomposed += "<" + encodeUtf8(cp) + ">";
    ++tested;
  }
  EXPECT_GT(tested, 700);
  EXPECT_EQ(allPrecomposed, resolved(allDecomposed));
}

}  // namespace
