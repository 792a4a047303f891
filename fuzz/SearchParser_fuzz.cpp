// Any search string either parses or raises SearchParsingException; a
// parsed one evaluates against a row, and doubling a negation in front of
// it changes nothing.
#include <cstdint>
#include <cstdlib>

#include "framework/SearchEvaluator.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Str text(reinterpret_cast<const char*>(data), size);
  static SearchResults* rows = [] {
    SearchResults* sr = new SearchResults;
    SearchResult* r = sr->addNewResult();
    r->setValue(Str("_raw"), "error at host web01: disk \"full\" 42");
    r->setValue(Str("host"), "web01");
    r->setValue(Str("n"), "42");
    sr->addNewResult()->setValue(Str("n"), "x");
    return sr;
  }();
  try {
    SearchEvaluator ev(text, (size & 1) != 0);
    ev.toString();
    ev.lispyQuery();
    int a = ev.isMatch((*rows)[0], {});
    int b = ev.isMatch((*rows)[1], {Str("host")});
    if (a < 0 || a > 2 || b < 0 || b > 2) abort();
    Str twice("NOT NOT ");
    twice.append(StrSegment(text));
    try {
      SearchEvaluator nn(twice, (size & 1) != 0);
      if (nn.isMatch((*rows)[0], {}) != a && text.find_first_of("()") == Str::npos) abort();
    } catch (const SearchParsingException&) {
    }
  } catch (const SearchParsingException&) {
  }
  return 0;
}
