#include "util/Decompressor.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <vector>

#include "util/Logger.h"
#include "util/PathnameVector.h"

extern char** environ;

namespace {

Logger gLogger("Decompressor");

// The feeding thread's copy buffer.
const size_t FEED_BUFFER_SIZE = 65536;

}  // namespace

Decompressor::Decompressor(const Pathname& path, const Str& command)
    : Thread("Decompressor %s", path.c_str()), _path(path), _command(command) {
  _file = path.openReadOnly();
  if (!_file.valid()) {
    internal_fail("Error opening file: %s: %m", path.c_str());
    return;
  }
  if (!forkCommand()) return;
  _started = true;
  go();
}

Decompressor::~Decompressor() {
  if (!_closed) close();
}

void Decompressor::internal_fail(const char* fmt, ...) {
  const int saved = errno;
  va_list args;
  va_start(args, fmt);
  Logger::vformat(_error, saved, fmt, args);
  va_end(args);
  gLogger.error("%s", _error.c_str());
  errno = saved;
}

bool Decompressor::forkCommand() {
  int in[2], out[2];
  if (::pipe2(in, O_CLOEXEC) != 0) {
    internal_fail("Failed to setup pipes");
    return false;
  }
  _toCommand = FileDescriptor(in[1]);
  ScopedFileDescriptor childIn{FileDescriptor(in[0])};
  if (::pipe2(out, O_CLOEXEC) != 0) {
    internal_fail("Failed to setup pipes");
    return false;
  }
  _fromCommand = FileDescriptor(out[0]);
  ScopedFileDescriptor childOut{FileDescriptor(out[1])};

  PathnameVector words;
  Pathname(_command).splitShellQuotedInto(words);
  if (words.empty()) {
    errno = ENOENT;
    internal_fail("Failed to start external process");
    return false;
  }
  std::vector<char*> argv;
  for (Pathname& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  // The child starts with SIGPIPE at its default and nothing blocked,
  // whatever this thread has set.
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, childIn.fd(), 0);
  posix_spawn_file_actions_adddup2(&actions, childOut.fd(), 1);
  posix_spawnattr_init(&attr);
  sigset_t none, pipeOnly;
  sigemptyset(&none);
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &pipeOnly);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid;
  const int rc = posix_spawnp(&pid, argv[0], &actions, &attr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    errno = rc;
    internal_fail("Failed to start external process");
    return false;
  }
  _pid = pid;
  return true;
}

void Decompressor::main() {
  // A command that quits early must give this thread EPIPE, not end the
  // process.
  sigset_t pipeOnly;
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeOnly, nullptr);

  std::vector<char> buf(FEED_BUFFER_SIZE);
  for (;;) {
    const ssize_t n = _file.read(buf.data(), buf.size());
    if (n < 0) {
      Logger::format(_feedError, "Error reading compressed data from file '%s': %m", _path.c_str());
      gLogger.error("%s", _feedError.c_str());
      break;
    }
    if (n == 0) break;
    if (_toCommand.write(buf.data(), static_cast<size_t>(n)) != n) {
      if (!_stopping.load()) {
        Logger::format(_feedError, "Error sending compressed data to '%s': %m", _command.c_str());
        gLogger.error("%s", _feedError.c_str());
      }
      break;
    }
  }
  _toCommand.close_saveErrno();
}

ssize_t Decompressor::read(void* buf, unsigned long n) {
  if (!_fromCommand.valid()) {
    errno = EBADF;
    return -1;
  }
  ssize_t rv;
  do {
    rv = ::read(_fromCommand.fd(), buf, n);
  } while (rv < 0 && errno == EINTR);
  if (rv < 0) {
    internal_fail("Error reading decompressed data from '%s': %m", _command.c_str());
  } else if (rv == 0 && n > 0) {
    _sawEnd = true;
  }
  return rv;
}

bool Decompressor::handleProcessStatus(int status, bool stoppedEarly) {
  Str why;
  if (WIFEXITED(status)) {
    if (WEXITSTATUS(status) == 0) return true;
    why.format("exited with status %d", WEXITSTATUS(status));
  } else if (WIFSIGNALED(status)) {
    const int sig = WTERMSIG(status);
    if (stoppedEarly && (sig == SIGPIPE || sig == SIGTERM)) return true;
    why.format("killed by signal %d (%s)", sig, strsignal(sig));
  } else {
    why.format("ended with status 0x%x", status);
  }
  _error.format("Error decompressing '%s' with command '%s': %s", _path.c_str(), _command.c_str(),
                why.c_str());
  gLogger.error("%s", _error.c_str());
  return false;
}

bool Decompressor::close() {
  if (_closed) return _error.empty();
  _closed = true;
  const bool stoppedEarly = !_sawEnd;
  _stopping = stoppedEarly;
  _fromCommand.close_saveErrno();
  if (_pid > 0 && stoppedEarly) ::kill(_pid, SIGTERM);
  if (_started) join();
  _toCommand.close_saveErrno();
  _file.close_saveErrno();
  bool ok = _error.empty();
  if (_pid > 0) {
    int status = 0;
    pid_t got;
    do {
      got = ::waitpid(_pid, &status, 0);
    } while (got < 0 && errno == EINTR);
    if (got == _pid) {
      if (!handleProcessStatus(status, stoppedEarly) ) ok = false;
    }
  }
  if (!_feedError.empty()) {
    if (ok) _error = _feedError;
    ok = false;
  }
  return ok;
}

bool Decompressor::decompress(const Pathname& path, const Str& command, Str& out,
                              unsigned long limit, Str& error) {
  out.clear();
  error.clear();
  Decompressor d(path, command);
  if (!d.valid()) {
    error.format("Error spawning command '%s' to decompress '%s': %s", command.c_str(), path.c_str(),
                 d.error().c_str());
    return false;
  }
  std::vector<char> buf(FEED_BUFFER_SIZE);
  while (out.size() < limit) {
    const ssize_t n = d.read(buf.data(), std::min<unsigned long>(buf.size(), limit - out.size()));
    if (n < 0) {
      error = d.error();
      d.close();
      return false;
    }
    if (n == 0) break;
    out.append(buf.data(), static_cast<size_t>(n));
  }
  if (!d.close()) {
    error = d.error();
    return false;
  }
  return true;
}
