#include "util/Timezone.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "util/Assert.h"
#include "util/SaturatingMath.h"

namespace {

bool sameReading(const Timezone& a, const TimezoneOffset* ta, const Timezone& b,
                 const TimezoneOffset* tb) {
  return ta->gmtoff == tb->gmtoff && ta->isdst == tb->isdst &&
         std::strcmp(a.abbreviation(ta), b.abbreviation(tb)) == 0;
}

}  // namespace

Timezone::Timezone() { internal_reset(); }

void Timezone::internal_reset() {
  _timecnt = 0;
  _typecnt = 0;
  _firstCycle = true;
  _lastCycle = true;
  _types[0] = TimezoneOffset{0, 0, false, TimezoneOffset::KIND_WALL};
  _chars.clear();
  _constantOffset = NO_CONSTANT_OFFSET;
}

bool Timezone::internal_addType(int64_t gmtoff, bool isdst, int32_t kind, const char* abbrev,
                                size_t maxChars) {
  const size_t len = std::strlen(abbrev);
  if (_typecnt >= MAX_TYPES || _chars.size() + len + 1 > maxChars) return false;
  _types[_typecnt++] = TimezoneOffset{gmtoff, _chars.size(), isdst, kind};
  _chars.append(abbrev, len);
  _chars.push_back('\0');
  return true;
}

void Timezone::internal_finishLoad() {
  checkZoneinfoOrdered();
  computeCycleFlags();
  computeZoneinfoConstantOffset();
}

void Timezone::checkZoneinfoOrdered() {
  for (uint32_t i = 1; i < _timecnt; ++i) {
    if (_times[i] < _times[i - 1]) {
      _timecnt = i;
      return;
    }
  }
}

void Timezone::computeCycleFlags() {
  _firstCycle = false;
  _lastCycle = false;
  if (_timecnt <= CYCLE_ENTRIES) return;
  const auto repeats = [this](uint32_t a, uint32_t b) {
    int64_t diff;
    return _typeIndex[a] == _typeIndex[b] &&
           !__builtin_sub_overflow(_times[b], _times[a], &diff) &&
           diff == GREGORIAN_CYCLE_SECONDS;
  };
  _firstCycle = repeats(0, CYCLE_ENTRIES);
  _lastCycle = repeats(_timecnt - 1 - CYCLE_ENTRIES, _timecnt - 1);
}

void Timezone::computeZoneinfoConstantOffset() {
  if (_timecnt == 0) {
    _constantOffset = _typecnt > 0 ? _types[0].gmtoff : NO_CONSTANT_OFFSET;
    return;
  }
  const int64_t last = typeAt(_timecnt - 1)->gmtoff;
  for (uint32_t i = 0; i + 1 < _timecnt; ++i) {
    if (_times[i] >= 0 && typeAt(i)->gmtoff != last) {
      _constantOffset = NO_CONSTANT_OFFSET;
      return;
    }
  }
  _constantOffset = last;
}

bool Timezone::setToGmt() {
  internal_reset();
  internal_addType(0, false, TimezoneOffset::KIND_GMT, "GMT", SIZE_MAX);
  internal_finishLoad();
  return true;
}

bool Timezone::setToConstantOffset(const char* name, long westOfUtc) {
  internal_reset();
  const long east = std::clamp(saturatingSub(0, westOfUtc), -MAX_OFFSET, MAX_OFFSET);
  internal_addType(east, false, TimezoneOffset::KIND_WALL, name != nullptr ? name : "", SIZE_MAX);
  internal_finishLoad();
  return true;
}

int64_t Timezone::transitionTime(unsigned long i) const {
  kassert(i < _timecnt);
  return _times[i];
}

const TimezoneOffset* Timezone::typeAt(unsigned long index) const {
  if (_timecnt == 0) return &_types[0];
  kassert(index < _timecnt);
  return &_types[_typeIndex[index]];
}

const TimezoneOffset& Timezone::type(unsigned long i) const {
  kassert(i < _typecnt);
  return _types[i];
}

const char* Timezone::abbreviation(const TimezoneOffset* t) const {
  return t->abbrind < _chars.size() ? _chars.c_str() + t->abbrind : "";
}

unsigned long Timezone::searchAt(long t) const {
  const int64_t* end = _times + _timecnt;
  const int64_t* after = std::upper_bound(_times, end, static_cast<int64_t>(t));
  return after == _times ? 0 : static_cast<unsigned long>(after - _times - 1);
}

bool Timezone::internal_holds(unsigned long i, long utc) const {
  return (i == 0 || _times[i] <= utc) && (i + 1 >= _timecnt || utc < _times[i + 1]);
}

