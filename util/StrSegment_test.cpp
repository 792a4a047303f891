#include "util/StrSegment.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "util/CharacterClass.h"
#include "util/Str.h"
#include "util/StrMem.h"
#include "util/testing/TestText.h"
#include "util/testing/ThrownText.h"

namespace {

const size_t npos = StrSegment::npos;

// A small alphabet so that needles are often found; NUL and a high byte are
// in it to catch C-string and signed-char slips.
const std::string_view kBytes("abc\xff\0", 5);
const std::string_view kBytesNoNul("abc\xff", 4);

// Every start position up to past the end, and the huge ones.
std::vector<size_t> positionsFor(size_t len) {
  std::vector<size_t> p = {npos, npos - 1};
  for (size_t i = 0; i <= len + 2; ++i) p.push_back(i);
  return p;
}

TEST(StrSegmentSearch, EveryFormMatchesStringView) {
  std::mt19937 rng(1);
  for (int iter = 0; iter < 400; ++iter) {
    // Empty texts, needles and sets come up too, with the standard rules.
    const std::string text = randomText(rng, kBytes, 12);
    const std::string withNul = randomText(rng, kBytes, 3);
    const std::string needle = randomText(rng, kBytesNoNul, 3);  // also the set
    const char c = kBytesNoNul[rng() % 4];
    const StrSegment seg(text.data(), text.size());
    const StrSegment needleSeg(withNul.data(), withNul.size());
    const CharacterClass cc(needle.c_str());
    const char* set = needle.c_str();
    const Str str(text);
    const std::string_view sv(text);
    for (size_t pos : positionsFor(text.size())) {
      SCOPED_TRACE("text=" + printable(text) + " needle=" + printable(needle) +
                   " withNul=" + printable(withNul) + " pos=" + std::to_string(pos));
      EXPECT_EQ(sv.find(c, pos), seg.find(c, pos));
      EXPECT_EQ(sv.rfind(c, pos), seg.rfind(c, pos));
      EXPECT_EQ(sv.find(set, pos), seg.find(set, pos));
      EXPECT_EQ(sv.rfind(set, pos), seg.rfind(set, pos));
      EXPECT_EQ(sv.find(withNul.data(), pos, withNul.size()),
                seg.find(withNul.data(), pos, withNul.size()));
      EXPECT_EQ(sv.rfind(withNul.data(), pos, withNul.size()),
                seg.rfind(withNul.data(), pos, withNul.size()));
      EXPECT_EQ(sv.find(withNul, pos), seg.find(needleSeg, pos));
      EXPECT_EQ(sv.rfind(withNul, pos), seg.rfind(needleSeg, pos));
      EXPECT_EQ(sv.find_first_of(set, pos), seg.find_first_of(cc, pos));
      EXPECT_EQ(sv.find_first_of(set, pos), seg.find_first_of(set, pos));
      EXPECT_EQ(sv.find_first_of(set, pos), str.find_first_of(cc, pos));
      EXPECT_EQ(sv.find_first_not_of(set, pos), seg.find_first_not_of(cc, pos));
      EXPECT_EQ(sv.find_first_not_of(set, pos), seg.find_first_not_of(set, pos));
      EXPECT_EQ(sv.find_first_not_of(set, pos), str.find_first_not_of(cc, pos));
      EXPECT_EQ(sv.find_last_of(set, pos), seg.find_last_of(cc, pos));
      EXPECT_EQ(sv.find_last_of(set, pos), seg.find_last_of(set, pos));
      EXPECT_EQ(sv.find_last_of(set, pos), str.find_last_of(cc, pos));
      EXPECT_EQ(sv.find_last_not_of(set, pos), seg.find_last_not_of(cc, pos));
      EXPECT_EQ(sv.find_last_not_of(set, pos), seg.find_last_not_of(set, pos));
      EXPECT_EQ(sv.find_last_not_of(set, pos), str.find_last_not_of(cc, pos));
      EXPECT_EQ(sv.find_first_of(c, pos), seg.find_first_of(c, pos));
      EXPECT_EQ(sv.find_first_not_of(c, pos), seg.find_first_not_of(c, pos));
      EXPECT_EQ(sv.find_last_of(c, pos), seg.find_last_of(c, pos));
      EXPECT_EQ(sv.find_last_not_of(c, pos), seg.find_last_not_of(c, pos));
    }
    EXPECT_EQ(sv.find(needle) != npos, seg.contains(set)) << printable(text);
    EXPECT_EQ(sv.find(withNul) != npos, seg.contains(needleSeg)) << printable(text);
    EXPECT_EQ(sv.find(c) != npos, seg.contains(c)) << printable(text);
  }
}

TEST(StrSegmentAffix, StartsAndEndsWith) {
  const struct { std::string text, affix; bool starts, ends; } kCases[] = {
      {"", "", true, true}, {"abc", "", true, true},  // an empty affix is always there
      {"abc", "a", true, false}, {"abc", "abc", true, true}, {"abc", "abcd", false, false},
      {"abc", "bc", false, true}, {"", "a", false, false},
      {std::string("a\0b", 3), std::string("a\0", 2), true, false},  // NUL is an ordinary byte
      {std::string("a\0b", 3), std::string("\0b", 2), false, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.text) + " / " + printable(c.affix));
    const StrSegment seg(c.text);
    EXPECT_EQ(c.starts, seg.startswith(StrSegment(c.affix)));
    EXPECT_EQ(c.ends, seg.endswith(StrSegment(c.affix)));
    const std::string& t = c.text;
    EXPECT_EQ(c.starts, mem_startswith(t.data(), t.size(), c.affix.data(), c.affix.size()));
    EXPECT_EQ(c.ends, mem_endswith(t.data(), t.size(), c.affix.data(), c.affix.size()));
    if (c.affix.find('\0') == std::string::npos) {
      EXPECT_EQ(c.starts, seg.startswith(c.affix.c_str()));
      EXPECT_EQ(c.ends, seg.endswith(c.affix.c_str()));
      EXPECT_EQ(c.starts, Str(c.text).startswith(c.affix.c_str()));
      EXPECT_EQ(c.ends, Str(c.text).endswith(c.affix.c_str()));
    }
  }
  // The class and char forms test one byte, so an empty text is false.
  const struct { std::string text; bool starts, ends; } kByteCases[] = {
      {"", false, false}, {"1", true, true}, {"1a", true, false}, {"a1", false, true},
      {"abc", false, false}, {std::string("1\0", 2), true, false},
  };
  for (const auto& c : kByteCases) {
    SCOPED_TRACE(printable(c.text));
    EXPECT_EQ(c.starts, StrSegment(c.text).startswith(CharacterClass::DIGITS));
    EXPECT_EQ(c.ends, StrSegment(c.text).endswith(CharacterClass::DIGITS));
    EXPECT_EQ(c.starts, Str(c.text).startswith(CharacterClass::DIGITS));
    EXPECT_EQ(c.ends, Str(c.text).endswith(CharacterClass::DIGITS));
    EXPECT_EQ(c.ends, Str(c.text).endswith('1'));
    EXPECT_EQ(!c.text.empty() && c.text.back() == '\0', Str(c.text).endswith('\0'));
  }
  EXPECT_FALSE(StrSegment("").startswith(CharacterClass(true)));
  EXPECT_FALSE(StrSegment("").endswith(CharacterClass(true)));
  EXPECT_TRUE(Str("x\xff").endswith('\xff'));
}

