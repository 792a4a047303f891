// RegexMatch: the groups of one Regex match, as views into the subject, and
// the readers that turn a captured group into text or a number.
#pragma once

#include <cstddef>
#include <map>

#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/StrVector.h"

class Regex;

// Every segment points into the subject that was matched, so the subject's
// bytes must outlive the match. One owner at a time; const methods may run
// concurrently.
class RegexMatch {
 public:
  RegexMatch() = default;

  // Fills the match from `offsets`: pairs of byte offsets into `subject`,
  // the whole match first, then one pair per capturing group of `regex`;
  // a group whose start is -1 took no part and gets a null segment. Does
  // nothing at all unless regex, subject and offsets are all given.
  // REQUIRES: offsets holds 2 * (regex->getCaptureCount() + 1) entries.
  void init(const Regex* regex, const char* subject, const int* offsets);
  // Back to the state of a fresh match: not valid, no regex, no groups.
  void reset();

  bool isValid() const { return _valid; }
  const Regex* getRegex() const { return _regex; }
  const char* getSubject() const { return _subject; }
  // The whole match; a null segment when not valid.
  const StrSegment& getMatch() const { return _match; }
  // Group 1 at index 0; null segments for groups that took no part.
  const StrSegmentVector& getGroups() const { return _groups; }
  // The number of capturing groups (group 0 not counted).
  size_t size() const { return _groups.size(); }

  // Group `n`, 1-based, with 0 the whole match. Throws RegexException
  // "IndexOutOfBounds Exception: idx = 2, size = 2" for n = 3 with two groups
  // (idx is n - 1).
  const StrSegment& getGroup(size_t n) const;

  // Captured group `n`, 0-based (0 is the first group, not the whole match).
  // False, with the target cleared, for an index out of range or a group
  // that took no part; an empty group that took part is true.
  bool fetch(size_t n, StrSegment* out) const;
  bool fetch(size_t n, Str* out) const;
  // Captured group `n` as a decimal number: optional blanks and tabs, for
  // the signed forms an optional "-" (blanks may follow it), digits without
  // a leading zero ("0" is fine, "05" and "00" fail), optional blanks and
  // tabs. "5", " 5 ", "-5" and "- 5" read; "+5", "5x", "" and "1 2" fail.
  // Overflow is caught for all but the last digit, which may carry the value
  // a little past the type's range: "2147483649" reads into an int as it
  // wraps. On failure the target keeps its value.
  bool fetch(size_t n, short* out) const;
  bool fetch(size_t n, int* out) const;
  bool fetch(size_t n, long* out) const;
  bool fetch(size_t n, long long* out) const;
  bool fetch(size_t n, unsigned short* out) const;
  bool fetch(size_t n, unsigned* out) const;
  bool fetch(size_t n, unsigned long* out) const;
  bool fetch(size_t n, unsigned long long* out) const;

  // The signed reader behind fetch: group `n`, 0-based, read with the limits
  // of a signed integer of `bytes` bytes. False for a bad index, a group
  // that took no part, or text that does not read; *out then keeps its value.
  // REQUIRES: 1 <= bytes <= 8.
  bool _do_signed_fetch(size_t n, long long* out, size_t bytes) const;
  // Reads an unsigned decimal, the rules as for fetch with no sign. `max`
  // bounds the value before its last digit is added (at most max / 10).
  // Writes the value to *out digit by digit, so after a failure *out may
  // hold part of it. A null segment is false.
  static bool _parse_unsigned_val(const StrSegment& segment, unsigned long long* out,
                                  unsigned long long max);

  // The named groups that took part, name to text, in name order; the target
  // is cleared first. Without a regex the target is left alone.
  void getAllGroups(std::map<Str, Str>& out) const;
  void getAllGroups(std::map<Str, StrSegment>& out) const;

 private:
  template <class T>
  bool _fetchSigned(size_t n, T* out) const;
  template <class T>
  bool _fetchUnsigned(size_t n, T* out) const;
  // The segment of a group that took part, or null.
  const StrSegment* _participating(size_t n) const;

  StrSegmentVector _groups;
  const Regex* _regex = nullptr;
  const char* _subject = nullptr;
  bool _valid = false;
  StrSegment _match{nullptr, 0};
};
