// CSV text of any shape is read without crashing, the same by lines as
// whole, and whatever was read survives a write and a second read
// unchanged.
#include <cstdint>
#include <cstdlib>

#include "framework/SearchResults.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Str text(reinterpret_cast<const char*>(data), size);
  SearchResults first;
  if (!first.fromCSV(text, 0, SIZE_MAX, (size & 1) != 0)) return 0;
  StringLineReader lines(text);
  SearchResults byLine;
  if (!byLine.fromCSV(lines, 0, SIZE_MAX, (size & 1) != 0)) abort();
  Str a, b;
  first.toCSV(a);
  byLine.toCSV(b);
  if (a != b) abort();
  Str written;
  first.toCSV(written);
  SearchResults second;
  if (!second.fromCSV(written) && first.keyCount() != 0) abort();
  // Rows without any value may vanish when there is a single column.
  if (first.keyCount() > 1 && second.size() != first.size()) abort();
  Str rewritten;
  second.toCSV(rewritten);
  if (first.keyCount() > 1 && rewritten != written) abort();
  StrVector values;
  if (SearchResults::decodeMV(text, values)) {
    Str enc;
    SearchResults::encodeMV(values, enc);
    StrVector again;
    if (!SearchResults::decodeMV(enc, again) || again != values) abort();
  }
  return 0;
}
