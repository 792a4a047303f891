// Timezone: one zone as a flat table of transitions, the same whatever it
// came from (a TZif file, a packed zone file, a POSIX TZ rule, a constant
// offset, a serialized record). Shared, cached zones: util/TimezoneCache.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>

#include "util/Str.h"

class FileDescriptor;
class LineReader;
class Pathname;
class StrVector;

// One offset a zone can be in. A plain record: one owner at a time.
struct TimezoneOffset {
  // What the file's indicator arrays said about the transitions into this
  // type: given in wall clock time, in standard time, or in GMT.
  enum { KIND_WALL = 0, KIND_STANDARD = 1, KIND_GMT = 2 };

  int64_t gmtoff;    // seconds east of UTC
  uint64_t abbrind;  // offset of the NUL-terminated abbreviation in the chars
  bool isdst;
  int32_t kind;  // KIND_...
};

// What reverseSearchAt found for a local time: one reading; two readings,
// the index returned and the next one (an autumn overlap); or none at all
// (a spring gap).
enum reverse_search_result_type_t {
  UNIQUE_READING = 0,
  MIGHT_ALSO_BE_NEXT_INDEX = 1,
  NO_SUCH_LOCAL_TIME = 2,
};

// One end of daylight saving in a POSIX rule. A plain record: one owner at
// a time.
class DstEndpoint {
 public:
  enum {
    JULIAN_SKIPPING_LEAP_DAY = 0,  // "Jn": day 1-365, February 29 never counted
    DOY = 1,                       // "n": day of the year from 0
    MONTH_WEEK_DAY = 2,            // "Mm.w.d"
  };

  int _type = MONTH_WEEK_DAY;
  int month = 0;      // from 0
  int week = 0;       // (week - 1) x 7
  int day = 0;        // the weekday less 11 for MONTH_WEEK_DAY, else the day
  int64_t time = 7200;  // seconds after local midnight; may be negative

  // Reads one endpoint at the start of `text`: "J1"-"J365", "M1.1.0"-
  // "M12.5.6", or "0"-"365", then an optional "/" and a time of day:
  // [+-]hh[:mm[:ss]] with hours up to 167. Returns the bytes consumed, or -1
  // with this record undefined. What follows is the caller's business:
  //   "M3.2.0,M11.1.0"  7, month 2, week 7, day -11, time 7200
  //   "J60/1:30"        8, day 59, time 5400
  //   "M3.5.0/-1"       9, time -3600 (a rule of the tz database)
  //   "J0", "M13.1.0", "M3.6.0", "366", "M3.2.0/168"   -1
  int parsePosix(const char* text);

  // Seconds from January 1, 00:00 local standard time, of the full `year`
  // to this endpoint. "M3.5.0" is the last Sunday of March; "J60" is March 1
  // in every year; DOY day 365 means day 364 outside leap years.
  long secondsFromJanuary(long year) const;
};

// Loading needs one owner at a time; a loaded zone is immutable, and its
// const methods are safe from any number of threads (getTimezone's zones
// are never changed again).
//
// Invariants after every load, successful or not: at most MAX_TRANSITIONS
// transitions, ascending; at most MAX_TYPES types; every type index below
// typecnt(); every abbrind inside chars(). Entry 0 is in force before the
// first transition as well as after it: a TZif file whose first transition
// does not start from the file's initial type gets one leading entry at
// INT64_MIN for that type.
class Timezone {
 public:
  static constexpr uint32_t MAX_TRANSITIONS = 1200;
  static constexpr uint32_t MAX_TYPES = 256;
  // constantOffset() of a zone that changes its offset.
  static constexpr int64_t NO_CONSTANT_OFFSET = 1073741824;
  // The largest offset a file or a fixed zone may have, either side of UTC:
  // one more would be taken for NO_CONSTANT_OFFSET. Real ones stay within a
  // day.
  static constexpr int64_t MAX_OFFSET = NO_CONSTANT_OFFSET - 1;
  // The span of the cycle test and the 400 Gregorian years it looks for.
  static constexpr uint32_t CYCLE_ENTRIES = 800;
  static constexpr int64_t GREGORIAN_CYCLE_SECONDS = 12622780800;
  // isSimilarTo compares this far (3660 days) on either side.
  static constexpr int64_t SIMILARITY_SPAN = 316224000;

  // A fresh zone: no transitions, no types, no constant offset, both cycle
  // flags true. Not usable until a loader succeeds.
  Timezone();

  // ---- Loaders. Each returns whether it succeeded; on failure the zone is
  // fresh again. None logs or throws. ----

