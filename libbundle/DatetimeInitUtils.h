// DatetimeInitUtils: setting up a DateParser from one stanza of timestamp
// settings, and compiling a regular expression that such a stanza holds.
#pragma once

#include "util/Str.h"

class CowPipelineData;
class DateParser;
class DateParserConfigRef;
class PropertiesMap;
class Regex;

namespace DatetimeInitUtils {

// Compiles the value of `key` in `props` case-sensitively (unlike the
// patterns of the pattern file) and returns it; the caller owns it. Returns
// null when the key is absent or its value empty (an empty value counts as
// no setting, so an empty TIME_PREFIX means no prefix rather than a prefix
// that hides every line), and when the value does not compile, after
// reporting "Invalid regex <value> -- <reason>": through the installed
// reporter with the tag "DATETIME_REGEX_ISSUE" when `pd` is set and a
// reporter is installed, else by Logger::error on "DatetimeInitUtils".
Regex* buildRegex(const char* key, const PropertiesMap* props, CowPipelineData* pd);

// Sets `parser` up from the settings of `props`: the pattern file, which
// `ref` loads and keeps, the acceptance window, the lookahead, TIME_PREFIX,
// TIME_FORMAT and the zone (`tzOverride` when not empty, else TZ).
// Throws DateParseException when the pattern file does not load.
void initDateParser(const PropertiesMap& props, DateParser& parser, DateParserConfigRef& ref,
                    const Str& tzOverride, CowPipelineData* pd);

// Where an event-level report goes: the event's input channel, with a tag.
// Installed by the event record code; null until then.
typedef void (*RegexIssueReporter)(CowPipelineData* pd, const char* tag, const Str& message);
// Installs `reporter` (null to remove it) and returns the previous one.
// Safe from any thread.
RegexIssueReporter setRegexIssueReporter(RegexIssueReporter reporter);

}  // namespace DatetimeInitUtils
