#include "util/Pathname.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <thread>
#include <vector>

#include "util/ConditionWaitTimeout.h"
#include "util/Directory.h"
#include "util/FileDescriptor.h"
#include "util/FileStar.h"
#include "util/PathnameOpResult.h"
#include "util/testing/TestTempDir.h"
#include "util/Timeval.h"

namespace {

mode_t modeOf(const Pathname& p) {
  struct stat st;
  EXPECT_EQ(0, ::stat(p.c_str(), &st)) << p;
  return st.st_mode & 07777;
}

void writeFile(const Pathname& p, const std::string& bytes) {
  FileDescriptor fd = p.openCreateOrReplace(Pathname::CREATE_NORMAL);
  ASSERT_TRUE(fd.valid()) << p;
  ASSERT_EQ(static_cast<ssize_t>(bytes.size()), fd.write(bytes.data(), bytes.size()));
  ASSERT_TRUE(fd.close());
}

std::string readFile(const Pathname& p) {
  FileDescriptor fd = p.openReadOnly();
  std::string out;
  char buf[4096];
  ssize_t n;
  while ((n = fd.read(buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
  fd.close();
  return out;
}

// Creation modes are checked with the umask out of the way; the old one is
// restored whatever happens.
class PathnameOpen : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(_dir.path().empty());
    _oldMask = ::umask(0);
  }
  void TearDown() override { ::umask(_oldMask); }

  TestTempDir _dir;
  mode_t _oldMask = 022;
};

TEST_F(PathnameOpen, CreatedFilesGetTheirModeBits) {
  typedef FileDescriptor (Pathname::*CreateOp)(Pathname::CreateMode) const;
  const struct { const char* name; CreateOp op; } kOps[] = {
      {"openReadWriteOrCreate", &Pathname::openReadWriteOrCreate},
      {"openCreateOrAppend", &Pathname::openCreateOrAppend},
      {"openCreateOrReplace", &Pathname::openCreateOrReplace},
      {"openCreateOnly", &Pathname::openCreateOnly},
  };
  const struct { Pathname::CreateMode cm; mode_t bits; } kModes[] = {
      {Pathname::CREATE_NORMAL, 0644},
      {Pathname::CREATE_PRIVATE, 0600},
      {Pathname::CREATE_READONLY, 0440},
  };
  for (const auto& op : kOps) {
    for (const auto& m : kModes) {
      SCOPED_TRACE(std::string(op.name) + " mode " + std::to_string(m.cm));
      const Pathname p = _dir.path() / (std::string(op.name) + std::to_string(m.cm));
      FileDescriptor fd = (p.*op.op)(m.cm);
      ASSERT_TRUE(fd.valid());
      EXPECT_EQ(m.bits, modeOf(p));
      EXPECT_EQ(1, fd.write("x", 1));  // the creator may write, whatever the mode
      EXPECT_TRUE(fd.close());
    }
  }
}

TEST_F(PathnameOpen, FlagsOfEachOpenOperation) {
  const Pathname p = _dir / "f";
  writeFile(p, "0123456789");
  typedef std::function<FileDescriptor(const Pathname&)> Opener;
  const struct {
    const char* name;
    Opener open;
    int accmode;
    bool append;
    bool nonblock;
    const char* contentAfterWritingAB;  // nullptr: writing must fail
  } kCases[] = {
      {"openReadOnly", [](const Pathname& q) { return q.openReadOnly(); }, O_RDONLY, false, false,
       nullptr},
      {"openReadOnlySafer", [](const Pathname& q) { return q.openReadOnlySafer(); }, O_RDONLY,
       false, true, nullptr},
      {"openReadOnlySequential", [](const Pathname& q) { return q.openReadOnlySequential(); },
       O_RDONLY, false, false, nullptr},
      {"openReadOnlyRandom", [](const Pathname& q) { return q.openReadOnlyRandom(); }, O_RDONLY,
       false, false, nullptr},
      {"openReadWriteExisting", [](const Pathname& q) { return q.openReadWriteExisting(); },
       O_RDWR, false, false, "AB23456789"},
      {"openWriteOnlyExisting", [](const Pathname& q) { return q.openWriteOnlyExisting(); },
       O_WRONLY, false, false, "AB23456789"},
      {"openReadWriteOrCreate",
       [](const Pathname& q) { return q.openReadWriteOrCreate(Pathname::CREATE_NORMAL); }, O_RDWR,
       false, false, "AB23456789"},
      {"openCreateOrAppend",
       [](const Pathname& q) { return q.openCreateOrAppend(Pathname::CREATE_NORMAL); }, O_WRONLY,
       true, false, "0123456789AB"},
      {"openCreateOrReplace",
       [](const Pathname& q) { return q.openCreateOrReplace(Pathname::CREATE_NORMAL); },
       O_WRONLY, false, false, "AB"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    writeFile(p, "0123456789");
    FileDescriptor fd = c.open(p);
    ASSERT_TRUE(fd.valid());
    const int flags = ::fcntl(fd.fd(), F_GETFL);
    EXPECT_EQ(c.accmode, flags & O_ACCMODE);
    EXPECT_EQ(c.append, (flags & O_APPEND) != 0);
    EXPECT_EQ(c.nonblock, (flags & O_NONBLOCK) != 0);
    errno = 0;
    const ssize_t wrote = fd.write("AB", 2);
    fd.close();
    if (c.contentAfterWritingAB == nullptr) {
      EXPECT_EQ(-1, wrote);
      EXPECT_EQ(EBADF, errno);
      EXPECT_EQ("0123456789", readFile(p));
    } else {
      EXPECT_EQ(2, wrote);
      EXPECT_EQ(c.contentAfterWritingAB, readFile(p));
    }
  }
}

TEST_F(PathnameOpen, ExistingOnlyOpensFailOnAMissingFile) {
  const Pathname missing = _dir / "missing";
  typedef std::function<FileDescriptor(const Pathname&)> Opener;
  const Opener kOpeners[] = {
      [](const Pathname& q) { return q.openReadOnly(); },
      [](const Pathname& q) { return q.openReadOnlySafer(); },
      [](const Pathname& q) { return q.openReadOnlySequential(); },
      [](const Pathname& q) { return q.openReadOnlyRandom(); },
      [](const Pathname& q) { return q.openReadWriteExisting(); },
      [](const Pathname& q) { return q.openWriteOnlyExisting(); },
  };
  for (size_t i = 0; i < sizeof(kOpeners) / sizeof(kOpeners[0]); ++i) {
    errno = 0;
    FileDescriptor fd = kOpeners[i](missing);
    EXPECT_EQ(-1, fd.fd()) << "opener " << i;
    EXPECT_EQ(ENOENT, errno) << "opener " << i;
  }
  EXPECT_FALSE(missing.exists());
  // A missing directory on the way fails the creating ones too.
  EXPECT_FALSE((_dir / "no/such").openCreateOrReplace(Pathname::CREATE_NORMAL).valid());
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(PathnameOpen, CreateOnlyIsExclusive) {
  const Pathname p = _dir / "once";
  FileDescriptor first = p.openCreateOnly(Pathname::CREATE_NORMAL);
  ASSERT_TRUE(first.valid());
  first.close();
  errno = 0;
  EXPECT_FALSE(p.openCreateOnly(Pathname::CREATE_NORMAL).valid());
  EXPECT_EQ(EEXIST, errno);
  ASSERT_TRUE((_dir / "link").symlinkTo(_dir / "nowhere"));
  EXPECT_FALSE((_dir / "link").openCreateOnly(Pathname::CREATE_NORMAL).valid());
  EXPECT_EQ(EEXIST, errno);  // a dangling link counts as there
  EXPECT_FALSE((_dir / "nowhere").exists());
}

TEST_F(PathnameOpen, ReplaceFromDescriptorTakesItsModeExactly) {
  const Pathname src = _dir / "src";
  writeFile(src, "data");
  ASSERT_TRUE(src.chmod(0751));
  ::umask(077);  // the copied mode must not be cut by the umask
  for (const char* leaf : {"fresh", "existing"}) {
    const Pathname dst = _dir / leaf;
    if (std::string(leaf) == "existing") writeFile(dst, "old contents");
    ScopedFileDescriptor in(src.openReadOnly());
    ScopedFileDescriptor out(dst.openCreateOrReplace(FileDescriptor(in)));
    ASSERT_TRUE(out.valid()) << leaf;
    EXPECT_EQ(0751u, modeOf(dst)) << leaf;
    long size = -1;
    EXPECT_TRUE(dst.getSize(&size));
    EXPECT_EQ(0, size) << leaf;  // truncated
  }
  errno = 0;
  EXPECT_FALSE((_dir / "x").openCreateOrReplace(FileDescriptor(-1)).valid());
  EXPECT_EQ(EBADF, errno);
}

TEST_F(PathnameOpen, SaferOpenDoesNotHangOnAFifoWithoutWriter) {
  const Pathname fifo = _dir / "fifo";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  EXPECT_TRUE(fifo.isFifo());
  EXPECT_EQ(3, fifo.getFileType());
  // A plain blocking open would wait forever for a writer; the alarm turns
  // such a hang into a failed exit instead of a stuck test.
  EXPECT_EXIT(
      {
        ::alarm(20);
        ScopedSaferFileDescriptor fd(fifo);
        char c;
        const bool ok = fd.valid() && ::read(fd.fd(), &c, 1) == 0;  // no writer: end of data
        ::_exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(PathnameOpen, MkdirModes) {
  const struct { Pathname::MkdirMode mode; mode_t bits; } kCases[] = {
      {Pathname::MKDIR_PRIVATE, 0700},
      {Pathname::MKDIR_GROUP, 0770},
      {Pathname::MKDIR_ALL, 0777},
      {Pathname::MKDIR_PUBLIC, 0755},
  };
  for (const auto& c : kCases) {
    const Pathname d = _dir / ("d" + std::to_string(c.mode)) / "x" / "y";
    ASSERT_TRUE(d.mkdir_p(c.mode)) << c.mode;
    EXPECT_EQ(c.bits, modeOf(d)) << c.mode;
    EXPECT_EQ(c.bits, modeOf(d.toParent())) << c.mode;  // parents share the mode
  }
  errno = 0;
  EXPECT_FALSE((_dir / "d0").mkdir(Pathname::MKDIR_PRIVATE));
  EXPECT_EQ(EEXIST, errno);
}

TEST(PathnameMkdirP, EdgeCases) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  EXPECT_TRUE(Pathname("/").mkdir_p(Pathname::MKDIR_PRIVATE));
  EXPECT_TRUE(Pathname("//").mkdir_p(Pathname::MKDIR_PRIVATE));
  EXPECT_TRUE(dir.path().mkdir_p(Pathname::MKDIR_PRIVATE));  // already there
  EXPECT_TRUE((dir / "a/b/c///").mkdir_p(Pathname::MKDIR_PRIVATE));
  EXPECT_EQ(2, (dir / "a/b/c").getFileType());

  const Pathname file = dir / "file";
  writeFile(file, "x");
  errno = 0;
  EXPECT_FALSE(file.mkdir_p(Pathname::MKDIR_PRIVATE));
  EXPECT_EQ(EEXIST, errno);
  errno = 0;
  // The file in the way is met as a parent that exists and is no directory.
  EXPECT_FALSE((file / "sub/deeper").mkdir_p(Pathname::MKDIR_PRIVATE));
  EXPECT_EQ(EEXIST, errno);
}

// Several threads create the same deep tree at once; every one must see
// success, whoever wins each mkdir.
TEST(PathnameMkdirP, ConcurrentCreatorsOfOneTreeAllSucceed) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  constexpr int kThreads = 6;
  for (int round = 0; round < 20; ++round) {
    Pathname deep = dir.path() / ("r" + std::to_string(round));
    for (int depth = 0; depth < 25; ++depth) deep /= ("d" + std::to_string(depth));
    std::atomic<int> ready{0};
    std::atomic<int> succeeded{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&] {
        ready.fetch_add(1);
        while (ready.load() < kThreads) std::this_thread::yield();
        if (deep.mkdir_p(Pathname::MKDIR_PUBLIC)) succeeded.fetch_add(1);
      });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(kThreads, succeeded.load()) << "round " << round;
    EXPECT_EQ(2, deep.getFileType());
  }
}

TEST(PathnameTests, FileTypesAndSizes) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  writeFile(dir / "file", "hello");
  writeFile(dir / "empty", "");
  ASSERT_TRUE((dir / "sub").mkdir(Pathname::MKDIR_PRIVATE));
  ASSERT_TRUE((dir / "tofile").symlinkTo(dir / "file"));
  ASSERT_TRUE((dir / "dangling").symlinkTo(dir / "missing"));
  const struct {
    const char* leaf;
    int type;
    bool exists, symlink, zeroLength;
    long size;  // -1: getSize fails
  } kCases[] = {
      {"file", 1, true, false, false, 5},
      {"empty", 1, true, false, true, 0},
      {"sub", 2, true, false, false, -2},  // a directory's size is the filesystem's
      {"tofile", 1, true, true, false, 5},  // tests follow the link...
      {"dangling", 0, false, true, false, -1},  // ...except isSymlink
      {"missing", 0, false, false, false, -1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.leaf);
    const Pathname p = dir / c.leaf;
    EXPECT_EQ(c.type, p.getFileType());
    EXPECT_EQ(c.exists, p.exists());
    EXPECT_EQ(c.exists, p.r_ok());
    EXPECT_EQ(c.exists, p.rw_ok());
    EXPECT_EQ(c.symlink, p.isSymlink());
    EXPECT_FALSE(p.isFifo());
    EXPECT_EQ(c.zeroLength, p.isZeroLengthFile());
    long size = -7;
    const bool got = p.getSize(&size);
    if (c.size == -1) {
      EXPECT_FALSE(got);
      EXPECT_EQ(-7, size);  // untouched on failure
    } else if (c.size >= 0) {
      EXPECT_TRUE(got);
      EXPECT_EQ(c.size, size);
    }
  }
}

TEST(PathnameTests, SizeOnDiskCountsAllocatedBlocks) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname sparse = dir / "sparse";
  writeFile(sparse, "");
  ASSERT_TRUE(sparse.truncate(64L << 20));
  long size = 0, onDisk = -1;
  ASSERT_TRUE(sparse.getSize(&size));
  ASSERT_TRUE(sparse.getSizeOnDisk(&onDisk));
  EXPECT_EQ(64L << 20, size);
  EXPECT_LT(onDisk, size);  // a hole takes no blocks
  EXPECT_EQ(0, onDisk % 512);
  EXPECT_FALSE((dir / "missing").getSizeOnDisk(&onDisk));
  EXPECT_FALSE((dir / "missing").truncate(0));
}

TEST(PathnameTests, FilesystemBytesFreeAgreesWithTheStandardLibrary) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  unsigned long long free = 0;
  ASSERT_TRUE(dir.path().filesystemBytesFree(&free));
  const auto space = std::filesystem::space(std::string(dir.path()));
  // Others write to the same disk meanwhile: agree to within 256 MB.
  const double diff = static_cast<double>(free) - static_cast<double>(space.available);
  EXPECT_LT(std::abs(diff), 256.0 * 1024 * 1024);
  errno = 0;
  EXPECT_FALSE((dir / "missing").filesystemBytesFree(&free));
  EXPECT_EQ(ENOENT, errno);
}

TEST(PathnameTests, LinksRealpathAndCwd) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const std::string longTarget(1500, 'x');  // longer than readlink's first guess
  const Pathname link = dir / "link";
  ASSERT_TRUE(link.symlinkTo(Pathname(longTarget)));
  Pathname back;
  ASSERT_TRUE(link.readlink(back));
  EXPECT_EQ(longTarget, back);
  errno = 0;
  EXPECT_FALSE(link.symlinkTo(Pathname("other")));
  EXPECT_EQ(EEXIST, errno);
  writeFile(dir / "file", "x");
  EXPECT_FALSE((dir / "file").readlink(back));
  EXPECT_EQ(EINVAL, errno);

