#include "util/ThreadException.h"

#include <cerrno>

#include "util/Logger.h"
#include "util/Str.h"
#include "util/Thread.h"

namespace {

Logger gLogger("Thread");

}  // namespace

void ThreadException::check(int result, const char* call) {
  if (result != 0) internal_fail(result, call, true);
}

void ThreadException::checkNoLog(int result, const char* call) {
  if (result != 0) internal_fail(result, call, false);
}

void ThreadException::internal_fail(int result, const char* call, bool log) {
  Str text;
  Logger::format(text, result, "%s: about to throw a ThreadException: %s: %m; %u threads active",
                 Thread::currentName().c_str(), call, Thread::approximateThreadCount());
  if (log && !Thread::mainThreadIsDying()) gLogger.warn("%s", text.c_str());
  errno = result;
  throw ThreadException(text);
}
