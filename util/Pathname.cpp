// Element arithmetic of Pathname: pure text work, no system calls.
#include "util/Pathname.h"

#include "util/Assert.h"
#include "util/PathnameVector.h"

const Pathname Pathname::EMPTY_PATHNAME;
const Pathname Pathname::parent("..");
const Pathname Pathname::cur(".");

mode_t Pathname::createModeBits(CreateMode cm) {
  switch (cm) {
    case CREATE_PRIVATE:
      return 0600;
    case CREATE_READONLY:
      return 0440;
    default:
      kassert(cm == Pathname::CREATE_NORMAL);
      return 0644;
  }
}

mode_t Pathname::mkdirModeBits(MkdirMode mode) {
  switch (mode) {
    case MKDIR_GROUP:
      return 0770;
    case MKDIR_ALL:
      return 0777;
    case MKDIR_PUBLIC:
      return 0755;
    default:
      kassert(mode == MKDIR_PRIVATE);
      return 0700;
  }
}

Pathname& Pathname::operator/=(const StrSegment& rhs) {
  if (rhs.empty()) return *this;
  if (empty() || back() != SEP) push_back(SEP);
  size_type skip = 0;
  while (skip < rhs.size() && rhs[skip] == SEP) ++skip;
  append(rhs.data() + skip, rhs.size() - skip);
  return *this;
}

Pathname Pathname::operator+(const StrSegment& rhs) const {
  return Pathname(Str::operator_plus(data(), size(), rhs.data(), rhs.size()));
}

Pathname operator+(const char* lhs, const Pathname& rhs) { return StrSegment(lhs) + rhs; }
Pathname operator+(const Str& lhs, const Pathname& rhs) { return StrSegment(lhs) + rhs; }
Pathname operator+(const StrSegment& lhs, const Pathname& rhs) {
  return Pathname(Str::operator_plus(lhs.data(), lhs.size(), rhs.data(), rhs.size()));
}

void Pathname::stripElement() {
  size_type p = size();
  while (p > 0 && (*this)[p - 1] == SEP) --p;
  while (p > 0 && (*this)[p - 1] != SEP) --p;
  while (p > 0 && (*this)[p - 1] == SEP) --p;
  if (p == 0) p = isAbsolute() ? 1 : 0;
  resize(p);
}

Pathname Pathname::toParent() const {
  Pathname p(*this);
  p.stripElement();
  return p;
}

namespace {

// The bounds [start, end) of the last element, trailing separators ignored;
// start == end when there is no element.
void lastElement(const Str& s, Str::size_type* start, Str::size_type* end) {
  Str::size_type p = s.size();
  while (p > 0 && s[p - 1] == Pathname::SEP) --p;
  Str::size_type x = p;
  while (x > 0 && s[x - 1] != Pathname::SEP) --x;
  *start = x;
  *end = p;
}

}  // namespace

Pathname Pathname::toLeaf() const {
  size_type x, p;
  lastElement(*this, &x, &p);
  if (x == p) return Pathname("/");
  kassert(x < p);
  return Pathname(data() + x, p - x);
}

Pathname Pathname::ext() const {
  size_type x, p;
  lastElement(*this, &x, &p);
  const StrSegment leaf(data() + x, p - x);
  const size_type dot = leaf.rfind('.');
  if (dot == StrSegment::npos) return Pathname();
  return Pathname(leaf.data() + dot + 1, leaf.size() - dot - 1);
}

Pathname Pathname::basenameWithoutExt() const {
  size_type x, p;
  lastElement(*this, &x, &p);
  const StrSegment leaf(data() + x, p - x);
  const size_type dot = leaf.rfind('.');
  if (dot == StrSegment::npos || dot == 0) return Pathname(leaf);
  return Pathname(leaf.data(), dot);
}

Pathname Pathname::substr(size_type pos, size_type count) const {
  return Pathname(Str::substr(pos, count));
}

void Pathname::addTrailingSep() {
  if (empty() || back() != SEP) push_back(SEP);
}

void Pathname::removeTrailingSeps() {
  size_type p = size();
  while (p > 1 && (*this)[p - 1] == SEP) --p;
  resize(p);
}

void Pathname::replaceBackSlashesWithSep() {
  for (char& c : *this) {
    if (c == '\\') c = SEP;
  }
}

void Pathname::removeDoubleSeps() {
  size_type out = 0;
  for (size_type in = 0; in < size(); ++in) {
    const char c = (*this)[in];
    if (c == SEP && out > 0 && (*this)[out - 1] == SEP) continue;
    (*this)[out++] = c;
  }
  resize(out);
}

Pathname Pathname::removeDoubleSeps(const Pathname& p) {
  Pathname copy(p);
  copy.removeDoubleSeps();
  return copy;
}

void Pathname::removeDotDotSlash() {
  for (;;) {
    size_type at = npos;
    for (size_type i = 0; i + 1 < size(); ++i) {
      if ((*this)[i] != '.' || (*this)[i + 1] != '.') continue;
      if (i > 0 && (*this)[i - 1] != SEP) continue;
      if (i + 2 < size() && (*this)[i + 2] != SEP) continue;
      at = i;
      break;
    }
    if (at == npos) return;
    if (at + 2 < size()) {
      erase(at, 3);  // "../"
    } else if (at > 1) {
      erase(at - 1);  // "/.." at the end
    } else {
      erase(at);
    }
  }
}

void Pathname::normalize() {
  PathnameVector elements;
  splitOnSepInto(elements);
  clear();
  for (const Pathname& e : elements) {
    if (e == "..") {
      *this = toParent();
    } else if (e != ".") {
      *this /= e;
    }
  }
}

void Pathname::splitOnSepInto(PathnameVector& out) const {
  size_type start = 0;
  while (start < size()) {
    size_type end = find(SEP, start);
    if (end == npos) end = size();
    if (end > start) out.emplace_back(data() + start, end - start);
    start = end + 1;
  }
}

void Pathname::buildFromParentAndLeaf(const Pathname& parentDir, const StrSegment& entry) {
  if (this != &parentDir) assign(parentDir);
  *this /= entry;
}
