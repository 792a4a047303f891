#include "framework/PersistentQueueWriter.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstring>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "framework/testing/QueueTestEvents.h"
#include "util/OutputStream.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"

namespace {

// The raw text of event `i`: sizes vary so that records land at every
// offset of the area.
std::string payload(int i) { return "event-" + std::to_string(i) + std::string(i % 37, 'x'); }

// Everything the writer gives back, in order; a refused removal (a
// dropped record) is skipped.
std::vector<std::string> drain(PersistentQueueWriter& w) {
  std::vector<std::string> out;
  CowPipelineData event;
  for (int guard = 0; w.hasData() && guard < 100000; guard++) {
    if (w.remove(event)) out.push_back(rawOf(event));
  }
  return out;
}

// The file bytes of a record as the format defines them, built here from
// the event's serialised form, independently of the writer.
std::string recordBytes(const std::string& raw) {
  NativeByteOrderOutputStream out(256, 3);
  makeQueueEvent(raw)->serialize(out);
  const uint64_t length = out.size();
  std::string r(reinterpret_cast<const char*>(&length), 8);
  r.append(reinterpret_cast<const char*>(out.data()), length);
  return r;
}

void put64(std::string& image, size_t offset, uint64_t v) {
  image.replace(offset, 8, reinterpret_cast<const char*>(&v), 8);
}

// A queue file holding `records` from offset 96, its valid block at
// `blockOffset` (8 or 48), the other block filled with nonsense.
std::string fileImage(const std::string& records, size_t count, size_t blockOffset,
                      const std::string& which, uint64_t maxFileSize, const char* ver = "v1") {
  std::string image(96, '\0');
  image.replace(0, std::strlen(ver), ver);
  const size_t other = blockOffset == 8 ? 48 : 8;
  const uint64_t end = 96 + records.size();
  const uint64_t block[5] = {96, end, 96 + maxFileSize, end, count};
  for (int i = 0; i < 5; i++) put64(image, blockOffset + 8 * i, block[i]);
  for (int i = 0; i < 5; i++) put64(image, other + 8 * i, 0xdeadbeef00 + i);
  image.replace(88, which.size(), which);
  return image + records;
}

TEST(PersistentQueueWriter, EventsComeBackInOrderThroughMemoryFileAndRestart) {
  const struct {
    uint64_t memory, file;
    int events, removedBeforeRestart;
  } kCases[] = {
      {0, 16384, 40, 0},         // nothing in memory: every event to the file
      {2000, 16384, 40, 5},      // memory first, then the file
      {100000, 4096, 30, 0},     // all in memory: the shutdown writes them out
      {2000, 1 << 20, 300, 150},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.memory << "/" << c.file << "/" << c.events);
    TestTempDir dir;
    const Pathname path = dir / "q" / "w";  // the directory is made too
    std::vector<std::string> got;
    {
      PersistentQueueWriter w(c.memory, c.file, path);
      ASSERT_TRUE(w.isFileUsable());
      for (int i = 0; i < c.events; i++) {
        CowPipelineData e = makeQueueEvent(payload(i), i % 3 == 0 ? "source::/var/log/a" : nullptr);
        ASSERT_TRUE(w.insertAndClear(e)) << i;
        EXPECT_TRUE(e.isUnset());
      }
      EXPECT_EQ(uint64_t(c.events), w.getNumberOfElements());
      CowPipelineData e;
      for (int i = 0; i < c.removedBeforeRestart; i++) {
        ASSERT_TRUE(w.remove(e));
        got.push_back(rawOf(e));
      }
      w.shutdown();
    }
    PersistentQueueWriter again(c.memory, c.file, path);
    EXPECT_EQ(uint64_t(c.events - c.removedBeforeRestart), again.restoredCount());
    for (const std::string& s : drain(again)) got.push_back(s);
    ASSERT_EQ(size_t(c.events), got.size());
    for (int i = 0; i < c.events; i++) EXPECT_EQ(payload(i), got[i]);
  }
}

// Restored events may name channels this process never saw; they come
// back in a set of their own, and the first event of the new run is on
// the global set again.
TEST(PersistentQueueWriter, RestoredEventsUseAPrivateChannelSet) {
  TestTempDir dir;
  const Pathname path = dir / "w";
  {
    PersistentQueueWriter w(0, 8192, path);
    for (int i = 0; i < 3; i++) {
      CowPipelineData e = makeQueueEvent(payload(i), "source::/var/log/restored");
      ASSERT_TRUE(w.insertAndClear(e));
    }
    w.shutdown();
  }
  PersistentQueueWriter w(0, 8192, path);
  CowPipelineData fresh = makeQueueEvent("new", "source::/var/log/restored");
  ASSERT_TRUE(w.insertAndClear(fresh));
  CowPipelineData e;
  for (int i = 0; i < 3; i++) {
    ASSERT_TRUE(w.remove(e));
    EXPECT_EQ(payload(i), rawOf(e));
    EXPECT_NE(&global_channel_set, e->chanset()) << i;
    StrSegment source;
    ASSERT_TRUE(e->get_chan_piece(PipelineData::__inmap_source, &source));
    EXPECT_EQ("source::/var/log/restored", Str(source));
  }
  ASSERT_TRUE(w.remove(e));
  EXPECT_EQ("new", rawOf(e));
  EXPECT_EQ(&global_channel_set, e->chanset());
}

