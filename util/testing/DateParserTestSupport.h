// A date parser on the shipped pattern file, set up as the corpus of
// tools/dateprobe/testdata assumes, for tests, benchmarks and fuzzing.
// Test code only.
#pragma once

#include <memory>

#include "util/DateParser.h"
#include "util/DateParserConfigRef.h"
#include "util/Pathname.h"

#ifndef KESTRO_SOURCE_DIR
#define KESTRO_SOURCE_DIR "."
#endif

// The pattern file as it ships, in the checkout.
inline Pathname shippedPatternFile() {
  return Pathname(KESTRO_SOURCE_DIR) / "home" / "etc" / "datetime.xml";
}

// A parser and the handle that keeps its patterns alive: the shipped file,
// TZ UTC, window 1825 days back and 7 ahead, lookahead 150. One owner.
struct ShippedDateParser {
  DateParserConfigRef ref;
  std::unique_ptr<DateParser> parser;

  explicit ShippedDateParser(bool useMemory, const Pathname& file = shippedPatternFile())
      : parser(std::make_unique<DateParser>(useMemory)) {
    ref.load(file, true);
    ref.assignTo(parser.get());
    parser->getGuesser().setMinMaxDays(1825, 7);
    parser->setDateLookahead(150);
    parser->getGuesser().setTZ("UTC");
  }
  DateParser* operator->() { return parser.get(); }
  DateParser& operator*() { return *parser; }
};
