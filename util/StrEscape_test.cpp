// The escaping schemes of Str: search terms, list elements, CSV fields, log
// lines and URIs, each with its own rules.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/CharacterClass.h"
#include "util/Str.h"
#include "util/StrVector.h"
#include "util/testing/TestText.h"

namespace {

// ---- Search terms ----

TEST(StrSearchTerm, AsEscapedSearchTerm) {
  const struct { std::string text; bool force; std::string expected; } kCases[] = {
      {"", false, "\"\""}, {"", true, "\"\""}, {"abc_1", false, "abc_1"},
      {"abc_1", true, "\"abc_1\""}, {"a b", false, "\"a b\""}, {"\"", true, "\"\\\"\""},
      {"a\"b\\", false, "\"a\\\"b\\\\\""}, {"\xc3\xa9", false, "\"\xc3\xa9\""},
      {"a-b", false, "\"a-b\""},  // a dash is outside letters, digits and underscore
      {std::string("a\0", 2), false, std::string("\"a\0\"", 4)},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.text) + (c.force ? " forced" : ""));
    EXPECT_EQ(c.expected, Str(c.text).asEscapedSearchTerm(c.force));
  }
  EXPECT_EQ("x", Str("x").asEscapedSearchTerm());
}

TEST(StrSearchTerm, UnescapeSearchTerm) {
  const struct { const char* text; const char* expected; } kCases[] = {
      {"abc", "abc"},                 // not quoted: untouched
      {"a\\\"b", "a\\\"b"},           // backslashes outside quotes stay
      {"\"", "\""},                   // a lone quote is not stripped
      {"\"a\\nb\"", "a\\nb"},         // other escapes stay as written
      {"\"ab\\\"", "ab\\"},           // a backslash at the very end stays
      {"\"a\\\\b", "\"a\\b"},         // no closing quote, but the backslashes are scanned
      {"\"\"", ""}, {"\"a\\\"b\"", "a\"b"}, {"\"a\\\\\\\"b\"", "a\\\"b"}, {"\"\\\\\\\\\"", "\\\\"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    Str s(c.text);
    s.unescapeSearchTerm();
    EXPECT_EQ(std::string(c.expected), s);
  }
}

TEST(StrSearchTerm, EscapeThenUnescapeRoundTrips) {
  std::mt19937 rng(21);
  for (int i = 0; i < 3000; ++i) {
    const std::string text = randomText(rng, "ab_1 \"\\\xc3\xa9\n", 10);
    for (bool force : {false, true}) {
      SCOPED_TRACE(printable(text) + (force ? " forced" : ""));
      Str escaped = Str(text).asEscapedSearchTerm(force);
      escaped.unescapeSearchTerm();
      EXPECT_EQ(text, escaped);
    }
  }
}

TEST(StrQuotes, StripQuotesAndAsEscaped) {
  const struct { const char* text; char q; const char* expected; } kCases[] = {
      {"\"", '"', "\""},      // one byte is both first and last; it stays
      {"\"\"\"", '"', "\""},  // only one pair goes
      {"\"a\"", '"', "a"}, {"\"\"", '"', ""}, {"", '"', ""}, {"'a'", '\'', "a"},
      {"'a'", '"', "'a'"}, {"\"a'", '"', "\"a'"}, {"a\"", '"', "a\""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.text) + " q=" + c.q);
    Str s(c.text);
    s.stripQuotes(c.q);
    EXPECT_EQ(std::string(c.expected), s);
  }
  Str d("\"d\"");
  d.stripQuotes();
  EXPECT_EQ("d", d);
  EXPECT_EQ("a\\\"b\\\\c", Str("a\"b\\c").asEscaped(CharacterClass::SEARCH_ESC, '\\'));
  EXPECT_EQ("a^,b^ c", Str("a,b c").asEscaped(CharacterClass::COMMA_OR_SPACE, '^'));
  EXPECT_EQ("", Str("").asEscaped(CharacterClass::COMMA_OR_SPACE, '^'));
}

