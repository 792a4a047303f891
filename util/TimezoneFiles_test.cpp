// Zone names to files: cleaning, the order of the directories, the packed
// file beside the zoneinfo directory, and files that are not zones.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "util/FileDescriptor.h"
#include "util/StrVector.h"
#include "util/testing/TestTempDir.h"
#include "util/Timezone.h"
#include "util/TimezoneCache.h"
#include "util/testing/TimezoneTestSupport.h"

namespace {

// What a load gave: the zone's constant offset, or REFUSED.
constexpr long REFUSED = -1;
long offsetIfLoaded(bool loaded, const Timezone& zone) {
  return loaded ? zone.constantOffset() : REFUSED;
}

void writeFile(const Pathname& path, const std::string& bytes) {
  std::filesystem::create_directories(std::filesystem::path(std::string(path)).parent_path());
  std::ofstream(path.c_str(), std::ios::binary) << bytes;
}

TEST(Timezone, CleanZoneNameKeepsNamesInsideTheDirectory) {
  const struct { const char* in; const char* out; } kCases[] = {
      {"America/New_York", "America/New_York"}, {"Etc/GMT+5", "Etc/GMT+5"},
      {"../../etc/passwd", "_./_./etc/passwd"}, {"a/../b", "a/_./b"}, {"..", "_."},
      {"//x//y/", "x/y"}, {"America\\New_York", "America_New_York"}, {"+05:30", "_05:30"},
      {"-x", "_x"}, {".hidden", "_hidden"}, {"a b.c:d", "a b.c:d"}, {" lead", "_lead"},
      {"caf\xc3\xa9", "caf__"}, {"a*b?c", "a_b_c"}, {"MiXeD/CaSe", "MiXeD/CaSe"}, {"/", ""},
      {"", ""},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.out, Timezone::cleanZoneName(c.in)) << c.in;
}

class TimezoneFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(_tmp.path().empty());
    _zoneinfo = _tmp.path() / "zoneinfo";
    std::filesystem::create_directories(std::string(_zoneinfo));
    setupTimezoneSupport(_zoneinfo);
  }
  void TearDown() override { setupTimezoneSupport(stagedZoneinfoDir()); }

  TestTempDir _tmp;
  Pathname _zoneinfo;
};

TEST_F(TimezoneFiles, DotDotCannotClimbOutOfTheDirectory) {
  writeFile(_tmp.path() / "secret", constantTzif(111, "SEC"));
  writeFile(_zoneinfo / "_." / "secret", constantTzif(222, "CLN"));
  Timezone zone;
  EXPECT_EQ(222, offsetIfLoaded(zone.fromZoneinfoPath("../secret", true), zone));
  EXPECT_FALSE(zone.fromZoneinfoPath("..", true));
  EXPECT_FALSE(zone.fromZoneinfoPath("/", true));
  EXPECT_FALSE(zone.fromZoneinfoPath("", true));
  EXPECT_FALSE(zone.fromZoneinfoPath(nullptr, true));
}

TEST_F(TimezoneFiles, AbsoluteNamesMustBeRegularFiles) {
  const Pathname file = _tmp.path() / "zone";
  writeFile(file, constantTzif(333, "ABS"));
  Timezone zone;
  EXPECT_EQ(333, offsetIfLoaded(zone.fromZoneinfoPath(file.c_str(), true), zone));
  EXPECT_FALSE(zone.fromZoneinfoPath(_tmp.path().c_str(), true));
  const Pathname fifo = _tmp.path() / "fifo";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  EXPECT_FALSE(zone.fromZoneinfoPath(fifo.c_str(), true));  // and does not hang
  EXPECT_FALSE(zone.fromZoneinfoPath((_tmp.path() / "missing").c_str(), true));
  writeFile(_tmp.path() / "empty", "");
  EXPECT_FALSE(zone.fromZoneinfoPath((_tmp.path() / "empty").c_str(), true));
}

