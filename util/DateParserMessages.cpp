// The messages of the date parser: their table, the context suffix they
// carry, and the channel they go to.

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "util/DateParser.h"
#include "util/HashedStr.h"
#include "util/Logger.h"

namespace {

// Repeated parse messages come in floods (one per line of a bad file), so
// the channel suppresses repeats of a format past 10 in 300 seconds.
Logger gVerboseLogger("DateParserVerbose", true, 300, 10);

struct MessageInfo {
  const char* name;
  const char* format;
};

constexpr MessageInfo MESSAGES[DateParser::MESSAGE_TYPE_COUNT] = {
    {"TIMESTAMP_USING_PREVIOUS",
     "Failed to parse timestamp. Defaulting to timestamp of previous event (%s)."},
    {"TIMESTAMP_CONSECUTIVE_LIMIT",
     "The same timestamp has been used for %uK consecutive times.  If more than 200K events "
     "have the same timestamp, not all events may be retrieveable."},
    {"TIMESTAMP_TOO_FAR_FROM_PREVIOUS",
     "Time parsed (%s) is too far away from the previous event's time (%s) to be accepted.  "
     "If this is a correct time, MAX_DIFF_SECS_AGO (%d) or MAX_DIFF_SECS_HENCE (%d) may be "
     "overly restrictive."},
    {"TIMESTAMP_SOMEWHAT_FAR_FROM_PREVIOUS",
     "Accepted time (%s) is suspiciously far away from the previous event's time (%s), but "
     "still accepted because it was extracted by the same pattern."},
    {"TIMESTAMP_FORMAT_CHANGED",
     "Accepted time format has changed, possibly indicating a problem in extracting "
     "timestamps."},
    {"TIMESTAMP_INVALID_TIMEZONE", "Ignored invalid timezone specifier \"%s\"."},
    {"TIMESTAMP_STRPTIME_GENERIC_FAIL", "Could not use strptime to parse timestamp from \"%s\"."},
    {"TIMESTAMP_STRPTIME_OUTSIDE_WINDOW",
     "The TIME_FORMAT specified is matching timestamps (%s) outside of the acceptable time "
     "window. If this timestamp is correct, consider adjusting MAX_DAYS_AGO and "
     "MAX_DAYS_HENCE."},
    {"TIMESTAMP_REGEX_GENERIC_FAIL", "Could not use regex to parse timestamp from \"%s\"."},
    {"TIMESTAMP_REGEX_OUTSIDE_WINDOW",
     "A possible timestamp match (%s) is outside of the acceptable time window. If this "
     "timestamp is correct, consider adjusting MAX_DAYS_AGO and MAX_DAYS_HENCE."},
};

// Types 5, 6 and 8 are routine on streams of lines without timestamps.
LogLevel levelOf(unsigned int type) {
  return type == DateParser::TIMESTAMP_INVALID_TIMEZONE ||
                 type == DateParser::TIMESTAMP_STRPTIME_GENERIC_FAIL ||
                 type == DateParser::TIMESTAMP_REGEX_GENERIC_FAIL
             ? LOGLEVEL_DEBUG
             : LOGLEVEL_WARN;
}

// An excerpt is short so that a message about a huge line stays readable.
constexpr size_t EXCERPT_BYTES = 100;

}  // namespace

const char* DateParser::getMessageFormat(unsigned int type) {
  return type < MESSAGE_TYPE_COUNT ? MESSAGES[type].format : "";
}

const char* DateParser::getMessageTypeAsStr(unsigned int type) {
  return type < MESSAGE_TYPE_COUNT ? MESSAGES[type].name : "UNKNOWN";
}

Logger& DateParser::verboseLogger() { return gVerboseLogger; }

void DateParser::doLog(unsigned int type, Logger& logger, ...) {
  va_list args;
  // The reference before the arguments is part of the interface that
  // subclasses override; both compilers of the one platform (x86-64 Linux)
  // pass it as a pointer, which va_start steps over like any other.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wvarargs"
  va_start(args, logger);
#pragma GCC diagnostic pop
  doLogImpl(type, logger, getMessageFormat(type), args);
  va_end(args);
}

void DateParser::doLogImpl(unsigned int type, Logger& logger, const char* format,
                           va_list args) {
  const LogLevel level = levelOf(type);
  if (!logger.isEnabled(level)) return;
  Str full;
  full.reserve(strlen(format) + _context.size());
  full.append(format);
  full.append(_context);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  logger.vlog(level, full.c_str(), args);
#pragma GCC diagnostic pop
}

void DateParser::internal_logExcerpt(unsigned int type, const StrSegment& text) {
  if (!gVerboseLogger.isEnabled(levelOf(type))) return;
  Str excerpt(text.data(), std::min(text.size(), EXCERPT_BYTES));
  excerpt.makeSafeForLogging();
  doLog(type, gVerboseLogger, excerpt.c_str());
}

void DateParser::setContext(const StrSegment& text) {
  Str context;
  context.reserve(text.size() + 10);
  context.append(" Context: ");
  for (size_t i = 0; i < text.size(); ++i) {
    if (text.data()[i] == '%') context.push_back('%');
    context.push_back(text.data()[i]);
  }
  _context.swap(context);
}

void DateParser::setContext(const Str& text) { setContext(StrSegment(text)); }

void DateParser::setContext(const HashedStrReference& text) {
  setContext(StrSegment(text.data(), text.size()));
}
