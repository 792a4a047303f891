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

// An outside oracle: the text cut at each line feed, a final empty piece
// dropped, and `dropCr` applied to each line.
Lines oracleLines(const std::string& text, const std::function<void(std::string&)>& dropCr) {
  Lines out;
  for (size_t start = 0, nl; start < text.size(); start = nl + 1) {
    nl = text.find('\n', start);
    if (nl == std::string::npos) nl = text.size();
    out.push_back(text.substr(start, nl - start));
    dropCr(out.back());
  }
  return out;
}

void dropCrAtEnd(std::string& line) {
  if (!line.empty() && line.back() == '\r') line.pop_back();
}

// Every line `r` gives; a reader that promises to clear the line at the end
// is held to it.
template <class Line, class Reader>
Lines drain(Reader& r, bool clearsAtEnd = true) {
  Lines out;
  Line line;
  while (r.readline(line)) out.emplace_back(line.data(), line.size());
  if (clearsAtEnd) {
    EXPECT_TRUE(line.empty());
  }
  return out;
}

// A pipe whose far end a thread fills with `bytes` and then closes.
class FilledPipe {
 public:
  explicit FilledPipe(const std::string& bytes) {
    int fds[2];
    EXPECT_EQ(0, ::pipe(fds));
    _readEnd = FileDescriptor(fds[0]);
    _writer = std::thread([fd = fds[1], &bytes] {
      FileDescriptor w(fd);
      w.write(bytes.data(), bytes.size());
      w.close();
    });
  }
  ~FilledPipe() { _writer.join(); }
  FileDescriptor readEnd() const { return _readEnd; }

 private:
  FileDescriptor _readEnd;
  std::thread _writer;
};

// Readers that agree wherever a carriage return stands only before a line
// feed; each one reads the same file contents. The buffered and string
// readers also drop a carriage return that ends the text.
struct ReaderKind {
  const char* name;
  bool dropsFinalCr;
  std::function<Lines(const Pathname&, const std::string&)> read;
};

Lines readWithFileStar(const Pathname& p, const std::string&) {
  ScopedFileStar f(p, "r");
  EXPECT_TRUE(f.valid());
  return drain<Str>(f, false);
}

