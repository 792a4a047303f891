#include "libbundle/DatetimeInitUtils.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "libbundle/PropertiesMap.h"
#include "util/Regex.h"
#include "util/testing/LogCapture.h"

class CowPipelineData {};

namespace {

struct Report {
  CowPipelineData* pd;
  std::string tag;
  std::string message;
};
std::vector<Report> gReports;

void recordReport(CowPipelineData* pd, const char* tag, const Str& message) {
  gReports.push_back({pd, tag, message});
}

TEST(DatetimeBuildRegex, CompilesCaseSensitivelyOrGivesNullForNoText) {
  PropertiesMap props;
  props.put("TIME_PREFIX", "^\\[pid=\\d+\\] ");
  props.put("EMPTY", "");
  std::unique_ptr<Regex> re(DatetimeInitUtils::buildRegex("TIME_PREFIX", &props, nullptr));
  ASSERT_NE(nullptr, re);
  EXPECT_TRUE(re->matches(StrSegment("[pid=42] 11:58")));
  EXPECT_FALSE(re->matches(StrSegment("[PID=42] 11:58")));  // unlike the pattern file
  ScopedLogCapture log("DatetimeInitUtils");
  EXPECT_EQ(nullptr, DatetimeInitUtils::buildRegex("EMPTY", &props, nullptr));
  EXPECT_EQ(nullptr, DatetimeInitUtils::buildRegex("ABSENT", &props, nullptr));
  EXPECT_EQ("", log.text());
}

TEST(DatetimeBuildRegex, BadExpressionIsReportedWhereTheCallerSays) {
  PropertiesMap props;
  props.put("TIME_PREFIX", "time=(");
  const std::string want = "Invalid regex time=( -- Regex: missing closing parenthesis";
  CowPipelineData event;
  gReports.clear();
  {
    // No event, or no reporter installed yet: the process log.
    ScopedLogCapture log("DatetimeInitUtils");
    EXPECT_EQ(nullptr, DatetimeInitUtils::buildRegex("TIME_PREFIX", &props, nullptr));
    EXPECT_EQ(nullptr, DatetimeInitUtils::buildRegex("TIME_PREFIX", &props, &event));
    const std::vector<std::string> lines = log.lines();
    ASSERT_EQ(2u, lines.size()) << log.text();
    for (const std::string& line : lines) EXPECT_EQ(0u, line.rfind("ERROR " + want, 0)) << line;
  }
  ASSERT_EQ(nullptr, DatetimeInitUtils::setRegexIssueReporter(&recordReport));
  {
    ScopedLogCapture log("DatetimeInitUtils");
    EXPECT_EQ(nullptr, DatetimeInitUtils::buildRegex("TIME_PREFIX", &props, &event));
    EXPECT_EQ(nullptr, DatetimeInitUtils::buildRegex("TIME_PREFIX", &props, nullptr));
    EXPECT_EQ(1u, log.lines().size());  // only the call without an event
  }
  EXPECT_EQ(&recordReport, DatetimeInitUtils::setRegexIssueReporter(nullptr));
  ASSERT_EQ(1u, gReports.size());
  EXPECT_EQ(&event, gReports[0].pd);
  EXPECT_EQ("DATETIME_REGEX_ISSUE", gReports[0].tag);
  EXPECT_EQ(0u, gReports[0].message.rfind(want, 0)) << gReports[0].message;
}

}  // namespace
