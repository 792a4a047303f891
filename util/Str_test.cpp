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
#include "util/testing/TestText.h"
#include "util/testing/ThrownText.h"

namespace {

std::string cFormat(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string cFormat(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char buf[512];
  vsnprintf(buf, sizeof buf, fmt, args);
  va_end(args);
  return buf;
}

// Calls vformat (replace) or appendVformat (append) with the arguments given.
Str& callVformat(bool append, Str& s, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
Str& callVformat(bool append, Str& s, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  Str& r = append ? s.appendVformat(fmt, args) : s.vformat(fmt, args);
  va_end(args);
  return r;
}

TEST(StrFormat, MatchesSnprintfAcrossTheStackBufferSize) {
  // Lengths around 256 exercise the first retry; the arguments must be read
  // afresh on it.
  for (size_t len = 0; len < 700; ++len) {
    const std::string filler(len, 'x');
    const std::string expected = filler + "|-42|tail";
    SCOPED_TRACE(len);
    Str s("old contents");
    EXPECT_EQ(&s, &s.format("%s|%d|%s", filler.c_str(), -42, "tail"));
    EXPECT_EQ(expected, s);
    s = "old";
    EXPECT_EQ(&s, &callVformat(false, s, "%s|%d|%s", filler.c_str(), -42, "tail"));
    EXPECT_EQ(expected, s);
    Str a(std::string("p\0:", 3));  // appending keeps earlier bytes, NUL bytes included
    EXPECT_EQ(&a, &a.appendFormat("%s|%d|%s", filler.c_str(), -42, "tail"));
    EXPECT_EQ(std::string("p\0:", 3) + expected, a);
    EXPECT_EQ(&a, &callVformat(true, a, "%s|%d|%s", filler.c_str(), -42, "tail"));
    EXPECT_EQ(std::string("p\0:", 3) + expected + expected, a);
  }
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
  auto check = [](double d, long long ll, unsigned long long ull) {
    Str s("v=");
    EXPECT_EQ(&s, &s.append_double(d));
    EXPECT_EQ(&s, &s.append_longlong(ll));
    EXPECT_EQ(&s, &s.append_unsignedlonglong(ull));
    EXPECT_EQ(cFormat("v=%lf%lld%llu", d, ll, ull), s);
  };
  const struct { double d; long long ll; unsigned long long ull; } kEdges[] = {
      {-0.0, LLONG_MIN, ULLONG_MAX}, {1e300, LLONG_MAX, 0}, {-DBL_MAX, -1, 1},
      {DBL_MIN, 0, 10000000000000000000ull}, {INFINITY, 1, 0}, {-INFINITY, 1, 0}};
  for (const auto& e : kEdges) check(e.d, e.ll, e.ull);
  std::mt19937_64 rng(31);
  for (int i = 0; i < 1000; ++i) {
    const unsigned long long bits = rng();
    const int exponent = static_cast<int>(rng() % 200) - 100;
    const double d = std::ldexp(static_cast<double>(bits >> 11), exponent);
    check(d, static_cast<long long>(bits), bits);
  }
}

TEST(StrOperatorPlus, Concatenates) {
  const struct { std::string a, b; } kCases[] = {
      {"", ""}, {"a", ""}, {"", "b"}, {std::string(300, 'x'), "def"},
      {std::string("a\0", 2), std::string("\0b", 2)},  // byte ranges keep NUL bytes
  };
  for (const auto& c : kCases) {
    const std::string expected = c.a + c.b;
    EXPECT_EQ(expected, Str::operator_plus(c.a.data(), c.a.size(), c.b.data(), c.b.size()));
    EXPECT_EQ(expected, Str::operator_plus(StrSegment(c.a), StrSegment(c.b)));
    if (c.a.find('\0') == std::string::npos) {
      EXPECT_EQ(expected, Str::operator_plus(c.a.c_str(), c.b.c_str()));
    }
  }
  EXPECT_EQ("abde", Str::operator_plus("abc", 2, "def", 2));  // only the given lengths
}

TEST(StrReplaceAll, ReplacesLeftToRightWithoutRescanning) {
  const struct { std::string text, from, to, expected; size_t count; } kCases[] = {
      {"aaa", "a", "aa", "aaaaaa", 3},  // the inserted "a"s are not searched again
      {"aaa", "aa", "x", "xa", 1},      // overlapping matches are not counted
      {"abc", "", "x", "abc", 0},       // an empty pattern replaces nothing
      {"abcabc", "bc", "", "aa", 2},
      {"aXbXc", "X", "long replacement", "along replacementblong replacementc", 2},
      {std::string("a\0b", 3), std::string("\0", 1), "-", "a-b", 1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.text + " / " + c.from + " -> " + c.to));
    Str s(c.text);
    EXPECT_EQ(c.count, s.replaceAll(Str(c.from), Str(c.to)));
    EXPECT_EQ(c.expected, s);
  }
  // Random texts against a left-to-right reference.
  std::mt19937 rng(32);
  for (int i = 0; i < 3000; ++i) {
    const std::string text = randomText(rng, "ab", 12);
    const std::string from = randomText(rng, "ab", 3, 1);
    const std::string to = randomText(rng, "ab", 3);
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
  const struct { std::string text; CharacterClass cc; char to; std::string expected; size_t count; }
      kCases[] = {
      {",,,", CharacterClass(","), ',', ",,,", 3},  // replacing a member by itself still counts
      {"a,b;c", CharacterClass(",;"), '_', "a_b_c", 2}, {"abc", CharacterClass(","), '_', "abc", 0},
      {"a\xff" "b", CharacterClass("\xff"), '?', "a?b", 1},
      {std::string("a\0b\0", 4), CharacterClassIncludingNul(""), '.', "a.b.", 2},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.text));
    Str s(c.text);
    EXPECT_EQ(c.count, s.replaceAll(c.cc, c.to));
    EXPECT_EQ(c.expected, s);
  }
}

TEST(StrSubstr, ClipsAndThrowsWithFixedText) {
  const Str s("hello");
  const struct { size_t pos, count; const char* expected; } kCases[] = {
      {0, Str::npos, "hello"}, {1, 3, "ell"}, {3, 100, "lo"}, {0, 0, ""},
      {5, Str::npos, ""},  // at the end is allowed
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(std::string(c.expected), s.substr(c.pos, c.count)) << c.pos << "," << c.count;
  }
  EXPECT_EQ("hello", s.substr());
  for (size_t pos : {size_t{6}, Str::npos}) {
    EXPECT_EQ("basic_string::substr",
              thrownText<std::out_of_range>([&] { (void)s.substr(pos, 1); }))
        << pos;
  }
}

TEST(StrVectorDedup, KeepsFirstAppearances) {
  typedef std::vector<std::string> V;
  const struct { V in; V out; size_t removed; } kCases[] = {
      {{}, {}, 0}, {{"a"}, {"a"}, 0}, {{"a", "a"}, {"a"}, 1}, {{"", "x", ""}, {"", "x"}, 1},
      {{"a", "b", "a", "c", "b"}, {"a", "b", "c"}, 2}, {{"b", "a", "b", "a", "b"}, {"b", "a"}, 3},
      {{"a", "A"}, {"a", "A"}, 0},  // case matters
  };
  for (const auto& c : kCases) {
    StrVector v(c.in.begin(), c.in.end());
    EXPECT_EQ(c.removed, v.dedup());
    EXPECT_EQ(c.out, V(v.begin(), v.end()));
  }
}

TEST(StrVectorJoin, ContinuesAnExistingList) {
  const struct { std::vector<std::string> items; const char *prior, *sep, *expected; } kCases[] = {
      {{}, "x", ",", "x"},  // an empty vector leaves out alone
      {{"a", "b"}, "x", ",", "x,a,b"},  // a non-empty out gets a separator first
      {{"a", "b"}, "", ",", "a,b"}, {{"a", "b", "c"}, "", ", ", "a, b, c"}, {{""}, "", ",", ""},
      {{"", ""}, "", ",", ","}, {{""}, "x", ",", "x,"}, {{"a", "b"}, "", "", "ab"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.prior) + " + " + std::to_string(c.items.size()) + " items");
    const StrVector v(c.items.begin(), c.items.end());
    StrSegmentVector sv;
    sv.append(v);
    for (int form = 0; form < (strlen(c.sep) == 1 ? 4 : 2); ++form) {
      Str out(c.prior);
      if (form == 0) v.joinInto(out, c.sep);
      if (form == 1) sv.joinInto(out, c.sep);
      if (form == 2) v.joinInto(out, c.sep[0]);
      if (form == 3) sv.joinInto(out, c.sep[0]);
      EXPECT_EQ(std::string(c.expected), out) << form;
    }
  }
}

