#include "util/PathnameVector.h"

#include <cstring>

void PathnameVector::push_back_separated(const char* text, char sep) {
  const char* start = text;
  for (const char* p = text;; ++p) {
    if (*p != sep && *p != '\0') continue;
    if (p > start) emplace_back(start, static_cast<size_t>(p - start));
    if (*p == '\0') return;
    start = p + 1;
  }
}

void PathnameVector::addArg(long long number) {
  Str s;
  s.append_longlong(number);
  emplace_back(std::move(s));
}

void PathnameVector::joinShellQuotedInto(Pathname& out) const {
  out.clear();
  for (size_t i = 0; i < size(); ++i) {
    if (i > 0) out.push_back(' ');
    out.append((*this)[i].shellQuoted());
  }
}
