// Ini files as a new user meets them: the kinds of line and their warnings,
// what a rewrite keeps and normalises, the failures of flush, erase, merge,
// iniwrite, and the encodings with their marks.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "libbundle/IniFile.h"
#include "libbundle/IniFileParser.h"
#include "util/FileStar.h"
#include "util/WritableUnicodeFileStar.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/TestText.h"

namespace {

// The stanza names in file order.
std::vector<std::string> stanzaNames(const IniFile& ini) {
  std::vector<std::string> out;
  for (auto it = ini.stanzas().begin(); it != ini.stanzas().end(); ++it) {
    out.push_back(std::string(it.key()));
  }
  return out;
}

// "key=value" for each setting of `stanza`, in file order, keys as stored.
std::vector<std::string> settingsOf(const IniStanza& stanza) {
  std::vector<std::string> out;
  for (auto it = stanza.settings().begin(); it != stanza.settings().end(); ++it) {
    out.push_back(std::string(it.key()) + "=" + std::string(it.value().value()));
  }
  return out;
}

// The names in directory `dir`, sorted.
std::vector<std::string> leavesOf(const TestTempDir& dir) {
  std::vector<std::string> out;
  for (const auto& e : std::filesystem::directory_iterator(std::string(dir.path()))) {
    out.push_back(e.path().filename().string());
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> lines(const StrVector& v) { return {v.begin(), v.end()}; }

// Parses `bytes` from a file named `leaf` in `dir`.
void parseBytes(const TestTempDir& dir, const char* leaf, const std::string& bytes,
                IniFile& ini) {
  const Pathname path = dir / leaf;
  writeTestFile(path, bytes);
  ini.fromPath(path);
}

// What a rewrite of `bytes` writes.
std::string rewrite(const std::string& bytes) {
  ScopedLogCapture quiet("IniFile");
  TestTempDir dir;
  IniFile ini;
  parseBytes(dir, "in.conf", bytes, ini);
  const Pathname out = dir / "out.conf";
  EXPECT_TRUE(ini.flushToPath(out)) << printable(bytes);
  return readTestFile(out);
}

// The log lines of channel "IniFile" that contain `needle`.
std::vector<std::string> linesWith(const ScopedLogCapture& log, const std::string& needle) {
  std::vector<std::string> out;
  for (const std::string& l : log.lines()) {
    if (l.find(needle) != std::string::npos) out.push_back(l);
  }
  return out;
}

std::string utf16le(const std::string& ascii) {
  std::string out;
  for (char c : ascii) {
    out += c;
    out += '\0';
  }
  return out;
}

std::string utf16be(const std::string& ascii) {
  std::string out;
  for (char c : ascii) {
    out += '\0';
    out += c;
  }
  return out;
}

std::string utf32le(const std::string& ascii) {
  std::string out;
  for (char c : ascii) out += std::string(1, c) + std::string(3, '\0');
  return out;
}

}  // namespace

TEST(IniFileParserReview, ClassifiesEachKindOfLine) {
  using P = IniFileParser;
  const struct {
    const char* bytes;
    P::LineType type;
    const char* line;  // null: not checked
    const char* name;
    const char* value;
  } kCases[] = {
      {" \t \r\n", P::LINE_BLANK, nullptr, "", ""},
      {"  # c\n", P::LINE_COMMENT, "  # c", "", ""},
      {"  [s]  \n", P::LINE_HEADER, nullptr, "s", ""},
      {"[ s ]\n", P::LINE_HEADER, nullptr, " s ", ""},  // the name is not trimmed
      {" k = v \n", P::LINE_SETTING, nullptr, " k ", " v "},
      {"k==v\n", P::LINE_SETTING, nullptr, "k", "=v"},
      {"a\\\\b=1\n", P::LINE_SETTING, nullptr, "a\\b", "1"},
      {"\\\\=v\n", P::LINE_SETTING, nullptr, "\\", "v"},
      {"k=a\\=b\n", P::LINE_SETTING, nullptr, "k", "a\\=b"},  // the value keeps its escapes
      {"\\[k=v\n", P::LINE_SETTING, nullptr, "[k", "v"},  // an escaped "[" is no header
      {"k=v=w\n", P::LINE_SETTING, nullptr, "k", "v=w"},
      {"k=a\\\nb\\\nc\n", P::LINE_SETTING, nullptr, "k", "a\nb\nc"},
      {"k=v\\\\\nj=1\n", P::LINE_SETTING, nullptr, "k", "v\\\nj=1"},  // an escaped "\" still continues
      {"k=a\\\r\nb\n", P::LINE_SETTING, nullptr, "k", "a\nb"},
      {" \r[s]\n", P::LINE_HEADER, nullptr, "s", ""},  // CR is no significant character
      {"\r#c\n", P::LINE_COMMENT, "\r#c", "", ""},
      {"\rk=v\n", P::LINE_SETTING, nullptr, "\rk", "v"},  // the key keeps what precedes it
      {"k\\\n=v\n", P::LINE_SETTING, nullptr, "k\n", "v"},  // escaped joined newline
      {"k=v\r", P::LINE_SETTING, nullptr, "k", "v"},  // a CR at the very end is cut
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.bytes));
    TestTempDir dir;
    const Pathname path = dir / "a.conf";
    writeTestFile(path, c.bytes);
    ScopedFileStar f(path, "r");
    ASSERT_TRUE(f.valid());
    ScopedLogCapture log("IniFile");
    IniFileParser parser(f, path);
    Str line, name, value;
    EXPECT_EQ(c.type, parser.getLineType(line, name, value));
    EXPECT_EQ("", log.text());
    if (c.line != nullptr) {
      EXPECT_EQ(std::string(c.line), std::string(line));
    }
    if (c.type == P::LINE_HEADER || c.type == P::LINE_SETTING) {
      EXPECT_EQ(std::string(c.name), std::string(name));
    }
    if (c.type == P::LINE_SETTING) {
      EXPECT_EQ(std::string(c.value), std::string(value));
    }
  }
}

