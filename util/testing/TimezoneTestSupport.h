// Test code only: where the build staged the zoneinfo tree, the zone names
// in it, and writers of TZif and packed-file bytes for building good and
// damaged files.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "util/Pathname.h"
#include "util/Timezone.h"
#include "util/TimezonePackFormat.h"

// The staged share/kestro/zoneinfo of the build tree this test binary sits
// in (found by walking up from /proc/self/exe), or "" when it is missing:
// build the stage_zoneinfo target first.
inline Pathname stagedZoneinfoDir() {
  std::error_code ec;
  std::filesystem::path p = std::filesystem::read_symlink("/proc/self/exe", ec);
  for (; !ec && p.has_parent_path() && p != p.parent_path(); p = p.parent_path()) {
    const std::filesystem::path candidate = p / "home" / "share" / "kestro" / "zoneinfo";
    std::error_code missing;
    if (std::filesystem::is_regular_file(candidate / "UTC", missing)) {
      return Pathname(candidate.string());
    }
  }
  return Pathname();
}

// Loads the staged zone `name` (footer read) into *zone; false when the
// tree is missing or the zone does not load.
inline bool loadStagedZone(const char* name, Timezone* zone) {
  const Pathname dir = stagedZoneinfoDir();
  return !dir.empty() && zone->fromExactZoneinfoPath(dir / name, true);
}

// The TZ value that points the C library at the staged zone file `name`.
inline std::string stagedZoneTz(const char* name) {
  return ":" + std::string(stagedZoneinfoDir() / name);
}

