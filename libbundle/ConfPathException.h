// The exceptions of the configuration store: failures of configuration
// level, each carrying the text of its log line.
#pragma once

#include <stdexcept>
#include <string>

// What the store throws for a failure of configuration level: a write that
// cannot be done, a path that cannot be parsed.
class ConfPathException : public std::runtime_error {
 public:
  explicit ConfPathException(const std::string& what) : std::runtime_error(what) {}
};
// No bundle accepts writes for a path (toMapperPath or getCreateMapper failed).
class ConfPathHasNoWriter : public ConfPathException {
 public:
  explicit ConfPathHasNoWriter(const std::string& what) : ConfPathException(what) {}
};
// The acting user may not change or remove what a path names.
class ConfPathPermissionException : public ConfPathException {
 public:
  explicit ConfPathPermissionException(const std::string& what) : ConfPathException(what) {}
};