TEST(IniFileParserReview, LineThatIsNoSettingIsBlankWithBackslashesRemoved) {
  const struct {
    const char* bytes;
    const char* line;
  } kCases[] = {
      {"a\\b c\n", "ab c"},
      {"a\\\\b\n", "a\\b"},
      {"\\=x\n", "=x"},  // the "=" lost its meaning
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.bytes));
    TestTempDir dir;
    const Pathname path = dir / "a.conf";
    writeTestFile(path, c.bytes);
    ScopedFileStar f(path, "r");
    ScopedLogCapture log("IniFile");
    IniFileParser parser(f, path);
    Str line, name, value;
    EXPECT_EQ(IniFileParser::LINE_BLANK, parser.getLineType(line, name, value));
    EXPECT_EQ(c.line, line);
    EXPECT_EQ(IniFileParser::LINE_EOF, parser.getLineType(line, name, value));
    EXPECT_EQ("WARN " + std::string(path) + ", line 1: Cannot parse into key-value pair: " +
                  c.line + "\n",
              log.text());
  }
}

TEST(IniFileReview, WarningsCarryPathLineAndExactText) {
  const struct {
    const char* leaf;
    const char* bytes;
    const char* expected;  // after "WARN <path>"; null: nothing logged
  } kCases[] = {
      {"a.conf", "[s]\nfo\\o bar\n", ", line 2: Cannot parse into key-value pair: foo bar"},
      {"a.meta", "junk\n", ", line 1: Cannot parse into key-value pair: junk"},
      {"a.spec", "[s]\nfoo\n", nullptr},
      {"spec", "foo\n", ", line 1: Cannot parse into key-value pair: foo"},  // no extension
      {"a.spec", "[s]\nab\\c\n", ", line 2: Cannot end on an escape character: abc"},
      {"a.spec", "[abc\n", ", line 1: Stanza header is missing terminator: [abc"},
      {"a.conf", "[s]\nfoo\\\nbar\n", ", line 3: Cannot parse into key-value pair: foo\nbar"},
      {"a.spec.conf", "foo\n", ", line 1: Cannot parse into key-value pair: foo"},
      {"d.spec/a.conf", "foo\n", ", line 1: Cannot parse into key-value pair: foo"},
      {"a.conf", "[s]\nk= 2 \nk=3\n",
       ", line 3: Key used more than once in the same stanza: k: 3"},
      {"a.conf", "[s]\nk=1\nk= 2 \n",
       ", line 3: Key used more than once in the same stanza: k:  2 "},
      {"a.conf", "[s]\nk=1\nk=a\\\nb\n",
       ", line 4: Key used more than once in the same stanza: k: a\nb"},
      {"a.conf", "[s]\nk=1\n[t]\n[s]\nk=2\n",
       ", line 5: Key used more than once in the same stanza: k: 2"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.bytes);
    TestTempDir dir;
    ScopedLogCapture log("IniFile");
    IniFile ini;
    parseBytes(dir, c.leaf, c.bytes, ini);
    const std::string expected =
        c.expected == nullptr ? "" : "WARN " + std::string(dir / c.leaf) + c.expected + "\n";
    EXPECT_EQ(printable(expected), printable(log.text()));
  }
}

