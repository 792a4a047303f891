// The Unicode readers and writers against the iconv command on the same
// bytes: every encoding, with and without a mark, undecodable units, and the
// detection of an encoding that carries no mark.
#include <gtest/gtest.h>

#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include "libzero/FileEncoding.h"
#include "libzero/UTF8Converter.h"
#include "util/FileStar.h"
#include "util/ReadableUnicodeStream.h"
#include "util/WritableUnicodeFileStar.h"
#include "util/testing/IconvOracle.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/TestText.h"

namespace {

const FileEncoding kEncodings[] = {FILE_ENCODING_UTF8, FILE_ENCODING_UTF16LE,
                                   FILE_ENCODING_UTF16BE, FILE_ENCODING_UTF32LE,
                                   FILE_ENCODING_UTF32BE};

const char* nameOf(FileEncoding e) { return UTF8Converter::find_engine(e)->name(); }

std::string markOf(FileEncoding e) {
  const unsigned char* mark = nullptr;
  const size_t n = fileEncodingMark(e, &mark);
  return std::string(reinterpret_cast<const char*>(mark), n);
}

// The engine over `bytes`, fed in pieces of random size as a stream would.
std::string decodeInPieces(const UTF8Converter& engine, const std::string& bytes,
                           std::mt19937& rng) {
  std::string out;
  std::string pending;
  size_t at = 0;
  while (at < bytes.size()) {
    const size_t n = std::min<size_t>(1 + rng() % 7, bytes.size() - at);
    pending.append(bytes, at, n);
    at += n;
    const size_t used = engine.toUtf8(reinterpret_cast<const unsigned char*>(pending.data()),
                                      pending.size(), at == bytes.size(), out);
    pending.erase(0, used);
  }
  EXPECT_TRUE(pending.empty());
  return out;
}

// Lines as the readers promise them, cut by the test's own hand.
std::vector<std::string> expectedLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    const bool last = nl == std::string::npos;
    if (last) nl = text.size();
    std::string line = text.substr(pos, nl - pos);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
    pos = nl + 1;
  }
  return lines;
}

std::vector<std::string> readAllLines(const Pathname& path, FileEncoding given,
                                      FileEncoding* settled) {
  ScopedFileStar f(path, "r");
  EXPECT_TRUE(f.valid()) << path;
  ReadableUnicodeFileStar in(f, given);
  std::vector<std::string> lines;
  Str line;
  while (in.readline(line)) lines.push_back(line);
  *settled = in.getFileEncoding();
  return lines;
}

