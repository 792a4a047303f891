// The Unicode streams as their callers use them: lines cut at their ends
// wherever the reads fall, and writers given kinds below UTF-8 or with no
// engine.

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "libzero/FileEncoding.h"
#include "util/FileStar.h"
#include "util/ReadableUnicodeStream.h"
#include "util/Str.h"
#include "util/WritableUnicodeFileStar.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/TestText.h"

namespace {

// Every line a ReadableUnicodeFileStar gives for `bytes`, and the encoding
// it settled on.
std::vector<std::string> readLines(const std::string& bytes, FileEncoding* encoding,
                                   FileEncoding given = FILE_ENCODING_UNKNOWN) {
  TestTempDir dir;
  const Pathname path = dir / "in";
  writeTestFile(path, bytes);
  ScopedFileStar f(path, "r");
  EXPECT_TRUE(f.valid());
  ReadableUnicodeFileStar in(f, given);
  std::vector<std::string> out;
  Str line;
  while (in.readline(line)) out.push_back(line);
  if (encoding != nullptr) *encoding = in.getFileEncoding();
  return out;
}

// What a WritableUnicodeFileStar in `encoding` writes for the puts of `parts`.
std::string writeParts(FileEncoding encoding, const std::vector<std::string>& parts) {
  TestTempDir dir;
  const Pathname path = dir / "out";
  {
    ScopedFileStar f(path, "w");
    EXPECT_TRUE(f.valid());
    WritableUnicodeFileStar out(f, encoding);
    for (const std::string& p : parts) EXPECT_TRUE(out.put(p)) << printable(p);
    EXPECT_TRUE(out.flush());
  }
  return readTestFile(path);
}

std::string bytes(std::initializer_list<int> list) {
  std::string out;
  for (int b : list) out += static_cast<char>(b);
  return out;
}

}  // namespace

TEST(UnicodeStreamReview, CutsLinesAtLineFeeds) {
  const struct {
    std::string in;
    std::vector<std::string> lines;
  } kCases[] = {
      {"a\r\r\n", {"a\r"}},  // only one CR goes
      {"\r", {""}},
      {"\r\n", {""}},
      {"a\n\rb", {"a", "\rb"}},
      {std::string("a\0b\n", 4), {std::string("a\0b", 3)}},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.lines, readLines(c.in, nullptr)) << printable(c.in);
  }
}

// A kind below UTF-8 writes UTF-8, and the mark flag still counts.
TEST(UnicodeStreamReview, WriterTakesKindsBelowUtf8AsUtf8) {
  const std::string text = "a\xC3\xA9\xF0\x9F\x98\x80";
  const struct {
    FileEncoding encoding;
    std::string out;
  } kCases[] = {
      {FILE_ENCODING_UNKNOWN, text},
      {FILE_ENCODING_EMPTY, text},
      {FILE_ENCODING_UNKNOWN | FILE_ENCODING_HAS_BOM, "\xEF\xBB\xBF" + text},
      {FILE_ENCODING_EMPTY | FILE_ENCODING_HAS_BOM, "\xEF\xBB\xBF" + text},
      {FILE_ENCODING_UNKNOWN | FILE_ENCODING_HAS_BOM, "\xEF\xBB\xBF"},  // nothing put
  };
  for (const auto& c : kCases) {
    const std::vector<std::string> parts =
        c.out.size() == 3 ? std::vector<std::string>{} : std::vector<std::string>{text};
    EXPECT_EQ(printable(c.out), printable(writeParts(c.encoding, parts))) << c.encoding;
  }
}

TEST(UnicodeStreamReview, KindsWithoutAnEngineMakeTheWriterUnusable) {
  TestTempDir dir;
  ScopedFileStar f(dir / "out", "w");
  const FileEncoding kBad[] = {0xFF, 0x8007, 0x80FF};
  for (FileEncoding e : kBad) {
    WritableUnicodeFileStar out(f, e);
    EXPECT_FALSE(out.valid()) << e;
    EXPECT_FALSE(out.put("x")) << e;
    EXPECT_FALSE(out.flush()) << e;
  }
  EXPECT_EQ("", readTestFile(dir / "out"));
}

// Characters, CRs and marks that straddle the read-ahead and the read
// blocks come out whole, wherever the cut falls.
TEST(UnicodeStreamReview, UnitsCutByReadBoundariesStayWhole) {
  const char kSmile[] = "\xF0\x9F\x98\x80";
  std::vector<size_t> prefixes;
  for (size_t base : {size_t{64}, size_t{512}, size_t{4096}, size_t{8192}, size_t{65536}}) {
    for (size_t d = 0; d < 8; ++d) prefixes.push_back(base - 4 + d);
  }
  for (size_t n : prefixes) {
    SCOPED_TRACE(n);
    const std::string head(n, 'a');
    EXPECT_EQ(std::vector<std::string>({head + kSmile, "b"}),
              readLines(head + kSmile + "\nb", nullptr));
    // One CR ahead of a LF goes, a CR ahead of anything else stays.
    EXPECT_EQ(std::vector<std::string>({head, "b"}), readLines(head + "\r\nb", nullptr));
    EXPECT_EQ(std::vector<std::string>({head + "\rb"}), readLines(head + "\rb", nullptr));
    // The same in UTF-16 LE with a mark: a surrogate pair and a CR LF.
    std::string u16 = "\xFF\xFE";
    for (size_t i = 0; i < n / 2; ++i) u16 += std::string("a\0", 2);
    u16 += bytes({0x3D, 0xD8, 0x00, 0xDE, '\r', 0, '\n', 0, 'b', 0});
    FileEncoding e = 0;
    EXPECT_EQ(std::vector<std::string>({std::string(n / 2, 'a') + kSmile, "b"}),
              readLines(u16, &e));
    EXPECT_EQ(FILE_ENCODING_UTF16LE | FILE_ENCODING_HAS_BOM, e);
  }
}
