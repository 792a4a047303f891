#include "util/DateParser.h"

#include <algorithm>

#include "util/Assert.h"
#include "util/Logger.h"
#include "util/Regex.h"
#include "util/RegexMatch.h"

namespace {

typedef TimeFormatRawParseResult R;

// The date text of the last full search is reused only while events come
// closer together than this on average; a failed reuse sets the average to
// it, which closes the shortcut until the stream settles again.
constexpr uint64_t DATE_REUSE_MAX_GAP_SECS = 600;

// After this many quick checks of hasTime in a row fail, it searches all
// patterns again.
constexpr uint32_t QUICK_ATTEMPTS = 10;

// A repeated result is reported once per this many repeats.
constexpr uint32_t SAME_TIME_REPORT_EVERY = 100000;

// One match of the date list: its parse and its offsets in the prefix.
struct DateMatch {
  DP_parseState pr;
  int start = -1;
  int end = -1;
};

}  // namespace

DateParserRegexConf DateParser::__emptyConf;

DateParser::DateParser(bool useMemory)
    : _conf(&__emptyConf), _lookahead(-1), _useMemory(useMemory), _lastHour(-1),
      _mode(MODE_NONE) {
  _guesser.setMinMaxDays(1825, 7);
  reset();
}

DateParser::~DateParser() = default;

void DateParser::setConf(const DateParserRegexConf* conf) {
  _conf = conf != nullptr ? conf : &__emptyConf;
}

void DateParser::setMode(int mode) { _mode = mode; }

void DateParser::reset() {
  _timeState.lastRegex = nullptr;
  _timeState.hits = 0;
  _dateState.lastRegex = nullptr;
  _dateState.hits = 0;
}

void DateParser::setDateLookahead(int lookahead) { _lookahead = lookahead < 0 ? -1 : lookahead; }

void DateParser::setMinMaxDiffSecs(int ago, int hence) {
  if (ago > 0) _guesser.maxDiffSecsAgo = ago;
  if (hence > 0) _guesser.maxDiffSecsHence = hence;
}

void DateParser::setTimePrefix(Regex* prefix) { _timePrefix.reset(prefix); }

bool DateParser::setTimeFormat(const Str& format) {
  _timeFormat.reset();
  return !format.empty() && _timeFormat.setFtime(format.c_str());
}

Str DateParser::getLastDatePatternName() const {
  const Str* name = _conf->getPatternName(_dateState.lastRegex);
  return name != nullptr ? *name : Str();
}

StrSegment DateParser::prefixOf(const StrSegment& text) const {
  if (_timePrefix == nullptr) return text;
  StrSegment rest = text;
  if (!_timePrefix->match(rest, nullptr, true, false)) return StrSegment(text.data(), 0);
  return rest;
}

bool DateParser::parseDate(Timeval& out, const StrSegment& text, const Timeval& now,
                           int& timeStart, int& timeEnd, int& dateStart, int& dateEnd,
                           ExtraTimevalParseInfo* extra) {
  if (_mode == MODE_NONE) return false;
  if (_mode == MODE_CURRENT) {
    out = Timeval::now();
    if (extra != nullptr) extra->subsecDigits = -3;
    return true;
  }
  _guesser.now = now;
  if (!dateTimeFromString(out, text, timeStart, timeEnd, dateStart, dateEnd, extra)) {
    out = _guesser.previous;
    if (out.tv_sec == 0) return false;
    if (extra != nullptr) {
      if (!_savedExtraValid) return false;
      *extra = _savedExtra;
    }
    doLog(TIMESTAMP_USING_PREVIOUS, verboseLogger(), out.asctime().c_str());
  }
  if (out == _guesser.previous) {
    if (++_sameTimeCount % SAME_TIME_REPORT_EVERY == 0) {
      doLog(TIMESTAMP_CONSECUTIVE_LIMIT, verboseLogger(), _sameTimeCount / 1000);
    }
  } else {
    _sameTimeCount = 0;
  }
  _guesser.previous = out;
  return true;
}

