// FileTracker as a reader and the pipeline's end use it, with no older store
// helper installed: pending positions against commits at other pointers,
// failed commits, the bucket's bytes and order on disk, its hourly
// checkpoints, damage, many threads, and event commits that must not write.
#include "framework/FileTracker.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "framework/FishState.h"
#include "framework/PipelineData.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/BTreeFormat.h"
#include "util/testing/BTreeTestTypes.h"
#include "util/testing/FixedClock.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"

TEST(FileTrackerReview, CommitDropsOnlyThePendingEntryAtTheSamePointer) {
  TestTempDir dir;
  FileTracker t;
  ASSERT_TRUE(t.init(dir.path()));
  const struct { int64_t pending; int64_t commit; bool pendingStays; } kCases[] = {
      {1000, 1000, false},
      {1000, 400, true},   // the pipeline is behind the reader
      {1000, 2000, true},  // a different pointer is not the same position
  };
  uint64_t key = 0x100;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.commit);
    ++key;
    t.addUpdatePending(CRC_t(key), c.pending, CRC_t(1), CRC_t(2), "/x", 3);
    t.addUpdate(CRC_t(key), FishRecord(10, 3, CRC_t(1), CRC_t(2), c.commit, 0));
    EXPECT_EQ(c.pendingStays ? 1u : 0u, t.pendingCount());
    FishRecord got;
    ASSERT_TRUE(t.retrieve(CRC_t(key), got, Pathname()));
    EXPECT_EQ(c.pendingStays ? c.pending : c.commit, got._seekPtr);
    if (c.pendingStays) {
      t.addUpdate(CRC_t(key), FishRecord(11, 3, CRC_t(1), CRC_t(2), c.pending, 0));
      EXPECT_EQ(0u, t.pendingCount());
    }
  }
}

TEST(FileTrackerReview, OverwritesAndTheTopKeySurviveReopen) {
  TestTempDir dir;
  const FishRecord a(1700000100, 1700000000, CRC_t(0x1f), CRC_t(0xab), 1024, 0);
  const FishRecord b(1700000200, 1700000050, CRC_t(0x2f), CRC_t(0xcd), 4096, 8192);
  {
    FileTracker t;
    ASSERT_TRUE(t.init(dir.path()));
    t.addUpdate(CRC_t(0xA), a);
    t.addUpdate(CRC_t(0xB), FishRecord(1, 1, CRC_t(1), CRC_t(1), 1, 1));
    t.addUpdate(CRC_t(0xB), b);  // overwrite
    t.addUpdate(CRC_t(UINT64_MAX), a);
    t.addUpdatePending(CRC_t(0xC), 77, CRC_t(1), CRC_t(2), "/c", 0);
  }
  FileTracker t;
  ASSERT_TRUE(t.init(dir.path()));
  EXPECT_EQ(0u, t.pendingCount());
  const struct { uint64_t key; const FishRecord* want; } kCases[] = {
      {0xA, &a}, {0xB, &b}, {UINT64_MAX, &a}, {0xC, nullptr}};
  for (const auto& c : kCases) {
    FishRecord got;
    EXPECT_EQ(c.want != nullptr, t.retrieve(CRC_t(c.key), got, Pathname())) << c.key;
    if (c.want != nullptr) {
      EXPECT_TRUE(got == *c.want) << got.toStringVerbose();
    }
  }
}

TEST(FileTrackerReview, EventCommitSwallowsBucketFailure) {
  FileTracker t;  // never opened: the bucket throws
  CowPipelineData event;
  FishState(CRC_t(0x901), 1, CRC_t(2), CRC_t(3), 4).populatePData(event.writable(), false);
  ScopedLogCapture log("FileTracker");
  EXPECT_NO_THROW(t.addUpdate(event));
  bool found = false;
  for (const std::string& l : log.lines()) {
    found |= l.find("exception encountered while updating btree: ") != std::string::npos;
  }
  EXPECT_TRUE(found) << log.text();
}