unsigned long Timezone::reverseSearchAt(long local, reverse_search_result_type_t* result) const {
  *result = UNIQUE_READING;
  if (_timecnt == 0) return 0;
  unsigned long i = searchAt(local);
  long utc;
  if (__builtin_sub_overflow(local, typeAt(i)->gmtoff, &utc)) {
    return local > 268435456 ? _timecnt - 1 : 0;
  }
  // The entry found by treating the local time as UTC is at most one away
  // from the right one unless the local time falls into a gap.
  bool stepped = false;
  for (;;) {
    utc = saturatingSub(local, typeAt(i)->gmtoff);
    const bool back = i > 0 && _times[i] > utc;
    const bool forward = !back && i + 1 < _timecnt && _times[i + 1] <= utc;
    if (!back && !forward) break;
    if (stepped) {
      *result = NO_SUCH_LOCAL_TIME;
      while (i > 0 && _times[i] > saturatingSub(local, typeAt(i)->gmtoff)) --i;
      return i;
    }
    stepped = true;
    i = back ? i - 1 : i + 1;
  }
  if (i > 0 && internal_holds(i - 1, saturatingSub(local, typeAt(i - 1)->gmtoff))) {
    *result = MIGHT_ALSO_BE_NEXT_INDEX;
    return i - 1;
  }
  if (i + 1 < _timecnt && internal_holds(i + 1, saturatingSub(local, typeAt(i + 1)->gmtoff))) {
    *result = MIGHT_ALSO_BE_NEXT_INDEX;
  }
  return i;
}

const TimezoneOffset* Timezone::offsetFromReverseSearch(long local, int isdst) const {
  reverse_search_result_type_t how;
  const unsigned long i = reverseSearchAt(local, &how);
  if (how == UNIQUE_READING) return typeAt(i);
  if (how == NO_SUCH_LOCAL_TIME || isdst < 0) return nullptr;
  const TimezoneOffset* first = typeAt(i);
  const TimezoneOffset* second = typeAt(i + 1);
  if (first->isdst == second->isdst) return nullptr;
  return first->isdst == (isdst > 0) ? first : second;
}

long Timezone::constantOffset(long from, long to) const {
  if (hasConstantOffset()) return _constantOffset;
  if (_timecnt == 0) return NO_CONSTANT_OFFSET;
  const unsigned long first = searchAt(std::min(from, to));
  const unsigned long last = searchAt(std::max(from, to));
  const int64_t offset = typeAt(first)->gmtoff;
  for (unsigned long i = first + 1; i <= last; ++i) {
    if (typeAt(i)->gmtoff != offset) return NO_CONSTANT_OFFSET;
  }
  return offset;
}

long Timezone::offsetSeconds(bool dst) const {
  if (_timecnt == 0) return 0;
  for (unsigned long i = _timecnt; i-- > 0;) {
    if (typeAt(i)->isdst == dst) return typeAt(i)->gmtoff;
  }
  return typeAt(_timecnt - 1)->gmtoff;
}

void Timezone::setStructTmMetadata(tm* out, const TimezoneOffset* t) const {
  out->tm_isdst = t->isdst ? 1 : 0;
  out->tm_gmtoff = t->gmtoff;
  out->tm_zone = abbreviation(t);
}

bool Timezone::isSimilarTo(const Timezone& other, long t) const {
  const long from = saturatingSub(t, SIMILARITY_SPAN);
  const long to = saturatingSub(t, -SIMILARITY_SPAN);
  const long mine = constantOffset(from, to);
  if (mine != other.constantOffset(from, to)) return false;
  if (mine != NO_CONSTANT_OFFSET) {
    return std::strcmp(abbreviation(typeAt(searchAt(t))),
                       other.abbreviation(other.typeAt(other.searchAt(t)))) == 0;
  }
  // The entries in force at the start of the span may have begun at
  // different times; from there on every transition must match.
  unsigned long i = searchAt(from);
  unsigned long j = other.searchAt(from);
  if (!sameReading(*this, typeAt(i), other, other.typeAt(j))) return false;
  for (++i, ++j;; ++i, ++j) {
    const bool mineMore = i < _timecnt && _times[i] <= to;
    const bool otherMore = j < other._timecnt && other._times[j] <= to;
    if (mineMore != otherMore) return false;
    if (!mineMore) return true;
    if (_times[i] != other._times[j] || !sameReading(*this, typeAt(i), other, other.typeAt(j))) {
      return false;
    }
  }
}
