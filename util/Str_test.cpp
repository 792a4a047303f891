#include "util/Str.h"

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/CharacterClass.h"
#include "util/StrSegment.h"
#include "util/StrVector.h"

namespace {

std::string cFormat(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string cFormat(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int n = vsnprintf(nullptr, 0, fmt, args);
  va_end(args);
  std::string out(static_cast<size_t>(n) + 1, '\0');
  va_start(args, fmt);
  vsnprintf(out.data(), out.size(), fmt, args);
  va_end(args);
  out.resize(static_cast<size_t>(n));
  return out;
}

Str& callVformat(Str& s, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
Str& callVformat(Str& s, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  Str& r = s.vformat(fmt, args);
  va_end(args);
  return r;
}

Str& callAppendVformat(Str& s, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
Str& callAppendVformat(Str& s, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  Str& r = s.appendVformat(fmt, args);
  va_end(args);
  return r;
}

TEST(StrFormat, MatchesSnprintfAcrossTheStackBufferSize) {
  // Lengths around 256 exercise the first retry; the arguments must be read
  // afresh on it.
  for (size_t len = 0; len < 700; ++len) {
    const std::string filler(len, 'x');
    const std::string expected = cFormat("%s|%d|%s", filler.c_str(), -42, "tail");
    SCOPED_TRACE(len);
    Str s("old contents");
    EXPECT_EQ(&s, &s.format("%s|%d|%s", filler.c_str(), -42, "tail"));
    EXPECT_EQ(expected, s);
    Str v("old contents");
    EXPECT_EQ(&v, &callVformat(v, "%s|%d|%s", filler.c_str(), -42, "tail"));
    EXPECT_EQ(expected, v);
    Str a("pre:");
    EXPECT_EQ(&a, &a.appendFormat("%s|%d|%s", filler.c_str(), -42, "tail"));
    EXPECT_EQ("pre:" + expected, a);
    Str av("pre:");
    EXPECT_EQ(&av, &callAppendVformat(av, "%s|%d|%s", filler.c_str(), -42, "tail"));
    EXPECT_EQ("pre:" + expected, av);
  }
}

TEST(StrFormat, Examples) {
  const struct { std::string got; std::string expected; } kCases[] = {
      {Str().format("%d-%s", 42, "x"), "42-x"},
      {Str().format("%s", ""), ""},
      {Str().format("%5.2f|%-4s|%x", 3.14159, "ab", 255u),
       cFormat("%5.2f|%-4s|%x", 3.14159, "ab", 255u)},
      {Str().format("%%"), "%"},
      {Str().format("%c", 'q'), "q"},
      {Str().format("%s", std::string(10000, 'y').c_str()), std::string(10000, 'y')},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.expected, c.got);
  // Appending keeps earlier bytes, NUL bytes included.
  Str s(std::string("a\0b", 3));
  s.appendFormat("%d", 7);
  EXPECT_EQ(std::string("a\0b7", 4), s);
}

TEST(StrFormat, RefusedFormatAppendsNothingAndReturns) {
  // The C library answers -1 for a format it refuses; the retry must stop.
  const char* refused = "abc%";
  char probe[8];
  ASSERT_LT(std::snprintf(probe, sizeof probe, refused), 0);
  Str s("kept");
  s.appendFormat(refused);
  EXPECT_EQ("kept", s);
}

TEST(StrAppendNumber, MatchesSnprintf) {
  const double kDoubles[] = {0.0, -0.0, 1.5, -1.5, 0.1, 1e-7, 123456789.125, 1e300, -DBL_MAX,
                             DBL_MIN, INFINITY, -INFINITY};
  for (double d : kDoubles) {
    Str s("v=");
    EXPECT_EQ(&s, &s.append_double(d));
    EXPECT_EQ("v=" + cFormat("%lf", d), s) << d;
  }
  EXPECT_EQ("1.500000", Str().append_double(1.5));
  const long long kSigned[] = {0, -1, 1, LLONG_MIN, LLONG_MAX, 1234567890123LL};
  for (long long v : kSigned) {
    Str s("v=");
    EXPECT_EQ(&s, &s.append_longlong(v));
    EXPECT_EQ("v=" + cFormat("%lld", v), s) << v;
  }
  EXPECT_EQ("-9223372036854775808", Str().append_longlong(LLONG_MIN));
  const unsigned long long kUnsigned[] = {0, 1, ULLONG_MAX, 10000000000000000000ull};
  for (unsigned long long v : kUnsigned) {
    Str s("v=");
    EXPECT_EQ(&s, &s.append_unsignedlonglong(v));
    EXPECT_EQ("v=" + cFormat("%llu", v), s) << v;
  }
  EXPECT_EQ("18446744073709551615", Str().append_unsignedlonglong(ULLONG_MAX));
  std::mt19937_64 rng(31);
  for (int i = 0; i < 1000; ++i) {
    const unsigned long long bits = rng();
    EXPECT_EQ(cFormat("%lld", static_cast<long long>(bits)),
              Str().append_longlong(static_cast<long long>(bits)));
    EXPECT_EQ(cFormat("%llu", bits), Str().append_unsignedlonglong(bits));
    const int exponent = static_cast<int>(rng() % 200) - 100;
    const double d = std::ldexp(static_cast<double>(bits >> 11), exponent);
    EXPECT_EQ(cFormat("%lf", d), Str().append_double(d));
  }
}

TEST(StrOperatorPlus, Concatenates) {
  const struct { std::string a; std::string b; } kCases[] = {
      {"", ""}, {"a", ""}, {"", "b"}, {"abc", "def"},
      {std::string("a\0", 2), std::string("\0b", 2)},  // byte ranges keep NUL bytes
      {std::string(300, 'x'), std::string(5, 'y')},
  };
  for (const auto& c : kCases) {
    const std::string expected = c.a + c.b;
    EXPECT_EQ(expected, Str::operator_plus(c.a.data(), c.a.size(), c.b.data(), c.b.size()));
    EXPECT_EQ(expected, Str::operator_plus(StrSegment(c.a), StrSegment(c.b)));
    if (c.a.find('\0') == std::string::npos) {
      EXPECT_EQ(expected, Str::operator_plus(c.a.c_str(), c.b.c_str()));
    }
  }
  // Only the given lengths are taken.
  EXPECT_EQ("abde", Str::operator_plus("abc", 2, "def", 2));
}

TEST(StrReplaceAll, ReplacesWithoutRescanning) {
  const struct {
    std::string text;
    std::string from;
    std::string to;
    std::string expected;
    size_t count;
  } kCases[] = {
      {"aaa", "a", "aa", "aaaaaa", 3},  // the inserted "a"s are not searched again
      {"aaaa", "aa", "x", "xx", 2},
      {"aaa", "aa", "x", "xa", 1},  // overlapping matches are not counted
      {"abc", "", "x", "abc", 0},   // an empty pattern replaces nothing
      {"", "", "x", "", 0},
      {"abcabc", "bc", "", "aa", 2},
      {"abc", "d", "x", "abc", 0},
      {"", "a", "b", "", 0},
      {"a.b.c", ".", "..", "a..b..c", 2},
      {"xyz", "xyz", "", "", 1},
      {"abab", "ab", "ba", "baba", 2},
      {"aXbXc", "X", "long replacement", "along replacementblong replacementc", 2},
      {std::string("a\0b", 3), std::string("\0", 1), "-", "a-b", 1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text + " / " + c.from + " -> " + c.to);
    Str s(c.text);
    EXPECT_EQ(c.count, s.replaceAll(Str(c.from), Str(c.to)));
    EXPECT_EQ(c.expected, s);
  }
}

TEST(StrReplaceAll, AgreesWithLeftToRightReference) {
  std::mt19937 rng(32);
  auto randomAb = [&rng](size_t maxLen) {
    std::string s;
    const size_t n = rng() % (maxLen + 1);
    for (size_t i = 0; i < n; ++i) s.push_back("ab"[rng() % 2]);
    return s;
  };
  for (int i = 0; i < 3000; ++i) {
    const std::string text = randomAb(12);
    std::string from = randomAb(3);
    if (from.empty()) from = "a";
    const std::string to = randomAb(3);
    std::string expected;
    size_t count = 0;
    size_t pos = 0;
    for (size_t hit; (hit = text.find(from, pos)) != std::string::npos; pos = hit + from.size()) {
      expected += text.substr(pos, hit - pos) + to;
      ++count;
    }
    expected += text.substr(pos);
    SCOPED_TRACE(text + " / " + from + " -> " + to);
    Str s(text);
    EXPECT_EQ(count, s.replaceAll(Str(from), Str(to)));
    EXPECT_EQ(expected, s);
  }
}

TEST(StrReplaceAll, ClassOverwritesMembersInPlace) {
  const struct {
    std::string text;
    const char* members;
    char to;
    std::string expected;
    size_t count;
  } kCases[] = {
      {"a,b;c", ",;", '_', "a_b_c", 2},
      {"", ",", '_', "", 0},
      {"abc", ",", '_', "abc", 0},
      {",,,", ",", ',', ",,,", 3},  // replacing a member by itself still counts
      {"a\xff" "b", "\xff", '?', "a?b", 1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    Str s(c.text);
    EXPECT_EQ(c.count, s.replaceAll(CharacterClass(c.members), c.to));
    EXPECT_EQ(c.expected, s);
  }
  Str nul(std::string("a\0b\0", 4));
  EXPECT_EQ(2u, nul.replaceAll(CharacterClassIncludingNul(""), '.'));
  EXPECT_EQ("a.b.", nul);
}

TEST(StrSubstr, ClipsAndThrowsWithFixedText) {
  const Str s("hello");
  const struct { size_t pos; size_t count; const char* expected; } kCases[] = {
      {0, Str::npos, "hello"}, {1, 3, "ell"}, {2, Str::npos, "llo"}, {3, 100, "lo"},
      {5, Str::npos, ""},  // at the end is allowed
      {0, 0, ""},
  };
  for (const auto& c : kCases) {
    const Str sub = s.substr(c.pos, c.count);
    EXPECT_EQ(std::string(c.expected), sub) << c.pos << "," << c.count;
  }
  EXPECT_EQ("hello", s.substr());
  for (size_t pos : {size_t{6}, size_t{100}, Str::npos}) {
    try {
      (void)s.substr(pos, 1);
      ADD_FAILURE() << "no exception for pos " << pos;
    } catch (const std::out_of_range& e) {
      EXPECT_STREQ("basic_string::substr", e.what()) << pos;
    }
  }
}

TEST(StrTrim, SidesAndClasses) {
  const CharacterClass& def = StrSegment::default_trimchars;
  const CharacterClass& ws = CharacterClass::ALL_WHITESPACES;
  const struct {
    const char* text;
    const CharacterClass* cc;
    const char* left;
    const char* right;
    const char* both;
  } kCases[] = {
      {" \ta b\t ", &def, "a b\t ", " \ta b", "a b"},
      {"\n a \n", &def, "\n a \n", "\n a \n", "\n a \n"},  // line feed is not a default member
      {"\n a \n", &ws, "a \n", "\n a", "a"},
      {" \t ", &def, "", "", ""},
      {"", &def, "", "", ""},
      {"abc", &def, "abc", "abc", "abc"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    Str l(c.text);
    l.leftTrimInPlace(*c.cc);
    EXPECT_EQ(std::string(c.left), l);
    Str r(c.text);
    r.rightTrimInPlace(*c.cc);
    EXPECT_EQ(std::string(c.right), r);
    Str b(c.text);
    b.trimInPlace(*c.cc);
    EXPECT_EQ(std::string(c.both), b);
    EXPECT_EQ(std::string(c.both), Str(c.text).trim(*c.cc));
    EXPECT_EQ(std::string(c.left), Str(c.text).trim(*c.cc, true, false));
    EXPECT_EQ(std::string(c.right), Str(c.text).trim(*c.cc, false, true));
    EXPECT_EQ(std::string(c.text), Str(c.text).trim(*c.cc, false, false));
  }
  Str d(" x\t");
  d.leftTrimInPlace();
  EXPECT_EQ("x\t", d);
  d.rightTrimInPlace();
  EXPECT_EQ("x", d);
}

TEST(StrVectorDedup, KeepsFirstAppearances) {
  typedef std::vector<std::string> V;
  const struct { V in; V out; size_t removed; } kCases[] = {
      {{}, {}, 0},
      {{"a"}, {"a"}, 0},
      {{"a", "a"}, {"a"}, 1},
      {{"a", "b", "a", "c", "b"}, {"a", "b", "c"}, 2},
      {{"b", "a", "b", "a", "b"}, {"b", "a"}, 3},
      {{"", "x", ""}, {"", "x"}, 1},
      {{"a", "A"}, {"a", "A"}, 0},  // case matters
  };
  for (const auto& c : kCases) {
    StrVector v;
    for (const std::string& s : c.in) v.append(s.c_str());
    EXPECT_EQ(c.removed, v.dedup());
    EXPECT_EQ(c.out, V(v.begin(), v.end()));
  }
}

TEST(StrVectorJoin, ContinuesAnExistingList) {
  const struct {
    std::vector<std::string> items;
    const char* prior;
    const char* sep;
    const char* expected;
  } kCases[] = {
      {{}, "", ",", ""},
      {{}, "x", ",", "x"},  // an empty vector leaves out alone
      {{"a", "b"}, "", ",", "a,b"},
      {{"a", "b"}, "x", ",", "x,a,b"},  // a non-empty out gets a separator first
      {{"a"}, "", ", ", "a"},
      {{"a", "b", "c"}, "", ", ", "a, b, c"},
      {{""}, "", ",", ""},
      {{"", ""}, "", ",", ","},
      {{""}, "x", ",", "x,"},
      {{"a", "b"}, "", "", "ab"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.prior) + " + " + std::to_string(c.items.size()) + " items");
    StrVector v;
    StrSegmentVector sv;
    for (const std::string& s : c.items) {
      v.append(StrSegment(s));
      sv.append(StrSegment(s));
    }
    Str out(c.prior);
    v.joinInto(out, c.sep);
    EXPECT_EQ(std::string(c.expected), out);
    Str segOut(c.prior);
    sv.joinInto(segOut, c.sep);
    EXPECT_EQ(std::string(c.expected), segOut);
    if (strlen(c.sep) == 1) {
      Str charOut(c.prior);
      v.joinInto(charOut, c.sep[0]);
      EXPECT_EQ(std::string(c.expected), charOut);
      Str segCharOut(c.prior);
      sv.joinInto(segCharOut, c.sep[0]);
      EXPECT_EQ(std::string(c.expected), segCharOut);
    }
  }
}

TEST(StrVectorJoin, SplitOfJoinGivesTheVectorBack) {
  std::mt19937 rng(33);
  for (int i = 0; i < 1000; ++i) {
    StrVector v;
    const int n = 1 + rng() % 5;
    for (int k = 0; k < n; ++k) v.append(StrSegment(std::string(rng() % 3, "xy"[rng() % 2])));
    Str joined;
    v.joinInto(joined, ',');
    StrVector back;
    joined.splitInto(back, ',');
    if (joined.empty()) {
      EXPECT_TRUE(back.empty());  // one empty element joins to empty text
    } else {
      EXPECT_EQ(v, back) << joined;
    }
  }
}

TEST(StrVectorAppend, AllForms) {
  StrVector v;
  v.append("a");
  v.append(StrSegment("bcd", 2));
  v.append(StrVector{"c", "d"});
  v.append(std::vector<StrSegment>{StrSegment("e"), StrSegment(std::string_view("f\0", 2))});
  EXPECT_EQ((StrVector{"a", "bc", "c", "d", "e", Str(std::string("f\0", 2))}), v);

  const StrVector owners{"p", "q"};
  StrSegmentVector sv;
  sv.append("o");
  sv.append(owners);
  ASSERT_EQ(3u, sv.size());
  EXPECT_EQ(owners[0].data(), sv[1].data());  // views, not copies
  EXPECT_EQ(owners[1].data(), sv[2].data());
  Str joined;
  sv.joinInto(joined, '+');
  EXPECT_EQ("o+p+q", joined);
}

TEST(OptionalStr, SetWithTwoPartsConcatenates) {
  optional_Str o;
  EXPECT_FALSE(o.isSet());
  EXPECT_EQ("", o.get());
  o.set(Str("ab"), Str("cd"));
  EXPECT_TRUE(o.isSet());
  EXPECT_EQ("abcd", o.get());
  o.set(Str(""), Str(""));
  EXPECT_TRUE(o.isSet());  // an empty value is still a set value
  EXPECT_EQ("", o.get());
  o.set(Str(std::string("a\0", 2)), Str("b"));
  EXPECT_EQ(std::string("a\0b", 3), o.get());
  o.reset();
  EXPECT_FALSE(o.isSet());
}

TEST(StrBasics, EmptyStrAndSegmentAppends) {
  EXPECT_TRUE(Str::EMPTY_STR.empty());
  Str s("mid");
  s.prepend(StrSegment("pre-"));
  s.append(StrSegment("-post"));
  EXPECT_EQ("pre-mid-post", s);
  const StrSegment seg = s.segment();
  EXPECT_EQ(s.data(), seg.data());
  EXPECT_EQ(s.size(), seg.size());
}

}  // namespace
