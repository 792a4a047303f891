#include "util/UnitUtil.h"

#include <cctype>

namespace {

int unitShift(const char* p, const char* end) {
  if (p == end) return 0;
  int shift;
  switch (std::toupper(static_cast<unsigned char>(*p))) {
    case 'B': return p + 1 == end ? 0 : -1;
    case 'K': shift = 10; break;
    case 'M': shift = 20; break;
    case 'G': shift = 30; break;
    case 'T': shift = 40; break;
    default: return -1;
  }
  ++p;
  if (p != end && std::toupper(static_cast<unsigned char>(*p)) == 'B') ++p;
  return p == end ? shift : -1;
}

}  // namespace

bool UnitUtil::parseSizeInBytes(const Str& text, uint64_t* out) {
  const char* p = text.data();
  const char* end = p + text.size();
  while (p != end && std::isspace(static_cast<unsigned char>(*p))) ++p;
  while (end != p && std::isspace(static_cast<unsigned char>(end[-1]))) --end;
  if (p == end || !std::isdigit(static_cast<unsigned char>(*p))) return false;
  uint64_t value = 0;
  for (; p != end && std::isdigit(static_cast<unsigned char>(*p)); ++p) {
    const uint64_t digit = static_cast<uint64_t>(*p - '0');
    if (value > (UINT64_MAX - digit) / 10) return false;
    value = value * 10 + digit;
  }
  const int shift = unitShift(p, end);
  if (shift < 0) return false;
  if (shift > 0 && value > (UINT64_MAX >> shift)) return false;
  *out = value << shift;
  return true;
}