TEST(StrSegmentCompare, BytesAreUnsignedAndTiesGiveLengthDifference) {
  // The exact result on a tie.
  const struct { std::string a, b; int expected; } kCases[] = {
      {"", "", 0}, {"abc", "ab", 1}, {"ab", "abc", -1}, {"", "abcde", -5}, {"abcdefg", "abc", 4},
      {std::string("a\0", 2), "a", 1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.a) + " vs " + printable(c.b));
    EXPECT_EQ(c.expected, StrSegment(c.a).compare(StrSegment(c.b)));
  }
  // Only the shorter length is read, so a huge length never touches memory
  // beyond the one real byte; the difference is narrowed to 32 bits.
  const StrSegment longer("a", (size_t{1} << 32) + 3);
  EXPECT_EQ(2, longer.compare(StrSegment("a")));
  EXPECT_EQ(-2, StrSegment("a").compare(longer));
  // Random texts: "\xff" against "a" checks that bytes compare unsigned, "\0"
  // that a NUL does not stop the comparison, "b" against "abc" that the first
  // difference wins over length.
  std::mt19937 rng(3);
  for (int i = 0; i < 2000; ++i) {
    const std::string a = randomText(rng, kBytes, 5);
    const std::string b = randomText(rng, kBytes, 5);
    SCOPED_TRACE(printable(a) + " vs " + printable(b));
    const int want = std::string_view(a).compare(b);
    EXPECT_EQ(want < 0, StrSegment(a).compare(StrSegment(b)) < 0);
    EXPECT_EQ(want > 0, StrSegment(a).compare(StrSegment(b)) > 0);
    EXPECT_EQ(want < 0, StrSegment(a) < StrSegment(b));
    EXPECT_EQ(a == b, StrSegment(a).equals(StrSegment(b)));
    EXPECT_EQ(a == b, Str(a).equals(StrSegment(b)));
    EXPECT_EQ(a == b, StrSegment(a) == StrSegment(b));
    EXPECT_EQ(a != b, StrSegment(a) != StrSegment(b));
  }
}

