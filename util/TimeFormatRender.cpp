// TimeFormat::render: each atom of a compiled format written from a
// broken-down time and the view's render_tm_ops.
#include "util/TimeFormat.h"

#include <cstring>

#include "util/Assert.h"
#include "util/TimeFormatImpl.h"

namespace {

typedef TimeFormat TF;
typedef TimeFormat::atom atom;

// The buffer get_tzname writes into, terminator included.
constexpr size_t TZNAME_BUFFER = 11;

void appendRepeated(Str& out, char c, uint64_t count) {
  if (count != 0) out.append(static_cast<size_t>(count), c);
}

// `value` in decimal, padded to `width` with zeros (behind a minus sign) or
// spaces, or not at all.
void appendNumber(Str& out, long long value, uint64_t width, uint8_t padding) {
  char digits[24];
  unsigned long long magnitude =
      value < 0 ? 0ULL - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value);
  size_t n = 0;
  do {
    digits[n++] = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  const uint64_t length = n + (value < 0 ? 1 : 0);
  const uint64_t fill = width > length ? width - length : 0;
  if (padding == TF::PAD_SPACE) appendRepeated(out, ' ', fill);
  if (value < 0) out.push_back('-');
  if (padding == TF::PAD_ZERO || padding == TF::PAD_UNSET) appendRepeated(out, '0', fill);
  while (n != 0) out.push_back(digits[--n]);
}

long long numberOf(TF::atom_type_t what, const StructTm& tm) {
  const long long year = static_cast<long long>(tm.tm_year) + 1900;
  switch (what) {
    case TF::YEAR_NUM: return year;
    // Floor division, so that the century and the year within it agree for
    // years before 0 as well.
    case TF::CENTURY_NUM: return year >= 0 ? year / 100 : -((99 - year) / 100);
    case TF::SHORTYEAR_NUM: return ((year % 100) + 100) % 100;
    case TF::ISOYEAR_NUM: return tm.yearISO8601();
    case TF::ISOSHORTYEAR_NUM: return ((tm.yearISO8601() % 100) + 100) % 100;
    case TF::MONTH_NUM: return tm.tm_mon + 1;
    case TF::SUNDAYWEEK_NUM: return tm.yearWeekFromSunday();
    case TF::MONDAYWEEK_NUM: return tm.yearWeekFromMonday();
    case TF::ISOWEEK_NUM: return tm.yearWeekISO8601();
    case TF::MONTHWEEK_NUM: return (tm.tm_mday + 6) / 7;
    case TF::MDAY_NUM: return tm.tm_mday;
    case TF::YDAY_NUM: return tm.tm_yday + 1;
    case TF::WDAY_NUM: return tm.tm_wday;
    case TF::WDAY1_NUM: return tm.tm_wday == 0 ? 7 : tm.tm_wday;
    case TF::HOUR_NUM: return tm.tm_hour;
    case TF::HOUR12_NUM: return tm.tm_hour % 12 == 0 ? 12 : tm.tm_hour % 12;
    case TF::MINUTE_NUM: return tm.tm_min;
    default: return tm.tm_sec;
  }
}

void appendOffset(Str& out, const atom& a, long offset) {
  if (offset == TF::UNKNOWN_TZ_OFFSET) return;
  const char sign = offset < 0 ? '-' : '+';
  const unsigned long total = offset < 0 ? 0UL - static_cast<unsigned long>(offset)
                                         : static_cast<unsigned long>(offset);
  const unsigned long h = total / 3600;
  const unsigned long m = total / 60 % 60;
  const unsigned long s = total % 60;
  // The body behind the sign: "hh:mm", "hh:mm:ss", "hhmm" or, for
  // minutes, at least three digits.
  char body[48];
  int n = 0;
  // At least two digits; a view with an absurd offset gets all of them.
  auto two = [&](unsigned long v) {
    char digits[24];
    int k = 0;
    do {
      digits[k++] = static_cast<char>('0' + v % 10);
      v /= 10;
    } while (v != 0);
    if (k == 1) digits[k++] = '0';
    while (k != 0) body[n++] = digits[--k];
  };
  switch (a.what) {
    case TF::TZ_COLONOFFSET:
      two(h), body[n++] = ':', two(m);
      break;
    case TF::TZ_COLONSECOFFSET:
      two(h), body[n++] = ':', two(m), body[n++] = ':', two(s);
      break;
    case TF::TZ_AS_NEEDEDOFFSET:
      two(h);
      if (m != 0 || s != 0) body[n++] = ':', two(m);
      if (s != 0) body[n++] = ':', two(s);
      break;
    case TF::TZ_MINUTESOFFSET:
      // Three digits at least.
      if (total / 60 < 100) body[n++] = '0';
      two(total / 60);
      break;
    default:
      two(h), two(m);
      break;
  }
  const char* text = body;
  if (a.x.conv.padding == TF::PAD_NONE) {
    if (a.what == TF::TZ_MINUTESOFFSET) {
      while (n > 1 && *text == '0') ++text, --n;
    } else if (*text == '0') {
      ++text, --n;
    }
  }
  const uint64_t length = static_cast<uint64_t>(n) + 1;
  const uint64_t fill = a.width > length ? a.width - length : 0;
  if (a.x.conv.padding == TF::PAD_SPACE) appendRepeated(out, ' ', fill);
  out.push_back(sign);
  if (a.x.conv.padding == TF::PAD_ZERO) appendRepeated(out, '0', fill);
  out.append(text, static_cast<size_t>(n));
}

void appendSubseconds(Str& out, uint64_t width, unsigned long usec) {
  if (usec > 999999) usec = 999999;
  char digits[6];
  for (int i = 5; i >= 0; --i) {
    digits[i] = static_cast<char>('0' + usec % 10);
    usec /= 10;
  }
  const size_t taken = width < 6 ? static_cast<size_t>(width) : 6;
  out.append(digits, taken);
  appendRepeated(out, '0', width - taken);
}

// A name atom's text, padded, then put through its case action.
void appendText(Str& out, const atom& a, const char* text, size_t n) {
  if (a.x.conv.padding != TF::PAD_NONE && a.width > n) appendRepeated(out, ' ', a.width - n);
  const size_t from = out.size();
  out.append(text, n);
  if (a.x.conv.act == TF::CASE_NONE) return;
  for (size_t i = from; i < out.size(); ++i) {
    char& c = out[i];
    const bool upper = c >= 'A' && c <= 'Z';
    const bool lower = c >= 'a' && c <= 'z';
    if (lower) {
      c = static_cast<char>(c - 32);
    } else if (upper && a.x.conv.act == TF::CASE_REVERSE) {
      c = static_cast<char>(c + 32);
    }
  }
}

void appendName(Str& out, const atom& a, const StructTm& tm, const TF::render_tm_ops* ops) {
  using namespace time_format_impl;
  const char* text = nullptr;
  size_t n = 0;
  char zone[TZNAME_BUFFER];
  switch (a.what) {
    case TF::WDAY_ABBREV:
      if (tm.tm_wday >= 0 && tm.tm_wday < 7) text = WDAY_ABBREVS + 3 * tm.tm_wday, n = 3;
      break;
    case TF::WDAY_FULL:
      if (tm.tm_wday >= 0 && tm.tm_wday < 7) text = WDAY_FULL_NAMES[tm.tm_wday], n = std::strlen(text);
      break;
    case TF::MONTH_ABBREV:
      if (tm.tm_mon >= 0 && tm.tm_mon < 12) text = MONTH_ABBREVS + 3 * tm.tm_mon, n = 3;
      break;
    case TF::MONTH_FULL:
      if (tm.tm_mon >= 0 && tm.tm_mon < 12) text = MONTH_FULL_NAMES[tm.tm_mon], n = std::strlen(text);
      break;
    case TF::AMPM:
      if (tm.tm_hour >= 0 && tm.tm_hour < 24) text = tm.tm_hour < 12 ? "am" : "pm", n = 2;
      break;
    default:
      if (!ops->get_tzname(ops, &tm, zone, sizeof zone)) return;
      zone[sizeof zone - 1] = '\0';
      text = zone;
      n = std::strlen(zone);
      break;
  }
  if (text == nullptr) {
    text = "???";
    n = a.width == 2 ? 2 : 3;
  }
  appendText(out, a, text, n);
}

}  // namespace

void TimeFormat::render(Str& out, const StructTm& tm, unsigned long usec,
                        const render_tm_ops* ops) const {
  kassert(_atoms != __null);
  out.reserve(out.size() + static_cast<size_t>(_expectedWidth));
  for (const atom* a = _atoms.get(); a != _atomsEnd; ++a) {
    if (a->what == LITERAL || a->what == WHITESPACE) {
      out.append(a->x.literal, static_cast<size_t>(a->width));
    } else if (a->what <= TZ_OFFSET) {
      appendOffset(out, *a, ops->tz_sec_offset(ops, &tm));
    } else if (a->what == EPOCH_NUM) {
      appendNumber(out, ops->to_epoch(ops, &tm), a->width, a->x.conv.padding);
    } else if (a->what == SUBSEC_NUM) {
      appendSubseconds(out, a->width, usec);
    } else if (a->what < SUBSEC_NUM) {
      appendNumber(out, numberOf(a->what, tm), a->width, a->x.conv.padding);
    } else {
      appendName(out, *a, tm, ops);
    }
  }
}
