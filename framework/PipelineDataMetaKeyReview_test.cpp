#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "framework/PipelineDataMetaKey.h"
#include "framework/PipelineInputChannel.h"
#include "util/ExtraTimevalParseInfo.h"
#include "util/Timeval.h"

namespace {

PipelineDataMetaKey parsedText(const std::string& text) {
  PipelineDataMetaKey meta;
  meta.parse(text.data(), text.data() + text.size());
  return meta;
}

Str printedText(const PipelineDataMetaKey& meta, StrSegment raw = StrSegment()) {
  Str out;
  meta.appendTo(&out, raw, nullptr);
  return out;
}

// Text in, the atoms' types and flag words, and the text printed back.
TEST(PipelineDataMetaKeyReview, ParsesEachFormToExactFlagsAndText) {
  const struct {
    std::string text;
    std::vector<uint32_t> flags;
    std::string back;
  } kCases[] = {
      {"x::\"two words", {PDMKD_STRING | 0x20 | 0x100}, "x::\"two words"},
      {"_subsecond::.0015", {PDMKD_ENCODED_SUBSECONDS}, "_subsecond::.0015"},
      {"_subsecond::.1x", {PDMKD_STRING}, "_subsecond::.1x"},
      {"_subsecond::5", {PDMKD_UNSIGNED}, "_subsecond::5"},
      {"n::00", {PDMKD_STRING}, "n::00"},
      {"n::-5", {PDMKD_STRING}, "n::-5"},
      {"n::1844674407370955161", {PDMKD_UNSIGNED}, "n::1844674407370955161"},
      {"flag other", {PDMKD_MISSING, PDMKD_MISSING}, "flag other"},
      {"Key::Val", {PDMKD_STRING | 0x40 | 0x80}, "Key::Val"},
      {"key::Val", {PDMKD_STRING | 0x80}, "key::Val"},
      {"Key::7", {PDMKD_UNSIGNED | 0x40}, "Key::7"},
      {"k\\\"q::v", {PDMKD_STRING | 0x10}, "\"k\\\"q\"::v"},
      {"k::a\\\\b", {PDMKD_STRING | 0x20}, "k::\"a\\\\b\""},
      {"   a::b  ", {PDMKD_STRING}, "a::b"},
      {"k::\"\"", {PDMKD_STRING}, "k::"},
      {"", {}, ""},
      {"a::b \"", {PDMKD_STRING}, "a::b"},
      {"k::v::w", {PDMKD_STRING}, "k::v::w"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    PipelineDataMetaKey meta = parsedText(c.text);
    ASSERT_EQ(meta.atoms().size(), c.flags.size());
    for (size_t i = 0; i < c.flags.size(); ++i) EXPECT_EQ(meta.atoms()[i].flags(), c.flags[i]) << i;
    EXPECT_EQ(std::string(printedText(meta)), c.back);
  }
}

TEST(PipelineDataMetaKeyReview, EncodesSubsecondLimits) {
  const struct {
    std::string text;
    bool ok;
    uint64_t code;
  } kCases[] = {
      {".a", false, 0},
      {"." + std::string(63, '0'), true, uint64_t(1) << 63},
      {".05", true, 22},
      {".4611686018427387903", true, (uint64_t(1) << 63) - 1},
      {".04611686018427387903", true, UINT64_MAX - 1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    uint64_t code = 0;
    bool ok = PipelineDataMetaKey::encodeSubseconds(c.text.data(), c.text.data() + c.text.size(),
                                                    &code);
    EXPECT_EQ(ok, c.ok);
    if (ok) {
      EXPECT_EQ(code, c.code);
      Str back;
      PipelineDataMetaKey::decodeSubseconds(code, &back);
      EXPECT_EQ(std::string(back), c.text);
    }
  }
}

TEST(PipelineDataMetaKeyReview, RefusesUnsignedForms) {
  const struct {
    const char* text;
    bool ok;
  } kCases[] = {{"", false},     {"0", true},   {"007", false}, {"7", true},
                {"1a", false},   {"00", false}, {"10", true},
                {"18446744073709551615", true}, {"18446744073709551616", false},
                {"184467440737095516150", false}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    PipelineDataMetaKeyAtom atom;
    EXPECT_EQ(atom.set_to_unsigned(c.text, c.text + std::strlen(c.text)), c.ok);
  }
}

// Raw-referencing values in every plain escaping, printed from raw.
TEST(PipelineDataMetaKeyReview, PrintsRawValuesByEscaping) {
  const struct {
    std::string raw;
    uint32_t type;
    std::string back;
  } kCases[] = {
      {"hello", PDMKD_RAW_OFFSETLEN, "k::hello"},
      {"Hello", PDMKD_RAW_OFFSETLEN, "k::Hello"},
      {"a b", PDMKD_RAW_OFFSETLEN, "k::\"a b\""},
      {"a\"b", PDMKD_RAW_OFFSETLEN, "k::\"a\\\"b\""},
      {"a\\b", PDMKD_RAW_OFFSETLEN, "k::\"a\\\\b\""},
      {"42", PDMKD_RAW_OFFSETLEN, "k::42"},
      {"042", PDMKD_RAW_OFFSETLEN, "k::042"},
      {"a\"\"b", PDMKD_RAW_OFFSETLEN_REPEAT_DBLQUOTE, "k::\"a\\\"b\""},
      {"it''s", PDMKD_RAW_OFFSETLEN_REPEAT_SNGLQUOTE, "k::it's"},
      {"a&amp;b", PDMKD_RAW_OFFSETLEN_XMLESCAPING, "k::a&b"},
      {"&lt;x&gt;", PDMKD_RAW_OFFSETLEN_XMLESCAPING, "k::<x>"},
      {"&#65;&#x42;", PDMKD_RAW_OFFSETLEN_XMLESCAPING, "k::AB"},
      {"&AMP;&Quot;", PDMKD_RAW_OFFSETLEN_XMLESCAPING, "k::\"&\\\"\""},
      {"&apos;", PDMKD_RAW_OFFSETLEN_XMLESCAPING, "k::'"},
      {"&foo;", PDMKD_RAW_OFFSETLEN_XMLESCAPING, "k::&foo;"},
      {"&#x110000;", PDMKD_RAW_OFFSETLEN_XMLESCAPING, "k::&#x110000;"},
      {"a&#32;b", PDMKD_RAW_OFFSETLEN_XMLESCAPING, "k::\"a b\""},
      {"a+b", PDMKD_RAW_OFFSETLEN_URLESCAPING, "k::\"a b\""},
      {"%41%42", PDMKD_RAW_OFFSETLEN_URLESCAPING, "k::AB"},
      {"%C3%A9", PDMKD_RAW_OFFSETLEN_URLESCAPING, "k::\xC3\xA9"},
      {"%22", PDMKD_RAW_OFFSETLEN_URLESCAPING, "k::\"\\\"\""},
      {"plain", PDMKD_RAW_OFFSETLEN_URLESCAPING, "k::plain"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.raw);
    const std::string raw = "xx" + c.raw + "yy";
    PipelineDataMetaKey meta;
    meta.appendRawOffsetLen(StrSegment("k"), StrSegment(raw), 2, c.raw.size(), c.type);
    EXPECT_EQ(std::string(printedText(meta, StrSegment(raw))), c.back);
  }
}

TEST(PipelineDataMetaKeyReview, PlainRawValuesFlagAndNumberAsTheyScan) {
  const std::string raw = "Upper 123 plain a b";
  const struct {
    size_t off, len;
    uint32_t flags;
    uint32_t vflags;
  } kCases[] = {
      {0, 5, PDMKD_RAW_OFFSETLEN | 0x80, 2},
      {6, 3, PDMKD_UNSIGNED, 0},
      {10, 5, PDMKD_RAW_OFFSETLEN, 2},
      {16, 3, PDMKD_RAW_OFFSETLEN | 0x20, 2},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.off);
    PipelineDataMetaKey meta;
    meta.appendRawOffsetLen(StrSegment("k"), StrSegment(raw), c.off, c.len);
    ASSERT_EQ(meta.atoms().size(), 1u);
    EXPECT_EQ(meta.atoms()[0].flags(), c.flags);
    EXPECT_EQ(meta.vflags(), c.vflags);
  }
  PipelineDataMetaKey meta;
  meta.appendRawOffsetLen(StrSegment("k"), StrSegment(raw), 6, 3);
  EXPECT_EQ(meta.atoms()[0].valueAsUnsigned(), 123u);
}

TEST(PipelineDataMetaKeyReview, PunctSummaryTable) {
  const struct {
    std::string raw;
    std::string punct;
  } kCases[] = {
      {"abc", ""},
      {"a b,c;d", "_,;"},
      {"-#$%&+./:=?@'|*(){}<>[]^!", "-#$%&+./:=?@'|*(){}<>[]^!"},
      {"a\tb", "t"},
      {"a\rb", "\\r"},
      {"\"\\", "\"\\"},
      {"~`_", ""},
      {std::string(60, ','), std::string(50, ',')},
      {std::string(60, '\r'), [] {
         std::string s;
         for (int i = 0; i < 50; ++i) s += "\\r";
         return s;
       }()},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.raw);
    Str out;
    PipelineDataMetaKeyAtom::buildPunct(&out, StrSegment(c.raw));
    EXPECT_EQ(std::string(out), c.punct);
  }
}

TEST(PipelineDataMetaKeyReview, PrintsPunctWithQuoteAndBackslashEscaped) {
  const struct {
    std::string raw;
    std::string back;
  } kCases[] = {
      {"a\"b", "punct::\\\""},
      {"a\\b", "punct::\\\\"},
      {"a b.c", "punct::_."},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.raw);
    PipelineDataMetaKey meta;
    meta.appendPunct();
    EXPECT_EQ(meta.atoms()[0].flags(), uint32_t(PDMKD_PUNCT));
    EXPECT_NE(meta.vflags() & PipelineDataMetaKey::VFLAG_HAS_PUNCT, 0u);
    EXPECT_EQ(std::string(printedText(meta, StrSegment(c.raw))), c.back);
  }
}

