// TimeFormat::rawParse: the atoms walked against a text, storing what they
// read into a TimeFormatRawParseResult. Nothing here allocates.
#include "util/TimeFormat.h"

#include <cstring>

#include "util/TimeFormatImpl.h"

namespace {

typedef TimeFormat TF;
typedef TimeFormat::atom atom;
using time_format_impl::equalsNoCase;
using time_format_impl::findAbbrev;
using time_format_impl::findFullName;

// A value that no digit run below 13 digits can reach; long runs are
// clamped to it while their value is compared with a limit.
constexpr uint64_t HUGE_VALUE = 1000000000000ULL;
// The largest value that may take one more digit within 32 bits.
constexpr uint64_t LAST_SAFE_VALUE = 429496729;
// How many words a zone name may run past its first before " Standard
// Time" or " Daylight Time" ("E. South America Standard Time").
constexpr int MAX_ZONE_WORDS = 5;

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
// What the numeric and name atoms skip before themselves.
bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
// What a white-space atom passes over.
bool isSpace(char c) { return isBlank(c) || c == '\v' || c == '\f'; }
bool isZoneNameChar(char c) {
  return isLetter(c) || isDigit(c) || c == '/' || c == '+' || c == '_' || c == '-';
}

// Whether the atom after the current one must start with digits itself, so
// that a greedy run of digits would eat into it.
bool needsDigits(const atom* next, const atom* end) {
  if (next == end) return false;
  if (next->what >= TF::EPOCH_NUM && next->what <= TF::SUBSEC_NUM) return true;
  return next->what == TF::LITERAL && next->width > 0 && isDigit(next->x.literal[0]);
}

// Whether the atom after the current one starts with letters.
bool isTextual(const atom* next, const atom* end) {
  if (next == end) return false;
  if (next->what >= TF::WDAY_ABBREV && next->what <= TF::TZ_NAME) return true;
  return next->what == TF::LITERAL && next->width > 0 && isLetter(next->x.literal[0]);
}

// The largest value a numeric atom backs off to; 0 for none.
uint64_t backOffLimit(TF::atom_type_t what) {
  switch (what) {
    case TF::SHORTYEAR_NUM: case TF::ISOSHORTYEAR_NUM: return 99;
    case TF::MONTH_NUM: case TF::HOUR12_NUM: return 12;
    case TF::SUNDAYWEEK_NUM: case TF::MONDAYWEEK_NUM: case TF::ISOWEEK_NUM: return 53;
    case TF::MONTHWEEK_NUM: return 5;
    case TF::MDAY_NUM: return 31;
    case TF::YDAY_NUM: return 366;
    case TF::WDAY_NUM: return 6;
    case TF::WDAY1_NUM: return 7;
    case TF::HOUR_NUM: return 23;
    case TF::MINUTE_NUM: return 59;
    case TF::SECOND_NUM: return 60;
    default: return 0;
  }
}

uint64_t clampedValue(const char* digits, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) {
    v = v * 10 + static_cast<uint64_t>(digits[i] - '0');
    if (v >= HUGE_VALUE) return HUGE_VALUE;
  }
  return v;
}

// Seconds of an offset whose sign is already read: n digits (hh or hhmm),
// then `groups` colon groups at `colon` (":mm", ":mm:ss", only behind hh).
// False past 59 minutes, past a day, or for an impossible shape.
bool offsetSeconds(const char* digits, size_t n, const char* colon, int groups, long* seconds) {
  long h, m = 0, s = 0;
  if (n == 0 || n > 4) return false;
  if (n <= 2) {
    h = static_cast<long>(clampedValue(digits, n));
    if (groups >= 1) m = (colon[1] - '0') * 10 + (colon[2] - '0');
    if (groups >= 2) s = (colon[4] - '0') * 10 + (colon[5] - '0');
  } else {
    if (groups != 0) return false;
    h = static_cast<long>(clampedValue(digits, n - 2));
    m = static_cast<long>(clampedValue(digits + n - 2, 2));
  }
  if (m > 59 || s > 59) return false;
  const long total = h * 3600 + m * 60 + s;
  if (total >= 86400) return false;
  *seconds = total;
  return true;
}

