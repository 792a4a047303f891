#include "util/Assert.h"

#include <cstdio>
#include <cstdlib>

void kestroAssertFailed(const char* expr, const char* file, int line, const char* func) {
  std::fprintf(stderr, "%s:%d: %s: Assertion failed: %s\n", file, line, func, expr);
  std::fflush(stderr);
  std::abort();
}
