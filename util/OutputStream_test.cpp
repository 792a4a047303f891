#include "util/OutputStream.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "util/HashedStr.h"
#include "util/InputStream.h"
#include "util/Str.h"

namespace {

std::string bytesOf(const OutputStream& s) {
  return std::string(reinterpret_cast<const char*>(s.data()), s.size());
}

const unsigned char* ubytes(const std::string& s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}

TEST(OutputStream, GrowthJumpsOnceThenCreepsByTheInitialSize) {
  const struct {
    unsigned long initial;
    unsigned multiplier;
    std::vector<unsigned long> writes;
    unsigned long capacity;
    unsigned growths;
  } kCases[] = {
      {100, 2, {1000}, 1000, 9},       // 200, 300, ... 1000
      {100, 2, {100}, 100, 0},         // exactly full needs no growth
      {100, 2, {101}, 200, 1},
      {100, 4, {401}, 500, 2},         // 400, then 500
      {100, 3, {50, 50, 50, 200}, 400, 2},  // 300 at the third write, 400 at the fourth
      {10, 2, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}, 20, 1},
      {7, 10, {71}, 77, 2},            // 70, then 77
  };
  for (const auto& c : kCases) {
    NativeByteOrderOutputStream s(c.initial, c.multiplier);
    std::string expected;
    for (unsigned long n : c.writes) {
      const std::string chunk(n, static_cast<char>('a' + expected.size() % 26));
      s.write(chunk.size(), ubytes(chunk));
      expected += chunk;
    }
    SCOPED_TRACE(testing::Message() << c.initial << " x" << c.multiplier);
    EXPECT_EQ(c.capacity, s.capacity());
    EXPECT_EQ(c.growths, s.growthCount());
    EXPECT_EQ(expected, bytesOf(s));
  }
}

TEST(OutputStream, MultiplierOneCannotGrow) {
  EXPECT_DEATH(
      {
        NativeByteOrderOutputStream s(8, 1);
        s.write(9, ubytes(std::string(9, 'x')));
      },
      "_reallocOnOverflowMultiplier > 1");
  NativeByteOrderOutputStream fits(8, 1);
  fits.write(8, ubytes(std::string(8, 'x')));
  EXPECT_EQ(8u, fits.size());
}

// The multiplier also decides the ownership of a caller's buffer. Under ASan
// a double free or a leak fails the test, so these run for their frees.
TEST(OutputStream, CallersBufferOwnershipFollowsTheMultiplier) {
  unsigned char* kept = static_cast<unsigned char*>(std::malloc(16));
  {
    NativeByteOrderOutputStream s(16, kept, 2);
    EXPECT_FALSE(s.ownsBuffer());
    s.write(4, ubytes("abcd"));
    EXPECT_EQ(kept, s.data());
  }
  EXPECT_EQ(0, std::memcmp(kept, "abcd", 4));  // still the caller's
  std::free(kept);

  unsigned char* grownAway = static_cast<unsigned char*>(std::malloc(16));
  {
    NativeByteOrderOutputStream s(16, grownAway, 2);
    s.write(20, ubytes(std::string(20, 'g')));  // frees the caller's buffer
    EXPECT_NE(grownAway, s.data());
    EXPECT_TRUE(s.ownsBuffer());
    EXPECT_EQ(std::string(20, 'g'), bytesOf(s));
  }

  unsigned char* given = static_cast<unsigned char*>(std::malloc(16));
  {
    NativeByteOrderOutputStream s(16, given, 3);
    EXPECT_TRUE(s.ownsBuffer());
  }  // freed here
}

TEST(OutputStream, ResetBufferSizeEmptiesAndRestartsGrowth) {
  NativeByteOrderOutputStream s(10, 2);
  s.write(25, ubytes(std::string(25, 'x')));
  ASSERT_EQ(2u, s.growthCount());
  s.resetBufferSize(50);
  EXPECT_EQ(0u, s.size());
  EXPECT_EQ(50u, s.capacity());
  EXPECT_EQ(0u, s.growthCount());
  // The initial size stays 10: the first growth doubles, the next adds 10.
  s.write(101, ubytes(std::string(101, 'y')));
  EXPECT_EQ(110u, s.capacity());
  EXPECT_EQ(2u, s.growthCount());

  unsigned char* caller = static_cast<unsigned char*>(std::malloc(8));
  NativeByteOrderOutputStream c(8, caller, 2);
  c.resetBufferSize(8);  // frees the caller's buffer and owns the new one
  EXPECT_TRUE(c.ownsBuffer());
}

