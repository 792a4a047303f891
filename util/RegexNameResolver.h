// The look-up that modular patterns use to turn a `[[name]]` reference into
// the text of the named pattern (see Regex::resolveModularPattern).
#pragma once

#include "util/Str.h"

// Implemented by whoever keeps named patterns. Regex calls resolve from the
// thread that expands a pattern, so an implementation must be safe for
// concurrent const calls if patterns are expanded on several threads.
class RegexNameResolver {
 public:
  virtual ~RegexNameResolver() = default;

  // The pattern text stored under `name`, or an empty Str when there is none.
  // An empty text and a missing name are the same to the caller.
  virtual Str resolve(const Str& name) const = 0;
};
