#include "tools/tzpack/TzPackWriter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "util/Timezone.h"
#include "util/TimezonePackFormat.h"

namespace {

// A constant TZif zone; the offset tells zones apart after a lookup.
std::string zone(int32_t offset) {
  std::string out = "TZif";
  out.append(16, '\0');
  const uint32_t counts[6] = {0, 0, 0, 0, 1, 4};
  for (uint32_t c : counts) {
    char b[4];
    tzpackWrite32(b, c);
    out.append(b, 4);
  }
  char b[4];
  tzpackWrite32(b, static_cast<uint32_t>(offset));
  out.append(b, 4);
  out.push_back('\0');
  out.push_back('\0');
  out.append("ZZZ\0", 4);
  return out;
}

long lookUp(const std::string& pack, const char* name) {
  Timezone z;
  if (!z.fromPackedZoneinfoData(pack.data(), pack.size(), name, true)) return -1;
  return z.constantOffset();
}

TEST(TzPackWriter, WritesWhatTheReaderFinds) {
  TzPackWriter writer;
  ASSERT_TRUE(writer.add("Europe/Paris", zone(3600)));
  ASSERT_TRUE(writer.add("Asia/Tokyo", zone(32400)));
  ASSERT_TRUE(writer.add("Japan", zone(32400)));  // an alias: same bytes
  ASSERT_TRUE(writer.add("America\\New_York", zone(-18000)));
  EXPECT_EQ(4u, writer.size());
  const std::string pack = writer.build();
  EXPECT_EQ(0, std::memcmp(pack.data(), "KestroTZpk1!", 12));
  EXPECT_EQ(4u, tzpackRead32(&pack[12]));
  const struct { const char* name; long offset; } kCases[] = {
      {"europe/paris", 3600}, {"EUROPE/PARIS", 3600}, {"asia/tokyo", 32400},
      {"japan", 32400},       {"America/New_York", -18000}, {"america\\new_york", -18000},
      {"america", -1},        {"", -1},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.offset, lookUp(pack, c.name)) << c.name;
}

TEST(TzPackWriter, LaysOutSortedNamesAlignedAndSharedData) {
  TzPackWriter writer;
  const std::vector<std::string> names = {"b", "a/x", "A/Y", "c", "Z"};
  for (const std::string& n : names) ASSERT_TRUE(writer.add(n, zone(60)));
  const std::string pack = writer.build();
  const uint32_t count = tzpackRead32(&pack[TZPACK_COUNT_OFFSET]);
  ASSERT_EQ(5u, count);
  std::string previous;
  uint32_t paragraph = 0;
  for (uint32_t n = 1; n <= count; ++n) {
    const char* record = &pack[tzpackRecordOffset(n)];
    const std::string name = &pack[tzpackRead32(record + TZPACK_RECORD_NAME_OFFSET)];
    EXPECT_LT(previous, name);
    for (char c : name) EXPECT_FALSE(c >= 'A' && c <= 'Z') << name;
    previous = name;
    if (n == 1) paragraph = tzpackRead32(record + TZPACK_RECORD_DATA_PARAGRAPH);
    EXPECT_EQ(paragraph, tzpackRead32(record + TZPACK_RECORD_DATA_PARAGRAPH)) << name;
    EXPECT_EQ(zone(60).size(), tzpackRead32(record + TZPACK_RECORD_DATA_LENGTH));
    EXPECT_EQ(0u, tzpackRead32(record + TZPACK_RECORD_RESERVED));
  }
  // One copy of the data, at the end, on a 16-byte boundary.
  EXPECT_EQ(pack.size(), paragraph * 16 + zone(60).size());
}

TEST(TzPackWriter, RefusesClashesAndEmptyEntries) {
  TzPackWriter writer;
  EXPECT_TRUE(writer.add("Etc/UTC", zone(0)));
  EXPECT_FALSE(writer.add("ETC/utc", zone(1)));
  EXPECT_FALSE(writer.add("Etc\\UTC", zone(2)));
  EXPECT_FALSE(writer.add("", zone(0)));
  EXPECT_FALSE(writer.add("x", ""));
  EXPECT_EQ(1u, writer.size());
  EXPECT_EQ(0, lookUp(writer.build(), "etc/utc"));
}

TEST(TzPackWriter, AnEmptyPackIsRefusedByReaders) {
  const std::string pack = TzPackWriter().build();
  EXPECT_EQ(16u, pack.size());
  EXPECT_EQ(-1, lookUp(pack, "utc"));
}

TEST(TzPackWriter, ManyZonesAreAllFound) {
  TzPackWriter writer;
  for (int i = 0; i < 1000; ++i) {
    ASSERT_TRUE(writer.add("Zone/" + std::to_string(i * 7919 % 1000), zone(i * 7919 % 1000)));
  }
  const std::string pack = writer.build();
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(i, lookUp(pack, ("zone/" + std::to_string(i)).c_str())) << i;
  }
  EXPECT_EQ(-1, lookUp(pack, "zone/1000"));
}

}  // namespace
