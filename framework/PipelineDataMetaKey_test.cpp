#include "framework/PipelineDataMetaKey.h"

#include <random>

#include <gtest/gtest.h>

#include "framework/PipelineInputChannel.h"
#include "util/ExtraTimevalParseInfo.h"
#include "util/Timeval.h"

namespace {

PipelineDataMetaKey parsed(const char* text) {
  PipelineDataMetaKey meta;
  meta.parse(text, text + std::strlen(text));
  return meta;
}

Str printed(const PipelineDataMetaKey& meta, StrSegment raw = StrSegment()) {
  Str out;
  meta.appendTo(&out, raw, nullptr);
  return out;
}

TEST(PipelineDataMetaKey, ParsesAndPrintsEachAtomKind) {
  const struct {
    const char* text;
    std::vector<uint32_t> types;
    uint32_t lastFlags;  // flags beyond the type bits on the last atom
  } kCases[] = {
      {"a::b c::\"d e\"", {PDMKD_STRING, PDMKD_STRING}, PDMKD_FLAG_VALUE_NEEDS_ESCAPE},
      {"n::7", {PDMKD_UNSIGNED}, 0},
      {"n::007", {PDMKD_STRING}, 0},  // leading zeros are text
      {"n::0", {PDMKD_UNSIGNED}, 0},
      {"n::18446744073709551615", {PDMKD_UNSIGNED}, 0},
      {"n::18446744073709551616", {PDMKD_STRING}, 0},  // one past 64 bits
      {"n::99999999999999999999", {PDMKD_STRING}, 0},
      {"_subsecond::.120", {PDMKD_ENCODED_SUBSECONDS}, 0},
      {"_subsecond::.000", {PDMKD_ENCODED_SUBSECONDS}, 0},
      {"_subsecond::.abc", {PDMKD_STRING}, 0},
      {"_subsecond::.", {PDMKD_STRING}, 0},
      {"other::.120", {PDMKD_STRING}, 0},  // only _subsecond is encoded
      {"flag", {PDMKD_MISSING}, 0},
      {"x::\"unterminated", {PDMKD_STRING}, PDMKD_FLAG_ENDED_UNQUOTED},
      {"x::\"12", {PDMKD_UNSIGNED}, PDMKD_FLAG_ENDED_UNQUOTED},
      {"\"open key", {PDMKD_MISSING},
       PDMKD_FLAG_ENDED_UNQUOTED | PDMKD_FLAG_KEY_NEEDS_ESCAPE},
      {"\"k 1\"::v", {PDMKD_STRING}, PDMKD_FLAG_KEY_NEEDS_ESCAPE},
      {"Host::Web01", {PDMKD_STRING}, PDMKD_FLAG_KEY_HAS_CAPITAL | PDMKD_FLAG_VALUE_HAS_CAPITAL},
      {"q::\"a\\\"b\\\\c\"", {PDMKD_STRING}, PDMKD_FLAG_VALUE_NEEDS_ESCAPE},
      {"e::", {PDMKD_STRING}, 0},
      {"::v", {PDMKD_STRING}, 0},
      {"a::b c d::1", {PDMKD_STRING, PDMKD_MISSING, PDMKD_UNSIGNED}, 0},
      {"date_month::january", {PDMKD_STRING}, 0},
      {"\"\"", {PDMKD_MISSING}, 0},               // an empty key alone stays quoted
      {"\"a:\"::v", {PDMKD_STRING}, 0},            // a final ":" would join the "::"
      {"\"a::b\"::v", {PDMKD_STRING}, 0},          // "::" inside quotes is key text
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    PipelineDataMetaKey meta = parsed(c.text);
    ASSERT_EQ(meta.atoms().size(), c.types.size());
    for (size_t i = 0; i < c.types.size(); i++) EXPECT_EQ(meta.atoms()[i].valueType(), c.types[i]);
    EXPECT_EQ(meta.atoms().back().flags() & ~PDMKD_FLAG_TYPEBITS, c.lastFlags);
    EXPECT_EQ(printed(meta), c.text);
  }
}

TEST(PipelineDataMetaKey, NormalisesTextThatParsesToTheSameAtoms) {
  const struct { const char* text; const char* printed; } kCases[] = {
      {"  a::b   c::d  ", "a::b c::d"},
      {"a::\"b\"", "a::b"},           // quotes that protect nothing go
      {"\"", ""},                     // a lone quote yields nothing
      {"\"\"\"", ""},                 // and so does an open quote around nothing
      {"a\\x::y", "\"a\\\\x\"::y"},   // a kept backslash needs quoting
      {"k::a\\ b", "k::\"a\\\\ b\""},  // an escaped space stays, with its backslash
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    PipelineDataMetaKey meta = parsed(c.text);
    Str once = printed(meta);
    EXPECT_EQ(once, c.printed);
    // Whatever the input, printing is a fixed point of parse-then-print.
    EXPECT_EQ(printed(parsed(once.c_str())), once);
  }
}

TEST(PipelineDataMetaKey, NumbersAndSubsecondsKeepTheirValues) {
  EXPECT_EQ(parsed("n::7").atoms()[0].valueAsUnsigned(), 7u);
  EXPECT_EQ(parsed("n::18446744073709551615").atoms()[0].valueAsUnsigned(), UINT64_MAX);
  PipelineDataMetaKey meta = parsed("_subsecond::.0015");
  EXPECT_EQ(meta.atoms()[0].valueAsUnsigned(), 124u);
  EXPECT_EQ(meta.encodedSubseconds(), 124u);
  EXPECT_EQ(parsed("n::007").atoms()[0].valueAsString(), "007");
}

TEST(PipelineDataMetaKey, EncodesSubsecondsBothWays) {
  const struct { const char* text; uint64_t code; } kCases[] = {
      {".0015", 124}, {".000", 8}, {".0", 2}, {".120", 241}, {".5", 11}, {".1", 3},
      {".000000001", 3u << 8},
      {".9223372036854775807", UINT64_MAX},  // largest v with no zeros
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    uint64_t code = 0;
    ASSERT_TRUE(PipelineDataMetaKey::encodeSubseconds(c.text, c.text + std::strlen(c.text), &code));
    EXPECT_EQ(code, c.code);
    Str back;
    PipelineDataMetaKey::decodeSubseconds(code, &back);
    EXPECT_EQ(back, c.text);
  }
  const char* kRejects[] = {
      ".", "", "5", ".1a", ".9223372036854775808",  // v at 2^63
      ".04611686018427387904",                       // fits alone, not once shifted
      ".0000000000000000000000000000000000000000000000000000000000000000",  // 64 zeros
      ".123456789012345678901"};
  for (const char* text : kRejects) {
    SCOPED_TRACE(text);
    uint64_t code = 77;
    EXPECT_FALSE(PipelineDataMetaKey::encodeSubseconds(text, text + std::strlen(text), &code));
  }
}

TEST(PipelineDataMetaKey, RoundTripsRandomAtomLists) {
  std::mt19937 rng(20261123);
  const char alphabet[] = "abcXYZ019 \"\\._-";
  auto word = [&](size_t maxLen, bool allowEmpty) {
    Str s;
    size_t len = rng() % (maxLen + 1);
    if (!allowEmpty && len == 0) len = 1;
    for (size_t i = 0; i < len; i++) s.push_back(alphabet[rng() % (sizeof alphabet - 1)]);
    return s;
  };
  for (int round = 0; round < 2000; round++) {
    PipelineDataMetaKey meta;
    size_t n = rng() % 6;
    for (size_t i = 0; i < n; i++) {
      Str key = word(6, false);
      switch (rng() % 4) {
        case 0: meta.addUnsigned(key, (uint64_t{rng()} << 32) | rng()); break;
        case 1: meta.addString(key, word(8, true)); break;
        case 2: meta.addMissing(key); break;
        default: meta.appendEncodedSubseconds((rng() % 1000) * 2 + 3); break;
      }
    }
    Str text = printed(meta);
    SCOPED_TRACE(text);
    PipelineDataMetaKey back = parsed(text.c_str());
    ASSERT_EQ(back.atoms().size(), meta.atoms().size());
    for (size_t i = 0; i < n; i++) {
      const auto& a = meta.atoms()[i];
      const auto& b = back.atoms()[i];
      EXPECT_EQ(Str(a.key(nullptr)), Str(b.key(nullptr)));
      // A string of digits comes back as the number it spells.
      if (a.valueType() == PDMKD_STRING && b.valueType() != PDMKD_STRING) continue;
      EXPECT_EQ(a.valueType(), b.valueType());
    }
    EXPECT_EQ(printed(back), text);
  }
}

TEST(PipelineDataMetaKey, PrintsRawReferencesAndPunctFromRaw) {
  const Str raw = "Nov 23 12:00:01 host \"q\" 4242 say \"\"hi\"\"";
  PipelineDataMetaKey meta;
  meta.appendRawOffsetLen("mon", raw, 0, 3);
  meta.appendRawOffsetLen("num", raw, 25, 4);  // digits: stored as a number
  meta.appendRawOffsetLen("q", raw, 21, 3);
  meta.appendRawOffsetLen("dq", raw, 34, 6, PDMKD_RAW_OFFSETLEN_REPEAT_DBLQUOTE);
  meta.appendRawOffsetLen("empty", raw, 5, 0);
  meta.appendPunct();
  EXPECT_EQ(meta.atoms()[1].valueType(), PDMKD_UNSIGNED);
  EXPECT_EQ(meta.vflags(), PipelineDataMetaKey::VFLAG_HAS_RAW_REFERENCES |
                               PipelineDataMetaKey::VFLAG_HAS_PUNCT);
  const char* expected =
      "mon::Nov num::4242 q::\"\\\"q\\\"\" dq::\"\\\"hi\\\"\" empty:: "
      "punct::__::__\\\"\\\"___\\\"\\\"\\\"\\\"";
  EXPECT_EQ(printed(meta, raw), expected);
  Str asString = printed(parsed(expected));

  // Once raw goes away the atoms print the same without it.
  meta._rawHasChanged(raw);
  EXPECT_EQ(meta.vflags(), 0u);
  EXPECT_EQ(printed(meta, "unrelated"), asString);
  for (const auto& atom : meta.atoms()) EXPECT_GT(atom.valueType(), PDMKD_RAW_OFFSETLEN_URLESCAPING);
}

TEST(PipelineDataMetaKey, UnescapesUrlAndXmlValuesWhenPrinted) {
  const struct { uint32_t type; const char* raw; const char* printed; uint32_t stored; } kCases[] = {
      {PDMKD_RAW_OFFSETLEN_URLESCAPING, "a+b%2Fc", "v::\"a b/c\"", PDMKD_RAW_OFFSETLEN_URLESCAPING},
      {PDMKD_RAW_OFFSETLEN_URLESCAPING, "caf%C3%A9", "v::caf\xC3\xA9", PDMKD_RAW_OFFSETLEN_URLESCAPING},
      {PDMKD_RAW_OFFSETLEN_URLESCAPING, "%C3x", "v::%C3x", PDMKD_RAW_OFFSETLEN_URLESCAPING},  // partial
      {PDMKD_RAW_OFFSETLEN_URLESCAPING, "%zz%4", "v::%zz%4", PDMKD_RAW_OFFSETLEN_URLESCAPING},
      {PDMKD_RAW_OFFSETLEN_URLESCAPING, "plain", "v::plain", PDMKD_RAW_OFFSETLEN},  // nothing to undo
      {PDMKD_RAW_OFFSETLEN_XMLESCAPING, "&LT;b&gt;&#65;&#x263a;", "v::<b>A\xE2\x98\xBA",
       PDMKD_RAW_OFFSETLEN_XMLESCAPING},
      {PDMKD_RAW_OFFSETLEN_XMLESCAPING, "&quot;&bogus;&#x110000;&", "v::\"\\\"&bogus;&#x110000;&\"",
       PDMKD_RAW_OFFSETLEN_XMLESCAPING},
      {PDMKD_RAW_OFFSETLEN_REPEAT_SNGLQUOTE, "it''s", "v::it's", PDMKD_RAW_OFFSETLEN_REPEAT_SNGLQUOTE},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.raw);
    const Str raw = c.raw;
    PipelineDataMetaKey meta;
    meta.appendRawOffsetLen("v", raw, 0, raw.size(), c.type);
    EXPECT_EQ(meta.atoms()[0].valueType(), c.stored);
    EXPECT_EQ(printed(meta, raw), c.printed);
    meta._rawHasChanged(raw);  // the string form prints the same
    EXPECT_EQ(printed(meta, ""), c.printed);
  }
}

