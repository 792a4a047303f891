#include "util/DateParseException.h"

#include <gtest/gtest.h>

#include <string>

#include "util/testing/LogCapture.h"

namespace {

Logger gTestLogger("DateParseExceptionTest");

TEST(DateParseException, LogsAtErrorOnlyWithALogger) {
  ScopedLogCapture log("DateParseExceptionTest");
  const DateParseException quiet(nullptr, "no file 100%");
  EXPECT_STREQ("no file 100%", quiet.what());
  EXPECT_EQ("", log.text());
  const DateParseException loud(&gTestLogger, "no file 100%");
  EXPECT_EQ("no file 100%", std::string(loud.text()));
  EXPECT_EQ("ERROR no file 100%\n", log.text());  // the text is data, not a format
  const DateParseException null(nullptr, nullptr);
  EXPECT_STREQ("", null.what());
  const std::runtime_error& base = loud;
  EXPECT_STREQ("no file 100%", base.what());
}

}  // namespace
