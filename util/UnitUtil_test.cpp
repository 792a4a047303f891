#include "util/UnitUtil.h"

#include <gtest/gtest.h>

namespace {

TEST(UnitUtil, ParsesDigitsWithEachUnit) {
  const struct {
    const char* text;
    uint64_t bytes;
  } kCases[] = {
      {"0", 0},
      {"512", 512},
      {"7B", 7},
      {"1KB", 1024},
      {"2k", 2048},  // case ignored, "B" optional
      {"100MB", 100ull << 20},
      {"3gb", 3ull << 30},
      {"1TB", 1ull << 40},
      {" 10MB\t", 10ull << 20},               // blanks around the value
      {"16777215TB", 16777215ull << 40},      // largest that fits in 64 bits
      {"18446744073709551615", UINT64_MAX},   // plain bytes up to the top
  };
  for (const auto& c : kCases) {
    uint64_t out = 1;
    EXPECT_TRUE(UnitUtil::parseSizeInBytes(c.text, &out)) << c.text;
    EXPECT_EQ(c.bytes, out) << c.text;
  }
}

TEST(UnitUtil, RejectsOtherShapesAndLeavesOutputAlone) {
  for (const char* text : {"", " ", "MB", "10 MB", "10PB", "-1KB", "+1KB", "1.5MB", "10MBB",
                           "10BB", "10KiB", "0x10", "16777216TB", "18446744073709551616"}) {
    uint64_t out = 77;
    EXPECT_FALSE(UnitUtil::parseSizeInBytes(text, &out)) << text;
    EXPECT_EQ(77u, out) << text;
  }
}

}  // namespace