Str unescaped(uint32_t type, const Str& bytes) {
  Str out;
  PipelineDataMetaKeyAtom::appendRawOffsetValueTo(&out, type, bytes.data(), bytes.size());
  return out;
}

TEST(PipelineDataMetaKey, ReadsCEscapesAndLeavesFailedOnesAsText) {
  const struct { const char* name; Str raw; Str text; } kCases[] = {
      {"controls", "\\a\\b\\e\\f\\n\\r\\t\\v", "\a\b\x1b\f\n\r\t\v"},
      {"octal by lead digit", "\\0101|\\101|\\1011|\\477|\\08", Str("A|A|A1|'7|") + Str(1, '\0') + "8"},
      {"hex", "\\x41\\x4g", "A\x04g"},
      {"hex missing", "\\xzz", "\\xzz"},
      {"u and U", "\\u263a\\U0001F600", "\xE2\x98\xBA\xF0\x9F\x98\x80"},
      {"U past the last code point", "\\U00110000", "\\U00110000"},
      {"u too short", "\\u12", "\\u12"},
      {"surrogate pair joins", "\\uD83D\\uDE00", "\xF0\x9F\x98\x80"},
      {"lone high surrogate stands", "\\uD83Dx", "\\uD83Dx"},
      {"high then non-low", "\\uD83D\\u0041", "\\uD83DA"},
      {"control letters", "\\cA\\cz\\c?", "\x01\x1a\x7f"},
      {"unicode letters", "\\L\\N\\P\\_", "\xE2\x80\xA8\xC2\x85\xE2\x80\xA9\xC2\xA0"},
      {"punctuation stands for itself", "\\.\\\\\\\"\\'", ".\\\"'"},
      {"other letters keep the backslash", "\\q\\Z9\\9", "\\q\\Z9\\9"},
      {"line continuations vanish", "a\\\nb\\\r\nc\\\rd", "abcd"},
      {"trailing backslash", "ab\\", "ab\\"},
      {"control escape at the end", "\\c", "\\c"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(unescaped(PDMKD_RAW_OFFSETLEN_CESCAPING, c.raw), c.text);
  }
}

// The system printf reads the escapes both share.
TEST(PipelineDataMetaKey, CEscapesAgreeWithPrintf) {
  const char* const kInputs[] = {"a\\tb\\nc", "\\0101\\0060x", "\\x41\\x7e\\x20", "\\e[1m\\a\\v\\f",
                                 "\\u00e9\\u263a", "\\\\back\\\\"};
  for (const char* input : kInputs) {
    SCOPED_TRACE(input);
    Str command = Str("/usr/bin/printf '%b' '") + input + "'";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    Str expected;
    char buf[256];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) expected.append(buf, n);
    ASSERT_EQ(pclose(pipe), 0);
    EXPECT_EQ(unescaped(PDMKD_RAW_OFFSETLEN_CESCAPING, input), expected);
  }
}

