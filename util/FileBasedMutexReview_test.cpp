// The lock between processes on a file: what a holder leaves behind.

#include "util/FileBasedMutex.h"

#include <gtest/gtest.h>

#include "util/testing/TestTempDir.h"

namespace {

// The lock file doubles as the sentinel log of a pooled configuration, so
// taking the lock must never truncate it, and a holder that goes out of
// scope must let the next one in.
TEST(FileBasedMutexReview, KeepsTheFileContentsAndLetsGoInTheDestructor) {
  TestTempDir dir;
  const Pathname p = dir / "deep/er/lock.txt";
  writeTestFile(p, "history\n");
  {
    FileBasedMutex held(p, 1000);
    held.lock();
    EXPECT_EQ(readTestFile(p), "history\n");
    FileBasedMutex rival(p, 1);
    EXPECT_THROW(rival.lock(), FileBasedMutexException);
    EXPECT_FALSE(rival.isLocked());
  }
  FileBasedMutex next(p, 1000);
  next.lock();
  EXPECT_TRUE(next.isLocked());
  EXPECT_EQ(readTestFile(p), "history\n");
  next.unlock();
}

}  // namespace