TEST(IniFileReview, DuplicateKeyKeepsFirstValueAndComments) {
  ScopedLogCapture quiet("IniFile");
  TestTempDir dir;
  IniFile ini;
  parseBytes(dir, "a.conf", "[s]\n# one\nk = 1\n# two\n k=2\n", ini);
  const IniSetting* k = ini.findStanza("s")->find("k");
  ASSERT_NE(nullptr, k);
  EXPECT_EQ(" 1", k->value());
  EXPECT_EQ(std::vector<std::string>{"# one"}, lines(k->comments()));
  EXPECT_EQ(1u, ini.findStanza("s")->settings().size());
  EXPECT_EQ("[s]\n# one\nk = 1\n", rewrite("[s]\n# one\nk = 1\n# two\n k=2\n"));
}

TEST(IniFileReview, RewriteKeepsAndNormalises) {
  const struct {
    const char* in;
    const char* out;
  } kCases[] = {
      {"[s]\nk=v\n[t]\nj=w\n", "[s]\nk = v\n\n[t]\nj = w\n"},
      {"[s]\n\n[t]\n", "[s]\n\n[t]\n"},  // a stanza with a comment line gets no extra gap
      {"# h\n[s]\n", "# h\n[s]\n"},
      {"[s]\n  k \t=\t v  \n", "[s]\nk = v\n"},
      {"[s]\nk=   \n", "[s]\nk = \n"},
      {"[s]\na\\\\b=1\n", "[s]\na\\\\b = 1\n"},
      {"[s]\npath=c:\\dir\n", "[s]\npath = c:\\dir\n"},
      {"[s]\nc:\\dir=1\n", "[s]\nc:dir = 1\n"},
      {"[s]\r\nk=a\rb\r\n", "[s]\nk = a\\\rb\n"},
      {"  [s]  junk\n", "[s]\n"},
      {"[s]\n\\#k=v\n", "[s]\n#k = v\n"},  // only "=", "[" and backslash are escaped
      {"[s]\n# a\rb\n", "[s]\n# a\rb\n"},   // comments go out verbatim
      {"[s]\na[b]=1\n", "[s]\na\\[b] = 1\n"},
      {"[s]\nk= v\r\r\n", "[s]\nk = v\\\r\n"},  // the CR left in the value is escaped
      {"junk\n[s]\n", "junk\n[s]\n"},
      {" \r[s]\n\rk=v\n", "[s]\n\\\rk = v\n"},  // the CR ahead of the key is a line break
      {"k\\", "k\n\n"},                          // no setting: kept with its joined newline
      {"a=1\n# c\n[s]\n", "[default]\na = 1\n# c\n[s]\n"},
      {"[s]\nfoo\nk=v\n", "[s]\nfoo\nk = v\n"},
      {"[s]\nfo\\o\n", "[s]\nfoo\n"},
      {"a=1\n[default]\nb=2\n", "[default]\na = 1\nb = 2\n"},
      {"[s]\nk=v\n\n# end\n", "[s]\nk = v\n\n# end\n"},
      {"\xEF\xBB\xBF[s]\nk=\xC3\xA9\n", "\xEF\xBB\xBF[s]\nk = \xC3\xA9\n"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(printable(c.out), printable(rewrite(c.in))) << printable(c.in);
  }
}

TEST(IniFileReview, RewriteThenReadGivesTheSameSettings) {
  const char* const kFiles[] = {
      "[s]\nk=one\\\ntwo\n",
      "[s]\n a\\=b = c \n\\[x=1\n",
      "[s]\nk=v\\",
      "x=1\n[t]\ny=\n",
      "[a\\\nb]\nk\\\n=v\n",
  };
  for (const char* in : kFiles) {
    SCOPED_TRACE(printable(in));
    TestTempDir dir;
    IniFile first;
    parseBytes(dir, "a.conf", in, first);
    ASSERT_TRUE(first.flushToPath(dir / "b.conf"));
    IniFile second(dir / "b.conf");
    ASSERT_EQ(stanzaNames(first), stanzaNames(second));
    for (auto it = first.stanzas().begin(); it != first.stanzas().end(); ++it) {
      const IniStanza* other = second.findStanza(it.key());
      ASSERT_NE(nullptr, other);
      ASSERT_EQ(it.value().settings().size(), other->settings().size());
      for (auto s = it.value().settings().begin(); s != it.value().settings().end(); ++s) {
        const IniSetting* o = other->find(s.key());
        ASSERT_NE(nullptr, o) << s.key();
        EXPECT_EQ(Str(StrSegment(s.value().value()).trim()), Str(StrSegment(o->value()).trim()));
      }
    }
  }
}

TEST(IniFileReview, EncodingDetectionAtItsEdges) {
  const struct {
    const char* label;
    std::string bytes;
    FileEncoding encoding;
  } kCases[] = {
      {"utf32le mark, group above 10FFFF",
       std::string("\xFF\xFE\0\0\x41\0\0\0\x42\0\0\0\0\0\x11\0", 16),
       FILE_ENCODING_UTF16LE | FILE_ENCODING_HAS_BOM},
      {"utf16le mark alone", "\xFF\xFE", FILE_ENCODING_UTF16LE | FILE_ENCODING_HAS_BOM},
      {"utf32le mark, 4 bytes", std::string("\xFF\xFE\0\0", 4),
       FILE_ENCODING_UTF16LE | FILE_ENCODING_HAS_BOM},
      {"utf32le mark, surrogate group", std::string("\xFF\xFE\0\0\x41\0\0\0\0\xD8\0\0", 12),
       FILE_ENCODING_UTF32LE | FILE_ENCODING_HAS_BOM},  // only the 10FFFF bound counts
      {"utf32le mark, 10FFFF group", std::string("\xFF\xFE\0\0\x41\0\0\0\xFF\xFF\x10\0", 12),
       FILE_ENCODING_UTF32LE | FILE_ENCODING_HAS_BOM},
      // 32 units: more than 21 odd and fewer than 16 even zeros.
      {"64 bytes, 22 odd and 15 even zeros", utf16le(std::string(7, 'a')) +
                                                 std::string(30, '\0') + std::string(20, 'b'),
       FILE_ENCODING_UTF16LE},
      {"64 bytes, 21 odd zeros", utf16le(std::string(6, 'a')) + std::string(30, '\0') +
                                     std::string(22, 'b'),
       FILE_ENCODING_UTF8},
      {"64 bytes, 16 even zeros", utf16le(std::string(6, 'a')) + std::string(32, '\0') +
                                      std::string(20, 'b'),
       FILE_ENCODING_UTF8},
      // Only the first 64 bytes count.
      {"utf16 read-ahead then ascii", utf16le(std::string(32, 'a')) + std::string(200, 'b'),
       FILE_ENCODING_UTF16LE},
      {"ascii read-ahead then utf16", std::string(64, 'a') + utf16le(std::string(200, 'b')),
       FILE_ENCODING_UTF8},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.label);
    TestTempDir dir;
    IniFile ini;
    parseBytes(dir, "a.spec", c.bytes, ini);  // .spec: no warnings for odd lines
    EXPECT_EQ(c.encoding, ini.getFileEncoding());
    EXPECT_EQ(c.encoding,
              detectFileEncoding(reinterpret_cast<const unsigned char*>(c.bytes.data()),
                                 std::min<size_t>(c.bytes.size(), FILE_ENCODING_READ_AHEAD)));
  }
}

