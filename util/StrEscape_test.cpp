// The escaping schemes of Str: search terms, list elements, CSV fields, log
// lines and URIs, each with its own rules.
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

namespace {

std::string printable(const std::string& s) {
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

std::string randomFrom(std::mt19937& rng, const std::string& alphabet, size_t maxLen) {
  const size_t n = rng() % (maxLen + 1);
  std::string s;
  for (size_t i = 0; i < n; ++i) s.push_back(alphabet[rng() % alphabet.size()]);
  return s;
}

// ---- Search terms ----

TEST(StrSearchTerm, AsEscapedSearchTerm) {
  const struct { std::string text; bool force; std::string expected; } kCases[] = {
      {"", false, "\"\""},
      {"", true, "\"\""},
      {"abc_1", false, "abc_1"},
      {"abc_1", true, "\"abc_1\""},
      {"a b", false, "\"a b\""},
      {"a\"b", false, "\"a\\\"b\""},
      {"a\\b", false, "\"a\\\\b\""},
      {"\"", true, "\"\\\"\""},
      {"a-b", false, "\"a-b\""},  // a dash is outside letters, digits and underscore
      {"a.b", false, "\"a.b\""},
      {"\xc3\xa9", false, "\"\xc3\xa9\""},
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
      {"\"abc\"", "abc"},
      {"\"\"", ""},
      {"\"", "\""},                   // a lone quote is not stripped
      {"\"a\\\"b\"", "a\"b"},
      {"\"a\\\\b\"", "a\\b"},
      {"\"a\\\\\\\"b\"", "a\\\"b"},
      {"\"a\\nb\"", "a\\nb"},         // other escapes stay as written
      {"\"ab\\\"", "ab\\"},           // a backslash at the very end stays
      {"\"abc", "\"abc"},             // no closing quote: nothing to strip
      {"\"a\\\\b", "\"a\\b"},         // ... but the backslashes are still scanned
      {"\"\\\\\\\\\"", "\\\\"},
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
  const std::string alphabet = "ab_1 \"\\\xc3\xa9\n";
  for (int i = 0; i < 3000; ++i) {
    const std::string text = randomFrom(rng, alphabet, 10);
    for (bool force : {false, true}) {
      SCOPED_TRACE(printable(text) + (force ? " forced" : ""));
      Str escaped = Str(text).asEscapedSearchTerm(force);
      escaped.unescapeSearchTerm();
      EXPECT_EQ(text, escaped);
    }
  }
}

TEST(StrQuotes, StripQuotes) {
  const struct { const char* text; char q; const char* expected; } kCases[] = {
      {"\"a\"", '"', "a"},
      {"\"\"", '"', ""},
      {"\"", '"', "\""},  // one byte is both first and last; it stays
      {"", '"', ""},
      {"'a'", '\'', "a"},
      {"'a'", '"', "'a'"},
      {"\"a'", '"', "\"a'"},
      {"a\"", '"', "a\""},
      {"\"a", '"', "\"a"},
      {"\"\"\"", '"', "\""},  // only one pair goes
      {"xax", 'x', "a"},
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
}

TEST(StrEscaped, PutsEscapeBeforeEachMember) {
  const struct {
    const char* text;
    const CharacterClass* cc;
    char esc;
    const char* expected;
  } kCases[] = {
      {"a\"b\\c", &CharacterClass::SEARCH_ESC, '\\', "a\\\"b\\\\c"},
      {"", &CharacterClass::SEARCH_ESC, '\\', ""},
      {"abc", &CharacterClass::SEARCH_ESC, '\\', "abc"},
      {"a,b c", &CharacterClass::COMMA_OR_SPACE, '^', "a^,b^ c"},
      {"12", &CharacterClass::DIGITS, '%', "%1%2"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    const Str original(c.text);
    EXPECT_EQ(std::string(c.expected), original.asEscaped(*c.cc, c.esc));
    EXPECT_EQ(std::string(c.text), original);
  }
}

// ---- List encoding ----

TEST(StrList, EncodeListElement) {
  const struct {
    std::string prior;
    std::string element;
    char sep;
    std::string expected;
  } kCases[] = {
      {"", "a;b\n\r\\", ';', "a\\;b\\n\\r\\\\;"},
      {"", "", ';', ";"},  // terminated, so an empty element still shows
      {"pre", "x", ';', "prex;"},
      {"", "a,b", ';', "a,b;"},
      {"", "a\nb", '\0', "a\\nb"},  // a NUL separator is never written
      {"", "", '\0', ""},
      {"", std::string("a\0b", 3), '\0', std::string("a\\\0b", 4)},
      {"", "\xff", '\xff', "\\\xff\xff"},
      {"", "\t", ',', "\t,"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.element));
    Str s(c.prior);
    s.encodeListElement(Str(c.element), c.sep);
    EXPECT_EQ(c.expected, s) << printable(s);
  }
}

TEST(StrList, EncodeStrVecClearsFirst) {
  Str s("junk");
  s.encodeStrVec(StrVector{"a", "", "b"}, ';');
  EXPECT_EQ("a;;b;", s);
  s.encodeStrVec(StrVector{}, ';');
  EXPECT_EQ("", s);
}

TEST(StrList, DecodeStrVec) {
  const struct { std::string text; char sep; std::vector<std::string> expected; } kCases[] = {
      {"a;b", ';', {"a"}},  // text after the last separator is dropped
      {"", ';', {}},
      {";", ';', {""}},
      {";;", ';', {"", ""}},
      {"a;;b;", ';', {"a", "", "b"}},
      {"a\\;b;", ';', {"a;b"}},
      {"a\\nb\\r;", ';', {"a\nb\r"}},
      {"\\x\\\\;", ';', {"x\\"}},  // any other escaped byte stands for itself
      {"a\\", ';', {}},
      {"a\\;", ';', {}},  // the only separator is escaped
      {"\\n;tail", ';', {"\n"}},
      {"a\nb;", ';', {"a\nb"}},
      {"a;b,", ',', {"a;b"}},
      {std::string("a\0b\0", 4), '\0', {"a", "b"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.text));
    StrVector target{"stale"};
    EXPECT_EQ(c.expected.size(), Str(c.text).decodeStrVec(target, c.sep));
    EXPECT_EQ(c.expected, std::vector<std::string>(target.begin(), target.end()));
  }
}

TEST(StrList, VectorsRoundTrip) {
  std::mt19937 rng(22);
  // 'n' and 'r' would collide with the escapes and a backslash with the
  // escape itself, so those are never separators.
  const char kSeps[] = {';', ',', '|', '\x01', '\xff', '\t'};
  const std::string alphabet = std::string("a\n\r\\;,|\x01\xffnr\t", 12) + std::string(1, '\0');
  for (int i = 0; i < 3000; ++i) {
    StrVector v;
    const int n = rng() % 6;
    for (int k = 0; k < n; ++k) v.push_back(Str(randomFrom(rng, alphabet, 5)));
    const char sep = kSeps[rng() % sizeof kSeps];
    Str encoded;
    encoded.encodeStrVec(v, sep);
    SCOPED_TRACE(printable(encoded));
    StrVector back{"stale"};
    EXPECT_EQ(v.size(), encoded.decodeStrVec(back, sep));
    EXPECT_EQ(v, back);
  }
}

TEST(StrList, EncodeStrMapInKeyOrder) {
  Str s("junk");
  s.encodeStrMap(std::map<Str, Str>{{"b", "2"}, {"a", "1;x"}}, ';');
  EXPECT_EQ("a;1\\;x;b;2;", s);
}

TEST(StrList, DecodeStrMap) {
  const struct {
    const char* text;
    bool ok;
    std::map<std::string, std::string> expected;
  } kCases[] = {
      {"k;", false, {}},  // odd count: nothing kept
      {"a;b;c;", false, {}},
      {"", true, {}},
      {"k;v;", true, {{"k", "v"}}},
      {"k;1;k;2;", true, {{"k", "2"}}},  // the later duplicate wins
      {"a;b;c", true, {{"a", "b"}}},
      {";;", true, {{"", ""}}},
      {"b;1;a;2;", true, {{"a", "2"}, {"b", "1"}}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    std::map<Str, Str> m{{"stale", "value"}};
    EXPECT_EQ(c.ok, Str(c.text).decodeStrMap(m, ';'));
    EXPECT_EQ(c.expected, (std::map<std::string, std::string>(m.begin(), m.end())));
  }
}

TEST(StrList, MapsRoundTrip) {
  std::mt19937 rng(23);
  const std::string alphabet = "ab\n\r\\;,";
  for (int i = 0; i < 2000; ++i) {
    std::map<Str, Str> m;
    const int n = rng() % 5;
    for (int k = 0; k < n; ++k) {
      m[Str(randomFrom(rng, alphabet, 4))] = Str(randomFrom(rng, alphabet, 4));
    }
    for (char sep : {';', ','}) {
      Str encoded;
      encoded.encodeStrMap(m, sep);
      SCOPED_TRACE(printable(encoded));
      std::map<Str, Str> back{{"stale", "value"}};
      EXPECT_TRUE(encoded.decodeStrMap(back, sep));
      EXPECT_EQ(m, back);
    }
  }
}

// ---- CSV ----

TEST(StrCsv, AppendAsCsv) {
  const struct { const char* prior; const char* field; const char* expected; } kCases[] = {
      {"", "abc", "abc"},
      {"", "", ""},
      {"", "a b\t", "a b\t"},  // blanks and tabs need no quotes
      {"", "a,b", "\"a,b\""},
      {"", "a\rb", "\"a\rb\""},
      {"", "a\nb", "\"a\nb\""},
      {"", "a\"b", "\"a\"\"b\""},
      {"", "\"", "\"\"\"\""},
      {"x,", "y", "x,y"},
      {"x,", "y,z", "x,\"y,z\""},
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
  if (b >= 0x20 && b <= 0x7e) return std::string(1, static_cast<char>(b));
  if (b == '\n') return "\\n";
  if (b == '\r') return "\\r";
  if (b == '\t') return " ";
  char buf[8];
  snprintf(buf, sizeof buf, "\\x%02X", b);
  return buf;
}

TEST(StrLogging, EveryByteValue) {
  std::string all;
  std::string expectedAll;
  for (int b = 0; b < 256; ++b) {
    Str s(1, static_cast<char>(b));
    s.makeSafeForLogging();
    EXPECT_EQ(safeForLoggingOracle(b), s) << b;
    all.push_back(static_cast<char>(b));
    expectedAll += safeForLoggingOracle(b);
    Str framed("ab" + std::string(1, static_cast<char>(b)) + "cd");
    framed.makeSafeForLogging();
    EXPECT_EQ("ab" + safeForLoggingOracle(b) + "cd", framed) << b;
  }
  Str s(all);
  s.makeSafeForLogging();
  EXPECT_EQ(expectedAll, s);
}

TEST(StrLogging, Examples) {
  const struct { std::string text; std::string expected; } kCases[] = {
      {"a\tb\nc", "a b\\nc"},
      {"\xc3\xa9", "\\xC3\\xA9"},  // UTF-8 is escaped byte by byte
      {"back\\slash", "back\\slash"},
      {"\r\n", "\\r\\n"},
      {std::string("\0", 1), "\\x00"},
      {"\x7f", "\\x7F"},
      {"", ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.text));
    Str s(c.text);
    s.makeSafeForLogging();
    EXPECT_EQ(c.expected, s);
  }
}

TEST(StrLogging, SafeTextKeepsItsBuffer) {
  std::string printableAscii;
  for (int b = 0x20; b <= 0x7e; ++b) printableAscii.push_back(static_cast<char>(b));
  Str s(printableAscii);
  const char* before = s.data();
  const size_t capacity = s.capacity();
  s.makeSafeForLogging();
  EXPECT_EQ(printableAscii, s);
  EXPECT_EQ(before, s.data());
  EXPECT_EQ(capacity, s.capacity());
}

// ---- URIs ----

bool isUnreserved(unsigned char b) {
  return strchr("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~", b) &&
         b != 0;
}

std::string uriOracle(unsigned char b) {
  if (isUnreserved(b)) return std::string(1, static_cast<char>(b));
  char buf[8];
  snprintf(buf, sizeof buf, "%%%02X", b);
  return buf;
}

TEST(StrUri, EncodesEveryByteValue) {
  std::string all;
  std::string expectedAll;
  for (int b = 0; b < 256; ++b) {
    const Str one(1, static_cast<char>(b));
    const std::string expected = uriOracle(b);
    SCOPED_TRACE(b);
    Str inPlace(one);
    inPlace.uriEncode();
    EXPECT_EQ(expected, inPlace);
    EXPECT_EQ(expected, one.asUriEncoded());
    Str out("pre");
    one.appendUriEncodedTo(out);
    EXPECT_EQ("pre" + expected, out);
    all.push_back(static_cast<char>(b));
    expectedAll += expected;
  }
  EXPECT_EQ(expectedAll, Str(all).asUriEncoded());
  EXPECT_EQ("a%20b", Str("a b").asUriEncoded());  // never a plus sign
  EXPECT_EQ("%2B", Str("+").asUriEncoded());
}

TEST(StrUri, EncodeLeavesUnreservedTextAndItsBuffer) {
  Str s("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~");
  const std::string copy = s;
  const char* before = s.data();
  s.uriEncode();
  EXPECT_EQ(copy, s);
  EXPECT_EQ(before, s.data());
  const Str original("a/b");
  EXPECT_EQ("a%2Fb", original.asUriEncoded());
  EXPECT_EQ("a/b", original);
}

TEST(StrUri, DecodeExamples) {
  const struct { std::string text; bool valid; std::string expected; } kCases[] = {
      {"%zz", true, "%zz"},  // not two hex digits: literal
      {"%FF", false, "%FF"},  // decodes to invalid UTF-8: left encoded
      {"+", true, " "},
      {"a+b%20c", true, "a b c"},
      {"a%2fb%2F", true, "a/b/"},
      {"%c3%a9", true, "\xc3\xa9"},
      {"%C3%A9", true, "\xc3\xa9"},
      {"%c3%A9", true, "\xc3\xa9"},
      {"%4", true, "%4"},
      {"%", true, "%"},
      {"100%", true, "100%"},
      {"%%41", true, "%A"},
      {"%4%41", true, "%4A"},
      {"%00", true, std::string("\0", 1)},
      {"%2B", true, "+"},  // a decoded plus is not a blank
      {"%ED%A0%80", false, "%ED%A0%80"},  // a surrogate
      {"%C3", false, "%C3"},
      {"\xc3%A9", true, "\xc3\xa9"},  // validity is judged on the decoded text
      {"\xff+", false, "\xff+"},
      {"%g1", true, "%g1"},
      {"%1g", true, "%1g"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.text));
    Str s(c.text);
    EXPECT_EQ(c.valid, s.uriDecode());
    EXPECT_EQ(c.expected, s) << printable(s);
  }
}

TEST(StrUri, DecodeWithoutPercentOrPlusOnlyValidates) {
  const struct { std::string text; bool valid; } kCases[] = {
      {"", true},
      {"plain text", true},
      {"\xc3\xa9", true},
      {"\xff", false},
      {"\xc3", false},
      {"a\xc3(", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.text));
    Str s(c.text + std::string(20, 'x'));  // long enough to live on the heap
    const std::string before = s;
    const char* data = s.data();
    EXPECT_EQ(c.valid, s.uriDecode());
    EXPECT_EQ(before, s);
    EXPECT_EQ(data, s.data());
  }
}

// Independent decoder for ASCII-only results, where validity is certain.
std::string decodeOracle(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '+') {
      out.push_back(' ');
    } else if (s[i] == '%' && i + 2 < s.size() && isxdigit(static_cast<unsigned char>(s[i + 1])) &&
               isxdigit(static_cast<unsigned char>(s[i + 2]))) {
      out.push_back(static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16)));
      i += 2;
    } else {
      out.push_back(s[i]);
    }
  }
  return out;
}

