#include "framework/FileTracker.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>

#include "framework/FishState.h"
#include "framework/PipelineData.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/testing/BTreeTestTypes.h"
#include "util/PersistentHashManager.h"
#include "util/testing/FixedClock.h"
#include "util/testing/LogCapture.h"
#include "util/testing/RunProgram.h"
#include "util/testing/TestTempDir.h"

namespace {

const Timeval kNow(1700000500, 0);

FishRecord record(int64_t seekPtr, uint64_t filenameCrc = 0xf11e) {
  return FishRecord(kNow.tv_sec, 1700000000, CRC_t(0x5eec), CRC_t(filenameCrc), seekPtr, 0);
}

// The older stores, answering from maps and counting questions. The helper
// is installed once per process, as in the server; tests switch it on and off.
class FakeHelper : public FileTracker::HelperIfc {
 public:
  bool query(const Str& key, Str& value) override {
    ++queries;
    const auto it = values.find(key);
    if (it == values.end()) return false;
    value = it->second;
    return true;
  }
  bool isPresent() override { return present; }

  std::map<std::string, std::string> values;
  bool present = false;
  int queries = 0;
};

FakeHelper& helper() {
  static FakeHelper* const h = [] {
    auto* made = new FakeHelper;
    made->init();
    return made;
  }();
  return *h;
}

class FakeHashStore : public PersistentHashManager {
 public:
  bool lookup(const Str& key, Str& value) override {
    ++lookups;
    const auto it = values.find(key);
    if (it == values.end()) return false;
    value = it->second;
    return true;
  }
  std::map<std::string, std::string> values;
  int lookups = 0;
};

class FileTrackerTest : public ::testing::Test {
 protected:
  FileTrackerTest() : _clock(kNow) {
    helper().values.clear();
    helper().present = false;
    helper().queries = 0;
    _previousStore = PersistentHashManager::setInstance(&_store);
  }
  ~FileTrackerTest() override { PersistentHashManager::setInstance(_previousStore); }

  std::unique_ptr<FileTracker> openTracker() {
    auto t = std::make_unique<FileTracker>();
    EXPECT_TRUE(t->init(_dir.path()));
    return t;
  }

