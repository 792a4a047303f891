// ExtraTimevalParseInfo: what a timestamp parse learned besides the instant
// (precision, zone, the local reading's fields), kept by event records next
// to their time.
#pragma once

#include <cstdint>

class LocalStructTmHires;

// A plain record, one owner at a time. Fields in their stored order.
struct ExtraTimevalParseInfo {
  // Subsecond digits found. 0: seconds but no fraction; -1: no seconds;
  // -2: no time of day; -3: the clock's time (the parser's CURRENT mode).
  int32_t subsecDigits = 0;
  // True when the zone came from the text or an explicit setting, false when
  // it was only the default zone.
  bool timezoneKnown = false;
  // Seconds east of UTC of the local reading.
  int64_t tzOffset = 0;
  // The local reading: full year, month 0-11, day of month, weekday (0 is
  // Sunday), hour 0-23, minute, second.
  int32_t year = 0;
  int32_t month = 0;
  int32_t mday = 0;
  int32_t wday = 0;
  int32_t hour = 0;
  int32_t minute = 0;
  int32_t second = 0;

  // Fills the reading from the UTC time `t`, with timezoneKnown true and
  // tzOffset 0; subsecDigits is left alone. A time the GMT breakdown refuses
  // reads as the end of the range on its side (StructTm::setToRangeLimit).
  void fromGmtUnixtime(long t);
  // Fills everything from a local breakdown: subsecDigits 6, timezoneKnown
  // false, tzOffset from its timezoneOffsetSeconds.
  void set(const LocalStructTmHires& t);
};