TEST(StrSegmentCountChar, AgreesWithCountOverRandomWindows) {
  std::mt19937 rng(4);
  for (int i = 0; i < 1000; ++i) {
    const std::string text = randomText(rng, kBytes, 10);
    // Starts past the end and at npos, and a count that overflows start + count.
    const size_t kHuge[] = {npos, npos - 1, npos};
    const size_t start = rng() % 8 == 0 ? npos : rng() % (text.size() + 3);
    const size_t count = rng() % 4 == 0 ? kHuge[rng() % 3] : rng() % 12;
    const char target = "a\0\xff"[rng() % 3];
    size_t expected = 0;
    size_t expectedClass = 0;
    for (size_t p = start; p < text.size() && p - start < count; ++p) {
      expected += text[p] == target;
      expectedClass += text[p] == 'b' || text[p] == '\xff';
    }
    SCOPED_TRACE(printable(text) + " start=" + std::to_string(start) +
                 " count=" + std::to_string(count));
    EXPECT_EQ(expected, StrSegment(text).count_char(target, start, count));
    EXPECT_EQ(expectedClass, StrSegment(text).count_char(CharacterClass("b\xff"), start, count));
  }
  EXPECT_EQ(3u, StrSegment("abcabca").count_char('a'));
  EXPECT_EQ(5u, StrSegment("abcabca").count_char(CharacterClass("ab")));
  EXPECT_EQ(3u, Str("abcabca").count_char('a'));
}

TEST(StrSegmentWhitespace, EveryByteAgainstIsspace) {
  for (int b = 0; b < 256; ++b) {
    const std::string inside = std::string("ab") + static_cast<char>(b) + "cd";
    EXPECT_EQ(isspace(b) != 0, StrSegment(inside).containsWhitespace()) << b;
    EXPECT_EQ(isspace(b) != 0, Str(inside).containsWhitespace()) << b;
  }
  EXPECT_FALSE(StrSegment().containsWhitespace());
}

TEST(StrSegmentCopy, CopiesClipAndTerminate) {
  // copystr and strdup terminate and keep NUL bytes; the last text is a view
  // in the middle of a longer one.
  const char* longer = "abcdef";
  const StrSegment kSegments[] = {StrSegment(), StrSegment("a\0b\xff", 4),
                                  StrSegment(longer + 1, 3)};
  for (const StrSegment& seg : kSegments) {
    SCOPED_TRACE(printable(seg.view()));
    char* a = seg.copystr();
    EXPECT_EQ(seg.view(), std::string_view(a, seg.size()));
    EXPECT_EQ('\0', a[seg.size()]);
    delete[] a;
    char* b = seg.strdup();
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(seg.view(), std::string_view(b, seg.size()));
    EXPECT_EQ('\0', b[seg.size()]);
    free(b);
  }
  char* d = Str("xyz").strdup();
  EXPECT_STREQ("xyz", d);
  free(d);
  // copy clips to the end and throws past it.
  const StrSegment seg("hello");
  const struct { size_t count, pos, copied; const char* bytes; } kCases[] = {
      {5, 0, 5, "hello"}, {3, 1, 3, "ell"}, {10, 3, 2, "lo"}, {4, 5, 0, ""}, {0, 2, 0, ""},
  };
  for (const auto& c : kCases) {
    char buf[16] = {};
    EXPECT_EQ(c.copied, seg.copy(buf, c.count, c.pos)) << c.pos;
    EXPECT_EQ(std::string(c.bytes), std::string(buf, c.copied)) << c.pos;
  }
  char buf[4];
  EXPECT_THROW(seg.copy(buf, 1, 6), std::out_of_range);
}

TEST(StrSegmentSubstr, ViewsAreClippedAndPastEndThrows) {
  const char* text = "hello";
  const StrSegment seg(text);
  const struct { size_t pos, count; const char* expected; } kCases[] = {
      {0, npos, "hello"}, {1, 3, "ell"}, {3, 100, "lo"}, {0, 0, ""},
      {5, npos, ""},  // at the end is allowed
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::to_string(c.pos) + "," + std::to_string(c.count));
    const StrSegment sub = seg.substr(c.pos, c.count);
    EXPECT_EQ(std::string_view(c.expected), sub.view());
    EXPECT_EQ(text + c.pos, sub.data());  // a view, not a copy
  }
  for (size_t pos : {size_t{6}, npos}) {
    EXPECT_EQ("basic_string::substr",
              thrownText<std::out_of_range>([&] { (void)seg.substr(pos, 1); }))
        << pos;
  }
}

