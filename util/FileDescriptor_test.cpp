#include "util/FileDescriptor.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <string>
#include <thread>

#include "util/EventLoopException.h"
#include "util/FileStar.h"
#include "util/HashedStr.h"
#include "util/Pathname.h"
#include "util/ReadableFileMapping.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/ThrownText.h"
#include "util/Timeval.h"

namespace {

TEST(FileDescriptor, ReadAndWriteMoveTheFullCountThroughAPipe) {
  int fds[2];
  ASSERT_EQ(0, ::pipe(fds));
  ScopedFileDescriptor r{FileDescriptor(fds[0])};
  std::string payload(1 << 20, '\0');  // far beyond the pipe's capacity
  std::mt19937 rng(5);
  for (char& c : payload) c = static_cast<char>(rng());
  std::thread writer([&] {
    ScopedFileDescriptor w{FileDescriptor(fds[1])};
    EXPECT_EQ(static_cast<ssize_t>(payload.size()), w.write(payload.data(), payload.size()));
  });
  std::string got(payload.size() + 10, 'x');
  // One call gathers all of it, however the kernel splits the pipe reads.
  EXPECT_EQ(static_cast<ssize_t>(payload.size()), r.read(got.data(), got.size()));
  got.resize(payload.size());
  EXPECT_EQ(payload, got);
  writer.join();
  char c;
  EXPECT_EQ(0, r.read(&c, 1));  // the end: the last call's 0
}

TEST(FileDescriptor, FailuresReturnMinusOneWithErrno) {
  FileDescriptor bad(-1);
  char c = 'x';
  errno = 0;
  EXPECT_EQ(-1, bad.read(&c, 1));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(-1, bad.write(&c, 1));
  EXPECT_EQ(EBADF, errno);
  EXPECT_FALSE(bad.isReg());
  EXPECT_FALSE(bad.isDir());
  long size = 77;
  EXPECT_FALSE(bad.getSize(&size));
  EXPECT_EQ(77, size);
  EXPECT_FALSE(bad.seek_set(0));
  EXPECT_EQ(-1, bad.curPos());
  EXPECT_FALSE(bad.sync());
  EXPECT_FALSE(bad.chmod(0600));

  // The full device takes nothing: a write, or a copy, fails with ENOSPC.
  ScopedFileDescriptor full(Pathname("/dev/full").openWriteOnlyExisting());
  if (!full.valid()) GTEST_SKIP() << "no /dev/full";
  errno = 0;
  EXPECT_EQ(-1, full.write("abc", 3));
  EXPECT_EQ(ENOSPC, errno);
  TestTempDir dir;
  writeTestFile(dir / "src", std::string(20000, 'z'));
  ScopedFileDescriptor in((dir / "src").openReadOnly());
  errno = 0;
  EXPECT_FALSE(in.copyTo(FileDescriptor(full)));
  EXPECT_EQ(ENOSPC, errno);
}

TEST(FileDescriptor, CopyToAPathFromTheCurrentPosition) {
  TestTempDir dir;
  const Pathname src = dir / "src", dst = dir / "dst";
  ScopedFileDescriptor w(src.openCreateOrReplace(Pathname::CREATE_PRIVATE));
  ASSERT_EQ(5, w.put("hello"));
  ASSERT_EQ(7, w.format(" %s%c", "world", '!'));
  ASSERT_EQ(3, w.format_longlong(-12));
  ASSERT_EQ(2, w.format_unsignedlonglong(34));
  ASSERT_EQ(8, w.format_double(1.5));
  ScopedFileDescriptor in(src.openReadOnly());
  ASSERT_TRUE(in.seek_set(6));
  ASSERT_TRUE(in.copyTo(dst));
  EXPECT_EQ("world!-12341.500000", readTestFile(dst));
  struct stat st;
  ASSERT_EQ(0, ::stat(dst.c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 07777);  // the source's mode
  EXPECT_FALSE(in.copyTo(dir / "no/such/dir"));
  EXPECT_EQ(ENOENT, errno);
}

TEST(FileDescriptor, PositionsSizesAndTruncation) {
  TestTempDir dir;
  ScopedFileDescriptor fd((dir / "f").openReadWriteOrCreate(Pathname::CREATE_NORMAL));
  ASSERT_EQ(10, fd.write("0123456789", 10));
  EXPECT_EQ(10, fd.curPos());
  ASSERT_TRUE(fd.seek_set_and_truncate(4));
  EXPECT_EQ(4, fd.curPos());
  long size = 0;
  ASSERT_TRUE(fd.getSize(&size));
  EXPECT_EQ(4, size);
  ASSERT_TRUE(fd.seek_set(0));
  ASSERT_TRUE(fd.seekEof());
  EXPECT_EQ(4, fd.curPos());
  EXPECT_TRUE(fd.isReg());
  EXPECT_FALSE(fd.isDir());
  EXPECT_TRUE(fd.sync());
  EXPECT_TRUE(fd.fadvise_random());
  EXPECT_TRUE(fd.fadvise_sequential());
  EXPECT_TRUE(fd.chmod(0604));
  FileDescriptorStat st;
  ASSERT_TRUE(fd.stat(&st));
  EXPECT_EQ(0604u, st.st.st_mode & 07777);
  const Timeval when(1000000000, 0);
  ASSERT_TRUE((dir / "f").setMtime(&when));
  Timeval got;
  ASSERT_TRUE(fd.getMtime(&got));
  EXPECT_EQ(when, got);

  ScopedFileDescriptor d(dir.path().openReadOnly());
  EXPECT_TRUE(d.isDir());
}

TEST(FileDescriptor, CloseIsIdempotentAndSaveErrnoKeepsErrno) {
  TestTempDir dir;
  FileDescriptor fd = (dir / "f").openCreateOrReplace(Pathname::CREATE_NORMAL);
  ASSERT_TRUE(fd.valid());
  const int number = fd.fd();
  EXPECT_TRUE(fd.close());
  EXPECT_EQ(-1, fd.fd());
  EXPECT_TRUE(fd.close());  // already closed
  FileDescriptor stale(number);  // a copy of a number that is gone
  errno = 0;
  EXPECT_FALSE(stale.close());
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(-1, stale.fd());
  FileDescriptor stale2(number);
  errno = ERANGE;
  EXPECT_FALSE(stale2.close_saveErrno());
  EXPECT_EQ(ERANGE, errno);
}

TEST(FileDescriptor, FdopenTakesOverOrClosesOnFailure) {
  TestTempDir dir;
  FileDescriptor fd = (dir / "f").openCreateOrReplace(Pathname::CREATE_NORMAL);
  const int number = fd.fd();
  ScopedFileStar f(fd.fdopen("w"));
  ASSERT_TRUE(f.valid());
  EXPECT_EQ(-1, fd.fd());
  EXPECT_EQ(number, ::fileno(f.get()));

  FileDescriptor ro = (dir / "f").openReadOnly();
  const int roNumber = ro.fd();
  errno = 0;
  FileStar bad = ro.fdopen("w");  // a write stream on a read-only descriptor
  EXPECT_FALSE(bad.valid());
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(-1, ro.fd());
  EXPECT_EQ(-1, ::fcntl(roNumber, F_GETFD));  // closed
}

TEST(FileDescriptor, SetCloseOnExecTogglesTheFlagOrThrows) {
  TestTempDir dir;
  ScopedFileDescriptor fd((dir / "f").openCreateOrReplace(Pathname::CREATE_NORMAL));
  fd.setCloseOnExec(false);
  EXPECT_EQ(0, ::fcntl(fd.fd(), F_GETFD) & FD_CLOEXEC);
  fd.setCloseOnExec(true);
  EXPECT_NE(0, ::fcntl(fd.fd(), F_GETFD) & FD_CLOEXEC);
  EXPECT_EQ("can't F_GETFD",
            thrownText<EventLoopException>([] { FileDescriptor(-1).setCloseOnExec(true); }));
}

TEST(ScopedFileDescriptor, OwnershipMovesAndCloses) {
  TestTempDir dir;
  int first, second;
  {
    ScopedFileDescriptor a((dir / "a").openCreateOrReplace(Pathname::CREATE_NORMAL));
    first = a.fd();
    ScopedFileDescriptor b;
    b.claimObjectFrom(a);
    EXPECT_EQ(-1, a.fd());
    EXPECT_EQ(first, b.fd());
    b = (dir / "b").openCreateOrReplace(Pathname::CREATE_NORMAL);  // closes `first`
    second = b.fd();
    EXPECT_EQ(-1, ::fcntl(first, F_GETFD));
    EXPECT_NE(-1, ::fcntl(second, F_GETFD));
  }
  EXPECT_EQ(-1, ::fcntl(second, F_GETFD));  // closed by the destructor
}

TEST(FileStar, ReadWriteAndNetworkError) {
  TestTempDir dir;
  {
    ScopedFileStar f(dir / "f", "w");
    ASSERT_TRUE(f.valid());
    EXPECT_EQ(3, f.write("abc", 3));
    EXPECT_EQ(0, f.write("", 0));
    EXPECT_EQ(5, f.format("%d-%s", 12, "xy"));
    static const HashedStr key("key");  // permanent keys live in statics
    EXPECT_EQ(3, f.write(key));
    EXPECT_FALSE(f.hasNetworkError());
  }
  ScopedFileStar f(dir / "f", "r");
  char buf[32];
  EXPECT_EQ(11, f.read(buf, sizeof(buf)));
  EXPECT_EQ("abc12-xykey", std::string(buf, 11));
  EXPECT_EQ(0, f.read(buf, sizeof(buf)));  // at the end: 0, not -1
  errno = 0;
  EXPECT_EQ(-1, f.write("x", 1));  // a read stream refuses writes
  EXPECT_TRUE(f.close());
  EXPECT_TRUE(f.close());

  ScopedFileStar onDir(dir.path(), "r");
  ASSERT_TRUE(onDir.valid());
  EXPECT_EQ(-1, onDir.read(buf, sizeof(buf)));  // EISDIR, not the end
  EXPECT_FALSE(ScopedFileStar(dir / "missing", "r").valid());
}

TEST(FileStar, TemporaryFileAndClaim) {
  ScopedFileStar tmp(FileStar::openTemporaryFile());
  ASSERT_TRUE(tmp.valid());
  ASSERT_EQ(4, tmp.write("a\nb\n", 4));
  ::rewind(tmp.get());
  ScopedFileStar other;
  other.claimObjectFrom(tmp);
  EXPECT_FALSE(tmp.valid());
  Str line;
  ASSERT_TRUE(other.readline(line));
  EXPECT_EQ("a", line);
}

TEST(ReadableFileMapping, MapsTheWholeFileOrIsInvalid) {
  TestTempDir dir;
  const Pathname p = dir / "f";
  const std::string bytes = std::string(100000, 'm') + "end";
  writeTestFile(p, bytes);
  ScopedFileDescriptor fd(p.openReadOnly());
  ReadableFileMapping map(fd);
  fd.close();  // the mapping outlives the descriptor
  ASSERT_TRUE(map.valid());
  ASSERT_EQ(bytes.size(), map.size());
  EXPECT_EQ(0, std::memcmp(bytes.data(), map.data(), bytes.size()));

  ReadableFileMapping bad(FileDescriptor(-1));
  EXPECT_FALSE(bad.valid());
  ScopedFileDescriptor onDir(dir.path().openReadOnly());
  EXPECT_FALSE(ReadableFileMapping(onDir).valid());  // mmap refuses a directory

  writeTestFile(dir / "empty", "");
  ScopedFileDescriptor e((dir / "empty").openReadOnly());
  ReadableFileMapping emptyMap(e);
  EXPECT_TRUE(emptyMap.valid());
  EXPECT_EQ(0u, emptyMap.size());
}

}  // namespace