TEST(FileTrackerReview, EventCommitWithZeroKeyOrHalfStateDoesNotWrite) {
  FileTracker t;  // never opened: a write would be logged
  {
    CowPipelineData event;
    FishState(CRC_t(7), 1, CRC_t(2), CRC_t(3), 4).populatePData(event.writable(), false);
    event.writable()->put(PipelineData::_fishKey, "0");
    ScopedLogCapture log("FileTracker");
    EXPECT_NO_THROW(t.addUpdate(event));
    EXPECT_EQ("", log.text());
  }
  CowPipelineData half;
  FishState(CRC_t(7), 1, CRC_t(2), CRC_t(3), 4).populatePData(half.writable(), false);
  half.writable()->remove(PipelineData::_seekCrcKey);
  EXPECT_THROW(t.addUpdate(half), KeyNotFoundException);
}

TEST(FileTrackerReview, DefaultLocationIsUnderTheDatabaseRoot) {
  TestTempDir dir;
  ::setenv("KESTRO_DB", std::string(dir.path()).c_str(), 1);
  LoaderInfo::getInstance().populateFromEnvironment();
  FileTracker t;
  ASSERT_TRUE(t.init(Pathname()));
  const Pathname db = dir / "fishbucket" / "kestro_private_db";
  const FishRecord rec(0x0102030405060708ll, 0x1112131415161718ll, CRC_t(0x2122232425262728ull),
                       CRC_t(0x3132333435363738ull), 0x4142434445464748ll, 0x5152535455565758ll);
  t.addUpdate(CRC_t(0x6162636465666768ull), rec);
  const std::string index = readTestFile(db / bt::INDEX_FILE);
  const std::string records = readTestFile(db / bt::RECORD_FILE);
  ASSERT_GE(index.size(), 24u);
  uint64_t order = 0;
  for (int i = 7; i >= 0; --i) order = (order << 8) | static_cast<unsigned char>(index[16 + i]);
  EXPECT_EQ(255u, order);
  // One node of order 255 with 8-byte keys after the 24-byte header.
  EXPECT_EQ(24u + 4088u, index.size());
  // On disk the entry is the 48-byte record followed by its 8-byte key.
  std::string entry;
  for (uint64_t v : {0x0102030405060708ull, 0x1112131415161718ull, 0x2122232425262728ull,
                     0x3132333435363738ull, 0x4142434445464748ull, 0x5152535455565758ull,
                     0x6162636465666768ull}) {
    for (int i = 0; i < 8; ++i) entry.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
  }
  EXPECT_EQ(records.size(), 16u + entry.size());
  EXPECT_EQ(16u, records.find(entry));
  ::unsetenv("KESTRO_DB");
}

TEST(FileTrackerReview, PendingWorksBeforeInit) {
  FileTracker t;
  t.addUpdatePending(CRC_t(3), 30, CRC_t(1), CRC_t(2), "/p", 9);
  FishRecord got;
  ASSERT_TRUE(t.retrieve(CRC_t(3), got, Pathname()));
  EXPECT_EQ(30, got._seekPtr);
  EXPECT_EQ(9, got._modTime);
}

TEST(FileTrackerReview, ReadersAndCommittersOnManyThreadsAgree) {
  TestTempDir dir;
  FileTracker t;
  ASSERT_TRUE(t.init(dir.path()));
  constexpr int kThreads = 4, kKeys = 50;
  std::vector<std::thread> threads;
  std::vector<int> mismatches(kThreads, 0);
  for (int th = 0; th < kThreads; ++th) {
    threads.emplace_back([&, th] {
      for (int k = 0; k < kKeys; ++k) {
        const CRC_t key(static_cast<uint64_t>(th) << 32 | static_cast<uint64_t>(k + 1));
        for (int64_t pos = 100; pos <= 300; pos += 100) {
          t.addUpdatePending(key, pos, CRC_t(1), CRC_t(2), "/m", 0);
          FishRecord seen;
          // The reader always sees at least what it reached.
          if (!t.retrieve(key, seen, Pathname()) || seen._seekPtr != pos) ++mismatches[th];
          t.addUpdate(key, FishRecord(1, 0, CRC_t(1), CRC_t(2), pos, 0));
        }
      }
    });
  }
  for (std::thread& th : threads) th.join();
  for (int th = 0; th < kThreads; ++th) EXPECT_EQ(0, mismatches[th]) << th;
  EXPECT_EQ(0u, t.pendingCount());
  for (int th = 0; th < kThreads; ++th) {
    for (int k = 0; k < kKeys; ++k) {
      FishRecord got;
      const CRC_t key(static_cast<uint64_t>(th) << 32 | static_cast<uint64_t>(k + 1));
      ASSERT_TRUE(t.retrieve(key, got, Pathname()));
      EXPECT_EQ(300, got._seekPtr);
    }
  }
}