// Records wrap at the end of the area, their length fields too: every
// split of the 8-byte length over the end is met, and a restart mid-way
// reads the wrapped area back.
TEST(PersistentQueueWriter, RecordsAndLengthFieldsWrapAcrossTheEnd) {
  TestTempDir dir;
  const Pathname path = dir / "w";
  const uint64_t kFile = 1000;
  std::deque<std::string> model;
  std::set<uint64_t> splits;  // bytes of a length field before the end
  bool restarted = false;
  auto w = std::make_unique<PersistentQueueWriter>(0, kFile, path);
  for (int i = 0; i < 4000 && (splits.size() < 7 || !restarted); i++) {
    const uint64_t room = w->header().fileSize - w->header().writeOffset;
    CowPipelineData e = makeQueueEvent(payload(i));
    if (w->insertAndClear(e)) {
      if (room > 0 && room < 8) splits.insert(room);
      model.push_back(payload(i));
    }
    while (model.size() > 3) {
      CowPipelineData out;
      ASSERT_TRUE(w->remove(out));
      ASSERT_EQ(model.front(), rawOf(out));
      model.pop_front();
    }
    if (!restarted && w->header().readOffset > w->header().writeOffset) {
      w->shutdown();
      w = std::make_unique<PersistentQueueWriter>(0, kFile, path);
      restarted = true;
    }
  }
  EXPECT_TRUE(restarted);
  EXPECT_EQ(7u, splits.size());
  std::vector<std::string> rest = drain(*w);
  EXPECT_EQ(std::vector<std::string>(model.begin(), model.end()), rest);
}

TEST(PersistentQueueWriter, WhichBytesChooseTheBlockAndAnythingElseMeansH1) {
  const std::string records = recordBytes("first") + recordBytes("second");
  const struct {
    std::string which;
    size_t block;
    bool corrupt;
  } kCases[] = {
      {std::string("h1\0", 3), 8, false},
      {std::string("h2\0", 3), 48, false},
      {std::string("zz\0", 3), 8, true},
      {std::string("h3\0", 3), 8, true},
      {std::string("\0\0\0", 3), 8, true},
      {"h2x", 8, true},  // no terminating NUL
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.which);
    TestTempDir dir;
    writeTestFile(dir / "w", fileImage(records, 2, c.block, c.which, 4096));
    ScopedLogCapture log("PersistentQueueWriter");
    PersistentQueueWriter w(0, 4096, dir / "w");
    EXPECT_EQ((std::vector<std::string>{"first", "second"}), drain(w));
    EXPECT_EQ(c.corrupt, log.text().find("DEBUG Possible corruption detected in reading from "
                                         "persistent queue.") != std::string::npos);
  }
}

TEST(PersistentQueueWriter, UnknownVersionLeavesTheFileAloneAndRunsInMemory) {
  TestTempDir dir;
  const std::string image = fileImage(recordBytes("old"), 1, 8, std::string("h1\0", 3), 4096, "v2");
  writeTestFile(dir / "w", image);
  ScopedLogCapture log("PersistentQueueWriter");
  {
    PersistentQueueWriter w(300, 4096, dir / "w");
    EXPECT_FALSE(w.isFileUsable());
    EXPECT_FALSE(w.hasData());
    CowPipelineData a = makeQueueEvent("a"), b = makeQueueEvent("b");
    EXPECT_TRUE(w.insertAndClear(a));
    EXPECT_FALSE(w.insertAndClear(b));  // memory is full, and there is no file
    EXPECT_FALSE(b.isUnset());
    w.shutdown();
  }
  EXPECT_EQ(image, readTestFile(dir / "w"));
  EXPECT_NE(std::string::npos, log.text().find("ERROR Version=v2 of persistent file=" +
                                               std::string(dir / "w") +
                                               " not recognizable. Will skip restoring queue "
                                               "from file."));
}

