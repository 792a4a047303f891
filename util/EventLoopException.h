// The failures of the event loop and of the descriptors it polls: an epoll
// or fcntl call the loop cannot go on without, a broken self-pipe, a socket
// that refuses a mode it needs.
#pragma once

#include <stdexcept>
#include <string>

// Each class below has the same shape. `make(errnum, text)` builds
// "<thread>: about to throw a <Class>: <text>: <strerror(errnum)>", logs it
// as a warning on the channel "EventLoop", sets errno to `errnum` and throws
// the exception with that same text. Immutable once thrown; safe to read
// from any thread.
class EventLoopException : public std::runtime_error {
 public:
  explicit EventLoopException(const std::string& what) : std::runtime_error(what) {}
  [[noreturn]] static void make(int errnum, const char* text);
};

// The loop's wake-up pipe failed: "error from selfpipe read", "invalid
// return from selfpipe read".
class SelfPipeException : public std::runtime_error {
 public:
  explicit SelfPipeException(const std::string& what) : std::runtime_error(what) {}
  [[noreturn]] static void make(int errnum, const char* text);
};

// A socket operation that has no ordinary failure result failed.
class PollableDescriptorException : public std::runtime_error {
 public:
  explicit PollableDescriptorException(const std::string& what) : std::runtime_error(what) {}
  [[noreturn]] static void make(int errnum, const char* text);
};
