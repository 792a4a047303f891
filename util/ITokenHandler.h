// The receiver of tokens from a tokenising reader: one call per token, in
// the order the reader finds them.
#pragma once

#include "util/Str.h"

// One owner at a time: a reader feeds one handler from one thread.
class ITokenHandler {
 public:
  virtual ~ITokenHandler() = default;

  // Takes one token. The handler copies what it keeps; `token` is the
  // reader's and may change after the call.
  virtual void processToken(const Str& token) = 0;
  // As above, with a flag from the reader whose meaning belongs to the
  // reader; handlers that have no use for it take the token alone.
  virtual void processToken(const Str& token, bool /*flag*/) { processToken(token); }
};
