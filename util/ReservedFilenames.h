// ReservedFilenames: the device names that other platforms refuse as file
// names ("CON", "NUL", "COM1".."COM9", "LPT1".."LPT9", ...), and the repair
// of names that are illegal there.
#pragma once

#include "util/Str.h"

// Pure functions over an immutable table: safe from any thread.
class ReservedFilenames {
 public:
  // True when the name's first 3 or 4 bytes are a reserved name (caseless)
  // and the name ends there or a "." follows: "con.txt", "lpt1" and
  // "COM1.log" are reserved; "console" and "lpt0" are not.
  static bool isReservedFilename(const Str& name);
  // No byte of <>:"/\|?* and not reserved.
  static bool isLegalFilename(const Str& name);
  // Makes an illegal name legal in place: each byte of <>:"/\|?* becomes
  // "_", and a name still reserved gets a "_" in front. A legal name stays.
  static void ensureLegalFilename(Str& name);
};
