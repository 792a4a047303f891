// The date parser's scoring of pattern lists lives with the parser; until it
// is linked into util, configuration tests link against these inert stand-ins
// (they never score). Include in one file of a test program. Test code only.
#pragma once

#include "util/DateTimeRegexList.h"

#if !__has_include("util/DateParser.h")
int TimeRegexList::parse(const DateTimeRegexExtractions&, DP_parseState*) const { return -1; }
int DateRegexList::parse(const DateTimeRegexExtractions&, DP_parseState*) const { return -1; }
bool DateRegexList::valid(DP_parseState*, DateParser*) const { return false; }
#endif
