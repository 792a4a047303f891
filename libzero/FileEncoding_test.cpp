#include "libzero/FileEncoding.h"

#include <gtest/gtest.h>

#include <string>

#include "libzero/UTF8Converter.h"

namespace {

FileEncoding detect(const std::string& bytes) {
  return detectFileEncoding(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

constexpr FileEncoding BOM = FILE_ENCODING_HAS_BOM;

TEST(FileEncoding, MarksInTheirOrderOfPrecedence) {
  const struct {
    std::string bytes;
    FileEncoding want;
  } kCases[] = {
      {"", FILE_ENCODING_EMPTY},
      {"\xEF\xBB\xBF", FILE_ENCODING_UTF8 | BOM},
      {"\xEF\xBB", FILE_ENCODING_UTF8},  // a mark cut short is text
      {std::string("\x00\x00\xFE\xFF", 4), FILE_ENCODING_UTF32BE | BOM},
      {std::string("\x00\x00\xFE", 3), FILE_ENCODING_UTF8},
      {std::string("\xFF\xFE\x00\x00\x41\x00\x00\x00", 8), FILE_ENCODING_UTF32LE | BOM},
      // The group after the mark is zero: UTF-16 text that starts with NULs.
      {std::string("\xFF\xFE\x00\x00\x00\x00\x00\x00", 8), FILE_ENCODING_UTF16LE | BOM},
      // Fewer than 8 bytes cannot be checked as UTF-32.
      {std::string("\xFF\xFE\x00\x00\x41\x00", 6), FILE_ENCODING_UTF16LE | BOM},
      // A later group above 10FFFF: not UTF-32.
      {std::string("\xFF\xFE\x00\x00\x41\x00\x00\x00\x42\x00\x11\x00", 12),
       FILE_ENCODING_UTF16LE | BOM},
      // 10FFFF itself is a code point; an incomplete last group is ignored.
      {std::string("\xFF\xFE\x00\x00\xFF\xFF\x10\x00\xFF\xFF\x11", 11),
       FILE_ENCODING_UTF32LE | BOM},
      {"\xFE\xFF", FILE_ENCODING_UTF16BE | BOM},
      {std::string("\xFE\xFF\x00\x41", 4), FILE_ENCODING_UTF16BE | BOM},
      {"\xFF\xFE", FILE_ENCODING_UTF16LE | BOM},
      {"\xFF", FILE_ENCODING_UTF8},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.want, detect(c.bytes)) << testing::PrintToString(c.bytes);
  }
}

TEST(FileEncoding, NoMarkHeuristicCountsZeroBytesByParity) {
  const struct {
    std::string bytes;
    FileEncoding want;
  } kCases[] = {
      {std::string("a\0b\0c\0", 6), FILE_ENCODING_UTF8},  // under 8 bytes
      {std::string("a\0b\0c\0d\0", 8), FILE_ENCODING_UTF16LE},
      {"          ", FILE_ENCODING_UTF8},  // ten blanks
      {std::string("\0a\0b\0c\0d", 8), FILE_ENCODING_UTF8},  // big-endian is not guessed
      // 4 units: more than 2 odd zeros and fewer than 2 even ones.
      {std::string("a\0b\0c\0dd", 8), FILE_ENCODING_UTF16LE},
      {std::string("a\0b\0ccdd", 8), FILE_ENCODING_UTF8},
      {std::string("\0\0b\0c\0d\0", 8), FILE_ENCODING_UTF16LE},
      {std::string("\0\0\0\0c\0d\0", 8), FILE_ENCODING_UTF8},  // 2 even zeros
      {std::string(16, '\0'), FILE_ENCODING_UTF8},
      // An odd length: the last byte counts, the units do not grow.
      {std::string("a\0b\0c\0d\0e", 9), FILE_ENCODING_UTF16LE},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.want, detect(c.bytes)) << testing::PrintToString(c.bytes);
  }
}

TEST(FileEncoding, MarksMatchTheirDetection) {
  for (FileEncoding e = FILE_ENCODING_UTF8; e <= FILE_ENCODING_UTF32BE; ++e) {
    const unsigned char* mark = nullptr;
    const size_t n = fileEncodingMark(e | BOM, &mark);
    ASSERT_NE(nullptr, mark);
    std::string bytes(reinterpret_cast<const char*>(mark), n);
    bytes.append(std::string("A\0\0\0", 4));  // makes the UTF-32 LE check pass
    EXPECT_EQ(e | BOM, detect(bytes)) << e;
  }
  for (FileEncoding e : {FILE_ENCODING_UNKNOWN, FILE_ENCODING_EMPTY, FileEncoding{7}}) {
    const unsigned char* mark = reinterpret_cast<const unsigned char*>("x");
    EXPECT_EQ(0u, fileEncodingMark(e, &mark)) << e;
    EXPECT_EQ(nullptr, mark);
  }
}

TEST(UTF8Converter, FindsEnginesByNameAndKind) {
  const struct {
    const char* name;
    FileEncoding want;  // 0: none
  } kCases[] = {
      {"UTF-8", FILE_ENCODING_UTF8},       {"utf8", FILE_ENCODING_UTF8},
      {"UTF-16LE", FILE_ENCODING_UTF16LE}, {"utf_16le", FILE_ENCODING_UTF16LE},
      {"UTF-16BE", FILE_ENCODING_UTF16BE}, {"UTF-32LE", FILE_ENCODING_UTF32LE},
      {"Utf-32be", FILE_ENCODING_UTF32BE}, {"UTF-16", 0},
      {"UTF-32", 0},                       {"latin1", 0},
      {"", 0},                             {"UTF-8X", 0},
      {"UTF", 0},
  };
  for (const auto& c : kCases) {
    const UTF8Converter* engine = UTF8Converter::find_engine(c.name);
    if (c.want == 0) {
      EXPECT_EQ(nullptr, engine) << c.name;
      continue;
    }
    ASSERT_NE(nullptr, engine) << c.name;
    EXPECT_EQ(c.want, engine->encoding()) << c.name;
    EXPECT_EQ(engine, UTF8Converter::find_engine(c.want | BOM)) << c.name;
    EXPECT_EQ(engine, UTF8Converter::find_engine(engine->name())) << c.name;
  }
  EXPECT_EQ(nullptr, UTF8Converter::find_engine(static_cast<const char*>(nullptr)));
  EXPECT_EQ(nullptr, UTF8Converter::find_engine(FILE_ENCODING_EMPTY));
  EXPECT_EQ(nullptr, UTF8Converter::find_engine(FileEncoding{7}));
}

TEST(UTF8Converter, DecodesOneUtf8CharacterOrSaysWhy) {
  const struct {
    std::string bytes;
    int want;
    uint32_t codepoint;
  } kCases[] = {
      {"A", 1, 0x41},
      {"\xC2\x80", 2, 0x80},
      {"\xDF\xBF", 2, 0x7FF},
      {"\xE0\xA0\x80", 3, 0x800},
      {"\xEF\xBB\xBF", 3, 0xFEFF},
      {"\xF0\x90\x80\x80", 4, 0x10000},
      {"\xF4\x8F\xBF\xBF", 4, 0x10FFFF},
      {"\xE2\x82", 0, 0},          // cut short
      {"\xF0\x9F\x98", 0, 0},
      {"\xC0\x80", -1, 0},         // overlong
      {"\xC1\xBF", -1, 0},
      {"\xE0\x9F\xBF", -1, 0},     // overlong three-byte
      {"\xED\xA0\x80", -1, 0},     // surrogate
      {"\xF0\x8F\xBF\xBF", -1, 0}, // overlong four-byte
      {"\xF4\x90\x80\x80", -1, 0}, // above 10FFFF
      {"\xF5\x80\x80\x80", -1, 0},
      {"\x80", -1, 0},
      {"\xE2\x41\x41", -1, 0},
      {"\xF1\x41\x80\x80", -1, 0},
  };
  for (const auto& c : kCases) {
    uint32_t cp = 0;
    EXPECT_EQ(c.want, UTF8Converter::decodeUtf8(
                          reinterpret_cast<const unsigned char*>(c.bytes.data()),
                          c.bytes.size(), &cp))
        << testing::PrintToString(c.bytes);
    if (c.want > 0) {
      EXPECT_EQ(c.codepoint, cp) << testing::PrintToString(c.bytes);
      std::string back;
      UTF8Converter::appendUtf8(cp, back);
      EXPECT_EQ(c.bytes, back);
    }
  }
}

}  // namespace
