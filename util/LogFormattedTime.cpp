#include "util/LogFormattedTime.h"

#include "util/DateTime.h"

namespace {

constexpr const char* ISO8601_PATTERN = "%Y-%m-%d %H:%M:%S,%l";

// The local breakdown of the last second this thread rendered: log lines
// come in bursts within one second, and localtime_r is the dear part.
struct CachedTm {
  int64_t second = 0;
  bool valid = false;
  LocalStructTm tm;
};

thread_local CachedTm tCachedTm;

}  // namespace

LogFormattedTime::LogFormattedTime(const Str& arg) {
  if (arg.empty() || arg == "ISO8601") {
    _pattern = ISO8601_PATTERN;
  } else if (arg == "DATE") {
    _pattern = "%d %b %Y %H:%M:%S,%l";
  } else if (arg == "ABSOLUTE") {
    _pattern = "%H:%M:%S,%l";
  } else {
    _pattern = arg;
  }
  if (!_format.setFtime(_pattern.c_str())) {
    _pattern = ISO8601_PATTERN;
    _format.setFtime(_pattern.c_str());
  }
}

void LogFormattedTime::render(Str& out, const Timeval& t) const {
  CachedTm& cache = tCachedTm;
  if (!cache.valid || cache.second != t.tv_sec) {
    // Not Timeval::localtime: it logs when it fails, and this runs inside
    // logging. A time past the range shows as the range's end.
    if (!cache.tm.Local_fromUnixTime(static_cast<long>(t.tv_sec))) {
      cache.tm.setToRangeLimit(t.tv_sec < 0);
    }
    cache.second = t.tv_sec;
    cache.valid = true;
  }
  _format.render(out, cache.tm, static_cast<unsigned long>(t.tv_usec), cache.tm.getRenderOps());
}
