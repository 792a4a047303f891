#include "framework/PersistentQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "framework/InMemoryQueueWriter.h"
#include "framework/ProducerConsumerQueue.h"
#include "framework/testing/QueueTestEvents.h"
#include "util/ConditionWaitTimeout.h"
#include "util/MetricsRegistry.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"

namespace {

const ConditionWaitTimeout kShort(0, 20 * 1000 * 1000);
const ConditionWaitTimeout kLong(60, 0);

TEST(InMemoryQueueWriter, AdmitsByBytesAndAlwaysOneEventWhenEmpty) {
  const struct {
    uint64_t maxBytes;
    std::vector<size_t> rawSizes;
    std::vector<bool> admitted;
  } kCases[] = {
      {0, {0, 0}, {true, false}},              // a zero-length queue holds one event
      {100, {5000, 1}, {true, false}},         // one oversized event enters an empty queue
      {1000, {300, 300, 300}, {true, true, false}},  // 500 + 500 fit, a third does not
      {1000, {600, 0}, {true, true}},          // 800 + 200 is exactly the maximum
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.maxBytes);
    InMemoryQueueWriter w(c.maxBytes);
    for (size_t i = 0; i < c.rawSizes.size(); i++) {
      CowPipelineData e = makeQueueEvent(std::string(c.rawSizes[i], 'r'));
      EXPECT_EQ(c.admitted[i], w.insertAndClear(e)) << i;
      EXPECT_EQ(c.admitted[i], e.isUnset()) << i;
    }
    CowPipelineData out;
    ASSERT_TRUE(w.remove(out));
    EXPECT_EQ(c.rawSizes[0], out->rawSize());
    while (w.remove(out)) {
    }
    EXPECT_EQ(0u, w.currentBytes());
    CowPipelineData e = makeQueueEvent(std::string(c.rawSizes[0], 'r'));
    EXPECT_TRUE(w.insertAndClear(e));  // emptied, it admits again
  }
}

TEST(InMemoryQueueWriter, FullnessKeepsAMarginAndHalfEmptyNeedsMoreThanHalf) {
  const struct {
    uint64_t maxBytes;
    size_t raw;  // one event of this raw length
    bool full, halfEmpty;
  } kCases[] = {
      {10000, 100, false, true},
      {1000, 301, true, false},  // 501 used: the 500-byte margin would pass the maximum
      {1000, 300, false, false},  // 500 used: the margin just fits
      {1001, 300, false, true},  // used plus 500 at the maximum is still room; 501 > 500
      {2000, 900, false, false},  // room, but 900 free is not more than half
      {0, 0, true, false},       // an event over the maximum: no underflow into "room"
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.maxBytes);
    InMemoryQueueWriter w(c.maxBytes);
    EXPECT_FALSE(w.isFull());  // empty is never full
    CowPipelineData e = makeQueueEvent(std::string(c.raw, 'r'));
    ASSERT_TRUE(w.insertAndClear(e));
    EXPECT_EQ(c.full, w.isFull());
    EXPECT_EQ(c.halfEmpty, w.isHalfEmpty());
  }
}

TEST(PersistentQueue, ServesWritersRoundRobin) {
  TestTempDir dir;
  PersistentQueue q("rr");
  QueueWriter* a = q.getInMemoryWriter("a", 100000);
  QueueWriter* b = q.getPersistentQueueWriter("b", 0, 65536, dir / "b");
  QueueWriter* c = q.setWriter("c", new InMemoryQueueWriterByCount(10));
  EXPECT_EQ(a, q.getInMemoryWriter("a", 5));  // the same writer, sizes ignored
  for (int i = 0; i < 3; i++) {
    for (auto& [w, name] : {std::pair{a, "a"}, std::pair{b, "b"}, std::pair{c, "c"}}) {
      if (name[0] == 'c' && i == 2) continue;  // c runs out first
      CowPipelineData e = makeQueueEvent(std::string(name) + std::to_string(i));
      ASSERT_TRUE(w->insertAndClear(e, kShort));
    }
  }
  std::string order;
  CowPipelineData out;
  while (q.remove(out, ConditionWaitTimeout())) order += rawOf(out) + " ";
  EXPECT_EQ("a0 b0 c0 a1 b1 c1 a2 b2 ", order);
}

// A full queue waits for room until its deadline, then reports failure and
// leaves the event with the caller.
TEST(PersistentQueue, FullQueueWaitsForItsDeadlineAndRefuses) {
  Str name("full");
  ProducerConsumerQueue q(name, 0);
  CowPipelineData first = makeQueueEvent("first"), second = makeQueueEvent("second");
  ASSERT_TRUE(q.insertAndClear(first, kShort));
  EXPECT_TRUE(q.isFull());
  EXPECT_FALSE(q.insertAndClear(second, kShort));
  EXPECT_EQ("second", rawOf(second));
  CowPipelineData out;
  ASSERT_TRUE(q.remove(out, kShort));
  EXPECT_FALSE(q.remove(out, kShort));  // empty: the reader's deadline passes too
  EXPECT_EQ("first", rawOf(out));
  EXPECT_TRUE(q.insertAndClear(second, kShort));
}

