#include "util/ReadWriteLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(ReadWriteLock, ReadersNeverSeeAHalfDoneWrite) {
  // Writers move two fields together under the write lock; readers under
  // the read lock must always find them equal.
  ReadWriteLock lock;
  long a = 0, b = 0;
  std::atomic<int> tornReads{0};
  std::atomic<long> reads{0};
  constexpr int kWriters = 3, kReaders = 5, kWrites = 3000, kReadsEach = 6000;
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&] {
      for (int i = 0; i < kWrites; ++i) {
        ScopedWriter hold(lock);
        ++a;
        std::this_thread::yield();
        ++b;
      }
    });
  }
  for (int r = 0; r < kReaders; ++r) {
    threads.emplace_back([&] {
      for (int i = 0; i < kReadsEach; ++i) {
        ScopedReader hold(lock);
        if (a != b) tornReads.fetch_add(1);
        reads.fetch_add(1);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(0, tornReads.load());
  EXPECT_EQ(long(kWriters) * kWrites, a);
  EXPECT_EQ(a, b);
  EXPECT_EQ(long(kReaders) * kReadsEach, reads.load());
}

TEST(ReadWriteLock, ReadersShareTheLock) {
  // Every reader holds the lock until all have arrived: with exclusive
  // readers this would never finish.
  ReadWriteLock lock;
  constexpr int kReaders = 4;
  std::atomic<int> inside{0};
  std::vector<std::thread> threads;
  for (int r = 0; r < kReaders; ++r) {
    threads.emplace_back([&] {
      ScopedReader hold(lock);
      inside.fetch_add(1);
      while (inside.load() < kReaders) std::this_thread::yield();
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(kReaders, inside.load());
}

TEST(ReadWriteLock, AWriterWaitsForTheLastReaderAndLaterReadersWaitForIt) {
  ReadWriteLock lock;
  std::string order;
  full_Mutex orderMutex;
  auto note = [&](char c) {
    ScopedLock hold(orderMutex);
    order.push_back(c);
  };
  std::atomic<bool> writerStarted{false}, laterReaderStarted{false};

  auto firstReader = std::make_unique<ScopedReader>(lock);
  note('R');
  std::thread writer([&] {
    writerStarted = true;
    ScopedWriter hold(lock);
    note('W');
  });
  // The writer's attempt is under way; give it every chance to slip past the
  // reader that still holds the lock.
  while (!writerStarted) std::this_thread::yield();
  for (int i = 0; i < 2000; ++i) std::this_thread::yield();
  std::thread laterReader([&] {
    laterReaderStarted = true;
    ScopedReader hold(lock);
    note('r');
  });
  while (!laterReaderStarted) std::this_thread::yield();
  for (int i = 0; i < 2000; ++i) std::this_thread::yield();
  {
    ScopedLock hold(orderMutex);
    EXPECT_EQ("R", order);  // nobody got in while the first reader held it
  }
  firstReader.reset();
  note('x');
  writer.join();
  laterReader.join();
  // The writer came after the first reader left (checked above), the later
  // reader after the writer.
  ASSERT_EQ(4u, order.size()) << order;
  EXPECT_LT(order.find('W'), order.find('r')) << order;
}

}  // namespace