// Takes up to maxGroups ":dd" groups (first digit 0-5) at p. Returns the
// byte after them, or null for a ":" without a good group behind it.
const char* colonGroups(const char* p, const char* end, int maxGroups, int* groups) {
  *groups = 0;
  while (*groups < maxGroups && p < end && *p == ':') {
    if (end - p < 3 || p[1] < '0' || p[1] > '5' || !isDigit(p[2])) return nullptr;
    p += 3;
    ++*groups;
  }
  return p;
}

// Stores a checked number of a numeric atom from code 5 up; false when it
// is out of the atom's range.
bool storeNumber(TimeFormatRawParseResult* pr, TF::atom_type_t what, uint64_t v, bool negative) {
  const int32_t i = static_cast<int32_t>(v);
  switch (what) {
    case TF::EPOCH_NUM: pr->storeEpoch(negative ? -static_cast<int64_t>(v) : static_cast<int64_t>(v)); return true;
    case TF::YEAR_NUM: if (v < 1971 || v > 2999) return false; pr->storeYear(i); return true;
    case TF::CENTURY_NUM: if (v < 19 || v > 29) return false; pr->storeCentury(i); return true;
    case TF::SHORTYEAR_NUM: if (v > 99) return false; pr->storeShortYear(i); return true;
    case TF::ISOYEAR_NUM: if (v < 1971 || v > 2999) return false; pr->storeIsoYear(i); return true;
    case TF::ISOSHORTYEAR_NUM: if (v > 99) return false; pr->storeIsoShortYear(i); return true;
    case TF::MONTH_NUM: if (v < 1 || v > 12) return false; pr->storeMonth(i - 1); return true;
    case TF::SUNDAYWEEK_NUM: if (v > 53) return false; pr->storeSundayWeek(i); return true;
    case TF::MONDAYWEEK_NUM: if (v > 53) return false; pr->storeMondayWeek(i); return true;
    case TF::ISOWEEK_NUM: if (v < 1 || v > 53) return false; pr->storeIsoWeek(i); return true;
    case TF::MONTHWEEK_NUM: if (v < 1 || v > 5) return false; pr->storeMonthWeek(i); return true;
    case TF::MDAY_NUM: if (v < 1 || v > 31) return false; pr->storeMday(i); return true;
    case TF::YDAY_NUM: if (v < 1 || v > 366) return false; pr->storeYday(i - 1); return true;
    case TF::WDAY_NUM: if (v > 6) return false; pr->storeWday(i); return true;
    // Kept as written: %u's Monday (1) lands on weekday 0.
    case TF::WDAY1_NUM: if (v < 1 || v > 7) return false; pr->storeWday(i - 1); return true;
    case TF::HOUR_NUM: if (v > 23) return false; pr->storeHour24(i); return true;
    case TF::HOUR12_NUM: if (v < 1 || v > 12) return false; pr->storeHour12(i % 12); return true;
    case TF::MINUTE_NUM: if (v > 59) return false; pr->storeMinute(i); return true;
    case TF::SECOND_NUM: if (v > 60) return false; pr->storeSecond(i); return true;
    default: return false;
  }
}

