#include "util/StrSegment.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "util/CharacterClass.h"
#include "util/Str.h"
#include "util/StrMem.h"

namespace {

const size_t npos = StrSegment::npos;

std::string printable(std::string_view s) {
  std::string out;
  for (unsigned char c : s) {
    if (c >= 0x20 && c < 0x7f) {
      out.push_back(static_cast<char>(c));
    } else {
      char buf[8];
      snprintf(buf, sizeof buf, "\\x%02x", c);
      out += buf;
    }
  }
  return out;
}

// Texts over a small alphabet so that needles are often found; NUL and a
// high byte are in it to catch C-string and signed-char slips.
std::string randomText(std::mt19937& rng, size_t maxLen, bool allowNul = true) {
  static const char kAlphabet[] = {'a', 'b', 'c', '\xff', '\0'};
  const size_t n = rng() % (maxLen + 1);
  std::string s;
  for (size_t i = 0; i < n; ++i) s.push_back(kAlphabet[rng() % (allowNul ? 5 : 4)]);
  return s;
}

std::vector<size_t> positionsFor(size_t len) {
  std::vector<size_t> p;
  for (size_t i = 0; i <= len + 2; ++i) p.push_back(i);
  p.push_back(npos);
  p.push_back(npos - 1);
  return p;
}

TEST(StrSegmentSearch, CharAndNeedleSearchesMatchStringView) {
  std::mt19937 rng(1);
  for (int iter = 0; iter < 400; ++iter) {
    const std::string text = randomText(rng, 12);
    const std::string withNul = randomText(rng, 3);
    const std::string needle = randomText(rng, 3, false);
    const char c = "abc\xff"[rng() % 4];
    const StrSegment seg(text.data(), text.size());
    const std::string_view sv(text);
    for (size_t pos : positionsFor(text.size())) {
      SCOPED_TRACE("text=" + printable(text) + " needle=" + printable(needle) +
                   " withNul=" + printable(withNul) + " pos=" + std::to_string(pos));
      EXPECT_EQ(sv.find(c, pos), seg.find(c, pos));
      EXPECT_EQ(sv.rfind(c, pos), seg.rfind(c, pos));
      EXPECT_EQ(sv.find(needle.c_str(), pos), seg.find(needle.c_str(), pos));
      EXPECT_EQ(sv.rfind(needle.c_str(), pos), seg.rfind(needle.c_str(), pos));
      EXPECT_EQ(sv.find(withNul.data(), pos, withNul.size()),
                seg.find(withNul.data(), pos, withNul.size()));
      EXPECT_EQ(sv.rfind(withNul.data(), pos, withNul.size()),
                seg.rfind(withNul.data(), pos, withNul.size()));
      const StrSegment needleSeg(withNul.data(), withNul.size());
      EXPECT_EQ(sv.find(withNul, pos), seg.find(needleSeg, pos));
      EXPECT_EQ(sv.rfind(withNul, pos), seg.rfind(needleSeg, pos));
    }
    EXPECT_EQ(sv.find(needle) != npos, seg.contains(needle.c_str())) << printable(text);
    EXPECT_EQ(sv.find(withNul) != npos, seg.contains(StrSegment(withNul))) << printable(text);
    EXPECT_EQ(sv.find(c) != npos, seg.contains(c)) << printable(text);
  }
}

TEST(StrSegmentSearch, EmptyNeedleFollowsStandardRules) {
  const StrSegment seg("abc");
  const struct { size_t pos; size_t find; size_t rfind; } kCases[] = {
      {0, 0, 0}, {2, 2, 2}, {3, 3, 3},
      {4, npos, 3},     // past the end: find fails, rfind clips
      {npos, npos, 3},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.find, seg.find("", c.pos)) << c.pos;
    EXPECT_EQ(c.find, seg.find(StrSegment(), c.pos)) << c.pos;
    EXPECT_EQ(c.rfind, seg.rfind("", c.pos)) << c.pos;
    EXPECT_EQ(c.rfind, seg.rfind(StrSegment(), c.pos)) << c.pos;
  }
  EXPECT_EQ(0u, StrSegment().find(""));
  EXPECT_EQ(0u, StrSegment().rfind(""));
  EXPECT_EQ(npos, StrSegment().find('a'));
  EXPECT_EQ(npos, StrSegment().rfind('a'));
}