// After the raw changes, the text stands alone and the positions are gone.
TEST(PipelineDataMetaKeyReview, RawChangeKeepsTheTextWithoutPositions) {
  const std::string raw = "Foo a&amp;b x+y, 12";
  PipelineDataMetaKey meta;
  meta.appendRawOffsetLen(StrSegment("k"), StrSegment(raw), 0, 3);
  meta.appendRawOffsetLen(StrSegment("x"), StrSegment(raw), 4, 7, PDMKD_RAW_OFFSETLEN_XMLESCAPING);
  meta.appendRawOffsetLen(StrSegment("u"), StrSegment(raw), 12, 3, PDMKD_RAW_OFFSETLEN_URLESCAPING);
  meta.addTimeStartEndPos(0, 3);
  meta.appendPunct();
  EXPECT_EQ(std::string(printedText(meta, StrSegment(raw))),
            "k::Foo x::a&b u::\"x y\" timestartpos::0 timeendpos::3 punct::_&;_+,_");
  meta._rawHasChanged(StrSegment(raw));
  EXPECT_EQ(meta.vflags() & 3u, 0u);
  EXPECT_EQ(std::string(printedText(meta, StrSegment("other"))),
            "k::Foo x::a&b u::\"x y\" punct::_&;_+,_");
  for (const auto& atom : meta.atoms()) EXPECT_EQ(atom.valueType(), PDMKD_STRING);
}

