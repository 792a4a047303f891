// Sizes written with a unit, as configuration files give them.
#pragma once

#include <cstdint>

#include "util/Str.h"

// Pure functions: no shared state, safe from any thread.
class UnitUtil {
 public:
  // Reads digits followed by an optional unit, case ignored: "B", "K" or
  // "KB" (1024), "M"/"MB", "G"/"GB", "T"/"TB". "100MB" is 104857600,
  // "2k" 2048, "512" 512. Blanks around the text are allowed, not inside:
  // "10 MB", "MB", "10PB", "-1KB", "1.5MB" and "" are rejected, and so is a
  // value past 64 bits. On failure returns false and leaves *out alone.
  static bool parseSizeInBytes(const Str& text, uint64_t* out);
};
