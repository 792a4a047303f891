#include "util/ReservedFilenames.h"

#include <strings.h>

#include <cstring>

#include "util/CharacterClass.h"

namespace {

const char* const RESERVED[] = {
    "CON",  "PRN",  "AUX",  "NUL",  "COM1", "COM2", "COM3", "COM4",
    "COM5", "COM6", "COM7", "COM8", "COM9", "LPT1", "LPT2", "LPT3",
    "LPT4", "LPT5", "LPT6", "LPT7", "LPT8", "LPT9",
};

const CharacterClass ILLEGAL_FILENAME_CHARS("<>:\"/\\|?*");

bool isReservedPrefix(const Str& name, size_t len) {
  for (const char* r : RESERVED) {
    if (strlen(r) == len && strncasecmp(name.data(), r, len) == 0) return true;
  }
  return false;
}

}  // namespace

bool ReservedFilenames::isReservedFilename(const Str& name) {
  for (size_t len : {3, 4}) {
    if (name.size() < len || !isReservedPrefix(name, len)) continue;
    if (name.size() == len || name[len] == '.') return true;
  }
  return false;
}

bool ReservedFilenames::isLegalFilename(const Str& name) {
  return name.find_first_of(ILLEGAL_FILENAME_CHARS) == Str::npos && !isReservedFilename(name);
}

void ReservedFilenames::ensureLegalFilename(Str& name) {
  if (isLegalFilename(name)) return;
  name.replaceAll(ILLEGAL_FILENAME_CHARS, '_');
  if (isReservedFilename(name)) name.insert(0, 1, '_');
}
