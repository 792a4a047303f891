// The one substitution of environment variables into configured text: paths
// in settings ("$KESTRO_HOME/etc/datetime.xml"), configuration roots and
// expanded stanza names all go through it.
// Reads the process environment, which is written only on the main thread
// before others start; safe from any thread after that.
#pragma once

#include <cstddef>

#include "util/Str.h"
#include "util/StrSegment.h"

// Replaces `out` with `in`, each variable reference replaced by the value of
// that environment variable, and returns the number of references replaced.
// A reference is "$NAME" (the longest run of letters, digits and "_" that
// does not start with a digit) or "${NAME}" (the same name inside braces).
// An unset variable gives the empty text, so "$UNSET" alone gives "". A
// value is inserted as it stands and never rescanned.
// Everything else is copied unchanged, including a "$" that starts no
// reference: "$5.00", "a$", "$-x", "${}", "${a b}" and an unclosed "${HOME"
// stay as written. There is no escape; text that must keep "$NAME" cannot
// go through here.
// Examples, with HOME=/home/k and UNSET unset:
//   "$HOME/x"      "/home/k/x"
//   "${HOME}x"     "/home/kx"
//   "$HOMEx"       ""          (the name is HOMEx, which is unset)
//   "a$UNSET/b"    "a/b"
// `in` may view out's own bytes: substituting a Str into itself works.
size_t substituteEnvironmentVariables(const StrSegment& in, Str& out);
