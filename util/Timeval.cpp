#include "util/Timeval.h"

#include <sys/time.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "util/Assert.h"
#include "util/DateTime.h"
#include "util/TimeWarnings.h"

namespace {

constexpr int64_t USEC_PER_SEC = 1000000;
// Seconds from 1601-01-01, the record form's epoch, to 1970-01-01.
constexpr uint64_t EPOCH_1601_OFFSET = 11644473600ULL;
constexpr uint64_t MAX_RECORD_SECONDS = 0xffffffffffULL;
constexpr int64_t MAX_RECORD_NSEC = 999999999;
constexpr char BASE32_DIGITS[] = "0123456789ABCDEFGHIJKLMNOPQRSTUV";
constexpr char ZERO_WORD[] = "zNULLzTIMEzzzz";
constexpr char MIN_WORD[] = "zMINzTIMEzzzzz";
constexpr char MAX_WORD[] = "zMAXzTIMEzzzzz";

void readSystemClock(Timeval* now) {
  struct timeval tv;
  const int rc = gettimeofday(&tv, nullptr);
  kassert(rc == 0);
  now->tv_sec = tv.tv_sec;
  now->tv_usec = tv.tv_usec;
}

std::atomic<TimevalClock> gClock{&readSystemClock};

// The carry and borrow steps. The parameter keeps the name `_tv` because the
// assertion texts, which the design fixes, are written against it.
void addSecondsAndUsec(Timeval& _tv, int64_t sec, int64_t usec) {
  if (__builtin_add_overflow(_tv.tv_sec, sec, &_tv.tv_sec)) {
    _tv = Timeval::max();
    return;
  }
  _tv.tv_usec += usec;
  kassert(_tv.tv_usec < 2000000);
  if (_tv.tv_usec >= USEC_PER_SEC) {
    _tv.tv_usec -= USEC_PER_SEC;
    if (__builtin_add_overflow(_tv.tv_sec, 1, &_tv.tv_sec)) _tv = Timeval::max();
  }
}

void subtractSecondsAndUsec(Timeval& _tv, int64_t sec, int64_t usec) {
  if (__builtin_sub_overflow(_tv.tv_sec, sec, &_tv.tv_sec)) {
    _tv = Timeval::min();
    return;
  }
  _tv.tv_usec -= usec;
  kassert(_tv.tv_usec >= -1000000);
  if (_tv.tv_usec < 0) {
    _tv.tv_usec += USEC_PER_SEC;
    if (__builtin_sub_overflow(_tv.tv_sec, 1, &_tv.tv_sec)) _tv = Timeval::min();
  }
}

int64_t clampedUsec(int64_t usec) {
  return usec < 0 ? 0 : (usec >= USEC_PER_SEC ? USEC_PER_SEC - 1 : usec);
}

// a - b as whole seconds and microseconds 0..999999; false past 64 bits.
bool splitDifference(const Timeval& a, const Timeval& b, int64_t* sec, int64_t* usec) {
  if (__builtin_sub_overflow(a.tv_sec, b.tv_sec, sec)) return false;
  *usec = a.tv_usec - b.tv_usec;
  if (*usec < 0) {
    *usec += USEC_PER_SEC;
    return !__builtin_sub_overflow(*sec, 1, sec);
  }
  return true;
}

int64_t saturatedDifference(const Timeval& a, const Timeval& b, int64_t unitsPerSec) {
  int64_t sec, usec, scaled, result;
  const int64_t extreme = a < b ? INT64_MIN : INT64_MAX;
  if (!splitDifference(a, b, &sec, &usec) || __builtin_mul_overflow(sec, unitsPerSec, &scaled) ||
      __builtin_add_overflow(scaled, usec / (USEC_PER_SEC / unitsPerSec), &result)) {
    return extreme;
  }
  return result;
}

// The fallback of every local breakdown: a sensible zone from time 0, then
// the end of the range on the side of `t`.
template <class LocalView>
void clampLocal(LocalView* out, long t, const char* what) {
  logTimeWarning("%s(%lld) failed!", what, static_cast<long long>(t));
  out->fromUnixTime(0);
  out->setToRangeLimit(t < 0);
}

}  // namespace

TimevalClock setTimevalClock(TimevalClock clock) {
  return gClock.exchange(clock != nullptr ? clock : &readSystemClock);
}

void Timeval::setToNow() { gClock.load()(this); }