TEST(StrSegmentTrim, ChosenSidesAndClasses) {
  const CharacterClass& ws = CharacterClass::ALL_WHITESPACES;
  const CharacterClass& def = StrSegment::default_trimchars;
  const CharacterClass xs("x");
  const struct { const char* text; const CharacterClass* cc; bool left, right; const char* want; }
      kCases[] = {
          {"\n a \n", &def, true, true, "\n a \n"},  // line feed is not a default trim byte
          {" \t \t", &def, true, true, ""},  // only members: nothing left
          {" \ta b\t ", &def, true, true, "a b"}, {"\n a \n", &ws, true, false, "a \n"},
          {"\n a \n", &ws, false, true, "\n a"}, {"  a  ", &def, false, false, "  a  "},
          {" \t \t", &def, true, false, ""}, {" \t \t", &def, false, true, ""},
          {"", &def, true, true, ""}, {"xxaxbxx", &xs, true, true, "axb"},
          {"abc", &xs, true, true, "abc"},
      };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.text) + (c.left ? " L" : "") + (c.right ? " R" : ""));
    const StrSegment seg(c.text);
    EXPECT_EQ(std::string_view(c.want), seg.trim(*c.cc, c.left, c.right).view());
    StrSegment inPlace(c.text);
    inPlace.trimInPlace(*c.cc, c.left, c.right);
    EXPECT_EQ(std::string_view(c.want), inPlace.view());
    EXPECT_EQ(std::string(c.want), Str(c.text).trim(*c.cc, c.left, c.right));
    Str str(c.text);
    str.trimInPlace(*c.cc, c.left, c.right);
    EXPECT_EQ(std::string(c.want), str);
    if (c.left != c.right) {
      Str oneSide(c.text);
      c.left ? oneSide.leftTrimInPlace(*c.cc) : oneSide.rightTrimInPlace(*c.cc);
      EXPECT_EQ(std::string(c.want), oneSide);
    }
  }
  // Without a class: blank and tab.
  StrSegment d("\t a \t");
  d.trimInPlace();
  EXPECT_EQ("a", std::string(d.view()));
  EXPECT_EQ("a", std::string(StrSegment(" a\t").trim().view()));
  EXPECT_EQ("a", Str(" a\t").trim());
  Str s(" x\t");
  s.leftTrimInPlace();
  EXPECT_EQ("x\t", s);
  s.rightTrimInPlace();
  EXPECT_EQ("x", s);
}

TEST(StrMem, BytesForSubstring) {
  const struct { size_t len; size_t pos; size_t count; size_t expected; } kCases[] = {
      {10, 0, npos, 10}, {10, 3, npos, 7}, {10, 3, 4, 4}, {10, 8, 4, 2}, {10, 3, 0, 0},
      {10, 10, npos, 0},  // at the end
      {10, 11, 5, 0},     // past the end
      {10, npos, npos, 0}, {0, 0, npos, 0}, {0, 0, 5, 0}, {10, 0, 10, 10}, {10, 9, 1, 1},
      {10, 2, npos - 1, 8},  // pos + count would wrap
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.expected, mem_bytes_for_substring(c.len, c.pos, c.count))
        << c.len << "," << c.pos << "," << c.count;
  }
}

TEST(StrMem, CclassFindAndRfindMatchBruteForce) {
  // The start positions run past the end and up to npos, from which
  // cclass_rfind starts at the last byte.
  std::mt19937 rng(5);
  const CharacterClass cc("a\xff");
  for (int i = 0; i < 500; ++i) {
    const std::string text = randomText(rng, kBytes, 10);
    for (size_t start : positionsFor(text.size())) {
      for (bool wanted : {true, false}) {
        size_t first = npos, last = npos;
        for (size_t p = 0; p < text.size(); ++p) {
          if (cc.contains(text[p]) != wanted) continue;
          if (p >= start && first == npos) first = p;
          if (p <= start) last = p;
        }
        SCOPED_TRACE(printable(text) + " start=" + std::to_string(start) +
                     (wanted ? " wanted" : " unwanted"));
        EXPECT_EQ(first, cclass_find(cc, text.data(), text.size(), start, wanted));
        EXPECT_EQ(last, cclass_rfind(cc, text.data(), text.size(), start, wanted));
      }
    }
  }
}

}  // namespace
