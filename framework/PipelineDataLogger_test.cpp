#include "framework/PipelineDataLogger.h"

#include <gtest/gtest.h>

#include "framework/PipelineData.h"
#include "libbundle/DatetimeInitUtils.h"
#include "libbundle/PropertiesMap.h"
#include "util/Regex.h"
#include "util/testing/LogCapture.h"

namespace {

TEST(PipelineDataLogger, ReportsNameTheTagAndTheEventsChannel) {
  ScopedLogCapture capture("PipelineDataLoggerTest");
  PipelineDataLogger logger("PipelineDataLoggerTest");
  CowPipelineData pd;
  logger.errorp(&pd, "SOME_TAG", "bad thing %d", 42);
  logger.warnp(nullptr, "OTHER", "no event");
  const std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "ERROR SOME_TAG: bad thing 42 (input=\"" +
                          std::string(pd.getInputChannel()->conf().c_str()) + "\")");
  EXPECT_EQ(lines[1], "WARN OTHER: no event");
  // The unset handle got a record with the default channel.
  EXPECT_FALSE(pd.isUnset());
  EXPECT_TRUE(pd->channel().hasConf());
}

TEST(PipelineDataLogger, BadTimestampExpressionsAreReportedOnTheChannel) {
  ScopedLogCapture capture("DatetimeInitUtils");
  PropertiesMap props;
  props.put("TIME_PREFIX", "(unclosed");
  CowPipelineData pd;
  EXPECT_EQ(DatetimeInitUtils::buildRegex("TIME_PREFIX", &props, &pd), nullptr);
  EXPECT_EQ(DatetimeInitUtils::buildRegex("TIME_PREFIX", &props, nullptr), nullptr);
  const std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].rfind("ERROR DATETIME_REGEX_ISSUE: Invalid regex (unclosed -- ", 0), 0u)
      << lines[0];
  EXPECT_NE(lines[0].find(" (input=\""), std::string::npos) << lines[0];
  EXPECT_EQ(lines[1].rfind("ERROR Invalid regex (unclosed -- ", 0), 0u) << lines[1];
  // A good expression reports nothing.
  props.put("TIME_PREFIX", "^\\[");
  Regex* ok = DatetimeInitUtils::buildRegex("TIME_PREFIX", &props, &pd);
  EXPECT_NE(ok, nullptr);
  delete ok;
  EXPECT_EQ(capture.lines().size(), 2u);
}

}  // namespace