// Four producers and four consumers through a small queue: every event
// comes out once, and each consumer sees each producer's events in order.
TEST(PersistentQueue, EightThreadsMoveEveryEventExactlyOnce) {
  constexpr int kProducers = 4, kConsumers = 4, kPerProducer = 2000;
  Str name("threads");
  ProducerConsumerQueue q(name, 4000);  // room for a handful of events
  std::atomic<int> removed{0};
  std::vector<std::vector<std::pair<int, int>>> seen(kConsumers);
  std::vector<std::thread> threads;
  for (int p = 0; p < kProducers; p++) {
    threads.emplace_back([&q, p] {
      for (int i = 0; i < kPerProducer; i++) {
        CowPipelineData e = makeQueueEvent(std::to_string(p) + ":" + std::to_string(i));
        while (!q.insertAndClear(e, kShort)) {
        }
      }
    });
  }
  for (int c = 0; c < kConsumers; c++) {
    threads.emplace_back([&, c] {
      CowPipelineData out;
      while (removed.load() < kProducers * kPerProducer) {
        if (!q.remove(out, kShort)) continue;
        removed++;
        const std::string raw = rawOf(out);
        const size_t colon = raw.find(':');
        seen[c].emplace_back(std::stoi(raw.substr(0, colon)), std::stoi(raw.substr(colon + 1)));
      }
    });
  }
  for (std::thread& t : threads) t.join();
  std::vector<std::vector<int>> count(kProducers, std::vector<int>(kPerProducer, 0));
  for (const auto& consumer : seen) {
    std::vector<int> last(kProducers, -1);
    for (const auto& [p, i] : consumer) {
      count[p][i]++;
      EXPECT_LT(last[p], i) << "producer " << p;
      last[p] = i;
    }
  }
  for (int p = 0; p < kProducers; p++) {
    for (int i = 0; i < kPerProducer; i++) ASSERT_EQ(1, count[p][i]) << p << ":" << i;
  }
  EXPECT_EQ(0u, q.getSize());
}

// Waiters with a minute to go all return, refused, once the queue is shut
// down; so does everyone who comes later.
TEST(PersistentQueue, ShutdownWakesEveryWaiter) {
  Str name("shutdown");
  ProducerConsumerQueue full(name, 0);
  CowPipelineData first = makeQueueEvent("first");
  ASSERT_TRUE(full.insertAndClear(first, kShort));
  Str otherName("empty");
  ProducerConsumerQueue empty(otherName, 1000);
  std::atomic<int> started{0}, refused{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; i++) {
    threads.emplace_back([&] {
      CowPipelineData e = makeQueueEvent("blocked");
      started++;
      if (!full.insertAndClear(e, kLong)) refused++;
    });
    threads.emplace_back([&] {
      CowPipelineData out;
      started++;
      if (!empty.remove(out, kLong)) refused++;
    });
  }
  while (started.load() < 8) std::this_thread::yield();
  full.shutdown();
  empty.shutdown();
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(8, refused.load());
  CowPipelineData out;
  EXPECT_FALSE(full.remove(out, kLong));
  CowPipelineData late = makeQueueEvent("late");
  EXPECT_FALSE(empty.insertAndClear(late, kLong));
}

TEST(PersistentQueue, WritersReportMetricsUntilShutdown) {
  TestTempDir dir;
  ScopedLogCapture log("PersistentQueue");
  auto q = std::make_unique<PersistentQueue>("metrics");
  QueueWriter* mem = q->getInMemoryWriter("m", 1000);
  q->getPersistentQueueWriter("p", 0, 4096, dir / "p");
  for (int i = 0; i < 3; i++) {
    CowPipelineData e = makeQueueEvent(std::string(100, 'x'));
    mem->insertAndClear(e, kShort);
  }
  std::map<std::string, metric> byName;
  for (metric& m : MetricsRegistry::instance().collect()) byName[m.name] = m;
  ASSERT_EQ(1u, byName.count("queue:m"));
  ASSERT_EQ(1u, byName.count("persistentQueue:p"));
  const metric& m = byName["queue:m"];
  const struct {
    const char* key;
    const char* value;
  } kValues[] = {{"current size", "3"}, {"largest size", "3"},   {"smallest size", "0"},
                 {"max size", "1000"},  {"current size kb", "0"}, {"max size kb", "0"},
                 {"blocked", "true"}};
  for (const auto& v : kValues) {
    ASSERT_NE(nullptr, m.find(v.key)) << v.key;
    EXPECT_EQ(v.value, *m.find(v.key)) << v.key;
  }
  EXPECT_EQ(nullptr, byName["persistentQueue:p"].find("blocked"));
  // Largest and smallest start again from the current size.
  for (metric& again : MetricsRegistry::instance().collect()) {
    if (again.name == "queue:m") {
      EXPECT_EQ("3", *again.find("smallest size"));
    }
  }
  q->shutdown();
  EXPECT_FALSE(MetricsRegistry::instance().isRegistered("queue:m"));
  EXPECT_FALSE(MetricsRegistry::instance().isRegistered("persistentQueue:p"));
  EXPECT_NE(std::string::npos, log.text().find("INFO Unregistering callback for: queue:m"));
  EXPECT_NE(std::string::npos,
            log.text().find("INFO Unregistering callback for: persistentQueue:p"));
}

}  // namespace