  TestTempDir _dir;
  ScopedFixedClock _clock;
  FakeHashStore _store;
  PersistentHashManager* _previousStore;
};

TEST(FileTrackerCRC, IsTheHeadOfTheMd5FromTheOpensslCommand) {
  std::string big;
  for (int i = 0; i < 100000; ++i) big += static_cast<char>(i * 7);
  const std::string inputs[] = {"", "/var/log/messages", std::string("a\0b\xff", 4), big};
  TestTempDir dir;
  for (const std::string& in : inputs) {
    writeTestFile(dir / "in", in);
    const ProgramOutcome out = runProgram("/usr/bin/openssl", {"md5", "-r", dir / "in"});
    ASSERT_EQ(0, out.status) << out.output;
    const uint64_t oracle = std::strtoull(out.output.substr(0, 16).c_str(), nullptr, 16);
    EXPECT_EQ(CRC_t(oracle), FileTracker::computeCRC(in.data(), in.size())) << out.output;
  }
  // A hand-checked row: MD5("abc") is 900150983cd24fb0d6963f7d28e17f72.
  EXPECT_EQ(CRC_t(0x900150983cd24fb0), FileTracker::computeCRC("abc", 3));
}

TEST_F(FileTrackerTest, PendingWinsUntilTheCommitCatchesUp) {
  auto t = openTracker();
  const CRC_t key(0xabc);
  FishRecord got;
  EXPECT_FALSE(t->retrieve(key, got, "/var/log/a"));

  t->addUpdatePending(key, 100, CRC_t(0x5eec), CRC_t(0xf11e), "/var/log/a", 1700000000);
  ASSERT_TRUE(t->retrieve(key, got, "/var/log/a"));
  EXPECT_EQ(record(100), got);
  EXPECT_EQ("/var/log/a", got._filename);

  // A commit below the pending pointer leaves the pending entry in charge.
  t->addUpdate(key, record(50));
  EXPECT_EQ(1u, t->pendingCount());
  ASSERT_TRUE(t->retrieve(key, got, ""));
  EXPECT_EQ(100, got._seekPtr);

  // The pending entry moves in place; the commit that reaches it retires it.
  t->addUpdatePending(key, 200, CRC_t(0x5eec), CRC_t(0xf11e), "/var/log/a", 1700000000);
  EXPECT_EQ(1u, t->pendingCount());
  t->addUpdate(key, record(200));
  EXPECT_EQ(0u, t->pendingCount());
  ASSERT_TRUE(t->retrieve(key, got, ""));
  EXPECT_EQ(record(200), got);

  // Without a modification time the pending record carries zero.
  t->addUpdatePending(CRC_t(7), 1, CRC_t(2), CRC_t(3), "/x");
  ASSERT_TRUE(t->retrieve(CRC_t(7), got, ""));
  EXPECT_EQ(FishRecord(kNow.tv_sec, 0, CRC_t(2), CRC_t(3), 1, 0), got);
}

TEST_F(FileTrackerTest, CommitsSurviveReopenAndPendingDoesNot) {
  {
    auto t = openTracker();
    for (uint64_t k = 1; k <= 600; ++k) t->addUpdate(CRC_t(k), record(int64_t(k) * 10));
    t->addUpdatePending(CRC_t(5), 999, CRC_t(1), CRC_t(1), "/p");
    t->addUpdatePending(CRC_t(9999), 1, CRC_t(1), CRC_t(1), "/p");
  }
  EXPECT_TRUE((_dir / "btree_index.dat").exists());
  EXPECT_TRUE((_dir / "snapshot" / "btree_records.dat").exists());  // first update checkpoints
  auto t = openTracker();
  FishRecord got;
  for (uint64_t k = 1; k <= 600; ++k) {
    ASSERT_TRUE(t->retrieve(CRC_t(k), got, "")) << k;
    EXPECT_EQ(record(int64_t(k) * 10), got) << k;
  }
  EXPECT_FALSE(t->retrieve(CRC_t(9999), got, ""));
}

TEST_F(FileTrackerTest, DebugLinesAndZeroNameWarnings) {
  auto t = openTracker();
  ScopedLogCapture log("FileTracker");
  t->addUpdatePending(CRC_t(0x10), 5, CRC_t(0x1), CRC_t(0), "/p", 9);
  t->addUpdate(CRC_t(0x11), record(6, 0));
  FishRecord got;
  t->retrieve(CRC_t(0x11), got, "");
  EXPECT_EQ((std::vector<std::string>{
                "WARN Adding pending fish record with filenameCRC=0.  This may be a bug.",
                "DEBUG addUpdatePending: key=0x10 scrc=0x1 sptr=5 fcrc=0x0 flen=0 mdtm=9 "
                "wrtm=1700000500 fn=/p",
                "WARN Encountered fish record with filenameCRC=0.  This may be a bug.",
                "DEBUG addUpdate: key=0x11 scrc=0x5eec sptr=6 fcrc=0x0 flen=0 mdtm=1700000000 "
                "wrtm=1700000500",
                "DEBUG retrieve: key=0x11 rec=scrc=0x5eec sptr=6 fcrc=0x0 flen=0 mdtm=1700000000 "
                "wrtm=1700000500",
            }),
            log.lines());
}

TEST_F(FileTrackerTest, EventCommitUsesTheStateAndTheSourcePiece) {
  auto t = openTracker();
  CowPipelineData ev;
  const Str source("source::/var/log/a"), host("host::h"), type("sourcetype::s");
  ev.writable()->set_channel(&source, &host, &type);
  FishState(CRC_t(0x77), 4096, CRC_t(0x5eec), CRC_t(0xf11e), 1700000000)
      .populatePData(ev.writable(), true);
  t->addUpdatePending(CRC_t(0x77), 4096, CRC_t(0x5eec), CRC_t(0xf11e), "/var/log/a");
  {
    ScopedLogCapture log("FileTracker");
    t->addUpdate(ev);
    EXPECT_TRUE(log.hasLine("DEBUG addUpdate: key=0x77 scrc=0x5eec sptr=4096 fcrc=0xf11e flen=0 "
                            "mdtm=1700000000 wrtm=1700000500 fn=/var/log/a"))
        << log.text();
  }
  EXPECT_EQ(0u, t->pendingCount());
  FishRecord got;
  ASSERT_TRUE(t->retrieve(CRC_t(0x77), got, ""));
  EXPECT_EQ(record(4096), got);

  // No state: nothing reaches the bucket, whose first update would checkpoint.
  CowPipelineData plain;
  plain.writable()->put(PipelineData::_indexKey, "main");
  TestTempDir other;
  FileTracker fresh;
  ASSERT_TRUE(fresh.init(other.path()));
  fresh.addUpdate(plain);
  EXPECT_FALSE((other / "snapshot").exists());
}

TEST_F(FileTrackerTest, BucketFailuresOnCommit) {
  FileTracker never;
  EXPECT_THROW(never.addUpdate(CRC_t(1), record(1)), bt::BTree::IOException);
  FishRecord got;
  EXPECT_FALSE(never.retrieve(CRC_t(1), got, ""));  // memory and older stores only

  auto t = openTracker();
  CowPipelineData ev;
  FishState(CRC_t(0x77), 1, CRC_t(2), CRC_t(3), 4).populatePData(ev.writable(), false);
  ScopedLogCapture log("FileTracker");
  {
    ScopedFullDisk full;
    EXPECT_NO_THROW(t->addUpdate(ev));
    EXPECT_THROW(t->addUpdate(CRC_t(1), record(1)), bt::BTree::Exception);
  }
  EXPECT_NE(std::string::npos,
            log.text().find("ERROR exception encountered while updating btree: BTree::Exception: "))
      << log.text();
}

TEST_F(FileTrackerTest, InitPathsAndFailures) {
  // The default place under KESTRO_DB.
  ::setenv("KESTRO_DB", _dir.path().c_str(), 1);
  LoaderInfo::getInstance().populateFromEnvironment();
  {
    FileTracker t;
    ASSERT_TRUE(t.init(""));
    EXPECT_TRUE((_dir / "fishbucket" / "kestro_private_db" / "btree_index.dat").exists());
    ScopedLogCapture log("FileTracker");
    EXPECT_TRUE(t.init(_dir / "elsewhere"));
    EXPECT_EQ("WARN init called twice\n", log.text());
    EXPECT_FALSE((_dir / "elsewhere").exists());
  }

  writeTestFile(_dir / "plain", "not a directory");
  FileTracker t;
  {
    ScopedLogCapture log("FileTracker");
    EXPECT_FALSE(t.init(_dir / "plain" / "db"));
    EXPECT_EQ("ERROR failed to mkdir " + std::string(_dir / "plain" / "db") +
                  ": File exists\n",
              log.text());
  }
  {
    ScopedLogCapture log("FileTracker");
    ScopedFullDisk full;
    EXPECT_FALSE(t.init(_dir / "db"));
    EXPECT_TRUE(log.hasLine("ERROR failed to open fish bucket")) << log.text();
  }
  EXPECT_TRUE(t.init(_dir / "db"));  // a failed init may be retried
  t.addUpdate(CRC_t(1), record(1));
}

TEST_F(FileTrackerTest, OlderStoreByNameIsMigratedIntoTheBucket) {
  helper().present = true;
  helper().values["filename::/var/log/x"] =
      "1700000000 seekptr::400 seekcrc::ab modtime::99 source::/var/log/x";
  auto t = openTracker();
  ScopedLogCapture log("FileTracker");
  FishRecord got;
  ASSERT_TRUE(t->retrieve(CRC_t(0x42), got, "/var/log/x"));
  const FishRecord want(1700000000, 99, CRC_t(0xab), CRC_t(0x2999a2196a2db4a2), 0x400, 0);
  EXPECT_EQ(want, got);
  EXPECT_EQ(FileTracker::LEGACY_PRESENT, t->legacyState());
  EXPECT_TRUE(log.hasLine("INFO fish bucket query completed: 'filename::/var/log/x' rc=TRUE"));
  EXPECT_TRUE(log.hasLine("INFO lazy migrating key=0x42 rec=[scrc=0xab sptr=1024 "
                          "fcrc=0x2999a2196a2db4a2 flen=0 mdtm=99 wrtm=1700000000 "
                          "fn=/var/log/x] from 3X fish bucket"))
      << log.text();
  // Now in the bucket: the older store is not asked again, even after a reopen.
  t.reset();
  t = openTracker();
  ASSERT_TRUE(t->retrieve(CRC_t(0x42), got, "/var/log/x"));
  EXPECT_EQ(want, got);
  EXPECT_EQ(1, helper().queries);
  EXPECT_EQ(0, _store.lookups);
}

TEST_F(FileTrackerTest, OlderStoreByInitialCrcWithoutAPath) {
  helper().present = true;
  helper().values["initcrc::beef"] = "seekptr::10 seekcrc::1";
  auto t = openTracker();
  FishRecord got;
  ASSERT_TRUE(t->retrieve(CRC_t(0xbeef), got, ""));
  EXPECT_EQ(FishRecord(kNow.tv_sec, 0, CRC_t(1), CRC_t(0), 16, 0), got);
}

TEST_F(FileTrackerTest, HashStoreIsAskedWhenTheOlderStoreFailsAndIsNotCopied) {
  const struct {
    bool helperPresent;
    const char* helperValue;  // under "filename::/f", or null
  } kCases[] = {
      {false, nullptr},
      {true, nullptr},
      {true, "seekptr::zz"},  // unparsable: as if absent
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.helperValue != nullptr ? c.helperValue : "none");
    helper().present = c.helperPresent;
    helper().values.clear();
    if (c.helperValue != nullptr) helper().values["filename::/f"] = c.helperValue;
    _store.values = {{"abc", "seekptr::20 seekcrc::2 modtime::5 /f"}, {"bad", "junk"}};
    _store.lookups = 0;
    TestTempDir dir;
    FileTracker t;
    ASSERT_TRUE(t.init(dir.path()));
    ScopedLogCapture log("FileTracker");
    FishRecord got;
    for (int round = 0; round < 2; ++round) {
      ASSERT_TRUE(t.retrieve(CRC_t(0xabc), got, "/f"));
      EXPECT_EQ(FishRecord(kNow.tv_sec, 5, CRC_t(2), FileTracker::computeCRC("/f", 2), 32, 0),
                got);
    }
    EXPECT_EQ(2, _store.lookups);  // not copied into the bucket
    EXPECT_TRUE(log.hasLine("INFO Seen this crc: seekptr::20 seekcrc::2 modtime::5 /f"));
    EXPECT_EQ(c.helperPresent, log.hasLine("INFO fish bucket query completed: 'filename::/f' "
                                           "rc=FALSE"));
    EXPECT_EQ(c.helperPresent ? FileTracker::LEGACY_PRESENT : FileTracker::LEGACY_NONE,
              t.legacyState());
    EXPECT_FALSE(t.retrieve(CRC_t(0xbad), got, "/g"));  // "junk" does not parse
    EXPECT_FALSE(t.retrieve(CRC_t(0xdef), got, "/h"));  // a new file
  }
}

struct IdleHelper : FileTracker::HelperIfc {
  bool query(const Str&, Str&) override { return false; }
  bool isPresent() override { return false; }
};

void initTwice() {
  static IdleHelper a, b;
  a.init();
  b.init();
}

TEST(FileTrackerHelperDeathTest, SecondInitIsABug) {
  EXPECT_DEATH(initTwice(), "HelperIfc::init called multipled times, this is a bug!!!");
}

}  // namespace
