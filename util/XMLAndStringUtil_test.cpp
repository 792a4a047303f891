#include "util/XMLAndStringUtil.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>

#include "util/FileDescriptor.h"
#include "util/Pathname.h"
#include "util/Regex.h"
#include "util/Utf8.h"
#include "util/XmlDocument.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/TestText.h"
#include "util/testing/XmlTestInit.h"

namespace {

std::string escaped(const std::string& in) {
  Str out("|");
  XMLAndStringUtil::xmlEscapeString(out, StrSegment(in.data(), in.size()));
  return out;
}

// What a program outside this code prints for `command` run over a file
// holding `input`; "" when it cannot run.
std::string runOver(const std::string& command, const std::string& input) {
  TestTempDir dir;
  writeTestFile(dir / "in", input);
  FILE* p = popen((command + " < '" + std::string(dir / "in") + "'").c_str(), "r");
  if (p == nullptr) return "";
  std::string out;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  pclose(p);
  return out;
}

TEST(XmlEscape, EachByteClass) {
  const struct {
    char in;
    const char* out;
  } kCases[] = {
      {'\t', "\t"}, {'\n', "\n"}, {'\r', "\r"},
      {'"', "&quot;"}, {'&', "&amp;"}, {'\'', "&apos;"}, {'<', "&lt;"}, {'>', "&gt;"},
      {'\0', "\\x00"}, {'\x1F', "\\x1F"}, {'\x0B', "\\x0B"}, {'\x1B', "\\x1B"},
      {' ', " "}, {'a', "a"}, {'\x7F', "\x7F"}, {'\x80', "\x80"}, {'\xFF', "\xFF"},
  };
  for (const auto& c : kCases) {
    Str out("|");
    XMLAndStringUtil::xmlEscape(out, c.in);
    EXPECT_EQ(std::string("|") + c.out, out) << static_cast<int>(c.in);
  }
  // Every byte: only the listed ones change, and controls take four bytes.
  for (int b = 0; b < 256; ++b) {
    Str out;
    XMLAndStringUtil::xmlEscape(out, static_cast<char>(b));
    const bool special = b < 0x20 ? b != '\t' && b != '\n' && b != '\r'
                                  : std::string("\"&'<>").find(static_cast<char>(b)) != std::string::npos;
    EXPECT_EQ(special, out.size() > 1) << b;
    if (b < 0x20 && special) {
      EXPECT_EQ(4u, out.size()) << b;
    }
  }
  EXPECT_EQ("|a &lt;b&gt; &quot;c&quot; \\x01", escaped("a <b> \"c\" \x01"));
  // The string form copies clean runs whole: it must agree with the byte
  // form over every byte, at every position in a run.
  std::string all;
  Str oneByOne("|");
  for (int b = 0; b < 256; ++b) {
    all += "ab";
    all.push_back(static_cast<char>(b));
    oneByOne.append("ab");
    XMLAndStringUtil::xmlEscape(oneByOne, static_cast<char>(b));
  }
  EXPECT_EQ(oneByOne, escaped(all));
  EXPECT_EQ("a&amp;b", std::string(XMLAndStringUtil::xmlEscapeString("a&b")));
}

// The XML parser is the oracle: escaped text inside an element reads back as
// the original, for any valid UTF-8 without controls (CR excluded too, since
// a parser turns it into a line feed).
TEST(XmlEscape, ParserReadsEscapedTextBack) {
  std::mt19937 rng(7);
  const std::string alphabet = std::string("ab <>&\"'\t\n;#x") + "\xC3\xA9" + "\xE2\x82\xAC";
  for (int i = 0; i < 300; ++i) {
    std::string text = randomText(rng, alphabet, 40);
    if (!mem_is_valid_utf8(text.data(), text.size())) continue;
    Str doc("<a>");
    XMLAndStringUtil::xmlEscapeString(doc, StrSegment(text.data(), text.size()));
    doc.append("</a>");
    XmlDocument parsed(StrSegment(doc), nullptr, false, false);
    ASSERT_FALSE(parsed.empty()) << printable(text) << ": " << parsed.error();
    EXPECT_EQ(text, parsed.get_root().toStr("")) << printable(text);
  }
}

TEST(XmlEscape, Utf8FormKeepsValidCharactersAndShowsTheRest) {
  const struct {
    std::string in, out;
  } kCases[] = {
      {"a<b", "a&lt;b"},
      {"caf\xC3\xA9", "caf\xC3\xA9"},
      {"\xE2\x82\xAC & \xF0\x9F\x98\x80", "\xE2\x82\xAC &amp; \xF0\x9F\x98\x80"},
      {"a\xFF" "b", "a\\xFFb"},
      {"\xC3", "\\xC3"},                      // truncated at the end
      {"\xC3(", "\\xC3("},                    // bad continuation
      {"\xE2\x82", "\\xE2\\x82"},              // each stray byte shown
      {"\xED\xA0\x80", "\\xED\\xA0\\x80"},     // a surrogate
      {"\xC0\xAF", "\\xC0\\xAF"},              // overlong
      {std::string("\x01\0z", 3), "\\x01\\x00z"},
      {"\xE0\x80\xAF", "\\xE0\\x80\\xAF"},              // overlong, three bytes
      {"\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},    // past U+10FFFF
      {"\xF5\x80\x80\x80", "\\xF5\\x80\\x80\\x80"},    // a lead byte never used
      {"\xF0\x9F\x98", "\\xF0\\x9F\\x98"},              // four bytes cut to three
      {"\xE2\x82<", "\\xE2\\x82&lt;"},                  // cut, then escaped as usual
      {"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"},          // the last code point
      {"\xEF\xBF\xBF\x7F", "\xEF\xBF\xBF\x7F"},
  };
  for (const auto& c : kCases) {
    Str out;
    XMLAndStringUtil::utf8XmlEscape(out, StrSegment(c.in.data(), c.in.size()));
    EXPECT_EQ(c.out, out) << printable(c.in);
    EXPECT_TRUE(mem_is_valid_utf8(out.data(), out.size())) << printable(c.in);
  }
}

TEST(JsonEscape, EachSpecialForm) {
  const struct {
    std::string in, out;
  } kCases[] = {
      {"plain", "plain"},
      {"\f\t\n\"\\", "\\f\\t\\n\\\"\\\\"},
      {"\r", "\\u000d"},
      {"\b", "\\u0008"},
      {std::string("\0", 1), "\\u0000"},
      {"\x1f", "\\u001f"},
      {"a\xE2\x80\xA8" "b\xE2\x80\xA9", "a\\u2028b\\u2029"},
      {"\xE2\x80\xAA", "\xE2\x80\xAA"},  // U+202A is not special
      {"\xE2\x80", "\xE2\x80"},          // cut short: bytes as they are
      {"/ < \x7F \xC3\xA9", "/ < \x7F \xC3\xA9"},
  };
  for (const auto& c : kCases) {
    Str out("|");
    XMLAndStringUtil::jsonEscape(out, Str(c.in));
    EXPECT_EQ("|" + c.out, out) << printable(c.in);
  }
}

// Python's JSON reader is the oracle for the escaped form.
TEST(JsonEscape, AJsonReaderReadsItBack) {
  std::mt19937 rng(11);
  const std::string alphabet =
      std::string("a \"\\/\t\n\r\f\b\x01\x1f", 12) + "\xE2\x80\xA8" + "\xC3\xA9";
  std::string lines;
  std::vector<std::string> inputs;
  for (int i = 0; i < 200; ++i) {
    std::string text = randomText(rng, alphabet, 30);
    if (!mem_is_valid_utf8(text.data(), text.size())) continue;
    Str line("\"");
    XMLAndStringUtil::jsonEscape(line, Str(text));
    lines += std::string(line) + "\"\n";
    inputs.push_back(text);
  }
  const std::string back = runOver(
      "python3 -c 'import sys, json\n"
      "for l in sys.stdin.buffer.read().decode().splitlines():\n"
      "    sys.stdout.buffer.write(json.loads(l).encode(\"utf-8\", \"surrogatepass\").hex().encode() + b\"\\n\")'",
      lines);
  if (back.empty()) GTEST_SKIP() << "python3 is not available";
  std::vector<std::string> hexes;
  for (size_t pos = 0, nl; (nl = back.find('\n', pos)) != std::string::npos; pos = nl + 1) {
    hexes.push_back(back.substr(pos, nl - pos));
  }
  ASSERT_EQ(inputs.size(), hexes.size());
  for (size_t i = 0; i < inputs.size(); ++i) {
    std::string hex;
    for (unsigned char c : inputs[i]) {
      char buf[3];
      snprintf(buf, sizeof buf, "%02x", c);
      hex += buf;
    }
    EXPECT_EQ(hex, hexes[i]) << printable(inputs[i]);
  }
}

TEST(RemoveCDATATags, UnwrapsCompleteSections) {
  const struct {
    const char* in;
    const char* out;
    bool removed;
  } kCases[] = {
      {"<![CDATA[a<b]]>", "a<b", true},
      {"x<![CDATA[1]]>y<![CDATA[2]]>z", "x1y2z", true},
      {"<![CDATA[]]>", "", true},
      {"<![CDATA[a]]]]><![CDATA[>b]]>", "a]]>b", true},  // a "]]>" split across two
      {"<![CDATA[never closed", "<![CDATA[never closed", false},
      {"a]]>b", "a]]>b", false},
      {"<![CDATA[x]]> <![CDATA[open", "x <![CDATA[open", true},
      {"plain", "plain", false},
  };
  for (const auto& c : kCases) {
    Str text(c.in);
    EXPECT_EQ(c.removed, XMLAndStringUtil::removeCDATATags(text)) << c.in;
    EXPECT_EQ(c.out, text) << c.in;
  }
}

TEST(ToRegex, ConvertsWildcardsAndDots) {
  const struct {
    const char* in;
    const char* out;
  } kCases[] = {
      {"*.log", "[^/]*\\.log"},
      {"/var/log/.../*.log", "/var/log/.*/[^/]*\\.log"},
      {"....", ".*\\."},
      {".....", ".*\\.\\."},
      {"......", ".*.*"},
      {"a.b", "a\\.b"},
      {"web(0[1-3])", "web(0[1-3])"},  // regex syntax stays active
      {"", ""},
      {"**", "[^/]*[^/]*"},
  };
  for (const auto& c : kCases) {
    Str p(c.in);
    XMLAndStringUtil::toRegex(p, false);
    EXPECT_EQ(c.out, p) << c.in;
    Str q(c.in);
    XMLAndStringUtil::toRegex(q, true);
    EXPECT_EQ(p, q) << c.in;
  }
}

TEST(ToRegex, ConvertedPatternsMatchWhatTheyShould) {
  const struct {
    const char* pattern;
    const char* subject;
    bool matches;
  } kCases[] = {
      {"*.log", "app.log", true},
      {"*.log", "dir/app.log", false},   // "*" stays inside one directory
      {"*.log", "appXlog", false},       // "." is literal
      {"/var/.../*.log", "/var/a/b/c.log", true},
      {"/var/.../*.log", "/var/c.log", false},
      {"/var/...", "/var/a/b", true},
      {"web0[12]*", "web02.example", true},
      {"web0[12]*", "web03", false},
  };
  for (const auto& c : kCases) {
    Str p(c.pattern);
    XMLAndStringUtil::toRegex(p, true);
    EXPECT_EQ(c.matches, Regex(p).matchesWhole(c.subject)) << c.pattern << " ~ " << c.subject;
  }
}

TEST(Md5, KnownDigestsAndTheirHalves) {
  const struct {
    const char* in;
    const char* hex;
  } kCases[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.hex, XMLAndStringUtil::md5(c.in)) << c.in;
    EXPECT_EQ(strtoull(std::string(c.hex, 16).c_str(), nullptr, 16),
              XMLAndStringUtil::halfMd5OfStr(c.in))
        << c.in;
  }
  EXPECT_EQ("93b885adfe0da089cdf634904fd59f71", XMLAndStringUtil::md5(Str("\0", 1)));
}

// md5sum is the oracle for files of several sizes, read from where the
// descriptor stands.
TEST(Md5, FileDigestMatchesMd5sum) {
  TestTempDir dir;
  std::mt19937 rng(3);
  for (size_t size : {0ul, 1ul, 65535ul, 65536ul, 65537ul, 300000ul}) {
    std::string bytes(size, '\0');
    for (char& b : bytes) b = static_cast<char>(rng());
    const Pathname path = dir / "f";
    writeTestFile(path, bytes);
    const std::string sum = runOver("md5sum", bytes).substr(0, 32);
    ScopedFileDescriptor fd(path.openReadOnly());
    Str hex("old");
    ASSERT_TRUE(XMLAndStringUtil::md5HashHex(fd, hex));
    EXPECT_EQ(sum, hex) << size;
    EXPECT_EQ(XMLAndStringUtil::md5(Str(bytes)), hex) << size;
    if (size > 1) {
      ASSERT_TRUE(fd.seek_set(1));
      ASSERT_TRUE(XMLAndStringUtil::md5HashHex(fd, hex));
      EXPECT_EQ(XMLAndStringUtil::md5(Str(bytes.substr(1))), hex) << size;
    }
  }
  Str untouched("old");
  ScopedFileDescriptor dirFd(dir.path().openReadOnly());
  EXPECT_FALSE(XMLAndStringUtil::md5HashHex(dirFd, untouched));
  EXPECT_EQ(EISDIR, errno);
  EXPECT_EQ("old", untouched);
}

TEST(XmlOutput, EachValueKind) {
  Str out;
  XMLAndStringUtil::xmlOutput(out, "a<b", Str("x & y"));
  XMLAndStringUtil::xmlOutput(out, "lit", "v");
  XMLAndStringUtil::xmlOutput(out, "on", true);
  XMLAndStringUtil::xmlOutput(out, "off", false);
  XMLAndStringUtil::xmlOutput(out, "list", StrVector{"1", "<2>"});
  XMLAndStringUtil::xmlOutput(out, "none", StrVector{});
  XMLAndStringUtil::xmlOutput(out, "maps",
                              XMLAndStringUtil::MapVector{{{"k", "v"}, {"a", "\"q\""}}, {}});
  EXPECT_EQ(
      "<key name=\"a&lt;b\">x &amp; y</key>\n"
      "<key name=\"lit\">v</key>\n"
      "<key name=\"on\">1</key>\n"
      "<key name=\"off\">0</key>\n"
      "<key name=\"list\">\n\t<list>\n\t\t<item>1</item>\n\t\t<item>&lt;2&gt;</item>\n\t</list>\n"
      "</key>\n"
      "<key name=\"none\">\n\t<list>\n\t</list>\n</key>\n"
      "<key name=\"maps\">\n\t<list>\n"
      "\t\t<item>\n\t\t\t<dict>\n"
      "\t\t\t\t<key name=\"a\">&quot;q&quot;</key>\n"
      "\t\t\t\t<key name=\"k\">v</key>\n"
      "\t\t\t</dict>\n\t\t</item>\n"
      "\t\t<item>\n\t\t\t<dict>\n\t\t\t</dict>\n\t\t</item>\n"
      "\t</list>\n</key>\n",
      out);
  // The whole is well formed once wrapped, and reads back.
  const Str wrapped(std::string("<r>") + std::string(out) + "</r>");
  XmlDocument doc(StrSegment(wrapped), nullptr, false, false);
  ASSERT_FALSE(doc.empty()) << doc.error();
  EXPECT_EQ("x & y", doc.get_root().begin().toStr(""));
}

TEST(JsonOutput, EachValueKindAndAJsonReaderAgrees) {
  Str out;
  XMLAndStringUtil::jsonOutput(out, "a\"b", Str("x\ny"));
  XMLAndStringUtil::jsonOutput(out, "lit", "v");
  XMLAndStringUtil::jsonOutput(out, "on", true);
  XMLAndStringUtil::jsonOutput(out, "off", false);
  XMLAndStringUtil::jsonOutput(out, "list", StrVector{"1", "\\2"});
  XMLAndStringUtil::jsonOutput(out, "none", StrVector{});
  XMLAndStringUtil::jsonOutput(out, "maps",
                               XMLAndStringUtil::MapVector{{{"k", "v"}, {"a", "\"q\""}}, {}});
  const std::string want =
      "\"a\\\"b\": \"x\\ny\",\n"
      "\"lit\": \"v\",\n"
      "\"on\": true,\n"
      "\"off\": false,\n"
      "\"list\": [\"1\", \"\\\\2\"],\n"
      "\"none\": [],\n"
      "\"maps\": [{\"a\": \"\\\"q\\\"\", \"k\": \"v\"}, {}],\n";
  EXPECT_EQ(want, out);
  const std::string obj = "{" + want.substr(0, want.size() - 2) + "}";
  const std::string back = runOver(
      "python3 -c 'import sys, json; d = json.load(sys.stdin); "
      "print(repr(sorted(d.items())))'",
      obj);
  if (back.empty()) GTEST_SKIP() << "python3 is not available";
  EXPECT_EQ(
      "[('a\"b', 'x\\ny'), ('list', ['1', '\\\\2']), ('lit', 'v'), "
      "('maps', [{'a': '\"q\"', 'k': 'v'}, {}]), ('none', []), ('off', False), ('on', True)]\n",
      back);
}

TEST(Tokenize, LiteSplitsOnBlanksOnly) {
  const struct {
    const char* in;
    std::vector<std::string> out;
  } kCases[] = {
      {"a b\tc\nd\r\ne", {"a", "b", "c", "d", "e"}},
      {"  lead  and  trail  ", {"lead", "and", "trail"}},
      {"\"no quoting\"", {"\"no", "quoting\""}},
      {"", {}},
      {" \t ", {}},
  };
  for (const auto& c : kCases) {
    StrVector out{"kept"};
    XMLAndStringUtil::liteTokenize(c.in, out);
    std::vector<std::string> want{"kept"};
    want.insert(want.end(), c.out.begin(), c.out.end());
    EXPECT_EQ(want, std::vector<std::string>(out.begin(), out.end())) << c.in;
  }
}

TEST(Tokenize, StringFormHonoursQuotes) {
  const struct {
    const char* in;
    std::vector<std::string> out;
  } kCases[] = {
      {"a \"b c\"d \\\"e", {"a", "b cd", "\\\"e"}},
      {"\"\"", {""}},                              // an empty quoted token is a token
      {"x\"\"y", {"xy"}},
      {"a\\ b", {"a\\ b"}},                      // outside quotes: kept, blank too
      {"\"a\\\"b\" \"c\\\\\"", {"a\"b", "c\\"}},
      {"  one\ttwo  ", {"one", "two"}},
      {"", {}},
  };
  for (const auto& c : kCases) {
    StrVector out;
    EXPECT_TRUE(XMLAndStringUtil::tokenizeString(c.in, out)) << c.in;
    EXPECT_EQ(c.out, std::vector<std::string>(out.begin(), out.end())) << c.in;
  }
  for (const char* bad : {"\"open", "a \"b", "\"ends in escape\\"}) {
    StrVector out{"kept"};
    EXPECT_FALSE(XMLAndStringUtil::tokenizeString(bad, out)) << bad;
    EXPECT_EQ(1u, out.size()) << bad;
  }
}

TEST(Join, SeparatesValues) {
  EXPECT_EQ("", XMLAndStringUtil::join(StrVector{}, ", "));
  EXPECT_EQ("a", XMLAndStringUtil::join(StrVector{"a"}, ", "));
  EXPECT_EQ("a, , c", XMLAndStringUtil::join(StrVector{"a", "", "c"}, ", "));
  // Tokenising a join of blank-free values gives them back.
  const StrVector values{"x", "y1", "z&"};
  StrVector back;
  XMLAndStringUtil::liteTokenize(XMLAndStringUtil::join(values, " \t "), back);
  EXPECT_EQ(values, back);
}

}  // namespace