  // Any name: "" is GMT; ":name" only as a path; otherwise as a path, then
  // as the zoneinfo name mapSystemZoneName gives, then as a POSIX rule, so a
  // file named like a rule ("EST5EDT") wins over the rule. Paths read
  // footers. ("Europe/Paris", ":/etc/localtime", "Eastern Standard Time",
  // "EST5EDT,M3.2.0,M11.1.0")
  bool fromPathOrPosix(const char* name);
  // A zone name, cleaned so that it stays inside the zone directories (see
  // TimezoneFiles.cpp): an absolute path must be a regular file; "localtime"
  // tries /etc/localtime first; then the zoneinfo directory set by
  // setupTimezoneSupport, the packed file beside it, and /usr/share/zoneinfo.
  bool fromZoneinfoPath(const char* name, bool useFooter);
  // `name` as it is looked up under a zone directory: split at "/", empty
  // pieces dropped; in each piece letters and digits stay, " +-.:" stay
  // except as a piece's first byte, and every other byte becomes "_". So
  // "../etc/passwd" gives "_./etc/passwd", "a\\b" gives "a_b", "//x/" gives
  // "x", and "/" gives "" (which no loader accepts).
  static Str cleanZoneName(const char* name);
  // One file, which must be regular; it is mapped, not read.
  bool fromExactZoneinfoPath(const Pathname& path, bool useFooter);
  // An open descriptor, which stays open and is only borrowed.
  bool fromZoneinfoFile(const FileDescriptor& fd, bool useFooter);
  // The bytes of a TZif file, version 1 or 2 and later. Bytes without the
  // magic go to fromAncientZoneinfoData. Refuses counts above the limits
  // (1200 transitions, 256 types, 270 abbreviation bytes, 500 leap records),
  // indicator arrays of the wrong length, bytes that do not cover the data,
  // version bytes 1-49, type indices out of range, isdst or indicator bytes
  // other than 0 and 1, abbreviations outside the chars, offsets beyond
  // MAX_OFFSET. With `useFooter`,
  // the POSIX rule at the end of a version 2+ file extends the table up to
  // 1200 transitions. Times that go backwards cut the table there.
  bool fromZoneinfoData(const char* data, unsigned long len, bool useFooter);
  // A file from before the magic: counts timecnt, typecnt, charcnt at byte
  // 32, data from byte 44 in version 1 order without indicators.
  bool fromAncientZoneinfoData(const char* data, unsigned long len);
  // The entry `name` of the packed file at `packPath` (util/
  // TimezonePackFormat.h), matched without regard to case and with "\" read
  // as "/": "AMERICA\new_york" finds "america/new_york".
  bool fromPackedZoneinfoPath(const Pathname& packPath, const char* name, bool useFooter);
  // The same over the packed file's bytes.
  bool fromPackedZoneinfoData(const char* data, unsigned long len, const char* name,
                              bool useFooter);
  // A POSIX TZ rule: a standard name ("EST" or "<+0530>") and west offset
  // ([+-]hh[:mm[:ss]], hours up to 23), optionally a daylight name, its
  // offset (default one hour east of standard) and ",start,end" (";" may
  // stand for the first ","). Without endpoints the file "posixrules" gives
  // the dates, shifted to these offsets; without that file M3.2.0,M11.1.0.
  //   "JST-9"                        constant, +9:00
  //   "EST5EDT,M3.2.0,M11.1.0"       the US rule since 2007
  //   "<-02>2<-01>,M3.5.0/-1,M10.5.0/0"
  //   "EST", "EST25", "5", "EST5EDT,M3.2.0", "EST5EDT,M3.2.0,M11.1.0x"  false
  bool fromPosixString(const char* text);
  // A fixed zone named `name`, `westOfUtc` seconds behind UTC, clamped to
  // MAX_OFFSET either way. Always true.
  bool setToConstantOffset(const char* name, long westOfUtc);
  // Two types, standard then daylight, and the endpoints of each year from
  // 1970 in time order until 1200 transitions are stored (600 years, to
  // 2569). `startEndpoint` is given in standard time, `endEndpoint` in
  // daylight time. Equal offsets make the zone constant. Always true.
  bool setToStaticDst(const char* std, const char* dst, long stdWest, long dstWest,
                      const DstEndpoint& startEndpoint, const DstEndpoint& endEndpoint);
  // UTC as "GMT", of kind KIND_GMT. Always true.
  bool setToGmt();
  // The lines that serialize() writes. Refuses an unknown first character,
  // a malformed number, more than 256 types or 1200 transitions, a "Z" with
  // types, no "$" at the end, no type, neither transitions nor a constant
  // offset, times that go backwards and type indices out of range.
  bool setFromSerializedData(const StrVector& lines);

  // ---- Queries ----

