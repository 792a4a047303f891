// How the date parser scores one match of a time pattern and of a date
// pattern, and which date candidates may win.

#include <cstdint>

#include "util/DateParser.h"
#include "util/DateTimeRegexList.h"

namespace {

typedef DateTimeRegex X;

// Decimal digits only, at most 18 of them, so the value fits; false for
// anything else, an empty text included.
bool readDecimal(const StrSegment& text, int64_t* out) {
  if (text.size() == 0 || text.size() > 18) return false;
  int64_t value = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text.data()[i];
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  *out = value;
  return true;
}

// Hexadecimal digits, at most 16; false for any other byte or an empty text.
bool readHex(const char* p, size_t n, int64_t* out) {
  if (n == 0 || n > 16) return false;
  uint64_t value = 0;
  for (size_t i = 0; i < n; ++i) {
    const char c = p[i];
    unsigned digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    } else {
      return false;
    }
    value = value << 4 | digit;
  }
  *out = static_cast<int64_t>(value);
  return true;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Two digits from "00" up to `max`.
bool twoDigitsUpTo(const char* p, int max) {
  return isDigit(p[0]) && isDigit(p[1]) && (p[0] - '0') * 10 + (p[1] - '0') <= max;
}

// The score of an epoch match, whatever its form.
constexpr int EPOCH_SCORE = 4;

// An external label: "@" and 16 hex digits of a 64-bit second count (with
// an offset in the high half) and then nanoseconds. Its characters 9 to 16
// are the low half, the seconds of the epoch.
constexpr size_t LABEL_MIN_LENGTH = 17;
constexpr size_t LABEL_LOW_HALF_AT = 9;
constexpr size_t LABEL_LOW_HALF_DIGITS = 8;

int parseEpoch(const DateTimeRegexExtractions& ex, DP_parseState* ps) {
  int64_t seconds = 0;
  if (ex.has(X::HEXEPOCH)) {
    const StrSegment hex = ex.get(X::HEXEPOCH);
    if (!readHex(hex.data(), hex.size(), &seconds)) return -1;
    ps->storeEpoch(seconds);
    return EPOCH_SCORE;
  }
  const StrSegment text = ex.get(X::UTCEPOCH);
  if (text.size() >= LABEL_MIN_LENGTH && text.data()[0] == '@') {
    if (!readHex(text.data() + LABEL_LOW_HALF_AT, LABEL_LOW_HALF_DIGITS, &seconds)) return -1;
    ps->storeEpoch(seconds);
    return EPOCH_SCORE;
  }
  if (!readDecimal(text, &seconds)) return -1;
  ps->storeEpoch(seconds);
  if (ex.has(X::SUBSECOND)) {
    const StrSegment sub = ex.get(X::SUBSECOND);
    ps->setFracsec(sub.data(), sub.data() + sub.size());
  }
  return EPOCH_SCORE;
}

// The meaning of an AM/PM marker: 0 morning, 1 afternoon, -1 none. Besides
// the Latin letters, the CJK marks for "above" and "below" noon.
int readMarker(const StrSegment& text) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
  if (text.size() >= 1 && (p[0] == 'P' || p[0] == 'p')) return 1;
  if (text.size() >= 1 && (p[0] == 'A' || p[0] == 'a')) return 0;
  if (text.size() >= 3 && p[0] == 0xE4 && p[1] == 0xB8) {
    if (p[2] == 0x8A) return 0;
    if (p[2] == 0x8B) return 1;
  }
  return -1;
}

}  // namespace

bool strict_zone_check(const char* text, size_t length) {
  if (length == 0) return true;
  const char first = text[0];
  const bool sign = first == '+' || first == '-';
  if (!sign && !isDigit(first)) return true;
  const char* p = text + (sign ? 1 : 0);
  const size_t n = length - (sign ? 1 : 0);
  if (n == 4) return twoDigitsUpTo(p, 23) && twoDigitsUpTo(p + 2, 59);
  if (n == 5) return twoDigitsUpTo(p, 23) && p[2] == ':' && twoDigitsUpTo(p + 3, 59);
  return false;
}

int TimeRegexList::parse(const DateTimeRegexExtractions& ex, DP_parseState* ps) const {
  if (ex.has(X::HEXEPOCH) || ex.has(X::UTCEPOCH)) return parseEpoch(ex, ps);

  int64_t hour = 0;
  const StrSegment hourText = ex.get(X::HOUR);
  if (!readDecimal(hourText, &hour)) return -1;
  const int h = static_cast<int>(hourText.size());
  int base = h + 1;
  if (hour >= 1 && hour <= 12 && ex.has(X::AMPM)) {
    const int marker = readMarker(ex.get(X::AMPM));
    if (marker < 0) return -1;
    ps->storeHour12(static_cast<int32_t>(hour % 12));
    ps->storePm(marker == 1);
    base = h + 4;
  } else {
    if (hour > 23) return -1;
    ps->storeHour24(static_cast<int32_t>(hour));
  }

  int64_t minute = 0;
  if (!readDecimal(ex.get(X::MINUTE), &minute) || minute > 59) return -1;
  ps->storeMinute(static_cast<int32_t>(minute));
  int score = base + 3;

  if (ex.has(X::SECOND)) {
    int64_t second = 0;
    if (!readDecimal(ex.get(X::SECOND), &second) || second > 59) return -1;
    ps->storeSecond(static_cast<int32_t>(second));
    score = base + 6;
    if (ex.has(X::SUBSECOND)) {
      const StrSegment sub = ex.get(X::SUBSECOND);
      ps->setFracsec(sub.data(), sub.data() + sub.size());
      score += static_cast<int>(sub.size());
    }
  }

  if (ex.has(X::ZONE)) {
    const StrSegment zone = ex.get(X::ZONE);
    if (strict_zone_check(zone.data(), zone.size())) {
      ps->storeTzName(zone);
      score += 1 + static_cast<int>(zone.size());
    } else {
      ps->badZone.assign(zone.data(), zone.size());
    }
  }
  return score;
}

int DateRegexList::parse(const DateTimeRegexExtractions& ex, DP_parseState* ps) const {
  int64_t value = 0;
  if (ex.has(X::ORD)) {
    if (!readDecimal(ex.get(X::ORD), &value) || static_cast<uint64_t>(value - 1) >= 366) {
      return -1;
    }
    if (!ex.has(X::YEAR) || !ps->setYear(ex.get(X::YEAR))) return -1;
    ps->storeYday(static_cast<int32_t>(value - 1));
    return 8;
  }

  if (!readDecimal(ex.get(X::DAY), &value) || value < 1 || value > 31) return -1;
  ps->storeMday(static_cast<int32_t>(value));
  int score;
  if (ex.has(X::LITMONTH)) {
    if (!ps->setMonth(ex.get(X::LITMONTH))) return -1;
    score = 11;
  } else {
    if (!readDecimal(ex.get(X::MONTH), &value) || value < 1 || value > 12) return -1;
    ps->storeMonth(static_cast<int32_t>(value - 1));
    score = 6;
  }
  if (ex.has(X::YEAR)) {
    const StrSegment year = ex.get(X::YEAR);
    if (!ps->setYear(year)) return -1;
    score += 1 + static_cast<int>(year.size());
  }
  return score;
}

bool DateRegexList::valid(DP_parseState* ps, DateParser* parser) const {
  // A copy: completing the date must not change the candidate.
  TimeFormatRawParseResult raw = *ps;
  Timeval t;
  DateParserGuesser& guesser = parser->getGuesser();
  return t.set(&raw, &guesser, nullptr) && guesser.withinDateWindow(t);
}
