// TZif loading: every version, the limits, and damaged files of every kind.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>
#include <string>

#include "util/Timezone.h"
#include "util/testing/TimezoneTestSupport.h"

namespace {

bool load(const std::string& bytes, bool useFooter = true, Timezone* out = nullptr) {
  Timezone local;
  Timezone* zone = out != nullptr ? out : &local;
  return zone->fromZoneinfoData(bytes.data(), bytes.size(), useFooter);
}

// The footer the tests use when they want a working one.
const char* const RULE_FOOTER = "\nEST5EDT,M3.2.0,M11.1.0\n";

TzifParts withTransitions(size_t n) {
  TzifParts s;
  s.types = {{3600, 0, 0}, {7200, 1, 4}};
  s.chars = std::string("ABC\0DEF\0", 8);
  for (size_t i = 0; i < n; ++i) {
    s.times.push_back(static_cast<int64_t>(i) * 1000);
    s.indices.push_back(static_cast<uint8_t>(i % 2));
  }
  return s;
}

TEST(TimezoneLoadTzif, AcceptsEachVersionAndRefusesBytesOneToFortyNine) {
  for (char version : {'\0', '2', '3', '4', 'z'}) {
    TzifParts s = simpleTzif({1000, 2000});
    s.version = version;
    Timezone zone;
    ASSERT_TRUE(load(buildTzif(s), true, &zone)) << int(version);
    EXPECT_EQ(4u, zone.timecnt()) << int(version);
    EXPECT_EQ(-14400, zone.typeAt(zone.searchAt(1500))->gmtoff) << int(version);
  }
  for (int version : {1, 2, 10, 48, 49}) {
    TzifParts s = simpleTzif({1000});
    s.version = static_cast<char>(version);
    EXPECT_FALSE(load(buildTzif(s))) << version;
  }
}

TEST(TimezoneLoadTzif, EnforcesEachLimitExactly) {
  const struct {
    const char* what;
    long limit;
    std::function<void(TzifParts&, long)> set;
  } kCases[] = {
      {"transitions", 1200, [](TzifParts& s, long n) { s = withTransitions(n); }},
      {"types", 256, [](TzifParts& s, long n) { s.types.resize(n, {0, 0, 0}); }},
      {"chars", 270, [](TzifParts& s, long n) { s.chars.resize(n, 'X'); }},
      {"leap records", 500, [](TzifParts& s, long n) { s.leapcnt = n; }},
      {"offset", 1073741823, [](TzifParts& s, long n) { s.types[0].gmtoff = n; }},
  };
  for (const auto& c : kCases) {
    for (long n : {c.limit, c.limit + 1}) {
      TzifParts s = withTransitions(3);
      c.set(s, n);
      EXPECT_EQ(n == c.limit, load(buildTzif(s))) << c.what << " " << n;
    }
  }
}

TEST(TimezoneLoadTzif, RefusesDamagedFields) {
  const struct { const char* what; std::function<void(TzifParts&)> damage; } kCases[] = {
      {"isdst 2", [](TzifParts& s) { s.types[1].isdst = 2; }},
      {"isdst 255", [](TzifParts& s) { s.types[0].isdst = 255; }},
      {"type index past typecnt", [](TzifParts& s) { s.indices[1] = 3; }},
      {"abbreviation past the chars", [](TzifParts& s) { s.types[2].abbrind = 12; }},
      {"no types", [](TzifParts& s) { s.types.clear(); s.times.clear(); s.indices.clear(); }},
      {"isstd of the wrong length", [](TzifParts& s) { s.isstd = {0, 1}; }},
      {"isgmt of the wrong length", [](TzifParts& s) { s.isgmt = {0, 0, 0, 0}; }},
      {"isstd byte 2", [](TzifParts& s) { s.isstd = {0, 2, 0}; }},
      {"isgmt byte 255", [](TzifParts& s) { s.isgmt = {255, 0, 0}; }},
      {"timecnt claims more than there is", [](TzifParts& s) { s.claimedTimecnt = 40; }},
      {"typecnt claims more than there is", [](TzifParts& s) { s.claimedTypecnt = 200; }},
      {"charcnt claims more than there is", [](TzifParts& s) { s.claimedCharcnt = 200; }},
      {"negative timecnt", [](TzifParts& s) { s.claimedTimecnt = 0xffffffff; }},
      // Taken for "no constant offset" once stored.
      {"offset 2^30", [](TzifParts& s) { s.types[2].gmtoff = 1073741824; }},
      {"offset -2^30", [](TzifParts& s) { s.types[0].gmtoff = -1073741824; }},
      {"offset -2^31", [](TzifParts& s) { s.types[1].gmtoff = INT32_MIN; }},
  };
  for (const auto& c : kCases) {
    for (char version : {'\0', '2'}) {
      TzifParts s = simpleTzif({1000, 2000});
      s.version = version;
      c.damage(s);
      Timezone zone;
      EXPECT_FALSE(load(buildTzif(s), true, &zone)) << c.what << " version " << int(version);
      EXPECT_EQ(0u, zone.typecnt()) << c.what;
    }
  }
}

// A version 2 file's first block is checked too, not only skipped, and its
// second header needs the magic as well.
TEST(TimezoneLoadTzif, RefusesADamagedFirstBlockOrSecondHeader) {
  const std::string good = buildTzif(simpleTzif({1000}));
  std::string bytes = good;
  // The isdst byte of the first type of the 32-bit block: header, 2 times,
  // 2 indices, then offset.
  bytes[44 + 2 * 4 + 2 + 4] = 7;
  EXPECT_FALSE(load(bytes));
  bytes = good;
  const size_t second = bytes.find("TZif", 4);
  ASSERT_NE(std::string::npos, second);
  bytes[second + 3] = 'F';
  EXPECT_FALSE(load(bytes));
}

// Every prefix that cuts into the data is refused; one that only loses the
// footer still loads, without it.
TEST(TimezoneLoadTzif, TruncatedAtEveryLength) {
  TzifParts s = simpleTzif({1000, 2000});
  s.footer = RULE_FOOTER;
  const std::string bytes = buildTzif(s);
  const size_t dataEnd = bytes.size() - s.footer.size();
  for (size_t len = 0; len < bytes.size(); ++len) {
    Timezone zone;
    const bool ok = zone.fromZoneinfoData(bytes.data(), len, true);
    EXPECT_EQ(len >= dataEnd, ok) << len;
    if (ok) {
      EXPECT_EQ(4u, zone.timecnt()) << len;
    }
  }
  Timezone whole;
  ASSERT_TRUE(load(bytes, true, &whole));
  EXPECT_EQ(1200u, whole.timecnt());
}

TEST(TimezoneLoadTzif, NullDataIsRefused) {
  Timezone zone;
  EXPECT_FALSE(zone.fromZoneinfoData(nullptr, 0, true));
  EXPECT_FALSE(zone.fromZoneinfoData(nullptr, 100, true));
  EXPECT_FALSE(zone.fromAncientZoneinfoData(nullptr, 100));
}

TEST(TimezoneLoadTzif, TimesThatGoBackCutTheTableAndEqualTimesAreKept) {
  TzifParts s = withTransitions(6);
  s.times[4] = 2500;  // below its predecessor, 3000
  Timezone zone;
  ASSERT_TRUE(load(buildTzif(s), false, &zone));
  ASSERT_EQ(4u, zone.timecnt());
  EXPECT_EQ(3000, zone.transitionTime(3));
  s = withTransitions(4);
  s.times[2] = s.times[1];
  ASSERT_TRUE(load(buildTzif(s), false, &zone));
  EXPECT_EQ(4u, zone.timecnt());
}

TEST(TimezoneLoadTzif, IndicatorsSetTheKind) {
  TzifParts s = simpleTzif({1000});
  s.isstd = {1, 1, 0};
  s.isgmt = {0, 1, 0};
  Timezone zone;
  ASSERT_TRUE(load(buildTzif(s), false, &zone));
  EXPECT_EQ(TimezoneOffset::KIND_STANDARD, zone.type(0).kind);
  EXPECT_EQ(TimezoneOffset::KIND_GMT, zone.type(1).kind);
  EXPECT_EQ(TimezoneOffset::KIND_WALL, zone.type(2).kind);
}

TEST(TimezoneLoadTzif, LeapRecordsAreSkipped) {
  TzifParts plain = simpleTzif({1000, 2000});
  TzifParts leaps = plain;
  leaps.leapcnt = 27;
  Timezone a, b;
  ASSERT_TRUE(load(buildTzif(plain), true, &a));
  ASSERT_TRUE(load(buildTzif(leaps), true, &b));
  ASSERT_EQ(a.timecnt(), b.timecnt());
  for (uint32_t i = 0; i < a.timecnt(); ++i) EXPECT_EQ(a.transitionTime(i), b.transitionTime(i));
}

TEST(TimezoneLoadTzif, TheFirstTypeRulesBeforeTheFirstTransition) {
  Timezone zone;
  ASSERT_TRUE(load(buildTzif(simpleTzif({1000})), false, &zone));
  const long first = SIMPLE_TZIF_FIRST_TRANSITION;
  EXPECT_STREQ("LMT", zone.abbreviation(zone.typeAt(zone.searchAt(first - 1))));
  EXPECT_STREQ("EST", zone.abbreviation(zone.typeAt(zone.searchAt(first))));
  // When the first transition already starts from that type, nothing is added.
  TzifParts s = withTransitions(3);
  ASSERT_TRUE(load(buildTzif(s), false, &zone));
  EXPECT_EQ(3u, zone.timecnt());
  // A daylight first type gives way to the first standard one.
  s.types = {{7200, 1, 4}, {3600, 0, 0}};
  s.indices = {0, 1, 0};
  ASSERT_TRUE(load(buildTzif(s), false, &zone));
  EXPECT_EQ(4u, zone.timecnt());
  EXPECT_EQ(3600, zone.typeAt(zone.searchAt(-5))->gmtoff);
}

TEST(TimezoneLoadTzif, FooterExtendsTheTableToTwelveHundred) {
  TzifParts s = simpleTzif({1000});
  s.footer = RULE_FOOTER;
  Timezone zone;
  ASSERT_TRUE(load(buildTzif(s), true, &zone));
  EXPECT_EQ(1200u, zone.timecnt());
  EXPECT_EQ(5u, zone.typecnt());
  EXPECT_EQ(1000, zone.transitionTime(2));
  // The rule's first transition after the last stored one: March 8, 1970.
  EXPECT_EQ(5727600, zone.transitionTime(3));
  EXPECT_STREQ("EDT", zone.abbreviation(zone.typeAt(3)));
  ASSERT_TRUE(load(buildTzif(s), false, &zone));
  EXPECT_EQ(3u, zone.timecnt());
  EXPECT_EQ(3u, zone.typecnt());
}

// A footer that cannot be used is ignored and the table keeps its three
// entries; one that can extends it to 1200.
TEST(TimezoneLoadTzif, FootersAreUsedOnlyWhenTheyFit) {
  const struct {
    const char* what;
    uint32_t timecnt;
    std::function<void(TzifParts&)> change;
  } kCases[] = {
      {"no final newline", 3, [](TzifParts& s) { s.footer = "\nEST5EDT,M3.2.0,M11.1.0"; }},
      {"no leading newline", 3, [](TzifParts& s) { s.footer = "EST5EDT,M3.2.0,M11.1.0\n"; }},
      {"too short", 3, [](TzifParts& s) { s.footer = "\n\n"; }},
      {"empty rule", 3, [](TzifParts& s) { s.footer = "\n\n\n"; }},
      {"not a rule", 3, [](TzifParts& s) { s.footer = "\nAmerica/New_York\n"; }},
      {"two lines", 3, [](TzifParts& s) { s.footer = "\nEST5EDT,M3.2.0,M11.1.0\nX\n"; }},
      {"a NUL inside", 3,
       [](TzifParts& s) { s.footer = std::string("\nEST5EDT\0,M3.2.0\n", 17); }},
      {"one type only", 3, [](TzifParts& s) { s.footer = "\nJST-9\n"; }},
      {"no room for two types", 3,
       [](TzifParts& s) { s.types.resize(255, {0, 0, 0}); s.footer = RULE_FOOTER; }},
      // With "EST\0EDT\0" added the abbreviations come to 257 bytes, then 256.
      {"abbreviations past 256 bytes", 3,
       [](TzifParts& s) { s.chars.resize(249, 'X'); s.footer = RULE_FOOTER; }},
      {"abbreviations of 256 bytes", 1200,
       [](TzifParts& s) { s.chars.resize(248, 'X'); s.footer = RULE_FOOTER; }},
  };
  for (const auto& c : kCases) {
    TzifParts s = simpleTzif({1000});
    c.change(s);
    Timezone zone;
    ASSERT_TRUE(load(buildTzif(s), true, &zone)) << c.what;
    ASSERT_EQ(c.timecnt, zone.timecnt()) << c.what;
    if (c.timecnt == 1200) {
      EXPECT_STREQ("EDT", zone.abbreviation(zone.typeAt(3))) << c.what;
    }
  }
}

TEST(TimezoneLoadTzif, BadMagicGoesToTheAncientReader) {
  // An old file: the three counts at byte 32, a version 1 block from 44.
  TzifParts s = simpleTzif({1000});
  s.version = 0;
  std::string bytes = buildTzif(s);
  bytes.replace(0, 4, "XXXX");
  Timezone zone;
  ASSERT_TRUE(load(bytes, true, &zone));
  EXPECT_EQ(3u, zone.timecnt());
  ASSERT_TRUE(zone.fromAncientZoneinfoData(bytes.data(), bytes.size()));
  EXPECT_EQ(-18000, zone.typeAt(zone.searchAt(0))->gmtoff);
  // Without its magic a file with indicators no longer lines up.
  s.isstd = {1, 0, 0};
  s.isgmt = {0, 0, 1};
  bytes = buildTzif(s);
  bytes[0] = 't';
  Timezone shifted;
  EXPECT_TRUE(load(bytes, true, &shifted));  // the indicator bytes are left over
  EXPECT_EQ(TimezoneOffset::KIND_WALL, shifted.type(0).kind);
}

TEST(TimezoneLoadTzif, AncientRefusals) {
  TzifParts s = simpleTzif({1000});
  s.version = 0;
  const std::string good = buildTzif(s);
  const struct { const char* what; std::function<void(std::string&)> damage; } kCases[] = {
      {"43 bytes", [](std::string& b) { b.resize(43); }},
      {"charcnt 0", [](std::string& b) { b.replace(40, 4, std::string(4, '\0')); }},
      {"typecnt 0", [](std::string& b) { b.replace(36, 4, std::string(4, '\0')); }},
      {"timecnt 1201", [](std::string& b) { b.replace(32, 4, std::string("\0\0\x04\xb1", 4)); }},
      {"typecnt 257", [](std::string& b) { b.replace(36, 4, std::string("\0\0\x01\x01", 4)); }},
      {"cut in the data", [](std::string& b) { b.resize(60); }},
      {"text", [](std::string& b) { b.assign(100, 'a'); }},
  };
  for (const auto& c : kCases) {
    std::string bytes = good;
    bytes[0] = 'x';
    c.damage(bytes);
    Timezone zone;
    EXPECT_FALSE(zone.fromAncientZoneinfoData(bytes.data(), bytes.size())) << c.what;
    EXPECT_FALSE(zone.fromZoneinfoData(bytes.data(), bytes.size(), true)) << c.what;
  }
}

TEST(TimezoneLoadTzif, AFailedLoadLeavesAFreshZone) {
  Timezone zone;
  ASSERT_TRUE(load(buildTzif(simpleTzif({1000})), true, &zone));
  TzifParts bad = simpleTzif({1000});
  bad.types[0].isdst = 9;
  EXPECT_FALSE(load(buildTzif(bad), true, &zone));
  EXPECT_EQ(0u, zone.timecnt());
  EXPECT_EQ(0u, zone.typecnt());
  EXPECT_TRUE(zone.chars().empty());
  EXPECT_FALSE(zone.hasConstantOffset());
}

}  // namespace
