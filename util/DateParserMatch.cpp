// The pattern search of the date parser over one list, with the memory of
// the pattern that won the last lines.

#include "util/DateParser.h"

#include <algorithm>

namespace {

// Cuts `text` after `characters` UTF-8 characters: a byte that is no
// continuation byte (10xxxxxx) starts a character.
void cutToCharacters(StrSegment& text, int characters) {
  // A text no longer in bytes than the limit holds no more characters.
  if (text.size() <= static_cast<size_t>(characters)) return;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
  const size_t n = text.size();
  int seen = 0;
  for (size_t i = 0; i < n; ++i) {
    if ((p[i] & 0xC0) != 0x80 && ++seen > characters) {
      text = StrSegment(text.data(), i);
      return;
    }
  }
}

// A pattern that won this many lines in a row is no longer challenged.
constexpr uint32_t SETTLED_HITS = 10;

// Points the zone view at the parse state's own copy of the zone text, so
// that the state outlives the line.
void keepZone(DP_parseState* ps) {
  if (ps->has(TimeFormatRawParseResult::HAVE_TZNAM)) {
    ps->zoneName.assign(ps->tzName.data(), ps->tzName.size());
    ps->tzName = StrSegment(ps->zoneName.data(), ps->zoneName.size());
  }
}

}  // namespace

bool DateParser::internal_evaluate(const DateTimeRegexList* list, const DateTimeRegex* regex,
                                   StrSegment& text, DateTimeRegexExtractions& ex, int& start,
                                   int& end) {
  ++(list == &_conf->timeList ? _timeEvaluations : _dateEvaluations);
  return regex->evaluate(text, ex, start, end);
}

bool DateParser::generic_getMatch(const DateTimeRegexList* list, DateParserRegexListState* state,
                                  StrSegment text, DP_parseState* ps, int& start, int& end,
                                  bool quick) {
  if (_lookahead > 0) cutToCharacters(text, _lookahead);

  bool found = false;
  int best = -1;
  DateTimeRegexExtractions ex;
  if (_useMemory && state->lastRegex != nullptr) {
    int mstart = -1, mend = -1;
    if (internal_evaluate(list, state->lastRegex, text, ex, mstart, mend)) {
      best = list->parse(ex, ps);
      if (best >= 0) {
        found = true;
        start = mstart;
        end = mend;
        keepZone(ps);
      }
    }
  }

  if (quick && state->hits >= SETTLED_HITS) {
    if (found && static_cast<int64_t>(ex.count) == state->lastCount) return true;
    if (found) ++_attempts;
    return false;
  }
  if (found) {
    state->lastCount = static_cast<int64_t>(ex.count);
    if (state->hits >= SETTLED_HITS) return true;
    ++state->hits;
  } else if (!quick) {
    state->hits = 0;
  }

  bool lastInvalid = false;
  StrSegment invalidText;
  const DateTimeRegex* remembered = state->lastRegex;
  for (const DateTimeRegex* regex : *list) {
    if (_useMemory && regex == remembered) continue;
    int mstart = -1, mend = -1;
    if (!internal_evaluate(list, regex, text, ex, mstart, mend) || ex.count == 0) continue;
    DP_parseState fresh;
    const int score = list->parse(ex, &fresh);
    if (score < 0 || !(score > best || (score == best && mstart < start))) continue;
    if (!list->valid(&fresh, this)) {
      // The excerpt runs from the candidate's start for at most its end's
      // offset in bytes: enough to show what was misread.
      const size_t from = static_cast<size_t>(mstart);
      invalidText = StrSegment(text.data() + from,
                               std::min(static_cast<size_t>(mend), text.size() - from));
      lastInvalid = true;
      continue;
    }
    lastInvalid = false;
    if (state->lastRegex != nullptr && state->hits >= SETTLED_HITS) {
      doLog(TIMESTAMP_FORMAT_CHANGED, verboseLogger());
    }
    found = true;
    start = mstart;
    end = mend;
    best = score;
    state->lastRegex = regex;
    state->hits = 1;
    state->lastCount = static_cast<int64_t>(ex.count);
    *ps = fresh;
    keepZone(ps);
    if (!ps->badZone.empty()) {
      internal_logExcerpt(TIMESTAMP_INVALID_TIMEZONE, StrSegment(ps->badZone));
    }
  }
  if (lastInvalid && !found) internal_logExcerpt(TIMESTAMP_REGEX_GENERIC_FAIL, invalidText);
  return found;
}
