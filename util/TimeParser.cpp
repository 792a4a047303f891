#include "util/TimeParser.h"

#include <climits>
#include <cstring>

#include "util/Timeval.h"

namespace {

struct TimeUnit {
  const char* word;
  unsigned long long msecPerUnit;  // 0 marks milliseconds, read as seconds / 1000
};

constexpr TimeUnit kUnits[] = {
    {"ms", 0},
    {"s", 1000},        {"sec", 1000},       {"secs", 1000},
    {"second", 1000},   {"seconds", 1000},
    {"m", 60000},       {"min", 60000},      {"mins", 60000},
    {"minute", 60000},  {"minutes", 60000},
    {"h", 3600000},     {"hr", 3600000},     {"hrs", 3600000},
    {"hour", 3600000},  {"hours", 3600000},
    {"d", 86400000},    {"day", 86400000},   {"days", 86400000},
};

bool isBlank(char c) { return c == ' ' || c == '\t'; }

bool fail(Str* why, const Str& reason) {
  if (why != nullptr) *why = reason;
  return false;
}

}  // namespace

bool TimeParser::timeSpanToMsec(const Str& text, unsigned long long& msec, Str* why) {
  const char* p = text.c_str();
  const char* const end = p + text.size();
  while (p < end && isBlank(*p)) ++p;
  if (p == end) return fail(why, "empty time span");

  // The number is read as if it were seconds: that gives thousandths of the
  // unit, with the rounding of the fraction done once, in one place.
  unsigned long long milliUnits = 0;
  unsigned long used = 0;
  if (!convert_string_to_milliseconds(p, &milliUnits, &used))
    return fail(why, "no number in time span");
  // All ones is how the reader says that the number overflowed.
  if (milliUnits == ULLONG_MAX) return fail(why, "time span too large");
  p += used;

  while (p < end && isBlank(*p)) ++p;
  const char* const unitBegin = p;
  while (p < end && !isBlank(*p)) ++p;
  const Str unit(unitBegin, static_cast<size_t>(p - unitBegin));
  while (p < end && isBlank(*p)) ++p;
  if (p != end) return fail(why, "unknown time unit \"" + Str(unitBegin, end - unitBegin) + "\"");

  unsigned long long factor = 1000;
  if (!unit.empty()) {
    const TimeUnit* found = nullptr;
    for (const TimeUnit& u : kUnits) {
      if (unit == u.word) found = &u;
    }
    if (found == nullptr) return fail(why, "unknown time unit \"" + unit + "\"");
    factor = found->msecPerUnit;
  }
  if (factor == 0) {
    msec = milliUnits / 1000 + (milliUnits % 1000 >= 500 ? 1 : 0);
    return true;
  }
  unsigned long long total;
  // milliUnits is the count in thousandths, so the product is exact
  // whenever the factor is a whole number of seconds.
  if (__builtin_mul_overflow(milliUnits, factor / 1000, &total))
    return fail(why, "time span too large");
  msec = total;
  return true;
}
