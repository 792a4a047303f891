#include "util/ExtraTimevalParseInfo.h"

#include "util/DateTime.h"

namespace {

void copyReading(ExtraTimevalParseInfo* info, const tm& t) {
  info->year = t.tm_year + 1900;
  info->month = t.tm_mon;
  info->mday = t.tm_mday;
  info->wday = t.tm_wday;
  info->hour = t.tm_hour;
  info->minute = t.tm_min;
  info->second = t.tm_sec;
}

}  // namespace

void ExtraTimevalParseInfo::fromGmtUnixtime(long t) {
  GmtStructTm gmt;
  if (!gmt.fromUnixTime(t)) gmt.setToRangeLimit(t < 0);
  timezoneKnown = true;
  tzOffset = 0;
  copyReading(this, gmt);
}

void ExtraTimevalParseInfo::set(const LocalStructTmHires& t) {
  subsecDigits = 6;
  timezoneKnown = false;
  tzOffset = t.timezoneOffsetSeconds();
  copyReading(this, t);
}