TEST_F(TimezoneFiles, TheDirectoryComesBeforeThePackedFileAndThePackedFileBeforeTheSystem) {
  writeFile(_zoneinfo / "Here/Zone", constantTzif(1, "DIR"));
  writeFile(_zoneinfo + ".tzpack", buildTzpack({{"here/zone", constantTzif(2, "PCK")}}));
  Timezone zone;
  EXPECT_EQ(1, offsetIfLoaded(zone.fromZoneinfoPath("Here/Zone", true), zone));
  // Only the packed file matches without regard to case.
  EXPECT_EQ(2, offsetIfLoaded(zone.fromZoneinfoPath("HERE/zone", true), zone));
  setupTimezoneSupport(_zoneinfo + "/");  // the packed file is beside it all the same
  EXPECT_EQ(2, offsetIfLoaded(zone.fromZoneinfoPath("HERE/zone", true), zone));
  writeFile(_zoneinfo + ".tzpack", buildTzpack({{"america/new_york", constantTzif(3, "PCK")}}));
  EXPECT_EQ(3, offsetIfLoaded(zone.fromZoneinfoPath("America/New_York", true), zone));
  // Neither has it: /usr/share/zoneinfo does.
  EXPECT_EQ(32400, offsetIfLoaded(zone.fromZoneinfoPath("Asia/Tokyo", true), zone))
      << "no /usr/share/zoneinfo here";
  EXPECT_FALSE(zone.fromZoneinfoPath("No/Such_Zone", true));
}

TEST_F(TimezoneFiles, LocaltimeIsEtcLocaltimeFirst) {
  writeFile(_zoneinfo / "localtime", constantTzif(444, "LOC"));
  Timezone zone, etc;
  ASSERT_TRUE(zone.fromZoneinfoPath("localtime", true));
  if (etc.fromExactZoneinfoPath("/etc/localtime", true)) {
    StrVector a, b;
    zone.serialize(a);
    etc.serialize(b);
    EXPECT_EQ(b, a);
  } else {
    EXPECT_EQ(444, zone.constantOffset());
  }
}

TEST_F(TimezoneFiles, PathOrPosixTriesPathThenSystemNameThenRule) {
  Timezone zone;
  ASSERT_TRUE(zone.fromPathOrPosix(""));
  EXPECT_STREQ("GMT", zone.abbreviation(zone.typeAt(0)));
  EXPECT_FALSE(zone.fromPathOrPosix(nullptr));

  writeFile(_zoneinfo / "JST-9", constantTzif(555, "FIL"));
  EXPECT_EQ(555, offsetIfLoaded(zone.fromPathOrPosix("JST-9"), zone));
  EXPECT_EQ(19800, offsetIfLoaded(zone.fromPathOrPosix("IST-5:30"), zone));
  EXPECT_EQ(32400, offsetIfLoaded(zone.fromPathOrPosix("Tokyo Standard Time"), zone));
  // A colon allows only a path.
  EXPECT_FALSE(zone.fromPathOrPosix(":IST-5:30"));
  EXPECT_EQ(555, offsetIfLoaded(zone.fromPathOrPosix(":JST-9"), zone));
  const Pathname file = _tmp.path() / "abs";
  writeFile(file, constantTzif(666, "ABS"));
  EXPECT_EQ(666, offsetIfLoaded(zone.fromPathOrPosix((":" + file).c_str()), zone));
  EXPECT_FALSE(zone.fromPathOrPosix("Nowhere/At_All"));
}

TEST_F(TimezoneFiles, FromZoneinfoFileBorrowsAnOpenDescriptor) {
  const Pathname file = _tmp.path() / "zone";
  writeFile(file, constantTzif(777, "DES"));
  ScopedFileDescriptor fd(file.openReadOnly());
  ASSERT_TRUE(fd.valid());
  Timezone zone;
  EXPECT_EQ(777, offsetIfLoaded(zone.fromZoneinfoFile(fd, true), zone));
  EXPECT_TRUE(zone.fromZoneinfoFile(fd, true));  // still open, still mapped from the start
  EXPECT_FALSE(zone.fromZoneinfoFile(FileDescriptor(), true));
}

}  // namespace
