#include "util/CharacterClass.h"

#include <cctype>
#include <cstring>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "util/Str.h"
#include "util/StrSegment.h"

namespace {

// Membership of every byte value, against a list that may hold NUL bytes.
void expectExactly(const CharacterClass& cc, const std::string& members, const char* what) {
  for (int b = 0; b < 256; ++b) {
    const bool listed = members.find(static_cast<char>(b)) != std::string::npos;
    EXPECT_EQ(listed, cc.contains(static_cast<unsigned char>(b))) << what << " byte " << b;
    EXPECT_EQ(listed, cc.contains(static_cast<char>(b))) << what << " byte " << b;
  }
}

std::string allBytesExcept(const std::string& removed) {
  std::string out;
  for (int b = 0; b < 256; ++b) {
    const char c = static_cast<char>(b);
    if (removed.find(c) == std::string::npos) out.push_back(c);
  }
  return out;
}

const std::string kDigits = "0123456789";
const std::string kAlpha = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

TEST(CharacterClass, ListedBytesWithFlagTrue) {
  const struct { const char* members; } kCases[] = {
      {""}, {"a"}, {"abc"}, {",;"}, {"\x01"}, {"\x7f\x80\xff"},  // high bytes must not sign-extend
      {"aaaa"},                                                 // repeats are harmless
  };
  for (const auto& c : kCases) {
    expectExactly(CharacterClass(c.members, true), c.members, c.members);
    expectExactly(CharacterClass(c.members), c.members, c.members);
  }
}

TEST(CharacterClass, FlagFalseGivesComplementIncludingNul) {
  for (const char* members : {"", "a", "abc", ",;", "\x80\xff"}) {
    const CharacterClass cc(members, false);
    // Every bit starts as the inverse of false, so byte 0 ends up a member.
    expectExactly(cc, allBytesExcept(members), members);
    EXPECT_TRUE(cc.contains('\0')) << members;
  }
}

TEST(CharacterClass, ConstCharListCannotNameNul) {
  // The list stops at the first NUL: "b" after it is never read.
  const CharacterClass cc("a\0b", true);
  expectExactly(cc, "a", "a\\0b");
  const CharacterClass inverse("a\0b", false);
  expectExactly(inverse, allBytesExcept("a"), "a\\0b false");
}

TEST(CharacterClass, IncludingNulGivesByteZeroTheFlag) {
  const struct { const char* members; bool flag; std::string expected; } kCases[] = {
      {"abc", true, std::string("abc\0", 4)},
      {"", true, std::string(1, '\0')},
      {"abc", false, allBytesExcept(std::string("abc\0", 4))},
      {"", false, allBytesExcept(std::string(1, '\0'))},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.members) + (c.flag ? " true" : " false"));
    const CharacterClassIncludingNul cc(c.members, c.flag);
    expectExactly(cc, c.expected, c.members);
  }
}

TEST(CharacterClass, StrConstructorMatchesConstCharConstructor) {
  std::mt19937 rng(20240601);
  for (int i = 0; i < 200; ++i) {
    std::string members;
    const int n = rng() % 12;
    for (int k = 0; k < n; ++k) members.push_back(static_cast<char>(1 + rng() % 255));
    for (bool flag : {true, false}) {
      SCOPED_TRACE(members);
      const CharacterClass fromStr(Str(members), flag);
      const CharacterClass fromChars(members.c_str(), flag);
      EXPECT_TRUE(fromStr == fromChars);
      expectExactly(fromStr, flag ? members : allBytesExcept(members), "from Str");
    }
  }
}

TEST(CharacterClass, BoolConstructorIsEmptyOrFull) {
  expectExactly(CharacterClass(), "", "default");
  expectExactly(CharacterClass(false), "", "false");
  expectExactly(CharacterClass(true), allBytesExcept(""), "true");
}