TEST(StrSegmentSearch, SetSearchesMatchStringView) {
  std::mt19937 rng(2);
  for (int iter = 0; iter < 400; ++iter) {
    const std::string text = randomText(rng, 12);
    const std::string set = randomText(rng, 3, false);
    const CharacterClass cc(set.c_str());
    const StrSegment seg(text.data(), text.size());
    const Str str(text);
    const std::string_view sv(text);
    const char c = "abc\xff"[rng() % 4];
    for (size_t pos : positionsFor(text.size())) {
      SCOPED_TRACE("text=" + printable(text) + " set=" + printable(set) +
                   " pos=" + std::to_string(pos));
      EXPECT_EQ(sv.find_first_of(set, pos), seg.find_first_of(cc, pos));
      EXPECT_EQ(sv.find_first_of(set, pos), seg.find_first_of(set.c_str(), pos));
      EXPECT_EQ(sv.find_first_of(set, pos), str.find_first_of(cc, pos));
      EXPECT_EQ(sv.find_first_not_of(set, pos), seg.find_first_not_of(cc, pos));
      EXPECT_EQ(sv.find_first_not_of(set, pos), seg.find_first_not_of(set.c_str(), pos));
      EXPECT_EQ(sv.find_first_not_of(set, pos), str.find_first_not_of(cc, pos));
      EXPECT_EQ(sv.find_last_of(set, pos), seg.find_last_of(cc, pos));
      EXPECT_EQ(sv.find_last_of(set, pos), seg.find_last_of(set.c_str(), pos));
      EXPECT_EQ(sv.find_last_of(set, pos), str.find_last_of(cc, pos));
      EXPECT_EQ(sv.find_last_not_of(set, pos), seg.find_last_not_of(cc, pos));
      EXPECT_EQ(sv.find_last_not_of(set, pos), seg.find_last_not_of(set.c_str(), pos));
      EXPECT_EQ(sv.find_last_not_of(set, pos), str.find_last_not_of(cc, pos));
      EXPECT_EQ(sv.find_first_of(c, pos), seg.find_first_of(c, pos));
      EXPECT_EQ(sv.find_first_not_of(c, pos), seg.find_first_not_of(c, pos));
      EXPECT_EQ(sv.find_last_of(c, pos), seg.find_last_of(c, pos));
      EXPECT_EQ(sv.find_last_not_of(c, pos), seg.find_last_not_of(c, pos));
    }
  }
}

