// The queue as its producers and consumers see it: in-memory limits, the
// hub's round robin, waits that end by timeout, wake-up or shutdown,
// metrics, and the sizes read from configuration. The install root is a
// temporary tree made before anything reads it; hence an executable of its
// own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "framework/InMemoryQueueWriter.h"
#include "framework/PersistentQueue.h"
#include "framework/PersistentQueueConfig.h"
#include "framework/PersistentQueueWriter.h"
#include "framework/ProducerConsumerQueue.h"
#include "framework/QueueManager.h"
#include "framework/testing/QueueTestEvents.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/testing/DefaultRootEnvironment.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/ConditionWaitTimeout.h"
#include "util/MetricsRegistry.h"
#include "util/UnitUtil.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"

namespace {

const char* const kServer =
    "[queue]\n"
    "maxSize = 3KB\n"
    "[queue=digits]\n"
    "maxSize = 8\n"
    "[queue=bad]\n"
    "maxSize = lots\n"
    "[queue=huge]\n"
    "maxSize = 99999999999999999999\n"
    "[queue=empty]\n"
    "maxSize =\n"
    "[queue=review]\n"
    "maxSize = 4KB\n"
    "[persistentQueue:halfset]\n"
    "persistentQueueSize = 2MB\n";

const auto* const gRoot = ::testing::AddGlobalTestEnvironment(
    new DefaultRootEnvironment({{"system/default/server.conf", kServer}}));

const ConditionWaitTimeout kShortWait(0, 1000000);
const ConditionWaitTimeout kLongWait(60, 0);

// ---- In-memory writers ----

TEST(InMemoryQueueWriterReview, RefusesOnlyWhenTheEventPassesTheMaximumAndUsedIsNotZero) {
  // Each event below costs 100 + 200 = 300 bytes.
  const struct { uint64_t max; size_t accepted; } kCases[] = {
      {0, 1},     // an empty queue takes any one event
      {299, 1},
      {300, 1},
      {599, 1},
      {600, 2},   // used plus cost equal to the maximum still fits
      {899, 2},
      {900, 3},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.max);
    InMemoryQueueWriter w(c.max);
    size_t n = 0;
    for (int i = 0; i < 5; ++i) {
      CowPipelineData ev = makeQueueEvent(std::string(100, 'a' + i));
      if (!w.insertAndClear(ev)) {
        EXPECT_FALSE(ev.isUnset());
        break;
      }
      ++n;
    }
    EXPECT_EQ(c.accepted, n);
    EXPECT_EQ(c.accepted, w.getSize());
    EXPECT_EQ(c.accepted * 300, w.currentBytes());
    // First in, first out, and the bytes come back.
    for (size_t i = 0; i < n; ++i) {
      CowPipelineData out;
      ASSERT_TRUE(w.remove(out));
      EXPECT_EQ(std::string(100, 'a' + i), rawOf(out));
    }
    EXPECT_EQ(0u, w.currentBytes());
    CowPipelineData out;
    EXPECT_FALSE(w.remove(out));
  }
}

// ---- The hub ----

TEST(PersistentQueueReview, WritersAreServedRoundRobin) {
  PersistentQueue q("review-rr");
  QueueWriter* a = q.getInMemoryWriter("a", 100000);
  QueueWriter* b = q.getInMemoryWriter("b", 100000);
  QueueWriter* c = q.getInMemoryWriter("c", 100000);
  for (const char* r : {"a1", "a2", "a3"}) {
    CowPipelineData ev = makeQueueEvent(r);
    ASSERT_TRUE(a->insertAndClear(ev, kShortWait));
  }
  for (const char* r : {"b1", "b2"}) {
    CowPipelineData ev = makeQueueEvent(r);
    ASSERT_TRUE(b->insertAndClear(ev, kShortWait));
  }
  CowPipelineData ev = makeQueueEvent("c1");
  ASSERT_TRUE(c->insertAndClear(ev, kShortWait));
  std::vector<std::string> got;
  CowPipelineData out;
  while (q.remove(out)) got.push_back(rawOf(out));
  ASSERT_EQ(6u, got.size());
  // Whichever writer comes first, the three take turns while all have
  // data, each in its own order.
  EXPECT_NE(got[0][0], got[1][0]);
  EXPECT_NE(got[1][0], got[2][0]);
  EXPECT_NE(got[0][0], got[2][0]);
  for (char w : std::string("abc")) {
    int next = 1;
    for (const auto& g : got) {
      if (g[0] == w) {
        EXPECT_EQ(std::string(1, w) + std::to_string(next++), g);
      }
    }
  }
}