// A numeric atom (codes 0 to 24) at p, which is past the blanks that began
// at wsStart and is not at the end.
const char* parseNumber(const atom* a, const atom* atomsEnd, TimeFormatRawParseResult* pr,
                        const char* wsStart, const char* p, const char* end) {
  const TF::atom_type_t what = a->what;
  bool negative = false;
  if (what <= TF::EPOCH_NUM && (*p == '+' || *p == '-')) {
    negative = *p == '-';
    ++p;
  }
  const char* digits = p;
  while (p < end && isDigit(*p)) ++p;
  size_t n = static_cast<size_t>(p - digits);
  if (n == 0) return nullptr;

  int groups = 0;
  const char* colon = p;
  if (what <= TF::TZ_AS_NEEDEDOFFSET) {
    static const int MIN_GROUPS[3] = {1, 2, 0};
    static const int MAX_GROUPS[3] = {1, 2, 2};
    p = colonGroups(p, end, MAX_GROUPS[what], &groups);
    if (p == nullptr || groups < MIN_GROUPS[what]) return nullptr;
  }

  if (what >= TF::TZ_AS_NEEDEDOFFSET) {
    bool cut = false;
    if (needsDigits(a + 1, atomsEnd) && !(what == TF::TZ_AS_NEEDEDOFFSET && groups > 0)) {
      size_t limit = n;
      if (a->width == 0) {
        if (what == TF::EPOCH_NUM) limit = 10;
        if (what == TF::TZ_AS_NEEDEDOFFSET) limit = 2;
      } else if (a->x.conv.padding == TF::PAD_ZERO) {
        limit = a->width;
      } else {
        const size_t used = static_cast<size_t>(digits - wsStart);
        limit = a->width > used ? a->width - used : 1;
      }
      if (n > limit) {
        n = limit;
        cut = true;
      }
    }
    const uint64_t maxValue = backOffLimit(what);
    if (!cut && maxValue != 0) {
      const size_t minDigits = a->x.conv.padding == TF::PAD_NONE || a->width == 0 ? 1 : a->width;
      while (n > minDigits && clampedValue(digits, n) > maxValue) --n;
    }
    if (what != TF::TZ_AS_NEEDEDOFFSET || groups == 0) p = digits + n;
  }

  if (what == TF::SUBSEC_NUM) {
    pr->setFracsec(digits, digits + n);
    return p;
  }
  if (what <= TF::TZ_OFFSET) {
    long seconds;
    if (what == TF::TZ_MINUTESOFFSET) {
      const uint64_t minutes = clampedValue(digits, n);
      if (minutes >= 1440) return nullptr;
      seconds = static_cast<long>(minutes) * 60;
    } else if (!offsetSeconds(digits, n, colon, groups, &seconds)) {
      return nullptr;
    }
    pr->storeTzOffset(negative ? -seconds : seconds);
    return p;
  }
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) {
    if (v > LAST_SAFE_VALUE) return nullptr;
    v = v * 10 + static_cast<uint64_t>(digits[i] - '0');
  }
  return storeNumber(pr, what, v, negative) ? p : nullptr;
}

// A name atom (codes 25 to 28) at p, not at the end.
const char* parseName(const atom* a, const atom* atomsEnd, TimeFormatRawParseResult* pr,
                      const char* p, const char* end) {
  const char* r = p;
  // A capital after the first two letters, when those two differ in case,
  // starts the next word: "JanFoo" is "Jan".
  const bool mixedStart = end - p >= 2 && isLetter(p[1]) && isUpper(p[0]) != isUpper(p[1]);
  while (r < end && isLetter(*r)) {
    if (r - p >= 2 && mixedStart && isUpper(*r)) break;
    ++r;
  }
  size_t n = static_cast<size_t>(r - p);
  if (a->width != 0 && n > a->width && isTextual(a + 1, atomsEnd)) n = a->width;
  int index = -1;
  switch (a->what) {
    case TF::WDAY_ABBREV:
      if (n >= 3) {
        index = findAbbrev(time_format_impl::WDAY_ABBREVS, 7, p);
      } else if (n == 2) {
        for (int i = 0; i < 7 && index < 0; ++i) {
          if (equalsNoCase(time_format_impl::WDAY_ABBREVS + 3 * i, p, 2)) index = i;
        }
      } else {
        return p + n;
      }
      if (index < 0) return nullptr;
      pr->storeWday(index);
      return p + n;
    case TF::WDAY_FULL:
      if (n == 3) {
        index = findAbbrev(time_format_impl::WDAY_ABBREVS, 7, p);
      } else if (n == 4 && equalsNoCase(p, "Tues", 4)) {
        index = 2;
      } else if (n == 4 && equalsNoCase(p, "Thur", 4)) {
        index = 4;
      } else {
        index = findFullName(time_format_impl::WDAY_FULL_NAMES, 7, p, n);
      }
      if (index < 0) return nullptr;
      pr->storeWday(index);
      return p + n;
    case TF::MONTH_ABBREV:
      if (n < 3) return p + n;
      index = findAbbrev(time_format_impl::MONTH_ABBREVS, 12, p);
      if (index < 0) return nullptr;
      pr->storeMonth(index);
      return p + n;
    default:
      index = n == 3 ? findAbbrev(time_format_impl::MONTH_ABBREVS, 12, p)
                     : findFullName(time_format_impl::MONTH_FULL_NAMES, 12, p, n);
      if (index < 0) return nullptr;
      pr->storeMonth(index);
      return p + n;
  }
}