TEST(StrSegmentAffix, StartsAndEndsWith) {
  const CharacterClass digits = CharacterClass::DIGITS;
  const struct { const char* text; const char* affix; bool starts; bool ends; } kCases[] = {
      {"", "", true, true},  // an empty affix is always there
      {"abc", "", true, true},
      {"abc", "a", true, false},
      {"abc", "abc", true, true},
      {"abc", "abcd", false, false},
      {"abc", "c", false, true},
      {"abc", "bc", false, true},
      {"", "a", false, false},
      {"aXa", "a", true, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.text) + " / " + c.affix);
    const StrSegment seg(c.text);
    EXPECT_EQ(c.starts, seg.startswith(c.affix));
    EXPECT_EQ(c.starts, seg.startswith(StrSegment(c.affix)));
    EXPECT_EQ(c.ends, seg.endswith(c.affix));
    EXPECT_EQ(c.ends, seg.endswith(StrSegment(c.affix)));
    EXPECT_EQ(c.starts, mem_startswith(c.text, strlen(c.text), c.affix, strlen(c.affix)));
    EXPECT_EQ(c.ends, mem_endswith(c.text, strlen(c.text), c.affix, strlen(c.affix)));
    const Str str(c.text);
    EXPECT_EQ(c.starts, str.startswith(c.affix));
    EXPECT_EQ(c.ends, str.endswith(c.affix));
  }
  const struct { const char* text; bool starts; bool ends; } kClassCases[] = {
      {"", false, false},  // no first or last byte to be a member
      {"1", true, true},
      {"1a", true, false},
      {"a1", false, true},
      {"abc", false, false},
  };
  for (const auto& c : kClassCases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(c.starts, StrSegment(c.text).startswith(digits));
    EXPECT_EQ(c.ends, StrSegment(c.text).endswith(digits));
    EXPECT_EQ(c.starts, Str(c.text).startswith(digits));
    EXPECT_EQ(c.ends, Str(c.text).endswith(digits));
  }
  // A full class still needs a byte to test.
  EXPECT_FALSE(StrSegment("").startswith(CharacterClass(true)));
  EXPECT_FALSE(Str("").endswith(CharacterClass(true)));
  // Embedded NUL bytes are ordinary bytes.
  const std::string nul("a\0b", 3);
  EXPECT_TRUE(StrSegment(nul).endswith(StrSegment(std::string_view("\0b", 2))));
  EXPECT_TRUE(StrSegment(nul).startswith(StrSegment(std::string_view("a\0", 2))));
}

TEST(StrSegmentAffix, StrEndsWithChar) {
  EXPECT_TRUE(Str("abc").endswith('c'));
  EXPECT_FALSE(Str("abc").endswith('b'));
  EXPECT_FALSE(Str("").endswith('\0'));
  EXPECT_TRUE(Str(std::string("a\0", 2)).endswith('\0'));
  EXPECT_TRUE(Str("x\xff").endswith('\xff'));
}

int sign(int v) { return (v > 0) - (v < 0); }

TEST(StrSegmentCompare, BytesAreUnsignedAndTiesGiveLengthDifference) {
  const struct { std::string a; std::string b; int expected; bool exact; } kCases[] = {
      {"", "", 0, true},
      {"abc", "abc", 0, true},
      {"abc", "abd", -1, false},
      {"abd", "abc", 1, false},
      {"a\x80", "a\x7f", 1, false},  // 0x80 is above 0x7f when unsigned
      {"\xff", "a", 1, false},
      {"\x01", "\xfe", -1, false},
      {"abc", "ab", 1, true},
      {"ab", "abc", -1, true},
      {"", "abcde", -5, true},
      {"abcdefg", "abc", 4, true},
      {std::string("a\0b", 3), std::string("a\0c", 3), -1, false},  // NUL does not stop it
      {std::string("a\0", 2), "a", 1, true},
      {"b", "abc", 1, false},  // first difference wins over length
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.a) + " vs " + printable(c.b));
    const int got = StrSegment(c.a).compare(StrSegment(c.b));
    if (c.exact) {
      EXPECT_EQ(c.expected, got);
    } else {
      EXPECT_EQ(c.expected, sign(got));
    }
    EXPECT_EQ(c.expected < 0, StrSegment(c.a) < StrSegment(c.b));
  }
}

TEST(StrSegmentCompare, LengthDifferenceIsNarrowedTo32Bits) {
  // Only the shorter length is read, so a huge length never touches memory
  // beyond the one real byte.
  const char* text = "a";
  const StrSegment longer(text, (size_t{1} << 32) + 3);
  const StrSegment shorter(text, 1);
  EXPECT_EQ(2, longer.compare(shorter));
  EXPECT_EQ(-2, shorter.compare(longer));
}

TEST(StrSegmentCompare, SignAgreesWithStringViewOverRandomTexts) {
  std::mt19937 rng(3);
  for (int i = 0; i < 2000; ++i) {
    const std::string a = randomText(rng, 5);
    const std::string b = randomText(rng, 5);
    SCOPED_TRACE(printable(a) + " vs " + printable(b));
    EXPECT_EQ(sign(std::string_view(a).compare(b)), sign(StrSegment(a).compare(StrSegment(b))));
    EXPECT_EQ(a == b, StrSegment(a).equals(StrSegment(b)));
    EXPECT_EQ(a == b, StrSegment(a) == StrSegment(b));
    EXPECT_EQ(a != b, StrSegment(a) != StrSegment(b));
  }
}