TEST(PersistentQueueReview, SameNameGivesTheSameWriter) {
  PersistentQueue q("review-names");
  QueueWriter* a = q.getInMemoryWriter("a", 1000);
  EXPECT_EQ(a, q.getInMemoryWriter("a", 5));
  EXPECT_EQ(a, q.setWriter("a", new InMemoryQueueWriterByCount(1)));
  QueueWriter* counted = q.setWriter("n", new InMemoryQueueWriterByCount(1));
  CowPipelineData e1 = makeQueueEvent("1"), e2 = makeQueueEvent("2");
  EXPECT_TRUE(counted->insertAndClear(e1, kShortWait));
  EXPECT_FALSE(counted->insertAndClear(e2, kShortWait));
  EXPECT_TRUE(counted->isFull());
  EXPECT_EQ(1u, counted->getSize());
}

TEST(PersistentQueueReview, WaitsEndRefusedWhenNothingChanges) {
  PersistentQueue q("review-timeout");
  QueueWriter* w = q.setWriter("w", new InMemoryQueueWriterByCount(1));
  CowPipelineData out;
  EXPECT_FALSE(q.remove(out, kShortWait));
  EXPECT_TRUE(out.isUnset());
  CowPipelineData e1 = makeQueueEvent("1"), e2 = makeQueueEvent("2");
  EXPECT_TRUE(w->insertAndClear(e1, kShortWait));
  EXPECT_FALSE(w->insertAndClear(e2, kShortWait));
  EXPECT_EQ("2", rawOf(e2));
  EXPECT_TRUE(q.remove(out, kShortWait));
  EXPECT_EQ("1", rawOf(out));
}

TEST(PersistentQueueReview, AnInsertWakesAWaitingConsumer) {
  PersistentQueue q("review-wake-consumer");
  QueueWriter* w = q.getInMemoryWriter("w", 100000);
  bool got = false;
  std::string raw;
  std::thread consumer([&] {
    CowPipelineData out;
    got = q.remove(out, kLongWait);
    raw = rawOf(out);
  });
  CowPipelineData ev = makeQueueEvent("wake");
  ASSERT_TRUE(w->insertAndClear(ev, kShortWait));
  consumer.join();
  // The consumer either found the event at once or was woken for it.
  EXPECT_TRUE(got);
  EXPECT_EQ("wake", raw);
}

TEST(PersistentQueueReview, RemovalToHalfEmptyWakesAWaitingProducer) {
  PersistentQueue q("review-wake-producer");
  QueueWriter* w = q.setWriter("w", new InMemoryQueueWriterByCount(2));
  for (const char* r : {"1", "2"}) {
    CowPipelineData ev = makeQueueEvent(r);
    ASSERT_TRUE(w->insertAndClear(ev, kShortWait));
  }
  bool inserted = false;
  std::thread producer([&] {
    CowPipelineData ev = makeQueueEvent("3");
    inserted = w->insertAndClear(ev, kLongWait);
  });
  CowPipelineData out;
  ASSERT_TRUE(q.remove(out));
  EXPECT_EQ("1", rawOf(out));
  producer.join();
  EXPECT_TRUE(inserted);
  ASSERT_TRUE(q.remove(out));
  EXPECT_EQ("2", rawOf(out));
  ASSERT_TRUE(q.remove(out));
  EXPECT_EQ("3", rawOf(out));
}

TEST(PersistentQueueReview, ShutdownReleasesWaitersAndRefusesAfterwards) {
  PersistentQueue q("review-shutdown");
  QueueWriter* full = q.setWriter("full", new InMemoryQueueWriterByCount(1));
  CowPipelineData first = makeQueueEvent("first");
  ASSERT_TRUE(full->insertAndClear(first, kShortWait));
  PersistentQueue empty("review-shutdown-empty");
  empty.getInMemoryWriter("w", 1000);
  bool consumerGot = true, producerGot = true;
  std::thread consumer([&] {
    CowPipelineData out;
    consumerGot = empty.remove(out, kLongWait);
  });
  std::thread producer([&] {
    CowPipelineData ev = makeQueueEvent("blocked");
    producerGot = full->insertAndClear(ev, kLongWait);
  });
  empty.shutdown();
  q.shutdown();
  consumer.join();
  producer.join();
  EXPECT_FALSE(consumerGot);
  EXPECT_FALSE(producerGot);
  EXPECT_TRUE(q.isShutdown());
  CowPipelineData late = makeQueueEvent("late"), out;
  EXPECT_FALSE(full->insertAndClear(late, kShortWait));
  EXPECT_FALSE(late.isUnset());
  EXPECT_FALSE(q.remove(out, kShortWait));
  q.shutdown();  // a second call does nothing
}

