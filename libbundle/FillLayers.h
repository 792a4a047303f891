// fillLayersImpl: one context string turned into one merged PropertiesMap,
// the layers taken from a configuration cache in precedence order.
#pragma once

#include "util/StrSegment.h"

class IConfCache;
class PropertiesMap;

// The stanza whose settings are always the last layer: "default".
extern const char DEFAULT_STANZA[];
// Priorities of a stanza without a "priority" setting, by how it applies.
constexpr unsigned long long EXACT_STANZA_PRIORITY = 100;
constexpr unsigned long long PATTERN_STANZA_PRIORITY = 0;

// Adds to `out`, as layers (PropertiesMap::addLayerTo, so keys already in
// `out` stay), every stanza of `cache` that applies to `context`.
// `context` is split at every "|", empty pieces kept ("" is one context,
// the empty string). For each piece in order, the stanza named exactly so
// applies with priority 100, and with `patternMatch` every stanza whose
// pattern (getRegexPatternFromFilePattern) matches the whole piece with
// priority 0; a "priority" setting in the stanza (unsigned decimal; text
// that is no number counts as absent) replaces those. Within a piece the
// layers go by RegexMatchKey: source type (getSource), then priority, then
// name. Last comes "default", without its permissions and expanded name.
// So the precedence of one key is: earlier piece; higher source type;
// higher priority; lower name; "default".
//   "a|b", both set k, b with priority 500 in a user's layer: a's k wins.
// Holds the cache's lock (ScopedIConfCacheLock) throughout, so the result
// is taken from one state of the cache. Logs at debug level, channel
// "PropertyPages", "Performing pattern matching for: <context>" and per
// layer "Pattern '<name>' matches with lowest priority" (priority 0) or
// "... with priority <n>". Never fails: a context that matches nothing
// gets only "default", an empty cache nothing.
void fillLayersImpl(IConfCache& cache, PropertiesMap* out, const StrSegment& context,
                    bool patternMatch);