bool DateParser::dateTimeFromString(Timeval& out, const StrSegment& text, int& timeStart,
                                    int& timeEnd, int& dateStart, int& dateEnd,
                                    ExtraTimevalParseInfo* extra) {
  timeStart = timeEnd = dateStart = dateEnd = -1;
  _attempts = 0;
  const StrSegment prefix = prefixOf(text);
  const int skip = static_cast<int>(prefix.data() - text.data());
  if (prefix.size() == 0) return false;

  Timeval parsed;
  bool accepted = false;
  if (_timeFormat.isSet()) {
    const long used = parsed.parse(_timeFormat, prefix.data(), prefix.size(), &_guesser, extra);
    if (used >= 0) {
      timeStart = 0;
      timeEnd = static_cast<int>(used);
      accepted = true;
    } else {
      internal_logExcerpt(TIMESTAMP_STRPTIME_GENERIC_FAIL, prefix);
    }
  }

  while (!accepted) {
    parsed = Timeval();
    DP_parseState result;
    if (!generic_getMatch(&_conf->timeList, &_timeState, prefix, &result, timeStart, timeEnd,
                          false)) {
      return false;
    }
    const bool epoch = result.has(R::HAVE_EPOCH);
    if (!epoch && _useMemory && _avgGapSecs < DATE_REUSE_MAX_GAP_SECS &&
        result.has(R::HAVE_HOUR24 | R::HAVE_MINUTE) && result.hour24 == _lastHour &&
        result.minute == _lastMinute && prefix.size() >= static_cast<size_t>(_lastDateEnd) &&
        StrSegment(prefix.data() + _lastDateStart, _lastDateEnd - _lastDateStart) ==
            StrSegment(_lastDateText)) {
      result.mergeIn(&_lastDateResult);
      dateStart = _lastDateStart;
      dateEnd = _lastDateEnd;
      if (parsed.set(&result, &_guesser, extra) && _guesser.withinDateWindow(parsed)) {
        accepted = true;
        break;
      }
      // The line only looked like the last one: search it afresh, with the
      // shortcut closed until the stream settles.
      reset();
      _avgGapSecs = DATE_REUSE_MAX_GAP_SECS;
      dateStart = dateEnd = -1;
      continue;
    }
    if (!epoch) {
      DateMatch dateps;
      if (generic_getMatch(&_conf->dateList, &_dateState, prefix, &dateps.pr, dateps.start,
                           dateps.end, false)) {
        kassert((dateps.pr.have & TimeFormatRawParseResult::HAVE_TZNAM) == 0);
        result.mergeIn(&dateps.pr);
        dateStart = dateps.start;
        dateEnd = dateps.end;
        _lastDateResult = dateps.pr;
        _lastHour = result.has(R::HAVE_HOUR24) ? result.hour24 : -1;
        _lastMinute = result.minute;
        _lastDateStart = std::max(dateps.start, 0);
        _lastDateEnd = std::max(_lastDateStart, dateps.end);
        _lastDateText.assign(prefix.data() + _lastDateStart, _lastDateEnd - _lastDateStart);
      }
    }
    const bool setOk = parsed.set(&result, &_guesser, extra);
    const bool inWindow = _guesser.withinDateWindow(parsed);
    if (setOk && inWindow) {
      accepted = true;
      break;
    }
    if (setOk || !inWindow) {
      doLog(TIMESTAMP_REGEX_OUTSIDE_WINDOW, verboseLogger(), parsed.asctime().c_str());
    }
    reset();
    return false;
  }

  if (_timeFormat.isSet() && !_guesser.withinDateWindow(parsed)) {
    doLog(TIMESTAMP_STRPTIME_OUTSIDE_WINDOW, verboseLogger(), parsed.asctime().c_str());
    return false;
  }
  if (extra != nullptr && _guesser.haveOverride()) extra->timezoneKnown = true;
  const Timeval& previous = _guesser.previous;
  // The first event counts its distance from zero too, which keeps the
  // date shortcut shut for the first few dozen lines of a stream, until
  // the average has come down from there.
  if (_useMemory && parsed > previous) {
    const uint64_t gap = static_cast<uint64_t>(parsed.tv_sec) - static_cast<uint64_t>(previous.tv_sec);
    _avgGapSecs = (gap + 2 * _avgGapSecs) / 3;
  }
  if (extra == nullptr) {
    _savedExtraValid = false;
  } else {
    _savedExtra = *extra;
    _savedExtraValid = true;
  }
  if (skip != 0) {
    for (int* region : {&timeStart, &timeEnd, &dateStart, &dateEnd}) {
      if (*region >= 0) *region += skip;
    }
  }
  out = parsed;
  return true;
}