TEST(PersistentQueueReview, ShutdownPersistsAPersistentWritersMemory) {
  TestTempDir dir;
  const Pathname path = dir / "pq";
  {
    PersistentQueue q("review-persist");
    QueueWriter* w = q.getPersistentQueueWriter("pw", 100000, 100000, path);
    for (const char* r : {"m1", "m2"}) {
      CowPipelineData ev = makeQueueEvent(r);
      ASSERT_TRUE(w->insertAndClear(ev, kShortWait));
    }
    q.shutdown();
  }
  PersistentQueue q("review-persist");
  q.getPersistentQueueWriter("pw", 100000, 100000, path);
  CowPipelineData out;
  ASSERT_TRUE(q.remove(out, kShortWait));
  EXPECT_EQ("m1", rawOf(out));
  ASSERT_TRUE(q.remove(out, kShortWait));
  EXPECT_EQ("m2", rawOf(out));
  EXPECT_FALSE(q.remove(out));
}

TEST(PersistentQueueReview, InMemoryAndPersistentWritersMayShareAName) {
  TestTempDir dir;
  auto q = std::make_unique<PersistentQueue>("review-shared-name");
  QueueWriter* mem = q->getInMemoryWriter("x", 100000);
  QueueWriter* file = q->getPersistentQueueWriter("x", 100000, 100000, dir / "x");
  EXPECT_NE(mem, file);
  CowPipelineData a = makeQueueEvent("to memory"), b = makeQueueEvent("to file");
  ASSERT_TRUE(mem->insertAndClear(a, kShortWait));
  ASSERT_TRUE(file->insertAndClear(b, kShortWait));
  std::vector<std::string> got;
  CowPipelineData out;
  while (q->remove(out)) got.push_back(rawOf(out));
  std::sort(got.begin(), got.end());
  EXPECT_EQ((std::vector<std::string>{"to file", "to memory"}), got);
  const std::vector<metric> all = MetricsRegistry::instance().collect();
  for (const auto& m : all) {
    if (m.name == "queue:x" || m.name == "persistentQueue:x") {
      size_t n = 0;
      for (const auto& kv : m.values) n += kv.first == "current size";
      EXPECT_EQ(1u, n) << m.name << " reports one writer";
    }
  }
  q.reset();
}


// ---- Metrics ----

const metric* findMetric(const std::vector<metric>& all, const std::string& name) {
  for (const auto& m : all) {
    if (m.name == name) return &m;
  }
  return nullptr;
}

std::string valueOf(const metric* m, const char* key) {
  const Str* v = m != nullptr ? m->find(key) : nullptr;
  return v != nullptr ? std::string(*v) : "<absent>";
}

TEST(PersistentQueueReview, MetricsReportEachWriterAndStopAtShutdown) {
  ScopedLogCapture log("PersistentQueue");
  auto q = std::make_unique<PersistentQueue>("review-metrics");
  QueueWriter* w = q->setWriter("mw", new InMemoryQueueWriterByCount(3));
  for (const char* r : {"1", "2", "3"}) {
    CowPipelineData ev = makeQueueEvent(r);
    ASSERT_TRUE(w->insertAndClear(ev, kShortWait));
  }
  std::vector<metric> all = MetricsRegistry::instance().collect();
  const metric* m = findMetric(all, "queue:mw");
  ASSERT_NE(nullptr, m);
  EXPECT_EQ("3", valueOf(m, "current size"));
  EXPECT_EQ("3", valueOf(m, "largest size"));
  EXPECT_EQ("3", valueOf(m, "max size"));
  EXPECT_EQ("true", valueOf(m, "blocked"));
  CowPipelineData out;
  ASSERT_TRUE(q->remove(out));
  ASSERT_TRUE(q->remove(out));
  all = MetricsRegistry::instance().collect();
  m = findMetric(all, "queue:mw");
  ASSERT_NE(nullptr, m);
  EXPECT_EQ("1", valueOf(m, "current size"));
  EXPECT_EQ("3", valueOf(m, "largest size")) << "largest since the last report";
  EXPECT_EQ("1", valueOf(m, "smallest size"));
  EXPECT_NE("true", valueOf(m, "blocked"));
  // Largest and smallest start again from the current size.
  all = MetricsRegistry::instance().collect();
  m = findMetric(all, "queue:mw");
  ASSERT_NE(nullptr, m);
  EXPECT_EQ("1", valueOf(m, "largest size"));
  EXPECT_EQ("1", valueOf(m, "smallest size"));

  q->shutdown();
  EXPECT_FALSE(MetricsRegistry::instance().isRegistered("queue:mw"));
  EXPECT_NE(std::string::npos, log.text().find("Unregistering callback for: queue:mw"))
      << log.text();
  q.reset();
}

