#include "util/Str.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "util/Assert.h"
#include "util/StrMem.h"

const Str Str::EMPTY_STR;

namespace {
constexpr size_t MAX_FORMAT_RETRY_BYTES = size_t{1} << 20;
}  // namespace

Str& Str::format(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vformat(fmt, args);
  va_end(args);
  return *this;
}

Str& Str::vformat(const char* fmt, va_list args) {
  clear();
  return appendVformat(fmt, args);
}

Str& Str::appendFormat(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  appendVformat(fmt, args);
  va_end(args);
  return *this;
}

Str& Str::appendVformat(const char* fmt, va_list args) {
  char stackBuf[256];
  std::vector<char> heapBuf;
  char* buf = stackBuf;
  size_t size = sizeof(stackBuf);
  for (;;) {
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(buf, size, fmt, copy);
    va_end(copy);
    if (n >= 0 && static_cast<size_t>(n) < size) {
      std::string::append(buf, static_cast<size_t>(n));
      return *this;
    }
    // A negative answer is a format the C library refuses (a lone "%" at the
    // end, say): doubling cannot help past a point, and the text is dropped.
    if (n < 0 && size >= MAX_FORMAT_RETRY_BYTES) return *this;
    size = n >= 0 ? static_cast<size_t>(n) + 1 : size * 2;
    heapBuf.resize(size);
    buf = heapBuf.data();
  }
}

Str& Str::append_double(double d) { return appendFormat("%lf", d); }
Str& Str::append_longlong(long long v) { return appendFormat("%lld", v); }
Str& Str::append_unsignedlonglong(unsigned long long v) { return appendFormat("%llu", v); }

Str Str::operator_plus(const char* a, size_type alen, const char* b, size_type blen) {
  Str out;
  out.reserve(alen + blen);
  out.std::string::append(a, alen);
  out.std::string::append(b, blen);
  return out;
}

Str Str::operator_plus(const char* a, const char* b) {
  return operator_plus(a, std::strlen(a), b, std::strlen(b));
}

Str Str::operator_plus(const StrSegment& a, const StrSegment& b) {
  return operator_plus(a.data(), a.size(), b.data(), b.size());
}

Str::size_type Str::replaceAll(const Str& from, const Str& to) {
  if (from.empty()) return 0;
  size_type count = 0;
  for (size_type pos = find(from); pos != npos; pos = find(from, pos + to.size())) {
    replace(pos, from.size(), to);
    ++count;
  }
  return count;
}

Str::size_type Str::replaceAll(const CharacterClass& cc, char to) {
  size_type count = 0;
  for (char& c : *this) {
    if (cc.contains(c)) {
      c = to;
      ++count;
    }
  }
  return count;
}

Str Str::substr(size_type pos, size_type count) const {
  if (pos > size()) throw std::out_of_range("basic_string::substr");
  return Str(data() + pos, mem_bytes_for_substring(size(), pos, count));
}

Str Str::trim(const CharacterClass& cc, bool left, bool right) const {
  return Str(segment().trim(cc, left, right));
}

void Str::trimInPlace(const CharacterClass& cc, bool left, bool right) {
  if (right) rightTrimInPlace(cc);
  if (left) leftTrimInPlace(cc);
}

void Str::leftTrimInPlace(const CharacterClass& cc) {
  const size_type first = cclass_find(cc, data(), size(), 0, false);
  erase(0, first == npos ? size() : first);
}

void Str::rightTrimInPlace(const CharacterClass& cc) {
  const size_type last = cclass_rfind(cc, data(), size(), npos, false);
  resize(last == npos ? 0 : last + 1);
}

void Str::stripQuotes(char q) {
  if (size() >= 2 && front() == q && back() == front()) {
    pop_back();
    erase(0, 1);
  }
}

void optional_Str::set(const Str& a, const Str& b) {
  _value.clear();
  _value.reserve(a.size() + b.size());
  _value.std::string::append(a);
  _value.std::string::append(b);
  _set = true;
}