bool DateParser::hasTime(const StrSegment& text) {
  if (_mode == MODE_CURRENT) return true;
  if (_mode == MODE_NONE) return false;
  if (_timeFormat.isSet()) {
    const StrSegment prefix = prefixOf(text);
    Timeval t;
    if (prefix.size() != 0 && t.parse(_timeFormat, prefix.data(), prefix.size(), &_guesser) >= 0) {
      return true;
    }
    internal_logExcerpt(TIMESTAMP_STRPTIME_GENERIC_FAIL, prefix);
    return false;
  }

  const bool quick = _attempts < QUICK_ATTEMPTS;
  const StrSegment prefix = prefixOf(text);
  if (prefix.size() == 0) return false;
  const DateTimeRegex* timeBefore = _timeState.lastRegex;
  const DateTimeRegex* dateBefore = _dateState.lastRegex;

  DP_parseState result;
  int start = -1, end = -1;
  if (!generic_getMatch(&_conf->timeList, &_timeState, prefix, &result, start, end, quick)) {
    return false;
  }
  if (result.has(R::HAVE_EPOCH)) return true;
  DP_parseState date;
  if (!generic_getMatch(&_conf->dateList, &_dateState, prefix, &date, start, end, quick)) {
    return false;
  }

  const Timeval& previous = _guesser.previous;
  if (quick && previous.tv_sec != 0) {
    result.mergeIn(&date);
    Timeval t;
    if (t.set(&result, &_guesser, nullptr)) {
      const int64_t diff = t.tv_sec - previous.tv_sec;
      if (diff < -static_cast<int64_t>(_guesser.maxDiffSecsAgo) ||
          diff > static_cast<int64_t>(_guesser.maxDiffSecsHence)) {
        if (_timeState.lastRegex != timeBefore || _dateState.lastRegex != dateBefore) {
          ++_attempts;
          doLog(TIMESTAMP_TOO_FAR_FROM_PREVIOUS, verboseLogger(), t.asctime().c_str(),
                previous.asctime().c_str(), _guesser.maxDiffSecsAgo, _guesser.maxDiffSecsHence);
          return false;
        }
        doLog(TIMESTAMP_SOMEWHAT_FAR_FROM_PREVIOUS, verboseLogger(), t.asctime().c_str(),
              previous.asctime().c_str());
      }
    }
  }
  return true;
}

void DateParser::setDateByString(const StrSegment& text, bool ignoreLookahead) {
  const int32_t saved = _lookahead;
  if (ignoreLookahead) _lookahead = -1;
  Str source;
  source.reserve(8 + text.size());
  source.append("source::");
  source.append(text.data(), text.size());
  DP_parseState ps;
  int start = -1, end = -1;
  if (generic_getMatch(&_conf->dateList, &_dateState, StrSegment(source), &ps, start, end,
                       false)) {
    Timeval t;
    ExtraTimevalParseInfo info;
    if (t.set(&ps, &_guesser, &info)) {
      _guesser.sourceYear = info.year;
      _guesser.sourceMonth = info.month;
      _guesser.sourceDay = info.mday;
      _guesser.sourceHour = 0;
    }
  }
  _lookahead = saved;
}
