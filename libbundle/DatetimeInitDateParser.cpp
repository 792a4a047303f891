// Setting a date parser up from one stanza of timestamp settings.

#include "libbundle/DatetimeInitUtils.h"
#include "libbundle/PropertiesMap.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/DateParser.h"
#include "util/DateParserConfigRef.h"
#include "util/Pathname.h"
#include "util/Regex.h"

namespace {

// The setting's integer; a value that is no number is reported by the map
// and leaves the default.
int readInt(const PropertiesMap& props, const char* key, int dflt) {
  int value = dflt;
  props.tryToInt(key, value);
  return value;
}

}  // namespace

namespace DatetimeInitUtils {

void initDateParser(const PropertiesMap& props, DateParser& parser, DateParserConfigRef& ref,
                    const Str& tzOverride, CowPipelineData* pd) {
  // An absolute path names a place under the install root; a relative one
  // stays as written, which keeps "NONE" and "CURRENT" intact.
  Pathname path = Pathname() / "etc" / "datetime.xml";
  props.expandEnvironmentVariables("DATETIME_CONFIG", path);
  if (path.isAbsolute()) path = LoaderInfo::getInstance().getKestroHome() / path;
  ref.load(path, pd == nullptr);
  ref.assignTo(&parser);

  parser.getGuesser().setMinMaxDays(readInt(props, "MAX_DAYS_AGO", 1825),
                                    readInt(props, "MAX_DAYS_HENCE", 7));
  parser.setMinMaxDiffSecs(readInt(props, "MAX_DIFF_SECS_AGO", -1),
                           readInt(props, "MAX_DIFF_SECS_HENCE", -1));
  parser.setDateLookahead(readInt(props, "MAX_TIMESTAMP_LOOKAHEAD", 150));
  parser.setTimePrefix(buildRegex("TIME_PREFIX", &props, pd));
  Str value;
  if (props.fill("TIME_FORMAT", value)) parser.setTimeFormat(value);
  if (!tzOverride.empty()) {
    parser.getGuesser().setTZ(tzOverride);
  } else if (props.fill("TZ", value)) {
    parser.getGuesser().setTZ(value);
  }
}

}  // namespace DatetimeInitUtils