TEST(OutputStream, NumbersInEitherByteOrder) {
  NativeByteOrderOutputStream native(4, 2);
  SwappedByteOrderOutputStream swapped(4, 2);
  for (unsigned v : {0u, 1u, 0x01020304u, 0xFFFFFFFFu, 0x80000000u}) {
    native.write_32(v);
    swapped.write_32(v);
  }
  const std::string n = bytesOf(native), w = bytesOf(swapped);
  ASSERT_EQ(20u, n.size());
  ASSERT_EQ(20u, w.size());
  uint32_t native3;
  std::memcpy(&native3, n.data() + 8, 4);
  EXPECT_EQ(0x01020304u, native3);
  // Swapped bytes are the native ones reversed, word by word.
  for (size_t word = 0; word < 5; ++word) {
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(n[word * 4 + i], w[word * 4 + 3 - i]);
  }
}

TEST(OutputStream, StringCostsItsLengthPlusFive) {
  const std::string withNul("a\0b", 3);
  const struct {
    std::string text;
    std::string expected;
  } kCases[] = {
      {"", std::string("\x01\x00\x00\x00\x00", 5)},
      {"abc", std::string("\x04\x00\x00\x00" "abc\x00", 8)},
      {withNul, std::string("\x04\x00\x00\x00" "a\x00" "b\x00", 8)},
  };
  for (const auto& c : kCases) {
    SwappedByteOrderOutputStream big(2, 2);
    NativeByteOrderOutputStream little(2, 2);
    big.write(Str(c.text));
    little.write(StrSegment(c.text));
    const HashedStrReference key = HashedStrReference::_allocMem(c.text.data(), c.text.size());
    NativeByteOrderOutputStream fromKey(2, 2);
    fromKey.write(key);
    key._freeMem();
    // This machine is little-endian, so the swapped form is big-endian.
    std::string bigExpected = c.expected;
    std::swap(bigExpected[0], bigExpected[3]);
    std::swap(bigExpected[1], bigExpected[2]);
    EXPECT_EQ(c.expected, bytesOf(little));
    EXPECT_EQ(bigExpected, bytesOf(big));
    EXPECT_EQ(bytesOf(little), bytesOf(fromKey));
  }
}

// Everything written in one byte order reads back through the matching
// input stream, and not through the other one beyond its first number.
TEST(OutputStream, RoundTripsThroughInputStream) {
  std::vector<std::string> texts = {"", "x", std::string("nul\0inside", 10), std::string(300, 'L')};
  NativeByteOrderOutputStream n(16, 2);
  SwappedByteOrderOutputStream w(16, 2);
  for (const auto& t : texts) {
    n.write(Str(t));
    n.write_32(static_cast<unsigned>(t.size() * 7));
    w.write(Str(t));
    w.write_32(static_cast<unsigned>(t.size() * 7));
  }
  NativeByteOrderInputStream nin(n.data(), n.size());
  SwappedByteOrderInputStream win(w.data(), w.size());
  for (const auto& t : texts) {
    Str a;
    StrSegment b;
    unsigned an = 0, bn = 0;
    ASSERT_TRUE(nin.tryReadStr(a));
    ASSERT_TRUE(win.tryReadSeg(b));
    ASSERT_TRUE(nin.tryRead32(an));
    ASSERT_TRUE(win.tryRead32(bn));
    EXPECT_EQ(t, a);
    EXPECT_EQ(t, std::string(b.data(), b.size()));
    EXPECT_EQ(t.size() * 7, an);
    EXPECT_EQ(t.size() * 7, bn);
  }
  EXPECT_EQ(0u, nin.remaining());
  EXPECT_EQ(0u, win.remaining());
  SwappedByteOrderInputStream wrong(n.data(), n.size());
  Str s;
  EXPECT_FALSE(wrong.tryReadStr(s));  // a count of 0x01000000 runs past the end
}

}  // namespace
