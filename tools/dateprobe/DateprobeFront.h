// The entry of dateprobe apart from main itself: arguments classified, the
// back set up, and the chosen mode run, with exit statuses as the tool
// promises them.
#pragma once

#include <cstdio>
#include <exception>

#include "framework/MDateprobeBack.h"

// Runs dateprobe over argv (argc counts the program name) with `back`,
// printing everything to `out`. Calls back.initProcess() first; a list of
// arguments that asks for no mode prints the usage and returns 1 before the
// back is set up. Otherwise sets the back up for the context and runs the
// mode: test mode reads the clock once for the whole run; file mode returns
// 4 when the file cannot be opened. Returns 0 in every other case, whatever
// the tests found. Exceptions thrown by the back pass through untouched.
int runDateprobe(int argc, const char* const* argv, MDateprobeBack& back, FILE* out);

// The entry's one handler for std::exception: prints "Exception hit <what>"
// and a line feed, and returns 0, the exit status after an exception.
int reportDateprobeException(const std::exception& e, FILE* out);
