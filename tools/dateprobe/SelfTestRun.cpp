#include "tools/dateprobe/SelfTestRun.h"

#include <cstdint>

#include "util/Assert.h"

namespace {

void breakDown(const SelfTestCase& row, const Timeval& t, StructTm* out) {
  if (row.zone_offset == -1) {
    LocalStructTm local;
    t.localtime(&local);
    *out = local;
    return;
  }
  kassert(row.zone_offset > -(INT64_C(1) << 32) && row.zone_offset < (INT64_C(1) << 32));
  Timeval shifted = t;
  if (row.zone_offset >= 0) {
    shifted.addSec(static_cast<unsigned int>(row.zone_offset));
  } else {
    shifted.subtractSec(static_cast<unsigned int>(-row.zone_offset));
  }
  GmtStructTm gmt;
  if (shifted.gmtime(&gmt)) {
    *out = gmt;
  } else {
    *out = StructTm();
  }
}

void printFailure(const SelfTestCase& row, size_t index, const StructTm& brokenDown,
                  const MDateprobeBack& back, FILE* out) {
  fprintf(out, "--------------------BEGIN-------------------\n");
  fprintf(out, "**   FAILED: test %d\n", static_cast<int>(index));
  fprintf(out, "**     LINE: %s\n", row.line.c_str());
  fprintf(out, "** PATTERNS: %s\n", back.lastPatternName().c_str());
  fprintf(out, "** EXPECTED: %d/%d/%d %d:%d:%d\n", row.month, row.day, row.year, row.hour,
          row.minute, row.second);
  fprintf(out, "**   RESULT: %s\n", brokenDown.asctime().c_str());
}

}  // namespace

SelfTestVerdict judgeSelfTestRow(const SelfTestCase& row, const Timeval& t, int currentYear,
                                 StructTm* brokenDown) {
  if (t.tv_sec == 0 && row.year == 0) return SelfTestVerdict::NOTHING_EXPECTED;
  breakDown(row, t, brokenDown);
  const bool fieldsMatch = brokenDown->tm_mon + 1 == row.month &&
                           brokenDown->tm_mday == row.day && brokenDown->tm_hour == row.hour &&
                           brokenDown->tm_min == row.minute && brokenDown->tm_sec == row.second;
  if (!fieldsMatch) return SelfTestVerdict::FAILED;
  if (row.year == -1) {
    const int year = brokenDown->tm_year + 1900;
    if (year != currentYear && year != currentYear - 1) return SelfTestVerdict::FAILED;
  }
  return SelfTestVerdict::PASSED;
}

int runSelfTest(MDateprobeBack& back, std::span<const SelfTestCase> rows, bool hasStartRow,
                long startRow, const Timeval& now, int currentYear, FILE* out) {
  const bool singleRow = hasStartRow && startRow >= 0;
  if (singleRow && static_cast<unsigned long>(startRow) >= rows.size()) return 0;
  int passes = 0;
  for (size_t i = singleRow ? static_cast<size_t>(startRow) : 0; i < rows.size(); ++i) {
    const SelfTestCase& row = rows[i];
    Timeval t;
    if (!back.parse(row.line, now, &t)) t = Timeval();
    StructTm brokenDown;
    const SelfTestVerdict verdict = judgeSelfTestRow(row, t, currentYear, &brokenDown);
    if (verdict == SelfTestVerdict::NOTHING_EXPECTED) {
      ++passes;
      continue;
    }
    if (verdict == SelfTestVerdict::PASSED) {
      fprintf(out, "********************************************************\n");
      ++passes;
    } else {
      printFailure(row, i, brokenDown, back, out);
    }
    if (singleRow) return passes;
  }
  if (!singleRow) fprintf(out, "\nPASSED %d / %d\n", passes, static_cast<int>(rows.size()));
  return passes;
}