  // The last transition at or before `t`; 0 when there is none or the table
  // is empty.
  unsigned long searchAt(long t) const;
  // The transition in force at the local time `local`, with *result telling
  // whether the reading is unique, ambiguous (the returned entry and the
  // next both fit) or impossible (the entry before the gap is returned).
  // Never fails: local times too far out for any offset give 0 or the last
  // entry.
  unsigned long reverseSearchAt(long local, reverse_search_result_type_t* result) const;
  // The type of a unique reading of `local`. For an ambiguous one, the
  // reading whose isdst agrees with `isdst` (0 or positive); null when
  // `isdst` is negative, when both readings agree on isdst, or when the
  // local time does not exist.
  const TimezoneOffset* offsetFromReverseSearch(long local, int isdst) const;
  // The zone's constant offset; failing that the one offset in use by every
  // transition from `from` to `to`; else NO_CONSTANT_OFFSET.
  long constantOffset(long from, long to) const;
  // The offset of the latest transition of that daylight flag, else of the
  // latest one at all; 0 without transitions, even where the zone has a
  // constant offset (ask constantOffset for that).
  long offsetSeconds(bool dst) const;
  // Stores tm_isdst, tm_gmtoff and tm_zone from `type`. tm_zone points into
  // this zone, which must outlive the tm.
  void setStructTmMetadata(tm* out, const TimezoneOffset* type) const;
  // Whether both zones read the same within SIMILARITY_SPAN of `t`: equal
  // constantOffset over the span, and then equal abbreviations at `t` for
  // constant zones, or the same transitions (time, abbreviation, offset,
  // daylight flag) for the others.
  bool isSimilarTo(const Timezone& other, long t) const;
  // A POSIX TZ text that reads like this zone in the year after `t`:
  // "EST5EDT,M3.2.0,M11.1.0" for New York, "<+0530>-5:30" for a constant
  // zone whose abbreviation is not letters. Only a suggestion for users.
  Str estimatedTzVariable(long t) const;
  // Appends the serialized lines to `out` (see TimezoneSerialize.cpp).
  void serialize(StrVector& out) const;

  // ---- The table ----
  uint32_t timecnt() const { return _timecnt; }
  uint32_t typecnt() const { return _typecnt; }
  // Whether the first (last) CYCLE_ENTRIES transitions repeat: entry 800
  // (the last) has the type of entry 0 (the one 800 before it) and comes
  // exactly GREGORIAN_CYCLE_SECONDS later. Both false for 800 transitions
  // or fewer; a yearly rule sets both.
  bool firstCycle() const { return _firstCycle; }
  bool lastCycle() const { return _lastCycle; }
  // The abbreviations, each ending in a NUL.
  const Str& chars() const { return _chars; }
  // Transition i's instant. REQUIRES: i < timecnt().
  int64_t transitionTime(unsigned long i) const;
  // The type in force from transition `index` on (the first type when the
  // table is empty). REQUIRES: index < timecnt(), or index 0.
  const TimezoneOffset* typeAt(unsigned long index) const;
  // Type i. REQUIRES: i < typecnt().
  const TimezoneOffset& type(unsigned long i) const;
  // The type's abbreviation, "" if it has none.
  const char* abbreviation(const TimezoneOffset* type) const;
  bool hasConstantOffset() const { return _constantOffset != NO_CONSTANT_OFFSET; }
  long constantOffset() const { return _constantOffset; }

 private:
  // Back to the fresh state.
  void internal_reset();
  // Appends a type with its abbreviation; false when types or `maxChars`
  // would overflow.
  bool internal_addType(int64_t gmtoff, bool isdst, int32_t kind, const char* abbrev,
                        size_t maxChars);
  // Reads the six TZif counts at `counts` and the data block at `block`
  // (4-byte times when `timeSize` is 4, 8-byte when 8), which must end by
  // `limit`. Sets *end past the block.
  bool internal_readTzifBlock(const char* counts, const char* block, const char* limit,
                              size_t timeSize, bool requireTypes, const char** end);
  // Makes entry 0 stand for the time before the first transition too.
  void internal_coverTimeBeforeFirstTransition();
  // Appends the footer rule's later transitions and its two types.
  void internal_applyFooter(const char* footer, size_t len);
  // fromPosixString; without `allowPosixRules` (footers) a rule without
  // dates takes M3.2.0,M11.1.0 and never reads posixrules.
  bool internal_fromPosixString(const char* text, bool allowPosixRules);
  // Replaces the zone by posixrules' dates at the given offsets and names.
  bool internal_fromPosixRules(const char* std, const char* dst, long stdWest, long dstWest);
  // Ordering, cycle flags and constant offset of a freshly read table.
  void internal_finishLoad();
  // Cuts the table at the first time below its predecessor.
  void checkZoneinfoOrdered();
  void computeCycleFlags();
  void computeZoneinfoConstantOffset();
  // Whether `utc` falls into the span of entry `i`.
  bool internal_holds(unsigned long i, long utc) const;

  uint32_t _timecnt;
  uint32_t _typecnt;
  bool _firstCycle;
  bool _lastCycle;
  int64_t _times[MAX_TRANSITIONS];
  uint8_t _typeIndex[MAX_TRANSITIONS];
  TimezoneOffset _types[MAX_TYPES];
  Str _chars;
  int64_t _constantOffset;
};

// Appends zone->serialize() to `out`; a null zone appends nothing.
void serializeTimezone(const Timezone* zone, StrVector& out);
// Reads serialized lines up to and including "$" and loads them. Null when
// the lines run out first, a line is refused or there are more lines than
// any zone writes.
std::unique_ptr<Timezone> resurrectTimezone(LineReader& in);