// "AM", "pm", "a.m.", "P.M." and the two Chinese markers, at p.
const char* parseAmPm(TimeFormatRawParseResult* pr, const char* p, const char* end) {
  static const char MORNING[] = "\xE4\xB8\x8A\xE5\x8D\x88";
  static const char AFTERNOON[] = "\xE4\xB8\x8B\xE5\x8D\x88";
  const char c = *p;
  if ((c == 'a' || c == 'A' || c == 'p' || c == 'P') && end - p >= 2) {
    const bool pm = c == 'p' || c == 'P';
    if (p[1] == 'm' || p[1] == 'M') {
      pr->storePm(pm);
      return p + 2;
    }
    if (p[1] == '.' && end - p >= 4 && (p[2] == 'm' || p[2] == 'M') && p[3] == '.') {
      pr->storePm(pm);
      return p + 4;
    }
    return nullptr;
  }
  if (end - p >= 6 && (std::memcmp(p, MORNING, 6) == 0 || std::memcmp(p, AFTERNOON, 6) == 0)) {
    pr->storePm(p[2] == AFTERNOON[2]);
    return p + 6;
  }
  return nullptr;
}

bool startsWith(const char* p, const char* end, const char* word, size_t n) {
  return static_cast<size_t>(end - p) >= n && std::memcmp(p, word, n) == 0;
}

// %Z at p: an offset, or a name that may run over several words when it is
// a system name such as "Central Standard Time (Mexico)".
const char* parseZoneName(TimeFormatRawParseResult* pr, const char* p, const char* end) {
  if (*p == '+' || *p == '-') {
    long seconds;
    const char* q = TimeFormat::parseTzOffset(p, end, &seconds);
    if (q != nullptr) pr->storeTzOffset(seconds);
    return q;
  }
  const char* nameEnd = p;
  while (nameEnd < end && isZoneNameChar(*nameEnd)) ++nameEnd;
  if (nameEnd == p) return nullptr;
  const char* consumed = nameEnd;
  if (end - nameEnd >= 2 && nameEnd[0] == '.' && nameEnd[1] == ' ') consumed = nameEnd + 1;

  const char* w = nameEnd;
  for (int words = 0; words < MAX_ZONE_WORDS; ++words) {
    const char* s = w;
    if (s < end && *s == '.') ++s;
    if (s >= end || *s != ' ') break;
    ++s;
    const char* wordEnd = s;
    while (wordEnd < end && isZoneNameChar(*wordEnd)) ++wordEnd;
    if (wordEnd == s) break;
    if ((wordEnd - s == 8) && (std::memcmp(s, "Standard", 8) == 0 || std::memcmp(s, "Daylight", 8) == 0) &&
        startsWith(wordEnd, end, " Time", 5)) {
      nameEnd = wordEnd + 5;
      if (startsWith(nameEnd, end, " (Mexico)", 9)) nameEnd += 9;
      consumed = nameEnd;
      break;
    }
    w = wordEnd;
  }
  if (nameEnd - p == 20 && std::memcmp(p, "Mexico", 6) == 0 && startsWith(nameEnd, end, " 2", 2) &&
      (end - nameEnd == 2 || !isDigit(nameEnd[2]))) {
    nameEnd += 2;
    consumed = nameEnd;
  }
  pr->storeTzName(StrSegment(p, static_cast<size_t>(nameEnd - p)));
  return consumed;
}

