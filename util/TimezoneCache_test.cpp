// getTimezone's cache: shared zones, aliases, remembered bad names, and
// many threads asking at once.
#include "util/TimezoneCache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "util/Timezone.h"
#include "util/testing/TimezoneTestSupport.h"

namespace {

std::atomic<int> gLoads{0};

bool countingRealLoad(Timezone* zone, const char* name) {
  ++gLoads;
  return zone->fromPathOrPosix(name);
}

bool countingFailingLoad(Timezone*, const char*) {
  ++gLoads;
  return false;
}

class TimezoneCache : public ::testing::Test {
 protected:
  void SetUp() override {
    const Pathname dir = stagedZoneinfoDir();
    ASSERT_FALSE(dir.empty()) << "build the stage_zoneinfo target";
    setupTimezoneSupport(dir);
    gLoads = 0;
  }
  void TearDown() override { setTimezoneLoadFunction(nullptr); }
};

TEST_F(TimezoneCache, HandsOutOneSharedZonePerName) {
  const Timezone* a = getTimezone("Europe/Paris", false);
  ASSERT_NE(nullptr, a);
  EXPECT_EQ(a, getTimezone("Europe/Paris", false));
  EXPECT_EQ(a, getTimezone("Europe/Paris", true));
  EXPECT_EQ(3600, a->typeAt(a->searchAt(1704067200))->gmtoff);
  EXPECT_NE(a, getTimezone("Europe/Berlin", false));
}

TEST_F(TimezoneCache, SystemNamesShareTheZoneOfTheirZoneinfoName) {
  const Timezone* ny = getTimezone("America/New_York", false);
  ASSERT_NE(nullptr, ny);
  EXPECT_EQ(ny, getTimezone("Eastern Standard Time", true));
  EXPECT_EQ(ny, getTimezone("Eastern Daylight Time", true));
  EXPECT_EQ(ny, getTimezone("Eastern", true));
  // Without aliases the name loads by itself, through the mapping, and is
  // then remembered as that zone whichever way it is asked for.
  const Timezone* separate = getTimezone("Central Standard Time", false);
  const Timezone* chicago = getTimezone("America/Chicago", false);
  ASSERT_NE(nullptr, separate);
  EXPECT_NE(chicago, separate);
  EXPECT_TRUE(chicago->isSimilarTo(*separate, 1700000000));
  EXPECT_EQ(separate, getTimezone("Central Standard Time", true));
}

TEST_F(TimezoneCache, ABadNameTouchesTheDiskOnce) {
  setTimezoneLoadFunction(&countingRealLoad);
  EXPECT_EQ(nullptr, getTimezone("Not/A_Zone/Anywhere", false));
  EXPECT_EQ(nullptr, getTimezone("Not/A_Zone/Anywhere", false));
  EXPECT_EQ(nullptr, getTimezone("Not/A_Zone/Anywhere", true));
  EXPECT_EQ(1, gLoads.load());
  ASSERT_NE(nullptr, getTimezone("Asia/Kathmandu", false));
  ASSERT_NE(nullptr, getTimezone("Asia/Kathmandu", false));
  EXPECT_EQ(2, gLoads.load());
}

TEST_F(TimezoneCache, BadNamesStartAfreshPastTwoThousandFortyEight) {
  setTimezoneLoadFunction(&countingFailingLoad);
  // Fill the set until it empties itself; that happens when a name comes in
  // while it holds 2049.
  size_t before = getBadTimezoneNameCount();
  int n = 0;
  for (; n < 5000; ++n) {
    EXPECT_EQ(nullptr, getTimezone(("bad-" + std::to_string(n)).c_str(), false));
    const size_t after = getBadTimezoneNameCount();
    if (after < before) {
      EXPECT_EQ(2049u, before);
      EXPECT_EQ(1u, after);
      break;
    }
    EXPECT_EQ(before + 1, after);
    before = after;
  }
  ASSERT_LT(n, 5000);
  // The names from before are forgotten and tried again; the newest is not.
  const int loads = gLoads.load();
  EXPECT_EQ(nullptr, getTimezone(("bad-" + std::to_string(n)).c_str(), false));
  EXPECT_EQ(loads, gLoads.load());
  EXPECT_EQ(nullptr, getTimezone(("bad-" + std::to_string(n - 1)).c_str(), false));
  EXPECT_EQ(loads + 1, gLoads.load());
}

TEST_F(TimezoneCache, EightThreadsGetTheSameZones) {
  const std::vector<std::string> names = {
      "America/New_York", "Europe/London", "Asia/Tokyo", "Australia/Sydney",
      "Pacific Standard Time", "Japan", "EST5EDT,M3.2.0,M11.1.0", "<+07>-7", "",
      "Not/There", "Also Not There", "America/Sao_Paulo", "Africa/Cairo", "UTC",
      "Asia/Kolkata", "Europe/Moscow", "America/Santiago", "Pacific/Chatham",
  };
  constexpr int kThreads = 8;
  std::vector<std::vector<const Timezone*>> seen(kThreads);
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ++ready;
      while (ready.load() < kThreads) {
      }
      std::vector<const Timezone*>& mine = seen[t];
      mine.assign(names.size(), nullptr);
      for (int round = 0; round < 50; ++round) {
        for (size_t k = 0; k < names.size(); ++k) {
          const size_t i = (k * 7 + static_cast<size_t>(t) * 3 + round) % names.size();
          const Timezone* zone = getTimezone(names[i].c_str(), true);
          if (round > 0 && mine[i] != zone) mine[i] = reinterpret_cast<const Timezone*>(1);
          if (round == 0) mine[i] = zone;
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  for (size_t i = 0; i < names.size(); ++i) {
    const bool bad = names[i] == "Not/There" || names[i] == "Also Not There";
    for (int t = 0; t < kThreads; ++t) {
      EXPECT_EQ(seen[0][i], seen[t][i]) << names[i] << " thread " << t;
    }
    EXPECT_EQ(bad, seen[0][i] == nullptr) << names[i];
    EXPECT_EQ(seen[0][i], getTimezone(names[i].c_str(), true)) << names[i];
  }
}

TEST_F(TimezoneCache, DefaultTimezoneStaysTheSameAndTheDirectoryIsTheOneSetLast) {
  EXPECT_EQ(stagedZoneinfoDir(), getZoneinfoDirectory());
  const Timezone* zone = getDefaultTimezone();
  ASSERT_NE(nullptr, zone);
  EXPECT_EQ(zone, getDefaultTimezone());
  setupTimezoneSupport(stagedZoneinfoDir());
  EXPECT_EQ(zone, getDefaultTimezone());
}

// The first call decides, from TZ; each case runs in a fresh process.
TEST(TimezoneDefault, ComesFromTzThenLocaltimeThenGmt) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto offsetWithTz = [](const char* tz) {
    if (tz != nullptr) {
      ::setenv("TZ", tz, 1);
    } else {
      ::unsetenv("TZ");
    }
    setupTimezoneSupport(stagedZoneinfoDir());
    const Timezone* zone = getDefaultTimezone();
    std::exit(zone == nullptr ? 99 : static_cast<int>(zone->offsetSeconds(false) / 3600 + 50));
  };
  EXPECT_EXIT(offsetWithTz("Asia/Tokyo"), ::testing::ExitedWithCode(59), "");
  EXPECT_EXIT(offsetWithTz("EST5EDT,M3.2.0,M11.1.0"), ::testing::ExitedWithCode(45), "");
  EXPECT_EXIT(offsetWithTz("Eastern Standard Time"), ::testing::ExitedWithCode(45), "");
  EXPECT_EXIT(offsetWithTz("No/Such/Zone"), ::testing::ExitedWithCode(50), "");  // GMT
}

TEST(TimezoneCacheDeathTest, NullNameIsAContractViolation) {
  EXPECT_DEATH(getTimezone(nullptr, true), "name != __null");
}

}  // namespace
