#include "libbundle/IniFile.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <vector>

#include "libbundle/IniFileParser.h"
#include "util/WritableUnicodeFileStar.h"
#include "util/testing/IconvOracle.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/TestText.h"

namespace {

// The content of an ini file on one line per item, so a table can show it:
//   H:<line>  [name]  C:<comment>  k=<key>|<value>  T:<line>
std::string describe(const IniFile& ini) {
  std::string out;
  for (const Str& l : ini.fileHeaderLines()) out += "H:" + l + "\n";
  for (auto st = ini.stanzas().begin(); st != ini.stanzas().end(); ++st) {
    for (const Str& l : st.value().comments()) out += "C:" + l + "\n";
    out += "[" + st.key() + "]\n";
    const auto& settings = st.value().settings();
    for (auto s = settings.begin(); s != settings.end(); ++s) {
      for (const Str& l : s.value().comments()) out += "C:" + l + "\n";
      out += "k=" + s.key() + "|" + s.value().value() + "\n";
    }
  }
  for (const Str& l : ini.fileTrailerLines()) out += "T:" + l + "\n";
  return out;
}

IniFile parse(const Pathname& path, const std::string& bytes) {
  writeTestFile(path, bytes);
  return IniFile(path);
}

// Warnings and errors as logged, without the path in front.
std::vector<std::string> messages(const ScopedLogCapture& log, const Pathname& path) {
  std::vector<std::string> out;
  for (std::string line : log.lines()) {
    for (size_t at; (at = line.find(path)) != std::string::npos;) line.replace(at, path.size(), "P");
    out.push_back(line);
  }
  return out;
}

TEST(IniFile, BuildsStanzasSettingsAndCommentBlocks) {
  const struct {
    std::string text;
    std::string want;
    size_t warnings;
  } kCases[] = {
      {"", "", 0},
      {"# a\n\n; b\n", "H:# a\nH:\nH:; b\n", 0},  // comments only: all header
      {"a=1\n", "[default]\nk=a|1\n", 0},
      {"# top\n\n[s]\n# about k\nk = 1\n\n# tail\n",
       "H:# top\nH:\n[s]\nC:# about k\nk=k | 1\nT:\nT:# tail\n", 0},
      // A repeated header joins the first stanza and its comments are lost.
      {"[s]\nk=1\n[t]\n# gone\n[s]\nk=2\nj=3\n", "[s]\nk=k|1\nk=j|3\n[t]\n", 1},
      {"[s]\nk = 1\n k=2\n", "[s]\nk=k | 1\n", 1},
      {"[s]\na\\=b=c\n", "[s]\nk=a=b|c\n", 0},
      {"[s]\npath=c:\\dir\nc:\\dir=1\n", "[s]\nk=path|c:\\dir\nk=c:dir|1\n", 0},
      {"[s]\nk=one\\\ntwo\n", "[s]\nk=k|one\ntwo\n", 0},
      {"[s]\nk=v\\", "[s]\nk=k|v\n\n", 0},  // continued into the end
      {"[s]\n# note\\\nk=v\n", "[s]\nC:# note\\\nk=k|v\n", 0},
      {"[a]b]\n[x]=1\n", "[a]b]\n[x]\n", 0},
      {"[open\nk=v\n", "[open]\nk=k|v\n", 1},
      {"   \n[s]\n", "H:   \n[s]\n", 0},
      {"[s]\r\nk=v\r\n\r\n", "[s]\nk=k|v\nT:\n", 0},
      {"[s]\nk=a\rb\n", "[s]\nk=k|a\rb\n", 0},  // a lone CR stays
      {"[s]\nno equals here\nk=v\n", "[s]\nC:no equals here\nk=k|v\n", 1},
      {"[s]\nx\\yz\nk=v\n", "[s]\nC:xyz\nk=k|v\n", 1},
      // The escape takes the line's last character: two warnings.
      {"[s]\nab\\c\n", "[s]\nT:abc\n", 2},  // kept, here as trailer
      {"[s]\n=v\n", "[s]\nk=|v\n", 0},
      {"[]\nk=v\n", "[]\nk=k|v\n", 0},
      {"[s]\n[a\\\nb]\nk=v\n", "[s]\n[a\nb]\nk=k|v\n", 0},
  };
  TestTempDir dir;
  const Pathname path = dir / "t.conf";
  for (const auto& c : kCases) {
    ScopedLogCapture log("IniFile");
    const IniFile ini = parse(path, c.text);
    EXPECT_EQ(c.want, describe(ini)) << printable(c.text);
    EXPECT_EQ(c.warnings, log.lines().size()) << printable(c.text) << "\n" << log.text();
    EXPECT_TRUE(ini.isOpened());
  }
}

TEST(IniFile, SpecFilesTakeNonSettingsSilently) {
  TestTempDir dir;
  ScopedLogCapture log("IniFile");
  const IniFile spec = parse(dir / "inputs.conf.spec", "[s]\n* a line of prose\nk=<string>\n");
  EXPECT_EQ("[s]\nC:* a line of prose\nk=k|<string>\n", describe(spec));
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

// Every row of the failure table, with its exact text and level.
TEST(IniFile, EachFailureIsLoggedWithItsText) {
  TestTempDir dir;
  const Pathname path = dir / "f.conf";
  {
    ScopedLogCapture log("IniFile");
    parse(path, "[open\n[s]\nab\\c\nplain\nk=1\nk=2\n");
    EXPECT_EQ(std::vector<std::string>({
                  "WARN P, line 1: Stanza header is missing terminator: [open",
                  "WARN P, line 3: Cannot end on an escape character: abc",
                  "WARN P, line 3: Cannot parse into key-value pair: abc",
                  "WARN P, line 4: Cannot parse into key-value pair: plain",
                  "WARN P, line 6: Key used more than once in the same stanza: k: 2",
              }),
              messages(log, path));
  }
  {
    ScopedLogCapture log("IniFile");
    const IniFile missing(dir / "absent.conf");
    EXPECT_FALSE(missing.isOpened());
    EXPECT_TRUE(missing.stanzas().empty());
    EXPECT_EQ(std::vector<std::string>({"ERROR Cannot open ini file for parsing: "
                                        "No such file or directory"}),
              log.lines());
  }
  {
    ScopedLogCapture log("IniFile");
    IniFile noPath;
    EXPECT_FALSE(noPath.flush());
    EXPECT_EQ(std::vector<std::string>({"ERROR No destination set for IniFile flush"}),
              log.lines());
  }
  IniFile ini = parse(path, "[s]\nk=v\n");
  {
    ScopedLogCapture log("IniFile");
    ini.setPath(dir / "no-such-dir" / "x.conf");
    EXPECT_FALSE(ini.flush());
    const std::string tmp = std::string(dir / "no-such-dir" / "x.conf") + "." +
                            std::to_string(getpid()) + ".tmp";
    EXPECT_EQ(std::vector<std::string>(
                  {"ERROR Cannot open tmp file: " + tmp + ": No such file or directory",
                   "ERROR Error while writing to: " + std::string(ini.path())}),
              log.lines());
  }
  {
    ScopedLogCapture log("IniFile");
    IniFile odd(ini);
    odd.setFileEncoding(7);
    EXPECT_FALSE(odd.flushToPath(dir / "odd.conf"));
    EXPECT_EQ(std::vector<std::string>({"ERROR Cannot open unicode-translated tmp file: " +
                                        std::string(dir / "odd.conf") + ": Invalid argument"}),
              log.lines());
  }
  {
    ScopedLogCapture log("IniFile");
    EXPECT_FALSE(ini.flushToPath("/dev/full"));
    EXPECT_EQ(std::vector<std::string>(
                  {"ERROR Cannot flush tmp file: /dev/full: No space left on device"}),
              log.lines());
  }
  {
    // A directory with something in it cannot be replaced by a file.
    const Pathname target = dir / "taken";
    writeTestFile(target / "inside", "x");
    ScopedLogCapture log("IniFile");
    ini.setPath(target);
    EXPECT_FALSE(ini.flush());
    const Pathname tmp = target + ("." + std::to_string(getpid()) + ".tmp").c_str();
    const auto lines = log.lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(0u, lines[0].find("ERROR Cannot rename " + tmp + " to " + target +
                                ": Rename failed in 1 attempt(s) made between "))
        << lines[0];
    EXPECT_NE(std::string::npos, lines[0].find("[status code: 21]")) << lines[0];  // EISDIR
    EXPECT_EQ("[s]\nk = v\n", readTestFile(tmp));  // left behind
    EXPECT_EQ("x", readTestFile(target / "inside"));
  }
}

TEST(IniFile, FlushRenamesIntoPlaceAndSaysSo) {
  TestTempDir dir;
  const Pathname path = dir / "r.conf";
  IniFile ini = parse(path, "[s]\nk=v\n");
  ini.set("s", "k", "w");
  ini.set("new", "n", "1");
  ScopedLogCapture log("IniFile");
  ASSERT_TRUE(ini.flush());
  EXPECT_EQ("[s]\nk = w\n\n[new]\nn = 1\n", readTestFile(path));
  const std::string tmp = std::string(path) + "." + std::to_string(getpid()) + ".tmp";
  const auto lines = log.lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(0u, lines[0].find("INFO Renamed " + tmp + " to " + std::string(path) +
                              ": Rename succeeded in 1 attempt(s) made between "))
      << lines[0];
  EXPECT_FALSE(Pathname(tmp).exists());
}

// What a rewrite writes for each input: the normalisations and nothing else.
TEST(IniFile, RewritesAsWritten) {
  const struct {
    std::string text;
    std::string want;
  } kCases[] = {
      {"", ""},
      {"a=1\n", "[default]\na = 1\n"},
      {"# c\nk=v", "# c\n[default]\nk = v\n"},
      {"[s]\na\\=b=c\n", "[s]\na\\=b = c\n"},
      {"[s]\n  key  =  value  \n", "[s]\nkey = value\n"},
      {"[s]\nk=\n", "[s]\nk = \n"},
      {"[s]\n\tk\t=\t\n", "[s]\nk = \n"},
      {"[s]\nk=one\\\ntwo\n", "[s]\nk = one\\\ntwo\n"},
      {"[s]\nk=v\\", "[s]\nk = v\\\n\n"},
      {"[s]\r\nk=v\r\n", "[s]\nk = v\n"},
      {"[s]\nk=a\rb\n", "[s]\nk = a\\\rb\n"},
      {"[s]\nk=a\r\r\n", "[s]\nk = a\\\r\n"},
      // Trimmed, the value ends in a backslash: written so, it continues
      // into the next line when read back.
      {"[s]\nk=x\\ \nj=1\n", "[s]\nk = x\\\nj = 1\n"},
      {"[s]\n\\[k=v\n", "[s]\n\\[k = v\n"},
      {"[s]\nc:\\\\d=1\n", "[s]\nc:\\\\d = 1\n"},
      {"[s]\n=v\n", "[s]\n = v\n"},
      {"[s]\n[t]\n# about u\n[u]\n", "[s]\n\n[t]\n# about u\n[u]\n"},
      {"[s]\nk=1\n[t]\n[s]\nk=2\nj=3\n", "[s]\nk = 1\nj = 3\n\n[t]\n"},
      {"[a]b]\n", "[a]b]\n"},
      {"[s]\nno pair\n", "[s]\nno pair\n"},
      // A line that is no setting loses its backslashes, and may then read
      // back as something else: here a header.
      {"[s]\n\\[t]\n", "[s]\n[t]\n"},
      {"[s]\n[a\\\nb]\n", "[s]\n\n[a\\\nb]\n"},
  };
  TestTempDir dir;
  const Pathname in = dir / "in.conf";
  const Pathname out = dir / "out.conf";
  ScopedLogCapture log("IniFile");
  for (const auto& c : kCases) {
    IniFile ini = parse(in, c.text);
    ASSERT_TRUE(ini.flushToPath(out)) << printable(c.text);
    EXPECT_EQ(c.want, readTestFile(out)) << printable(c.text);
  }
}

TEST(IniFile, KeepsEncodingAndMark) {
  const std::string u16 = "\xFF\xFE";
  const std::string u32le("\xFF\xFE\0\0", 4);
  const std::string u32be("\0\0\xFE\xFF", 4);
  const struct {
    std::string bytes;
    FileEncoding read;
    FileEncoding written;
    std::string want;
  } kCases[] = {
      {"", FILE_ENCODING_EMPTY, FILE_ENCODING_UTF8, ""},
      {"[s]\n", FILE_ENCODING_UTF8, FILE_ENCODING_UTF8, "[s]\n"},
      {"          ", FILE_ENCODING_UTF8, FILE_ENCODING_UTF8, "          \n"},
      {"\xEF\xBB\xBF", FILE_ENCODING_UTF8 | FILE_ENCODING_HAS_BOM,
       FILE_ENCODING_UTF8 | FILE_ENCODING_HAS_BOM, "\xEF\xBB\xBF"},
      {u16 + iconvFromUtf8("[s]\r\nk=\xC3\xA9\r\n", "UTF-16LE"),
       FILE_ENCODING_UTF16LE | FILE_ENCODING_HAS_BOM, FILE_ENCODING_UTF16LE | FILE_ENCODING_HAS_BOM,
       u16 + iconvFromUtf8("[s]\nk = \xC3\xA9\n", "UTF-16LE")},
      // No mark: found by its zero bytes, and written back without one.
      {iconvFromUtf8("[s]\nk=v\n", "UTF-16LE"), FILE_ENCODING_UTF16LE, FILE_ENCODING_UTF16LE,
       iconvFromUtf8("[s]\nk = v\n", "UTF-16LE")},
      {"\xFE\xFF" + iconvFromUtf8("[s]\n", "UTF-16BE"),
       FILE_ENCODING_UTF16BE | FILE_ENCODING_HAS_BOM, FILE_ENCODING_UTF16BE | FILE_ENCODING_HAS_BOM,
       "\xFE\xFF" + iconvFromUtf8("[s]\n", "UTF-16BE")},
      {u32le + iconvFromUtf8("[s]\n", "UTF-32LE"), FILE_ENCODING_UTF32LE | FILE_ENCODING_HAS_BOM,
       FILE_ENCODING_UTF32LE | FILE_ENCODING_HAS_BOM, u32le + iconvFromUtf8("[s]\n", "UTF-32LE")},
      {u32be + iconvFromUtf8("[s]\n", "UTF-32BE"), FILE_ENCODING_UTF32BE | FILE_ENCODING_HAS_BOM,
       FILE_ENCODING_UTF32BE | FILE_ENCODING_HAS_BOM, u32be + iconvFromUtf8("[s]\n", "UTF-32BE")},
  };
  TestTempDir dir;
  const Pathname in = dir / "in.conf";
  const Pathname out = dir / "out.conf";
  for (const auto& c : kCases) {
    IniFile ini = parse(in, c.bytes);
    EXPECT_EQ(c.read, ini.getFileEncoding()) << printable(c.bytes);
    ASSERT_TRUE(ini.flushToPath(out));
    EXPECT_EQ(c.written, ini.getFileEncoding()) << printable(c.bytes);
    EXPECT_EQ(printable(c.want), printable(readTestFile(out))) << printable(c.bytes);
  }
}

TEST(IniFile, EraseClosesTheGapAtTheTop) {
  TestTempDir dir;
  const Pathname path = dir / "e.conf";
  const std::string text = "# head\n[first]\na=1\n\n  \n# about second\n\n[second]\nb=2\n\n[third]\n";
  IniFile ini = parse(path, text);
  EXPECT_FALSE(ini.erase("absent"));
  EXPECT_TRUE(ini.erase("first"));
  EXPECT_FALSE(ini.erase("first"));
  // Empty lines go from anywhere in the block; the line of blanks stays.
  EXPECT_EQ("H:# head\nC:  \nC:# about second\n[second]\nk=b|2\nC:\n[third]\n", describe(ini));
  // Erasing a later stanza leaves the others alone.
  IniFile again = parse(path, text);
  EXPECT_TRUE(again.erase("second"));
  EXPECT_EQ("H:# head\n[first]\nk=a|1\nC:\n[third]\n", describe(again));
  IniFile last = parse(path, "[only]\nk=v\n");
  EXPECT_TRUE(last.erase("only"));
  EXPECT_TRUE(last.stanzas().empty());
}

TEST(IniFile, MergeGivesTheReceiverPrecedence) {
  TestTempDir dir;
  IniFile mine = parse(dir / "mine.conf", "# mine\n[s]\n# my k\nk=mine\n[m]\nx=1\n");
  IniFile theirs =
      parse(dir / "theirs.conf",
            "\xEF\xBB\xBF# theirs\n[t]\n# t comment\ntk=1\n[s]\n# their k\n k =theirs\n"
            "# their j\n  j  = 2\n# tail\n");
  mine.merge(theirs);
  EXPECT_EQ("H:# mine\n[s]\nC:# my k\nk=k|mine\nC:# their j\nk=j| 2\n[m]\nk=x|1\n"
            "[t]\nC:# t comment\nk=tk|1\n",
            describe(mine));
  EXPECT_EQ(FILE_ENCODING_UTF8, mine.getFileEncoding());
  EXPECT_EQ(dir / "mine.conf", mine.path());
  // The other file is not changed.
  EXPECT_EQ(2u, theirs.stanzas().size());
}

TEST(IniFile, CopiesAreDeep) {
  TestTempDir dir;
  IniFile a = parse(dir / "a.conf", "[s]\nk=1\n");
  IniFile b(a);
  b.set("s", "k", "2");
  b.erase("s");
  EXPECT_EQ("1", *a.getValue("s", "k"));
  EXPECT_EQ(nullptr, b.getValue("s", "k"));
  EXPECT_EQ(a.path(), b.path());
}

TEST(IniFile, IniwriteEscapesEachKindOfLineBreak) {
  const struct {
    std::string text;
    unsigned flags;
    std::string want;
  } kCases[] = {
      {"a\nb", 0, "a\nb"},
      {"a\nb", 2, "a\nb\n"},
      {"a\nb", 1, "a\\\nb"},
      {"a\r\nb\rc\n", 3, "a\\\r\nb\\\rc\\\n\n"},
      {"", 2, "\n"},
      {"", 1, ""},
      {"\r", 1, "\\\r"},
  };
  TestTempDir dir;
  const Pathname path = dir / "w";
  for (const auto& c : kCases) {
    {
      ScopedFileStar f(path, "w");
      WritableUnicodeFileStar out(f, FILE_ENCODING_UTF8);
      EXPECT_TRUE(IniFile::iniwrite(out, c.text, c.flags));
      EXPECT_TRUE(out.flush());
    }
    EXPECT_EQ(printable(c.want), printable(readTestFile(path))) << printable(c.text);
  }
}

TEST(IniFile, InitFromAHandleAndReinit) {
  TestTempDir dir;
  const Pathname path = dir / "h.conf";
  writeTestFile(path, "[s]\nk=v\n");
  ScopedFileStar f(path, "r");
  IniFile ini(f, Pathname("named.conf"));
  EXPECT_EQ("named.conf", ini.path());
  EXPECT_EQ("[s]\nk=k|v\n", describe(ini));
  FileStar none;
  ScopedLogCapture log("IniFile");
  ini.init(none);  // clears what was there
  EXPECT_FALSE(ini.isOpened());
  EXPECT_EQ("", describe(ini));
}

TEST(IniFileParser, ClassifiesLinesAndCountsPhysicalOnes) {
  TestTempDir dir;
  const Pathname path = dir / "p.conf";
  writeTestFile(path, "\n# c\n[h]\nk=v\\\nw\n \t\r\nx\n");
  ScopedFileStar f(path, "r");
  IniFileParser parser(f, path);
  ScopedLogCapture log("IniFile");
  const struct {
    IniFileParser::LineType type;
    const char* line;
    const char* name;
    const char* value;
    unsigned long lineNumber;
  } kWant[] = {
      {IniFileParser::LINE_BLANK, "", "", "", 1},
      {IniFileParser::LINE_COMMENT, "# c", "", "", 2},
      {IniFileParser::LINE_HEADER, "[h]", "h", "", 3},
      {IniFileParser::LINE_SETTING, "k=v\nw", "k", "v\nw", 5},
      {IniFileParser::LINE_BLANK, " \t", "k", "v\nw", 6},
      {IniFileParser::LINE_BLANK, "x", "k", "v\nw", 7},
      {IniFileParser::LINE_EOF, "", "k", "v\nw", 7},
  };
  for (const auto& w : kWant) {
    Str line, name = Str(), value;
    static Str lastName, lastValue;
    name = lastName;
    value = lastValue;
    EXPECT_EQ(w.type, parser.getLineType(line, name, value)) << w.line;
    EXPECT_EQ(w.line, line);
    if (w.type == IniFileParser::LINE_SETTING || w.type == IniFileParser::LINE_HEADER) {
      EXPECT_EQ(w.name, name);
      lastName = name;
    }
    if (w.type == IniFileParser::LINE_SETTING) {
      EXPECT_EQ(w.value, value);
      lastValue = value;
    }
    EXPECT_EQ(std::string(path) + ", line " + std::to_string(w.lineNumber),
              parser.getCurrentLineNumberDebugStr());
  }
  Str name;
  EXPECT_TRUE(parser.headerToStanza("  [a]b]c", 2, name));
  EXPECT_EQ("a]b", name);
  EXPECT_FALSE(parser.headerToStanza("[abc", 0, name));
  EXPECT_EQ("abc", name);
}

}  // namespace