TEST(PipelineDataMetaKey, EscapedAppendVariantsPickTheTypeTheBytesNeed) {
  using Append = void (PipelineDataMetaKey::*)(StrSegment, StrSegment, size_t, size_t);
  const struct { Append append; const char* raw; uint32_t stored; const char* printed; } kCases[] = {
      {&PipelineDataMetaKey::appendRawOffsetLenCEscaped, "a\\tb", PDMKD_RAW_OFFSETLEN_CESCAPING,
       "v::a\tb"},
      {&PipelineDataMetaKey::appendRawOffsetLenCEscaped, "C:\\\\x y", PDMKD_RAW_OFFSETLEN_CESCAPING,
       "v::\"C:\\\\x y\""},
      {&PipelineDataMetaKey::appendRawOffsetLenCEscaped, "plain", PDMKD_RAW_OFFSETLEN, "v::plain"},
      {&PipelineDataMetaKey::appendRawOffsetLenCEscaped, "42", PDMKD_UNSIGNED, "v::42"},
      {&PipelineDataMetaKey::appendRawOffsetLenCsvEscaped, "say \"\"hi\"\"",
       PDMKD_RAW_OFFSETLEN_REPEAT_DBLQUOTE, "v::\"say \\\"hi\\\"\""},
      {&PipelineDataMetaKey::appendRawOffsetLenCsvEscaped, "no_quotes", PDMKD_RAW_OFFSETLEN,
       "v::no_quotes"},
      {&PipelineDataMetaKey::appendRawOffsetLenUrlEscaped, "a%2Bb", PDMKD_RAW_OFFSETLEN_URLESCAPING,
       "v::a+b"},
      {&PipelineDataMetaKey::appendRawOffsetLenXmlEscaped, "&amp;", PDMKD_RAW_OFFSETLEN_XMLESCAPING,
       "v::&"},
      {&PipelineDataMetaKey::appendRawOffsetLenXmlEscapedWCdata, "<![CDATA[a&amp;<b>]]>&lt;",
       PDMKD_RAW_OFFSETLEN_XMLESCAPING_W_CDATA, "v::a&amp;<b><"},
      {&PipelineDataMetaKey::appendRawOffsetLenXmlEscapedWCdata, "&amp;<![CDATA[]]]]>x",
       PDMKD_RAW_OFFSETLEN_XMLESCAPING_W_CDATA, "v::&]]x"},
      {&PipelineDataMetaKey::appendRawOffsetLenXmlEscapedWCdata, "x<![CDATA[a]]>y<![CDATA[ b]]>",
       PDMKD_RAW_OFFSETLEN_XMLESCAPING_W_CDATA, "v::\"xay b\""},
      {&PipelineDataMetaKey::appendRawOffsetLenXmlEscapedWCdata, "<b>&amp;</b>",
       PDMKD_RAW_OFFSETLEN_XMLESCAPING, "v::<b>&</b>"},  // no section: entities only
      {&PipelineDataMetaKey::appendRawOffsetLenXmlEscapedWCdata, "&amp;<![CDATA[open",
       PDMKD_RAW_OFFSETLEN_XMLESCAPING, "v::&<![CDATA[open"},  // never closed
      {&PipelineDataMetaKey::appendRawOffsetLenXmlEscapedWCdata, "x<![CDATA[open", PDMKD_RAW_OFFSETLEN,
       "v::x<![CDATA[open"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.raw);
    const Str raw = Str("lead ") + c.raw;  // the value sits past the start of raw
    PipelineDataMetaKey meta;
    (meta.*c.append)("v", raw, 5, raw.size() - 5);
    ASSERT_EQ(meta.atoms().size(), 1u);
    EXPECT_EQ(meta.atoms()[0].valueType(), c.stored);
    EXPECT_EQ(printed(meta, raw), c.printed);
    // Made independent of raw, then through text and back: the same.
    meta._rawHasChanged(raw);
    EXPECT_EQ(meta.atoms()[0].valueType(), c.stored == PDMKD_UNSIGNED ? PDMKD_UNSIGNED : PDMKD_STRING);
    EXPECT_EQ(printed(meta, ""), c.printed);
    EXPECT_EQ(printed(parsed(c.printed)), c.printed);
  }
}

