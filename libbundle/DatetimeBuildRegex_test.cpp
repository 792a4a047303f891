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
  const struct {
    const char* value;
    const char* text;
    bool match;
  } kCases[] = {
      {"^\\[pid=\\d+\\] ", "[pid=42] 11:58", true},
      {"^\\[pid=\\d+\\] ", "[PID=42] 11:58", false},  // unlike the pattern file
      {"(?i)time=", "TIME=12:00", true},  // a pattern may still ask for caseless itself
      {"^\\[", " [01/Jan", false},
      {"\xc3\xa9t\xc3\xa9:", "\xc3\xa9t\xc3\xa9: 12:00", true},
      {"\xc3\xa9t\xc3\xa9:", "\xc3\x89T\xc3\x89: 12:00", false},
  };
  for (const auto& c : kCases) {
    PropertiesMap props;
    props.put("TIME_PREFIX", c.value);
    std::unique_ptr<Regex> re(DatetimeInitUtils::buildRegex("TIME_PREFIX", &props, nullptr));
    ASSERT_NE(nullptr, re) << c.value;
    EXPECT_EQ(c.value, re->getPattern());
    EXPECT_EQ(c.match, re->matches(StrSegment(c.text))) << c.value << " on " << c.text;
  }
  PropertiesMap props;
  props.put("EMPTY", "");
  ScopedLogCapture log("DatetimeInitUtils");
  EXPECT_EQ(nullptr, DatetimeInitUtils::buildRegex("EMPTY", &props, nullptr));
  EXPECT_EQ(nullptr, DatetimeInitUtils::buildRegex("ABSENT", &props, nullptr));
  EXPECT_EQ("", log.text());
}

// The report quotes the value and the reason Regex itself gives.
TEST(DatetimeBuildRegex, EachBadExpressionIsReportedWithItsReason) {
  for (const char* bad : {"(\\d+", "[a-", "a{2,1}", "\\"}) {
    std::string reason = "<compiled>";
    try {
      Regex r(Str(bad), true, 0);
    } catch (const RegexException& e) {
      reason = e.what();
    }
    PropertiesMap props;
    props.put("TIME_PREFIX", bad);
    ScopedLogCapture log("DatetimeInitUtils");
    EXPECT_EQ(nullptr, DatetimeInitUtils::buildRegex("TIME_PREFIX", &props, nullptr)) << bad;
    EXPECT_EQ(std::string("ERROR Invalid regex ") + bad + " -- " + reason + "\n", log.text());
  }
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
