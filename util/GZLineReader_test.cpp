#include "util/GZLineReader.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "util/BufferedLineReader.h"
#include "util/FileDescriptor.h"
#include "util/testing/GzipTestSupport.h"
#include "util/testing/TestTempDir.h"

namespace {

typedef std::vector<std::string> Lines;

template <class Reader>
Lines drainLines(Reader& r) {
  Lines out;
  Str line;
  while (r.readline(line)) out.push_back(line);
  return out;
}

// The same text read plainly by FileDescriptorLineReader is the oracle.
class GZLineReaderTest : public testing::Test {
 protected:
  Lines plainLines(const std::string& text) {
    writeTestFile(_dir / "plain.txt", text);
    FileDescriptorLineReader r(_dir / "plain.txt");
    return drainLines(r);
  }
  Pathname gzFile(const std::string& gz) {
    const Pathname p = _dir / "lines.gz";
    writeTestFile(p, gz);
    return p;
  }
  TestTempDir _dir;
};

TEST_F(GZLineReaderTest, LinesMatchThePlainReader) {
  const std::string longLine(3 * BufferedLineReader::BUF_SIZE + 17, 'L');
  const struct {
    const char* why;
    std::string text;
  } kCases[] = {
      {"empty file", ""},
      {"last line without a line feed", "a\nb"},
      {"CRLF folded", "one\r\ntwo\r\n\r\nthree\r"},
      {"empty lines", "\n\n\n"},
      {"a line across many blocks", "start\n" + longLine + "\nend\n"},
      {"log text", logText(200000, 11)},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.why);
    GZLineReader r(gzFile(ourGzip(c.text)));
    ASSERT_TRUE(r.valid());
    EXPECT_EQ(plainLines(c.text), drainLines(r));
    EXPECT_EQ(static_cast<file_offset_t>(c.text.size()), r.curPos());
  }
}

TEST_F(GZLineReaderTest, MembersJoinAcrossALine) {
  // The second member finishes the first one's last line.
  GZLineReader r(gzFile(ourGzip("first\nsec") + ourGzip("ond\nthird\n")));
  EXPECT_EQ(Lines({"first", "second", "third"}), drainLines(r));
}

TEST_F(GZLineReaderTest, RewindAndSeekCountDecompressedBytes) {
  const std::string text = logText(100000, 12);
  const Pathname p = gzFile(ourGzip(text));
  ScopedFileDescriptor fd(p.openReadOnly());
  GZLineReader r(fd, true);
  Str line;
  ASSERT_TRUE(r.readline(line));
  const Lines all = plainLines(text);
  EXPECT_EQ(all[0], line);
  // Forward past the buffer: read and discarded.
  const size_t target = text.find('\n', 70000) + 1;
  ASSERT_TRUE(r.seek_set(static_cast<file_offset_t>(target)));
  EXPECT_EQ(static_cast<file_offset_t>(target), r.curPos());
  ASSERT_TRUE(r.readline(line));
  EXPECT_EQ(text.substr(target, text.find('\n', target) - target), line);
  ASSERT_TRUE(r.rewind());
  EXPECT_EQ(0, r.curPos());
  EXPECT_EQ(all, drainLines(r));
}

TEST_F(GZLineReaderTest, DamageEndsTheLinesWithEnoexec) {
  const std::string text = logText(50000, 13);
  const std::string gz = ourGzip(text);
  GZLineReader cut(gzFile(gz.substr(0, gz.size() / 2)));
  const Lines got = drainLines(cut);
  EXPECT_EQ(ENOEXEC, errno);
  const Lines all = plainLines(text);
  ASSERT_FALSE(got.empty());
  ASSERT_LT(got.size(), all.size());
  for (size_t i = 0; i + 1 < got.size(); ++i) EXPECT_EQ(all[i], got[i]);  // the last one is cut

  // Cut inside the last footer of two members: every line comes out, and
  // the end is still a truncation.
  const std::string two = ourGzip("one\r\ntwo\nthr") + ourGzip("ee\nfour\r\nfive");
  GZLineReader footerCut(gzFile(two.substr(0, two.size() - 3)));
  errno = 0;
  EXPECT_EQ(Lines({"one", "two", "three", "four", "five"}), drainLines(footerCut));
  EXPECT_EQ(ENOEXEC, errno);

  GZLineReader notGzip(gzFile("just text\n"));
  EXPECT_TRUE(drainLines(notGzip).empty());
  EXPECT_EQ(ENOEXEC, errno);
}

TEST_F(GZLineReaderTest, ClosedOrMissingFile) {
  GZLineReader missing(_dir / "absent.gz");
  EXPECT_FALSE(missing.valid());
  Str line;
  EXPECT_FALSE(missing.readline(line));
  EXPECT_FALSE(missing.rewind());

  GZLineReader r(gzFile(ourGzip("a\nb\n")));
  ASSERT_TRUE(r.readline(line));
  r.close();
  EXPECT_FALSE(r.valid());
  EXPECT_TRUE(r.readline(line));  // "b" was already in the buffer
  EXPECT_FALSE(r.readline(line));
  EXPECT_EQ(EBADF, errno);
}

TEST_F(GZLineReaderTest, ReadsWhatGzipWrote) {
  if (!haveTool("gzip")) GTEST_SKIP() << "gzip is not installed";
  const std::string text = logText(120000, 14);
  writeTestFile(_dir / "in.log", text);
  ASSERT_EQ(0, runShell("gzip -c " + std::string((_dir / "in.log").shellQuoted()) + " > " +
                        std::string((_dir / "in.log.gz").shellQuoted())));
  GZLineReader r(_dir / "in.log.gz");
  EXPECT_EQ(plainLines(text), drainLines(r));
}

}  // namespace