TEST(PipelineDataMetaKey, IndexableTokensAreUnquotedAndUnescaped) {
  const Str raw = "a b,c\tx\\ty";
  PipelineDataMetaKey meta = parsed("a::\"b c\" n::7 _subsecond::.120 flag \"k\\\"q\"::v");
  meta.appendPunct();
  meta.appendRawOffsetLenCEscaped("esc", raw, 6, 4);
  meta.addString("big", Str(2000, 'x'));
  const char* const kTokens[] = {"a::b c", "n::7", "_subsecond::.120", "flag", "k\"q::v",
                                 "punct::_,t\\", "esc::x\ty"};
  ASSERT_EQ(meta.atoms().size(), std::size(kTokens) + 1);
  for (size_t i = 0; i < std::size(kTokens); i++) {
    SCOPED_TRACE(kTokens[i]);
    st_token_answer answer;
    ASSERT_TRUE(meta.atoms()[i].asIndexableToken(&answer, raw, nullptr));
    EXPECT_EQ(Str(answer.bytes, answer.length), kTokens[i]);
  }
  st_token_answer answer;
  answer.length = 99;
  EXPECT_FALSE(meta.atoms().back().asIndexableToken(&answer, raw, nullptr));
  EXPECT_EQ(answer.length, 0u);
}