void Timeval::addUsec(unsigned long long usec) {
  addSecondsAndUsec(*this, usec / USEC_PER_SEC, usec % USEC_PER_SEC);
}
void Timeval::addMsec(unsigned long long msec) {
  addSecondsAndUsec(*this, msec / 1000, (msec % 1000) * 1000);
}
void Timeval::addSec(unsigned int sec) { addSecondsAndUsec(*this, sec, 0); }
void Timeval::subtractUsec(unsigned long long usec) {
  subtractSecondsAndUsec(*this, usec / USEC_PER_SEC, usec % USEC_PER_SEC);
}
void Timeval::subtractMsec(unsigned long long msec) {
  subtractSecondsAndUsec(*this, msec / 1000, (msec % 1000) * 1000);
}
void Timeval::subtractSec(unsigned int sec) { subtractSecondsAndUsec(*this, sec, 0); }

int64_t Timeval::usecDifference(const Timeval& a, const Timeval& b) {
  return saturatedDifference(a, b, USEC_PER_SEC);
}

int64_t Timeval::msecDifference(const Timeval& a, const Timeval& b) {
  return saturatedDifference(a, b, 1000);
}

double Timeval::secDifferenceAsDouble(const Timeval& a, const Timeval& b) {
  const bool negative = a < b;
  const Timeval& hi = negative ? b : a;
  const Timeval& lo = negative ? a : b;
  // The unsigned difference of the ordered pair cannot wrap.
  const uint64_t sec = static_cast<uint64_t>(hi.tv_sec) - static_cast<uint64_t>(lo.tv_sec);
  const double diff =
      static_cast<double>(sec) + static_cast<double>(hi.tv_usec - lo.tv_usec) * 1e-6;
  return negative ? -diff : diff;
}

uint64_t Timeval::secondsToTicks(double seconds) {
  const double ticks = seconds * 1000000.0;
  if (!(ticks > 0)) return 0;
  if (ticks >= 18446744073709551616.0) return UINT64_MAX;
  return static_cast<uint64_t>(ticks);
}

bool Timeval::setToUnixTime(const char* text) {
  const char* p = text;
  int64_t sec = 0;
  if (*p < '0' || *p > '9') return false;
  for (; *p >= '0' && *p <= '9'; ++p) {
    if (__builtin_mul_overflow(sec, 10, &sec) || __builtin_add_overflow(sec, *p - '0', &sec)) {
      return false;
    }
  }
  int64_t usec = 0;
  if (*p == '.') {
    int64_t scale = USEC_PER_SEC;
    for (++p; *p >= '0' && *p <= '9'; ++p) {
      scale /= 10;
      usec += (*p - '0') * scale;
    }
  }
  if (*p != '\0') return false;
  tv_sec = sec;
  tv_usec = usec;
  return true;
}

bool Timeval::gmtime(GmtStructTm* out) const { return out->fromUnixTime(tv_sec); }

void Timeval::localtime(LocalStructTm* out) const {
  if (!out->fromUnixTime(tv_sec)) clampLocal(out, tv_sec, "LocalStructTm::fromUnixTime");
}

void Timeval::localtime(LocalStructTmHires* out) const {
  if (out->fromUnixTime(tv_sec)) {
    out->microseconds = clampedUsec(tv_usec);
    return;
  }
  clampLocal(out, tv_sec, "LocalStructTm::fromUnixTime");
  out->microseconds = tv_sec < 0 ? 0 : USEC_PER_SEC - 1;
}

void Timeval::localtime(StructTmInTimezone* out) const {
  if (!out->fromUnixTime(tv_sec)) clampLocal(out, tv_sec, "StructTmInTimezone::fromUnixTime");
}

void Timeval::localtime(StructTmInTimezoneHires* out) const {
  if (out->fromUnixTime(tv_sec)) {
    out->microseconds = clampedUsec(tv_usec);
    return;
  }
  clampLocal(out, tv_sec, "StructTmInTimezone::fromUnixTime");
  out->microseconds = tv_sec < 0 ? 0 : USEC_PER_SEC - 1;
}

void Timeval::handle_timet_failure(const char* what, const tm* t) {
  // Refused fields may sit at the ends of int; the shown year and month wrap
  // rather than overflow.
  const auto shifted = [](int v, int by) { return static_cast<int>(static_cast<long>(v) + by); };
  logTimeWarning("%s(%d-%d-%d %d:%02d:%02d) failed!", what, shifted(t->tm_year, 1900),
                 shifted(t->tm_mon, 1), t->tm_mday, t->tm_hour, t->tm_min, t->tm_sec);
  *this = t->tm_year > 69 ? max() : min();
}

bool Timeval::internal_setFromBreakdown(long sec, uint64_t usec, const char* what, const tm* t) {
  if (sec == -1) {
    handle_timet_failure(what, t);
    return false;
  }
  tv_sec = sec;
  tv_usec = usec >= USEC_PER_SEC ? USEC_PER_SEC - 1 : static_cast<int64_t>(usec);
  return true;
}

