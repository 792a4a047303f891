// The steady path of the date parser runs once per indexed line: once its
// patterns have settled, a line must not allocate at all, pattern
// evaluations included. The global operator new is replaced here to count
// every allocation of the process.
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/testing/CountingNew.h"

#include "util/DateParser.h"
#include "util/testing/DateParserTestSupport.h"
#include "util/testing/FixedClock.h"
#include "util/testing/XmlTestInit.h"


namespace {

// 2026-06-15 12:00:00 UTC.
const Timeval NOW(1781524800, 0);

// One line a second, from 10:00:00, in each of a few shapes of the shipped
// file, with a zone name long enough to leave the short-string buffer.
TEST(DateParserAlloc, ASettledStreamAllocatesNothing) {
  const char* const kShapes[] = {
      "2026-06-15 %02d:%02d:%02d,123 INFO  [main] com.example.Server - request served",
      "Jun 15 %02d:%02d:%02d host-a sshd[812]: Accepted publickey for user-b",
      "192.0.2.10 - - [15/Jun/2026:%02d:%02d:%02d +0000] \"GET / HTTP/1.1\" 200 512",
  };
  ScopedFixedClock clock(NOW);
  for (const char* shape : kShapes) {
    ShippedDateParser parser(true);
    std::vector<std::string> lines;
    for (int i = 0; i < 2000; ++i) {
      char buf[160];
      snprintf(buf, sizeof buf, shape, 10 + i / 3600, i / 60 % 60, i % 60);
      lines.push_back(buf);
    }
    const auto run = [&](size_t from, size_t to) {
      for (size_t i = from; i < to; ++i) {
        Timeval out;
        int ts, te, ds, de;
        ExtraTimevalParseInfo extra;
        ASSERT_TRUE(parser->parseDate(out, StrSegment(lines[i]), NOW, ts, te, ds, de, &extra));
        ASSERT_EQ(NOW.tv_sec - 7200 + static_cast<int64_t>(i), out.tv_sec) << lines[i];
      }
    };
    // Ten new minutes settle the date pattern too.
    run(0, 800);
    const uint64_t evaluations = parser->getTimeEvaluations() + parser->getDateEvaluations();
    const long before = testing_alloc::allocations();
    run(800, 2000);
    const long allocations = testing_alloc::allocations() - before;
    const uint64_t evaluated =
        parser->getTimeEvaluations() + parser->getDateEvaluations() - evaluations;
    EXPECT_GE(1221u, evaluated) << shape;  // one time regex a line, a date one a minute
    EXPECT_EQ(0, allocations) << shape;
  }
}

TEST(DateParserAlloc, TheCounterSeesAllocations) {
  const long before = testing_alloc::allocations();
  std::unique_ptr<int> p(new int(3));
  EXPECT_LT(before, testing_alloc::allocations());
}

}  // namespace
