// Random bytes for every zone loader: TZif data (with and without footers),
// files from before the magic, POSIX rules, serialized records and packed
// files. Whatever loads must keep the table's invariants, answer every
// query, and come back unchanged through its serialized form. The input
// sits in a buffer of its exact size so that a read past it trips the
// address sanitizer.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "util/Assert.h"
#include "util/DateTime.h"
#include "util/StrVector.h"
#include "util/Timezone.h"

namespace {

enum Loader {
  TZIF,
  TZIF_WITHOUT_FOOTER,
  ANCIENT,
  POSIX,
  SERIALIZED,
  PACKED,
  LOADER_COUNT,
};

void checkInvariants(const Timezone& zone) {
  kassert(zone.timecnt() <= Timezone::MAX_TRANSITIONS);
  kassert(zone.typecnt() <= Timezone::MAX_TYPES);
  kassert(zone.typecnt() >= 1);
  for (uint32_t i = 0; i < zone.timecnt(); ++i) {
    kassert(i == 0 || zone.transitionTime(i - 1) <= zone.transitionTime(i));
    const TimezoneOffset* t = zone.typeAt(i);
    kassert(t >= &zone.type(0) && t <= &zone.type(zone.typecnt() - 1));
  }
  for (uint32_t i = 0; i < zone.typecnt(); ++i) {
    kassert(zone.type(i).abbrind < zone.chars().size());
  }
}

// Every query at instants taken from the input and at the edges of time.
void query(const Timezone& zone, const uint8_t* data, size_t size) {
  long probes[8] = {0, LONG_MIN, LONG_MAX, -86400, 1700000000, 4102444800, -1, 268435457};
  for (size_t i = 0; i + 8 <= size && i < 64; i += 8) {
    long v;
    std::memcpy(&v, data + i, sizeof v);
    probes[(i / 8) % 8] ^= v;
  }
  for (long t : probes) {
    const unsigned long at = zone.searchAt(t);
    kassert(zone.timecnt() == 0 || at < zone.timecnt());
    reverse_search_result_type_t how;
    const unsigned long back = zone.reverseSearchAt(t, &how);
    kassert(zone.timecnt() == 0 || back < zone.timecnt());
    kassert(how != MIGHT_ALSO_BE_NEXT_INDEX || back + 1 < zone.timecnt());
    for (int isdst : {-1, 0, 1}) zone.offsetFromReverseSearch(t, isdst);
    zone.constantOffset(t, 1700000000);
    zone.estimatedTzVariable(t);
    StructTmInTimezone broken(&zone);
    if (broken.fromUnixTime(t)) {
      kassert(broken.tm_zone != nullptr);
      broken.toUnixTime();
    }
  }
  zone.offsetSeconds(true);
  zone.offsetSeconds(false);
  kassert(zone.isSimilarTo(zone, 0));
}

void roundTrip(const Timezone& zone) {
  StrVector first, second;
  zone.serialize(first);
  Timezone back;
  kassert(back.setFromSerializedData(first));
  back.serialize(second);
  kassert(first == second);
}

StrVector splitLines(const char* data, size_t size) {
  StrVector lines;
  size_t start = 0;
  for (size_t i = 0; i <= size; ++i) {
    if (i == size || data[i] == '\n') {
      lines.emplace_back(data + start, i - start);
      start = i + 1;
    }
  }
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const Loader loader = static_cast<Loader>(data[0] % LOADER_COUNT);
  // An exact-size copy, and a NUL-terminated one for the text loaders.
  std::unique_ptr<char[]> bytes(new char[size - 1]);
  std::memcpy(bytes.get(), data + 1, size - 1);
  const std::string text(bytes.get(), size - 1);
  auto zone = std::make_unique<Timezone>();
  bool ok = false;
  switch (loader) {
    case TZIF:
    case TZIF_WITHOUT_FOOTER:
      ok = zone->fromZoneinfoData(bytes.get(), size - 1, loader == TZIF);
      break;
    case ANCIENT:
      ok = zone->fromAncientZoneinfoData(bytes.get(), size - 1);
      break;
    case POSIX:
      // A rule without dates reads posixrules from /usr/share/zoneinfo.
      ok = zone->fromPosixString(text.c_str());
      break;
    case SERIALIZED:
      ok = zone->setFromSerializedData(splitLines(bytes.get(), size - 1));
      break;
    case PACKED: {
      // A name of up to 31 bytes, then the file in a buffer of its own.
      const size_t nameLen = size > 1 ? std::min<size_t>(data[1] % 32, size - 2) : 0;
      const std::string name = size > 1 ? text.substr(1, nameLen) : std::string();
      const size_t packSize = size > 1 ? size - 2 - nameLen : 0;
      std::unique_ptr<char[]> pack(new char[packSize + 1]);
      std::memcpy(pack.get(), data + size - packSize, packSize);
      ok = zone->fromPackedZoneinfoData(pack.get(), packSize, name.c_str(), true);
      break;
    }
    default:
      break;
  }
  if (!ok) {
    kassert(zone->timecnt() == 0 && zone->typecnt() == 0);
    return 0;
  }
  checkInvariants(*zone);
  query(*zone, data, size);
  roundTrip(*zone);
  return 0;
}
