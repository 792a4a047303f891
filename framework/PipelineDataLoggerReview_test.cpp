// Independent checks of logging about one event: the level of each call and
// the text of its line, and the channel found for an event without copying it.
#include "framework/PipelineDataLogger.h"

#include <cstdarg>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "framework/PipelineData.h"
#include "util/testing/LogCapture.h"

namespace {

const char* const kChannel = "PipelineDataLoggerReview";

std::string channelKey(CowPipelineData& pd) {
  const HashedStrReference& conf = pd.getInputChannel()->conf();
  return std::string(conf.data(), conf.size());
}

void callVlogp(PipelineDataLogger& logger, LogLevel level, CowPipelineData* pd, const char* tag,
               const char* fmt, ...) __attribute__((format(printf, 5, 6)));
void callVlogp(PipelineDataLogger& logger, LogLevel level, CowPipelineData* pd, const char* tag,
               const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  logger.vlogp(level, pd, tag, fmt, args);
  va_end(args);
}

TEST(PipelineDataLoggerReview, EachCallLogsAtItsLevelWithTagAndChannel) {
  PipelineDataLogger logger(kChannel);
  ScopedLogCapture capture(kChannel);
  CowPipelineData pd;
  const std::string input = " (input=\"" + channelKey(pd) + "\")";

  logger.debugp(&pd, "TAG_D", "debug %d", 1);
  logger.infop(&pd, "TAG_I", "info %s", "two");
  logger.warnp(&pd, "TAG_W", "warn %c", '3');
  logger.errorp(&pd, "TAG_E", "error %u", 4u);
  callVlogp(logger, LOGLEVEL_CRIT, &pd, "TAG_C", "crit %.1f", 5.0);
  callVlogp(logger, LOGLEVEL_NOTICE, &pd, "TAG_N", "notice");

  std::vector<std::string> expected = {
      "DEBUG TAG_D: debug 1" + input, "INFO TAG_I: info two" + input,
      "WARN TAG_W: warn 3" + input,   "ERROR TAG_E: error 4" + input,
      "CRIT TAG_C: crit 5.0" + input, "NOTICE TAG_N: notice" + input,
  };
  EXPECT_EQ(capture.lines(), expected);
}

TEST(PipelineDataLoggerReview, ASharedEventWithAChannelIsNotCopiedToReportOnIt) {
  PipelineDataLogger logger(kChannel);
  ScopedLogCapture capture(kChannel);
  CowPipelineData pd;
  const PipelineInputChannel* chan = pd.getInputChannel();
  CowPipelineData sharer(pd);
  logger.warnp(&sharer, "T", "m");
  EXPECT_EQ(sharer.get(), pd.get());
  EXPECT_EQ(pd->refcnt(), 2u);
  EXPECT_EQ(sharer->channel().get(), chan);
  EXPECT_EQ(capture.lines().size(), 1u);
}

}  // namespace
