#include "tools/dateprobe/DateprobeFront.h"

#include "tools/dateprobe/DateprobeArgs.h"
#include "framework/LineProbe.h"
#include "tools/dateprobe/SelfTestCase.h"
#include "tools/dateprobe/SelfTestRun.h"
#include "util/DateTime.h"
#include "util/Timeval.h"

int runDateprobe(int argc, const char* const* argv, MDateprobeBack& back, FILE* out) {
  back.initProcess();
  const DateprobeArgs args = classifyDateprobeArgs(argc, argv);
  if (args.mode == DateprobeMode::USAGE) {
    printDateprobeUsage(out);
    return 1;
  }
  back.setUp(args.context);
  switch (args.mode) {
    case DateprobeMode::SELF_TEST: {
      // One `now` for the whole table, so that every row is judged against
      // the same current year.
      const Timeval now = Timeval::now();
      LocalStructTm local;
      now.localtime(&local);
      runSelfTest(back, selfTestCases, args.hasStartRow, args.startRow, now,
                  local.tm_year + 1900, out);
      return 0;
    }
    case DateprobeMode::FILE_LINES:
      return probeFile(back, args.text, args.context, out);
    case DateprobeMode::ONE_STRING:
      probeLine(back, args.text, out);
      return 0;
    case DateprobeMode::USAGE:
      break;
  }
  return 0;
}

int reportDateprobeException(const std::exception& e, FILE* out) {
  fprintf(out, "Exception hit %s\n", e.what());
  return 0;
}