TEST(PipelineDataMetaKeyReview, TimeLocationTable) {
  const struct {
    std::string raw;
    long start, end;  // -1: atom absent
    bool ok;
    unsigned long cstart, clen;
  } kCases[] = {
      {"hello", 1, 3, true, 1, 2},
      {"h\xC3\xA9llo", 3, 6, true, 2, 3},
      {"h\xC3\xA9llo", 2, 6, false, 0, 0},
      {"h\xE2\x82\xAC!", 0, 4, true, 0, 2},
      {"h\xF0\x9F\x98\x80!", 5, 6, true, 2, 1},
      {"hello", 3, 3, false, 0, 0},
      {"hello", 4, 2, false, 0, 0},
      {"hello", -1, 3, false, 0, 0},
      {"\xFF" "abc", 1, 3, false, 0, 0},
      {"hello", 1, 9, false, 0, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.raw + " " + std::to_string(c.start));
    PipelineDataMetaKey meta;
    if (c.start >= 0) meta.addUnsigned(StrSegment("timestartpos"), c.start);
    meta.addUnsigned(StrSegment("timeendpos"), c.end);
    unsigned long s = 99, l = 99;
    EXPECT_EQ(meta.getTimeLocation(&s, &l, StrSegment(c.raw)), c.ok);
    if (c.ok) {
      EXPECT_EQ(s, c.cstart);
      EXPECT_EQ(l, c.clen);
    }
  }
}