TEST(IniFileReview, StoredEncodingBelowUtf8BecomesUtf8KeepingTheFlag) {
  const struct {
    FileEncoding given;
    FileEncoding after;
    std::string bytes;
  } kCases[] = {
      {FILE_ENCODING_UNKNOWN, FILE_ENCODING_UTF8, "[s]\nk = v\n"},
      {FILE_ENCODING_EMPTY, FILE_ENCODING_UTF8, "[s]\nk = v\n"},
      {FILE_ENCODING_UNKNOWN | FILE_ENCODING_HAS_BOM, FILE_ENCODING_UTF8 | FILE_ENCODING_HAS_BOM,
       "\xEF\xBB\xBF[s]\nk = v\n"},
      {FILE_ENCODING_UTF16BE, FILE_ENCODING_UTF16BE, utf16be("[s]\nk = v\n")},
      {FILE_ENCODING_UTF32LE | FILE_ENCODING_HAS_BOM, FILE_ENCODING_UTF32LE | FILE_ENCODING_HAS_BOM,
       std::string("\xFF\xFE\0\0", 4) + utf32le("[s]\nk = v\n")},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.given);
    TestTempDir dir;
    IniFile ini;
    ini.set("s", "k", "v");
    ini.setFileEncoding(c.given);
    ASSERT_TRUE(ini.flushToPath(dir / "b.conf"));
    EXPECT_EQ(c.after, ini.getFileEncoding());
    EXPECT_EQ(printable(c.bytes), printable(readTestFile(dir / "b.conf")));
  }
}

