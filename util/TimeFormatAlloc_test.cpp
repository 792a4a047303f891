// rawParse runs once per event line: it must not allocate. The global
// operator new is replaced here to count every allocation of the process.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/testing/CountingNew.h"

#include "util/TimeFormat.h"


namespace {

TEST(TimeFormatAlloc, RawParseAllocatesNothing) {
  const struct { const char* format; const char* text; } kCases[] = {
      {"%Y-%m-%d %H:%M:%S.%3N %z", "2023-11-14 22:13:20.123 -0800"},
      {"%b %d %H:%M:%S", "Nov 14 22:13:20 host sshd[1]: message"},
      {"%a %b %e %H:%M:%S %Z %Y", "Tue Nov 14 22:13:20 Pacific Standard Time 2023"},
      {"%d/%b/%Y:%H:%M:%S %:z", "14/Nov/2023:22:13:20 -08:00"}, {"%s.%l", "1700000000.123"},
      {"%A, %B %d, %Y %l:%M %p", "Tuesday, November 14, 2023 10:13 p.m."},
      {"%H:%M:%S,%3N", "22:13:20.5"}, {"%G-W%V-%u %Ez", "2023-W46-2 -480"},
      {"%Y-%m-%d", "not a date at all"},
  };
  std::vector<TimeFormat> formats;
  for (const auto& c : kCases) formats.emplace_back(c.format);
  std::vector<std::string> texts;
  for (const auto& c : kCases) texts.emplace_back(c.text);

  long parsed = 0;
  const long before = testing_alloc::allocations();
  for (int round = 0; round < 100; ++round) {
    for (size_t i = 0; i < formats.size(); ++i) {
      TimeFormatRawParseResult pr;
      const std::string& text = texts[i];
      if (formats[i].rawParse(&pr, text.data(), text.data() + text.size()) != nullptr) ++parsed;
    }
  }
  const long after = testing_alloc::allocations();
  EXPECT_EQ(before, after);
  EXPECT_EQ(100L * 8, parsed);  // every row but the last parses
}

TEST(TimeFormatAlloc, TheCounterSeesAllocations) {
  const long before = testing_alloc::allocations();
  TimeFormat f("%Y-%m-%d");  // compiling allocates the atoms
  EXPECT_LT(before, testing_alloc::allocations());
}

}  // namespace
