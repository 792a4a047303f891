#include "util/DateTimeRegex.h"

#include <cstring>

#include "util/Logger.h"

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
  // Log lines are whatever a program wrote: one byte of another encoding
  // must not hide the timestamp beside it.
  tolerateInvalidUtf8();
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
  // The offsets live on the stack so that a settled stream allocates
  // nothing; a pattern with more groups than fit takes the general path.
  constexpr uint32_t kMaxPairs = 64;
  const uint32_t pairs = static_cast<uint32_t>(getCaptureCount()) + 1;
  int stackOffsets[2 * kMaxPairs];
  std::vector<int> heapOffsets;
  int* offsets = stackOffsets;
  if (pairs > kMaxPairs) {
    heapOffsets.resize(2 * static_cast<size_t>(pairs));
    offsets = heapOffsets.data();
  }
  if (!matchOffsets(text.data(), text.size(), offsets, pairs)) return false;
  // \K can leave the start behind the end; such a match has no span.
  if (offsets[0] > offsets[1]) return false;
  start = offsets[0];
  end = offsets[1];
  const size_t groups = pairs - 1;
  const size_t n = groups < extractions.size() ? groups : extractions.size();
  for (size_t i = 0; i < n; ++i) {
    const Extraction code = extractions[i];
    const int from = offsets[2 * (i + 1)];
    const int to = offsets[2 * (i + 1) + 1];
    if (code >= IGNORED || from < 0 || to <= from) continue;
    // Two groups of one code that both take part (rare: usually they sit in
    // alternatives) leave the later text and count twice, as every stored
    // group counts.
    out.ptr[code] = text.data() + from;
    out.len[code] = static_cast<size_t>(to - from);
    ++out.count;
  }
  return true;
}
