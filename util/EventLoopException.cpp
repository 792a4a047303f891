#include "util/EventLoopException.h"

#include <cerrno>

#include "util/Logger.h"
#include "util/Str.h"
#include "util/Thread.h"

namespace {

Logger gLogger("EventLoop");

// The one text of all three classes, logged before the throw.
Str announce(const char* className, int errnum, const char* text) {
  Str out;
  Logger::format(out, errnum, "%s: about to throw a %s: %s: %m", Thread::currentName().c_str(),
                 className, text);
  gLogger.warn("%s", out.c_str());
  errno = errnum;
  return out;
}

}  // namespace

void EventLoopException::make(int errnum, const char* text) {
  throw EventLoopException(announce("EventLoopException", errnum, text));
}

void SelfPipeException::make(int errnum, const char* text) {
  throw SelfPipeException(announce("SelfPipeException", errnum, text));
}

void PollableDescriptorException::make(int errnum, const char* text) {
  throw PollableDescriptorException(announce("PollableDescriptorException", errnum, text));
}
