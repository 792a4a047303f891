#include "util/CaselessCompare.h"

#include <algorithm>
#include <cwchar>
#include <cwctype>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/testing/TestText.h"

namespace {

int compare(const std::string& a, const std::string& b) {
  return mem_compare_caseless(a.data(), a.size(), b.data(), b.size());
}

TEST(CaselessCompare, OrdersWithoutRegardToCase) {
  // Case pairs, lengths and orders are also covered by the random test below;
  // these are the examples and the quirks it cannot reach.
  const struct { const char* a; const char* b; int want; const char* why; } kCases[] = {
      {"\xC3\x84", "\xC3\xA4", 0, "A umlaut"},
      {"a", "B", -1, "letters fold before they are ordered"},
      {"", "a", -1, "left ends first"},
      {"a", "", 1, "right ends first"},
      {"abc", "ABCD", -1, "caseless prefix"},
      {"\xD0\xA0\xD0\x98", "\xD1\x80\xD0\xB8", 0, "the lower case under another lead byte"},
      {"\xE2\x84\xAA", "k", 0, "Kelvin sign folds to k on the left"},
      {"k", "\xE2\x84\xAA", -1, "but an ASCII left byte meets the undecoded lead"},
      {"\xC3\xA9", "e", 1, "accent orders after the bare letter"},
      {"stra\xC3\x9F" "e", "STRASSE", 1, "sharp s has no simple fold to ss"},
      {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x81", -1, "four-byte, no case"},
      {"a\xC3", "A\xC3", 0, "cut-off lead stands alone and matches"},
      {"x\xE2\x82", "X\xE2\x82", 0, ""},
      {"\x80", "\x80", 0, "a stray byte equal to its counterpart passes"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.why) + ": " + printable(c.a) + " vs " + printable(c.b));
    EXPECT_EQ(c.want, compare(c.a, c.b));
    EXPECT_EQ(c.want, StrSegment(c.a).compareIgnoreCase(StrSegment(c.b)));
    EXPECT_EQ(c.want, Str(c.a).compareIgnoreCase(Str(c.b)));
  }
  // A lead cut off by the length, not by a NUL, is not packed with what follows.
  EXPECT_EQ(0, mem_compare_caseless("\xC3x", 1, "\xC3y", 1));
}

// Characters grouped by case, chosen so that each folds to one lower-case
// character that no other member of the pool folds across a byte-length
// boundary into ASCII, where the left-hand ASCII shortcut would differ from a
// code point comparison.
const std::vector<std::vector<std::string>> CASE_GROUPS = {
    {"a", "A"}, {"s", "S"}, {"z", "Z"}, {"0"}, {" "}, {"-"}, {"\xC3\xA4", "\xC3\x84"},
    {"\xC3\xB6", "\xC3\x96"}, {"\xC3\x9F"}, {"\xC3\xA9", "\xC3\x89"}, {"\xC4\x81", "\xC4\x80"},
    {"\xC4\xBA", "\xC4\xB9"}, {"\xC5\xBF"}, {"\xD0\xB4", "\xD0\x94"}, {"\xD0\xB6", "\xD0\x96"},
    {"\xCF\x83", "\xCE\xA3"}, {"\xCF\x82"}, {"\xC7\x86", "\xC7\x85", "\xC7\x84"},
    {"\xCF\x89", "\xCE\xA9", "\xE2\x84\xA6"},  // omega, and the ohm sign that folds to it
    {"\xE2\x82\xAC"}, {"\xE4\xB8\xAD"}, {"\xF0\x9F\x98\x80"},
};

// The outside answer: decode to code points by the C library in the UTF-8
// locale that this thread uses, lower each, compare the sequences.
int oracle(const std::string& a, const std::string& b) {
  auto lowered = [](const std::string& s) {
    std::vector<wint_t> out;
    mbstate_t st{};
    for (size_t i = 0; i < s.size();) {
      wchar_t wc;
      i += mbrtowc(&wc, s.data() + i, s.size() - i, &st);
      out.push_back(towlower(static_cast<wint_t>(wc)));
    }
    return out;
  };
  const std::vector<wint_t> la = lowered(a), lb = lowered(b);
  return la == lb ? 0 : la < lb ? -1 : 1;
}

TEST(CaselessCompare, AgreesWithLoweredCodePointsOnRandomText) {
  ScopedUtf8Locale loc;
  if (!loc.ok()) GTEST_SKIP() << "no C.UTF-8 locale";
  std::mt19937 rng(1234);
  auto pick = [&rng](const std::vector<std::string>& group) { return group[rng() % group.size()]; };
  int equal = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string a, b;
    const bool sameGroups = rng() % 2 == 0;
    const size_t alen = rng() % 6;
    const size_t blen = sameGroups ? alen : rng() % 6;
    for (size_t i = 0; i < std::max(alen, blen); ++i) {
      const auto& group = CASE_GROUPS[rng() % CASE_GROUPS.size()];
      if (i < alen) a += pick(group);
      if (i < blen) b += pick(sameGroups ? group : CASE_GROUPS[rng() % CASE_GROUPS.size()]);
    }
    const int want = oracle(a, b);
    equal += want == 0;
    ASSERT_EQ(want, compare(a, b)) << printable(a) << " vs " << printable(b);
  }
  EXPECT_GT(equal, 5000);
}

TEST(CaselessCompareDeathTest, StrayHighByteThatDiffersIsAContractViolation) {
  EXPECT_DEATH(compare("\x80", "\x81"), "utf8bytes >= 0xC280");
  EXPECT_DEATH(compare("\xFF", "a"), "utf8bytes >= 0xC280");
}

}  // namespace
