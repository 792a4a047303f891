// The XML libraries are set up once per process, and the benchmarks of
// several subjects share one process: each asks here.
#pragma once

#include "util/ScopedXmlLibInit.h"

// Sets the XML libraries up on first call; they stay up until exit.
inline void ensureXmlInit() {
  static ScopedXmlLibInit* init = new ScopedXmlLibInit;
  (void)init;
}
