#include "util/DateTime.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "util/Assert.h"
#include "util/SaturatingMath.h"
#include "util/Timeval.h"
#include "util/Timezone.h"

namespace {

long floorDiv(long a, long b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0)) ? 1 : 0); }

int floorMod7(long a) { return static_cast<int>(a - floorDiv(a, 7) * 7); }

int isoWeeksInYear(long year) {
  const int jan1 = StructTm::weekdayOfJanuaryFirst(year);
  return jan1 == 4 || (jan1 == 3 && StructTm::isLeapYear(year)) ? 53 : 52;
}

// The ISO 8601 year and week of a consistent tm: week 1 is the one that
// holds the year's first Thursday.
void isoYearAndWeek(const tm& t, long* year, int* week) {
  const int daysSinceMonday = (t.tm_wday + 6) % 7;
  *year = t.tm_year + 1900L;
  *week = (t.tm_yday - daysSinceMonday + 10) / 7;
  if (*week < 1) {
    --*year;
    *week = isoWeeksInYear(*year);
  } else if (*week > isoWeeksInYear(*year)) {
    ++*year;
    *week = 1;
  }
}

bool copyZoneName(const char* name, char* buffer, size_t size) {
  if (name == nullptr || *name == '\0' || size == 0) return false;
  const size_t len = std::min(std::strlen(name), size - 1);
  std::memcpy(buffer, name, len);
  buffer[len] = '\0';
  return true;
}

// The GMT view's renderer slots.
long gmtToEpoch(const render_tm_ops*, const StructTm* t) {
  tm copy = *t;
  return timegm(&copy);
}
bool gmtTzname(const render_tm_ops*, const StructTm*, char* buffer, size_t size) {
  return copyZoneName("GMT", buffer, size);
}
long gmtOffset(const render_tm_ops*, const StructTm*) { return 0; }

// The local view's renderer slots, shared by StructTmInTimezone with no zone.
long localToEpoch(const render_tm_ops*, const StructTm* t) {
  tm copy = *t;
  return mktime(&copy);
}
bool localTzname(const render_tm_ops*, const StructTm* t, char* buffer, size_t size) {
  return copyZoneName(t->tm_zone, buffer, size);
}
long localOffset(const render_tm_ops*, const StructTm* t) {
  if (t->tm_isdst >= 0) return t->tm_gmtoff;
  tm copy = *t;
  return mktime(&copy) == -1 ? 0 : copy.tm_gmtoff;
}

constexpr render_tm_ops GMT_RENDER_OPS = {&gmtToEpoch, &gmtTzname, &gmtOffset};
constexpr render_tm_ops LOCAL_RENDER_OPS = {&localToEpoch, &localTzname, &localOffset};

// timegm of a copy of the fields, normalised into *out; false when the
// platform refuses them (a result of -1 alone is 1969-12-31 23:59:59).
bool normalisedTimegm(const tm& fields, tm* out, long* t) {
  *out = fields;
  errno = 0;
  const time_t r = timegm(out);
  if (r == -1 && errno != 0) return false;
  *t = r;
  return true;
}

}  // namespace

StructTm::StructTm() : tm{} {}

