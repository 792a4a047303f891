// DateParser: finds the timestamp of one line of an event's text, with the
// byte regions that held its time and its date, using the time and date
// patterns of a loaded pattern file (util/DateParserRegexConf.h), an
// optional explicit format, and a guesser that completes partial dates.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <memory>

#include "util/DateParserGuesser.h"
#include "util/DateParserRegexConf.h"
#include "util/DateTimeRegexList.h"
#include "util/ExtraTimevalParseInfo.h"
#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/TimeFormat.h"
#include "util/TimeFormatRawParseResult.h"
#include "util/Timeval.h"

class HashedStrReference;
class Logger;
class Regex;

// The memory a parser keeps for one of its two lists: the pattern that won
// the last lines, how many lines in a row it won, and how many extractions
// its last match had. A plain record.
struct DateParserRegexListState {
  const DateTimeRegex* lastRegex = nullptr;
  uint32_t hits = 0;
  int64_t lastCount = 0;
};

// Whether a zone text may stand as a zone: a text that starts with neither
// a sign nor a digit passes ("PDT", "GMT-0700", "Z"); otherwise what follows
// an optional sign must be HHMM or HH:MM with HH 00-23 and MM 00-59, so
// "+0530" and "-08:00" pass while "+2500", "+053", "0800x" and a lone "+"
// fail. Pure; safe from any thread.
bool strict_zone_check(const char* text, size_t length);

// One parser serves one stream of lines and belongs to one thread at a
// time. It points at a configuration it does not own (DateParserConfigRef
// keeps that alive) and never throws on bad input: a line it cannot read is
// a false return, or the previous event's time from parseDate.
class DateParser {
 public:
  // The message types of doLog, in the order of their formats.
  enum MessageType : unsigned int {
    TIMESTAMP_USING_PREVIOUS = 0,
    TIMESTAMP_CONSECUTIVE_LIMIT = 1,
    TIMESTAMP_TOO_FAR_FROM_PREVIOUS = 2,
    TIMESTAMP_SOMEWHAT_FAR_FROM_PREVIOUS = 3,
    TIMESTAMP_FORMAT_CHANGED = 4,
    TIMESTAMP_INVALID_TIMEZONE = 5,
    TIMESTAMP_STRPTIME_GENERIC_FAIL = 6,
    TIMESTAMP_STRPTIME_OUTSIDE_WINDOW = 7,
    TIMESTAMP_REGEX_GENERIC_FAIL = 8,
    TIMESTAMP_REGEX_OUTSIDE_WINDOW = 9,
    MESSAGE_TYPE_COUNT = 10,
  };
  // The values of setMode.
  enum Mode : int { MODE_NONE = 0, MODE_REGULAR = 1, MODE_CURRENT = 2 };

  // The configuration every parser points at while it has no real one:
  // both lists empty, so that no code tests for null.
  static DateParserRegexConf __emptyConf;

  // A parser with no configuration (parseDate finds nothing until one is
  // assigned), lookahead unlimited, window 1825 days back and 7 ahead.
  // `useMemory` false turns off every memory of patterns and date text.
  explicit DateParser(bool useMemory);
  virtual ~DateParser();
  DateParser(const DateParser&) = delete;
  DateParser& operator=(const DateParser&) = delete;

  // Logs message `type` with the arguments of its format (getMessageFormat)
  // through doLogImpl. REQUIRES: type < MESSAGE_TYPE_COUNT.
  virtual void doLog(unsigned int type, Logger& logger, ...);
  // Sends "<format><context>" with `args` to `logger`: debug for types 5, 6
  // and 8, warn for the rest.
  virtual void doLogImpl(unsigned int type, Logger& logger, const char* format, va_list args);

  // The printf format of message `type`; "" past the table.
  static const char* getMessageFormat(unsigned int type);
  // The name of message `type` ("TIMESTAMP_USING_PREVIOUS"); "UNKNOWN" past
  // the table.
  static const char* getMessageTypeAsStr(unsigned int type);
  // The channel of the parse messages, "DateParserVerbose", deduplicated.
  static Logger& verboseLogger();