TEST(StrVectorJoin, SplitOfJoinGivesTheVectorBack) {
  std::mt19937 rng(33);
  for (int i = 0; i < 1000; ++i) {
    StrVector v;
    for (int k = 1 + rng() % 5; k > 0; --k) v.append(StrSegment(randomText(rng, "xy", 2)));
    Str joined;
    v.joinInto(joined, ',');
    StrVector back;
    joined.splitInto(back, ',');
    // One empty element joins to empty text, which splits to nothing.
    EXPECT_TRUE(joined.empty() ? back.empty() : v == back) << joined;
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
}

TEST(StrBasics, EmptyStrSegmentEditsAndOptionalStr) {
  EXPECT_TRUE(Str::EMPTY_STR.empty());
  Str s("mid");
  s.prepend(StrSegment("pre-"));
  s.append(StrSegment("-post"));
  EXPECT_EQ("pre-mid-post", s);
  EXPECT_EQ(s.data(), s.segment().data());
  EXPECT_EQ(s.size(), s.segment().size());

  optional_Str o;
  EXPECT_FALSE(o.isSet());
  o.set(Str(std::string("a\0", 2)), Str("b"));
  EXPECT_TRUE(o.isSet());
  EXPECT_EQ(std::string("a\0b", 3), o.get());
  o.set(Str(""), Str(""));
  EXPECT_TRUE(o.isSet());  // an empty value is still a set value
  EXPECT_EQ("", o.get());
  o.reset();
  EXPECT_FALSE(o.isSet());
}

}  // namespace
