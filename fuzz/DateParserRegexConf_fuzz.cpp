// Feeds arbitrary bytes to the timestamp pattern reader as an XML document
// and checks what holds for any input: the reader either throws
// DateParseException with one of its own texts or yields lists whose every
// entry is a define of the file, and every listed pattern evaluates the input
// itself with offsets inside it and extractions that point into it. A broken
// property aborts.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/DateParseException.h"
#include "util/DateParserRegexConf.h"
#include "util/Logger.h"
#include "util/Pathname.h"
#include "util/ScopedXmlLibInit.h"
#include "util/XmlDocument.h"

namespace {

void check(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "property broken: %s\n", what);
    abort();
  }
}

bool startsWith(const char* text, const char* prefix) {
  return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

void checkList(const DateParserRegexConf& conf, const DateTimeRegexList& list,
               const char* data, size_t size) {
  for (const DateTimeRegex* re : list) {
    const Str* name = conf.getPatternName(re);
    check(name != nullptr, "a listed pattern is a define of the file");
    check(conf.find(*name) == re, "the name leads back to the pattern");
    StrSegment subject(data, size);
    DateTimeRegexExtractions ex;
    int start = -1, end = -1;
    if (!re->evaluate(subject, ex, start, end)) {
      check(ex.count == 0, "no match leaves nothing extracted");
      continue;
    }
    check(0 <= start && start <= end && static_cast<size_t>(end) <= size, "offsets in range");
    size_t set = 0;
    for (int code = 0; code < DateTimeRegexExtractions::NUM_CODES; ++code) {
      if (!ex.has(code)) continue;
      ++set;
      check(ex.len[code] > 0, "a set code is never empty");
      check(ex.ptr[code] >= data && ex.ptr[code] + ex.len[code] <= data + size,
            "an extraction points into the subject");
    }
    check(set <= ex.count && ex.count <= re->extractions.size(), "count bounds");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static ScopedXmlLibInit* init = new ScopedXmlLibInit;
  (void)init;
  Logger::initialize();
  Logger::setChannelLevel("XmlParser", Str("FATAL"));
  Logger::setChannelLevel("DateParser", Str("FATAL"));
  Logger::setChannelLevel("LoadDateParserRegexes", Str("FATAL"));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  // Each define is JIT-compiled; large inputs only make the run slower.
  if (size > 8192) return 0;
  const char* data = reinterpret_cast<const char*>(bytes);
  XmlDocument doc(StrSegment(data, size), "fuzz.xml", true, false);
  if (doc.empty() || !doc.get_root().valid()) return 0;
  const Pathname path("fuzz.xml");
  DateParserRegexConf conf;
  try {
    conf.readPatterns(doc.get_root(), path, nullptr);
  } catch (const DateParseException& e) {
    const char* text = e.what();
    check(startsWith(text, "Error parsing regex XML file: fuzz.xml - ") ||
              startsWith(text, "Couldn't find '") ||
              startsWith(text, "couldn't find 'name' attribute for 'use' node") ||
              startsWith(text, "Can't find regular expression specified in '"),
          "a failure is one of the reader's texts");
    return 0;
  }
  checkList(conf, conf.getTimeList(), data, size);
  checkList(conf, conf.getDateList(), data, size);
  return 0;
}
