// A user's zone setting as the user gave it: a zone name or TZ text, or a
// zone resurrected from a persistent record, with a TZ value to suggest.
#pragma once

#include <memory>

#include "util/Str.h"
#include "util/Timezone.h"

class LineReader;
class Pathname;

// A plain value with one owner at a time.
class UserTimezoneSpecifier {
 public:
  // Stores `setting` as given ("Europe/Paris", "EST5EDT") and forgets any
  // resurrected zone. Nothing is loaded or checked.
  void set(const Str& setting);
  // Reads one serialized zone (Timezone::serialize lines up to "$") from
  // `in` and keeps it in place of the setting. False, with this left as it
  // was, when resurrectTimezone refuses the lines.
  bool resurrect(LineReader& in);

  const Str& setting() const { return _setting; }
  // The resurrected zone, or null. Owned here.
  const Timezone* resurrectedZone() const { return _zone.get(); }

  // Proposes a TZ value: the setting when there is one, else a POSIX rule
  // estimated from the resurrected zone around the current time. False, with
  // *out untouched, when there is neither.
  bool guessTzVariable(Pathname* out) const;

 private:
  Str _setting;
  std::unique_ptr<Timezone> _zone;
};
