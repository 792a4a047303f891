#include "tools/tzpack/ZoneinfoTree.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "util/testing/TestTempDir.h"

namespace fs = std::filesystem;

namespace {

void put(const fs::path& path, const std::string& bytes) { writeTestFile(path.string(), bytes); }
std::string read(const fs::path& path) { return readTestFile(path.string()); }

class ZoneinfoTree : public ::testing::Test {
 protected:
  void SetUp() override {
    _source = fs::path(std::string(_tmp.path())) / "source";
    _dest = fs::path(std::string(_tmp.path())) / "staged";
    put(_source / "Europe/Paris", "TZif2 paris");
    put(_source / "UTC", "TZif2 utc");
    put(_source / "right/UTC", "TZif2 leap seconds");
    put(_source / "zone.tab", "# not a zone");
    put(_source / "Etc/Short", "TZ");
    fs::create_directories(_source / "posix");
    fs::create_symlink("../Europe", _source / "posix/Europe");
    fs::create_symlink("Europe/Paris", _source / "Paris");
    fs::create_symlink("/etc/localtime", _source / "localtime");
  }

  TestTempDir _tmp;
  fs::path _source, _dest;
  ZoneinfoFiles _zones;
  std::string _error;
};

TEST_F(ZoneinfoTree, CollectsZonesAndLinksToZonesOnly) {
  ASSERT_TRUE(collectZoneinfo(_source, &_zones, &_error)) << _error;
  ASSERT_EQ(3u, _zones.size());
  EXPECT_EQ("TZif2 paris", _zones["Europe/Paris"]);
  EXPECT_EQ("TZif2 paris", _zones["Paris"]);
  EXPECT_EQ("TZif2 utc", _zones["UTC"]);
}

TEST_F(ZoneinfoTree, ReportsAMissingSource) {
  EXPECT_FALSE(collectZoneinfo(_source / "missing", &_zones, &_error));
  EXPECT_NE(std::string::npos, _error.find("missing")) << _error;
}

TEST_F(ZoneinfoTree, StagingWritesOnlyWhatChanged) {
  ASSERT_TRUE(collectZoneinfo(_source, &_zones, &_error)) << _error;
  size_t written = 0;
  ASSERT_TRUE(stageZoneinfo(_zones, _dest, &written, &_error)) << _error;
  EXPECT_EQ(3u, written);
  EXPECT_EQ("TZif2 paris", read(_dest / "Paris"));
  EXPECT_FALSE(fs::is_symlink(_dest / "Paris"));

  // Mark the files so that a rewrite would show.
  const fs::file_time_type old = fs::last_write_time(_dest / "UTC") - std::chrono::hours(1);
  fs::last_write_time(_dest / "UTC", old);
  written = 0;
  ASSERT_TRUE(stageZoneinfo(_zones, _dest, &written, &_error)) << _error;
  EXPECT_EQ(0u, written);
  EXPECT_EQ(old, fs::last_write_time(_dest / "UTC"));

  _zones["UTC"] = "TZif2 new utc";
  _zones.erase("Paris");
  put(_dest / "Stale/Zone", "TZif2 stale");
  written = 0;
  ASSERT_TRUE(stageZoneinfo(_zones, _dest, &written, &_error)) << _error;
  EXPECT_EQ(1u, written);
  EXPECT_EQ("TZif2 new utc", read(_dest / "UTC"));
  EXPECT_FALSE(fs::exists(_dest / "Paris"));
  EXPECT_FALSE(fs::exists(_dest / "Stale/Zone"));
}

TEST_F(ZoneinfoTree, WriteFileIfChangedReportsWhatItDid) {
  bool changed = false;
  const fs::path path = _dest / "deep/file";
  ASSERT_TRUE(writeFileIfChanged(path, "one", &changed, &_error)) << _error;
  EXPECT_TRUE(changed);
  ASSERT_TRUE(writeFileIfChanged(path, "one", &changed, &_error)) << _error;
  EXPECT_FALSE(changed);
  ASSERT_TRUE(writeFileIfChanged(path, "two", &changed, &_error)) << _error;
  EXPECT_TRUE(changed);
  EXPECT_EQ("two", read(path));
  // A file standing where a directory must go cannot be written past.
  put(_dest / "blocker", "x");
  EXPECT_FALSE(writeFileIfChanged(_dest / "blocker/file", "x", &changed, &_error));
  EXPECT_FALSE(_error.empty());
}

}  // namespace