TEST(IniFileReview, MarkOnlyFileRewritesItsMark) {
  TestTempDir dir;
  IniFile ini;
  parseBytes(dir, "a.conf", "\xFF\xFE", ini);
  ASSERT_TRUE(ini.flushToPath(dir / "b.conf"));
  EXPECT_EQ(printable("\xFF\xFE"), printable(readTestFile(dir / "b.conf")));
}

TEST(IniFileReview, FlushThatCannotWriteLeavesTheFileAlone) {
  TestTempDir dir;
  IniFile ini;
  parseBytes(dir, "a.conf", "[s]\nk=1\n", ini);
  ini.set("s", "k", "2");
  ini.setFileEncoding(9);  // no engine: the temporary file opens, its stream does not
  ScopedLogCapture log("IniFile");
  EXPECT_FALSE(ini.flush());
  EXPECT_EQ("[s]\nk=1\n", readTestFile(dir / "a.conf"));
  EXPECT_EQ(1u, linesWith(log, "ERROR Error while writing to: " + (dir / "a.conf")).size())
      << log.text();
  EXPECT_EQ(std::vector<std::string>{"a.conf"}, leavesOf(dir));  // no temporary file left

  IniFile lost;
  lost.set("s", "k", "v");
  lost.setPath(dir / "gone/a.conf");
  EXPECT_FALSE(lost.flush());
  EXPECT_EQ(1u, linesWith(log, "ERROR Error while writing to: " + (dir / "gone/a.conf")).size())
      << log.text();
}

TEST(IniFileReview, EraseTable) {
  const struct {
    const char* in;
    const char* name;
    bool ok;
    const char* out;
  } kCases[] = {
      {"[a]\nk=1\n\n# c\n\n[b]\nj=2\n", "a", true, "# c\n[b]\nj = 2\n"},
      {"[a]\nk=1\n\n[b]\n\n[c]\n", "b", true, "[a]\nk = 1\n\n[c]\n"},
      {"# h\n[a]\n[b]\n# t\n", "b", true, "# h\n[a]\n# t\n"},
      {"x=1\n\n[b]\ny=2\n", "default", true, "[b]\ny = 2\n"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.in));
    TestTempDir dir;
    IniFile ini;
    parseBytes(dir, "a.conf", c.in, ini);
    EXPECT_EQ(c.ok, ini.erase(c.name));
    EXPECT_EQ(nullptr, ini.findStanza(c.name));
    ASSERT_TRUE(ini.flushToPath(dir / "b.conf"));
    EXPECT_EQ(printable(c.out), printable(readTestFile(dir / "b.conf")));
  }
}