  ASSERT_TRUE((dir / "sub").mkdir(Pathname::MKDIR_PRIVATE));
  Pathname real;
  ASSERT_TRUE((dir / "sub/./../sub").realpath(real));
  EXPECT_EQ(std::filesystem::canonical(std::string(dir / "sub")).string(), real);
  Pathname inPlace = dir / "sub/..";
  ASSERT_TRUE(inPlace.realpathInPlace());
  EXPECT_EQ(std::filesystem::canonical(std::string(dir.path())).string(), inPlace);
  Pathname untouched("keep");
  EXPECT_FALSE((dir / "missing").realpath(untouched));
  EXPECT_EQ("keep", untouched);

  Pathname cwd;
  ASSERT_TRUE(Pathname::cwd(cwd));
  EXPECT_EQ(std::filesystem::current_path().string(), cwd);
}

TEST(PathnameTests, RemovalOperationsAndTheirFailures) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname file = dir / "f", sub = dir / "d";
  writeFile(file, "x");
  ASSERT_TRUE(sub.mkdir(Pathname::MKDIR_PRIVATE));
  writeFile(sub / "inner", "y");

  errno = 0;
  EXPECT_FALSE(sub.unlink());
  EXPECT_TRUE(errno == EISDIR || errno == EPERM) << errno;
  EXPECT_FALSE(sub.rmdir());
  EXPECT_EQ(ENOTEMPTY, errno);
  EXPECT_FALSE(file.rmdir());
  EXPECT_EQ(ENOTDIR, errno);
  EXPECT_TRUE((sub / "inner").remove());
  EXPECT_TRUE(sub.remove());  // remove() takes directories too
  EXPECT_TRUE(file.unlink());
  EXPECT_FALSE(file.remove());
  EXPECT_EQ(ENOENT, errno);
}

