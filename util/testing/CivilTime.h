// Test code only: civil times through the C library's UTC calendar (timegm,
// gmtime_r), the oracle of the date and zone tests, and broken-down times
// as one line of text so that a single comparison shows every field.
#pragma once

#include <cstdio>
#include <ctime>
#include <string>

// The instant of a UTC civil time, month 1-12. Fields out of range are
// normalised as timegm does: day 0 is the previous month's last day.
inline long civilUtc(long year, int month, int day, int hour = 0, int minute = 0,
                     int second = 0) {
  tm t{};
  t.tm_year = static_cast<int>(year - 1900);
  t.tm_mon = month - 1;
  t.tm_mday = day;
  t.tm_hour = hour;
  t.tm_min = minute;
  t.tm_sec = second;
  return timegm(&t);
}

// The UTC breakdown of `t`.
inline tm utcFields(long t) {
  const time_t at = t;
  tm out{};
  gmtime_r(&at, &out);
  return out;
}

// "2009-02-13 23:31:30 wday 5 yday 43": the calendar fields of `t`.
inline std::string civilFields(const tm& t) {
  char text[96];
  std::snprintf(text, sizeof text, "%d-%02d-%02d %02d:%02d:%02d wday %d yday %d",
                t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
                t.tm_wday, t.tm_yday);
  return text;
}

// civilFields followed by " dst 1 -14400 EDT": the zone fields as well.
inline std::string civilFieldsAndZone(const tm& t) {
  return civilFields(t) + " dst " + std::to_string(t.tm_isdst) + " " +
         std::to_string(t.tm_gmtoff) + " " + (t.tm_zone != nullptr ? t.tm_zone : "(null)");
}