TEST(IniStanzaReview, HeaderRemoveLeadingNewlinesDropsOnlyEmptyStrings) {
  IniStanza s(StrVector{"", "  ", "# a", "", "\t", ""});
  s.headerRemoveLeadingNewlines();
  EXPECT_EQ(std::vector<std::string>({"  ", "# a", "\t"}), lines(s.comments()));
}

TEST(IniStanzaReview, InsertKeepsAnExistingKey) {
  IniStanza s;
  EXPECT_TRUE(s.insert(" k ", "1").second);
  const auto again = s.insert("k", "2");
  EXPECT_FALSE(again.second);
  EXPECT_EQ(" k ", again.first.key());
  EXPECT_EQ("1", again.first.value().value());
  EXPECT_EQ(std::vector<std::string>{" k =1"}, settingsOf(s));
}

TEST(IniFileReview, MergeCopiesAWholeStanzaIndependently) {
  TestTempDir dir;
  IniFile mine;
  IniFile other;
  parseBytes(dir, "other.conf", "[t]\n x =1\n", other);
  mine.merge(other);
  // A stanza the receiver lacked is a full copy: its keys as written.
  EXPECT_EQ(std::vector<std::string>{" x =1"}, settingsOf(*mine.findStanza("t")));
  other.findStanza("t")->find("x")->setValue("changed");
  EXPECT_EQ("1", *mine.getValue("t", "x"));
}

TEST(IniFileReview, WarningsOfAFileReadFromAHandleNameTheGivenPath) {
  TestTempDir dir;
  const Pathname path = dir / "named.conf";
  writeTestFile(dir / "real.spec", "# h\n[s]\nk=v\nfoo\n");
  ScopedLogCapture log("IniFile");
  ScopedFileStar f(dir / "real.spec", "r");
  IniFile ini(f, path);  // the given name, not the file's, decides about .spec
  EXPECT_EQ("v", *ini.getValue("s", "k"));
  EXPECT_EQ(std::vector<std::string>{"WARN " + path +
                                     ", line 4: Cannot parse into key-value pair: foo"},
            log.lines());
}

TEST(IniFileReview, IniwriteFlags) {
  const struct {
    const char* text;
    unsigned flags;
    const char* out;
  } kCases[] = {
      {"", 0, ""},
      {"", 3, "\n"},
      {"a\r\nb", 1, "a\\\r\nb"},
      {"a\n", 3, "a\\\n\n"},
      {"a\n\r", 1, "a\\\n\\\r"},
      {"\r\r\n", 1, "\\\r\\\r\n"},
      {"\r\n\n", 3, "\\\r\n\\\n\n"},
      {"\n\n", 1, "\\\n\\\n"},
      {"a\\b", 3, "a\\b\n"},  // backslashes that break no line are left alone
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(printable(c.text));
    TestTempDir dir;
    const Pathname path = dir / "w";
    {
      ScopedFileStar f(path, "w");
      ASSERT_TRUE(f.valid());
      WritableUnicodeFileStar out(f, FILE_ENCODING_UTF8);
      EXPECT_TRUE(IniFile::iniwrite(out, c.text, c.flags));
      EXPECT_TRUE(out.flush());
    }
    EXPECT_EQ(printable(c.out), printable(readTestFile(path)));
  }
}

TEST(IniFileReview, IniwriteReportsAFailedWrite) {
  ScopedFileStar f("/dev/full", "w");
  ASSERT_TRUE(f.valid());
  setvbuf(f.get(), nullptr, _IONBF, 0);
  WritableUnicodeFileStar out(f, FILE_ENCODING_UTF8);
  EXPECT_FALSE(IniFile::iniwrite(out, "text", 2));
}
