#include "framework/LineProbe.h"

#include <algorithm>

#include "util/FileStar.h"
#include "util/Pathname.h"

void probeLine(MDateprobeBack& back, const Str& line, FILE* out) {
  DateprobeParse result;
  if (!back.parseDetailed(line, Timeval::now(), &result)) {
    fprintf(out, "Unable to parse '%s'\n", line.c_str());
    return;
  }
  fprintf(out, "From:\t%s\nParsed:\t%s\n", line.c_str(), result.time.asctime().c_str());
  fprintf(out, "UTC Time:\t%ld\n", static_cast<long>(result.time.tv_sec));
  fprintf(out, "Time Region:\t%d-%d\nDate Region:\t%d-%d\n", result.timeStart, result.timeEnd,
          result.dateStart, result.dateEnd);
  if (result.subsecDigits >= 1) {
    char digits[1024] = {};
    const unsigned long count = std::min<unsigned long>(result.subsecDigits, sizeof digits - 1);
    result.time.renderSubseconds(digits, count);
    fprintf(out, "Subseconds:\t0.%s\n", digits);
  }
}

int probeFile(MDateprobeBack& back, const Str& fileName, const Str& context, FILE* out) {
  ScopedFileStar file(Pathname(fileName), "r");
  if (!file.valid()) {
    fprintf(out, "Cannot open file \"%s\"!", fileName.c_str());
    return 4;
  }
  back.setSource("source::" + fileName + "|" + context);
  unsigned count = 0;
  Str line;
  while (file.readline(line)) {
    probeLine(back, line, out);
    if (++count % 1000 == 0) fprintf(out, "%u lines\n", count);
  }
  fprintf(out, "count=%u\n", count);
  return 0;
}
