#include "util/TimeWarnings.h"

#include <cstdarg>

#include "util/Logger.h"

namespace {

Logger gLogger(TIME_WARNING_CHANNEL);

}  // namespace

void logTimeWarning(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  gLogger.vlog(LOGLEVEL_WARN, fmt, args);
  va_end(args);
}
