// The process-wide polling method can only be chosen before the first loop:
// these tests run in a binary of their own, where no loop came before.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "util/EventLoop.h"
#include "util/EventLoopException.h"
#include "util/PolledFd.h"
#include "util/SelfPipe.h"

namespace {

// Makes the system call `nr` fail with `err` for the rest of the process,
// through a seccomp filter; with `arg1` not -1, only the calls whose second
// argument (its low 32 bits) is `arg1`, which spares the sanitizers' own
// pipes. For death-test children only.
void failSyscall(long nr, int err, long arg1 = -1) {
  const unsigned char matchArg = arg1 == -1 ? 0 : 1;
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(nr), 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(arg1), 0, matchArg),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (static_cast<unsigned>(err) & SECCOMP_RET_DATA)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog prog{static_cast<unsigned short>(sizeof(filter) / sizeof(filter[0])), filter};
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog) != 0) {
    std::perror("seccomp");
    std::exit(3);
  }
}

// Runs `fn` and exits 2 after printing what it threw, 1 when it returned.
template <class F>
[[noreturn]] void exitWithThrown(F fn) {
  try {
    fn();
  } catch (const EventLoopException& e) {
    std::fprintf(stderr, "%s\n", e.what());
    std::exit(2);
  }
  std::exit(1);
}

struct Member : PolledFd {
  bool when_events(PollableDescriptor) override { return false; }
};

// The first test of the binary: no loop exists yet.
TEST(EnableFastPoll, SwitchesToEpollBeforeTheFirstLoop) {
  ASSERT_TRUE(EventLoop::epoll_works());
  EXPECT_EQ(EventLoop::USE_REGULAR_POLL, EventLoop_FASTPOLL_METHOD_var);
  EventLoop::enableFastPoll();
  EXPECT_EQ(EventLoop::USE_EPOLL, EventLoop_FASTPOLL_METHOD_var);
  EventLoop loop;
  EXPECT_EQ(EventLoop::USE_EPOLL, loop.method());
}

// The death tests run first, so each makes its loops in the child alone,
// a fresh process (the "threadsafe" style re-runs the binary for the one
// test).
TEST(EnableFastPollDeathTest, AfterTheFirstLoopItIsTooLate) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        EventLoop loop(EventLoop::USE_REGULAR_POLL);
        EventLoop::enableFastPoll();
      },
      "Assertion failed: !too_late_to_enable_fastpoll");
}

TEST(EnableFastPollDeathTest, WithoutEpollItQuietlyStaysWithPoll) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        failSyscall(SYS_epoll_create, ENOSYS);
        const bool works = EventLoop::epoll_works();
        EventLoop::enableFastPoll();
        EventLoop loop(EventLoop::USE_EPOLL);  // falls back as well
        std::exit(!works && EventLoop_FASTPOLL_METHOD_var == EventLoop::USE_REGULAR_POLL &&
                          loop.method() == EventLoop::USE_REGULAR_POLL
                      ? 0
                      : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(EnableFastPollDeathTest, FailedSystemCallsThrowEventLoopException) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        EventLoop loop(EventLoop::USE_EPOLL);  // epoll works until it is cut off
        failSyscall(SYS_epoll_create, EMFILE);
        Member m;
        exitWithThrown([&] { loop.add(&m, PollableDescriptor(0)); });
      },
      ::testing::ExitedWithCode(2),
      "about to throw a EventLoopException: error from epoll_create: Too many open files");
  EXPECT_EXIT(
      {
        failSyscall(SYS_pipe2, EMFILE, O_NONBLOCK | O_CLOEXEC);
        exitWithThrown([] { SelfPipe pipe; });
      },
      ::testing::ExitedWithCode(2), "can't create pipe: Too many open files");
  EXPECT_EXIT(
      {
        EventLoop loop(EventLoop::USE_EPOLL);
        failSyscall(SYS_epoll_wait, EINVAL);
        exitWithThrown([&] { loop.run(); });
      },
      ::testing::ExitedWithCode(2), "error from EventLoop epoll_wait: Invalid argument");
  EXPECT_EXIT(
      {
        EventLoop loop(EventLoop::USE_REGULAR_POLL);
        failSyscall(SYS_poll, ENOMEM);
        exitWithThrown([&] { loop.run(); });
      },
      ::testing::ExitedWithCode(2), "error from EventLoop poll: Cannot allocate memory");
}

}  // namespace