TEST(PersistentQueueReview, PersistentWritersReportUnderTheirOwnPrefix) {
  TestTempDir dir;
  PersistentQueue q("review-pmetrics");
  q.getPersistentQueueWriter("pmw", 1000, 1000, dir / "f");
  const std::vector<metric> all = MetricsRegistry::instance().collect();
  const metric* m = findMetric(all, "persistentQueue:pmw");
  ASSERT_NE(nullptr, m);
  for (const char* key : {"current size", "largest size", "smallest size", "max size",
                          "current size kb", "max size kb"}) {
    EXPECT_NE("<absent>", valueOf(m, key)) << key;
  }
  q.shutdown();
  EXPECT_FALSE(MetricsRegistry::instance().isRegistered("persistentQueue:pmw"));
}

TEST(ProducerConsumerQueueReview, PrivateQueueIsBoundedInBytes) {
  Str name("review-private");
  ProducerConsumerQueue pcq(name, 600);
  CowPipelineData a = makeQueueEvent(std::string(100, 'a'));
  CowPipelineData b = makeQueueEvent(std::string(100, 'b'));
  CowPipelineData c = makeQueueEvent(std::string(100, 'c'));
  EXPECT_TRUE(pcq.insertAndClear(a, kShortWait));
  EXPECT_TRUE(pcq.insertAndClear(b, kShortWait));
  EXPECT_FALSE(pcq.insertAndClear(c, kShortWait));
  EXPECT_EQ(2u, pcq.getSize());
  EXPECT_TRUE(pcq.isFull());
  CowPipelineData out;
  ASSERT_TRUE(pcq.remove(out, kShortWait));
  EXPECT_EQ(std::string(100, 'a'), rawOf(out));
  pcq.shutdown();
  EXPECT_FALSE(pcq.remove(out, kShortWait));
}

// ---- Sizes ----

TEST(UnitUtilReview, ParsesDigitsWithAnOptionalUnit) {
  const struct { const char* text; uint64_t bytes; } kCases[] = {
      {"0", 0},
      {"512", 512},
      {"7B", 7},
      {"2k", 2048},
      {"1KB", 1024},
      {"1kb", 1024},
      {"3M", 3u << 20},
      {"100MB", 104857600},
      {"1G", 1ull << 30},
      {"2GB", 2ull << 30},
      {"1T", 1ull << 40},
      {"5TB", 5ull << 40},
      {" 8KB ", 8192},  // blanks around
      {"\t4MB", 4u << 20},
      {"16777215TB", 16777215ull << 40},  // the largest whole number of terabytes
      {"18446744073709551615", 18446744073709551615ull},
  };
  for (const auto& c : kCases) {
    uint64_t out = 99;
    EXPECT_TRUE(UnitUtil::parseSizeInBytes(c.text, &out)) << c.text;
    EXPECT_EQ(c.bytes, out) << c.text;
  }
}

TEST(UnitUtilReview, RejectsOtherShapesAndLeavesTheOutputAlone) {
  for (const char* text : {"", " ", "MB", "KB", "10 MB", "10PB", "-1KB", "+1KB", "1.5MB",
                           "1MBB", "1KK", "0x10", "12a", "16777216TB",
                           "18446744073709551616", "99999999999999999999KB"}) {
    uint64_t out = 99;
    EXPECT_FALSE(UnitUtil::parseSizeInBytes(text, &out)) << text;
    EXPECT_EQ(99u, out) << text;
  }
}

TEST(PersistentQueueConfigReview, ParseSizeCountsUnitsOr512ByteBlocksElseWarns) {
  const struct { const char* text; uint64_t bytes; } kCases[] = {
      {"1000", 512000},
      {"1", 512},
      {"4KB", 4096},
      {"2MB", 2u << 20},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.bytes, PersistentQueueConfig::parseSize(c.text)) << c.text;
  }
  for (const char* bad : {"lots", "1.5MB", "-3"}) {
    ScopedLogCapture log("PersistentQueueConfig");
    EXPECT_EQ(0u, PersistentQueueConfig::parseSize(bad)) << bad;
    EXPECT_NE(std::string::npos,
              log.text().find(std::string("Could not parse persistent queue configuration. size=") +
                              bad + ". Please specify in form d+(K|M|G|T)B"))
        << log.text();
  }
}

