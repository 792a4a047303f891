// PathnameOpResult: the outcome of a retried file operation, with the count
// of attempts and when the first and the last were made.
#pragma once

#include <cstdint>

#include "util/Str.h"
#include "util/Timeval.h"

// A plain record, filled by the operation that retries. One owner at a time.
class PathnameOpResult {
 public:
  explicit PathnameOpResult(const Str& operation) : _operation(operation) {}

  // "<op> succeeded in <n> attempt(s) made between <first> and <last>", or
  // "<op> failed in ... and <last> [status code: <errno>]", the times by
  // Timeval::asctime.
  Str toString() const;

  Str _operation;
  bool _success = false;
  int32_t _errno = 0;
  unsigned _attempts = 0;
  Timeval _firstAttempt;
  Timeval _lastAttempt;
};