TEST(PersistentQueueWriter, RemovingTheLastRecordTruncatesTheFileTo96Bytes) {
  TestTempDir dir;
  const Pathname path = dir / "w";
  PersistentQueueWriter w(1000, 4096, path);
  for (int i = 0; i < 8; i++) {
    CowPipelineData e = makeQueueEvent(payload(i));
    ASSERT_TRUE(w.insertAndClear(e));
  }
  EXPECT_GT(readTestFile(path).size(), 96u);
  EXPECT_EQ(8u, drain(w).size());
  const std::string bytes = readTestFile(path);
  ASSERT_EQ(96u, bytes.size());
  EXPECT_EQ(std::string("h1\0", 3), bytes.substr(88, 3));
  EXPECT_EQ(std::string("v1\0\0", 4), bytes.substr(0, 4));
  // The empty queue takes memory first again.
  CowPipelineData e = makeQueueEvent("again");
  ASSERT_TRUE(w.insertAndClear(e));
  EXPECT_EQ(96u, readTestFile(path).size());
}

// A file too small for what memory held on spilling is written past its
// limit, with a warning, rather than losing events.
TEST(PersistentQueueWriter, SpillBeyondASmallFileWarnsAndKeepsEverything) {
  TestTempDir dir;
  ScopedLogCapture log("PersistentQueueWriter");
  PersistentQueueWriter w(20000, 300, dir / "w");
  int n = 0;
  CowPipelineData e = makeQueueEvent(payload(n));
  // The spill overruns the file; the new event itself must respect it.
  for (; n < 1000 && w.insertAndClear(e); e = makeQueueEvent(payload(++n))) {
  }
  EXPECT_EQ(payload(n), rawOf(e));
  EXPECT_GT(w.header().fileSize, 396u);
  EXPECT_NE(std::string::npos,
            log.text().find("WARN Persistent file size=300 is too small. Cannot fit contents of "
                            "queue in memory to persistent file. Please specify a larger "
                            "persistent file. Will write to file beyond specified limit."));
  const std::vector<std::string> got = drain(w);
  ASSERT_EQ(size_t(n), got.size());
  for (int i = 0; i < n; i++) EXPECT_EQ(payload(i), got[i]);
  EXPECT_EQ(396u, w.header().fileSize);  // emptied: back to the configured size
}