  // The main call. Finds the timestamp of `text` against the clock reading
  // `now`; regions are byte offsets into `text`, end exclusive, -1 when not
  // found. A line without a readable timestamp takes the previous result
  // (logged as TIMESTAMP_USING_PREVIOUS), unless there is none or `extra`
  // is given while no parse info was saved: then false, `out` undefined.
  // Mode NONE is always false; mode CURRENT gives the clock with
  // extra->subsecDigits -3.
  bool parseDate(Timeval& out, const StrSegment& text, const Timeval& now, int& timeStart,
                 int& timeEnd, int& dateStart, int& dateEnd, ExtraTimevalParseInfo* extra);
  // The search of parseDate without the fallback to the previous time and
  // without touching it. False when the line yields no acceptable time.
  bool dateTimeFromString(Timeval& out, const StrSegment& text, int& timeStart, int& timeEnd,
                          int& dateStart, int& dateEnd, ExtraTimevalParseInfo* extra);
  // Whether `text` holds a timestamp, for line-merging code: a time and a
  // date pattern must both match (or TIME_FORMAT must parse). A time too far
  // from the previous event's, found by patterns other than the remembered
  // ones, counts as none (TIMESTAMP_TOO_FAR_FROM_PREVIOUS).
  bool hasTime(const StrSegment& text);
  // Takes a date from the source's name ("source::" is put in front of
  // `text`) and gives it to the guesser, which then dates the lines that
  // carry only a time. With `ignoreLookahead` the whole text is searched.
  // A text without a date changes nothing.
  void setDateByString(const StrSegment& text, bool ignoreLookahead);

  // The suffix of every message: " Context: " and the text with each "%"
  // doubled.
  void setContext(const StrSegment& text);
  void setContext(const Str& text);
  void setContext(const HashedStrReference& text);
  const Str& getContext() const { return _context; }

  // Characters of a line that are searched; 0 and below mean all.
  void setDateLookahead(int lookahead);
  int getDateLookahead() const { return _lookahead; }
  // MAX_DIFF_SECS_AGO and MAX_DIFF_SECS_HENCE; a value of 0 or below leaves
  // that limit as it is.
  void setMinMaxDiffSecs(int ago, int hence);
  // TIME_PREFIX: takes ownership of `prefix` (null clears it) and frees the
  // previous one.
  void setTimePrefix(Regex* prefix);
  // TIME_FORMAT: compiles `format`; an empty or invalid text leaves none.
  // Returns whether a format is now in force.
  bool setTimeFormat(const Str& format);

  // The configuration (not owned) and the mode, as DateParserConfigRef::
  // assignTo writes them. A null configuration means __emptyConf.
  void setConf(const DateParserRegexConf* conf);
  void setMode(int mode);
  const DateParserRegexConf* getConf() const { return _conf; }
  int getMode() const { return _mode; }

  // Forgets the winning pattern of both lists (lastRegex and hits), and
  // nothing else.
  void reset();

  // The part of `text` that is searched: all of it without TIME_PREFIX,
  // else what follows the prefix's first match, else an empty segment.
  StrSegment prefixOf(const StrSegment& text) const;

  DateParserGuesser& getGuesser() { return _guesser; }
  const DateParserGuesser& getGuesser() const { return _guesser; }
  const DateParserRegexListState& getTimeState() const { return _timeState; }
  const DateParserRegexListState& getDateState() const { return _dateState; }
  bool usesMemory() const { return _useMemory; }
  uint32_t getAttempts() const { return _attempts; }
  uint64_t getAvgGapSecs() const { return _avgGapSecs; }
  uint32_t getSameTimeCount() const { return _sameTimeCount; }
  // The name of the date pattern that won last, or "" (dateprobe prints it).
  Str getLastDatePatternName() const;

  // How many times each list's patterns were evaluated over the parser's
  // life; what the memory exists to keep low.
  uint64_t getTimeEvaluations() const { return _timeEvaluations; }
  uint64_t getDateEvaluations() const { return _dateEvaluations; }

 private:
  // The pattern search of one list over `text`, with the memory in `state`;
  // see the .cpp. `start` and `end` are the match's offsets in `text`.
  bool generic_getMatch(const DateTimeRegexList* list, DateParserRegexListState* state,
                        StrSegment text, DP_parseState* ps, int& start, int& end, bool quick);
  // Evaluates `regex`, counting the evaluation against `list`.
  bool internal_evaluate(const DateTimeRegexList* list, const DateTimeRegex* regex,
                         StrSegment& text, DateTimeRegexExtractions& ex, int& start, int& end);
  // Logs `type` with the excerpt of `text` as its one argument.
  void internal_logExcerpt(unsigned int type, const StrSegment& text);

  const DateParserRegexConf* _conf;
  DateParserRegexListState _timeState;
  DateParserRegexListState _dateState;
  int32_t _lookahead;
  uint32_t _attempts = 0;
  bool _useMemory;
  int32_t _lastHour;
  int32_t _lastMinute = 0;
  int32_t _lastDateStart = 0;
  int32_t _lastDateEnd = 0;
  Str _lastDateText;
  uint64_t _avgGapSecs = 0;
  TimeFormatRawParseResult _lastDateResult;
  int _mode;
  std::unique_ptr<Regex> _timePrefix;
  TimeFormat _timeFormat;
  DateParserGuesser _guesser;
  ExtraTimevalParseInfo _savedExtra;
  bool _savedExtraValid = false;
  Str _context;
  uint32_t _sameTimeCount = 0;

  uint64_t _timeEvaluations = 0;
  uint64_t _dateEvaluations = 0;
};