TEST(PersistentQueueConfigReview, InputsChooseMemoryOrAFileOfTheirOwn) {
  const struct {
    const char* input;
    const char* queueSize;
    const char* pqSize;
    bool persistent;
    uint64_t memory;
    uint64_t file;
    const char* writerName;
  } kCases[] = {
      {"in1", nullptr, nullptr, false, 4096, 0, nullptr},  // the queue stanza's 4KB
      {"in2", "1KB", nullptr, false, 1024, 0, nullptr},
      {"tcp://host.a:9997\\x", nullptr, "1MB", true, 4096, 1u << 20, "pq_tcp___host_a_9997_x"},
      {"udp:514", "8KB", "2MB", true, 8192, 2u << 20, "pq_udp_514"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.input);
    PersistentQueue q("review");
    PropertiesMap props;
    if (c.queueSize != nullptr) props.put("queueSize", c.queueSize);
    if (c.pqSize != nullptr) props.put("persistentQueueSize", c.pqSize);
    ScopedLogCapture log("PersistentQueueConfig");
    PersistentQueueConfig conf(&q, "server", "review", c.input, props);
    EXPECT_EQ(c.persistent, conf.isPersistent());
    EXPECT_EQ(c.memory, conf.sizeInMemory());
    EXPECT_EQ(c.file, conf.persistentFileSize());
    QueueWriter* w = conf.getWriter();
    ASSERT_NE(nullptr, w);
    if (c.persistent) {
      EXPECT_EQ(c.writerName, std::string(conf.writerName()));
      EXPECT_EQ(std::string(persistentQueueDirectory() / "review" / c.writerName),
                std::string(conf.path()));
      EXPECT_NE(std::string::npos,
                log.text().find(std::string("Creating persistent queue writer for ") + c.input +
                                " with writerQueueName=" + c.writerName + " with sizeInMem=" +
                                std::to_string(c.memory) +
                                ", persistentFileSize=" + std::to_string(c.file)))
          << log.text();
    } else {
      EXPECT_NE(std::string::npos,
                log.text().find("Creating memory based queue writer of size=" +
                                std::to_string(c.memory)))
          << log.text();
    }
    q.shutdown();
  }
}

TEST(PersistentQueueConfigReview, NamedStanzaWithoutAFileSizeWarnsAndUsesNoFile) {
  ScopedLogCapture log("PersistentQueueConfig");
  uint64_t size = 1, fileSize = 1;
  PersistentQueueConfig::getWriterQueueSizeFromName("server", "halfset", &size, &fileSize);
  EXPECT_EQ(512000u, size) << "a missing queueSize";
  EXPECT_EQ(2u << 20, fileSize);
  PersistentQueueConfig::getWriterQueueSizeFromName("server", "nosuch", &size, &fileSize);
  EXPECT_EQ(512000u, size);
  EXPECT_EQ(0u, fileSize);
  EXPECT_NE(std::string::npos,
            log.text().find("persistentQueueSize not defined for queue=nosuch in server. Will not "
                            "use persistent queue"))
      << log.text();
}

TEST(QueueManagerReview, QueueSizesComeFromTheirStanzaOrTheDefault) {
  ScopedLogCapture log("QueueManager");
  QueueManager& m = QueueManager::instance();
  EXPECT_EQ(3072u, m.defaultQueueSize());
  EXPECT_NE(std::string::npos, log.text().find("DEBUG using maxSize=3KB for default queue"))
      << log.text();
  const struct { const char* name; uint64_t bytes; const char* logged; } kCases[] = {
      {"review", 4096, "using maxSize=4KB for queue=review"},
      {"digits", 4096, "using maxSize=8 for queue=digits"},
      {"bad", 3072,
       "Could not parse queue configuration for bad. maxSize=lots. Please specify in form "
       "d+(K|M|G|T)B"},
      // An all-digit number too large to use falls back to 1000 units.
      {"huge", 512000, nullptr},
      {"empty", 3072, nullptr},
      {"nosuch", 3072, nullptr},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.bytes, m.getQueueSize(c.name));
    if (c.logged != nullptr) {
      EXPECT_NE(std::string::npos, log.text().find(c.logged)) << log.text();
    }
  }
}

}  // namespace