TEST(PersistentQueueWriter, DamagedHeadersDegradeToMemoryAndLeaveTheFile) {
  const std::string records = recordBytes("one") + recordBytes("two");
  const uint64_t end = 96 + records.size();
  const struct {
    const char* what;
    uint64_t block[5];  // read, write, file size, data size, count
  } kCases[] = {
      {"count without data", {96, 96, 4192, 96, 1}},
      {"data without count", {96, end, 4192, end, 0}},
      {"more records than bytes", {96, end, 4192, end, 1000}},
      {"data past the file size", {96, end, 100, end, 2}},
      {"read offset before the area", {8, end, 4192, end, 2}},
      {"write offset past the end", {96, 5000, 4192, end, 2}},
      {"offsets disagree with the data size", {96, end + 8, 4192, end, 2}},
      {"file size below the header", {96, 96, 50, 96, 0}},
      {"more data than the file holds", {96, end + 1000, 4192, end + 1000, 2}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    TestTempDir dir;
    std::string image = fileImage(records, 2, 8, std::string("h1\0", 3), 4096);
    for (int i = 0; i < 5; i++) put64(image, 8 + 8 * i, c.block[i]);
    writeTestFile(dir / "w", image);
    ScopedLogCapture log("PersistentQueueWriter");
    {
      PersistentQueueWriter w(1000, 4096, dir / "w");
      EXPECT_FALSE(w.isFileUsable());
      EXPECT_FALSE(w.hasData());
      w.shutdown();
    }
    EXPECT_EQ(image, readTestFile(dir / "w"));
    EXPECT_NE(std::string::npos, log.text().find("ERROR Failed to restore file=" +
                                                 std::string(dir / "w") + " failed. "));
  }
}

TEST(PersistentQueueWriter, DamagedRecordsAreDroppedNotRepeated) {
  const std::string good = recordBytes("good");
  std::string unparsable = recordBytes("bad");
  unparsable[8] = '\x7f';  // the pair count's low byte: more pairs than follow
  std::string hugeLength = recordBytes("huge");
  put64(hugeLength, 0, 1ull << 40);
  const struct {
    const char* what;
    std::string records;
    size_t count;
    std::vector<std::string> expected;
    const char* message;
  } kCases[] = {
      {"record that does not parse", unparsable + good, 2, {"good"},
       "Could not read CowPipelineData from the persistent store. size="},
      {"length beyond the stored bytes", hugeLength + good, 2, {},
       "Could not read complete data for CowPipelineData."},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    TestTempDir dir;
    writeTestFile(dir / "w", fileImage(c.records, c.count, 8, std::string("h1\0", 3), 4096));
    ScopedLogCapture log("PersistentQueueWriter");
    PersistentQueueWriter w(0, 4096, dir / "w");
    ASSERT_TRUE(w.isFileUsable());
    EXPECT_EQ(c.expected, drain(w));
    EXPECT_FALSE(w.hasData());
    EXPECT_NE(std::string::npos, log.text().find(c.message));
    EXPECT_NE(std::string::npos, log.text().find("ERROR Failed to remove event from="));
  }
}

TEST(PersistentQueueWriter, AFileCutShortIsEmptiedOnRead) {
  TestTempDir dir;
  const Pathname path = dir / "w";
  ScopedLogCapture log("PersistentQueueWriter");
  PersistentQueueWriter w(0, 4096, path);
  for (int i = 0; i < 3; i++) {
    CowPipelineData e = makeQueueEvent(payload(i));
    ASSERT_TRUE(w.insertAndClear(e));
  }
  ASSERT_TRUE(path.truncate(100));  // inside the first length field
  CowPipelineData e;
  EXPECT_FALSE(w.remove(e));
  EXPECT_FALSE(w.hasData());
  EXPECT_NE(std::string::npos, log.text().find("Failed to read size of CowPipelineData."));
  CowPipelineData next = makeQueueEvent("next");
  ASSERT_TRUE(w.insertAndClear(next));
  EXPECT_EQ(std::vector<std::string>{"next"}, drain(w));
}

TEST(PersistentQueueWriter, FileThatCannotBeMadeLeavesAMemoryQueue) {
  TestTempDir dir;
  writeTestFile(dir / "plain", "not a directory");
  ScopedLogCapture log("PersistentQueueWriter");
  PersistentQueueWriter w(1000, 4096, dir / "plain" / "q" / "w");
  EXPECT_FALSE(w.isFileUsable());
  CowPipelineData e = makeQueueEvent("kept");
  EXPECT_TRUE(w.insertAndClear(e));
  EXPECT_EQ(std::vector<std::string>{"kept"}, drain(w));
  EXPECT_NE(std::string::npos,
            log.text().find("Could not create directory=" + std::string(dir / "plain" / "q") +
                            " required for persistent queue. error=File exists"))
      << log.text();
}

// A write the file system refuses (here: past the process's file size
// limit) refuses the event and leaves it with the caller.
TEST(PersistentQueueWriter, RefusedWriteKeepsTheEventWithTheCaller) {
  TestTempDir dir;
  ScopedLogCapture log("PersistentQueueWriter");
  PersistentQueueWriter w(0, 1 << 20, dir / "w");
  rlimit saved{};
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &saved));
  auto* oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit small = saved;
  small.rlim_cur = 2048;
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
  int accepted = 0;
  CowPipelineData e;
  for (; accepted < 100; accepted++) {
    e = makeQueueEvent(payload(accepted));
    if (!w.insertAndClear(e)) break;
  }
  setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, oldHandler);
  ASSERT_LT(accepted, 100);
  EXPECT_EQ(payload(accepted), rawOf(e));
  EXPECT_NE(std::string::npos, log.text().find("ERROR Insert to file=" + std::string(dir / "w") +
                                               " failed. Write failed for "));
  EXPECT_NE(std::string::npos, log.text().find("error=File too large"));
  // Nothing half-written is read back.
  EXPECT_TRUE(w.insertAndClear(e));
  const std::vector<std::string> got = drain(w);
  ASSERT_EQ(size_t(accepted + 1), got.size());
  for (int i = 0; i <= accepted; i++) EXPECT_EQ(payload(i), got[i]);
}

TEST(PersistentQueueWriter, InitInMemoryQueueTakesAllOrNothing) {
  for (const uint64_t memory : {uint64_t(100000), uint64_t(600)}) {
    SCOPED_TRACE(memory);
    TestTempDir dir;
    const Pathname path = dir / "w";
    {
      PersistentQueueWriter w(0, 8192, path);
      for (int i = 0; i < 6; i++) {
        CowPipelineData e = makeQueueEvent(payload(i));
        ASSERT_TRUE(w.insertAndClear(e));
      }
      w.shutdown();
    }
    PersistentQueueWriter w(memory, 8192, path);
    w.initInMemoryQueue();
    const bool allFit = memory == 100000;
    EXPECT_EQ(allFit ? 0u : 6u, w.header().count);
    EXPECT_EQ(allFit, w.usedMemory() >= 6 * 200u);
    const std::vector<std::string> got = drain(w);
    ASSERT_EQ(6u, got.size());
    for (int i = 0; i < 6; i++) EXPECT_EQ(payload(i), got[i]);
  }
}

}  // namespace
