// Compiling one timestamp pattern with its extraction names, and what one
// evaluation of it yields: codes by group order, empty groups left unset,
// byte offsets of the whole match.

#include "util/DateTimeRegex.h"

#include <gtest/gtest.h>

#include <vector>

#include "util/LogAppender.h"
#include "util/Logger.h"
#include "util/Regex.h"
#include "util/Str.h"
#include "util/StrSegment.h"

namespace {

using DR = DateTimeRegex;

std::vector<Str> names(std::initializer_list<const char*> list) {
  std::vector<Str> out;
  for (const char* n : list) out.emplace_back(n);
  return out;
}

// Routes every channel through standard error as "LEVEL channel message".
void captureLogLines() {
  static bool done = false;
  if (done) return;
  done = true;
  Logger::initialize();
  LogAppender::root().setAttribute("layout", "PatternLayout", {});
  LogAppender::root().setAttribute("layout.ConversionPattern", "%p %c %m%n", {});
}

TEST(DateTimeRegexReview, UnknownNameWarnsAndKeepsItsPlace) {
  captureLogLines();
  testing::internal::CaptureStderr();
  DR regex(Str("(\\d+)-(\\d+)-(\\d+)"), names({"hour", "Minute", "ignore_me"}));
  const std::string log = testing::internal::GetCapturedStderr();
  // Names are case-sensitive; "ignore_me" lacks the "ignored_" prefix.
  ASSERT_EQ(3u, regex.extractions.size());
  EXPECT_EQ(DR::HOUR, regex.extractions[0]);
  EXPECT_EQ(DR::IGNORED, regex.extractions[1]);
  EXPECT_EQ(DR::IGNORED, regex.extractions[2]);
  EXPECT_NE(std::string::npos,
            log.find("WARN DateParser Found unknown extraction \"Minute\" in RE "
                     "\"(\\d+)-(\\d+)-(\\d+)\", ignoring it"))
      << log;
  EXPECT_NE(std::string::npos, log.find("Found unknown extraction \"ignore_me\"")) << log;

  // The unknown group is dropped, the one after it still lands on its code.
  DR mixed(Str("(\\d+):(\\d+):(\\d+)"), names({"hour", "bogus", "second"}));
  Str line("at 10:20:30");
  StrSegment seg(line);
  DateTimeRegexExtractions ex;
  int start = -1, end = -1;
  ASSERT_TRUE(mixed.evaluate(seg, ex, start, end));
  EXPECT_EQ("10", ex.get(DR::HOUR).view());
  EXPECT_FALSE(ex.has(DR::MINUTE));
  EXPECT_EQ("30", ex.get(DR::SECOND).view());
  EXPECT_EQ(2u, ex.count);
}

TEST(DateTimeRegexReview, CompilesCaselessAndRejectsBadText) {
  DR regex(Str("(jan|feb) (\\d+)"), names({"litmonth", "day"}));
  Str line("on FEB 12");
  StrSegment seg(line);
  DateTimeRegexExtractions ex;
  int start = -1, end = -1;
  ASSERT_TRUE(regex.evaluate(seg, ex, start, end));
  EXPECT_EQ("FEB", ex.get(DR::LITMONTH).view());
  EXPECT_EQ("12", ex.get(DR::DAY).view());

  for (const char* bad : {"(\\d+", "[a-", "x{2,1}", "(?<n>a)(?<n>b)"}) {
    EXPECT_THROW(DR(Str(bad), names({"hour"})), RegexException) << bad;
  }
}

TEST(DateTimeRegexReview, EvaluateReportsByteOffsetsAndCodes) {
  const struct {
    const char* pattern;
    std::vector<Str> extract;
    const char* text;
    int start, end;
    size_t count;
    // "code=text" for every set code, in code order.
    std::vector<std::pair<int, const char*>> want;
  } kCases[] = {
      {"(\\d\\d):(\\d\\d)", names({"hour", "minute"}), "xx 12:34 yy", 3, 8, 2,
       {{DR::HOUR, "12"}, {DR::MINUTE, "34"}}},
      // A two-byte character ahead: offsets count bytes, not characters.
      {"(\\d\\d):(\\d\\d)", names({"hour", "minute"}), "\xc3\xa9 12:34", 3, 8, 2,
       {{DR::HOUR, "12"}, {DR::MINUTE, "34"}}},
      // Optional group that took no part, and one that matched empty text.
      {"(\\d+):(\\d+)(?::(\\d+))?(\\.\\d*)?(Z?)", names({"hour", "minute", "second", "ignored_f", "zone"}),
       "7:05 ", 0, 4, 2, {{DR::HOUR, "7"}, {DR::MINUTE, "05"}}},
      // Names beyond the groups are harmless.
      {"(\\d+)/(\\d+)", names({"month", "day", "year", "hour", "zone"}), "3/14", 0, 4, 2,
       {{DR::MONTH, "3"}, {DR::DAY, "14"}}},
      // Groups beyond the names are dropped.
      {"(\\d+)/(\\d+)/(\\d+)", names({"month"}), "a 3/14/2020", 2, 11, 1, {{DR::MONTH, "3"}}},
      // No extract at all: a match with nothing stored.
      {"(\\d+)", names({}), "abc 99", 4, 6, 0, {}},
      // Ignored groups take their place in the order but store nothing.
      {"(\\w+) (\\d+) (\\d{4})", names({"ignored_wd", "day", "year"}), "Mon 03 2021", 0, 11, 2,
       {{DR::DAY, "03"}, {DR::YEAR, "2021"}}},
      // Epoch codes.
      {"@(\\d+)|0x([0-9a-f]+)", names({"utcepoch", "hexepoch"}), "t=0x5f5e100", 2, 11, 1,
       {{DR::HEXEPOCH, "5f5e100"}}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    DR regex(Str(c.pattern), c.extract);
    Str line(c.text);
    StrSegment seg(line);
    DateTimeRegexExtractions ex;
    int start = -1, end = -1;
    ASSERT_TRUE(regex.evaluate(seg, ex, start, end));
    EXPECT_EQ(c.start, start);
    EXPECT_EQ(c.end, end);
    EXPECT_EQ(c.count, ex.count);
    EXPECT_EQ(line.data(), seg.data());  // the text does not move
    EXPECT_EQ(line.size(), seg.size());
    for (int code = 0; code < DateTimeRegexExtractions::NUM_CODES; ++code) {
      const char* want = nullptr;
      for (const auto& w : c.want) {
        if (w.first == code) want = w.second;
      }
      if (want == nullptr) {
        EXPECT_FALSE(ex.has(code)) << "code " << code;
      } else {
        ASSERT_TRUE(ex.has(code)) << "code " << code;
        EXPECT_EQ(want, ex.get(code).view()) << "code " << code;
        // The stored pointer points into the subject, not a copy.
        EXPECT_GE(ex.ptr[code], line.data());
        EXPECT_LE(ex.ptr[code] + ex.len[code], line.data() + line.size());
      }
    }
  }
}

TEST(DateTimeRegexReview, EvaluateSeesOnlyTheSegment) {
  DR regex(Str("(\\d\\d):(\\d\\d)$"), names({"hour", "minute"}));
  // The bytes after the segment are not part of the text.
  const char buffer[] = "12:345 and 07:08";
  const struct {
    size_t offset, length;
    bool match;
    int start;
  } kCases[] = {
      {0, 4, false, -1},  // "12:3"
      {0, 5, true, 0},    // "12:34", end of segment is end of text
      {1, 5, false, -1},  // "2:345": one digit before the colon
      {11, 5, true, 0},   // "07:08"
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(buffer + c.offset, c.length));
    StrSegment seg(buffer + c.offset, c.length);
    DateTimeRegexExtractions ex;
    int start = -1, end = -1;
    EXPECT_EQ(c.match, regex.evaluate(seg, ex, start, end));
    EXPECT_EQ(c.start, start);
  }
}

TEST(DateTimeRegexReview, EvaluateReadsPastNulBytes) {
  DR regex(Str("(\\d\\d):(\\d\\d)"), names({"hour", "minute"}));
  const Str line("a\0b\0 09:41", 10);
  StrSegment seg(line);
  DateTimeRegexExtractions ex;
  int start = -1, end = -1;
  ASSERT_TRUE(regex.evaluate(seg, ex, start, end));
  EXPECT_EQ(5, start);
  EXPECT_EQ(10, end);
  EXPECT_EQ("09", ex.get(DR::HOUR).view());
}

}  // namespace