// ---- List encoding ----

TEST(StrList, EncodeListElement) {
  const struct { std::string prior, element; char sep; std::string expected; } kCases[] = {
      {"", "a;b\n\r\\", ';', "a\\;b\\n\\r\\\\;"},
      {"", "", ';', ";"},  // terminated, so an empty element still shows
      {"pre", "x,\t", ';', "prex,\t;"},
      {"", "a\nb", '\0', "a\\nb"},  // a NUL separator is never written
      {"", std::string("a\0b", 3), '\0', std::string("a\\\0b", 4)},
      {"", "\xff", '\xff', "\\\xff\xff"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.element));
    Str s(c.prior);
    s.encodeListElement(Str(c.element), c.sep);
    EXPECT_EQ(c.expected, s) << printable(s);
  }
  // The vector and map forms replace the text.
  Str s("junk");
  s.encodeStrVec(StrVector{"a", "", "b"}, ';');
  EXPECT_EQ("a;;b;", s);
  s.encodeStrVec(StrVector{}, ';');
  EXPECT_EQ("", s);
  s = "junk";
  s.encodeStrMap(std::map<Str, Str>{{"b", "2"}, {"a", "1;x"}}, ';');  // in key order
  EXPECT_EQ("a;1\\;x;b;2;", s);
}

TEST(StrList, DecodeStrVec) {
  const struct { std::string text; char sep; std::vector<std::string> expected; } kCases[] = {
      {"a;b", ';', {"a"}},  // text after the last separator is dropped
      {"\\x\\\\;", ';', {"x\\"}},  // any other escaped byte stands for itself
      {"a\\;", ';', {}},  // the only separator is escaped
      {"", ';', {}}, {";;", ';', {"", ""}}, {"a;;b;", ';', {"a", "", "b"}},
      {"a\\;b;", ';', {"a;b"}}, {"a\\nb\\r;", ';', {"a\nb\r"}}, {"a\\", ';', {}},
      {"a;b,", ',', {"a;b"}}, {std::string("a\0b\0", 4), '\0', {"a", "b"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.text));
    StrVector target{"stale"};
    EXPECT_EQ(c.expected.size(), Str(c.text).decodeStrVec(target, c.sep));
    EXPECT_EQ(c.expected, std::vector<std::string>(target.begin(), target.end()));
  }
}

TEST(StrList, DecodeStrMap) {
  const struct { const char* text; bool ok; std::map<std::string, std::string> expected; }
      kCases[] = {
          {"k;", false, {}},  // odd count: nothing kept
          {"k;1;k;2;", true, {{"k", "2"}}},  // the later duplicate wins
          {"", true, {}}, {"a;b;c", true, {{"a", "b"}}},
          {"b;1;a;2;", true, {{"a", "2"}, {"b", "1"}}},
      };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    std::map<Str, Str> m{{"stale", "value"}};
    EXPECT_EQ(c.ok, Str(c.text).decodeStrMap(m, ';'));
    EXPECT_EQ(c.expected, (std::map<std::string, std::string>(m.begin(), m.end())));
  }
}

TEST(StrList, VectorsAndMapsRoundTrip) {
  std::mt19937 rng(22);
  // 'n' and 'r' would collide with the escapes and a backslash with the
  // escape itself, so those are never separators.
  const char kSeps[] = {';', ',', '|', '\x01', '\xff', '\t'};
  const std::string_view alphabet("a\n\r\\;,|\x01\xffnr\t\0", 13);
  for (int i = 0; i < 3000; ++i) {
    StrVector v;
    std::map<Str, Str> m;
    for (int k = rng() % 6; k > 0; --k) {
      v.push_back(Str(randomText(rng, alphabet, 5)));
      m[Str(randomText(rng, alphabet, 4))] = Str(randomText(rng, alphabet, 4));
    }
    const char sep = kSeps[rng() % sizeof kSeps];
    Str encoded;
    encoded.encodeStrVec(v, sep);
    SCOPED_TRACE(printable(encoded));
    StrVector back{"stale"};
    EXPECT_EQ(v.size(), encoded.decodeStrVec(back, sep));
    EXPECT_EQ(v, back);
    encoded.encodeStrMap(m, sep);
    std::map<Str, Str> mapBack{{"stale", "value"}};
    EXPECT_TRUE(encoded.decodeStrMap(mapBack, sep)) << printable(encoded);
    EXPECT_EQ(m, mapBack);
  }
}

