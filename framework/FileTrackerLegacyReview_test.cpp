// FileTracker with an older store's helper installed: the query keys by name
// and by key, the lazy migration into the bucket, and a presence that is
// settled by the first look. The helper is process-wide, so these tests live in a
// program of their own.
#include "framework/FileTracker.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "util/testing/FixedClock.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"

namespace {

class MapHelper : public FileTracker::HelperIfc {
 public:
  bool query(const Str& key, Str& value) override {
    asked.push_back(key);
    auto it = values.find(key);
    if (it == values.end()) return false;
    value.assign(it->second);
    return true;
  }
  bool isPresent() override { return present; }
  bool present = true;
  std::map<std::string, std::string> values;
  std::vector<std::string> asked;
};

// The one helper of this program, installed on first use.
MapHelper& helper() {
  static MapHelper* h = [] {
    auto* made = new MapHelper;
    made->init();
    return made;
  }();
  return *h;
}

}  // namespace

TEST(FileTrackerLegacyReview, InstanceIsTheInstalledHelper) {
  MapHelper& installed = helper();
  EXPECT_EQ(&installed, FileTracker::HelperIfc::instance());
}

TEST(FileTrackerLegacyReview, MigratesByNameOrByKeyAndWritesToTheBucket) {
  ScopedFixedClock clock(Timeval(1700000900, 0));
  MapHelper& h = helper();
  h.present = true;
  h.values["filename::/var/log/old.log"] =
      "1600000000 seekptr::400 seekcrc::ab modtime::99 source::/var/log/old.log";
  h.values["initcrc::c0ffee"] = "seekptr::10 seekcrc::20 /var/log/byKey";
  TestTempDir dir;
  FileTracker t;
  ASSERT_TRUE(t.init(dir.path()));
  const struct {
    uint64_t key;
    const char* path;
    const char* query;
    int64_t wrtm, sptr, mdtm;
    uint64_t scrc;
  } kCases[] = {
      {0x51, "/var/log/old.log", "filename::/var/log/old.log", 1600000000, 0x400, 99, 0xab},
      {0xc0ffee, "", "initcrc::c0ffee", 1700000900, 0x10, 0, 0x20},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.query);
    ScopedLogCapture log("FileTracker");
    FishRecord got;
    ASSERT_TRUE(t.retrieve(CRC_t(c.key), got, Pathname(c.path)));
    EXPECT_EQ(FileTracker::LEGACY_PRESENT, t.legacyState());
    EXPECT_EQ(c.query, h.asked.back());
    EXPECT_EQ(c.wrtm, got._writeTime);
    EXPECT_EQ(c.sptr, got._seekPtr);
    EXPECT_EQ(c.mdtm, got._modTime);
    EXPECT_EQ(c.scrc, got._seekCrc._crc);
    EXPECT_EQ(0, got._fileLen);
    bool completed = false, migrating = false;
    const std::string wantDone =
        "fish bucket query completed: '" + std::string(c.query) + "' rc=TRUE";
    const std::string wantMig = "lazy migrating key=" + std::string(CRC_t(c.key).toString()) +
                                " rec=[";
    for (const std::string& l : log.lines()) {
      completed |= l.find(wantDone) != std::string::npos;
      migrating |= l.find(wantMig) != std::string::npos &&
                   l.find("] from 3X fish bucket") != std::string::npos;
    }
    EXPECT_TRUE(completed) << log.text();
    EXPECT_TRUE(migrating) << log.text();

    // The second look is answered by the bucket, without the helper.
    const size_t asked = h.asked.size();
    FishRecord again;
    ASSERT_TRUE(t.retrieve(CRC_t(c.key), again, Pathname(c.path)));
    EXPECT_EQ(asked, h.asked.size());
    EXPECT_TRUE(again == got) << again.toStringVerbose() << " / " << got.toStringVerbose();
  }
}

TEST(FileTrackerLegacyReview, AbsentStoreIsNotAsked) {
  MapHelper& h = helper();
  h.present = false;
  TestTempDir dir;
  FileTracker t;
  ASSERT_TRUE(t.init(dir.path()));
  const size_t asked = h.asked.size();
  FishRecord got;
  EXPECT_FALSE(t.retrieve(CRC_t(0x99), got, "/var/log/old.log"));
  EXPECT_EQ(FileTracker::LEGACY_NONE, t.legacyState());
  EXPECT_EQ(asked, h.asked.size());
  // The store's presence is settled by the first look only.
  h.present = true;
  EXPECT_FALSE(t.retrieve(CRC_t(0x98), got, "/var/log/old.log"));
  EXPECT_EQ(asked, h.asked.size());
}