bool Timeval::set(GmtStructTm& t) {
  return internal_setFromBreakdown(t.toUnixTime(), 0, "GmtStructTm::toUnixTime", &t);
}
bool Timeval::set(LocalStructTm& t) {
  return internal_setFromBreakdown(t.toUnixTime(), 0, "LocalStructTm::toUnixTime", &t);
}
bool Timeval::set(LocalStructTmHires& t) {
  return internal_setFromBreakdown(t.toUnixTime(), t.microseconds, "LocalStructTm::toUnixTime",
                                   &t);
}
bool Timeval::set(StructTmInTimezone& t) {
  return internal_setFromBreakdown(t.toUnixTime(), 0, "StructTmInTimezone::toUnixTime", &t);
}
bool Timeval::set(StructTmInTimezoneHires& t) {
  return internal_setFromBreakdown(t.toUnixTime(), t.microseconds,
                                   "StructTmInTimezone::toUnixTime", &t);
}

Str Timeval::asctime() const {
  if (isMax()) return Str("MAX_TIME");
  if (isMin()) return Str("MIN_TIME");
  if (tv_sec == 0) return Str("ZERO_TIME");
  LocalStructTm t;
  Str text;
  if (t.fromUnixTime(tv_sec)) text = t.asctime();
  if (text.empty()) text.format("INVALID_TIME (%lld)", static_cast<long long>(tv_sec));
  return text;
}

void Timeval::renderSubseconds(char* out, unsigned long n) const {
  char digits[7];
  std::snprintf(digits, sizeof digits, "%06lld", static_cast<long long>(clampedUsec(tv_usec)));
  for (unsigned long i = 0; i < n; ++i) out[i] = i < 6 ? digits[i] : '0';
}

void Timeval::renderUnixTime(Str& out, unsigned long digits) const {
  out.append_longlong(tv_sec);
  if (digits == 0) return;
  out.push_back('.');
  const size_t at = out.size();
  out.resize(at + digits);
  renderSubseconds(&out[at], digits);
}

uint64_t Timeval::encodedSubseconds(unsigned long digits) const {
  kassert(digits <= 18);
  const int64_t usec = clampedUsec(tv_usec);
  unsigned long shift = 0;
  uint64_t value = 0;
  bool leadingZeros = true;
  int64_t power = 100000;
  for (unsigned long i = 0; i < digits; ++i) {
    const int64_t digit = power > 0 ? (usec / power) % 10 : 0;
    power /= 10;
    if (leadingZeros && digit == 0) {
      ++shift;
      continue;
    }
    leadingZeros = false;
    value = value * 10 + digit;
  }
  if (leadingZeros) return uint64_t{1} << digits;
  return (2 * value + 1) << shift;
}

namespace {

void appendWhole(Str& out, uint64_t n, const char* unit) {
  out.append_unsignedlonglong(n);
  // " microseconds" and its kin lose the plural "s" for exactly one.
  out.append(unit, std::strlen(unit) - (n == 1 ? 1 : 0));
}

void appendFraction(Str& out, double v, const char* unit) {
  const int decimals = v >= 99.5 ? 1 : (v >= 9.95 ? 2 : 3);
  out.appendFormat("%5.*f%s", decimals, v, unit);
}

}  // namespace

Str Timeval::describeDifference(const Timeval& a, const Timeval& b) {
  const bool negative = a < b;
  const Timeval& hi = negative ? b : a;
  const Timeval& lo = negative ? a : b;
  uint64_t sec = static_cast<uint64_t>(hi.tv_sec) - static_cast<uint64_t>(lo.tv_sec);
  int64_t usec = hi.tv_usec - lo.tv_usec;
  if (usec < 0) {
    usec += USEC_PER_SEC;
    --sec;
  }
  uint64_t magnitude = UINT64_MAX;
  if (sec <= (UINT64_MAX - usec) / USEC_PER_SEC) magnitude = sec * USEC_PER_SEC + usec;

  Str out(negative ? "-" : "");
  if (magnitude > 8000000000ULL) {
    appendFraction(out, static_cast<double>(magnitude) / 3600000000.0, " hours");
  } else if (magnitude > 3000000) {
    appendFraction(out, static_cast<double>(magnitude) / 1e6, " seconds");
  } else if (magnitude > 3000) {
    if (a.tv_usec % 1000 == 0 && b.tv_usec % 1000 == 0) {
      appendWhole(out, magnitude / 1000, " milliseconds");
    } else {
      appendFraction(out, static_cast<double>(magnitude) / 1000.0, " milliseconds");
    }
  } else {
    appendWhole(out, magnitude, " microseconds");
  }
  return out;
}

