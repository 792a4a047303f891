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
#include "util/TimezonePackFormat.h"
#include "util/testing/TimezoneTestSupport.h"

namespace {

std::string constantZone(int32_t offset, const char* abbrev) {
  TzifParts s;
  s.types = {{offset, 0, 0}};
  s.chars = std::string(abbrev) + '\0';
  return buildTzif(s);
}

void writeFile(const Pathname& path, const std::string& bytes) {
  std::filesystem::create_directories(std::filesystem::path(std::string(path)).parent_path());
  std::ofstream(path.c_str(), std::ios::binary) << bytes;
}

// A packed file of one zone, by hand.
std::string onePack(const std::string& name, const std::string& data) {
  std::string out(32, '\0');
  out.replace(0, TZPACK_MAGIC_SIZE, TZPACK_MAGIC);
  tzpackWrite32(&out[12], 1);
  tzpackWrite32(&out[16], static_cast<uint32_t>(out.size()));
  out += name + '\0';
  out.append((16 - out.size() % 16) % 16, '\0');
  tzpackWrite32(&out[20], static_cast<uint32_t>(out.size() / 16));
  tzpackWrite32(&out[24], static_cast<uint32_t>(data.size()));
  return out + data;
}

TEST(Timezone, CleanZoneNameKeepsNamesInsideTheDirectory) {
  const struct { const char* in; const char* out; } kCases[] = {
      {"America/New_York", "America/New_York"},
      {"Etc/GMT+5", "Etc/GMT+5"},
      {"../../etc/passwd", "_./_./etc/passwd"},
      {"a/../b", "a/_./b"},
      {"..", "_."},
      {"//x//y/", "x/y"},
      {"America\\New_York", "America_New_York"},
      {"+05:30", "_05:30"},
      {"-x", "_x"},
      {".hidden", "_hidden"},
      {"a b.c:d", "a b.c:d"},
      {" lead", "_lead"},
      {"caf\xc3\xa9", "caf__"},
      {"a*b?c", "a_b_c"},
      {"MiXeD/CaSe", "MiXeD/CaSe"},
      {"/", ""},
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
  writeFile(_tmp.path() / "secret", constantZone(111, "SEC"));
  writeFile(_zoneinfo / "_." / "secret", constantZone(222, "CLN"));
  Timezone zone;
  ASSERT_TRUE(zone.fromZoneinfoPath("../secret", true));
  EXPECT_EQ(222, zone.constantOffset());
  EXPECT_FALSE(zone.fromZoneinfoPath("..", true));
  EXPECT_FALSE(zone.fromZoneinfoPath("/", true));
  EXPECT_FALSE(zone.fromZoneinfoPath("", true));
  EXPECT_FALSE(zone.fromZoneinfoPath(nullptr, true));
}

TEST_F(TimezoneFiles, AbsoluteNamesMustBeRegularFiles) {
  const Pathname file = _tmp.path() / "zone";
  writeFile(file, constantZone(333, "ABS"));
  Timezone zone;
  ASSERT_TRUE(zone.fromZoneinfoPath(file.c_str(), true));
  EXPECT_EQ(333, zone.constantOffset());
  EXPECT_FALSE(zone.fromZoneinfoPath(_tmp.path().c_str(), true));
  const Pathname fifo = _tmp.path() / "fifo";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  EXPECT_FALSE(zone.fromZoneinfoPath(fifo.c_str(), true));  // and does not hang
  EXPECT_FALSE(zone.fromZoneinfoPath((_tmp.path() / "missing").c_str(), true));
  writeFile(_tmp.path() / "empty", "");
  EXPECT_FALSE(zone.fromZoneinfoPath((_tmp.path() / "empty").c_str(), true));
}

TEST_F(TimezoneFiles, TheDirectoryComesBeforeThePackedFileAndThePackedFileBeforeTheSystem) {
  writeFile(_zoneinfo / "Here/Zone", constantZone(1, "DIR"));
  writeFile(_zoneinfo + ".tzpack", onePack("here/zone", constantZone(2, "PCK")));
  Timezone zone;
  ASSERT_TRUE(zone.fromZoneinfoPath("Here/Zone", true));
  EXPECT_EQ(1, zone.constantOffset());
  // Only the packed file matches without regard to case.
  ASSERT_TRUE(zone.fromZoneinfoPath("HERE/zone", true));
  EXPECT_EQ(2, zone.constantOffset());
  setupTimezoneSupport(_zoneinfo + "/");  // the packed file is beside it all the same
  ASSERT_TRUE(zone.fromZoneinfoPath("HERE/zone", true));
  EXPECT_EQ(2, zone.constantOffset());
  writeFile(_zoneinfo + ".tzpack", onePack("america/new_york", constantZone(3, "PCK")));
  ASSERT_TRUE(zone.fromZoneinfoPath("America/New_York", true));
  EXPECT_EQ(3, zone.constantOffset());
  // Neither has it: /usr/share/zoneinfo does.
  ASSERT_TRUE(zone.fromZoneinfoPath("Asia/Tokyo", true)) << "no /usr/share/zoneinfo here";
  EXPECT_EQ(32400, zone.constantOffset());
  EXPECT_FALSE(zone.fromZoneinfoPath("No/Such_Zone", true));
}

TEST_F(TimezoneFiles, LocaltimeIsEtcLocaltimeFirst) {
  writeFile(_zoneinfo / "localtime", constantZone(444, "LOC"));
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

  writeFile(_zoneinfo / "JST-9", constantZone(555, "FIL"));
  ASSERT_TRUE(zone.fromPathOrPosix("JST-9"));
  EXPECT_EQ(555, zone.constantOffset());
  ASSERT_TRUE(zone.fromPathOrPosix("IST-5:30"));
  EXPECT_EQ(19800, zone.constantOffset());
  ASSERT_TRUE(zone.fromPathOrPosix("Tokyo Standard Time"));
  EXPECT_EQ(32400, zone.constantOffset());
  // A colon allows only a path.
  EXPECT_FALSE(zone.fromPathOrPosix(":IST-5:30"));
  ASSERT_TRUE(zone.fromPathOrPosix(":JST-9"));
  EXPECT_EQ(555, zone.constantOffset());
  const Pathname file = _tmp.path() / "abs";
  writeFile(file, constantZone(666, "ABS"));
  ASSERT_TRUE(zone.fromPathOrPosix((":" + file).c_str()));
  EXPECT_EQ(666, zone.constantOffset());
  EXPECT_FALSE(zone.fromPathOrPosix("Nowhere/At_All"));
}

TEST_F(TimezoneFiles, FromZoneinfoFileBorrowsAnOpenDescriptor) {
  const Pathname file = _tmp.path() / "zone";
  writeFile(file, constantZone(777, "DES"));
  ScopedFileDescriptor fd(file.openReadOnly());
  ASSERT_TRUE(fd.valid());
  Timezone zone;
  ASSERT_TRUE(zone.fromZoneinfoFile(fd, true));
  EXPECT_EQ(777, zone.constantOffset());
  EXPECT_TRUE(zone.fromZoneinfoFile(fd, true));  // still open, still mapped from the start
  EXPECT_FALSE(zone.fromZoneinfoFile(FileDescriptor(), true));
}

}  // namespace