TEST(PathnameTests, RenameAndTimes) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname a = dir / "a", b = dir / "b";
  writeFile(a, "payload");
  ASSERT_TRUE(a.renameTo(b));
  EXPECT_FALSE(a.exists());
  EXPECT_EQ("payload", readFile(b));
  EXPECT_FALSE(a.renameTo(b));
  EXPECT_EQ(ENOENT, errno);

  const Timeval when(1234567890, 250000);
  ASSERT_TRUE(b.setMtime(&when));
  Timeval got;
  ASSERT_TRUE(b.getMtime(&got));
  EXPECT_EQ(when, got);
  ASSERT_TRUE(b.touchExisting());
  ASSERT_TRUE(b.getMtime(&got));
  EXPECT_GT(got.tv_sec, when.tv_sec);
  EXPECT_FALSE(a.touchExisting());
  EXPECT_FALSE(a.exists());  // touching never creates
  EXPECT_FALSE(a.getMtime(&got));
  EXPECT_FALSE(a.setMtime(&when));

  PathnameStat st;
  ASSERT_TRUE(b.stat(&st));
  st.setMtime(when);
  Timeval fromStat;
  st.getMtime(&fromStat);
  EXPECT_EQ(when, fromStat);
}

TEST(PathnameRenameToRetry, SucceedsAtOnceOrStopsOnAnOrdinaryError) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const Pathname a = dir / "a", b = dir / "b";
  writeFile(a, "x");
  const PathnameOpResult ok = a.renameToRetry(b, 5, ConditionWaitTimeout(0, 1000000));
  EXPECT_EQ("Rename", ok._operation);
  EXPECT_TRUE(ok._success);
  EXPECT_EQ(1u, ok._attempts);
  EXPECT_LE(ok._firstAttempt, ok._lastAttempt);
  EXPECT_TRUE(b.exists());

  const PathnameOpResult missing = a.renameToRetry(b, 5, ConditionWaitTimeout(0, 1000000));
  EXPECT_FALSE(missing._success);
  EXPECT_EQ(1u, missing._attempts);  // ENOENT is not retried
  EXPECT_EQ(ENOENT, missing._errno);
}

