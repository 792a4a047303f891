// The serialized form of a zone, one text line per item, as persistent
// records keep it:
//
//   "C%ld"                 the constant offset, if the zone has one
//   "Y%ld %c%c" " %02X"... one type: offset east, "Y"/"N" for daylight,
//                          "W"/"S"/"G" for its kind, the abbreviation's
//                          bytes in hexadecimal ("Z" for a zone without types)
//   "@%lld %u"             one transition: instant and type index
//   "B", "F"               the first and last cycle flags, when set
//   "$"                    the end
#include <climits>
#include <cstdlib>

#include "util/LineReader.h"
#include "util/StrVector.h"
#include "util/Timezone.h"

namespace {

// Bounds on what a record may ask for; a writer never comes near them.
constexpr size_t MAX_SERIALIZED_CHARS = 4096;
constexpr size_t MAX_SERIALIZED_LINES =
    Timezone::MAX_TYPES + Timezone::MAX_TRANSITIONS + 4;

const char KIND_LETTERS[] = {'W', 'S', 'G'};

// A decimal integer at `p` in [lo, hi]: an optional "-" and digits. Null on
// no digits or overflow.
const char* parseInteger(const char* p, long long lo, long long hi, long long* out) {
  const bool negative = *p == '-';
  if (negative) ++p;
  if (*p < '0' || *p > '9') return nullptr;
  long long v = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    const int digit = *p - '0';
    if (__builtin_mul_overflow(v, 10, &v) ||
        __builtin_add_overflow(v, negative ? -digit : digit, &v)) {
      return nullptr;
    }
  }
  if (v < lo || v > hi) return nullptr;
  *out = v;
  return p;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

void Timezone::serialize(StrVector& out) const {
  Str line;
  if (hasConstantOffset()) out.emplace_back(line.format("C%ld", static_cast<long>(_constantOffset)));
  if (_typecnt == 0) out.emplace_back("Z");
  for (uint32_t i = 0; i < _typecnt; ++i) {
    const TimezoneOffset& t = _types[i];
    const int kind = t.kind >= 0 && t.kind <= 2 ? t.kind : 0;
    line.format("Y%ld %c%c", static_cast<long>(t.gmtoff), t.isdst ? 'Y' : 'N', KIND_LETTERS[kind]);
    for (const char* a = abbreviation(&t); *a != '\0'; ++a) {
      line.appendFormat(" %02X", static_cast<unsigned char>(*a));
    }
    out.push_back(line);
  }
  for (uint32_t i = 0; i < _timecnt; ++i) {
    out.emplace_back(line.format("@%lld %u", static_cast<long long>(_times[i]), _typeIndex[i]));
  }
  if (_firstCycle) out.emplace_back("B");
  if (_lastCycle) out.emplace_back("F");
  out.emplace_back("$");
}

bool Timezone::setFromSerializedData(const StrVector& lines) {
  internal_reset();
  _firstCycle = false;
  _lastCycle = false;
  bool placeholder = false;
  bool ended = false;
  for (size_t n = 0; n < lines.size(); ++n) {
    const Str& line = lines[n];
    const char* p = line.c_str();
    long long a = 0, b = 0;
    bool ok = line.size() == std::char_traits<char>::length(p);
    switch (ok ? *p : '\0') {
      case 'C':
        p = parseInteger(p + 1, LONG_MIN, LONG_MAX, &a);
        ok = p != nullptr && *p == '\0';
        if (ok) _constantOffset = a;
        break;
      case 'Y': {
        p = parseInteger(p + 1, INT64_MIN, INT64_MAX, &a);
        if (placeholder || p == nullptr || p[0] != ' ' || (p[1] != 'Y' && p[1] != 'N')) {
          ok = false;
          break;
        }
        const bool isdst = p[1] == 'Y';
        int kind = -1;
        for (int k = 0; k < 3; ++k) {
          if (p[2] == KIND_LETTERS[k]) kind = k;
        }
        Str abbrev;
        for (p += 3; ok && kind >= 0 && *p == ' '; p += 3) {
          const int hi = hexValue(p[1]);
          const int lo = hi < 0 ? -1 : hexValue(p[2]);
          ok = lo >= 0 && (hi | lo) != 0;
          if (ok) abbrev.push_back(static_cast<char>(hi * 16 + lo));
        }
        ok = ok && kind >= 0 && *p == '\0' &&
             internal_addType(a, isdst, kind, abbrev.c_str(), MAX_SERIALIZED_CHARS);
        break;
      }
      case 'Z':
        ok = p[1] == '\0' && _typecnt == 0;
        if (ok) {
          placeholder = true;
          internal_addType(0, false, TimezoneOffset::KIND_WALL, "", MAX_SERIALIZED_CHARS);
        }
        break;
      case '@':
        p = parseInteger(p + 1, INT64_MIN, INT64_MAX, &a);
        p = p != nullptr && *p == ' ' ? parseInteger(p + 1, 0, MAX_TYPES - 1, &b) : nullptr;
        ok = p != nullptr && *p == '\0' && _timecnt < MAX_TRANSITIONS;
        if (ok) {
          _times[_timecnt] = a;
          _typeIndex[_timecnt++] = static_cast<uint8_t>(b);
        }
        break;
      case 'B':
        ok = p[1] == '\0';
        _firstCycle = true;
        break;
      case 'F':
        ok = p[1] == '\0';
        _lastCycle = true;
        break;
      case '$':
        ok = p[1] == '\0' && n + 1 == lines.size();
        ended = true;
        break;
      default:
        ok = false;
    }
    if (!ok) {
      internal_reset();
      return false;
    }
  }
  bool valid = ended && _typecnt >= 1 && (_timecnt > 0 || hasConstantOffset());
  for (uint32_t i = 0; valid && i < _timecnt; ++i) {
    valid = _typeIndex[i] < _typecnt && (i == 0 || _times[i - 1] <= _times[i]);
  }
  if (!valid) internal_reset();
  return valid;
}

void serializeTimezone(const Timezone* zone, StrVector& out) {
  if (zone != nullptr) zone->serialize(out);
}

std::unique_ptr<Timezone> resurrectTimezone(LineReader& in) {
  StrVector lines;
  Str line;
  while (lines.size() < MAX_SERIALIZED_LINES && in.readline(line)) {
    lines.push_back(line);
    if (line == "$") {
      auto zone = std::make_unique<Timezone>();
      if (!zone->setFromSerializedData(lines)) return nullptr;
      return zone;
    }
  }
  return nullptr;
}
