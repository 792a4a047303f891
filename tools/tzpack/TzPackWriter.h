// TzPackWriter: builds the packed zone file (layout in util/
// TimezonePackFormat.h) from zones given by name and TZif bytes.
#pragma once

#include <cstddef>
#include <map>
#include <string>

// One owner at a time.
class TzPackWriter {
 public:
  // Adds one zone. The name is stored lower case with "\" as "/", as the
  // reader looks it up. False, keeping the zone added first, when another
  // zone already has that stored name; also false for an empty name or
  // empty data, which no reader could use.
  bool add(const std::string& name, const std::string& tzif);
  size_t size() const { return _zones.size(); }

  // The whole file: header, index sorted by name, the names, then each
  // distinct block of data once, aligned to 16 bytes. An empty writer gives
  // a file that every reader refuses (count 0). Throws std::length_error if
  // the file would not fit the format's 32-bit offsets.
  std::string build() const;

 private:
  std::map<std::string, std::string> _zones;  // stored name -> TZif bytes
};
