#include "util/StrVector.h"

#include <cstring>
#include <unordered_set>

namespace {

// Joins with the separator before every element, and before the first one
// too when `out` already holds a list.
template <class Vec>
void joinElements(const Vec& vec, Str& out, const char* sep, size_t seplen) {
  if (vec.empty()) return;
  size_t total = out.size() + seplen * vec.size();
  for (const auto& e : vec) total += e.size();
  out.reserve(total);
  bool first = out.empty();
  for (const auto& e : vec) {
    if (!first) out.std::string::append(sep, seplen);
    out.std::string::append(e.data(), e.size());
    first = false;
  }
}

}  // namespace

void StrVector::append(const std::vector<StrSegment>& segs) {
  reserve(size() + segs.size());
  for (const StrSegment& s : segs) emplace_back(s);
}

void StrVector::joinInto(Str& out, const char* separator) const {
  joinElements(*this, out, separator, std::strlen(separator));
}

void StrVector::joinInto(Str& out, char separator) const { joinElements(*this, out, &separator, 1); }

size_t StrVector::dedup() {
  if (size() < 2) return 0;
  std::unordered_set<std::string_view> seen;
  // The set holds views of the kept elements, which do not move: only later
  // elements are moved down into the free slots.
  size_t kept = 0;
  for (size_t i = 0; i < size(); ++i) {
    if (seen.count(std::string_view((*this)[i])) != 0) continue;
    if (kept != i) (*this)[kept] = std::move((*this)[i]);
    seen.insert(std::string_view((*this)[kept]));
    ++kept;
  }
  const size_t removed = size() - kept;
  resize(kept);
  return removed;
}

void StrSegmentVector::append(const StrVector& other) {
  reserve(size() + other.size());
  for (const Str& s : other) emplace_back(s.data(), s.size());
}

void StrSegmentVector::joinInto(Str& out, const char* separator) const {
  joinElements(*this, out, separator, std::strlen(separator));
}

void StrSegmentVector::joinInto(Str& out, char separator) const {
  joinElements(*this, out, &separator, 1);
}
