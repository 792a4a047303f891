#include "util/TimezoneTables.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(TimezoneTables, HaveTheirRowCounts) {
  EXPECT_EQ(247u, sizeof SYSTEM_ZONE_NAMES / sizeof SYSTEM_ZONE_NAMES[0]);
  EXPECT_EQ(78u, sizeof TIMEZONE_ABBREVIATIONS / sizeof TIMEZONE_ABBREVIATIONS[0]);
  EXPECT_EQ(187u, sizeof TIMEZONE_DESCRIPTIONS / sizeof TIMEZONE_DESCRIPTIONS[0]);
}

TEST(TimezoneTables, MapSystemZoneName) {
  const struct { const char* in; const char* out; } kCases[] = {
      {"Eastern Daylight Time", "America/New_York"},
      {"US Mountain Standard Time", "America/Phoenix"},
      {"US Mountain Daylight Time", "America/Phoenix"}, {"US Eastern Standard Time", "Etc/GMT+5"},
      {"US Pacific Standard Time", "America/Los_Angeles"},  // "US " dropped
      {"Greenwich Daylight Time", "Europe/London"},
      {"Greenwich Standard Time", "Africa/Casablanca"}, {"GMT Standard Time", "Europe/London"},
      {"Central Standard Time (Mexico)", "America/Mexico_City"},
      {"Mountain Daylight Time (Mexico)", "America/Chihuahua"},
      {"Pacific Standard Time (Mexico)", "America/Tijuana"},
      {"Mexico Standard Time 2", "America/Chihuahua"},
      {"Mexico Daylight Time 2", "America/Chihuahua"},
      {"Mexico Standard Time", "America/Mexico_City"},
      {"Mid-Atlantic Daylight Time", "Atlantic/South_Georgia"},
  };
  for (const auto& c : kCases) {
    const char* got = mapSystemZoneName(c.in);
    ASSERT_NE(nullptr, got) << c.in;
    EXPECT_STREQ(c.out, got) << c.in;
  }
}

TEST(TimezoneTables, MapSystemZoneNameRefuses) {
  for (const char* name :
       {"GMT", "Greenwich", "", "Nowhere Standard Time", "eastern", "Eastern Standard time",
        "Eastern Standard Time ", " Standard Time", "Standard Time", "Atlantic Standard Time (Mexico)",
        "Mexico Standard Time 3", "US Nowhere Standard Time", "America/New_York", "AUS",
        "Yukonx", "Central (Mexico)"}) {
    EXPECT_EQ(nullptr, mapSystemZoneName(name)) << name;
  }
}

TEST(TimezoneTables, EverySystemRowIsSortedAndFound) {
  for (size_t i = 0; i < SYSTEM_ZONE_NAME_COUNT; ++i) {
    const SystemZoneName& row = SYSTEM_ZONE_NAMES[i];
    if (i > 0) {
      EXPECT_LT(std::strcmp(SYSTEM_ZONE_NAMES[i - 1].systemName, row.systemName), 0) << i;
    }
    const bool refused = std::strcmp(row.systemName, "GMT") == 0 ||
                         std::strcmp(row.systemName, "Greenwich") == 0;
    EXPECT_EQ(refused ? nullptr : row.zoneinfoName, mapSystemZoneName(row.systemName))
        << row.systemName;
    const std::string standard = std::string(row.systemName) + " Standard Time";
    const char* mapped = mapSystemZoneName(standard.c_str());
    ASSERT_NE(nullptr, mapped) << standard;
    if (std::strcmp(row.systemName, "Greenwich") != 0) {
      EXPECT_STREQ(row.zoneinfoName, mapped) << standard;
    }
  }
}

