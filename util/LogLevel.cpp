#include "util/LogLevel.h"

namespace {

const char* const kLevelTexts[] = {"DEBUG", "INFO",  "NOTICE", "WARN", "ERROR",
                                   "CRIT",  "ALERT", "FATAL",  "EMERG"};
constexpr int kLevelCount = sizeof(kLevelTexts) / sizeof(kLevelTexts[0]);

}  // namespace

const char* logLevelText(int level) {
  if (level < 0 || level >= kLevelCount) return "???";
  return kLevelTexts[level];
}

bool logLevelFromText(const StrSegment& word, LogLevel* level) {
  for (int i = 0; i < kLevelCount; ++i) {
    if (word.view() == kLevelTexts[i]) {
      *level = static_cast<LogLevel>(i);
      return true;
    }
  }
  return false;
}
