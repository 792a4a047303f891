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

// A fresh directory, with the umask out of the way so that creation modes
// show as asked; the old mask comes back whatever happens.
class PathnameOps : public ::testing::Test {
 protected:
  void SetUp() override { _oldMask = ::umask(0); }
  void TearDown() override { ::umask(_oldMask); }

  TestTempDir _dir;
  mode_t _oldMask = 022;
};
using PathnameOpen = PathnameOps;
using PathnameMkdir = PathnameOps;

TEST_F(PathnameOpen, CreatedFilesGetTheirModeBits) {
  typedef FileDescriptor (Pathname::*CreateOp)(Pathname::CreateMode) const;
  const struct { const char* name; CreateOp op; } kOps[] = {
      {"openReadWriteOrCreate", &Pathname::openReadWriteOrCreate},
      {"openCreateOrAppend", &Pathname::openCreateOrAppend},
      {"openCreateOrReplace", &Pathname::openCreateOrReplace},
      {"openCreateOnly", &Pathname::openCreateOnly},
  };
  const struct { Pathname::CreateMode cm; mode_t bits; } kModes[] = {
      {Pathname::CREATE_NORMAL, 0644}, {Pathname::CREATE_PRIVATE, 0600},
      {Pathname::CREATE_READONLY, 0440}};
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

// Each opener over an existing file (its flags, and what writing "AB" does)
// and over a missing one (created, or ENOENT and nothing made).
TEST_F(PathnameOpen, FlagsAndMissingFilesOfEachOpenOperation) {
  const Pathname p = _dir / "f";
  typedef std::function<FileDescriptor(const Pathname&)> Opener;
  const auto n = Pathname::CREATE_NORMAL;
  const struct {
    const char* name;
    Opener open;
    int accmode;
    bool append, nonblock, creates;
    const char* contentAfterWritingAB;  // nullptr: writing fails
  } kCases[] = {
      {"openReadOnly", [](const Pathname& q) { return q.openReadOnly(); }, O_RDONLY, false,
       false, false, nullptr},
      {"openReadOnlySafer", [](const Pathname& q) { return q.openReadOnlySafer(); }, O_RDONLY,
       false, true, false, nullptr},
      {"openReadOnlySequential", [](const Pathname& q) { return q.openReadOnlySequential(); },
       O_RDONLY, false, false, false, nullptr},
      {"openReadOnlyRandom", [](const Pathname& q) { return q.openReadOnlyRandom(); }, O_RDONLY,
       false, false, false, nullptr},
      {"openReadWriteExisting", [](const Pathname& q) { return q.openReadWriteExisting(); },
       O_RDWR, false, false, false, "AB23456789"},
      {"openWriteOnlyExisting", [](const Pathname& q) { return q.openWriteOnlyExisting(); },
       O_WRONLY, false, false, false, "AB23456789"},
      {"openReadWriteOrCreate", [n](const Pathname& q) { return q.openReadWriteOrCreate(n); },
       O_RDWR, false, false, true, "AB23456789"},
      {"openCreateOrAppend", [n](const Pathname& q) { return q.openCreateOrAppend(n); },
       O_WRONLY, true, false, true, "0123456789AB"},
      {"openCreateOrReplace", [n](const Pathname& q) { return q.openCreateOrReplace(n); },
       O_WRONLY, false, false, true, "AB"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    writeTestFile(p, "0123456789");
    FileDescriptor fd = c.open(p);
    ASSERT_TRUE(fd.valid());
    const int flags = ::fcntl(fd.fd(), F_GETFL);
    EXPECT_EQ(c.accmode, flags & O_ACCMODE);
    EXPECT_EQ(c.append, (flags & O_APPEND) != 0);
    EXPECT_EQ(c.nonblock, (flags & O_NONBLOCK) != 0);
    errno = 0;
    const ssize_t wrote = fd.write("AB", 2);
    fd.close();
    const bool writes = c.contentAfterWritingAB != nullptr;
    EXPECT_EQ(writes ? 2 : -1, wrote);
    if (!writes) {
      EXPECT_EQ(EBADF, errno);
    }
    EXPECT_EQ(writes ? c.contentAfterWritingAB : "0123456789", readTestFile(p));

    const Pathname missing = _dir / (std::string("missing-") + c.name);
    errno = 0;
    ScopedFileDescriptor m(c.open(missing));
    EXPECT_EQ(c.creates, m.valid());
    if (!c.creates) {
      EXPECT_EQ(ENOENT, errno);
    }
    EXPECT_EQ(c.creates, missing.exists());
  }
  // A missing directory on the way fails the creating ones too.
  EXPECT_FALSE((_dir / "no/such").openCreateOrReplace(n).valid());
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(PathnameOpen, CreateOnlyIsExclusive) {
  const Pathname p = _dir / "once";
  ASSERT_TRUE(p.openCreateOnly(Pathname::CREATE_NORMAL).close());
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
  writeTestFile(src, "data");
  ASSERT_TRUE(src.chmod(0751));
  ::umask(077);  // the copied mode must not be cut by the umask
  for (const char* leaf : {"fresh", "existing"}) {
    const Pathname dst = _dir / leaf;
    if (std::string(leaf) == "existing") writeTestFile(dst, "old contents");
    ScopedFileDescriptor in(src.openReadOnly());
    ScopedFileDescriptor out(dst.openCreateOrReplace(FileDescriptor(in)));
    ASSERT_TRUE(out.valid()) << leaf;
    EXPECT_EQ(0751u, modeOf(dst)) << leaf;
    EXPECT_EQ("", readTestFile(dst)) << leaf;  // truncated
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

TEST_F(PathnameMkdir, ModesAndEdgeCases) {
  const struct { Pathname::MkdirMode mode; mode_t bits; } kCases[] = {
      {Pathname::MKDIR_PRIVATE, 0700}, {Pathname::MKDIR_GROUP, 0770},
      {Pathname::MKDIR_ALL, 0777}, {Pathname::MKDIR_PUBLIC, 0755}};
  for (const auto& c : kCases) {
    const Pathname d = _dir / ("d" + std::to_string(c.mode)) / "x" / "y";
    ASSERT_TRUE(d.mkdir_p(c.mode)) << c.mode;
    EXPECT_EQ(c.bits, modeOf(d)) << c.mode;
    EXPECT_EQ(c.bits, modeOf(d.toParent())) << c.mode;  // parents share the mode
  }
  errno = 0;
  EXPECT_FALSE((_dir / "d0").mkdir(Pathname::MKDIR_PRIVATE));
  EXPECT_EQ(EEXIST, errno);

  const auto priv = Pathname::MKDIR_PRIVATE;
  EXPECT_TRUE(Pathname("/").mkdir_p(priv));
  EXPECT_TRUE(Pathname("//").mkdir_p(priv));
  EXPECT_TRUE(_dir.path().mkdir_p(priv));  // already there
  EXPECT_TRUE((_dir / "a/b/c///").mkdir_p(priv));
  EXPECT_EQ(2, (_dir / "a/b/c").getFileType());
  const Pathname file = _dir / "file";
  writeTestFile(file, "x");
  // The file in the way is met as itself, and as a parent that is no directory.
  for (const Pathname& p : {file, file / "sub/deeper"}) {
    errno = 0;
    EXPECT_FALSE(p.mkdir_p(priv)) << p;
    EXPECT_EQ(EEXIST, errno) << p;
  }
}

// Several threads create the same deep tree at once; every one must see
// success, whoever wins each mkdir.
TEST_F(PathnameMkdir, ConcurrentCreatorsOfOneTreeAllSucceed) {
  constexpr int kThreads = 6;
  for (int round = 0; round < 20; ++round) {
    Pathname deep = _dir / ("r" + std::to_string(round));
    for (int depth = 0; depth < 25; ++depth) deep /= ("d" + std::to_string(depth));
    std::atomic<int> ready{0}, succeeded{0};
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

TEST_F(PathnameOps, FileTypesAndSizes) {
  writeTestFile(_dir / "file", "hello");
  writeTestFile(_dir / "empty", "");
  ASSERT_TRUE((_dir / "sub").mkdir(Pathname::MKDIR_PRIVATE));
  ASSERT_TRUE((_dir / "tofile").symlinkTo(_dir / "file"));
  ASSERT_TRUE((_dir / "dangling").symlinkTo(_dir / "missing"));
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
    const Pathname p = _dir / c.leaf;
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

TEST_F(PathnameOps, SizeOnDiskCountsAllocatedBlocks) {
  const Pathname sparse = _dir / "sparse";
  writeTestFile(sparse, "");
  ASSERT_TRUE(sparse.truncate(64L << 20));
  long size = 0, onDisk = -1;
  ASSERT_TRUE(sparse.getSize(&size));
  ASSERT_TRUE(sparse.getSizeOnDisk(&onDisk));
  EXPECT_EQ(64L << 20, size);
  EXPECT_LT(onDisk, size);  // a hole takes no blocks
  EXPECT_EQ(0, onDisk % 512);
}

TEST_F(PathnameOps, FilesystemBytesFreeAgreesWithTheStandardLibrary) {
  unsigned long long free = 0;
  ASSERT_TRUE(_dir.path().filesystemBytesFree(&free));
  const auto space = std::filesystem::space(std::string(_dir.path()));
  // Others write to the same disk meanwhile: agree to within 256 MB.
  const double diff = static_cast<double>(free) - static_cast<double>(space.available);
  EXPECT_LT(std::abs(diff), 256.0 * 1024 * 1024);
}

TEST_F(PathnameOps, LinksRealpathAndCwd) {
  const std::string longTarget(1500, 'x');  // longer than readlink's first guess
  const Pathname link = _dir / "link";
  ASSERT_TRUE(link.symlinkTo(Pathname(longTarget)));
  Pathname back;
  ASSERT_TRUE(link.readlink(back));
  EXPECT_EQ(longTarget, back);
  errno = 0;
  EXPECT_FALSE(link.symlinkTo(Pathname("other")));
  EXPECT_EQ(EEXIST, errno);
  writeTestFile(_dir / "file", "x");
  EXPECT_FALSE((_dir / "file").readlink(back));
  EXPECT_EQ(EINVAL, errno);

  ASSERT_TRUE((_dir / "sub").mkdir(Pathname::MKDIR_PRIVATE));
  Pathname real;
  ASSERT_TRUE((_dir / "sub/./../sub").realpath(real));
  EXPECT_EQ(std::filesystem::canonical(std::string(_dir / "sub")).string(), real);
  Pathname inPlace = _dir / "sub/..";
  ASSERT_TRUE(inPlace.realpathInPlace());
  EXPECT_EQ(std::filesystem::canonical(std::string(_dir.path())).string(), inPlace);
  Pathname untouched("keep");
  EXPECT_FALSE((_dir / "missing").realpath(untouched));
  EXPECT_EQ("keep", untouched);

  Pathname cwd;
  ASSERT_TRUE(Pathname::cwd(cwd));
  EXPECT_EQ(std::filesystem::current_path().string(), cwd);
}

TEST_F(PathnameOps, RemovalOperationsAndTheirFailures) {
  const Pathname file = _dir / "f", sub = _dir / "d";
  writeTestFile(file, "x");
  writeTestFile(sub / "inner", "y");
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
  EXPECT_FALSE(file.exists());
}

TEST_F(PathnameOps, RenameAndTimes) {
  const Pathname a = _dir / "a", b = _dir / "b";
  writeTestFile(a, "payload");
  ASSERT_TRUE(a.renameTo(b));
  EXPECT_FALSE(a.exists());
  EXPECT_EQ("payload", readTestFile(b));

  const Timeval when(1234567890, 250000);
  ASSERT_TRUE(b.setMtime(&when));
  Timeval got;
  ASSERT_TRUE(b.getMtime(&got));
  EXPECT_EQ(when, got);
  ASSERT_TRUE(b.touchExisting());
  ASSERT_TRUE(b.getMtime(&got));
  EXPECT_GT(got.tv_sec, when.tv_sec);

  PathnameStat st;
  ASSERT_TRUE(b.stat(&st));
  st.setMtime(when);
  Timeval fromStat;
  st.getMtime(&fromStat);
  EXPECT_EQ(when, fromStat);
}

// Every operation on a path that is not there fails with ENOENT, and
// creates nothing.
TEST_F(PathnameOps, OperationsOnAMissingPathFailWithENOENT) {
  const Pathname missing = _dir / "missing";
  long size = 0;
  unsigned long long free = 0;
  Timeval t(5, 0);
  const struct { const char* name; std::function<bool()> op; } kCases[] = {
      {"getSizeOnDisk", [&] { return missing.getSizeOnDisk(&size); }},
      {"truncate", [&] { return missing.truncate(0); }},
      {"filesystemBytesFree", [&] { return missing.filesystemBytesFree(&free); }},
      {"remove", [&] { return missing.remove(); }},
      {"renameTo", [&] { return missing.renameTo(_dir / "b"); }},
      {"touchExisting", [&] { return missing.touchExisting(); }},
      {"getMtime", [&] { return missing.getMtime(&t); }},
      {"setMtime", [&] { return missing.setMtime(&t); }},
      {"opendir", [&] { return missing.opendir().valid(); }},
      {"fopen", [&] { return missing.fopen("r").valid(); }},
  };
  for (const auto& c : kCases) {
    errno = 0;
    EXPECT_FALSE(c.op()) << c.name;
    EXPECT_EQ(ENOENT, errno) << c.name;
    EXPECT_FALSE(missing.exists()) << c.name;
  }
  DirectoryDescriptor d = _dir.path().opendir();
  EXPECT_TRUE(d.valid());
  EXPECT_TRUE(d.close());
  EXPECT_TRUE(d.close());  // closing twice is harmless
}

TEST_F(PathnameOps, RenameToRetrySucceedsAtOnceOrStopsOnAnOrdinaryError) {
  const Pathname a = _dir / "a", b = _dir / "b";
  writeTestFile(a, "x");
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
  writeTestFile(a, "x");
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

}  // namespace