TEST(PipelineDataMetaKeyReview, KeyFlagsFromTheName) {
  const struct {
    const char* name;
    uint32_t flags;
  } kCases[] = {{"abc", 0},       {"Abc", 0x40},  {"a b", 0x10},   {"a\"b", 0x10},
                {"a\\b", 0x10},   {"A b", 0x50},  {"zZ", 0x40},    {"", 0},
                {"a::b", 0}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(PipelineDataMetaKey::extra_flags_for_key_name(c.name, std::strlen(c.name)), c.flags);
  }
}

TEST(PipelineDataMetaKeyReview, StringValuesFlagOrBecomeNumbers) {
  const struct {
    const char* value;
    uint32_t flags;
  } kCases[] = {{"abc", PDMKD_STRING},
                {"Abc", PDMKD_STRING | 0x80},
                {"a b", PDMKD_STRING | 0x20},
                {"A\"", PDMKD_STRING | 0xA0},
                {"15", PDMKD_UNSIGNED},
                {"015", PDMKD_STRING},
                {"", PDMKD_STRING}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.value);
    PipelineDataMetaKey meta;
    meta.addString(StrSegment("k"), StrSegment(c.value));
    ASSERT_EQ(meta.atoms().size(), 1u);
    EXPECT_EQ(meta.atoms()[0].flags(), c.flags);
  }
}

TEST(PipelineDataMetaKeyReview, PredefinedStringsNeedNoPool) {
  PipelineDataMetaKey a, b;
  for (const char* s : {"_subsecond", "date_zone", "sunday", "december", "local", "-60", "-660",
                        "punct", "timestartpos", "blockSignature", "_indextime", "invalid"}) {
    SCOPED_TRACE(s);
    HashedStrReference x = a.alloc_hashed_str(s, std::strlen(s));
    HashedStrReference y = b.alloc_hashed_str(s, std::strlen(s));
    EXPECT_EQ(x.data(), y.data());
    EXPECT_EQ(std::string(x.data(), x.length()), s);
  }
  HashedStrReference x = a.alloc_hashed_str("notpredef", 9);
  HashedStrReference y = b.alloc_hashed_str("notpredef", 9);
  EXPECT_NE(x.data(), y.data());
}