// ---- CSV ----

TEST(StrCsv, AppendAsCsv) {
  const struct { const char* prior; const char* field; const char* expected; } kCases[] = {
      {"x,", "a b\t", "x,a b\t"},  // blanks and tabs need no quotes
      {"", "", ""}, {"", "a,b", "\"a,b\""}, {"", "a\rb", "\"a\rb\""}, {"", "a\nb", "\"a\nb\""},
      {"", "a\"b", "\"a\"\"b\""}, {"", "\"", "\"\"\"\""}, {"x,", "y,z", "x,\"y,z\""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.field);
    Str s(c.prior);
    s.appendAsCSV(StrSegment(c.field));
    EXPECT_EQ(std::string(c.expected), s);
  }
}

// ---- Log lines ----

std::string safeForLoggingOracle(unsigned char b) {
  char buf[8];
  snprintf(buf, sizeof buf, b >= 0x20 && b <= 0x7e ? "%c" : "\\x%02X", b);
  return b == '\n' ? "\\n" : b == '\r' ? "\\r" : b == '\t' ? " " : buf;
}

// The buffer of text that needs nothing is left alone, not copied.
void expectSameBuffer(const std::string& text, void (Str::*op)()) {
  Str s(text);
  const char* data = s.data();
  (s.*op)();
  EXPECT_EQ(text, s);
  EXPECT_EQ(data, s.data());
}

TEST(StrLogging, EveryByteValue) {
  // Each byte after safe ones, which must be copied first, then all bytes.
  std::string all;
  std::string expectedAll;
  for (int b = 0; b < 256; ++b) {
    Str framed("ab" + std::string(1, static_cast<char>(b)) + "cd");
    framed.makeSafeForLogging();
    EXPECT_EQ("ab" + safeForLoggingOracle(b) + "cd", framed) << b;
    all.push_back(static_cast<char>(b));
    expectedAll += safeForLoggingOracle(b);
  }
  Str s(all);
  s.makeSafeForLogging();
  EXPECT_EQ(expectedAll, s);
  Str example("a\tb\n\xc3\xa9");  // UTF-8 is escaped byte by byte
  example.makeSafeForLogging();
  EXPECT_EQ("a b\\n\\xC3\\xA9", example);
  expectSameBuffer(all.substr(0x20, 0x7f - 0x20), &Str::makeSafeForLogging);
}

// ---- URIs ----

