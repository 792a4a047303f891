// kestrod: the management daemon. Serves the management port (REST
// endpoints, the timestamp probe) until SIGTERM or SIGINT.

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "libbundle/LiteralsLoader.h"
#include "loaderinfo/LoaderInfo.h"
#include "loaderinfo/SetupHelper.h"
#include "tools/kestrod/Kestrod.h"
#include "util/MainThread.h"
#include "util/ScopedXmlLibInit.h"

namespace {

// Leaves the terminal: the parent exits at once with 0, the child goes on in
// a session of its own with its standard streams on /dev/null.
void daemonize() {
  const pid_t child = fork();
  if (child < 0) {
    perror("kestrod: fork");
    exit(1);
  }
  if (child > 0) _exit(0);
  setsid();
  const int null = open("/dev/null", O_RDWR);
  if (null >= 0) {
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    if (null > STDERR_FILENO) close(null);
  }
}

}  // namespace

int main(int argc, char** argv) {
  ScopedXmlLibInit xmlInit;
  LoaderInfo& info = LoaderInfo::getInstance();
  // Options first: --help and bad options end here, before anything starts.
  info.populateFromCommandLine(argc, argv);
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
  const size_t hung = daemon.run();
  printf("kestrod: stopped\n");
  fflush(stdout);
  // A request that outlived the shutdown's wait still runs on its thread:
  // leave without the static destructors it may still use.
  if (hung > 0) _exit(0);
  return 0;
}
