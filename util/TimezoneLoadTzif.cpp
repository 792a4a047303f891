// The TZif loaders: compiled zoneinfo files of every version, the files from
// before the magic, and the POSIX footer of version 2 and later.
#include <climits>
#include <cstring>

#include "util/Timezone.h"

namespace {

constexpr size_t TZIF_HEADER_SIZE = 44;
constexpr size_t TZIF_COUNTS_OFFSET = 20;
constexpr size_t ANCIENT_COUNTS_OFFSET = 32;
constexpr uint32_t MAX_LEAPS = 500;
constexpr uint32_t MAX_FILE_CHARS = 270;
// The abbreviations of the zone and of its footer rule together.
constexpr size_t MAX_CHARS_WITH_FOOTER = 256;
constexpr size_t TYPE_RECORD_SIZE = 6;

uint32_t read32(const char* p) {
  const auto* u = reinterpret_cast<const unsigned char*>(p);
  return (uint32_t{u[0]} << 24) | (uint32_t{u[1]} << 16) | (uint32_t{u[2]} << 8) | u[3];
}

int64_t read64(const char* p) {
  return static_cast<int64_t>((uint64_t{read32(p)} << 32) | read32(p + 4));
}

struct TzifCounts {
  uint32_t isgmt;
  uint32_t isstd;
  uint32_t leap;
  uint32_t time;
  uint32_t type;
  uint32_t chr;
};

bool readCounts(const char* p, TzifCounts* c) {
  *c = TzifCounts{read32(p), read32(p + 4), read32(p + 8),
                  read32(p + 12), read32(p + 16), read32(p + 20)};
  return c->leap <= MAX_LEAPS && c->type <= Timezone::MAX_TYPES && c->chr <= MAX_FILE_CHARS &&
         c->time <= Timezone::MAX_TRANSITIONS && (c->isgmt == 0 || c->isgmt == c->type) &&
         (c->isstd == 0 || c->isstd == c->type);
}

// All counts are bounded above, so the sum cannot overflow.
size_t blockSize(const TzifCounts& c, size_t timeSize) {
  return c.time * timeSize + c.time + c.type * TYPE_RECORD_SIZE + c.chr +
         c.leap * (timeSize + 4) + c.isstd + c.isgmt;
}

}  // namespace

bool Timezone::internal_readTzifBlock(const char* counts, const char* block, const char* limit,
                                      size_t timeSize, bool requireTypes, const char** end) {
  TzifCounts c;
  if (!readCounts(counts, &c)) return false;
  const char* p = block;
  if (blockSize(c, timeSize) > static_cast<size_t>(limit - p)) return false;
  if (requireTypes && c.type == 0) return false;

  _timecnt = c.time;
  _typecnt = c.type;
  for (uint32_t i = 0; i < c.time; ++i, p += timeSize) {
    _times[i] = timeSize == 4 ? static_cast<int32_t>(read32(p)) : read64(p);
  }
  for (uint32_t i = 0; i < c.time; ++i, ++p) {
    _typeIndex[i] = static_cast<uint8_t>(*p);
    if (_typeIndex[i] >= c.type) return false;
  }
  for (uint32_t i = 0; i < c.type; ++i, p += TYPE_RECORD_SIZE) {
    const auto isdst = static_cast<unsigned char>(p[4]);
    const auto abbrind = static_cast<unsigned char>(p[5]);
    const int32_t gmtoff = static_cast<int32_t>(read32(p));
    if (isdst > 1 || abbrind >= c.chr || gmtoff > MAX_OFFSET || gmtoff < -MAX_OFFSET) return false;
    _types[i] = TimezoneOffset{gmtoff, abbrind, isdst == 1, TimezoneOffset::KIND_WALL};
  }
  _chars.assign(p, c.chr);
  p += c.chr + c.leap * (timeSize + 4);
  for (uint32_t i = 0; i < c.isstd; ++i, ++p) {
    if (*p != 0 && *p != 1) return false;
    if (*p == 1) _types[i].kind = TimezoneOffset::KIND_STANDARD;
  }
  for (uint32_t i = 0; i < c.isgmt; ++i, ++p) {
    if (*p != 0 && *p != 1) return false;
    if (*p == 1) _types[i].kind = TimezoneOffset::KIND_GMT;
  }
  *end = p;
  return true;
}

