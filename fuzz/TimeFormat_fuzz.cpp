// Random formats for setFtime and render, random text for rawParse. A parse
// that succeeds must stay inside its text and store only in-range fields;
// the text sits in a buffer of its exact size so that a read past it trips
// the address sanitizer.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "util/Assert.h"
#include "util/DateTime.h"
#include "util/TimeFormat.h"

namespace {

typedef TimeFormatRawParseResult RPR;

const char* const FORMATS[] = {
    "%Y-%m-%d %H:%M:%S.%3N %z", "%b %d %H:%M:%S",          "%d/%b/%Y:%H:%M:%S %:z",
    "%a %b %e %H:%M:%S %Z %Y",  "%s.%l",                   "%A, %B %d, %Y %l:%M %p",
    "%H:%M:%S,%3N",             "%G-W%V-%u %Ez",           "%Y%m%d%H%M%S%6N",
    "%y%j %k%n%M %::z %:::z",   "%c",                      "%H%M%S %Z|%Z",
    "%e-%h-%C%y %r",            "%U %W %w %S.%N",          "%T%t%p %x",
};

bool in(long long v, long long lo, long long hi) { return v >= lo && v <= hi; }

// What any successful rawParse may leave in a fresh record.
void checkRecord(const RPR& r, const char* text, size_t size) {
  const uint32_t h = r.have;
  if (h & RPR::HAVE_TZOFFSET) kassert(in(r.tzOffset, -86399, 86399));
  if (h & RPR::HAVE_TZNAM) {
    kassert(r.tzName.size() != 0);
    kassert(r.tzName.data() >= text && r.tzName.data() + r.tzName.size() <= text + size);
  }
  if (h & RPR::HAVE_YEAR) kassert(in(r.year, 1971, 2999));
  if (h & RPR::HAVE_ISOYEAR) kassert(in(r.isoYear, 1971, 2999));
  if (h & RPR::HAVE_CENTURY) kassert(in(r.century, 19, 29));
  if (h & RPR::HAVE_SHORTYEAR) kassert(in(r.shortYear, 0, 99));
  if (h & RPR::HAVE_MONTH) kassert(in(r.month, 0, 11));
  if (h & RPR::HAVE_MDAY) kassert(in(r.mday, 1, 31));
  if (h & RPR::HAVE_HOUR24) kassert(in(r.hour24, 0, 23));
  if (h & RPR::HAVE_HOUR12) kassert(in(r.hour12, 0, 11));
  if (h & RPR::HAVE_MINUTE) kassert(in(r.minute, 0, 59));
  if (h & RPR::HAVE_SECOND) kassert(in(r.second, 0, 60));
  if (h & RPR::HAVE_SUBSEC) kassert(in(r.subsecDigits, 1, 6) && in(r.subsecUsec, 0, 999999));
  if (h & (RPR::HAVE_SUNDAYWEEK | RPR::HAVE_MONDAYWEEK)) {
    kassert(in(r.sundayWeek, 0, 53) && in(r.mondayWeek, 0, 53));
  }
  if (h & RPR::HAVE_ISOWEEK) kassert(in(r.isoWeek, 1, 53));
  if (h & RPR::HAVE_YDAY) kassert(in(r.yday, 0, 365));
  if (h & RPR::HAVE_WDAY) kassert(in(r.wday, 0, 6));
}

void parseChecked(const TimeFormat& f, const char* data, size_t size) {
  std::unique_ptr<char[]> text(new char[size == 0 ? 1 : size]);
  std::memcpy(text.get(), data, size);
  RPR r;
  const char* end = f.rawParse(&r, text.get(), text.get() + size);
  if (end == nullptr) return;
  kassert(end >= text.get() && end <= text.get() + size);
  checkRecord(r, text.get(), size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const uint8_t mode = data[0];
  const char* rest = reinterpret_cast<const char*>(data + 1);
  size -= 1;
  if (mode & 1) {
    // A format up to the first NUL, then text.
    const size_t n = strnlen(rest, size);
    const std::string format(rest, n);
    const char* text = n < size ? rest + n + 1 : rest + size;
    const size_t textSize = static_cast<size_t>(rest + size - text);
    TimeFormat f;
    if (!f.setFtime(format.c_str())) {
      kassert(!f.isSet());
      return 0;
    }
    TimeFormat copy(f);
    GmtStructTm t;
    const long when = static_cast<long>((static_cast<uint64_t>(mode) << 27) % 32535244799ULL);
    if (t.fromUnixTime(when)) {
      Str out;
      copy.render(out, t, (static_cast<unsigned long>(mode) * 7919) % 1000000, t.getRenderOps());
      parseChecked(f, out.data(), out.size());
    }
    parseChecked(copy, text, textSize);
  } else {
    const TimeFormat& f = [&]() -> const TimeFormat& {
      static const TimeFormat* compiled = [] {
        static TimeFormat all[sizeof FORMATS / sizeof FORMATS[0]];
        for (size_t i = 0; i < sizeof FORMATS / sizeof FORMATS[0]; ++i) all[i].setFtime(FORMATS[i]);
        return all;
      }();
      return compiled[(mode >> 1) % (sizeof FORMATS / sizeof FORMATS[0])];
    }();
    parseChecked(f, rest, size);
  }
  return 0;
}