TEST(TimezoneTables, AbbreviationsAreFoundButForTheTwoOutOfPlace) {
  int found = 0;
  for (const TimezoneAbbreviation& row : TIMEZONE_ABBREVIATIONS) {
    const TimezoneAbbreviation* hit = findTimezoneAbbreviation(row.name);
    const bool hidden = std::strcmp(row.name, "EETDST") == 0 || std::strcmp(row.name, "HKT") == 0;
    EXPECT_EQ(hidden ? nullptr : &row, hit) << row.name;
    found += hit != nullptr;
  }
  EXPECT_EQ(76, found);
  const struct { const char* name; long gmtoff; } kCases[] = {
      {"ACDT", 37800}, {"EST", -18000}, {"GMT", 0},   {"HAT", -9000},   {"IST", 19800},
      {"MESZ", 7200},  {"NFT", 41400},  {"NST", -12600}, {"ZULU", 0}, {"WETDST", 3600},
  };
  for (const auto& c : kCases) {
    ASSERT_NE(nullptr, findTimezoneAbbreviation(c.name)) << c.name;
    EXPECT_EQ(c.gmtoff, findTimezoneAbbreviation(c.name)->gmtoff) << c.name;
  }
  for (const char* name : {"", "est", "ESTX", "A", "ZZZZ", "EETDST", "HKT"}) {
    EXPECT_EQ(nullptr, findTimezoneAbbreviation(name)) << name;
  }
  // The two rows stand where the table has always had them.
  EXPECT_STREQ("EST", TIMEZONE_ABBREVIATIONS[26].name);
  EXPECT_STREQ("EETDST", TIMEZONE_ABBREVIATIONS[27].name);
  EXPECT_STREQ("HNY", TIMEZONE_ABBREVIATIONS[45].name);
  EXPECT_STREQ("HKT", TIMEZONE_ABBREVIATIONS[46].name);
}

TEST(TimezoneTables, DescriptionKey) {
  const struct { const char* name; uint32_t key; } kCases[] = {
      {"", 0}, {"A", ((65u + 65u) << 8) | 1u},
      {"AB", ((196u + 131u) << 8) | 2u},  // h = 65 x 2 + 66, s = 131
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.key, timezoneDescriptionKey(c.name, std::strlen(c.name))) << c.name;
  }
  // Long names wrap in 32 bits rather than overflow.
  const std::string longName(100, 'z');
  EXPECT_EQ(100u, timezoneDescriptionKey(longName.data(), longName.size()) & 0xff);
}

TEST(TimezoneTables, DescriptionsAreSortedByKeyAndComeInPairs) {
  int utc = 0;
  for (size_t i = 0; i < TIMEZONE_DESCRIPTION_COUNT; ++i) {
    const TimezoneDescription& row = TIMEZONE_DESCRIPTIONS[i];
    EXPECT_EQ(timezoneDescriptionKey(row.name, std::strlen(row.name)), row.key) << row.name;
    if (i > 0) {
      EXPECT_LT(TIMEZONE_DESCRIPTIONS[i - 1].key, row.key) << row.name;
    }
    EXPECT_EQ(&row, findTimezoneDescription(row.name)) << row.name;
    const std::string name = row.name;
    if (name == "Coordinated Universal Time") {
      ++utc;
      EXPECT_EQ(0, row.gmtoff);
      continue;
    }
    const size_t at = name.find(" Standard Time");
    if (at == std::string::npos) continue;
    const std::string daylight = name.substr(0, at) + " Daylight Time";
    const TimezoneDescription* pair = findTimezoneDescription(daylight.c_str());
    ASSERT_NE(nullptr, pair) << daylight;
    EXPECT_EQ(name.substr(0, at) == "Namibia" ? -3600 : 3600, pair->gmtoff - row.gmtoff) << name;
  }
  EXPECT_EQ(1, utc);
  const struct { const char* name; long gmtoff; } kCases[] = {
      {"Pacific Standard Time", -28800},   {"Pacific Daylight Time", -25200},
      {"Namibia Standard Time", 7200},     {"Namibia Daylight Time", 3600},
      {"India Daylight Time", 23400},      {"Nepal Standard Time", 20700},
      {"Mexico 2 Standard Time", -25200},  {"Central (Mexico) Daylight Time", -18000},
  };
  for (const auto& c : kCases) {
    ASSERT_NE(nullptr, findTimezoneDescription(c.name)) << c.name;
    EXPECT_EQ(c.gmtoff, findTimezoneDescription(c.name)->gmtoff) << c.name;
  }
  for (const char* name : {"", "Pacific", "pacific standard time", "Pacific Standard Time ",
                           "Coordinated Universal time"}) {
    EXPECT_EQ(nullptr, findTimezoneDescription(name)) << name;
  }
}

}  // namespace
