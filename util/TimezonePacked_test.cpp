// Packed zone files: lookups by name, and every kind of damaged file.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "util/StrVector.h"
#include "util/testing/TestTempDir.h"
#include "util/Timezone.h"
#include "util/TimezonePackFormat.h"
#include "util/testing/TimezoneTestSupport.h"

namespace {

const std::vector<std::pair<std::string, std::string>> kEntries = {
    {"america/new_york", constantTzif(-18000, "ZZZ")}, {"asia/tokyo", constantTzif(32400, "ZZZ")},
    {"etc/utc", constantTzif(0, "ZZZ")}, {"europe/paris", constantTzif(3600, "ZZZ")},
    {"utc", constantTzif(0, "ZZZ")},
};

bool lookUp(const std::string& pack, const char* name, Timezone* zone) {
  return zone->fromPackedZoneinfoData(pack.data(), pack.size(), name, true);
}

void setField(std::string& pack, uint32_t record, size_t field, uint32_t value) {
  tzpackWrite32(&pack[tzpackRecordOffset(record) + field], value);
}

TEST(TimezonePacked, FindsEachEntryWithoutRegardToCaseOrSlashAndNothingElse) {
  const std::string pack = buildTzpack(kEntries);
  const struct { const char* name; long offset; } kCases[] = {
      {"america/new_york", -18000}, {"America/New_York", -18000}, {"AMERICA\\new_york", -18000},
      {"asia/tokyo", 32400},        {"ETC/UTC", 0},               {"Europe\\Paris", 3600},
      {"utc", 0},                   {"UTC", 0},
  };
  for (const auto& c : kCases) {
    Timezone zone;
    ASSERT_TRUE(lookUp(pack, c.name, &zone)) << c.name;
    EXPECT_EQ(c.offset, zone.constantOffset()) << c.name;
  }
  for (const char* name : {"", "america", "america/new_york ", "america//new_york", "/utc",
                           "aaa", "zzz", "europe/paris\xff", "asia/tokyo/x"}) {
    Timezone zone;
    EXPECT_FALSE(lookUp(pack, name, &zone)) << name;
  }
  Timezone zone;
  EXPECT_FALSE(zone.fromPackedZoneinfoData(pack.data(), pack.size(), nullptr, true));
  EXPECT_FALSE(zone.fromPackedZoneinfoData(nullptr, 100, "utc", true));
}

TEST(TimezonePacked, RefusesDamagedFiles) {
  const struct { const char* what; std::function<void(std::string&)> damage; } kCases[] = {
      {"empty", [](std::string& p) { p.clear(); }},
      {"15 bytes", [](std::string& p) { p.resize(15); }},
      {"other magic", [](std::string& p) { p[11] = '?'; }},
      {"lower-case magic", [](std::string& p) { p[0] = 'k'; }},
      {"index of 0 records", [](std::string& p) { tzpackWrite32(&p[12], 0); }},
      {"more records than fit",
       [](std::string& p) { tzpackWrite32(&p[12], static_cast<uint32_t>(p.size() / 16)); }},
      {"all-ones count", [](std::string& p) { tzpackWrite32(&p[12], 0xffffffff); }},
      {"name offset at the end",
       [](std::string& p) { setField(p, 3, TZPACK_RECORD_NAME_OFFSET, static_cast<uint32_t>(p.size())); }},
      {"name offset far out",
       [](std::string& p) { setField(p, 3, TZPACK_RECORD_NAME_OFFSET, 0xfffffff0); }},
      {"name without its NUL",
       [](std::string& p) {
         setField(p, 3, TZPACK_RECORD_NAME_OFFSET, static_cast<uint32_t>(p.size() - 3));
         p.back() = 'x';
       }},
      {"data paragraph past the end",
       [](std::string& p) {
         setField(p, 3, TZPACK_RECORD_DATA_PARAGRAPH, static_cast<uint32_t>((p.size() + 15) / 16));
       }},
      {"data running past the end",
       [](std::string& p) { setField(p, 3, TZPACK_RECORD_DATA_LENGTH, 0x7fffffff); }},
      {"data of length 0", [](std::string& p) { setField(p, 3, TZPACK_RECORD_DATA_LENGTH, 0); }},
      {"data that is not a zone",
       [](std::string& p) { setField(p, 3, TZPACK_RECORD_DATA_PARAGRAPH, 0); }},
  };
  for (const auto& c : kCases) {
    std::string pack = buildTzpack(kEntries);
    c.damage(pack);
    Timezone zone;
    // Record 3 is "etc/utc", the first one a search looks at.
    EXPECT_FALSE(lookUp(pack, "etc/utc", &zone)) << c.what;
    EXPECT_EQ(0u, zone.typecnt()) << c.what;
  }
}

// The largest count that fits still works.
TEST(TimezonePacked, CountJustBelowTheSizeOverSixteenIsAccepted) {
  std::string pack = buildTzpack({{"a", constantTzif(60, "ZZZ")}});
  ASSERT_GT(pack.size() / 16, 1u);
  Timezone zone;
  EXPECT_TRUE(lookUp(pack, "a", &zone));
  pack.resize(32);  // header and one record: count 1 is not below 32 / 16 - 1
  EXPECT_FALSE(lookUp(pack, "a", &zone));
}

TEST(TimezonePacked, TruncatedAtEveryLength) {
  const std::string pack = buildTzpack(kEntries);
  int found = 0;
  for (size_t len = 0; len <= pack.size(); ++len) {
    const std::string cut = pack.substr(0, len);
    Timezone zone;
    found += zone.fromPackedZoneinfoData(cut.data(), cut.size(), "utc", true);
  }
  // Only the whole file holds all of the last entry.
  EXPECT_EQ(1, found);
}

TEST(TimezonePacked, ReadsFromAFileAndRefusesWhatIsNotOne) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname path = dir.path() / "zones.tzpack";
  std::ofstream(path.c_str(), std::ios::binary) << buildTzpack(kEntries);
  Timezone zone;
  EXPECT_TRUE(zone.fromPackedZoneinfoPath(path, "Asia/Tokyo", true));
  EXPECT_EQ(32400, zone.constantOffset());
  EXPECT_FALSE(zone.fromPackedZoneinfoPath(dir.path() / "missing.tzpack", "utc", true));
  EXPECT_FALSE(zone.fromPackedZoneinfoPath(dir.path(), "utc", true));  // a directory
  std::ofstream(std::string(dir.path() / "empty.tzpack")).flush();
  EXPECT_FALSE(zone.fromPackedZoneinfoPath(dir.path() / "empty.tzpack", "utc", true));
}

// The staged packed file holds every staged zone, byte for byte the same
// zone as the file, under any case and either slash.
TEST(TimezonePacked, StagedPackMatchesTheStagedFiles) {
  const Pathname dir = stagedZoneinfoDir();
  ASSERT_FALSE(dir.empty()) << "build the stage_zoneinfo target";
  const Pathname pack = dir + ".tzpack";
  for (const std::string& name : zoneNamesUnder(dir)) {
    Timezone fromFile, fromPack, shouted;
    ASSERT_TRUE(fromFile.fromExactZoneinfoPath(dir / name.c_str(), true)) << name;
    ASSERT_TRUE(fromPack.fromPackedZoneinfoPath(pack, name.c_str(), true)) << name;
    StrVector a, b;
    fromFile.serialize(a);
    fromPack.serialize(b);
    EXPECT_EQ(a, b) << name;
    Str upper = name;
    upper.toUppercase();
    upper.replaceAll(Str("/"), Str("\\"));
    EXPECT_TRUE(shouted.fromPackedZoneinfoPath(pack, upper.c_str(), true)) << upper;
  }
}

}  // namespace
