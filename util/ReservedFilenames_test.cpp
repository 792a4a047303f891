#include "util/ReservedFilenames.h"

#include <gtest/gtest.h>

namespace {

TEST(ReservedFilenames, ReservedWhenAPrefixEndsTheNameOrADotFollows) {
  const struct { const char* name; bool reserved; } kCases[] = {
      {"CON", true},     {"con", true},      {"con.txt", true},  {"console", false},
      {"lpt1", true},    {"lpt0", false},    {"COM1.log", true}, {"com10", false},
      {"NuL", true},     {"aux.", true},     {"prn.a.b", true},  {"PRNx", false},
      {"CO", false},     {"", false},        {"LPT9", true},     {"xcon", false},
      {"COM9.", true},   {"com1a.log", false},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.reserved, ReservedFilenames::isReservedFilename(Str(c.name))) << c.name;
  }
}

TEST(ReservedFilenames, LegalAndRepaired) {
  const struct { const char* name; bool legal; const char* repaired; } kCases[] = {
      {"report.txt", true, "report.txt"},
      {"a<b>c", false, "a_b_c"},
      {"x:\"y\"/z\\w|q?*", false, "x__y__z_w_q__"},
      {"con", false, "_con"},
      {"con.txt", false, "_con.txt"},
      {"con:txt", false, "con_txt"},  // repairing the colon makes it legal
      {"COM1|", false, "COM1_"},      // the repair alone makes it legal
      {"COM1.|", false, "_COM1._"},   // still reserved after the repair
      {"", true, ""},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.legal, ReservedFilenames::isLegalFilename(Str(c.name))) << c.name;
    Str s(c.name);
    ReservedFilenames::ensureLegalFilename(s);
    EXPECT_EQ(c.repaired, s) << c.name;
    EXPECT_TRUE(ReservedFilenames::isLegalFilename(s)) << c.name;
  }
}

}  // namespace