void Timeval::snapSecond(unsigned int span) {
  if (span >= 2) {
    int64_t rem = tv_sec % span;
    if (rem < 0) rem += span;
    if (__builtin_sub_overflow(tv_sec, rem, &tv_sec)) tv_sec = INT64_MIN;
  }
  tv_usec = 0;
}

void Timeval::snapMillisecond(unsigned int span) {
  kassert(span < 1000);
  const int64_t step = (span == 0 ? 1 : span) * 1000;
  tv_usec -= tv_usec % step;
}

Str Timeval::serialize() const {
  if (tv_sec == 0) return Str(ZERO_WORD);
  if (isMin()) return Str(MIN_WORD);
  if (isMax()) return Str(MAX_WORD);
  // Times before 1601 wrap to huge unsigned values and so clamp as well.
  uint64_t sec = static_cast<uint64_t>(tv_sec) + EPOCH_1601_OFFSET;
  uint64_t nsec = static_cast<uint64_t>(clampedUsec(tv_usec)) * 1000;
  if (sec > MAX_RECORD_SECONDS) {
    sec = MAX_RECORD_SECONDS;
    nsec = MAX_RECORD_NSEC;
  }
  Str out(14, '0');
  for (int i = 7; i >= 0; --i, sec >>= 5) out[i] = BASE32_DIGITS[sec & 31];
  for (int i = 13; i >= 8; --i, nsec >>= 5) out[i] = BASE32_DIGITS[nsec & 31];
  return out;
}

namespace {

// ASCII only, whatever the locale says about "I".
bool equalsIgnoringAsciiCase(const Str& text, const char* word) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  if (text.size() != std::strlen(word)) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (lower(text[i]) != lower(word[i])) return false;
  }
  return true;
}

int base32Value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'V') return c - 'A' + 10;
  if (c >= 'a' && c <= 'v') return c - 'a' + 10;
  return -1;
}

}  // namespace

bool Timeval::resurrect(const Str& text) {
  if (!text.empty() && (text[0] == 'z' || text[0] == 'Z')) {
    if (equalsIgnoringAsciiCase(text, ZERO_WORD)) {
      *this = Timeval();
    } else if (equalsIgnoringAsciiCase(text, MIN_WORD)) {
      setToMin();
    } else if (equalsIgnoringAsciiCase(text, MAX_WORD)) {
      setToMax();
    } else {
      return false;
    }
    return true;
  }
  if (text.size() != 14) return false;
  uint64_t sec = 0, nsec = 0;
  for (size_t i = 0; i < 14; ++i) {
    const int v = base32Value(text[i]);
    if (v < 0) return false;
    uint64_t& field = i < 8 ? sec : nsec;
    field = (field << 5) | static_cast<uint64_t>(v);
  }
  if (nsec > static_cast<uint64_t>(MAX_RECORD_NSEC)) return false;
  const int64_t unixSec = static_cast<int64_t>(sec) - static_cast<int64_t>(EPOCH_1601_OFFSET);
  if (unixSec < 0) {
    setToMax();
    return true;
  }
  tv_sec = unixSec;
  tv_usec = clampedUsec(static_cast<int64_t>((nsec + 500) / 1000));
  return true;
}

bool convert_string_to_milliseconds(const char* text, unsigned long long* ms,
                                    unsigned long* consumed) {
  const char* p = text;
  while (*p == ' ' || *p == '\t') ++p;
  bool sawDigit = false, overflow = false, nonZeroFraction = false;
  unsigned long long sec = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    sawDigit = true;
    overflow = overflow || __builtin_mul_overflow(sec, 10ULL, &sec) ||
               __builtin_add_overflow(sec, static_cast<unsigned long long>(*p - '0'), &sec);
  }
  // Four digits of the fraction, so that the rounding sees the fourth.
  unsigned fraction = 0;
  int kept = 0;
  if (*p == '.') {
    for (++p; *p >= '0' && *p <= '9'; ++p) {
      sawDigit = true;
      nonZeroFraction = nonZeroFraction || *p != '0';
      if (kept < 4) {
        fraction = fraction * 10 + (*p - '0');
        ++kept;
      }
    }
  }
  if (!sawDigit) return false;
  for (; kept < 4; ++kept) fraction *= 10;
  unsigned long long total;
  overflow = overflow || __builtin_mul_overflow(sec, 1000ULL, &total) ||
             __builtin_add_overflow(total, (fraction + 5) / 10, &total);
  if (overflow) total = ULLONG_MAX;
  if (total == 0 && nonZeroFraction) total = 1;
  *ms = total;
  if (consumed != nullptr) *consumed = static_cast<unsigned long>(p - text);
  return true;
}
