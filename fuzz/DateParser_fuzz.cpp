// Random lines, and mutations of the corpus lines (seed a corpus directory
// with tools/dateprobe/testdata/timestamp_corpus.tsv's last column), through
// DateParser::parseDate and hasTime on the shipped patterns, with the memory
// on and off. No input may crash or read outside its text; every region lies
// inside the line; a parse with its info gives a reading in range.
//
// The first byte picks the parser, the lookahead and whether a TIME_PREFIX
// is in force; the rest is lines separated by line feeds, parsed in order by
// the same parser, so that one input walks the memory through a stream.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "util/Assert.h"
#include "util/DateParser.h"
#include "util/DateParserConfigRef.h"
#include "util/ExtraTimevalParseInfo.h"
#include "util/Regex.h"
#include "util/ScopedXmlLibInit.h"
#include "util/testing/DateParserTestSupport.h"

namespace {

// 2026-06-15 12:00:00 UTC.
const Timeval NOW(1781524800, 0);

struct Parsers {
  ScopedXmlLibInit xml;
  ShippedDateParser withMemory{true};
  ShippedDateParser withoutMemory{false};
};

Parsers& parsers() {
  static Parsers* p = new Parsers;
  return *p;
}

void checkRegion(int start, int end, size_t size) {
  kassert(start >= -1 && end >= -1);
  kassert((start < 0) == (end < 0));
  kassert(start <= end);
  kassert(static_cast<size_t>(end) <= size || end < 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t control = data[0];
  DateParser& parser =
      (control & 1) != 0 ? *parsers().withMemory : *parsers().withoutMemory;
  static const int LOOKAHEADS[] = {150, -1, 12, 40};
  parser.setDateLookahead(LOOKAHEADS[(control >> 1) & 3]);
  parser.setTimePrefix((control & 8) != 0 ? new Regex("\\] ") : nullptr);
  parser.getGuesser().previous = Timeval();
  if ((control & 16) != 0) {
    parser.setDateByString(StrSegment(reinterpret_cast<const char*>(data + 1), size - 1), true);
  }

  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  size_t from = 0;
  while (from <= text.size()) {
    size_t to = text.find('\n', from);
    if (to == std::string::npos) to = text.size();
    // A heap copy of exactly the line, so that a read past it is caught.
    const size_t n = to - from;
    std::unique_ptr<char[]> line(new char[n + 1]);
    text.copy(line.get(), n, from);
    line[n] = '\0';
    const StrSegment segment(line.get(), n);

    Timeval out;
    int ts = -1, te = -1, ds = -1, de = -1;
    ExtraTimevalParseInfo extra;
    const bool withExtra = (control & 32) != 0;
    if (parser.parseDate(out, segment, NOW, ts, te, ds, de, withExtra ? &extra : nullptr)) {
      checkRegion(ts, te, n);
      checkRegion(ds, de, n);
      if (withExtra) kassert(extra.subsecDigits >= -2 && extra.subsecDigits <= 6);
      kassert(out.tv_usec >= 0 && out.tv_usec <= 999999);
    }
    parser.hasTime(segment);
    from = to + 1;
  }
  return 0;
}
