#include "framework/PipelineDataStreamId.h"

namespace {

const char DIGITS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const int FIRST_DIGITS = 11;  // 66 bits: every 64-bit value fits

int digitValue(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

// Adds digit `d` at position `pos` (lowest first); false when it does not
// fit in 64 bits.
bool addDigit(uint64_t* value, int pos, int d) {
  if (pos >= FIRST_DIGITS || (pos == FIRST_DIGITS - 1 && d > 0xF)) return false;
  *value |= static_cast<uint64_t>(d) << (6 * pos);
  return true;
}

// Reads digits from *p up to "." or `end`.
bool readNumber(const char** p, const char* end, uint64_t* value) {
  *value = 0;
  for (int pos = 0; *p != end && **p != '.'; ++*p, ++pos) {
    int d = digitValue(**p);
    if (d < 0 || !addDigit(value, pos, d)) return false;
  }
  return true;
}

void appendNumber(Str* out, uint64_t value, int minDigits) {
  for (int n = 0; value != 0 || n < minDigits; n++, value >>= 6) out->push_back(DIGITS[value & 63]);
}

}  // namespace

bool PipelineDataStreamId::parse(const char* begin, const char* end) {
  if (end - begin < FIRST_DIGITS) return false;
  const char* firstEnd = begin + FIRST_DIGITS;
  if (!readNumber(&begin, firstEnd, &first) || begin != firstEnd) return false;
  if (!readNumber(&begin, end, &second)) return false;
  third = 0;
  if (begin == end) return true;
  ++begin;  // the "."
  if (begin == end) return false;
  for (const char* p = begin; p != end; p++) {
    if (*p == '.') return false;
  }
  return readNumber(&begin, end, &third);
}

void PipelineDataStreamId::serialize(Str* out) const {
  appendNumber(out, first, FIRST_DIGITS);
  appendNumber(out, second, 0);
  out->push_back('.');
  appendNumber(out, third, 1);
}
