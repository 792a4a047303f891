#include "tools/dateprobe/SelfTestCase.h"

#include <initializer_list>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

namespace {

bool isLeap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

std::tuple<int32_t, int32_t, int32_t, int32_t, int32_t, int32_t, int64_t> fieldsOf(
    const SelfTestCase& c) {
  return {c.year, c.month, c.day, c.hour, c.minute, c.second, c.zone_offset};
}

TEST(SelfTestCases, HoldTheRequiredCounts) {
  std::map<int32_t, int> years;
  std::map<int64_t, int> zones;
  for (const SelfTestCase& c : selfTestCases) {
    ++years[c.year > 0 ? 1 : c.year];
    ++zones[c.zone_offset];
  }
  EXPECT_EQ(92u, SELF_TEST_CASE_COUNT);
  EXPECT_EQ((std::map<int32_t, int>{{0, 11}, {-1, 2}, {1, 79}}), years);
  EXPECT_EQ((std::map<int64_t, int>{{-1, 49}, {0, 27}, {-28800, 9}, {-25200, 5}, {-14400, 2}}),
            zones);
}

TEST(SelfTestCases, KeepTheFixedRowsByteForByte) {
  const SelfTestCase kFixed[] = {
      {0, 0, 0, 0, 0, 0, 0, "a=rtpmap:0 PCMU/8000"},
      {0, 0, 0, 0, 0, 0, 0, "28 [ADD5_NAME] = 0:[] "},
      {2004, 5, 9, 3, 0, 3, -1, "05/09/04 03:00:03 Connection 214657: Received ping "},
      {2004, 5, 10, 0, 21, 19, 0, "Date: Mon, 10 May 2004 00:21:19 GMT "},
      {2005, 3, 20, 23, 53, 56, -1, "Mon Mar 20 23:53:56 2005 sdfds 20 TEST"},
      {2006, 1, 17, 21, 24, 53, -1,
       "N 0000000 UTCB 06017 21:24:53.20 00000290 IEF196I IEF237I JES2 ALLOCATED TO SYSLOG41"},
      {2006, 2, 25, 8, 59, 18, -1, "[ProcId=3944 ] [TimeStamp=2006022508591809]"},
      {2006, 3, 26, 0, 2, 36, -1, "20060326-000236 DEBUG 917554041 : "},
      {2006, 3, 4, 14, 49, 0, -1, "P3S3-06/03/04-14:49--AL"},
      {2005, 9, 26, 19, 20, 12, -1, "05-09-26 19:20:12  InnoDB: Starting shutdown..."},
      {2008, 9, 29, 20, 15, 0, 0, "2008-09-29 13:15:00 GMT-0700 logType=activity"},
      {2008, 9, 29, 20, 15, 0, 0, "2008-09-29 13:15:00 PDT logType=activity"},
      {2008, 9, 29, 13, 15, 0, 0, "2008-09-29 13:15:00 Z logType=activity"},
  };
  for (const SelfTestCase& want : kFixed) {
    SCOPED_TRACE(want.line);
    int found = 0;
    for (const SelfTestCase& c : selfTestCases) {
      if (c.line != want.line) continue;
      ++found;
      EXPECT_EQ(fieldsOf(want), fieldsOf(c));
    }
    EXPECT_EQ(1, found);
  }
}

// Once a row yields a time, every later row gets at least the previous
// one; and the rows without a year must meet a parser with no previous time.
TEST(SelfTestCases, RunNothingFirstThenYearlessSyslog) {
  size_t i = 0;
  while (i < SELF_TEST_CASE_COUNT && selfTestCases[i].year == 0) ++i;
  EXPECT_EQ(11u, i);
  EXPECT_EQ(-1, selfTestCases[11].year);
  EXPECT_EQ(-1, selfTestCases[12].year);
  for (i = 13; i < SELF_TEST_CASE_COUNT; ++i) {
    EXPECT_GT(selfTestCases[i].year, 0) << selfTestCases[i].line;
  }
}

TEST(SelfTestCases, FieldsLieInRange) {
  std::set<std::string> lines;
  for (const SelfTestCase& c : selfTestCases) {
    SCOPED_TRACE(c.line);
    EXPECT_FALSE(c.line.empty());
    EXPECT_TRUE(lines.insert(c.line).second) << "duplicate line";
    EXPECT_TRUE(c.zone_offset == -1 || c.zone_offset == 0 || c.zone_offset == -28800 ||
                c.zone_offset == -25200 || c.zone_offset == -14400);
    if (c.year == 0) {
      EXPECT_EQ(0, c.month + c.day + c.hour + c.minute + c.second);
      EXPECT_EQ(0, c.zone_offset);
      continue;
    }
    EXPECT_TRUE(c.year == -1 || (c.year >= 1970 && c.year <= 2037));
    ASSERT_GE(c.month, 1);
    ASSERT_LE(c.month, 12);
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const int days = c.month == 2 && (c.year == -1 || isLeap(c.year)) ? 29 : kDays[c.month - 1];
    EXPECT_TRUE(c.day >= 1 && c.day <= days) << c.day;
    EXPECT_TRUE(c.hour >= 0 && c.hour <= 23) << c.hour;
    EXPECT_TRUE(c.minute >= 0 && c.minute <= 59) << c.minute;
    EXPECT_TRUE(c.second >= 0 && c.second <= 59) << c.second;
    // The 150-character lookahead has to reach the timestamp.
    EXPECT_LE(c.line.size(), 150u);
  }
}

// Three or more colon-separated hex groups count as an address when a hex
// letter or "::" is among them; "2008:10:21:07" of an access log is none.
bool looksLikeAddress(const std::string& text) {
  static const std::regex ipv4(R"(\d{1,3}(\.\d{1,3}){3})");
  static const std::regex ipv6(R"([0-9A-Fa-f]{0,4}(:[0-9A-Fa-f]{0,4}){2,})");
  static const std::regex hexLetterOrGap(R"([A-Fa-f]|::)");
  if (std::regex_search(text, ipv4)) return true;
  for (std::sregex_iterator it(text.begin(), text.end(), ipv6), end; it != end; ++it) {
    if (std::regex_search(it->str(), hexLetterOrGap)) return true;
  }
  return false;
}

bool looksLikeMail(const std::string& text) {
  static const std::regex mail(R"([\w.+-]@[\w-])");
  return std::regex_search(text, mail);
}

// A dotted name whose last label starts with a letter, unless that label is
// one of the file suffixes the table uses.
bool looksLikeDomain(const std::string& text) {
  static const std::regex domain(R"([A-Za-z0-9-]+(\.[A-Za-z0-9-]+)*\.([A-Za-z][A-Za-z0-9-]*))");
  for (std::sregex_iterator it(text.begin(), text.end(), domain), end; it != end; ++it) {
    const std::string suffix = (*it)[2].str();
    if (suffix != "dat" && suffix != "log") return true;
  }
  return false;
}

TEST(SelfTestCases, NameNoAddressMailOrDomain) {
  for (const SelfTestCase& c : selfTestCases) {
    EXPECT_FALSE(looksLikeAddress(c.line)) << c.line;
    EXPECT_FALSE(looksLikeMail(c.line)) << c.line;
    EXPECT_FALSE(looksLikeDomain(c.line)) << c.line;
  }
}

std::string joined(std::initializer_list<const char*> parts, const char* glue) {
  std::string out;
  bool first = true;
  for (const char* p : parts) {
    if (!first) out += glue;
    out += p;
    first = false;
  }
  return out;
}

// The samples are put together at run time so that no address stands in
// the source.
TEST(SelfTestCases, AddressChecksCatchTheirTargets) {
  EXPECT_TRUE(looksLikeAddress("from " + joined({"1", "22", "133", "4"}, ".") + " port"));
  EXPECT_TRUE(looksLikeAddress("from " + joined({"fe80", "", "1"}, ":") + " port"));
  EXPECT_FALSE(looksLikeAddress("version 4.12.7 at [17/Jan/2008:10:21:07 -0800]"));
  EXPECT_TRUE(looksLikeMail("to " + joined({"user-b", "host-a"}, "@")));
  EXPECT_FALSE(looksLikeMail("to user-b at host-a"));
  EXPECT_TRUE(looksLikeDomain("via " + joined({"relay", "lab-net"}, ".")));
  EXPECT_FALSE(looksLikeDomain("wrote app_17.log and HTTP/1.1 shutdown..."));
}

}  // namespace