TEST(StrUri, DecodeMatchesIndependentDecoderOnAscii) {
  std::mt19937 rng(24);
  const std::string alphabet = "%%%+a07Fz4fg ";
  int checked = 0;
  for (int i = 0; i < 5000; ++i) {
    const std::string text = randomFrom(rng, alphabet, 10);
    const std::string expected = decodeOracle(text);
    // Only an ASCII result is certainly valid UTF-8.
    bool ascii = true;
    for (unsigned char ch : expected) ascii = ascii && ch < 0x80;
    if (!ascii) continue;
    ++checked;
    SCOPED_TRACE(text);
    Str s(text);
    EXPECT_TRUE(s.uriDecode());
    EXPECT_EQ(expected, s);
  }
  EXPECT_GT(checked, 2500);
}

std::string encodeUtf8(uint32_t cp) {
  std::string out;
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
  return out;
}

TEST(StrUri, EncodeThenDecodeRoundTripsValidUtf8) {
  std::mt19937 rng(25);
  const uint32_t kRanges[][2] = {{0, 0x7F}, {0x80, 0x7FF}, {0x800, 0xD7FF},
                                 {0xE000, 0xFFFF}, {0x10000, 0x10FFFF}};
  for (int i = 0; i < 3000; ++i) {
    std::string text;
    const int n = rng() % 8;
    for (int k = 0; k < n; ++k) {
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
