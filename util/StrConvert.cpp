// Str's conversions to numbers and booleans. They refuse trailing bytes and
// negative text for unsigned targets, which the C library alone would wrap.
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "util/Str.h"

namespace {

// Steps 2 to 5 of every integer conversion: call the C library, store at
// once, then refuse overflow to an extreme, no digits, and trailing bytes.
template <class T>
bool convertInteger(const Str& s, T& out, int base, T (*parse)(const char*, char**, int), T lo,
                    T hi) {
  const char* begin = s.c_str();
  char* end = nullptr;
  errno = 0;
  out = parse(begin, &end, base);
  if ((out == hi || out == lo) && errno == ERANGE) return false;
  if (end == begin) return false;
  return *end == '\0';
}

// Step 1 for unsigned targets: "-5" and "  -5" fail before the C library
// would turn them into huge positive numbers.
bool startsNegative(const Str& s) {
  const char* p = s.c_str();
  while (std::isspace(static_cast<unsigned char>(*p))) ++p;
  return *p == '-';
}

}  // namespace

bool Str::tryToLong(long& out, int base) const {
  return convertInteger<long>(*this, out, base, std::strtol, LONG_MIN, LONG_MAX);
}

bool Str::tryToLongLong(long long& out, int base) const {
  return convertInteger<long long>(*this, out, base, std::strtoll, LLONG_MIN, LLONG_MAX);
}

bool Str::tryToUnsignedLong(unsigned long& out, int base) const {
  if (startsNegative(*this)) return false;
  return convertInteger<unsigned long>(*this, out, base, std::strtoul, ULONG_MAX, ULONG_MAX);
}

bool Str::tryToUnsignedLongLong(unsigned long long& out, int base) const {
  if (startsNegative(*this)) return false;
  return convertInteger<unsigned long long>(*this, out, base, std::strtoull, ULLONG_MAX,
                                            ULLONG_MAX);
}

bool Str::tryToInt(int& out, int base) const {
  long v;
  if (!tryToLong(v, base) || v < INT_MIN || v > INT_MAX) return false;
  out = static_cast<int>(v);
  return true;
}

bool Str::tryToUnsigned(unsigned& out, int base) const {
  unsigned long v;
  if (!tryToUnsignedLong(v, base) || v > UINT_MAX) return false;
  out = static_cast<unsigned>(v);
  return true;
}

bool Str::tryToSizet(size_t& out, int base) const {
  unsigned long long v;
  if (!tryToUnsignedLongLong(v, base)) return false;
  out = static_cast<size_t>(v);
  return true;
}

bool Str::tryToDouble(double& out) const {
  if (empty()) return false;
  const char first = front();
  if (!(first == '-' || (first >= '0' && first <= '9'))) return false;
  const char* begin = c_str();
  char* end = nullptr;
  errno = 0;
  out = std::strtod(begin, &end);
  return errno == 0 && end != begin && *end == '\0';
}

bool Str::tryToBool(bool& out) const {
  static const struct {
    const char* word;
    bool value;
  } kWords[] = {{"f", false}, {"false", false}, {"no", false},
                {"t", true},  {"true", true},   {"yes", true}};
  if (empty()) return false;
  if (*this == "0" || *this == "1") {
    out = *this == "1";
    return true;
  }
  for (const auto& w : kWords) {
    if (strcasecmp(c_str(), w.word) == 0 && std::strlen(w.word) == size()) {
      out = w.value;
      return true;
    }
  }
  return false;
}

bool Str::toBool(bool whenEmpty, bool whenInvalid) const {
  bool v;
  if (tryToBool(v)) return v;
  return empty() ? whenEmpty : whenInvalid;
}

#define KESTRO_VALUE_FORM(Type, tryName, toName) \
  Type Str::toName(Type dflt, int base) const {  \
    Type v;                                      \
    return tryName(v, base) ? v : dflt;          \
  }
KESTRO_VALUE_FORM(int, tryToInt, toInt)
KESTRO_VALUE_FORM(unsigned, tryToUnsigned, toUnsigned)
KESTRO_VALUE_FORM(long, tryToLong, toLong)
KESTRO_VALUE_FORM(unsigned long, tryToUnsignedLong, toUnsignedLong)
KESTRO_VALUE_FORM(long long, tryToLongLong, toLongLong)
KESTRO_VALUE_FORM(unsigned long long, tryToUnsignedLongLong, toUnsignedLongLong)
KESTRO_VALUE_FORM(size_t, tryToSizet, toSizet)
#undef KESTRO_VALUE_FORM

double Str::toDouble(double dflt) const {
  double v;
  return tryToDouble(v) ? v : dflt;
}
