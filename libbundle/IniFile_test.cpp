#include "libbundle/IniFile.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "libbundle/IniFileParser.h"
#include "util/FileStar.h"
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
      {"[s]\nk=v\n[t]\nj=w\n", "[s]\nk = v\n\n[t]\nj = w\n"},
      {"[s]\n\n[t]\n", "[s]\n\n[t]\n"},  // a stanza with a comment line gets no extra gap
      {"# h\n[s]\n", "# h\n[s]\n"},
      {"[s]\npath=c:\\dir\n", "[s]\npath = c:\\dir\n"},
      {"[s]\nc:\\dir=1\n", "[s]\nc:dir = 1\n"},
      {"  [s]  junk\n", "[s]\n"},
      {"[s]\n\\#k=v\n", "[s]\n#k = v\n"},  // only "=", "[" and backslash are escaped
      {"[s]\n# a\rb\n", "[s]\n# a\rb\n"},   // comments go out verbatim
      {"[s]\na[b]=1\n", "[s]\na\\[b] = 1\n"},
      {"junk\n[s]\n", "junk\n[s]\n"},
      {" \r[s]\n\rk=v\n", "[s]\n\\\rk = v\n"},  // the CR ahead of the key is a line break
      {"k\\", "k\n\n"},  // no setting: kept with its joined newline
      {"a=1\n# c\n[s]\n", "[default]\na = 1\n# c\n[s]\n"},
      {"[s]\nfo\\o\n", "[s]\nfoo\n"},
      {"a=1\n[default]\nb=2\n", "[default]\na = 1\nb = 2\n"},
      {"[s]\nk=v\n\n# end\n", "[s]\nk = v\n\n# end\n"},
      {"\xEF\xBB\xBF[s]\nk=\xC3\xA9\n", "\xEF\xBB\xBF[s]\nk = \xC3\xA9\n"},
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
      {u16, FILE_ENCODING_UTF16LE | FILE_ENCODING_HAS_BOM,
       FILE_ENCODING_UTF16LE | FILE_ENCODING_HAS_BOM, u16},  // a mark and nothing else
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

TEST(IniFileParser, ClassifiesEachKindOfLine) {
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

TEST(IniFileParser, LineThatIsNoSettingIsBlankWithBackslashesRemoved) {
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

TEST(IniFile, WarningsCarryPathLineAndExactText) {
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

TEST(IniFile, DuplicateKeyKeepsFirstValueAndComments) {
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

TEST(IniFile, RewriteThenReadGivesTheSameSettings) {
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

TEST(IniFile, EncodingDetectionAtItsEdges) {
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
      {"64 bytes, 22 odd and 15 even zeros", iconvFromUtf8(std::string(7, 'a'), "UTF-16LE") +
                                                 std::string(30, '\0') + std::string(20, 'b'),
       FILE_ENCODING_UTF16LE},
      {"64 bytes, 21 odd zeros", iconvFromUtf8(std::string(6, 'a'), "UTF-16LE") + std::string(30, '\0') +
                                     std::string(22, 'b'),
       FILE_ENCODING_UTF8},
      {"64 bytes, 16 even zeros", iconvFromUtf8(std::string(6, 'a'), "UTF-16LE") + std::string(32, '\0') +
                                      std::string(20, 'b'),
       FILE_ENCODING_UTF8},
      // Only the first 64 bytes count.
      {"utf16 read-ahead then ascii", iconvFromUtf8(std::string(32, 'a'), "UTF-16LE") + std::string(200, 'b'),
       FILE_ENCODING_UTF16LE},
      {"ascii read-ahead then utf16", std::string(64, 'a') + iconvFromUtf8(std::string(200, 'b'), "UTF-16LE"),
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

TEST(IniFile, StoredEncodingBelowUtf8BecomesUtf8KeepingTheFlag) {
  const struct {
    FileEncoding given;
    FileEncoding after;
    std::string bytes;
  } kCases[] = {
      {FILE_ENCODING_UNKNOWN, FILE_ENCODING_UTF8, "[s]\nk = v\n"},
      {FILE_ENCODING_EMPTY, FILE_ENCODING_UTF8, "[s]\nk = v\n"},
      {FILE_ENCODING_UNKNOWN | FILE_ENCODING_HAS_BOM, FILE_ENCODING_UTF8 | FILE_ENCODING_HAS_BOM,
       "\xEF\xBB\xBF[s]\nk = v\n"},
      {FILE_ENCODING_UTF16BE, FILE_ENCODING_UTF16BE, iconvFromUtf8("[s]\nk = v\n", "UTF-16BE")},
      {FILE_ENCODING_UTF32LE | FILE_ENCODING_HAS_BOM, FILE_ENCODING_UTF32LE | FILE_ENCODING_HAS_BOM,
       std::string("\xFF\xFE\0\0", 4) + iconvFromUtf8("[s]\nk = v\n", "UTF-32LE")},
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

TEST(IniFile, FlushThatCannotWriteLeavesTheFileAlone) {
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

TEST(IniFile, EraseLeavesTheRestAsItWasWritten) {
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

TEST(IniStanza, HeaderRemoveLeadingNewlinesDropsOnlyEmptyStrings) {
  IniStanza s(StrVector{"", "  ", "# a", "", "\t", ""});
  s.headerRemoveLeadingNewlines();
  EXPECT_EQ(std::vector<std::string>({"  ", "# a", "\t"}), lines(s.comments()));
}

TEST(IniStanza, InsertKeepsAnExistingKey) {
  IniStanza s;
  EXPECT_TRUE(s.insert(" k ", "1").second);
  const auto again = s.insert("k", "2");
  EXPECT_FALSE(again.second);
  EXPECT_EQ(" k ", again.first.key());
  EXPECT_EQ("1", again.first.value().value());
  EXPECT_EQ(std::vector<std::string>{" k =1"}, settingsOf(s));
}

TEST(IniFile, MergeCopiesAWholeStanzaIndependently) {
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

TEST(IniFile, WarningsOfAFileReadFromAHandleNameTheGivenPath) {
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

TEST(IniFile, IniwriteReportsAFailedWrite) {
  ScopedFileStar f("/dev/full", "w");
  ASSERT_TRUE(f.valid());
  setvbuf(f.get(), nullptr, _IONBF, 0);
  WritableUnicodeFileStar out(f, FILE_ENCODING_UTF8);
  EXPECT_FALSE(IniFile::iniwrite(out, "text", 2));
}

}  // namespace