// The kernel is made to fail every rename with `err` (a seccomp filter in a
// child process), so the retry decisions run against real system calls.
int attemptsWhenRenameFailsWith(int err, unsigned attempts) {
  TestTempDir dir;
  const Pathname a = dir / "a";
  writeFile(a, "x");
  const pid_t pid = ::fork();
  if (pid == 0) {
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_rename, 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_renameat, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_renameat2, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K,
                 SECCOMP_RET_ERRNO | (static_cast<unsigned>(err) & SECCOMP_RET_DATA)),
    };
    struct sock_fprog prog = {static_cast<unsigned short>(sizeof(filter) / sizeof(filter[0])),
                              filter};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) ::_exit(100);
    if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog) != 0) ::_exit(101);
    const PathnameOpResult r = a.renameToRetry(dir / "b", attempts, ConditionWaitTimeout(0, 1000000));
    if (r._success || r._errno != err) ::_exit(102);
    ::_exit(static_cast<int>(r._attempts));
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(PathnameRenameToRetry, RetriesOnlyForLackOfDescriptorsOrMemory) {
  const struct { int err; int attempts; } kCases[] = {
      {ENFILE, 4}, {EMFILE, 4}, {ENOMEM, 4},  // retried until attempts run out
      {EACCES, 1}, {EXDEV, 1},  {EBUSY, 1},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.attempts, attemptsWhenRenameFailsWith(c.err, 4)) << "errno " << c.err;
  }
}