void Timezone::internal_coverTimeBeforeFirstTransition() {
  if (_timecnt == 0 || _timecnt >= MAX_TRANSITIONS) return;
  // Readers of these files take the first type that is not daylight time
  // (the first type if all are) for the time before the first transition.
  uint32_t initial = 0;
  while (initial < _typecnt && _types[initial].isdst) ++initial;
  if (initial == _typecnt) initial = 0;
  const TimezoneOffset& a = _types[initial];
  const TimezoneOffset& b = _types[_typeIndex[0]];
  if (a.gmtoff == b.gmtoff && a.isdst == b.isdst &&
      std::strcmp(abbreviation(&a), abbreviation(&b)) == 0) {
    return;
  }
  std::memmove(_times + 1, _times, _timecnt * sizeof(_times[0]));
  std::memmove(_typeIndex + 1, _typeIndex, _timecnt);
  _times[0] = INT64_MIN;
  _typeIndex[0] = static_cast<uint8_t>(initial);
  ++_timecnt;
}

void Timezone::internal_applyFooter(const char* footer, size_t len) {
  if (len < 3 || footer[0] != '\n' || footer[len - 1] != '\n') return;
  if (_typecnt + 2 > MAX_TYPES) return;
  const Str text(footer + 1, len - 2);
  if (text.find_first_of(Str("\n\0", 2)) != Str::npos) return;
  Timezone rule;
  if (!rule.internal_fromPosixString(text.c_str(), false)) return;
  if (rule._typecnt != 2 || rule._timecnt == 0) return;
  if (_chars.size() + rule._chars.size() > MAX_CHARS_WITH_FOOTER) return;

  const uint32_t base = _typecnt;
  for (uint32_t i = 0; i < 2; ++i) {
    _types[base + i] = rule._types[i];
    _types[base + i].abbrind += _chars.size();
  }
  _typecnt += 2;
  _chars += rule._chars;
  const int64_t last = _timecnt > 0 ? _times[_timecnt - 1] : INT64_MIN;
  for (uint32_t i = 0; i < rule._timecnt && _timecnt < MAX_TRANSITIONS; ++i) {
    if (rule._times[i] <= last) continue;
    _times[_timecnt] = rule._times[i];
    _typeIndex[_timecnt] = static_cast<uint8_t>(base + rule._typeIndex[i]);
    ++_timecnt;
  }
}

bool Timezone::fromZoneinfoData(const char* data, unsigned long len, bool useFooter) {
  if (data == nullptr || len < TZIF_HEADER_SIZE || std::memcmp(data, "TZif", 4) != 0) {
    return fromAncientZoneinfoData(data, len);
  }
  internal_reset();
  const auto version = static_cast<unsigned char>(data[4]);
  const char* limit = data + len;
  const char* end = nullptr;
  // '1' was never a version of its own; 0 and '2' onwards are.
  const bool ok = (version == 0 || version > 49) &&
                  internal_readTzifBlock(data + TZIF_COUNTS_OFFSET, data + TZIF_HEADER_SIZE, limit, 4,
                                         version == 0, &end);
  if (!ok) {
    internal_reset();
    return false;
  }
  if (version != 0) {
    const char* second = end;
    if (static_cast<size_t>(limit - second) < TZIF_HEADER_SIZE ||
        std::memcmp(second, "TZif", 4) != 0 ||
        !internal_readTzifBlock(second + TZIF_COUNTS_OFFSET, second + TZIF_HEADER_SIZE, limit, 8,
                                true, &end)) {
      internal_reset();
      return false;
    }
  }
  checkZoneinfoOrdered();
  internal_coverTimeBeforeFirstTransition();
  if (useFooter && version != 0) internal_applyFooter(end, static_cast<size_t>(limit - end));
  internal_finishLoad();
  return true;
}

bool Timezone::fromAncientZoneinfoData(const char* data, unsigned long len) {
  internal_reset();
  if (data == nullptr || len < TZIF_HEADER_SIZE) return false;
  // Three counts where a TZif header keeps timecnt, typecnt and charcnt;
  // there are no leap records and no indicators.
  char counts[24] = {};
  std::memcpy(counts + 12, data + ANCIENT_COUNTS_OFFSET, 12);
  if (read32(counts + 20) < 1) return false;
  const char* end = nullptr;
  if (!internal_readTzifBlock(counts, data + TZIF_HEADER_SIZE, data + len, 4, true, &end)) {
    internal_reset();
    return false;
  }
  checkZoneinfoOrdered();
  internal_coverTimeBeforeFirstTransition();
  internal_finishLoad();
  return true;
}