const ReaderKind kReaders[] = {
    {"FileStar", false, readWithFileStar},
    {"FileStar over a pipe (its unseekable path)", false,
     [](const Pathname&, const std::string& bytes) {
       FilledPipe pipe(bytes);
       ScopedFileStar f(pipe.readEnd().fdopen("r"));
       EXPECT_TRUE(f.valid());
       return drain<Str>(f, false);
     }},
    {"FileStarLineReader", false,
     [](const Pathname& p, const std::string&) {
       FileStarLineReader r(p);
       EXPECT_TRUE(r.valid());
       return drain<Str>(r);
     }},
    {"FileDescriptorLineReader", true,
     [](const Pathname& p, const std::string&) {
       FileDescriptorLineReader r(p);
       EXPECT_TRUE(r.valid());
       return drain<Str>(r);
     }},
    {"StringLineReader", true,
     [](const Pathname&, const std::string& bytes) {
       StringLineReader r(bytes);
       return drain<Str>(r);
     }},
    {"StringLineReader views", true,
     [](const Pathname&, const std::string& bytes) {
       StringLineReader r(bytes);
       return drain<StrSegment>(r);
     }},
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
  const Pathname p = dir / "lines";
  for (size_t i = 0; i < sizeof(kCases) / sizeof(kCases[0]); ++i) {
    writeTestFile(p, kCases[i].text);
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
TEST(LineReaders, CarriageReturnAndFinalNulQuirksOfEachReader) {
  const std::string text = "a\r\r\nb\r\n\r\nc\r";
  TestTempDir dir;
  const Pathname p = dir / "cr";
  writeTestFile(p, text);
  for (const ReaderKind& kind : kReaders) {
    EXPECT_EQ((Lines{"a\r", "b", "", kind.dropsFinalCr ? "c" : "c\r"}), kind.read(p, text))
        << kind.name;
  }
  // A line that is only a CR loses it in every reader.
  StringLineReader r(StrSegment("\r\n\r"));
  EXPECT_EQ((Lines{"", ""}), drain<Str>(r));
  // The seekable stream drops a NUL that ends the text.
  writeTestFile(p, std::string("end\0", 4));
  EXPECT_EQ(Lines{"end"}, readWithFileStar(p, ""));
}

TEST(LineReaders, RandomTextMatchesTheOracle) {
  std::mt19937 rng(8);
  TestTempDir dir;
  const Pathname p = dir / "random";
  const char kBytes[] = {'a', 'b', '\n', '\n', '\r', '\0', ' ', '\xff'};
  for (int round = 0; round < 30; ++round) {
    std::string text;
    const size_t len = rng() % 70000;
    for (size_t i = 0; i < len; ++i) text.push_back(kBytes[rng() % sizeof(kBytes)]);
    writeTestFile(p, text);
    const Lines want = oracleLines(text, dropCrAtEnd);
    EXPECT_EQ(want, kReaders[3].read(p, text)) << round;  // FileDescriptorLineReader
    EXPECT_EQ(want, kReaders[4].read(p, text)) << round;  // StringLineReader
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

// readlineKeepCR cuts at line feeds and nothing else, in every reader.
TEST(LineReaders, KeepCRGivesTheBytesBetweenLineFeeds) {
  std::mt19937 rng(9);
  TestTempDir dir;
  const Pathname p = dir / "keepcr";
  const char kBytes[] = {'a', '\n', '\r', '\r', ' ', '\xff'};
  for (int round = 0; round < 20; ++round) {
    std::string text;
    const size_t len = rng() % 40000;
    for (size_t i = 0; i < len; ++i) text.push_back(kBytes[rng() % sizeof(kBytes)]);
    writeTestFile(p, text);
    const Lines want = oracleLines(text, [](std::string&) {});
    FileDescriptorLineReader fd(p);
    StringLineReader str(text);
    FileStarLineReader star(p);
    for (LineReader* r : std::initializer_list<LineReader*>{&fd, &str, &star}) {
      Lines got;
      Str line;
      while (r->readlineKeepCR(line)) got.push_back(line);
      EXPECT_EQ(want, got) << round;
    }
  }
}

TEST(BufferedLineReader, CurPosCountsConsumedBytes) {
  TestTempDir dir;
  writeTestFile(dir / "f", "ab\r\ncd\nlast");
  FileDescriptorLineReader r(dir / "f");
  Str line;
  EXPECT_EQ(0, r.curPos());
  for (file_offset_t pos : {4, 7, 11}) {
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ(pos, r.curPos());
  }
  EXPECT_FALSE(r.readline(line));
  ASSERT_TRUE(r.rewind());
  EXPECT_EQ(0, r.curPos());
  ASSERT_TRUE(r.readline(line));
  EXPECT_EQ("ab", line);
}

TEST(BufferedLineReader, SeekSetInsideBufferByLseekAndByReadingForward) {
  // Lines of the form "%07d\n", so any offset names the line it lands in.
  std::string text;
  char buf[16];
  for (int i = 0; i < 20000; ++i) text.append(buf, snprintf(buf, sizeof(buf), "%07d\n", i));
  TestTempDir dir;
  const Pathname p = dir / "numbers";
  writeTestFile(p, text);
  for (bool overPipe : {false, true}) {
    SCOPED_TRACE(overPipe ? "pipe" : "file");
    std::unique_ptr<FilledPipe> pipe(overPipe ? new FilledPipe(text) : nullptr);
    FileDescriptorLineReader r(overPipe ? pipe->readEnd() : p.openReadOnly(), false);
    Str line;
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ("0000000", line);
    // 8 * 5001 is where reading the line at 8 * 5000 left off: a seek that
    // moves nothing.
    for (file_offset_t target : {16, 8 * 100, 8 * 5000, 8 * 5001, 8 * 19999}) {
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
  }
}

TEST(BufferedLineReaderDeathTest, SeekingBackwardsEndsTheProcess) {
  TestTempDir dir;
  writeTestFile(dir / "f", "abc\ndef\n");
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
  writeTestFile(dir / "f", "first\nsecond\n");
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
