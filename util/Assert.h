// Contract checks. A failed check prints the expression's own text, with
// where it stood, to standard error and ends the process: a broken invariant
// is never an outcome that callers handle. Checks stay on in every build.
#pragma once

[[noreturn]] void kestroAssertFailed(const char* expr, const char* file, int line,
                                     const char* func);

// kassert(cond): ends the process with "Assertion failed: <cond text>" when
// cond is false. The text is the macro argument as written, so the message
// reads as the invariant itself ("codepoint >= 0x80").
#define kassert(cond)                                                  \
  ((cond) ? static_cast<void>(0)                                       \
          : kestroAssertFailed(#cond, __FILE__, __LINE__, __func__))
