// Every zone the build stages, loaded from its file and from the packed
// file, against the C library's reading of the same file (TZ=":<path>").
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "util/DateTime.h"
#include "util/Timezone.h"
#include "util/testing/CivilTime.h"
#include "util/testing/ScopedTz.h"
#include "util/testing/TimezoneTestSupport.h"

namespace {

constexpr long YEAR_1971 = 31536000;
constexpr long YEAR_2100 = 4102444800;
constexpr int SAMPLES_PER_ZONE = 600;
constexpr int REPORTED_MISMATCHES = 20;

struct Tally {
  long compared = 0;
  long mismatched = 0;

  void mismatch(const std::string& zone, long t, const std::string& what) {
    if (++mismatched <= REPORTED_MISMATCHES) ADD_FAILURE() << zone << " at " << t << ": " << what;
  }
};

// fromUnixTime against localtime_r, field by field.
void compareAt(const std::string& zoneName, const Timezone& zone, long t, Tally* tally) {
  const time_t tt = t;
  tm expect;
  if (localtime_r(&tt, &expect) == nullptr) return;
  StructTmInTimezone got(&zone);
  ++tally->compared;
  const std::string theirs = civilFieldsAndZone(expect);
  if (!got.fromUnixTime(t)) {
    tally->mismatch(zoneName, t, "refused; C library: " + theirs);
  } else if (civilFieldsAndZone(got) != theirs) {
    tally->mismatch(zoneName, t, civilFieldsAndZone(got) + " vs C library " + theirs);
  }
}

// Each transition and the seconds around it, then instants spread over
// 1971-2100 by a fixed pseudo-random walk.
void compareZone(const std::string& zoneName, const Timezone& zone, Tally* tally) {
  for (uint32_t i = 0; i < zone.timecnt(); ++i) {
    const int64_t t = zone.transitionTime(i);
    if (t == INT64_MIN) continue;
    for (long d : {-1L, 0L, 1L}) compareAt(zoneName, zone, t + d, tally);
  }
  uint64_t state = std::hash<std::string>()(zoneName) | 1;
  for (int i = 0; i < SAMPLES_PER_ZONE; ++i) {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    compareAt(zoneName, zone, YEAR_1971 + static_cast<long>((state >> 11) % (YEAR_2100 - YEAR_1971)),
              tally);
  }
}

class TimezoneOracle : public ::testing::Test {
 protected:
  void SetUp() override {
    _dir = stagedZoneinfoDir();
    ASSERT_FALSE(_dir.empty()) << "no staged zoneinfo: build the stage_zoneinfo target";
    _names = zoneNamesUnder(_dir);
    ASSERT_GT(_names.size(), 300u);
  }

  // Every staged zone loaded by `load`, against the C library's reading of
  // its file.
  void compareEveryZone(const std::function<bool(Timezone*, const std::string&)>& load) {
    Tally tally;
    for (const std::string& name : _names) {
      Timezone zone;
      if (!load(&zone, name)) {
        ADD_FAILURE() << name << " did not load";
        continue;
      }
      ScopedTz tz(stagedZoneTz(name.c_str()).c_str());
      compareZone(name, zone, &tally);
    }
    EXPECT_EQ(0, tally.mismatched) << "of " << tally.compared;
    std::printf("[ zones %zu, instants compared %ld ]\n", _names.size(), tally.compared);
  }

  Pathname _dir;
  std::vector<std::string> _names;
};

TEST_F(TimezoneOracle, EveryStagedZoneFileReadsAsTheCLibraryReadsIt) {
  compareEveryZone([this](Timezone* zone, const std::string& name) {
    return zone->fromExactZoneinfoPath(_dir / name.c_str(), true);
  });
}

TEST_F(TimezoneOracle, EveryPackedZoneReadsAsTheCLibraryReadsItsFile) {
  compareEveryZone([this](Timezone* zone, const std::string& name) {
    return zone->fromPackedZoneinfoPath(_dir + ".tzpack", name.c_str(), true);
  });
}

// Local times around each transition since 1900, classified by our reverse
// search and by asking the C library which UTC instants show that wall
// clock. A unique reading must also agree with mktime.
TEST_F(TimezoneOracle, ReverseSearchFindsTheReadingsTheCLibraryShows) {
  long checked = 0, gaps = 0, overlaps = 0;
  Tally tally;
  for (const std::string& name : _names) {
    Timezone zone;
    ASSERT_TRUE(zone.fromExactZoneinfoPath(_dir / name.c_str(), true)) << name;
    ScopedTz tz(stagedZoneTz(name.c_str()).c_str());
    for (uint32_t i = 1; i < zone.timecnt(); ++i) {
      const int64_t t = zone.transitionTime(i);
      if (t < -2208988800 || t > YEAR_2100) continue;
      const long before = zone.typeAt(i - 1)->gmtoff;
      const long after = zone.typeAt(i)->gmtoff;
      for (long local : {t + before - 1, t + before, t + after - 1, t + after,
                         t + (before + after) / 2, t + before - 3600, t + after + 3600}) {
        // The instants that could show `local`: every offset near here.
        std::vector<long> readings;
        for (uint32_t k = i >= 2 ? i - 2 : 0; k < zone.timecnt() && k <= i + 1; ++k) {
          const time_t u = local - zone.typeAt(k)->gmtoff;
          tm shown;
          if (localtime_r(&u, &shown) != nullptr && u + shown.tm_gmtoff == local &&
              std::find(readings.begin(), readings.end(), u) == readings.end()) {
            readings.push_back(u);
          }
        }
        reverse_search_result_type_t how;
        zone.reverseSearchAt(local, &how);
        ++checked;
        const int expected = readings.empty() ? NO_SUCH_LOCAL_TIME
                             : readings.size() == 1 ? UNIQUE_READING
                                                    : MIGHT_ALSO_BE_NEXT_INDEX;
        if (how != expected) {
          tally.mismatch(name, local, "reverse search " + std::to_string(how) + ", readings " +
                                          std::to_string(readings.size()));
          continue;
        }
        gaps += how == NO_SUCH_LOCAL_TIME;
        overlaps += how == MIGHT_ALSO_BE_NEXT_INDEX;
        if (how != UNIQUE_READING) continue;
        StructTmInTimezone ours(&zone);
        ASSERT_TRUE(ours.GMT_fromUnixTime(local));
        tm theirs = ours;
        ours.tm_isdst = -1;
        theirs.tm_isdst = -1;
        const long got = ours.toUnixTime();
        const long expect = std::mktime(&theirs);
        if (got != readings[0] || got != expect) {
          tally.mismatch(name, local, "toUnixTime " + std::to_string(got) + ", mktime " +
                                          std::to_string(expect));
        }
      }
    }
  }
  EXPECT_EQ(0, tally.mismatched) << "of " << checked;
  EXPECT_GT(gaps, 1000);
  EXPECT_GT(overlaps, 1000);
  std::printf("[ local times %ld, gaps %ld, overlaps %ld ]\n", checked, gaps, overlaps);
}

}  // namespace
