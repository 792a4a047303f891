// Stanza names as patterns over a context string: "source::/var/log/*.log"
// applies to every file it matches, "host::web*" to every host it matches
// in any case; and RegexMatchKey, the order in which matching stanzas
// become layers.
#pragma once

#include "libbundle/PropertySourceType.h"
#include "util/Str.h"

class Regex;

// The compiled pattern of stanza `name`, or null when the name is no
// pattern and applies only by exact name:
//   "access*"               null: no "::", so no pattern whatever it holds
//   "source::/var/x.log"    null: no "*" and no "..." after the "::"
//   "source::/var/*.log"    "source::/var/[^/]*\.log"
//   "source::/var/....log"  "source::/var/.*\.log": "..." crosses "/"
//   "host::web01"           "host::(?i)web01": host names ignore case, so
//                           a host stanza is a pattern even without a
//                           wildcard
// The text after "::" goes through XMLAndStringUtil::toRegex, so regular
// expression syntax in it stays active. Match it with Regex::matchesWhole:
// a pattern must cover the whole context. A pattern that does not compile
// gives an empty Regex, which never matches.
//
// Each name is compiled once per process: the Regex lives in a process-wide
// map under a read-write lock (lookup as a reader, insert as a writer; of
// two threads that compile the same name at once, the second's is
// dropped) and is never freed, so the pointer stays valid for the life of
// the process. A first compilation logs at info level "Expanded file
// pattern <name> into <regex>" on the channel "StanzaPattern".
// `pageFlag` is the page's kind (false for "props") and changes nothing.
// Safe from any thread.
const Regex* getRegexPatternFromFilePattern(const Str& name, bool pageFlag);

// The sort key of one stanza that applies to a context. Sorted so that the
// first key is the first layer: higher source type first, then higher
// priority, then the stanza name ascending bytewise. A plain value.
struct RegexMatchKey {
  PropertySourceType sourceType;
  unsigned long long priority;
  Str stanzaName;

  bool operator<(const RegexMatchKey& other) const {
    if (sourceType != other.sourceType) return sourceType > other.sourceType;
    if (priority != other.priority) return priority > other.priority;
    return stanzaName < other.stanzaName;
  }
};
