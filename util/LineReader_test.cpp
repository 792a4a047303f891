#include "util/LineReader.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "util/BufferedLineReader.h"
#include "util/FileDescriptor.h"
#include "util/FileStar.h"
#include "util/testing/TestTempDir.h"

namespace {

typedef std::vector<std::string> Lines;

void writeFile(const Pathname& p, const std::string& bytes) {
  FileDescriptor fd = p.openCreateOrReplace(Pathname::CREATE_NORMAL);
  ASSERT_TRUE(fd.valid());
  ASSERT_EQ(static_cast<ssize_t>(bytes.size()), fd.write(bytes.data(), bytes.size()));
  ASSERT_TRUE(fd.close());
}

// An outside oracle: lines by std::getline, a final empty piece dropped,
// and `dropCr` applied to each line.
Lines oracleLines(const std::string& text, const std::function<void(std::string&)>& dropCr) {
  Lines out;
  size_t start = 0;
  while (start < text.size()) {
    size_t nl = text.find('\n', start);
    const size_t end = nl == std::string::npos ? text.size() : nl;
    std::string line = text.substr(start, end - start);
    dropCr(line);
    out.push_back(line);
    start = end + 1;
  }
  return out;
}

void dropCrAtEnd(std::string& line) {
  if (!line.empty() && line.back() == '\r') line.pop_back();
}

Lines drain(LineReader& r) {
  Lines out;
  Str line;
  while (r.readline(line)) out.push_back(line);
  EXPECT_TRUE(line.empty());
  return out;
}

// Readers that agree wherever a carriage return stands only before a line
// feed; each one reads the same file contents.
struct ReaderKind {
  const char* name;
  std::function<Lines(const Pathname&, const std::string&)> read;
};

Lines readWithFileStar(const Pathname& p, const std::string&) {
  ScopedFileStar f(p, "r");
  EXPECT_TRUE(f.valid());
  Lines out;
  Str line;
  while (f.readline(line)) out.push_back(line);
  return out;
}

// The same stream readline, on its unseekable path: through a pipe.
Lines readWithFileStarOverPipe(const Pathname&, const std::string& bytes) {
  int fds[2];
  EXPECT_EQ(0, ::pipe(fds));
  std::thread writer([&] {
    FileDescriptor w(fds[1]);
    w.write(bytes.data(), bytes.size());
    w.close();
  });
  FileDescriptor r(fds[0]);
  ScopedFileStar f(r.fdopen("r"));
  EXPECT_TRUE(f.valid());
  Lines out;
  Str line;
  while (f.readline(line)) out.push_back(line);
  writer.join();
  return out;
}

Lines readWithFileStarLineReader(const Pathname& p, const std::string&) {
  FileStarLineReader r(p);
  EXPECT_TRUE(r.valid());
  return drain(r);
}

Lines readWithDescriptorReader(const Pathname& p, const std::string&) {
  FileDescriptorLineReader r(p);
  EXPECT_TRUE(r.valid());
  return drain(r);
}

Lines readWithStringReader(const Pathname&, const std::string& bytes) {
  StringLineReader r(bytes);
  return drain(r);
}

Lines readWithStringReaderViews(const Pathname&, const std::string& bytes) {
  StringLineReader r(bytes);
  Lines out;
  StrSegment line;
  while (r.readline(line)) out.emplace_back(line.view());
  return out;
}

const ReaderKind kReaders[] = {
    {"FileStar", readWithFileStar},
    {"FileStar over a pipe", readWithFileStarOverPipe},
    {"FileStarLineReader", readWithFileStarLineReader},
    {"FileDescriptorLineReader", readWithDescriptorReader},
    {"StringLineReader", readWithStringReader},
    {"StringLineReader views", readWithStringReaderViews},
};

TEST(LineReaders, AllAgreeOnTheCommonCases) {
  const std::string nulLine("a\0b\0\0c", 6);
  const struct { std::string text; Lines want; } kCases[] = {
      {"", {}},
      {"one\ntwo\n", {"one", "two"}},
      {"no final line end", {"no final line end"}},
      {"a\n\nb", {"a", "", "b"}},  // an empty line is a line
      {"\n", {""}},
      {"\n\n\n", {"", "", ""}},
      {"crlf\r\nline\r\n", {"crlf", "line"}},
      {nulLine + "\n" + nulLine, {nulLine, nulLine}},  // NUL bytes are kept
      {std::string(255, 'x') + "\n" + std::string(254, 'y') + "\n" + std::string(256, 'z'),
       {std::string(255, 'x'), std::string(254, 'y'), std::string(256, 'z')}},  // fgets chunk edges
      {std::string(1 << 20, 'M') + "\nafter", {std::string(1 << 20, 'M'), "after"}},  // 1 MB line
      {std::string(16383, 'b') + "\n" + std::string(16385, 'c') + "\n",
       {std::string(16383, 'b'), std::string(16385, 'c')}},  // buffer edges
  };
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname p = dir / "lines";
  for (size_t i = 0; i < sizeof(kCases) / sizeof(kCases[0]); ++i) {
    writeFile(p, kCases[i].text);
    for (const ReaderKind& kind : kReaders) {
      SCOPED_TRACE(std::string(kind.name) + ", case " + std::to_string(i));
      const Lines got = kind.read(p, kCases[i].text);
      ASSERT_EQ(kCases[i].want.size(), got.size());
      for (size_t j = 0; j < got.size(); ++j) EXPECT_EQ(kCases[i].want[j], got[j]) << "line " << j;
    }
  }
}

// Where the readers part ways: what a carriage return not followed by a line
// feed becomes, and a NUL at the very end of the text.
TEST(LineReaders, CarriageReturnQuirksOfEachReader) {
  const std::string text = "a\r\r\nb\r\n\r\nc\r";
  const struct { const char* name; Lines want; } kCases[] = {
      // The stream reader removes a CR only just before the LF.
      {"FileStar", {"a\r", "b", "", "c\r"}},
      {"FileStar over a pipe", {"a\r", "b", "", "c\r"}},
      {"FileStarLineReader", {"a\r", "b", "", "c\r"}},
      // The buffered reader drops one CR at the end of every line.
      {"FileDescriptorLineReader", {"a\r", "b", "", "c"}},
      // So does the string reader.
      {"StringLineReader", {"a\r", "b", "", "c"}},
      {"StringLineReader views", {"a\r", "b", "", "c"}},
  };
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname p = dir / "cr";
  writeFile(p, text);
  for (const auto& c : kCases) {
    for (const ReaderKind& kind : kReaders) {
      if (std::string(kind.name) != c.name) continue;
      EXPECT_EQ(c.want, kind.read(p, text)) << c.name;
    }
  }
  // A line that is only a CR loses it in every reader.
  StringLineReader r(StrSegment("\r\n\r"));
  EXPECT_EQ((Lines{"", ""}), drain(r));
}

TEST(LineReaders, SeekableStreamDropsANulThatEndsTheText) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  writeFile(dir / "f", std::string("end\0", 4));
  EXPECT_EQ(Lines{"end"}, readWithFileStar(dir / "f", ""));
}

