#include "util/ChildProcess.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cassert>
#include <vector>

namespace {

int64_t monotonicMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void closeIfOpen(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

}  // namespace

ChildProcessOutcome ChildProcess::run(const StrVector& argv, const Str& input, int timeLimitSec) {
  assert(!argv.empty());
  ChildProcessOutcome outcome;
  int in[2], out[2], report[2];
  // Standard input is a socket so that a write after the child closed it
  // fails with EPIPE (MSG_NOSIGNAL) instead of raising SIGPIPE here.
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, in) != 0) {
    outcome.error.format("socketpair: %s", strerror(errno));
    return outcome;
  }
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(report, O_CLOEXEC) != 0) {
    outcome.error.format("pipe: %s", strerror(errno));
    ::close(in[0]);
    ::close(in[1]);
    return outcome;
  }
  std::vector<char*> args;
  for (const Str& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);

  const pid_t pid = fork();
  if (pid == 0) {
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    signal(SIGPIPE, SIG_DFL);
    execvp(args[0], args.data());
    const int err = errno;
    (void)!write(report[1], &err, sizeof(err));
    _exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  ::close(report[1]);
  if (pid < 0) {
    outcome.error.format("fork: %s", strerror(errno));
    ::close(in[1]);
    ::close(out[0]);
    ::close(report[0]);
    return outcome;
  }
  int execErr = 0;
  const bool execFailed = read(report[0], &execErr, sizeof(execErr)) == sizeof(execErr);
  ::close(report[0]);

  int toChild = in[1];
  int fromChild = out[0];
  fcntl(toChild, F_SETFL, O_NONBLOCK);
  size_t written = 0;
  if (input.empty()) closeIfOpen(toChild);
  const int64_t deadline = monotonicMs() + static_cast<int64_t>(timeLimitSec) * 1000;
  char buffer[8192];
  while (fromChild >= 0) {
    const int64_t left = deadline - monotonicMs();
    if (left <= 0) {
      kill(pid, SIGKILL);
      outcome.timedOut = true;
      break;
    }
    struct pollfd fds[2];
    nfds_t n = 0;
    fds[n++] = {fromChild, POLLIN, 0};
    if (toChild >= 0) fds[n++] = {toChild, POLLOUT, 0};
    if (poll(fds, n, static_cast<int>(left)) < 0) {
      if (errno == EINTR) continue;
      kill(pid, SIGKILL);
      outcome.error.format("poll: %s", strerror(errno));
      break;
    }
    if (n > 1 && fds[1].revents != 0) {
      // A child that closed its input makes the send fail with EPIPE; the
      // rest of the input is then simply not delivered.
      const ssize_t w =
          ::send(toChild, input.data() + written, input.size() - written, MSG_NOSIGNAL);
      if (w > 0) written += static_cast<size_t>(w);
      if ((w < 0 && errno != EAGAIN && errno != EINTR) || written == input.size()) {
        closeIfOpen(toChild);
      }
    }
    if (fds[0].revents != 0) {
      const ssize_t r = ::read(fromChild, buffer, sizeof(buffer));
      if (r > 0) {
        outcome.output.append(buffer, static_cast<size_t>(r));
      } else if (r == 0 || (errno != EINTR && errno != EAGAIN)) {
        closeIfOpen(fromChild);
      }
    }
  }
  closeIfOpen(toChild);
  closeIfOpen(fromChild);
  // The child may outlive its output; it still gets no more than its time.
  int status = 0;
  for (;;) {
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid || (done < 0 && errno != EINTR)) break;
    if (done == 0 && monotonicMs() >= deadline && !outcome.timedOut) {
      kill(pid, SIGKILL);
      outcome.timedOut = true;
    }
    if (done == 0) usleep(5000);
  }
  if (execFailed) {
    outcome.error.format("cannot run %s: %s", argv[0].c_str(), strerror(execErr));
    return outcome;
  }
  outcome.started = true;
  if (WIFEXITED(status)) outcome.exitStatus = WEXITSTATUS(status);
  if (outcome.timedOut) {
    outcome.error.format("%s ran past %d s and was killed", argv[0].c_str(), timeLimitSec);
  }
  return outcome;
}
