// The built-in functions of the eval language, each a node class. Calls
// that do not fit (too few arguments: "Missing arguments"; too many, or a
// type that cannot work: "Invalid function argument") fail at type check.
// A value that does not fit at run time gives null.
//
//   if(c, a, b)              a when c is true, b when false, null otherwise
//   case(c1, v1, c2, v2...)  the v of the first true c; null when none is
//   coalesce(a, b...)        the first argument that is not null
//   len(s)                   characters (UTF-8) of the text
//   lower(s), upper(s)       case-folded text, Unicode-aware
//   substr(s, start[, n])    n characters from start (1 is the first;
//                            negative counts from the end); to the end
//                            without n
//   tonumber(s[, base])      s read in base 2 to 36 (10 by default: any
//                            decimal number); null when it does not read
//   tostring(x[, "hex"|"commas"])  the text of x; "hex" writes an integer
//                            as 0x..., "commas" groups thousands and keeps
//                            two decimals
//   round(x[, d])            rounded half away from zero to d decimals
//   abs(x)                   the magnitude
//   isnull(x), isnum(x)      whether x is null, a number
//   strftime(t, fmt)         epoch seconds t in the context's zone through
//                            the time format engine
//   strptime(s, fmt)         the epoch seconds of s read with fmt; null
//                            when it does not read
#pragma once

#include "util/EvalNode.h"
#include "util/Str.h"

// A new node for the function `name` with no children, or null when no
// built-in function has that name.
NonLeafEvaluatorNode* createBuiltinEvalFunction(const Str& name);