bool StructTm::isLeapYear(long year) {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

int StructTm::weekdayOfJanuaryFirst(long year) {
  const long y = year - 1;
  return floorMod7(y + floorDiv(y, 4) - floorDiv(y, 100) + floorDiv(y, 400) + 1);
}

bool StructTm::GMT_fromUnixTime(long t) {
  if (t > MAX_BREAKDOWN_TIME) return false;
  const time_t tt = t;
  tm result;
  if (gmtime_r(&tt, &result) == nullptr) return false;
  *static_cast<tm*>(this) = result;
  return true;
}

bool StructTm::Local_fromUnixTime(long t) {
  if (t > MAX_BREAKDOWN_TIME) return false;
  const time_t tt = t;
  tm result;
  if (localtime_r(&tt, &result) == nullptr) return false;
  *static_cast<tm*>(this) = result;
  return true;
}

bool StructTm::isLeapYear() const { return isLeapYear(tm_year + 1900L); }

bool StructTm::mdayValidForMonth() const {
  if (tm_mon < 0 || tm_mon > 11) return false;
  const int* days = isLeapYear() ? DAYS_IN_MONTH_LEAP : DAYS_IN_MONTH;
  return tm_mday >= 1 && tm_mday <= days[tm_mon];
}

void StructTm::setToLastMday() {
  if (tm_mon >= 0 && tm_mon <= 11) tm_mday = DAYS_IN_MONTH[tm_mon];
}

bool StructTm::addCalendarMonths(int n) {
  if (tm_mon < 0 || tm_mon > 11) return false;
  const long magnitude = n < 0 ? -static_cast<long>(n) : n;
  long year = tm_year;
  long mon = tm_mon;
  if (n >= 0) {
    year += magnitude / 12;
    mon += magnitude % 12;
    if (mon > 11) {
      mon -= 12;
      ++year;
    }
  } else {
    year -= magnitude / 12;
    mon -= magnitude % 12;
    if (mon < 0) {
      mon += 12;
      --year;
    }
  }
  if (year >= 1100 || year < INT_MIN) return false;
  const bool leap = isLeapYear(year + 1900);
  const int* days = leap ? DAYS_IN_MONTH_LEAP : DAYS_IN_MONTH;
  tm_year = static_cast<int>(year);
  tm_mon = static_cast<int>(mon);
  if (tm_mday > days[mon]) tm_mday = days[mon];
  tm_yday = CUMULATIVE_DAYS[mon] + (leap && mon > 1 ? 1 : 0) + tm_mday - 1;
  tm_wday = floorMod7(weekdayOfJanuaryFirst(year + 1900) + static_cast<long>(tm_yday));
  return true;
}

int StructTm::yearISO8601() const {
  long year;
  int week;
  isoYearAndWeek(*this, &year, &week);
  return static_cast<int>(year);
}

int StructTm::yearWeekISO8601() const {
  long year;
  int week;
  isoYearAndWeek(*this, &year, &week);
  return week;
}

int StructTm::yearWeekFromMonday() const {
  return tm_wday == 0 ? (tm_yday + 1) / 7 : (tm_yday - tm_wday + 8) / 7;
}

int StructTm::yearWeekFromSunday() const { return (tm_yday - tm_wday + 7) / 7; }

Str StructTm::asctime() const {
  char buffer[64];
  if (asctime_r(this, buffer) == nullptr) return Str();
  Str text(buffer);
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

Str StructTm::strftime(const char* fmt) const {
  Str out;
  appendFtime(out, fmt);
  return out;
}

void StructTm::appendFtime(Str& out, const char* fmt) const {
  if (*fmt == '\0') return;
  const size_t start = out.size();
  // strftime answers 0 both for "too small" and for an empty result, so the
  // buffer grows to a bound and an output that never appears counts as empty.
  for (size_t room = 128; room <= (size_t{1} << 20); room *= 2) {
    out.resize(start + room);
    const size_t n = ::strftime(&out[start], room, fmt, this);
    if (n > 0) {
      out.resize(start + n);
      return;
    }
  }
  out.resize(start);
}

void StructTm::setToRangeLimit(bool low) {
  tm_sec = low ? 0 : 59;
  tm_min = low ? 0 : 59;
  tm_hour = low ? 0 : 23;
  tm_mday = low ? 1 : 31;
  tm_mon = low ? 0 : 11;
  tm_year = low ? 0 : 8099;
  tm_wday = low ? 1 : 5;
  tm_yday = low ? 0 : 364;
  tm_isdst = -1;
}

long GmtStructTm::toUnixTime() { return timegm(this); }

void GmtStructTm::setToNow() {
  const bool ok = GMT_fromUnixTime(Timeval::now().tv_sec);
  kassert(ok);
}

const render_tm_ops* GmtStructTm::getRenderOps() const { return &GMT_RENDER_OPS; }

long LocalStructTm::toUnixTime() { return mktime(this); }

void LocalStructTm::setToNow() {
  const bool ok = Local_fromUnixTime(Timeval::now().tv_sec);
  kassert(ok);
}

const render_tm_ops* LocalStructTm::getRenderOps() const { return &LOCAL_RENDER_OPS; }

void LocalStructTmHires::setToNow() {
  const Timeval now = Timeval::now();
  const bool ok = Local_fromUnixTime(now.tv_sec);
  kassert(ok);
  microseconds = static_cast<uint64_t>(now.tv_usec);
}

StructTmInTimezone::StructTmInTimezone(const Timezone* zone) : impl{} { setTimezone(zone); }

void StructTmInTimezone::setTimezone(const Timezone* zone) {
  if (zone == nullptr) {
    static_cast<render_tm_ops&>(impl) = LOCAL_RENDER_OPS;
  } else {
    impl.to_epoch = &impl_to_epoch;
    impl.get_tzname = &impl_get_tzname;
    impl.tz_sec_offset = &impl_tz_sec_offset;
  }
  impl.timezone = zone;
}

bool StructTmInTimezone::fromUnixTime(long t) {
  const Timezone* zone = impl.timezone;
  if (zone == nullptr) return Local_fromUnixTime(t);
  const TimezoneOffset* type = zone->typeAt(zone->searchAt(t));
  const long local = saturatingAdd(t, type->gmtoff);
  if (local >= -86399 && local <= -1) {
    // The last day of 1969 in the zone, broken down by its time of day.
    if (!GMT_fromUnixTime(local + 86400)) return false;
    tm_mday = 31;
    tm_mon = 11;
    tm_year = 69;
    tm_wday = 3;
    tm_yday = 364;
  } else if (!GMT_fromUnixTime(local)) {
    return false;
  }
  zone->setStructTmMetadata(this, type);
  return true;
}

long StructTmInTimezone::toUnixTime() {
  const Timezone* zone = impl.timezone;
  if (zone == nullptr) return mktime(this);
  tm fields;
  long local;
  if (!normalisedTimegm(*this, &fields, &local)) return -1;
  const TimezoneOffset* type = zone->offsetFromReverseSearch(local, tm_isdst);
  if (type == nullptr) return -1;
  static_cast<tm&>(*this) = fields;
  zone->setStructTmMetadata(this, type);
  return saturatingSub(local, type->gmtoff);
}

long StructTmInTimezone::impl_to_epoch(const render_tm_ops* ops, const StructTm* t) {
  StructTmInTimezone copy(static_cast<const ZoneOps*>(ops)->timezone);
  static_cast<tm&>(copy) = *t;
  return copy.toUnixTime();
}

bool StructTmInTimezone::impl_get_tzname(const render_tm_ops*, const StructTm* t, char* buffer,
                                         size_t size) {
  return copyZoneName(t->tm_zone, buffer, size);
}

long StructTmInTimezone::impl_tz_sec_offset(const render_tm_ops* ops, const StructTm* t) {
  if (t->tm_isdst >= 0) return t->tm_gmtoff;
  const Timezone* zone = static_cast<const ZoneOps*>(ops)->timezone;
  if (zone->hasConstantOffset()) return zone->constantOffset();
  tm fields;
  long local;
  if (!normalisedTimegm(*t, &fields, &local)) return 0;
  const TimezoneOffset* type = zone->offsetFromReverseSearch(local, t->tm_isdst);
  return type != nullptr ? type->gmtoff : 0;
}
