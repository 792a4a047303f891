// EventLoopException: the failure of a descriptor operation that the event
// loop cannot go on without (fcntl on a descriptor it polls, epoll).
#pragma once

#include <stdexcept>
#include <string>

// Immutable once thrown; safe to read from any thread.
class EventLoopException : public std::runtime_error {
 public:
  explicit EventLoopException(const std::string& what) : std::runtime_error(what) {}
};
