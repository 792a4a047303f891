#include "util/InputStream.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "util/Str.h"
#include "util/StrSegment.h"

namespace {

// A little-endian count followed by `body`, built by hand.
std::string counted(uint32_t n, const std::string& body) {
  std::string out(4, '\0');
  for (int i = 0; i < 4; ++i) out[i] = static_cast<char>((n >> (8 * i)) & 0xFF);
  return out + body;
}

TEST(InputStream, StringCountRules) {
  const struct {
    const char* why;
    std::string bytes;
    bool ok;
    std::string text;
    size_t positionAfter;
  } kCases[] = {
      {"empty string", counted(1, std::string(1, '\0')), true, "", 5},
      {"plain", counted(4, std::string("abc\0", 4)), true, "abc", 8},
      {"closing byte skipped, not checked", counted(4, "abcX"), true, "abc", 8},
      {"bytes after the string stay", counted(2, std::string("a\0tail", 6)), true, "a", 6},
      {"count 0 moves past the count", counted(0, "zzzz"), false, "", 4},
      {"count past the end", counted(5, "abcd"), false, "", 0},
      {"fewer than four bytes", std::string("\x01\x00\x00", 3), false, "", 0},
      {"nothing at all", "", false, "", 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.why);
    NativeByteOrderInputStream a(c.bytes.data(), c.bytes.size());
    NativeByteOrderInputStream b(c.bytes.data(), c.bytes.size());
    Str str("untouched");
    StrSegment seg("untouched");
    EXPECT_EQ(c.ok, a.tryReadStr(str));
    EXPECT_EQ(c.ok, b.tryReadSeg(seg));
    EXPECT_EQ(c.positionAfter, a.position());
    EXPECT_EQ(c.positionAfter, b.position());
    if (c.ok) {
      EXPECT_EQ(c.text, str);
      EXPECT_EQ(c.text, std::string(seg.data(), seg.size()));
      EXPECT_EQ(c.bytes.data() + 4, seg.data());  // a view, not a copy
    } else {
      EXPECT_EQ("untouched", str);
      EXPECT_EQ("untouched", std::string(seg.data(), seg.size()));
    }
  }
}

TEST(InputStream, LengthLimitSitsAt0x4000000) {
  std::string big = counted(0x4000001, std::string(0x4000001, 'q'));
  NativeByteOrderInputStream refused(big.data(), big.size());
  StrSegment seg;
  EXPECT_FALSE(refused.tryReadSeg(seg));
  EXPECT_EQ(4u, refused.position());

  big = counted(0x4000000, std::string(0x4000000, 'q'));
  NativeByteOrderInputStream largest(big.data(), big.size());
  ASSERT_TRUE(largest.tryReadSeg(seg));
  EXPECT_EQ(0x3FFFFFFu, seg.size());
  EXPECT_EQ(0u, largest.remaining());
}

TEST(InputStream, NumbersInEitherByteOrder) {
  const std::string bytes("\x01\x02\x03\x04\xff\xff\xff\x7f\x09", 9);
  NativeByteOrderInputStream n(bytes.data(), bytes.size());
  SwappedByteOrderInputStream w(bytes.data(), bytes.size());
  unsigned v = 0;
  ASSERT_TRUE(n.tryRead32(v));
  EXPECT_EQ(0x04030201u, v);
  ASSERT_TRUE(w.tryRead32(v));
  EXPECT_EQ(0x01020304u, v);
  ASSERT_TRUE(n.tryRead32(v));
  EXPECT_EQ(0x7fffffffu, v);
  ASSERT_TRUE(w.tryRead32(v));
  EXPECT_EQ(0xffffff7fu, v);
  v = 42;
  EXPECT_FALSE(n.tryRead32(v));  // one byte left
  EXPECT_EQ(42u, v);
  EXPECT_EQ(8u, n.position());
}

TEST(InputStream, SwappedCountReadsBigEndian) {
  const std::string bytes("\x00\x00\x00\x03hi\x00", 7);
  SwappedByteOrderInputStream w(bytes.data(), bytes.size());
  Str s;
  ASSERT_TRUE(w.tryReadStr(s));
  EXPECT_EQ("hi", s);
  NativeByteOrderInputStream n(bytes.data(), bytes.size());
  EXPECT_FALSE(n.tryReadStr(s));  // 0x03000000 is past the end
  EXPECT_EQ(0u, n.position());
}

// Every cut of a record of strings and numbers reads the whole items before
// the cut and then refuses, never reading past the end.
TEST(InputStream, EveryTruncationStopsCleanly) {
  const std::string record = counted(3, std::string("ab\0", 3)) + std::string("\x07\x00\x00\x00", 4) +
                             counted(6, std::string("hello\0", 6));
  for (size_t cut = 0; cut <= record.size(); ++cut) {
    SCOPED_TRACE(cut);
    const std::vector<char> heap(record.begin(), record.begin() + cut);  // ASan sees overreads
    NativeByteOrderInputStream in(heap.data(), heap.size());
    Str a, b;
    unsigned n = 0;
    const bool gotA = in.tryReadStr(a);
    EXPECT_EQ(cut >= 7, gotA);
    if (!gotA) continue;
    const bool gotN = in.tryRead32(n);
    EXPECT_EQ(cut >= 11, gotN);
    if (!gotN) continue;
    EXPECT_EQ(cut == record.size(), in.tryReadStr(b));
  }
}

}  // namespace
