#include "util/CharacterClass.h"

#include <cctype>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/testing/TestText.h"

namespace {

// Membership of every byte value, through both contains() overloads: the
// bytes in `members` (NUL bytes included) have `flag`, all others its inverse.
void expectExactly(const CharacterClass& cc, const std::string& members, bool flag = true) {
  for (int b = 0; b < 256; ++b) {
    const bool want = (members.find(static_cast<char>(b)) != std::string::npos) == flag;
    EXPECT_EQ(want, cc.contains(static_cast<unsigned char>(b))) << "byte " << b;
    EXPECT_EQ(want, cc.contains(static_cast<char>(b))) << "byte " << b;
  }
}

TEST(CharacterClass, ConstructorsSetListedBytesToTheFlagAndTheRestToItsInverse) {
  // A const char* list stops at its NUL, so "b" in "a\0b" is never read and
  // byte 0 gets the inverse of the flag; CharacterClassIncludingNul gives it
  // the flag. High bytes must not sign-extend; repeats are harmless.
  for (const char* members : {"", "a", ",;", "\x01", "\x7f\x80\xff", "aaaa", "a\0b"}) {
    const std::string listed(members);
    for (bool flag : {true, false}) {
      SCOPED_TRACE(printable(listed) + (flag ? " true" : " false"));
      expectExactly(CharacterClass(members, flag), listed, flag);
      expectExactly(CharacterClassIncludingNul(members, flag), listed + std::string(1, '\0'), flag);
    }
  }
  expectExactly(CharacterClass("abc"), "abc");  // the flag defaults to true
  expectExactly(CharacterClass(), "");
  expectExactly(CharacterClass(false), "");
  expectExactly(CharacterClass(true), "", false);
}

TEST(CharacterClass, StrConstructorTakesEveryByte) {
  std::mt19937 rng(20240601);
  std::string allBytes;
  for (int b = 0; b < 256; ++b) allBytes.push_back(static_cast<char>(b));
  for (int i = 0; i < 200; ++i) {
    const std::string members = randomText(rng, allBytes, 11);
    for (bool flag : {true, false}) {
      SCOPED_TRACE(printable(members));
      expectExactly(CharacterClass(Str(members), flag), members, flag);
    }
  }
}

TEST(CharacterClass, SetOperations) {
  CharacterClass cc;
  cc.set('x', true);
  cc.set('\xff', true);
  cc.set('\0', true);
  expectExactly(cc, std::string("x\xff\0", 3));
  cc.set('x', false);
  expectExactly(cc, std::string("\xff\0", 2));
  cc.set("abc", true);
  expectExactly(cc, std::string("\xff\0abc", 5));
  cc.set("ab", false);
  expectExactly(cc, std::string("\xff\0c", 3));
  const char bytes[] = {'a', '\0', 'b', 'c'};
  cc.set_multi(bytes, 3, true);  // NUL bytes count; 'c' is beyond the length
  expectExactly(cc, std::string("\xff\0cab", 5));
  cc.set_multi(bytes, 2, false);
  expectExactly(cc, "\xff" "cb");
  cc.setAll(true);
  cc.set_multi(bytes, 0, false);
  expectExactly(cc, "", false);
  cc.setAll(false);
  expectExactly(cc, "");
}

TEST(CharacterClass, EqualityComparesEachOfTheFourWords) {
  EXPECT_TRUE(CharacterClass("abc") == CharacterClass("cba"));
  for (int b : {0, 63, 64, 127, 128, 191, 192, 255}) {
    CharacterClass a, other;
    other.set(static_cast<char>(b), true);
    EXPECT_FALSE(a == other) << b;
    a.set(static_cast<char>(b), true);
    EXPECT_TRUE(a == other) << b;
  }
}

TEST(CharacterClass, NamedClassesHoldExactlyTheirMembers) {
  const std::string digits = "0123456789";
  const std::string alpha = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  const struct { const char* name; const CharacterClass* cc; std::string members; } kCases[] = {
      {"ALL_WHITESPACES", &CharacterClass::ALL_WHITESPACES, " \t\n\v\f\r"},
      {"DIGITS", &CharacterClass::DIGITS, digits},
      {"ALPHA", &CharacterClass::ALPHA, alpha},
      {"ALPHA_UNDER", &CharacterClass::ALPHA_UNDER, alpha + "_"},
      {"ALPHA_NUM", &CharacterClass::ALPHA_NUM, digits + alpha},
      {"ALPHA_NUM_UNDER", &CharacterClass::ALPHA_NUM_UNDER, digits + alpha + "_"},
      {"ALPHA_NUM_UNDER_DASH", &CharacterClass::ALPHA_NUM_UNDER_DASH, digits + alpha + "_-"},
      {"ALPHA_NUM_UNDER_DASH_DOT", &CharacterClass::ALPHA_NUM_UNDER_DASH_DOT,
       digits + alpha + "_-."},
      {"COMMA_OR_SPACE", &CharacterClass::COMMA_OR_SPACE, " ,"},
      {"SEARCH_ESC", &CharacterClass::SEARCH_ESC, "\"\\"},
      {"default_trimchars", &StrSegment::default_trimchars, " \t"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    expectExactly(*c.cc, c.members);
  }
  // The same five, against the C library in the C locale.
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