// Quotes toggle anywhere in an atom, and text ending inside one keeps it open.
TEST(PipelineDataMetaKeyReview, QuotesToggleAndStayOpenAtTheEnd) {
  const struct {
    const char* text;
    std::vector<uint32_t> flags;
    const char* back;
  } kCases[] = {
      {"\"unterminated", {PDMKD_MISSING | 0x100}, "\"unterminated"},
      {"\"two words", {PDMKD_MISSING | 0x10 | 0x100}, "\"two words"},
      {"_subsecond::\".5", {PDMKD_ENCODED_SUBSECONDS | 0x100}, "_subsecond::\".5"},
      {"k::\"", {PDMKD_STRING | 0x100}, "k::\""},
      {"a::b\"", {PDMKD_STRING | 0x100}, "a::\"b"},
      {"k::\"a\"b", {PDMKD_STRING}, "k::ab"},
      {"k::a\"b c\"d", {PDMKD_STRING | 0x20}, "k::\"ab cd\""},
      {"\"a b\" c", {PDMKD_MISSING | 0x10, PDMKD_MISSING}, "\"a b\" c"},
      {"A\"b c\"::D", {PDMKD_STRING | 0x10 | 0x40 | 0x80}, "\"Ab c\"::D"},
      {"a\\b::c", {PDMKD_STRING | 0x10}, "\"a\\\\b\"::c"},
      {"\"\"::v", {PDMKD_STRING}, "::v"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    PipelineDataMetaKey meta = parsedText(c.text);
    ASSERT_EQ(meta.atoms().size(), c.flags.size());
    for (size_t i = 0; i < c.flags.size(); ++i) EXPECT_EQ(meta.atoms()[i].flags(), c.flags[i]) << i;
    const Str back = printedText(meta);
    EXPECT_EQ(std::string(back), c.back);
    // What was printed reads back as the same atoms.
    PipelineDataMetaKey again = parsedText(back);
    ASSERT_EQ(again.atoms().size(), c.flags.size());
    for (size_t i = 0; i < c.flags.size(); ++i) EXPECT_EQ(again.atoms()[i].flags(), c.flags[i]) << i;
  }
}

// Bad escapes stay as text; good ones give the bytes they stand for.
TEST(PipelineDataMetaKeyReview, UnescapesEdgeBytesOfEachEscaping) {
  const struct {
    uint32_t type;
    const char* raw;
    const char* text;
  } kCases[] = {
      {PDMKD_RAW_OFFSETLEN_URLESCAPING, "%", "%"},
      {PDMKD_RAW_OFFSETLEN_URLESCAPING, "%2", "%2"},
      {PDMKD_RAW_OFFSETLEN_URLESCAPING, "%zz", "%zz"},
      {PDMKD_RAW_OFFSETLEN_URLESCAPING, "%E2%82%AC", "\xE2\x82\xAC"},
      {PDMKD_RAW_OFFSETLEN_URLESCAPING, "%c3%a9", "\xC3\xA9"},
      {PDMKD_RAW_OFFSETLEN_URLESCAPING, "%F0%9F%98%80", "\xF0\x9F\x98\x80"},
      {PDMKD_RAW_OFFSETLEN_URLESCAPING, "a++b", "a  b"},
      {PDMKD_RAW_OFFSETLEN_XMLESCAPING, "&#x10FFFF;", "\xF4\x8F\xBF\xBF"},
      {PDMKD_RAW_OFFSETLEN_XMLESCAPING, "&#1114112;", "&#1114112;"},
      {PDMKD_RAW_OFFSETLEN_XMLESCAPING, "&lt", "&lt"},
      {PDMKD_RAW_OFFSETLEN_XMLESCAPING, "&LT;&Gt;", "<>"},
      {PDMKD_RAW_OFFSETLEN_XMLESCAPING, "&abcdef;", "&abcdef;"},
      {PDMKD_RAW_OFFSETLEN_XMLESCAPING, "&#;&#x;", "&#;&#x;"},
      {PDMKD_RAW_OFFSETLEN_XMLESCAPING, "&", "&"},
      {PDMKD_RAW_OFFSETLEN_XMLESCAPING, "&&amp;", "&&"},
      {PDMKD_RAW_OFFSETLEN_XMLESCAPING, "&#233;", "\xC3\xA9"},
      {PDMKD_RAW_OFFSETLEN_REPEAT_DBLQUOTE, "a\"\"\"\"b", "a\"\"b"},
      {PDMKD_RAW_OFFSETLEN_REPEAT_DBLQUOTE, "\"", "\""},
      {PDMKD_RAW_OFFSETLEN_REPEAT_SNGLQUOTE, "''''", "''"},
      {PDMKD_RAW_OFFSETLEN, "%41&amp;", "%41&amp;"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.raw);
    Str out;
    PipelineDataMetaKeyAtom::appendRawOffsetValueTo(&out, c.type, c.raw, std::strlen(c.raw));
    EXPECT_EQ(std::string(out), c.text);
  }
  Str punct;
  PipelineDataMetaKeyAtom::buildPunct(&punct, StrSegment("a\nb\x01~`_"));
  EXPECT_EQ(std::string(punct), "");  // newline and control bytes are not punctuation
}

}  // namespace