TEST(PathnameOpResult, ToStringNamesOutcomeAttemptsAndTimes) {
  PathnameOpResult r("Rename");
  r._attempts = 3;
  r._firstAttempt = Timeval();
  r._lastAttempt = Timeval::max();
  r._errno = 24;
  EXPECT_EQ("Rename failed in 3 attempt(s) made between ZERO_TIME and MAX_TIME [status code: 24]",
            r.toString());
  r._success = true;
  r._attempts = 1;
  r._lastAttempt = Timeval::min();
  EXPECT_EQ("Rename succeeded in 1 attempt(s) made between ZERO_TIME and MIN_TIME", r.toString());
}

TEST(PathnameTests, OpendirAndFopenFailOnAMissingPath) {
  TestTempDir dir;
  ASSERT_FALSE(dir.path().empty());
  errno = 0;
  EXPECT_FALSE((dir / "missing").opendir().valid());
  EXPECT_EQ(ENOENT, errno);
  EXPECT_FALSE((dir / "missing").fopen("r").valid());
  EXPECT_EQ(ENOENT, errno);
  DirectoryDescriptor d = dir.path().opendir();
  EXPECT_TRUE(d.valid());
  EXPECT_TRUE(d.close());
  EXPECT_TRUE(d.close());  // closing twice is harmless
}

}  // namespace
