// Random text and clocks for Timeval::parse through the guessers. No input
// may crash or read outside its text; a success must leave an in-range local
// reading; and the parser's guesser, with no stream, no source date and no
// TZ, must answer as the stateless one does, its caches cold or warm.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "util/Assert.h"
#include "util/DateParserGuesser.h"
#include "util/ExtraTimevalParseInfo.h"
#include "util/TimeFormat.h"
#include "util/TimeGuesser.h"
#include "util/Timeval.h"
#include "util/TimezoneCache.h"
#include "util/testing/FixedClock.h"
#include "util/testing/TimezoneTestSupport.h"

namespace {

const char* const FORMATS[] = {
    "%Y-%m-%d %H:%M:%S.%3N %z", "%b %d %H:%M:%S",         "%d/%b/%Y:%H:%M:%S %Z",
    "%a %b %e %H:%M:%S %Z %Y",  "%I:%M %p %Z",            "%I:%M:%S",
    "%H:%M:%S %Z",              "%y%j %H%M",              "%Y %U %w %H:%M",
    "%C%y-%m-%d %T %:z",        "%s.%N",                  "%b %d %I:%M",
    "%Y-%m-%d",                 "%H:%M %z",               "%e %B %I:%M:%S %p %Z",
};
constexpr size_t FORMAT_COUNT = sizeof FORMATS / sizeof FORMATS[0];

bool in(long long v, long long lo, long long hi) { return v >= lo && v <= hi; }

void checkReading(const ExtraTimevalParseInfo& e) {
  kassert(in(e.month, 0, 11));
  kassert(in(e.mday, 1, 31));
  kassert(in(e.wday, 0, 6));
  kassert(in(e.hour, 0, 23));
  kassert(in(e.minute, 0, 59));
  kassert(in(e.second, 0, 59));
  kassert(in(e.subsecDigits, -2, 6));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool zones = [] {
    setenv("TZ", "GMT", 1);
    setupTimezoneSupport(stagedZoneinfoDir());
    return true;
  }();
  (void)zones;
  if (size < 6) return 0;
  // One byte picks the format, four the clock (seconds from 1971 on, up to
  // 2107), and the rest is the text, in a buffer of its exact size.
  const TimeFormat& format = [&]() -> const TimeFormat& {
    static const std::unique_ptr<TimeFormat[]> compiled = [] {
      std::unique_ptr<TimeFormat[]> out(new TimeFormat[FORMAT_COUNT]);
      for (size_t i = 0; i < FORMAT_COUNT; ++i) kassert(out[i].setFtime(FORMATS[i]));
      return out;
    }();
    return compiled[data[0] % FORMAT_COUNT];
  }();
  uint32_t clockBits;
  std::memcpy(&clockBits, data + 1, 4);
  const Timeval now(31536000 + static_cast<int64_t>(clockBits), 0);
  const size_t len = size - 5;
  std::unique_ptr<char[]> text(new char[len]);
  std::memcpy(text.get(), data + 5, len);

  ScopedFixedClock clock(now);
  Timeval basic;
  ExtraTimevalParseInfo basicExtra;
  const long used = basic.parse(format, text.get(), len, TimeGuesser::basic(), &basicExtra);
  kassert(used >= -1 && used <= static_cast<long>(len));
  if (used >= 0) checkReading(basicExtra);

  DateParserGuesser stream;
  stream.now = now;
  for (int pass = 0; pass < 2; ++pass) {
    Timeval viaStream;
    const long again = viaStream.parse(format, text.get(), len, &stream, nullptr);
    kassert(again == used);
    if (used >= 0) kassert(viaStream == basic);
  }
  return 0;
}
