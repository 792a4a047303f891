// Compiling a regular expression held in a stanza: case sensitivity, and the
// report of a value that will not compile.

#include "libbundle/DatetimeInitUtils.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "libbundle/PropertiesMap.h"
#include "util/LogAppender.h"
#include "util/Logger.h"
#include "util/Regex.h"
#include "util/Str.h"
#include "util/StrSegment.h"

namespace {

class LogEnvironment : public testing::Environment {
 public:
  void SetUp() override {
    Logger::initialize();
    LogAppender::root().setAttribute("layout", "PatternLayout", {});
    LogAppender::root().setAttribute("layout.ConversionPattern", "%p %m%n", {});
  }
};
testing::Environment* const gEnv = testing::AddGlobalTestEnvironment(new LogEnvironment);

// The reason Regex gives for `pattern`, as the report must quote it.
std::string reasonFor(const char* pattern) {
  try {
    Regex r(Str(pattern), true, 0);
  } catch (const RegexException& e) {
    return e.what();
  }
  return "<compiled>";
}

TEST(DatetimeBuildRegexReview, CompilesCaseSensitively) {
  const struct {
    const char* value;
    const char* text;
    bool match;
  } kCases[] = {
      {"time=", "time=12:00", true},
      {"time=", "TIME=12:00", false},
      {"(?i)time=", "TIME=12:00", true},  // a pattern may still ask for caseless itself
      {"^\\[", "[01/Jan", true},
      {"^\\[", " [01/Jan", false},
      {"\xc3\xa9t\xc3\xa9:", "\xc3\xa9t\xc3\xa9: 12:00", true},
      {"\xc3\xa9t\xc3\xa9:", "\xc3\x89T\xc3\x89: 12:00", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.value);
    PropertiesMap props;
    props.put(Str("TIME_PREFIX"), Str(c.value));
    std::unique_ptr<Regex> r(DatetimeInitUtils::buildRegex("TIME_PREFIX", &props, nullptr));
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(c.value, r->getPattern());
    EXPECT_EQ(c.match, r->matches(StrSegment(c.text))) << c.text;
  }
}

TEST(DatetimeBuildRegexReview, BadValueIsLoggedAndGivesNull) {
  for (const char* bad : {"(\\d+", "[a-", "a{2,1}", "\\"}) {
    SCOPED_TRACE(bad);
    PropertiesMap props;
    props.put(Str("TIME_PREFIX"), Str(bad));
    testing::internal::CaptureStderr();
    Regex* r = DatetimeInitUtils::buildRegex("TIME_PREFIX", &props, nullptr);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(nullptr, r);
    delete r;
    const std::string want =
        std::string("ERROR Invalid regex ") + bad + " -- " + reasonFor(bad) + "\n";
    EXPECT_NE(std::string::npos, log.find(want)) << log;
  }
}

}  // namespace