TEST(PipelineDataMetaKey, AddDatumForKeySetsKeyFlagsAndType) {
  const struct { const char* key; uint32_t type; uint32_t flags; const char* printed; } kCases[] = {
      {"plain", PDMKD_MISSING, PDMKD_MISSING, "plain"},
      {"Key X", PDMKD_MISSING,
       PDMKD_MISSING | PDMKD_FLAG_KEY_HAS_CAPITAL | PDMKD_FLAG_KEY_NEEDS_ESCAPE, "\"Key X\""},
      {"punct", PDMKD_PUNCT, PDMKD_PUNCT, "punct::_"},
      {"n", PDMKD_UNSIGNED, PDMKD_UNSIGNED, "n::0"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.key);
    PipelineDataMetaKey meta;
    PipelineDataMetaKeyAtom& atom = meta.add_datum_for_key(c.key, c.type);
    EXPECT_EQ(atom.flags(), c.flags);
    EXPECT_EQ(printed(meta, " "), c.printed);
  }
}

TEST(PipelineDataMetaKey, PunctStopsAfterFiftyAndSpellsWhitespace) {
  Str out;
  PipelineDataMetaKeyAtom::buildPunct(&out, "a b\tc\rd");
  EXPECT_EQ(out, "_t\\r");
  out.clear();
  PipelineDataMetaKeyAtom::buildPunct(&out, Str(80, '\r'));
  EXPECT_EQ(out.size(), 100u);  // the most a summary can take
}

