#include "util/DateTimeRegex.h"

#include <cstring>

#include "util/Logger.h"
#include "util/RegexMatch.h"

namespace {

// Shared by name with the date parser, which logs its guesser's set-up here.
Logger gLogger("DateParser");

// Index is the code: the names as the pattern file spells them.
constexpr const char* kExtractionNames[DateTimeRegexExtractions::NUM_CODES] = {
    "year",   "month",  "litmonth",  "day",  "ampm",     "hour",     "minute",
    "second", "subsecond", "zone",   "ord",  "utcepoch", "hexepoch",
};

constexpr const char kIgnoredPrefix[] = "ignored_";

}  // namespace

void DateTimeRegexExtractions::clear() {
  for (int i = 0; i < NUM_CODES; ++i) {
    ptr[i] = nullptr;
    len[i] = 0;
  }
  count = 0;
}

DateTimeRegex::DateTimeRegex(const Str& text, const std::vector<Str>& extractNames) {
  _internal_init(text, true, CASELESS);
  extractions.reserve(extractNames.size());
  for (const Str& name : extractNames) {
    Extraction code;
    if (!extractionFromName(name, &code)) {
      gLogger.warn("Found unknown extraction \"%s\" in RE \"%s\", ignoring it", name.c_str(),
                   text.c_str());
      code = IGNORED;
    }
    extractions.push_back(code);
  }
}

bool DateTimeRegex::extractionFromName(const StrSegment& name, Extraction* code) {
  for (int i = 0; i < DateTimeRegexExtractions::NUM_CODES; ++i) {
    if (name == StrSegment(kExtractionNames[i])) {
      *code = static_cast<Extraction>(i);
      return true;
    }
  }
  const size_t prefixLen = sizeof(kIgnoredPrefix) - 1;
  if (name.size() >= prefixLen && std::memcmp(name.data(), kIgnoredPrefix, prefixLen) == 0) {
    *code = IGNORED;
    return true;
  }
  return false;
}

const char* DateTimeRegex::extractionName(Extraction code) {
  if (code >= 0 && code < DateTimeRegexExtractions::NUM_CODES) return kExtractionNames[code];
  return "ignored";
}

bool DateTimeRegex::evaluate(StrSegment& text, DateTimeRegexExtractions& out, int& start,
                             int& end) const {
  out.clear();
  RegexMatch match;
  if (!this->match(text, &match, false, false)) return false;
  const StrSegment& whole = match.getMatch();
  start = static_cast<int>(whole.data() - text.data());
  end = start + static_cast<int>(whole.size());
  const StrSegmentVector& groups = match.getGroups();
  const size_t n = groups.size() < extractions.size() ? groups.size() : extractions.size();
  for (size_t i = 0; i < n; ++i) {
    const Extraction code = extractions[i];
    const StrSegment& group = groups[i];
    if (code >= IGNORED || group.data() == nullptr || group.size() == 0) continue;
    // Two groups of one code that both take part (rare: usually they sit in
    // alternatives) leave the later text and count twice, as every stored
    // group counts.
    out.ptr[code] = group.data();
    out.len[code] = group.size();
    ++out.count;
  }
  return true;
}