// Every zone file under `dir`, by name relative to it, sorted.
inline std::vector<std::string> zoneNamesUnder(const Pathname& dir) {
  std::vector<std::string> names;
  const std::filesystem::path root(std::string{dir});
  std::error_code ec;
  for (std::filesystem::recursive_directory_iterator it(root, ec), end; !ec && it != end;
       it.increment(ec)) {
    if (it->is_regular_file(ec)) names.push_back(it->path().lexically_relative(root).string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The parts of a TZif file, written by buildTzif. Every count can be
// overridden to lie about the data.
struct TzifParts {
  struct Type {
    int32_t gmtoff;
    uint8_t isdst;
    uint8_t abbrind;
  };
  char version = '2';  // 0 for a version 1 file
  std::vector<int64_t> times;
  std::vector<uint8_t> indices;
  std::vector<Type> types;
  std::string chars;
  uint32_t leapcnt = 0;
  std::vector<uint8_t> isstd;
  std::vector<uint8_t> isgmt;
  std::string footer;  // written as is, newlines included
  // When set, written in the header instead of the true count.
  int64_t claimedTimecnt = -1;
  int64_t claimedTypecnt = -1;
  int64_t claimedCharcnt = -1;
};

inline void tzifPut32(std::string& out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<char>(v >> shift));
}
inline void tzifPut64(std::string& out, int64_t v) {
  tzifPut32(out, static_cast<uint32_t>(static_cast<uint64_t>(v) >> 32));
  tzifPut32(out, static_cast<uint32_t>(v));
}

// One header and data block with `timeSize`-byte times.
inline void tzifAppendBlock(std::string& out, const TzifParts& s, char version, size_t timeSize) {
  out += "TZif";
  out.push_back(version);
  out.append(15, '\0');
  const auto count = [](int64_t claimed, size_t real) {
    return static_cast<uint32_t>(claimed >= 0 ? claimed : static_cast<int64_t>(real));
  };
  tzifPut32(out, static_cast<uint32_t>(s.isgmt.size()));
  tzifPut32(out, static_cast<uint32_t>(s.isstd.size()));
  tzifPut32(out, s.leapcnt);
  tzifPut32(out, count(s.claimedTimecnt, s.times.size()));
  tzifPut32(out, count(s.claimedTypecnt, s.types.size()));
  tzifPut32(out, count(s.claimedCharcnt, s.chars.size()));
  for (int64_t t : s.times) {
    if (timeSize == 4) {
      tzifPut32(out, static_cast<uint32_t>(static_cast<int32_t>(t)));
    } else {
      tzifPut64(out, t);
    }
  }
  for (uint8_t i : s.indices) out.push_back(static_cast<char>(i));
  for (const TzifParts::Type& t : s.types) {
    tzifPut32(out, static_cast<uint32_t>(t.gmtoff));
    out.push_back(static_cast<char>(t.isdst));
    out.push_back(static_cast<char>(t.abbrind));
  }
  out += s.chars;
  out.append(s.leapcnt * (timeSize + 4), '\0');
  for (uint8_t b : s.isstd) out.push_back(static_cast<char>(b));
  for (uint8_t b : s.isgmt) out.push_back(static_cast<char>(b));
}

// A version 1 file holds one block with 32-bit times; later versions hold
// the same data twice, 32-bit and then 64-bit, and the footer.
inline std::string buildTzif(const TzifParts& s) {
  std::string out;
  tzifAppendBlock(out, s, s.version, 4);
  if (s.version != 0) {
    tzifAppendBlock(out, s, s.version, 8);
    out += s.footer;
  }
  return out;
}

// When simpleTzif's zone leaves LMT for EST: 1906, inside 32 bits.
inline constexpr int64_t SIMPLE_TZIF_FIRST_TRANSITION = -2000000000;

// A small zone: LMT, then EST from SIMPLE_TZIF_FIRST_TRANSITION, then
// daylight and standard time switching at the given instants, alternately,
// starting with daylight.
inline TzifParts simpleTzif(const std::vector<int64_t>& switches) {
  TzifParts s;
  s.types = {{-17762, 0, 0}, {-14400, 1, 4}, {-18000, 0, 8}};
  s.chars = std::string("LMT\0EDT\0EST\0", 12);
  s.times.push_back(SIMPLE_TZIF_FIRST_TRANSITION);
  s.indices.push_back(2);
  for (size_t i = 0; i < switches.size(); ++i) {
    s.times.push_back(switches[i]);
    s.indices.push_back(i % 2 == 0 ? 1 : 2);
  }
  return s;
}

// A zone of one type and no transitions: `offset` seconds east, `abbrev`.
inline std::string constantTzif(int32_t offset, const char* abbrev) {
  TzifParts s;
  s.types = {{offset, 0, 0}};
  s.chars = std::string(abbrev) + '\0';
  return buildTzif(s);
}

// A packed file laid out as the packer lays it out: header, index, names,
// then each zone's data on a 16-byte boundary. `entries` are (name, TZif
// bytes) pairs sorted by name.
inline std::string buildTzpack(const std::vector<std::pair<std::string, std::string>>& entries) {
  std::string out(TZPACK_HEADER_SIZE + TZPACK_RECORD_SIZE * entries.size(), '\0');
  out.replace(0, TZPACK_MAGIC_SIZE, TZPACK_MAGIC);
  tzpackWrite32(&out[TZPACK_COUNT_OFFSET], static_cast<uint32_t>(entries.size()));
  for (size_t i = 0; i < entries.size(); ++i) {
    tzpackWrite32(&out[tzpackRecordOffset(i + 1) + TZPACK_RECORD_NAME_OFFSET],
                  static_cast<uint32_t>(out.size()));
    out += entries[i].first;
    out.push_back('\0');
  }
  for (size_t i = 0; i < entries.size(); ++i) {
    out.append((16 - out.size() % 16) % 16, '\0');
    const size_t record = tzpackRecordOffset(i + 1);
    tzpackWrite32(&out[record + TZPACK_RECORD_DATA_PARAGRAPH],
                  static_cast<uint32_t>(out.size() / 16));
    tzpackWrite32(&out[record + TZPACK_RECORD_DATA_LENGTH],
                  static_cast<uint32_t>(entries[i].second.size()));
    out += entries[i].second;
  }
  return out;
}