TEST(PipelineDataMetaKey, FindsTimeLocationInCharacters) {
  const struct {
    const char* raw; uint64_t start, end; bool ok; unsigned long cstart, clen;
  } kCases[] = {
      {"abcdef", 1, 4, true, 1, 3},
      {"\xC3\xA9t\xC3\xA9 12:00", 6, 11, true, 4, 5},  // two 2-byte characters first
      {"abcdef", 1, 6, true, 1, 5},                    // end at the end of raw
      {"abcdef", 4, 4, false, 0, 0},                   // end must pass start
      {"abcdef", 1, 7, false, 0, 0},                   // past raw
      {"\xC3\xA9xyz", 1, 3, false, 0, 0},              // start inside a character
      {"\x80xyz", 1, 3, false, 0, 0},                  // not a lead byte
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.raw);
    PipelineDataMetaKey meta;
    meta.addTimeStartEndPos(c.start, c.end);
    unsigned long start = 99, length = 99;
    EXPECT_EQ(meta.getTimeLocation(&start, &length, c.raw), c.ok);
    if (c.ok) {
      EXPECT_EQ(start, c.cstart);
      EXPECT_EQ(length, c.clen);
    }
  }
  PipelineDataMetaKey onlyStart = parsed("timestartpos::1");
  unsigned long s, l;
  EXPECT_FALSE(onlyStart.getTimeLocation(&s, &l, "abc"));
}