TEST(LineReaders, RandomTextMatchesTheOracle) {
  std::mt19937 rng(8);
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname p = dir / "random";
  const char kBytes[] = {'a', 'b', '\n', '\n', '\r', '\0', ' ', '\xff'};
  for (int round = 0; round < 30; ++round) {
    std::string text;
    const size_t len = rng() % 70000;
    for (size_t i = 0; i < len; ++i) text.push_back(kBytes[rng() % sizeof(kBytes)]);
    writeFile(p, text);
    EXPECT_EQ(oracleLines(text, dropCrAtEnd), readWithDescriptorReader(p, text)) << round;
    EXPECT_EQ(oracleLines(text, dropCrAtEnd), readWithStringReader(p, text)) << round;
    // The stream reader removes a CR only ahead of a LF, and its seekable
    // path drops a NUL that ends the text; a last line left empty is none.
    Lines streamWant = oracleLines(text, [](std::string&) {});
    for (size_t i = 0; i < streamWant.size(); ++i) {
      const bool hadLineFeed = i + 1 < streamWant.size() || text.back() == '\n';
      if (hadLineFeed) {
        dropCrAtEnd(streamWant[i]);
      } else if (streamWant[i].back() == '\0') {
        streamWant[i].pop_back();
        if (streamWant[i].empty()) streamWant.pop_back();
      }
    }
    EXPECT_EQ(streamWant, readWithFileStar(p, text)) << round;
  }
}

TEST(BufferedLineReader, CurPosCountsConsumedBytes) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname p = dir / "f";
  writeFile(p, "ab\r\ncd\nlast");
  FileDescriptorLineReader r(p);
  Str line;
  EXPECT_EQ(0, r.curPos());
  ASSERT_TRUE(r.readline(line));
  EXPECT_EQ(4, r.curPos());
  ASSERT_TRUE(r.readline(line));
  EXPECT_EQ(7, r.curPos());
  ASSERT_TRUE(r.readline(line));
  EXPECT_EQ(11, r.curPos());
  EXPECT_FALSE(r.readline(line));
  ASSERT_TRUE(r.rewind());
  EXPECT_EQ(0, r.curPos());
  ASSERT_TRUE(r.readline(line));
  EXPECT_EQ("ab", line);
}

// Lines of the form "%07d\n", so any offset names the line it lands in.
std::string numberedLines(int count) {
  std::string text;
  char buf[16];
  for (int i = 0; i < count; ++i) {
    snprintf(buf, sizeof(buf), "%07d\n", i);
    text += buf;
  }
  return text;
}

