#include "util/SignalHandler.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "util/EventLoopException.h"

namespace {

// The pipe's write end, for the catcher, which may not take locks.
std::atomic<int> gWriteFd{-1};

void onSignal(int signal) {
  const int saved = errno;
  const unsigned char byte = static_cast<unsigned char>(signal);
  const int fd = gWriteFd.load(std::memory_order_relaxed);
  if (fd >= 0) {
    ssize_t n;
    do {
      n = ::write(fd, &byte, 1);
    } while (n < 0 && errno == EINTR);
  }
  errno = saved;
}

}  // namespace

SignalHandler::SignalHandler() { gWriteFd.store(writeEnd().fd()); }

SignalHandler& SignalHandler::instance() {
  static SignalHandler* handler = new SignalHandler();
  return *handler;
}

bool SignalHandler::catchSignal(int signal) {
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  return sigaction(signal, &action, nullptr) == 0;
}

bool SignalHandler::releaseSignal(int signal) {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  return sigaction(signal, &action, nullptr) == 0;
}

void SignalHandler::registerHandler(MSignalHandler* handler, int priority) {
  ScopedLock hold(_mutex);
  std::erase_if(_handlers, [handler](const Entry& e) { return e.handler == handler; });
  const Entry entry{priority, _nextSerial++, handler};
  auto at = std::upper_bound(_handlers.begin(), _handlers.end(), entry,
                             [](const Entry& a, const Entry& b) {
                               return a.priority != b.priority ? a.priority < b.priority
                                                               : a.serial < b.serial;
                             });
  _handlers.insert(at, entry);
}

void SignalHandler::unregisterHandler(MSignalHandler* handler) {
  ScopedLock hold(_mutex);
  std::erase_if(_handlers, [handler](const Entry& e) { return e.handler == handler; });
}

void SignalHandler::deliver(int signal) {
  ScopedLock hold(_mutex);
  for (const Entry& e : _handlers) e.handler->handleSignal(signal);
}

bool SignalHandler::when_events(PollableDescriptor fd) {
  for (;;) {
    unsigned char bytes[64];
    const ssize_t n = ::read(fd.fd(), bytes, sizeof bytes);
    if (n > 0) {
      for (ssize_t i = 0; i < n; i++) deliver(bytes[i]);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN) SelfPipeException::make(errno, "error from selfpipe read");
    return false;
  }
}