// Every code point (surrogates aside) encoded by the engine and decoded back
// must be what iconv makes of the same bytes.
// Every line a ReadableUnicodeFileStar gives for `bytes`, and the encoding
// it settled on.
std::vector<std::string> readLines(const std::string& bytes, FileEncoding* encoding,
                                   FileEncoding given = FILE_ENCODING_UNKNOWN) {
  TestTempDir dir;
  writeTestFile(dir / "in", bytes);
  FileEncoding settled = 0;
  std::vector<std::string> out = readAllLines(dir / "in", given, &settled);
  if (encoding != nullptr) *encoding = settled;
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

TEST(UnicodeDecoding, EveryCodePointAgreesWithIconv) {
  std::mt19937 rng(17);
  for (FileEncoding e : kEncodings) {
    const UTF8Converter& engine = *UTF8Converter::find_engine(e);
    std::string bytes;
    for (uint32_t cp = 0; cp <= 0x10FFFF; ++cp) {
      if (cp == 0xD800) cp = 0xE000;
      engine.fromCodepoint(cp, bytes);
    }
    const std::string mine = decodeInPieces(engine, bytes, rng);
    EXPECT_EQ(iconvToUtf8(bytes, engine.name()), mine) << engine.name();
    EXPECT_GT(mine.size(), 4000000u);
  }
}

// Random bytes are mostly undecodable: whatever is skipped must be exactly
// what iconv -c skips.
TEST(UnicodeDecoding, UndecodableUnitsAreSkippedAsIconvSkipsThem) {
  std::mt19937 rng(42);
  for (FileEncoding e : kEncodings) {
    const UTF8Converter& engine = *UTF8Converter::find_engine(e);
    std::string bytes;
    for (int i = 0; i < 60000; ++i) {
      const unsigned r = rng();
      // Lean towards the bytes that make units interesting: continuation
      // and lead bytes, surrogate halves, zeros and values near 10FFFF.
      const char pick[] = {'\x00', '\x10', '\x11', '\xD8', '\xDC', '\xDF', '\x80', '\xBF',
                           '\xC2', '\xE0', '\xED', '\xEF', '\xF0', '\xF4', '\xFE', '\xFF', 'A'};
      bytes.push_back(r % 3 == 0 ? static_cast<char>(rng()) : pick[r % sizeof pick]);
    }
    EXPECT_EQ(iconvToUtf8(bytes, engine.name()), decodeInPieces(engine, bytes, rng))
        << engine.name();
  }
}

TEST(UnicodeDecoding, SmallDamagedInputs) {
  const struct {
    FileEncoding e;
    std::string bytes;
    std::string want;
  } kCases[] = {
      {FILE_ENCODING_UTF8, "A\xE2\x82" "B", "AB"},
      {FILE_ENCODING_UTF8, "A\xE2\x82", "A"},  // cut at the end
      {FILE_ENCODING_UTF8, "A\xEF\xBB\xBF" "B", "AB"},  // FEFF dropped mid-text
      {FILE_ENCODING_UTF16LE, std::string("A\0\0\xD8" "B\0", 6), "AB"},
      {FILE_ENCODING_UTF16LE, std::string("A\0\0\xDC" "B\0", 6), "AB"},
      {FILE_ENCODING_UTF16LE, std::string("A\0B", 3), "A"},  // odd byte at the end
      {FILE_ENCODING_UTF16LE, std::string("A\0\x3D\xD8\x00\xDE", 6), "A\xF0\x9F\x98\x80"},
      {FILE_ENCODING_UTF16BE, std::string("\xD8\x3D\0A", 4), "A"},
      {FILE_ENCODING_UTF32LE, std::string("A\0\0\0\0\0\x11\0B\0\0\0", 12), "AB"},
      {FILE_ENCODING_UTF32BE, std::string("\0\0\xD8\0\0\0\0A\0\0", 10), "A"},
  };
  for (const auto& c : kCases) {
    std::string out;
    const UTF8Converter& engine = *UTF8Converter::find_engine(c.e);
    engine.toUtf8(reinterpret_cast<const unsigned char*>(c.bytes.data()), c.bytes.size(), true,
                  out);
    EXPECT_EQ(c.want, out) << engine.name() << " " << printable(c.bytes);
    EXPECT_EQ(iconvToUtf8(c.bytes, engine.name()), out) << printable(c.bytes);
  }
}

// Texts with the line ends the readers must cut, in every encoding, with and
// without a mark, read back through a file.
TEST(ReadableUnicodeFileStar, ReadsEveryEncodingWithAndWithoutAMark) {
  const std::string kTexts[] = {
      "[stanza]\nkey = value\n",
      "a\r\nb\rc\r\n\r\n\nlast without end",
      "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80\nsecond\r",
      "\n",
      "x",
      "x\xEF\xBB\xBFinner mark\n",
      std::string(100000, 'L') + "\n" + std::string(70001, 'M'),  // across blocks
  };
  TestTempDir dir;
  const Pathname path = dir / "text";
  for (FileEncoding e : kEncodings) {
    for (bool marked : {true, false}) {
      for (const std::string& text : kTexts) {
        const std::string bytes = (marked ? markOf(e) : "") + iconvFromUtf8(text, nameOf(e));
        writeTestFile(path, bytes);
        // Without a mark only UTF-8 is found by itself; the others are named.
        const FileEncoding given = marked || e == FILE_ENCODING_UTF8 ? 0 : e;
        FileEncoding settled = 0;
        const auto lines = readAllLines(path, given, &settled);
        SCOPED_TRACE(std::string(nameOf(e)) + (marked ? " marked " : " ") +
                     printable(text.substr(0, 40)));
        EXPECT_EQ(expectedLines(iconvToUtf8(bytes, nameOf(e))), lines);
        EXPECT_EQ(e | (marked ? FILE_ENCODING_HAS_BOM : 0), settled);
      }
    }
  }
}

TEST(ReadableUnicodeFileStar, GuessesUnmarkedUtf16LittleEndian) {
  const struct {
    std::string text;
    FileEncoding want;
  } kCases[] = {
      {"[general]\nserverName = indexer01\n", FILE_ENCODING_UTF16LE},
      {"abcd", FILE_ENCODING_UTF16LE},  // 8 bytes in UTF-16
      {"abc", FILE_ENCODING_UTF8},      // 6 bytes: too few to guess
      {"\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x81\xA7\xE3\x81\x99", FILE_ENCODING_UTF8},
  };
  TestTempDir dir;
  const Pathname path = dir / "text";
  for (const auto& c : kCases) {
    const std::string bytes = iconvFromUtf8(c.text, "UTF-16LE");
    writeTestFile(path, bytes);
    FileEncoding settled = 0;
    const auto lines = readAllLines(path, 0, &settled);
    EXPECT_EQ(c.want, settled) << c.text;
    if (c.want == FILE_ENCODING_UTF16LE) {
      EXPECT_EQ(expectedLines(c.text), lines);
    } else {
      EXPECT_EQ(expectedLines(iconvToUtf8(bytes, "UTF-8")), lines) << c.text;
    }
  }
  writeTestFile(path, "          ");
  FileEncoding settled = 0;
  EXPECT_EQ(std::vector<std::string>{"          "}, readAllLines(path, 0, &settled));
  EXPECT_EQ(FILE_ENCODING_UTF8, settled);
}

TEST(ReadableUnicodeFileStar, EmptyInputsAndSegments) {
  TestTempDir dir;
  const Pathname path = dir / "text";
  writeTestFile(path, "");
  FileEncoding settled = 0;
  EXPECT_TRUE(readAllLines(path, 0, &settled).empty());
  EXPECT_EQ(FILE_ENCODING_EMPTY, settled);

  writeTestFile(path, "\xEF\xBB\xBF");
  EXPECT_TRUE(readAllLines(path, 0, &settled).empty());
  EXPECT_EQ(FILE_ENCODING_UTF8 | FILE_ENCODING_HAS_BOM, settled);

  writeTestFile(path, "one\ntwo");
  ScopedFileStar f(path, "r");
  ReadableUnicodeFileStar in(f);
  EXPECT_EQ(FILE_ENCODING_UNKNOWN, in.getFileEncoding());
  StrSegment seg("untouched");
  ASSERT_TRUE(in.readline(seg));
  EXPECT_EQ("one", std::string(seg.view()));
  ASSERT_TRUE(in.readline(seg));
  EXPECT_EQ("two", std::string(seg.view()));
  EXPECT_FALSE(in.readline(seg));

  ReadableUnicodeFileStar closed{FileStar()};
  Str line("kept");
  EXPECT_FALSE(closed.valid());
  EXPECT_FALSE(closed.readline(line));
  EXPECT_EQ("kept", line);
}

// Writes `text` in random pieces (cutting characters apart) and returns the
// file's bytes.
std::string writeInPieces(const Pathname& path, FileEncoding e, const std::string& text,
                          std::mt19937& rng) {
  ScopedFileStar f(path, "w");
  WritableUnicodeFileStar out(f, e);
  EXPECT_TRUE(out.valid());
  for (size_t at = 0; at < text.size();) {
    const size_t n = std::min<size_t>(1 + rng() % 5, text.size() - at);
    EXPECT_TRUE(out.put(text.data() + at, n));
    at += n;
  }
  EXPECT_TRUE(out.flush());
  f.close();
  return readTestFile(path);
}

TEST(WritableUnicodeFileStar, WritesWhatIconvWritesWithTheMarkAsAsked) {
  std::mt19937 rng(5);
  TestTempDir dir;
  const Pathname path = dir / "out";
  const std::string kTexts[] = {
      "[s]\nk = v\n",
      "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xF4\x8F\xBF\xBF\r\n",
      "",
  };
  for (FileEncoding e : kEncodings) {
    for (bool marked : {true, false}) {
      for (const std::string& text : kTexts) {
        // A UTF-32 LE mark with nothing after it reads back as UTF-16 LE.
        if (text.empty() && marked && e == FILE_ENCODING_UTF32LE) continue;
        const FileEncoding asked = e | (marked ? FILE_ENCODING_HAS_BOM : 0);
        const std::string bytes = writeInPieces(path, asked, text, rng);
        EXPECT_EQ((marked ? markOf(e) : "") + iconvFromUtf8(text, nameOf(e)), bytes)
            << nameOf(e) << " " << printable(text);
        FileEncoding settled = 0;
        const auto lines = readAllLines(path, marked || e == FILE_ENCODING_UTF8 ? 0 : e, &settled);
        EXPECT_EQ(expectedLines(text), lines);
      }
    }
  }
}

TEST(WritableUnicodeFileStar, SkipsMalformedInputWhenReencoding) {
  std::mt19937 rng(9);
  TestTempDir dir;
  const Pathname path = dir / "out";
  const std::string text = "a\xFF" "b\xE2\x82" "c\xED\xA0\x80" "d\xE2\x82";
  EXPECT_EQ(iconvFromUtf8("abcd", "UTF-16BE"), writeInPieces(path, FILE_ENCODING_UTF16BE, text, rng));
  // To UTF-8 the bytes are the caller's and pass unchanged.
  EXPECT_EQ(text, writeInPieces(path, FILE_ENCODING_UTF8, text, rng));
}

TEST(WritableUnicodeFileStar, FormatsNumbersAndText) {
  TestTempDir dir;
  const Pathname path = dir / "out";
  {
    ScopedFileStar f(path, "w");
    WritableUnicodeFileStar out(f, FILE_ENCODING_UTF16LE | FILE_ENCODING_HAS_BOM);
    EXPECT_TRUE(out.format("[%s]%c", "st\xC3\xA4nza", '\n'));
    EXPECT_TRUE(out.format_signed(-9223372036854775807LL - 1));
    EXPECT_TRUE(out.put(" "));
    EXPECT_TRUE(out.format_unsigned(18446744073709551615ULL));
    EXPECT_TRUE(out.put(" "));
    EXPECT_TRUE(out.format_double(2.5));
    EXPECT_TRUE(out.format("%s", std::string(1000, 'z').c_str()));  // past the small buffer
    EXPECT_TRUE(out.flush());
  }
  EXPECT_EQ("\xFF\xFE" + iconvFromUtf8("[st\xC3\xA4nza]\n-9223372036854775808 "
                                       "18446744073709551615 2.500000" +
                                           std::string(1000, 'z'),
                                       "UTF-16LE"),
            readTestFile(path));
}

TEST(WritableUnicodeFileStar, FailuresAreReported) {
  {
    ScopedFileStar f(Pathname("/dev/null"), "w");
    WritableUnicodeFileStar out(f, FileEncoding{7});
    EXPECT_FALSE(out.valid());
    EXPECT_FALSE(out.put("x"));
    EXPECT_FALSE(out.flush());
  }
  {
    WritableUnicodeFileStar out{FileStar(), FILE_ENCODING_UTF8};
    EXPECT_FALSE(out.valid());
    EXPECT_FALSE(out.put("x"));
    EXPECT_FALSE(out.flush());
  }
  {
    // The device takes the bytes into the stream's buffer and refuses them
    // at the flush.
    ScopedFileStar f(Pathname("/dev/full"), "w");
    ASSERT_TRUE(f.valid());
    WritableUnicodeFileStar out(f, FILE_ENCODING_UTF8);
    EXPECT_TRUE(out.put("abc"));
    errno = 0;
    EXPECT_FALSE(out.flush());
    EXPECT_EQ(ENOSPC, errno);
  }
}

TEST(ReadableUnicodeFileStar, CutsLinesAtLineFeeds) {
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
TEST(WritableUnicodeFileStar, TakesKindsBelowUtf8AsUtf8) {
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

TEST(WritableUnicodeFileStar, KindsWithoutAnEngineMakeItUnusable) {
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
TEST(ReadableUnicodeFileStar, UnitsCutByReadBoundariesStayWhole) {
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

}  // namespace
