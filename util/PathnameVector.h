// PathnameVector: a list of paths, filled from separated text (a search path,
// a command line) and joined back into one shell-quoted command line.
#pragma once

#include <initializer_list>
#include <vector>

#include "util/Pathname.h"

// Thread story: as std::vector, const methods concurrent, the rest owned by
// one thread at a time.
class PathnameVector : public std::vector<Pathname> {
 public:
  PathnameVector() = default;
  PathnameVector(std::initializer_list<Pathname> paths) : std::vector<Pathname>(paths) {}
  // Each fills the vector through push_back_separated(text, sep).
  PathnameVector(const char* text, char sep) { push_back_separated(text, sep); }
  PathnameVector(const Str& text, char sep) { push_back_separated(text.c_str(), sep); }
  PathnameVector(const Pathname& text, char sep) { push_back_separated(text.c_str(), sep); }

  // Appends the pieces of the NUL-terminated `text` between `sep` bytes;
  // empty pieces are dropped: ":a::b:" by ':' appends "a" and "b".
  void push_back_separated(const char* text, char sep);

  // Appends one argument as it stands (quoting happens when joining).
  void addArg(const StrSegment& arg) { emplace_back(arg); }
  void addArg(const char* arg) { emplace_back(arg); }
  void addArg(long long number);

  // Replaces `out` with the elements, each shellQuoted(), separated by one
  // blank. Pathname::splitShellQuotedInto gives back the elements, provided
  // none is empty (an empty word does not survive the split).
  void joinShellQuotedInto(Pathname& out) const;
};