TEST(StrSegmentCompare, Equals) {
  const struct { std::string a; std::string b; bool equal; } kCases[] = {
      {"", "", true},
      {"abc", "abc", true},
      {"abc", "abd", false},
      {"abc", "ab", false},
      {std::string("a\0b", 3), std::string("a\0c", 3), false},
      {std::string("a\0b", 3), std::string("a\0b", 3), true},
      {std::string("a\0", 2), "a", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.a) + " vs " + printable(c.b));
    EXPECT_EQ(c.equal, StrSegment(c.a).equals(StrSegment(c.b)));
    EXPECT_EQ(c.equal, Str(c.a).equals(StrSegment(c.b)));
  }
}

TEST(StrSegmentCountChar, WindowsAreClipped) {
  const StrSegment seg("abcabca");
  const CharacterClass ab("ab");
  const struct { size_t start; size_t count; size_t as; size_t abs; } kCases[] = {
      {0, npos, 3, 5},
      {1, npos, 2, 4},
      {0, 1, 1, 1},
      {1, 3, 1, 2},  // "bca"
      {6, 1, 1, 1},
      {6, 100, 1, 1},  // clipped to the end
      {2, npos - 1, 2, 3},  // a count that would overflow start + count
      {7, npos, 0, 0},  // start at the end
      {8, 1, 0, 0},
      {npos, npos, 0, 0},
      {0, 0, 0, 0},
      {3, 0, 0, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE("start=" + std::to_string(c.start) + " count=" + std::to_string(c.count));
    EXPECT_EQ(c.as, seg.count_char('a', c.start, c.count));
    EXPECT_EQ(c.abs, seg.count_char(ab, c.start, c.count));
  }
  EXPECT_EQ(3u, seg.count_char('a'));
  EXPECT_EQ(5u, seg.count_char(ab));
  EXPECT_EQ(3u, Str("abcabca").count_char('a'));
  EXPECT_EQ(0u, StrSegment().count_char('a'));
}

TEST(StrSegmentCountChar, AgreesWithCountOverRandomWindows) {
  std::mt19937 rng(4);
  for (int i = 0; i < 1000; ++i) {
    const std::string text = randomText(rng, 10);
    const size_t start = rng() % (text.size() + 3);
    const size_t count = (rng() % 4 == 0) ? npos : rng() % 12;
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
}

TEST(StrSegmentWhitespace, EveryByteAgainstIsspace) {
  for (int b = 0; b < 256; ++b) {
    const char c = static_cast<char>(b);
    const bool expected = isspace(b) != 0;
    EXPECT_EQ(expected, StrSegment(&c, 1).containsWhitespace()) << b;
    const std::string inside = std::string("ab") + c + "cd";
    EXPECT_EQ(expected, StrSegment(inside).containsWhitespace()) << b;
    EXPECT_EQ(expected, Str(inside).containsWhitespace()) << b;
  }
  EXPECT_FALSE(StrSegment().containsWhitespace());
}

TEST(StrSegmentCopy, CopystrAndStrdupTerminateAndKeepNulBytes) {
  for (const std::string& text : {std::string(), std::string("abc"), std::string("a\0b\xff", 4)}) {
    SCOPED_TRACE(printable(text));
    const StrSegment seg(text);
    char* a = seg.copystr();
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(0, memcmp(a, text.data(), text.size()));
    EXPECT_EQ('\0', a[text.size()]);
    delete[] a;
    char* b = seg.strdup();
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(0, memcmp(b, text.data(), text.size()));
    EXPECT_EQ('\0', b[text.size()]);
    free(b);
  }
  // A segment in the middle of a longer text stops at its own length.
  const StrSegment middle("abcdef" + 1, 3);
  char* c = middle.copystr();
  EXPECT_STREQ("bcd", c);
  delete[] c;
  char* d = Str("xyz").strdup();
  EXPECT_STREQ("xyz", d);
  free(d);
}

TEST(StrSegmentCopy, CopyClipsAndThrowsPastEnd) {
  const StrSegment seg("hello");
  const struct { size_t count; size_t pos; size_t copied; const char* bytes; } kCases[] = {
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

TEST(StrSegmentSubstr, ViewsAreClipped) {
  const char* text = "hello";
  const StrSegment seg(text);
  const struct { size_t pos; size_t count; const char* expected; } kCases[] = {
      {0, npos, "hello"}, {1, 3, "ell"}, {2, npos, "llo"}, {3, 100, "lo"},
      {5, npos, ""},  // at the end is allowed
      {5, 0, ""},     {0, 0, ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::to_string(c.pos) + "," + std::to_string(c.count));
    const StrSegment sub = seg.substr(c.pos, c.count);
    EXPECT_EQ(std::string_view(c.expected), sub.view());
    EXPECT_EQ(text + c.pos, sub.data());  // a view, not a copy
  }
}

TEST(StrSegmentSubstr, PastEndThrowsWithFixedText) {
  for (size_t pos : {size_t{6}, size_t{100}, npos}) {
    try {
      (void)StrSegment("hello").substr(pos, 1);
      ADD_FAILURE() << "no exception for pos " << pos;
    } catch (const std::out_of_range& e) {
      EXPECT_STREQ("basic_string::substr", e.what()) << pos;
    }
  }
}

TEST(StrSegmentTrim, ChosenSidesAndClasses) {
  const CharacterClass& ws = CharacterClass::ALL_WHITESPACES;
  const CharacterClass& def = StrSegment::default_trimchars;
  const CharacterClass xs("x");
  const struct {
    const char* text; const CharacterClass* cc; bool left; bool right; const char* expected;
  } kCases[] = {
      {" \ta b\t ", &def, true, true, "a b"},
      {"\n a \n", &def, true, true, "\n a \n"},  // line feed is not a default trim byte
      {"\n a \n", &ws, true, true, "a"},
      {"  a  ", &def, true, false, "a  "},
      {"  a  ", &def, false, true, "  a"},
      {"  a  ", &def, false, false, "  a  "},
      {" \t \t", &def, true, true, ""},  // only members: nothing left
      {" \t \t", &def, true, false, ""},
      {" \t \t", &def, false, true, ""},
      {"", &def, true, true, ""},
      {"xxaxbxx", &xs, true, true, "axb"},
      {"abc", &xs, true, true, "abc"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.text) + (c.left ? " L" : "") + (c.right ? " R" : ""));
    const StrSegment seg(c.text);
    EXPECT_EQ(std::string_view(c.expected), seg.trim(*c.cc, c.left, c.right).view());
    StrSegment inPlace(c.text);
    inPlace.trimInPlace(*c.cc, c.left, c.right);
    EXPECT_EQ(std::string_view(c.expected), inPlace.view());
    EXPECT_EQ(std::string(c.expected), Str(c.text).trim(*c.cc, c.left, c.right));
    Str str(c.text);
    str.trimInPlace(*c.cc, c.left, c.right);
    EXPECT_EQ(std::string(c.expected), str);
  }
  EXPECT_EQ("a", std::string(StrSegment(" a\t").trim().view()));
  StrSegment d("\t a \t");
  d.trimInPlace();
  EXPECT_EQ("a", std::string(d.view()));
}

TEST(StrMem, BytesForSubstring) {
  const struct { size_t len; size_t pos; size_t count; size_t expected; } kCases[] = {
      {10, 0, npos, 10}, {10, 3, npos, 7}, {10, 3, 4, 4}, {10, 8, 4, 2}, {10, 3, 0, 0},
      {10, 10, npos, 0},  // at the end
      {10, 11, 5, 0},     // past the end
      {10, npos, npos, 0}, {0, 0, npos, 0}, {0, 0, 5, 0}, {10, 0, 10, 10}, {10, 9, 1, 1},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.expected, mem_bytes_for_substring(c.len, c.pos, c.count))
        << c.len << "," << c.pos << "," << c.count;
  }
}

TEST(StrMem, CclassFindAndRfindMatchBruteForce) {
  std::mt19937 rng(5);
  const CharacterClass cc("a\xff");
  for (int i = 0; i < 500; ++i) {
    const std::string text = randomText(rng, 10);
    for (size_t start : positionsFor(text.size())) {
      for (bool wanted : {true, false}) {
        size_t first = npos;
        for (size_t p = start; p < text.size() && start != npos; ++p) {
          if (cc.contains(text[p]) == wanted) {
            first = p;
            break;
          }
        }
        size_t last = npos;
        if (!text.empty()) {
          const size_t from = (start >= text.size()) ? text.size() - 1 : start;
          for (size_t p = from + 1; p-- > 0;) {
            if (cc.contains(text[p]) == wanted) {
              last = p;
              break;
            }
          }
        }
        SCOPED_TRACE(printable(text) + " start=" + std::to_string(start) +
                     (wanted ? " wanted" : " unwanted"));
        EXPECT_EQ(first, cclass_find(cc, text.data(), text.size(), start, wanted));
        EXPECT_EQ(last, cclass_rfind(cc, text.data(), text.size(), start, wanted));
      }
    }
  }
}

TEST(StrMem, CclassRfindFromAllOnesOrPastEndStartsAtLastByte) {
  const char* text = "a,b,c";
  const CharacterClass comma(",");
  EXPECT_EQ(3u, cclass_rfind(comma, text, 5, npos, true));
  EXPECT_EQ(3u, cclass_rfind(comma, text, 5, 5, true));
  EXPECT_EQ(3u, cclass_rfind(comma, text, 5, 99, true));
  EXPECT_EQ(4u, cclass_rfind(comma, text, 5, npos, false));
  EXPECT_EQ(1u, cclass_rfind(comma, text, 5, 2, true));
  EXPECT_EQ(npos, cclass_rfind(comma, text, 5, 0, true));
  EXPECT_EQ(npos, cclass_rfind(comma, text, 0, npos, false));
  EXPECT_EQ(npos, cclass_find(comma, text, 5, 5, false));
  EXPECT_EQ(npos, cclass_find(comma, text, 5, npos, false));
}

TEST(StrMemHash, BasicValues) {
  const struct { std::string text; uint64_t hash; } kCases[] = {
      {"", 5381},
      {"a", 5381 * 33 + 'a'},
      {"ab", (5381ull * 33 + 'a') * 33 + 'b'},
      {"\xff", 5381 * 33 - 1},  // the byte is added as signed -1
      {"\x80", 5381 * 33 - 128},
      {std::string(1, '\0'), 5381 * 33},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.text));
    EXPECT_EQ(c.hash, djb2_hash(c.text.data(), c.text.size()));
    if (c.text.find('\0') == std::string::npos) {
      EXPECT_EQ(c.hash, djb2_hash(c.text.c_str()));
      size_t len = 999;
      EXPECT_EQ(c.hash, djb2_hash_and_strlen(c.text.c_str(), &len));
      EXPECT_EQ(c.text.size(), len);
    }
  }
}

TEST(StrMemHash, AllFormsAgreeOnRandomTexts) {
  std::mt19937 rng(6);
  for (int i = 0; i < 300; ++i) {
    const std::string text = randomText(rng, 40, false);
    size_t len = 999;
    const uint64_t h = djb2_hash(text.data(), text.size());
    EXPECT_EQ(h, djb2_hash(text.c_str())) << printable(text);
    EXPECT_EQ(h, djb2_hash_and_strlen(text.c_str(), &len)) << printable(text);
    EXPECT_EQ(text.size(), len);
  }
}

}  // namespace
