// Shell quoting of single words and splitting of command lines into words,
// for the command lines the system hands to /bin/sh and reads back.
#include <cstring>

#include "util/Assert.h"
#include "util/CharacterClass.h"
#include "util/Pathname.h"
#include "util/PathnameVector.h"

namespace {

const CharacterClass SHELL_WHITESPACE(" \t\n");
const CharacterClass SHELL_QUOTABLE("\"$\\");
const CharacterClass SHELL_META("#&*;=?[]|");

enum SplitState { BASE, IN_DOUBLE, IN_SINGLE };

}  // namespace

Pathname Pathname::shellQuoted() const {
  if (empty()) return Pathname("\"\"");
  bool white = false, quotable = false, meta = false, single = false;
  for (char c : *this) {
    white |= SHELL_WHITESPACE.contains(c);
    quotable |= SHELL_QUOTABLE.contains(c);
    meta |= SHELL_META.contains(c);
    single |= c == '\'';
  }
  if (!white && !quotable && !meta && !single) return *this;

  Pathname out;
  out.reserve(size() + 8);
  if (!single && quotable) {
    out.push_back('\'');
    out.append(*this);
    out.push_back('\'');
    return out;
  }
  if (white) {
    out.push_back('"');
    for (char c : *this) {
      if (SHELL_QUOTABLE.contains(c)) out.push_back('\\');
      out.push_back(c);
    }
    out.push_back('"');
    return out;
  }
  for (char c : *this) {
    if (SHELL_QUOTABLE.contains(c) || SHELL_META.contains(c) || c == '\'') out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

bool Pathname::splitArgShellQuoted(const StrSegment& in, Pathname& storeTo, StrSegment& rest) {
  storeTo.clear();
  const char* p = in.data();
  const char* const end = in.data() + in.size();
  while (p < end && SHELL_WHITESPACE.contains(*p)) ++p;

  SplitState state = BASE;
  bool escaped = false;
  for (; p < end; ++p) {
    const char c = *p;
    if (escaped) {
      storeTo.push_back(c);
      escaped = false;
      continue;
    }
    if (state == IN_SINGLE) {
      if (c == '\'') {
        state = BASE;
      } else {
        storeTo.push_back(c);
      }
      continue;
    }
    if (c == '\\') {
      escaped = true;
    } else if (state == IN_DOUBLE) {
      if (c == '"') {
        state = BASE;
      } else {
        storeTo.push_back(c);
      }
    } else if (SHELL_WHITESPACE.contains(c)) {
      kassert(state == BASE);
      break;
    } else if (c == '\'') {
      state = IN_SINGLE;
    } else if (c == '"') {
      state = IN_DOUBLE;
    } else {
      storeTo.push_back(c);
    }
  }
  rest.assign(p, static_cast<size_t>(end - p));
  if (state != BASE || escaped) return false;
  return !storeTo.empty();
}

namespace {

void splitWords(const Pathname& text, PathnameVector& out, bool onlyExisting) {
  StrSegment left = StrSegment(text).trim(StrSegment::default_trimchars, true, false);
  Pathname storeTo;
  for (;;) {
    StrSegment rest;
    if (!Pathname::splitArgShellQuoted(left, storeTo, rest)) return;
    kassert(!storeTo.empty());
    if (!onlyExisting || storeTo.exists()) out.push_back(storeTo);
    left = rest.trim(StrSegment::default_trimchars, true, false);
  }
}

}  // namespace

void Pathname::splitShellQuotedInto(PathnameVector& out) const { splitWords(*this, out, false); }

void Pathname::splitShellQuotedIntoExists(PathnameVector& out) const {
  splitWords(*this, out, true);
}
