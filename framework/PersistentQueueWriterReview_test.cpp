// The queue file as another process sees it: header bytes after each
// commit, records that wrap at the end of the area, damaged and foreign
// headers, restore after a restart, and the writer's limits.
#include "framework/PersistentQueueWriter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "framework/PipelineData.h"
#include "framework/PipelineInputChannel.h"
#include "framework/testing/QueueTestEvents.h"
#include "util/OutputStream.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"

namespace {

CowPipelineData makeEvent(const std::string& raw, const char* source = nullptr) {
  return makeQueueEvent(raw, source);
}

std::string serialized(const CowPipelineData& ev) {
  NativeByteOrderOutputStream out(1000, 10);
  ev->serialize(out);
  return std::string(reinterpret_cast<const char*>(out.data()), out.size());
}

std::string u64Bytes(uint64_t v) { return std::string(reinterpret_cast<const char*>(&v), 8); }

// A record as the file holds it: its length, then the serialised event.
std::string recordOf(const CowPipelineData& ev) {
  const std::string body = serialized(ev);
  return u64Bytes(body.size()) + body;
}

PersistentQueueFileHeader headerOf(const std::string& file) {
  PersistentQueueFileHeader h{};
  if (file.size() >= sizeof h) std::memcpy(&h, file.data(), sizeof h);
  return h;
}

// The block that `_which` names.
PersistentQueueHeaderBlock validBlock(const std::string& file) {
  const PersistentQueueFileHeader h = headerOf(file);
  return std::string(h._which, 3) == std::string("h2", 3) ? h.h2 : h.h1;
}

std::string headerBytes(const char* ver, const PersistentQueueHeaderBlock& h1,
                        const PersistentQueueHeaderBlock& h2, const char* which) {
  PersistentQueueFileHeader h{};
  std::memcpy(h._ver, ver, std::min<size_t>(strlen(ver) + 1, 4));
  h.h1 = h1;
  h.h2 = h2;
  std::memcpy(h._which, which, std::min<size_t>(strlen(which) + 1, 3));
  return std::string(reinterpret_cast<const char*>(&h), sizeof h);
}

// Places `bytes` at `offset` of a circular area that ends at `end` and
// starts again at 96, as the writer does.
void placeCircular(std::string* file, uint64_t end, uint64_t offset, const std::string& bytes) {
  if (file->size() < end) file->resize(end, '\0');
  for (char c : bytes) {
    if (offset == end) offset = PQ_HEADER_SIZE;
    (*file)[offset++] = c;
  }
}

void expectBlock(const PersistentQueueHeaderBlock& b, uint64_t read, uint64_t write,
                 uint64_t fileSize, uint64_t dataSize, uint64_t count) {
  EXPECT_EQ(read, b.readOffset);
  EXPECT_EQ(write, b.writeOffset);
  EXPECT_EQ(fileSize, b.fileSize);
  EXPECT_EQ(dataSize, b.dataSize);
  EXPECT_EQ(count, b.count);
}

TEST(PersistentQueueWriterReview, NewFileIsOneHeaderWithBlockH1Valid) {
  TestTempDir dir;
  const Pathname path = dir / "a/b/c/queue";
  {
    PersistentQueueWriter w(0, 1000, path);
    EXPECT_TRUE(w.isFileUsable());
  }
  const std::string file = readTestFile(path);
  ASSERT_EQ(96u, file.size());
  EXPECT_EQ(std::string("v1\0\0\0\0\0\0", 8), file.substr(0, 8));
  const PersistentQueueFileHeader h = headerOf(file);
  expectBlock(h.h1, 96, 96, 1096, 96, 0);
  // Only block h1 is filled in; the rest of the header is zero.
  expectBlock(h.h2, 0, 0, 0, 0, 0);
  EXPECT_EQ(std::string("h1\0\0\0\0\0\0", 8), file.substr(88, 8));
}

TEST(PersistentQueueWriterReview, EachCommitWritesTheOtherBlockAndFlipsWhich) {
  TestTempDir dir;
  const Pathname path = dir / "q";
  PersistentQueueWriter w(0, 1000, path);
  CowPipelineData e1 = makeEvent("first event");
  CowPipelineData e2 = makeEvent("the second one");
  const std::string r1 = recordOf(e1), r2 = recordOf(e2);
  const PersistentQueueHeaderBlock empty = {96, 96, 1096, 96, 0};

  ASSERT_TRUE(w.insertAndClear(e1));
  EXPECT_TRUE(e1.isUnset());
  std::string file = readTestFile(path);
  PersistentQueueFileHeader h = headerOf(file);
  EXPECT_EQ(std::string("h2", 3), std::string(h._which, 3));
  expectBlock(h.h1, empty.readOffset, empty.writeOffset, empty.fileSize, empty.dataSize, 0);
  expectBlock(h.h2, 96, 96 + r1.size(), 1096, 96 + r1.size(), 1);
  EXPECT_EQ(r1, file.substr(96, r1.size()));

  ASSERT_TRUE(w.insertAndClear(e2));
  file = readTestFile(path);
  h = headerOf(file);
  EXPECT_EQ(std::string("h1", 3), std::string(h._which, 3));
  expectBlock(h.h1, 96, 96 + r1.size() + r2.size(), 1096, 96 + r1.size() + r2.size(), 2);
  EXPECT_EQ(r1 + r2, file.substr(96, r1.size() + r2.size()));

  CowPipelineData out;
  ASSERT_TRUE(w.remove(out));
  EXPECT_EQ("first event", rawOf(out));
  h = headerOf(readTestFile(path));
  EXPECT_EQ(std::string("h2", 3), std::string(h._which, 3));
  expectBlock(h.h2, 96 + r1.size(), 96 + r1.size() + r2.size(), 1096, 96 + r2.size(), 1);

  // The last removal truncates to the header, and the commit after it
  // leaves block h1 valid.
  ASSERT_TRUE(w.remove(out));
  EXPECT_EQ("the second one", rawOf(out));
  file = readTestFile(path);
  ASSERT_EQ(96u, file.size());
  h = headerOf(file);
  EXPECT_EQ(std::string("h1", 3), std::string(h._which, 3));
  expectBlock(h.h1, 96, 96, 1096, 96, 0);
  EXPECT_FALSE(w.remove(out));
}

// A record placed so that its length field or its body crosses the end of
// the area reads back whole, from a file this process did not write.
TEST(PersistentQueueWriterReview, ReadsRecordsThatWrapAtEveryPoint) {
  CowPipelineData model = makeEvent("wrapped record");
  const std::string rec = recordOf(model);
  const uint64_t maxSize = 100;
  const uint64_t end = 96 + maxSize;
  ASSERT_LT(rec.size(), maxSize);
  for (uint64_t back : {1, 2, 5, 7, 8, 9, 12, 20, 40}) {
    SCOPED_TRACE(back);
    TestTempDir dir;
    const Pathname path = dir / "q";
    const uint64_t start = end - back;
    const uint64_t writeOff =
        back >= rec.size() ? start + rec.size() : 96 + (rec.size() - back);
    const PersistentQueueHeaderBlock h1 = {start, writeOff, end, 96 + rec.size(), 1};
    std::string file = headerBytes("v1", h1, PersistentQueueHeaderBlock{}, "h1");
    placeCircular(&file, end, start, rec);
    writeTestFile(path, file);

    PersistentQueueWriter w(100000, maxSize, path);
    EXPECT_EQ(1u, w.restoredCount());
    EXPECT_EQ(1u, w.getNumberOfElements());
    CowPipelineData out;
    ASSERT_TRUE(w.remove(out));
    EXPECT_EQ("wrapped record", rawOf(out));
    EXPECT_EQ(96u, readTestFile(path).size());
  }
}

// A record written when the write offset is near the end continues at 96,
// in the middle of the length field if need be, and reads back whole.
TEST(PersistentQueueWriterReview, WritesRecordsThatWrapAtEveryPoint) {
  CowPipelineData first = makeEvent("already there");
  CowPipelineData model = makeEvent("wrapping on write");
  const std::string recA = recordOf(first);
  const std::string rec = recordOf(model);
  const uint64_t maxSize = 200;
  const uint64_t end = 96 + maxSize;
  for (uint64_t back : {1, 3, 7, 8, 9, 10, 30}) {
    SCOPED_TRACE(back);
    TestTempDir dir;
    const Pathname path = dir / "q";
    const uint64_t start = end - back;
    const uint64_t readOff = start - recA.size();
    const PersistentQueueHeaderBlock h1 = {readOff, start, end, 96 + recA.size(), 1};
    std::string file = headerBytes("v1", h1, PersistentQueueHeaderBlock{}, "h1");
    placeCircular(&file, end, readOff, recA);
    writeTestFile(path, file);

    PersistentQueueWriter w(0, maxSize, path);
    CowPipelineData ev = makeEvent("wrapping on write");
    ASSERT_TRUE(w.insertAndClear(ev));
    const uint64_t writeOff =
        back >= rec.size() ? start + rec.size() : 96 + (rec.size() - back);
    std::string expected = file;
    placeCircular(&expected, end, start, rec);
    const std::string actual = readTestFile(path);
    ASSERT_EQ(end, actual.size());
    EXPECT_EQ(expected.substr(96), actual.substr(96));
    const PersistentQueueFileHeader h = headerOf(actual);
    EXPECT_EQ(std::string("h2", 3), std::string(h._which, 3));
    expectBlock(h.h2, readOff, writeOff, end, 96 + recA.size() + rec.size(), 2);

    CowPipelineData out;
    ASSERT_TRUE(w.remove(out));
    EXPECT_EQ("already there", rawOf(out));
    ASSERT_TRUE(w.remove(out));
    EXPECT_EQ("wrapping on write", rawOf(out));
  }
}

TEST(PersistentQueueWriterReview, WhichH2SelectsBlockH2) {
  CowPipelineData model = makeEvent("in block two");
  const std::string rec = recordOf(model);
  TestTempDir dir;
  const Pathname path = dir / "q";
  // Block h1 is stale: it still calls the file empty.
  const PersistentQueueHeaderBlock h1 = {96, 96, 1096, 96, 0};
  const PersistentQueueHeaderBlock h2 = {96, 96 + rec.size(), 1096, 96 + rec.size(), 1};
  writeTestFile(path, headerBytes("v1", h1, h2, "h2") + rec);
  PersistentQueueWriter w(100000, 1000, path);
  EXPECT_EQ(1u, w.restoredCount());
  CowPipelineData out;
  ASSERT_TRUE(w.remove(out));
  EXPECT_EQ("in block two", rawOf(out));
}

TEST(PersistentQueueWriterReview, ForeignVersionLeavesTheFileAloneAndRunsInMemory) {
  for (const char* ver : {"v2", "v0", "x1", "", "v10", "V1"}) {
    SCOPED_TRACE(ver);
    TestTempDir dir;
    const Pathname path = dir / "q";
    const PersistentQueueHeaderBlock h1 = {96, 120, 1096, 120, 1};
    const std::string original = headerBytes(ver, h1, h1, "h1") + std::string(24, 'r');
    writeTestFile(path, original);
    ScopedLogCapture log("PersistentQueueWriter");
    {
      PersistentQueueWriter w(600, 1000, path);
      EXPECT_FALSE(w.isFileUsable());
      EXPECT_EQ(0u, w.getNumberOfElements());
      const std::string expected = std::string("ERROR Version=") + ver + " of persistent file=" +
                                   std::string(path) +
                                   " not recognizable. Will skip restoring queue from file.";
      EXPECT_NE(std::string::npos, log.text().find(expected)) << log.text();
      // Memory only: 600 bytes hold one event of 300 and refuse the next
      // that would pass the maximum.
      CowPipelineData a = makeEvent(std::string(100, 'a'));
      CowPipelineData b = makeEvent(std::string(100, 'b'));
      CowPipelineData c = makeEvent(std::string(100, 'c'));
      EXPECT_TRUE(w.insertAndClear(a));
      EXPECT_FALSE(w.insertAndClear(b)) << "300 + 300 is not below 600";
      EXPECT_FALSE(b.isUnset());
      CowPipelineData out;
      ASSERT_TRUE(w.remove(out));
      EXPECT_EQ(std::string(100, 'a'), rawOf(out));
      EXPECT_TRUE(w.insertAndClear(c));
      w.shutdown();
    }
    EXPECT_EQ(original, readTestFile(path));
  }
}

TEST(PersistentQueueWriterReview, RestartRestoresRecordsInOrderOnAPrivateChannelSet) {
  TestTempDir dir;
  const Pathname path = dir / "q";
  const std::vector<std::string> raws = {"one", "two two", "three three three"};
  {
    PersistentQueueWriter w(0, 10000, path);
    for (const auto& r : raws) {
      CowPipelineData ev = makeEvent(r, "source::/var/log/review");
      ASSERT_TRUE(w.insertAndClear(ev));
    }
    w.shutdown();
  }
  PersistentQueueWriter w(0, 10000, path);
  EXPECT_EQ(3u, w.restoredCount());
  EXPECT_EQ(3u, w.getNumberOfElements());
  EXPECT_TRUE(w.hasData());
  // An event of this run after the restored ones.
  CowPipelineData fresh = makeEvent("fresh", "source::/var/log/review");
  ASSERT_TRUE(w.insertAndClear(fresh));
  PipelineInputChannelSet* restoredSet = nullptr;
  for (const auto& r : raws) {
    CowPipelineData out;
    ASSERT_TRUE(w.remove(out));
    EXPECT_EQ(r, rawOf(out));
    EXPECT_NE(&global_channel_set, out->chanset()) << r;
    if (restoredSet == nullptr) restoredSet = out->chanset();
    EXPECT_EQ(restoredSet, out->chanset()) << r;
  }
  EXPECT_EQ(0u, w.restoredCount());
  CowPipelineData out;
  ASSERT_TRUE(w.remove(out));
  EXPECT_EQ("fresh", rawOf(out));
  EXPECT_EQ(&global_channel_set, out->chanset());
  EXPECT_FALSE(w.remove(out));
}

// Shutdown puts what memory holds into the empty file, past the file's
// limit if need be, and a restart finds it in order.
TEST(PersistentQueueWriterReview, ShutdownPersistsMemoryEvenPastTheFileLimit) {
  for (uint64_t fileMax : {10000u, 10u}) {
    SCOPED_TRACE(fileMax);
    TestTempDir dir;
    const Pathname path = dir / "q";
    const std::vector<std::string> raws = {std::string(50, 'x'), std::string(60, 'y'),
                                           std::string(70, 'z')};
    {
      PersistentQueueWriter w(100000, fileMax, path);
      for (const auto& r : raws) {
        CowPipelineData ev = makeEvent(r);
        ASSERT_TRUE(w.insertAndClear(ev));
      }
      EXPECT_EQ(3u, w.getNumberOfElements());
      EXPECT_EQ(0u, w.header().count) << "all in memory";
      w.shutdown();
    }
    PersistentQueueWriter w(100000, fileMax, path);
    EXPECT_EQ(3u, w.restoredCount());
    for (const auto& r : raws) {
      CowPipelineData out;
      ASSERT_TRUE(w.remove(out));
      EXPECT_EQ(r, rawOf(out));
    }
    CowPipelineData out;
    EXPECT_FALSE(w.remove(out));
  }
}

TEST(PersistentQueueWriterReview, OverflowSpillsMemoryFirstAndKeepsOrder) {
  TestTempDir dir;
  const Pathname path = dir / "q";
  // Each event costs 100 + 200: three fit below 1000, the fourth spills.
  PersistentQueueWriter w(1000, 100000, path);
  for (char c : std::string("abc")) {
    CowPipelineData ev = makeEvent(std::string(100, c));
    ASSERT_TRUE(w.insertAndClear(ev));
  }
  EXPECT_EQ(900u, w.usedMemory());
  EXPECT_EQ(0u, w.header().count);
  CowPipelineData d = makeEvent(std::string(100, 'd'));
  ASSERT_TRUE(w.insertAndClear(d));
  EXPECT_EQ(0u, w.usedMemory());
  EXPECT_EQ(4u, w.header().count);
  EXPECT_EQ(4u, w.getNumberOfElements());
  EXPECT_EQ(4u, validBlock(readTestFile(path)).count);
  CowPipelineData out;
  ASSERT_TRUE(w.remove(out));
  EXPECT_EQ(std::string(100, 'a'), rawOf(out));
  // The file still has records, so a new event goes behind them although
  // memory is empty.
  CowPipelineData e = makeEvent(std::string(10, 'e'));
  ASSERT_TRUE(w.insertAndClear(e));
  EXPECT_EQ(0u, w.usedMemory());
  EXPECT_EQ(4u, w.header().count);
  for (const std::string& want : {std::string(100, 'b'), std::string(100, 'c'),
                                 std::string(100, 'd'), std::string(10, 'e')}) {
    ASSERT_TRUE(w.remove(out));
    EXPECT_EQ(want, rawOf(out));
  }
  EXPECT_FALSE(w.hasData());
}

TEST(PersistentQueueWriterReview, SpillIntoATooSmallFileWarnsAndWritesPastTheLimit) {
  TestTempDir dir;
  const Pathname path = dir / "q";
  PersistentQueueWriter w(1000, 150, path);
  for (char c : std::string("abc")) {
    CowPipelineData ev = makeEvent(std::string(100, c));
    ASSERT_TRUE(w.insertAndClear(ev));
  }
  ScopedLogCapture log("PersistentQueueWriter");
  CowPipelineData d = makeEvent(std::string(100, 'd'));
  w.insertAndClear(d);
  const std::string text = log.text();
  EXPECT_NE(std::string::npos, text.find("WARN Persistent file size=")) << text;
  EXPECT_NE(std::string::npos,
            text.find(" is too small. Cannot fit contents of queue in memory to persistent file. "
                      "Please specify a larger persistent file. Will write to file beyond "
                      "specified limit."))
      << text;
  // The earlier events all made it to the file, in order.
  EXPECT_GE(w.header().count, 3u);
  CowPipelineData out;
  for (char c : std::string("abc")) {
    ASSERT_TRUE(w.remove(out));
    EXPECT_EQ(std::string(100, c), rawOf(out));
  }
}

// An insert to the file is refused once data size plus the record plus 16
// would reach the file size, and the refused event stays with the caller.
TEST(PersistentQueueWriterReview, FileLimitIsDataPlusRecordPlusSixteen) {
  CowPipelineData model = makeEvent("limit");
  const uint64_t n = serialized(model).size();
  const struct { uint64_t maxSize; bool accepted; } kCases[] = {
      {n + 15, false},
      {n + 16, false},  // needed equals the file size: not below it
      {n + 17, true},
      {n + 100, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.maxSize);
    TestTempDir dir;
    PersistentQueueWriter w(0, c.maxSize, dir / "q");
    CowPipelineData ev = makeEvent("limit");
    EXPECT_EQ(c.accepted, w.insertAndClear(ev));
    EXPECT_EQ(c.accepted, ev.isUnset());
    EXPECT_EQ(c.accepted ? 1u : 0u, w.getNumberOfElements());
  }
}

TEST(PersistentQueueWriterReview, SizesInKilobytesAndCounts) {
  TestTempDir dir;
  PersistentQueueWriter w(100000, 100000, dir / "q");
  EXPECT_EQ(0u, w.getSizeInKB());
  for (int i = 0; i < 6; ++i) {
    CowPipelineData ev = makeEvent("m");
    ASSERT_TRUE(w.insertAndClear(ev));
  }
  // Memory counts 200 per event: 1200 >> 10.
  EXPECT_EQ(1u, w.getSizeInKB());
  EXPECT_EQ(6u, w.getSize());
  EXPECT_FALSE(w.isFull());
  EXPECT_TRUE(w.isHalfEmpty());

  TestTempDir dir2;
  PersistentQueueWriter f(0, 100000, dir2 / "q");
  for (int i = 0; i < 20; ++i) {
    CowPipelineData ev = makeEvent(std::string(200, 'f'));
    ASSERT_TRUE(f.insertAndClear(ev));
  }
  EXPECT_EQ(f.header().dataSize >> 10, f.getSizeInKB());
  EXPECT_EQ(20u, f.getSize());
  EXPECT_TRUE(f.isHalfEmpty()) << "the file has records";
  EXPECT_FALSE(f.isFull());
}

TEST(PersistentQueueWriterReview, LoweredMaximumTakesEffectOnAnEmptyFileOnly) {
  TestTempDir dir;
  const Pathname path = dir / "q";
  { PersistentQueueWriter w(0, 5000, path); }
  {
    ScopedLogCapture log("PersistentQueueWriter");
    PersistentQueueWriter w(0, 1000, path);
    EXPECT_EQ(1096u, w.header().fileSize);
    EXPECT_NE(std::string::npos,
              log.text().find("File size changed from 5096 to 1096, sizeof(_header_in_file)=96"))
        << log.text();
  }
  {
    PersistentQueueWriter w(0, 1000, path);
    CowPipelineData ev = makeEvent("keeps");
    ASSERT_TRUE(w.insertAndClear(ev));
    w.shutdown();
  }
  PersistentQueueWriter w(0, 500, path);
  EXPECT_EQ(1096u, w.header().fileSize) << "a queue that holds data keeps its size";
  CowPipelineData out;
  ASSERT_TRUE(w.remove(out));
  EXPECT_EQ("keeps", rawOf(out));
  EXPECT_EQ(596u, w.header().fileSize);
}

TEST(PersistentQueueWriterReview, InitInMemoryQueueTakesASmallFileIntoMemory) {
  TestTempDir dir;
  const Pathname path = dir / "q";
  {
    PersistentQueueWriter w(0, 10000, path);
    for (const char* r : {"p", "q", "r"}) {
      CowPipelineData ev = makeEvent(r);
      ASSERT_TRUE(w.insertAndClear(ev));
    }
    w.shutdown();
  }
  PersistentQueueWriter w(100000, 10000, path);
  w.initInMemoryQueue();
  // The file is logically empty now; the events are in memory.
  EXPECT_EQ(0u, validBlock(readTestFile(path)).count);
  EXPECT_EQ(3u, w.getNumberOfElements());
  for (const char* r : {"p", "q", "r"}) {
    CowPipelineData out;
    ASSERT_TRUE(w.remove(out));
    EXPECT_EQ(r, rawOf(out));
  }
}

TEST(PersistentQueueWriterReview, UnusableLocationsDegradeToMemoryWithTheReason) {
  TestTempDir dir;
  writeTestFile(dir / "plain", "not a directory");
  std::filesystem::create_directories(std::string(dir / "adir"));
  const struct { Pathname path; const char* reason; const char* errnoText; } kCases[] = {
      {dir / "plain/sub/q", "Could not create directory=", ""},
      {dir / "adir", "Could not create or open file=", "Is a directory"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.path);
    ScopedLogCapture log("PersistentQueueWriter");
    PersistentQueueWriter w(300, 1000, c.path);
    EXPECT_FALSE(w.isFileUsable());
    const std::string text = log.text();
    EXPECT_NE(std::string::npos,
              text.find("Failed to restore file=" + std::string(c.path) + " failed. " + c.reason))
        << text;
    EXPECT_NE(std::string::npos, text.find(" required for persistent queue. error=")) << text;
    EXPECT_NE(std::string::npos, text.find(c.errnoText)) << text;
    // Memory only: one event, and then refusals.
    CowPipelineData a = makeEvent("a"), b = makeEvent("b");
    EXPECT_TRUE(w.insertAndClear(a));
    EXPECT_FALSE(w.insertAndClear(b));
  }
}

TEST(PersistentQueueWriterReview, OpeningLogsThePathAtDebug) {
  TestTempDir dir;
  ScopedLogCapture log("PersistentQueueWriter");
  PersistentQueueWriter w(0, 1000, dir / "q");
  EXPECT_NE(std::string::npos,
            log.text().find("Opened file " + std::string(dir / "q") + " for storing persistent queue"))
      << log.text();
}

TEST(PersistentQueueWriterReview, ARecordThatDoesNotParseIsLoggedAndRefused) {
  TestTempDir dir;
  const Pathname path = dir / "q";
  const std::string garbage = u64Bytes(10) + std::string(10, '\xff');
  const PersistentQueueHeaderBlock h1 = {96, 96 + garbage.size(), 1096, 96 + garbage.size(), 1};
  writeTestFile(path, headerBytes("v1", h1, h1, "h1") + garbage);
  ScopedLogCapture log("PersistentQueueWriter");
  PersistentQueueWriter w(100000, 1000, path);
  CowPipelineData out;
  EXPECT_FALSE(w.remove(out));
  EXPECT_TRUE(out.isUnset());
  const std::string text = log.text();
  EXPECT_NE(std::string::npos,
            text.find("Failed to remove event from=" + std::string(path) + " failed. " +
                      "Could not read CowPipelineData from the persistent store. size=10"))
      << text;
}

// Damaged files: each names its trouble, leaves the file as it was and
// runs in memory.
TEST(PersistentQueueWriterReview, ShortHeaderDegradesToMemoryAndLeavesTheFile) {
  for (size_t length : {0u, 3u, 50u, 95u}) {
    SCOPED_TRACE(length);
    TestTempDir dir;
    const Pathname path = dir / "q";
    const PersistentQueueHeaderBlock h1 = {96, 96, 1096, 96, 0};
    const std::string original = headerBytes("v1", h1, h1, "h1").substr(0, length);
    writeTestFile(path, original);
    ScopedLogCapture log("PersistentQueueWriter");
    {
      PersistentQueueWriter w(300, 1000, path);
      EXPECT_FALSE(w.isFileUsable());
      EXPECT_NE(std::string::npos,
                log.text().find("Failed to restore file=" + std::string(path) +
                                " failed. Could not read Header for data saved in persistent queue"))
          << log.text();
      CowPipelineData a = makeEvent("a"), b = makeEvent("b");
      EXPECT_TRUE(w.insertAndClear(a));
      EXPECT_FALSE(w.insertAndClear(b));
      w.shutdown();
    }
    EXPECT_EQ(original, readTestFile(path));
  }
}

TEST(PersistentQueueWriterReview, ZeroFileSizeKeepsEverythingInMemory) {
  TestTempDir dir;
  const Pathname path = dir / "q";
  PersistentQueueWriter w(700, 0, path);
  CowPipelineData a = makeEvent(std::string(100, 'a'));
  CowPipelineData b = makeEvent(std::string(100, 'b'));
  CowPipelineData c = makeEvent(std::string(100, 'c'));
  EXPECT_TRUE(w.insertAndClear(a));
  EXPECT_TRUE(w.insertAndClear(b));
  EXPECT_FALSE(w.insertAndClear(c)) << "900 is not below 700 and there is no file";
  EXPECT_FALSE(c.isUnset());
  EXPECT_EQ(0u, w.header().count);
  EXPECT_EQ(2u, w.getNumberOfElements());
  EXPECT_FALSE(path.exists()) << "no file is made";
  CowPipelineData out;
  ASSERT_TRUE(w.remove(out));
  EXPECT_EQ(std::string(100, 'a'), rawOf(out));
  ASSERT_TRUE(w.remove(out));
  EXPECT_EQ(std::string(100, 'b'), rawOf(out));
}

TEST(PersistentQueueWriterReview, InitInMemoryQueueLeavesALargeFileInCharge) {
  TestTempDir dir;
  const Pathname path = dir / "q";
  std::string before;
  {
    PersistentQueueWriter w(0, 100000, path);
    for (char c : std::string("abcdef")) {
      CowPipelineData ev = makeEvent(std::string(100, c));
      ASSERT_TRUE(w.insertAndClear(ev));
    }
    w.shutdown();
    before = readTestFile(path);
  }
  PersistentQueueWriter w(500, 100000, path);
  w.initInMemoryQueue();
  EXPECT_EQ(before, readTestFile(path)) << "the file still holds every record";
  EXPECT_EQ(6u, w.header().count);
  EXPECT_EQ(6u, w.getNumberOfElements());
  for (char c : std::string("abcdef")) {
    CowPipelineData out;
    ASSERT_TRUE(w.remove(out));
    EXPECT_EQ(std::string(100, c), rawOf(out));
  }
}

// The first commit after reopening an empty file writes the block that is
// not valid on disk, so that a crash during it leaves the old block in
// force.
TEST(PersistentQueueWriterReview, FirstCommitAfterReopeningWritesTheInvalidBlock) {
  TestTempDir dir;
  const Pathname path = dir / "q";
  { PersistentQueueWriter w(0, 1000, path); }
  const std::string before = readTestFile(path);
  ASSERT_EQ(std::string("h1", 3), before.substr(88, 3));
  PersistentQueueWriter w(0, 1000, path);
  CowPipelineData ev = makeEvent("after reopen");
  const std::string rec = recordOf(ev);
  ASSERT_TRUE(w.insertAndClear(ev));
  const std::string after = readTestFile(path);
  EXPECT_EQ(before.substr(8, 40), after.substr(8, 40)) << "block h1 was valid: left alone";
  EXPECT_EQ(std::string("h2", 3), after.substr(88, 3));
  expectBlock(headerOf(after).h2, 96, 96 + rec.size(), 1096, 96 + rec.size(), 1);
}


TEST(PersistentQueueWriterReview, ImpossibleRecordLengthsReadAsIncomplete) {
  const struct { std::string area; uint64_t fileEnd; } kCases[] = {
      {u64Bytes(5000) + std::string(20, 'z'), 1096},
      // A length longer than the whole area would wrap and still come up
      // short.
      {u64Bytes(1000) + std::string(92, 'z'), 196},
  };
  for (const auto& c : kCases) {
    TestTempDir dir;
    const Pathname path = dir / "q";
    const PersistentQueueHeaderBlock h1 = {96, 96 + 8 + 20, c.fileEnd, 96 + 8 + 20, 1};
    writeTestFile(path, headerBytes("v1", h1, h1, "h1") + c.area);
    ScopedLogCapture log("PersistentQueueWriter");
    PersistentQueueWriter w(100000, c.fileEnd - 96, path);
    CowPipelineData out;
    EXPECT_FALSE(w.remove(out));
    EXPECT_NE(std::string::npos, log.text().find("Failed to remove event from=" + std::string(path) +
                                                 " failed. Could not read complete data for CowPipelineData."))
        << log.text();
  }
}


TEST(PersistentQueueWriterReview, ZeroMaximumStillRestoresAnEarlierRunsRecords) {
  TestTempDir dir;
  const Pathname path = dir / "q";
  {
    PersistentQueueWriter w(0, 1000, path);
    for (const char* r : {"kept1", "kept2"}) {
      CowPipelineData ev = makeEvent(r);
      ASSERT_TRUE(w.insertAndClear(ev));
    }
    w.shutdown();
  }
  PersistentQueueWriter w(600, 0, path);
  EXPECT_EQ(2u, w.restoredCount());
  for (const char* r : {"kept1", "kept2"}) {
    CowPipelineData out;
    ASSERT_TRUE(w.remove(out));
    EXPECT_EQ(r, rawOf(out));
  }
  // Emptied, the writer keeps to memory: one event of 300, then refusals.
  CowPipelineData a = makeEvent(std::string(100, 'a')), b = makeEvent(std::string(100, 'b'));
  EXPECT_TRUE(w.insertAndClear(a));
  EXPECT_FALSE(w.insertAndClear(b));
  EXPECT_EQ(0u, w.header().count);
}


}  // namespace
