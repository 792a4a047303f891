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

// A small pattern file whose every score is easy to follow: times with
// seconds (and a fraction), with AM/PM, with a zone; a leading epoch;
// year-first and day-first dates.
constexpr const char* MINI_PATTERNS = R"(<datetime>
  <define name="hms_time" extract="hour,minute,second,subsecond">
    <text>(?&lt;!\d)(\d{1,2}):(\d\d):(\d\d)(?:[.,](\d+))?(?!\d)</text>
  </define>
  <define name="hms_ampm_time" extract="hour,minute,second,ampm">
    <text>(?&lt;!\d)(\d{1,2}):(\d\d):(\d\d) ?([ap]m)\b</text>
  </define>
  <define name="hms_zone_time" extract="hour,minute,second,zone">
    <text>(?&lt;!\d)(\d\d):(\d\d):(\d\d) ([+-]\d{4}|utc|pdt)\b</text>
  </define>
  <define name="epoch_time" extract="utcepoch">
    <text>^(\d{10})(?!\d)</text>
  </define>
  <define name="ymd_date" extract="year,month,day">
    <text>(?&lt;!\d)(\d{4})-(\d\d)-(\d\d)(?!\d)</text>
  </define>
  <define name="dmy_date" extract="day,month,year">
    <text>(?&lt;!\d)(\d\d)/(\d\d)/(\d{4})(?!\d)</text>
  </define>
  <timePatterns>
    <use name="hms_zone_time"/>
    <use name="hms_time"/>
    <use name="hms_ampm_time"/>
    <use name="epoch_time"/>
  </timePatterns>
  <datePatterns>
    <use name="ymd_date"/>
    <use name="dmy_date"/>
  </datePatterns>
</datetime>
)";
