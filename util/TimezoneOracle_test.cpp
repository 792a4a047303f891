// Every zone the build stages, loaded from its file and from the packed
// file, against the C library's reading of the same file (TZ=":<path>").
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "util/DateTime.h"
#include "util/Timezone.h"
#include "util/testing/TimezoneTestSupport.h"

namespace {

constexpr long YEAR_1971 = 31536000;
constexpr long YEAR_2100 = 4102444800;
constexpr int SAMPLES_PER_ZONE = 600;
constexpr int REPORTED_MISMATCHES = 20;

// Points the C library at one zone file.
void useZoneFile(const std::string& path) {
  ::setenv("TZ", (":" + path).c_str(), 1);
  ::tzset();
}

std::string describe(const tm& t) {
  char buffer[96];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d %02d:%02d:%02d wday %d yday %d dst %d %ld %s",
                t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
                t.tm_wday, t.tm_yday, t.tm_isdst, t.tm_gmtoff, t.tm_zone ? t.tm_zone : "(null)");
  return buffer;
}

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
  if (!got.fromUnixTime(t)) {
    tally->mismatch(zoneName, t, "refused; C library: " + describe(expect));
    return;
  }
  const bool same = got.tm_sec == expect.tm_sec && got.tm_min == expect.tm_min &&
                    got.tm_hour == expect.tm_hour && got.tm_mday == expect.tm_mday &&
                    got.tm_mon == expect.tm_mon && got.tm_year == expect.tm_year &&
                    got.tm_wday == expect.tm_wday && got.tm_yday == expect.tm_yday &&
                    got.tm_isdst == expect.tm_isdst && got.tm_gmtoff == expect.tm_gmtoff &&
                    std::strcmp(got.tm_zone, expect.tm_zone) == 0;
  if (!same) tally->mismatch(zoneName, t, describe(got) + " vs C library " + describe(expect));
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
    const char* tz = std::getenv("TZ");
    _savedTz = tz != nullptr ? tz : "";
    _hadTz = tz != nullptr;
  }
  void TearDown() override {
    if (_hadTz) {
      ::setenv("TZ", _savedTz.c_str(), 1);
    } else {
      ::unsetenv("TZ");
    }
    ::tzset();
  }

  Pathname _dir;
  std::vector<std::string> _names;
  std::string _savedTz;
  bool _hadTz = false;
};

TEST_F(TimezoneOracle, EveryStagedZoneFileReadsAsTheCLibraryReadsIt) {
  Tally tally;
  for (const std::string& name : _names) {
    const Pathname path = _dir / name.c_str();
    Timezone zone;
    if (!zone.fromExactZoneinfoPath(path, true)) {
      ADD_FAILURE() << name << " did not load";
      continue;
    }
    useZoneFile(path);
    compareZone(name, zone, &tally);
  }
  EXPECT_EQ(0, tally.mismatched) << "of " << tally.compared;
  std::printf("[ zones %zu, instants compared %ld ]\n", _names.size(), tally.compared);
}

TEST_F(TimezoneOracle, EveryPackedZoneReadsAsTheCLibraryReadsItsFile) {
  const Pathname pack = _dir + ".tzpack";
  Tally tally;
  for (const std::string& name : _names) {
    Timezone zone;
    if (!zone.fromPackedZoneinfoPath(pack, name.c_str(), true)) {
      ADD_FAILURE() << name << " is not in " << pack;
      continue;
    }
    useZoneFile(_dir / name.c_str());
    compareZone(name, zone, &tally);
  }
  EXPECT_EQ(0, tally.mismatched) << "of " << tally.compared;
  std::printf("[ zones %zu, instants compared %ld ]\n", _names.size(), tally.compared);
}

// Local times around each transition since 1900, classified by our reverse
// search and by asking the C library which UTC instants show that wall
// clock. A unique reading must also agree with mktime.
TEST_F(TimezoneOracle, ReverseSearchFindsTheReadingsTheCLibraryShows) {
  long checked = 0, gaps = 0, overlaps = 0;
  Tally tally;
  for (const std::string& name : _names) {
    const Pathname path = _dir / name.c_str();
    Timezone zone;
    ASSERT_TRUE(zone.fromExactZoneinfoPath(path, true)) << name;
    useZoneFile(path);
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