TEST(CharacterClass, SetOperations) {
  CharacterClass cc;
  cc.set('x', true);
  cc.set('\xff', true);
  cc.set('\0', true);
  expectExactly(cc, std::string("x\xff\0", 3), "set char");
  cc.set('x', false);
  expectExactly(cc, std::string("\xff\0", 2), "clear char");
  cc.set("abc", true);
  expectExactly(cc, std::string("\xff\0abc", 5), "set list");
  cc.set("ab", false);
  expectExactly(cc, std::string("\xff\0c", 3), "clear list");
  cc.setAll(true);
  expectExactly(cc, allBytesExcept(""), "setAll true");
  cc.setAll(false);
  expectExactly(cc, "", "setAll false");
}

TEST(CharacterClass, SetMultiTakesNulBytesAndStopsAtLength) {
  CharacterClass cc;
  const char bytes[] = {'a', '\0', 'b', 'c'};
  cc.set_multi(bytes, 3, true);  // 'c' is beyond the length
  expectExactly(cc, std::string("a\0b", 3), "set_multi");
  cc.set_multi(bytes, 2, false);
  expectExactly(cc, "b", "set_multi clear");
  CharacterClass full(true);
  full.set_multi(bytes, 0, false);
  expectExactly(full, allBytesExcept(""), "set_multi of nothing");
}

TEST(CharacterClass, Equality) {
  EXPECT_TRUE(CharacterClass("abc") == CharacterClass("cba"));
  EXPECT_FALSE(CharacterClass("abc") == CharacterClass("abd"));
  EXPECT_FALSE(CharacterClass("\x80") == CharacterClass("\x81"));
  // Differences confined to each of the four words.
  for (int b : {0, 63, 64, 127, 128, 191, 192, 255}) {
    CharacterClass a;
    CharacterClass other;
    other.set(static_cast<char>(b), true);
    EXPECT_FALSE(a == other) << b;
    a.set(static_cast<char>(b), true);
    EXPECT_TRUE(a == other) << b;
  }
}

TEST(CharacterClass, NamedClassesHoldExactlyTheirMembers) {
  const struct { const char* name; const CharacterClass* cc; std::string members; } kCases[] = {
      {"ALL_WHITESPACES", &CharacterClass::ALL_WHITESPACES, " \t\n\v\f\r"},
      {"DIGITS", &CharacterClass::DIGITS, kDigits},
      {"ALPHA", &CharacterClass::ALPHA, kAlpha},
      {"ALPHA_UNDER", &CharacterClass::ALPHA_UNDER, kAlpha + "_"},
      {"ALPHA_NUM", &CharacterClass::ALPHA_NUM, kDigits + kAlpha},
      {"ALPHA_NUM_UNDER", &CharacterClass::ALPHA_NUM_UNDER, kDigits + kAlpha + "_"},
      {"ALPHA_NUM_UNDER_DASH", &CharacterClass::ALPHA_NUM_UNDER_DASH, kDigits + kAlpha + "_-"},
      {"ALPHA_NUM_UNDER_DASH_DOT", &CharacterClass::ALPHA_NUM_UNDER_DASH_DOT,
       kDigits + kAlpha + "_-."},
      {"COMMA_OR_SPACE", &CharacterClass::COMMA_OR_SPACE, " ,"},
      {"SEARCH_ESC", &CharacterClass::SEARCH_ESC, "\"\\"},
      {"default_trimchars", &StrSegment::default_trimchars, " \t"},
  };
  for (const auto& c : kCases) expectExactly(*c.cc, c.members, c.name);
}

TEST(CharacterClass, NamedClassesAgreeWithCLibraryInCLocale) {
  for (int b = 0; b < 256; ++b) {
    const unsigned char u = static_cast<unsigned char>(b);
    SCOPED_TRACE(b);
    EXPECT_EQ(isspace(b) != 0, CharacterClass::ALL_WHITESPACES.contains(u));
    EXPECT_EQ(isdigit(b) != 0, CharacterClass::DIGITS.contains(u));
    EXPECT_EQ(isalpha(b) != 0, CharacterClass::ALPHA.contains(u));
    EXPECT_EQ(isalnum(b) != 0, CharacterClass::ALPHA_NUM.contains(u));
    EXPECT_EQ(isalnum(b) != 0 || b == '_', CharacterClass::ALPHA_NUM_UNDER.contains(u));
  }
}

}  // namespace