TEST(FileTrackerReview, InstanceIsOneTracker) {
  EXPECT_EQ(&FileTracker::instance(), &FileTracker::instance());
}

TEST(FileTrackerReview, BucketIsCheckpointedHourlyDuringCommits) {
  ScopedFixedClock clock(Timeval(1700000000, 0));
  TestTempDir dir;
  FileTracker t;
  ASSERT_TRUE(t.init(dir.path()));
  const Pathname snap = dir / "snapshot" / "snap.dat";
  const struct { int64_t at; bool newCheckpoint; } kSteps[] = {
      {1700000000, true},  // the first commit always checkpoints
      {1700001800, false},
      {1700003600, false},  // exactly an hour is not past it
      {1700003601, true},
      {1700005000, false},
  };
  std::string last;
  int64_t sptr = 0;
  for (const auto& s : kSteps) {
    SCOPED_TRACE(s.at);
    clock.set(Timeval(s.at, 0));
    t.addUpdate(CRC_t(0x5), FishRecord(s.at, 0, CRC_t(1), CRC_t(2), ++sptr, 0));
    const std::string now = readTestFile(snap);
    ASSERT_FALSE(now.empty());
    EXPECT_EQ(s.newCheckpoint, now != last) << now;
    if (s.newCheckpoint) {
      EXPECT_NE(std::string::npos, now.find(std::to_string(s.at))) << now;
    }
    last = now;
  }
}

TEST(FileTrackerReview, FailedCommitKeepsThePendingPosition) {
  TestTempDir dir;
  FileTracker t;
  ASSERT_TRUE(t.init(dir.path()));
  t.addUpdatePending(CRC_t(0x31), 100, CRC_t(1), CRC_t(2), "/f", 0);
  {
    ScopedFullDisk full;
    EXPECT_THROW(t.addUpdate(CRC_t(0x31), FishRecord(1, 0, CRC_t(1), CRC_t(2), 100, 0)),
                 bt::BTree::Exception);
  }
  EXPECT_EQ(1u, t.pendingCount());
  FishRecord got;
  ASSERT_TRUE(t.retrieve(CRC_t(0x31), got, Pathname()));
  EXPECT_EQ(100, got._seekPtr);
}

TEST(FileTrackerReview, DamagedIndexStillOpens) {
  TestTempDir dir;
  {
    FileTracker t;
    ASSERT_TRUE(t.init(dir.path()));
    for (uint64_t k = 1; k <= 20; ++k) {
      t.addUpdate(CRC_t(k), FishRecord(1, 0, CRC_t(1), CRC_t(2), static_cast<int64_t>(k), 0));
    }
  }
  writeTestFile(dir / bt::INDEX_FILE, "garbage, not an index");
  FileTracker t;
  ASSERT_TRUE(t.init(dir.path()));
  // Recovered or empty; either way every answer is a stored position or none.
  for (uint64_t k = 1; k <= 20; ++k) {
    FishRecord got;
    if (t.retrieve(CRC_t(k), got, Pathname())) {
      EXPECT_EQ(static_cast<int64_t>(k), got._seekPtr);
    }
  }
  t.addUpdate(CRC_t(99), FishRecord(1, 0, CRC_t(1), CRC_t(2), 99, 0));
  FishRecord got;
  ASSERT_TRUE(t.retrieve(CRC_t(99), got, Pathname()));
  EXPECT_EQ(99, got._seekPtr);
}