const char UNRESERVED[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~";
bool isUnreserved(unsigned char b) { return b != 0 && strchr(UNRESERVED, b); }

TEST(StrUri, EncodesEveryByteValue) {
  std::string all;
  std::string expectedAll;
  for (int b = 0; b < 256; ++b) {
    const Str one(1, static_cast<char>(b));
    char expected[4] = {static_cast<char>(b), '\0'};
    if (!isUnreserved(b)) snprintf(expected, sizeof expected, "%%%02X", b);  // a blank is %20
    SCOPED_TRACE(b);
    Str inPlace(one);
    inPlace.uriEncode();
    EXPECT_EQ(expected, inPlace);
    EXPECT_EQ(expected, one.asUriEncoded());
    Str out("pre");
    one.appendUriEncodedTo(out);
    EXPECT_EQ(std::string("pre") + expected, out);
    all.push_back(static_cast<char>(b));
    expectedAll += expected;
  }
  EXPECT_EQ(expectedAll, Str(all).asUriEncoded());
  expectSameBuffer(UNRESERVED, &Str::uriEncode);
}

TEST(StrUri, DecodeExamples) {
  const std::string pad(20, 'x');  // puts the text on the heap, so that a copy would show
  const struct { std::string text; bool valid; std::string expected; } kCases[] = {
      {"%zz", true, "%zz"},   // not two hex digits: literal
      {"%FF", false, "%FF"},  // decodes to invalid UTF-8: left encoded
      {"%2B", true, "+"},     // a decoded plus is not a blank
      {"\xc3%A9", true, "\xc3\xa9"},  // validity is judged on the decoded text
      {"a+b%20c", true, "a b c"}, {"%c3%A9", true, "\xc3\xa9"}, {"%g1%1g%4", true, "%g1%1g%4"},
      {"%%41", true, "%A"}, {"%00", true, std::string("\0", 1)},
      // No "%" or "+": only validated, and the text is left alone.
      {"plain" + pad, true, "plain" + pad}, {"\xc3\xa9" + pad, true, "\xc3\xa9" + pad},
      {"\xff" + pad, false, "\xff" + pad}, {"a\xc3(" + pad, false, "a\xc3(" + pad},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.text));
    Str s(c.text);
    const char* data = s.data();
    EXPECT_EQ(c.valid, s.uriDecode());
    EXPECT_EQ(c.expected, s) << printable(s);
    const bool decoded = c.valid && c.text.find_first_of("%+") != std::string::npos;
    EXPECT_TRUE(decoded || data == s.data());
  }
}

// Independent decoder for ASCII-only results, where validity is certain.
std::string decodeOracle(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    const bool hex = s[i] == '%' && i + 2 < s.size() &&
                     isxdigit(static_cast<unsigned char>(s[i + 1])) &&
                     isxdigit(static_cast<unsigned char>(s[i + 2]));
    out.push_back(hex ? static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16))
                      : s[i] == '+' ? ' ' : s[i]);
    i += hex ? 2 : 0;
  }
  return out;
}

TEST(StrUri, DecodeMatchesIndependentDecoderOnAscii) {
  std::mt19937 rng(24);
  int checked = 0;
  for (int i = 0; i < 5000; ++i) {
    const std::string text = randomText(rng, "%%%+a07Fz4fg ", 10);
    const std::string expected = decodeOracle(text);
    // Only an ASCII result is certainly valid UTF-8.
    if (std::any_of(expected.begin(), expected.end(), [](char ch) { return ch & 0x80; })) continue;
    ++checked;
    Str s(text);
    EXPECT_TRUE(s.uriDecode()) << text;
    EXPECT_EQ(expected, s) << text;
  }
  EXPECT_GT(checked, 2500);
}

TEST(StrUri, EncodeThenDecodeRoundTripsValidUtf8) {
  std::mt19937 rng(25);
  const uint32_t kRanges[][2] = {{0, 0x7F}, {0x80, 0x7FF}, {0x800, 0xD7FF}, {0xE000, 0xFFFF},
                                 {0x10000, 0x10FFFF}};
  for (int i = 0; i < 3000; ++i) {
    std::string text;
    for (int k = rng() % 8; k > 0; --k) {
      const auto& r = kRanges[rng() % 5];
      text += encodeUtf8(r[0] + rng() % (r[1] - r[0] + 1));
    }
    SCOPED_TRACE(printable(text));
    Str encoded = Str(text).asUriEncoded();
    for (unsigned char ch : encoded) EXPECT_TRUE(ch == '%' || isUnreserved(ch)) << int{ch};
    EXPECT_TRUE(encoded.uriDecode());
    EXPECT_EQ(text, encoded);
  }
}

}  // namespace