// The text ended with atoms left: only white space, and a "." (or a literal
// whose next pool byte is ",") in front of a subsecond atom, may be absent.
const char* finishAtEnd(const atom* a, const atom* atomsEnd, const char* end) {
  while (a != atomsEnd) {
    if (a->what == TF::WHITESPACE) {
      ++a;
    } else if (a->what == TF::LITERAL && a->width == 1 &&
               (a->x.literal[0] == '.' || a->x.literal[1] == ',') && a + 1 != atomsEnd &&
               a[1].what == TF::SUBSEC_NUM) {
      a += 2;
    } else {
      return nullptr;
    }
  }
  return end;
}

}  // namespace

const char* TimeFormat::parseTzOffset(const char* p, const char* end, long* seconds) {
  if (p >= end || (*p != '+' && *p != '-')) return nullptr;
  const bool negative = *p == '-';
  const char* digits = ++p;
  while (p < end && isDigit(*p)) ++p;
  const size_t n = static_cast<size_t>(p - digits);
  int groups = 0;
  const char* colon = p;
  p = colonGroups(p, end, 2, &groups);
  long value;
  if (p == nullptr || !offsetSeconds(digits, n, colon, groups, &value)) return nullptr;
  *seconds = negative ? -value : value;
  return p;
}

const char* TimeFormat::rawParse(TimeFormatRawParseResult* pr, const char* start,
                                 const char* end) const {
  if (_atoms == nullptr) return nullptr;
  const char* p = start;
  const atom* a = _atoms.get();
  while (a != _atomsEnd) {
    const atom* next = a + 1;
    if (a->what == LITERAL) {
      if (p == end) return finishAtEnd(a, _atomsEnd, end);
      const char* lit = a->x.literal;
      size_t i = 0;
      while (i < a->width && p + i < end && p[i] == lit[i]) ++i;
      if (i == a->width) {
        p += i;
        a = next;
        continue;
      }
      // A "." or "," that should lead into subseconds: the other of the two
      // stands in for it, and anything else means the fraction is absent.
      const char last = lit[a->width - 1];
      if (i + 1 != a->width || (last != '.' && last != ',') || next == _atomsEnd ||
          next->what != SUBSEC_NUM) {
        return nullptr;
      }
      p += i;
      if (p < end && (*p == '.' || *p == ',')) {
        ++p;
        a = next;
      } else {
        a = next + 1;
      }
      continue;
    }
    if (a->what == WHITESPACE) {
      if (next != _atomsEnd && next->what == LITERAL && next->width > 0 &&
          isSpace(next->x.literal[0])) {
        if (p < end) {
          if (*p != a->x.literal[0]) return nullptr;
          ++p;
        }
      } else {
        while (p < end && isSpace(*p)) ++p;
      }
      a = next;
      continue;
    }

    const char* wsStart = p;
    while (p < end && isBlank(*p)) ++p;
    if (p == end) return finishAtEnd(a, _atomsEnd, end);
    if (a->what <= SUBSEC_NUM) {
      p = parseNumber(a, _atomsEnd, pr, wsStart, p, end);
    } else if (a->what <= MONTH_FULL) {
      p = parseName(a, _atomsEnd, pr, p, end);
    } else if (a->what == AMPM) {
      p = parseAmPm(pr, p, end);
    } else {
      p = parseZoneName(pr, p, end);
    }
    if (p == nullptr) return nullptr;
    a = next;
  }
  return p;
}
