#include "util/FileBasedMutex.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/ThrownText.h"

namespace {

TEST(FileBasedMutex, WaitIsTheTimeoutRoundedUpToSeconds) {
  const struct { unsigned long long msec, seconds; } kCases[] = {
      {0, 0}, {1, 1}, {999, 1}, {1000, 1}, {1001, 2}, {4200, 5},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.seconds, FileBasedMutex::waitSeconds(c.msec)) << c.msec;
}

TEST(FileBasedMutex, CreatesTheFileAndItsFoldersThenLocksAndUnlocks) {
  TestTempDir dir;
  const Pathname path = dir.path() / "a/b/sentinel.txt";
  FileBasedMutex m(path, 0);
  EXPECT_FALSE(path.exists());  // nothing on disk before lock()
  m.lock();
  EXPECT_TRUE(m.isLocked());
  EXPECT_TRUE(path.exists());
  m.unlock();
  EXPECT_FALSE(m.isLocked());
  m.lock();  // again, after an unlock
  EXPECT_TRUE(m.isLocked());
}

TEST(FileBasedMutex, TwoHoldersExcludeEachOtherAndTheLoserSaysWhy) {
  TestTempDir dir;
  const Pathname path = dir.path() / "lock";
  FileBasedMutex first(path, 0);
  first.lock();
  FileBasedMutex second(path, 0);
  ScopedLogCapture capture("FileBasedMutex");
  const std::string want =
      "Failed to lock " + std::string(path) + " with return code -1: Connection timed out";
  EXPECT_EQ(want, thrownText<FileBasedMutexException>([&] { second.lock(); }));
  EXPECT_FALSE(second.isLocked());
  EXPECT_EQ(std::vector<std::string>{"ERROR " + want}, capture.lines());
  first.unlock();
  second.lock();
  EXPECT_TRUE(second.isLocked());
}

TEST(FileBasedMutex, APathThatCannotBeMadeFails) {
  TestTempDir dir;
  writeTestFile(dir.path() / "file", "x");
  FileBasedMutex m(dir.path() / "file/lock", 1000);
  EXPECT_EQ("Failed to lock " + std::string(dir.path() / "file/lock") +
                " with return code -1: Not a directory",
            thrownText<FileBasedMutexException>([&] { m.lock(); }));
}

// Another process holds the lock; ours times out; once the holder is
// killed outright the lock is free again.
TEST(FileBasedMutex, AHolderKilledOutrightLeavesTheLockFree) {
  TestTempDir dir;
  const Pathname path = dir.path() / "lock";
  int ready[2];
  ASSERT_EQ(0, pipe(ready));
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(ready[0]);
    FileBasedMutex held(path, 0);
    held.lock();
    if (write(ready[1], "x", 1) != 1) _exit(2);
    for (;;) pause();
  }
  close(ready[1]);
  char c;
  ASSERT_EQ(1, read(ready[0], &c, 1));
  close(ready[0]);

  FileBasedMutex mine(path, 300);  // waits one whole second
  const std::string text = thrownText<FileBasedMutexException>([&] { mine.lock(); });
  EXPECT_NE(std::string::npos, text.find("Connection timed out")) << text;

  ASSERT_EQ(0, kill(child, SIGKILL));
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  mine.lock();
  EXPECT_TRUE(mine.isLocked());
}

// A holder that lets go within the wait hands the lock over.
TEST(FileBasedMutex, AWaiterGetsTheLockWhenTheHolderLetsGo) {
  TestTempDir dir;
  const Pathname path = dir.path() / "lock";
  int go[2];
  ASSERT_EQ(0, pipe(go));
  // The waiter is forked before the lock is taken: a child forked later
  // would share the holder's open description, and with it the lock.
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(go[1]);
    FileBasedMutex waiter(path, 30000);
    char c;
    if (read(go[0], &c, 1) != 1) _exit(2);
    try {
      waiter.lock();
    } catch (...) {
      _exit(1);
    }
    _exit(waiter.isLocked() ? 0 : 1);
  }
  close(go[0]);
  FileBasedMutex holder(path, 0);
  holder.lock();
  ASSERT_EQ(1, write(go[1], "x", 1));
  close(go[1]);
  holder.unlock();
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
}

// The lock file doubles as the sentinel log of a pooled configuration, so
// taking the lock must never truncate it, and a holder that goes out of
// scope must let the next one in.
TEST(FileBasedMutex, KeepsTheFileContentsAndLetsGoInTheDestructor) {
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

// The probe answers for the file system under a directory and leaves
// nothing behind; a directory that cannot take a file cannot take the lock.
TEST(FileBasedMutex, ProbesWhetherAFileSystemCarriesTheLock) {
  TestTempDir dir;
  EXPECT_TRUE(FileBasedMutex::isLockStrategiesSupportedOnFs(dir.path()));
  EXPECT_TRUE(FileBasedMutex::isLockStrategiesSupportedOnFs(Pathname("/dev/shm")));
  EXPECT_FALSE(FileBasedMutex::isLockStrategiesSupportedOnFs(dir / "missing"));
  EXPECT_FALSE(FileBasedMutex::isLockStrategiesSupportedOnFs(Pathname("/proc/self")));
  EXPECT_EQ(0, system(("test -z \"$(ls -A '" + std::string(dir.path()) + "')\"").c_str()));
}
