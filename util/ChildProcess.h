// Runs a program as a child process with a text on its standard input and
// collects its standard output, within a time limit. The seam through which
// the server runs external scripts.
#pragma once

#include "util/Str.h"
#include "util/StrVector.h"

struct ChildProcessOutcome {
  bool started = false;  // false: no child (pipe or fork failed, exec failed)
  bool timedOut = false;  // killed (SIGKILL) at the time limit
  int exitStatus = -1;    // the exit status; -1 unless it exited normally
  Str output;             // everything it wrote to standard output
  Str error;              // why it did not start or finish, for messages
};

// Safe from any thread; each call has its own child.
class ChildProcess {
 public:
  // Runs argv[0] (looked up in PATH when it has no "/") with `argv`, writes
  // `input` to its standard input and closes it, and reads its standard
  // output until it ends. Standard error is the caller's. A child still
  // running `timeLimitSec` seconds after the start is killed. A child that
  // does not read its input does not block the call: what it left unread
  // is dropped. REQUIRES: !argv.empty().
  static ChildProcessOutcome run(const StrVector& argv, const Str& input, int timeLimitSec);
};
