#include "util/LogDedupper.h"

#include "util/Logger.h"

bool LogSummary::expired(const Timeval& now) const {
  if (first.isMax()) return false;
  return Timeval::usecDifference(now, first) > static_cast<int64_t>(seconds) * 1000000;
}

bool LogDedupper::emit(LogSummary& summary) {
  if (summary.occurrences > summary.count) {
    Str text(summary.message);
    text.append("\n\t\t\t\t");
    text.append_unsignedlonglong(summary.occurrences - summary.count);
    text.append(" similar messages suppressed.  First occurred at: ");
    text.append(summary.first.asctime());
    cpp_do_log(_logger, summary.level, text);
    return true;
  }
  cpp_do_log(_logger, summary.level, summary.message);
  summary.first = Timeval::max();
  return false;
}

void LogDedupper::log(LogLevel level, int errnum, const char* fmt, va_list args) {
  ScopedNologLock hold(_mutex);
  Str message;
  Logger::vformat(message, errnum, fmt, args);
  const Str key(fmt);
  auto found = _summaries.find(key);
  if (found == _summaries.end()) {
    LogSummary fresh;
    fresh.key = key;
    fresh.count = _count;
    fresh.seconds = _seconds;
    found = _summaries.emplace(key, fresh).first;
  }
  found->second.message = std::move(message);
  found->second.level = level;

  const CurrentTimeval now;
  for (auto it = _summaries.begin(); it != _summaries.end();) {
    LogSummary& s = it->second;
    bool erase = false;
    if (it == found) {
      const bool wasExpired = s.expired(now);
      ++s.occurrences;
      if (s.occurrences <= s.count || wasExpired) {
        erase = emit(s);
      } else if (s.first.isMax()) {
        s.first = now;
      }
    } else if (s.expired(now)) {
      erase = emit(s);
    }
    it = erase ? _summaries.erase(it) : std::next(it);
  }
}

void LogDedupper::flush() {
  ScopedNologLock hold(_mutex);
  for (auto& entry : _summaries) {
    if (entry.second.occurrences > 0) emit(entry.second);
  }
  _summaries.clear();
}