TEST(BufferedLineReader, SeekSetInsideBufferByLseekAndByReadingForward) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname p = dir / "numbers";
  const std::string text = numberedLines(20000);  // 160000 bytes
  writeFile(p, text);
  const struct { const char* how; bool pipe; } kSources[] = {{"file", false}, {"pipe", true}};
  for (const auto& src : kSources) {
    SCOPED_TRACE(src.how);
    int fds[2] = {-1, -1};
    std::thread writer;
    FileDescriptor fd;
    if (src.pipe) {
      ASSERT_EQ(0, ::pipe(fds));
      writer = std::thread([&] {
        FileDescriptor w(fds[1]);
        w.write(text.data(), text.size());
        w.close();
      });
      fd = FileDescriptor(fds[0]);
    } else {
      fd = p.openReadOnly();
    }
    FileDescriptorLineReader r(fd, false);
    Str line;
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ("0000000", line);
    // 8 * 5001 is where reading the line at 8 * 5000 left off: a seek that
    // moves nothing.
    const file_offset_t kTargets[] = {16, 8 * 100, 8 * 5000, 8 * 5001, 8 * 19999};
    for (file_offset_t target : kTargets) {
      ASSERT_TRUE(r.seek_set(target)) << target;
      EXPECT_EQ(target, r.curPos());
      ASSERT_TRUE(r.readline(line));
      EXPECT_EQ(text.substr(static_cast<size_t>(target), 7), line) << target;
    }
    // Past the end: the file seeks there, the pipe runs out; both succeed.
    ASSERT_TRUE(r.seek_set(8 * 30000));
    EXPECT_EQ(8 * 30000, r.curPos());
    EXPECT_FALSE(r.readline(line));
    r.close();
    if (writer.joinable()) writer.join();
  }
}

TEST(BufferedLineReaderDeathTest, SeekingBackwardsEndsTheProcess) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  writeFile(dir / "f", "abc\ndef\n");
  EXPECT_DEATH(
      {
        FileDescriptorLineReader r(dir / "f");
        Str line;
        r.readline(line);
        r.seek_set(1);
      },
      "offset >= curPos\\(\\)");
}

TEST(BufferedLineReader, ReadErrorsAndMissingFiles) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  FileDescriptorLineReader missing(dir / "missing");
  EXPECT_FALSE(missing.valid());
  Str line("junk");
  EXPECT_FALSE(missing.readline(line));
  EXPECT_TRUE(line.empty());
  // A directory opens but every read fails with EISDIR.
  FileDescriptorLineReader onDir(dir.path());
  EXPECT_TRUE(onDir.valid());
  errno = 0;
  EXPECT_FALSE(onDir.readline(line));
  EXPECT_EQ(EISDIR, errno);
}

TEST(FileStarLineReader, RewindAndSeekOnABorrowedStream) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  writeFile(dir / "f", "first\nsecond\n");
  ScopedFileStar f(dir / "f", "r");
  Str line;
  ASSERT_TRUE(f.readline(line));
  {
    FileStarLineReader r(f, true);  // rewinds to the start
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ("first", line);
    EXPECT_EQ(6, r.curPos());
    ASSERT_TRUE(r.seek_set(9));
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ("ond", line);
    EXPECT_FALSE(r.readline(line));
    ASSERT_TRUE(r.rewind());
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ("first", line);
  }
  EXPECT_TRUE(f.valid());  // borrowed: still open after the reader went
  FileStarLineReader missing(dir / "missing");
  EXPECT_FALSE(missing.valid());
  EXPECT_FALSE(missing.readline(line));
  EXPECT_FALSE(missing.rewind());
}

TEST(StringLineReader, PositionsAndViews) {
  const std::string text = "alpha\r\nbeta\n";
  StringLineReader r(text);
  StrSegment view;
  ASSERT_TRUE(r.readline(view));
  EXPECT_EQ(text.data(), view.data());  // a view into the text, no copy
  EXPECT_EQ(7, r.curPos());
  EXPECT_TRUE(r.seek_set(9));
  ASSERT_TRUE(r.readline(view));
  EXPECT_EQ("ta", std::string(view.view()));
  EXPECT_FALSE(r.readline(view));
  EXPECT_TRUE(view.empty());
  EXPECT_FALSE(r.seek_set(100));
  EXPECT_TRUE(r.rewind());
  ASSERT_TRUE(r.readline(view));
  EXPECT_EQ("alpha", std::string(view.view()));
}

TEST(LineReaderBase, DefaultsReportInability) {
  struct OneLine : LineReader {
    bool readline(Str& out) override {
      out = "x";
      return true;
    }
  } r;
  EXPECT_FALSE(r.rewind());
  EXPECT_TRUE(r.valid());
  EXPECT_EQ(-1, r.curPos());
  EXPECT_FALSE(r.seek_set(0));
}

}  // namespace