TEST(PipelineDataMetaKey, AddsDateAtomsByPrecision) {
  const struct {
    int level; bool known; int64_t offset; int month, wday; const char* text;
  } kCases[] = {
      {-3, true, 0, 10, 1, ""},  // the clock's own time: nothing
      {-2, false, 0, 10, 1,
       "date_year::2026 date_month::november date_mday::23 date_wday::monday date_zone::local"},
      {-1, true, -8 * 3600, 0, 0,
       "date_hour::12 date_minute::34 date_year::2026 date_month::january date_mday::23 "
       "date_wday::sunday date_zone::-480"},
      {0, true, 19800, 11, 6,
       "date_second::56 date_hour::12 date_minute::34 date_year::2026 date_month::december "
       "date_mday::23 date_wday::saturday date_zone::330"},
      {3, true, -5400, 13, 9,  // out-of-range month and weekday read "invalid"
       "_subsecond::.123 date_second::56 date_hour::12 date_minute::34 date_year::2026 "
       "date_month::invalid date_mday::23 date_wday::invalid date_zone::-90"},
      {12, true, 0, 1, 2,  // at most nine digits
       "_subsecond::.123456000 date_second::56 date_hour::12 date_minute::34 date_year::2026 "
       "date_month::february date_mday::23 date_wday::tuesday date_zone::0"},
  };
  const Timeval time(1764000000, 123456);
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.level);
    ExtraTimevalParseInfo info;
    info.subsecDigits = c.level;
    info.timezoneKnown = c.known;
    info.tzOffset = c.offset;
    info.year = 2026;
    info.month = c.month;
    info.mday = 23;
    info.wday = c.wday;
    info.hour = 12;
    info.minute = 34;
    info.second = 56;
    PipelineDataMetaKey meta;
    meta.addMetaTimeInfo(&time, &info);
    EXPECT_EQ(printed(meta), c.text);
    for (const auto& atom : meta.atoms()) {
      // Names and whole negative hours are shared, never pooled.
      if (atom.valueType() == PDMKD_STRING && atom.keyRef() != "date_year" &&
          !(atom.keyRef() == "date_zone" && atom.valueAsString() == "-90")) {
        EXPECT_TRUE(atom.valueAsString().isPermanent()) << atom.valueAsString().c_str();
      }
    }
    if (c.level > 0) {
      EXPECT_EQ(meta.encodedSubseconds(), time.encodedSubseconds(std::min(c.level, 9)));
    }
  }
}

TEST(PipelineDataMetaKey, RemovesIndexTimeAndReportsAbsence) {
  PipelineDataMetaKey meta = parsed("a::1 _indextime::1700000000 b::2");
  Str found;
  EXPECT_TRUE(meta.removeIndexTime("", &found));
  EXPECT_EQ(found, "_indextime::1700000000");
  EXPECT_EQ(printed(meta), "a::1 b::2");
  EXPECT_FALSE(meta.removeIndexTime("", &found));
}

TEST(PipelineDataMetaKey, CopiesOwnTheirStrings) {
  auto* original = new PipelineDataMetaKey(parsed("k::pooled \"s p\"::x date_month::march"));
  PipelineDataMetaKey copy(*original);
  Str before = printed(*original);
  delete original;  // frees the original pool; the copy must not read it
  EXPECT_EQ(printed(copy), before);
  PipelineDataMetaKey assigned;
  assigned = copy;
  EXPECT_EQ(printed(assigned), before);
}

TEST(PipelineDataMetaKey, NumberedKeysPrintFromTheChannelUntilItChanges) {
  PipelineInputChannelSetHolder holder;
  {
    PipelineInputChannelReference chan(StrSegment("s|h|st|c"), holder.get(), false);
    size_t n = chan->addNumberedField("Field One");
    const Str raw = "value here";
    PipelineDataMetaKey meta;
    meta.appendRawOffsetLen(static_cast<uint32_t>(n), chan.get(), raw, 0, 5);
    EXPECT_TRUE(meta.vflags() & PipelineDataMetaKey::VFLAG_USES_KEYS_IN_CHANNEL);
    Str out;
    meta.appendTo(&out, raw, chan.get());
    EXPECT_EQ(out, "\"Field One\"::value");
    meta._channelIsAboutToChange(chan.get());
    EXPECT_FALSE(meta.vflags() & PipelineDataMetaKey::VFLAG_USES_KEYS_IN_CHANNEL);
    EXPECT_EQ(printed(meta, raw), out);
  }
}

TEST(PipelineDataMetaKeyDeathTest, EndingInQuoteRequiresTheFlag) {
  PipelineDataMetaKey meta = parsed("x::y");
  Str out;
  EXPECT_DEATH(meta.atoms()[0].appendToEndingInQuote(&out, "", nullptr),
               "\\(_blk.flags & PDMKD_FLAG_ENDED_UNQUOTED\\) != 0");
}

}  // namespace
