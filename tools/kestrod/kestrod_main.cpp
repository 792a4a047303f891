// kestrod: the management daemon. Serves the management port (REST
// endpoints, the timestamp probe) until SIGTERM or SIGINT.

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/wait.h>
#include <stdlib.h>
#include <unistd.h>

#include "libbundle/LiteralsLoader.h"
#include "loaderinfo/LoaderInfo.h"
#include "loaderinfo/SetupHelper.h"
#include "tools/kestrod/Kestrod.h"
#include "util/MainThread.h"
#include "util/ScopedXmlLibInit.h"

namespace {

// The write end of the pipe on which a daemonized child tells its waiting
// parent that it serves; -1 in the foreground.
int readyFd = -1;

// Leaves the terminal in a child of a session of its own. The parent waits
// until the child serves (exit 0) or ends (the child's status), so that the
// shell sees a failed start-up; the child keeps standard output and error
// until then, so that its messages reach the terminal.
void daemonize() {
  int ready[2];
  if (pipe(ready) != 0) {
    perror("kestrod: pipe");
    exit(1);
  }
  const pid_t child = fork();
  if (child < 0) {
    perror("kestrod: fork");
    exit(1);
  }
  if (child > 0) {
    close(ready[1]);
    char c;
    ssize_t n;
    do {
      n = read(ready[0], &c, 1);
    } while (n < 0 && errno == EINTR);
    if (n == 1) _exit(0);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
  }
  close(ready[0]);
  // Programs the daemon runs must not hold the parent.
  fcntl(ready[1], F_SETFD, FD_CLOEXEC);
  readyFd = ready[1];
  setsid();
  const int null = open("/dev/null", O_RDONLY);
  if (null >= 0) {
    dup2(null, STDIN_FILENO);
    if (null > STDERR_FILENO) close(null);
  }
}

// Once serving: lets the parent go and drops the terminal's streams.
void detachFromTerminal() {
  if (readyFd < 0) return;
  fflush(stdout);
  fflush(stderr);
  const int null = open("/dev/null", O_RDWR);
  if (null >= 0) {
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    if (null > STDERR_FILENO) close(null);
  }
  const char c = 'r';
  ssize_t n;
  do {
    n = write(readyFd, &c, 1);
  } while (n < 0 && errno == EINTR);
  close(readyFd);
  readyFd = -1;
}

}  // namespace

int main(int argc, char** argv) {
  ScopedXmlLibInit xmlInit;
  LoaderInfo& info = LoaderInfo::getInstance();
  // Options first: --help and bad options end here, before anything starts.
  info.populateFromCommandLine(argc, argv);
  // A port is 16 bits: a larger or negative number would be served
  // truncated, on a port nobody asked for.
  if (info.getPort() < 0 || info.getPort() > 65535) {
    fprintf(stderr, "kestrod: port %s is out of range (0-65535)\n", info.getPortStr().c_str());
    return 8;
  }
  // The log files' directory must be there before logging opens them.
  info.populateFromEnvironment();
  if (!info.getKestroHome().empty()) {
    (info.getKestroHome() / "var" / "log" / "kestro").mkdir_p(Pathname::MKDIR_ALL);
  }
  // Before any thread starts.
  if (info.getDaemon()) daemonize();
  installLiteralsLoader();
  SetupHelper::initCommon(false, info.getUseDebugLog() ? "log-debug.cfg" : "log.cfg");
  MainThread mainThread;
  Kestrod daemon(info.getKestroHome(), info.getPort());
  Str error;
  if (!daemon.start(&error)) {
    fprintf(stderr, "kestrod: %s\n", error.c_str());
    return 1;
  }
  printf("kestrod: serving on %s\n", daemon.url().c_str());
  fflush(stdout);
  detachFromTerminal();
  const size_t hung = daemon.run();
  printf("kestrod: stopped\n");
  fflush(stdout);
  // A request that outlived the shutdown's wait still runs on its thread:
  // leave without the static destructors it may still use.
  if (hung > 0) _exit(0);
  return 0;
}
