#include "util/TimeFormat.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "util/DateTime.h"
#include "util/testing/ScopedTz.h"

namespace {

typedef TimeFormatRawParseResult RPR;

// Every field that `have` flags, in flag order, as "name=value" words.
std::string describe(const RPR& r) {
  std::string out;
  auto add = [&](uint32_t flag, const char* name, long long value) {
    if ((r.have & flag) == 0) return;
    if (!out.empty()) out += ' ';
    out += std::string(name) + '=' + std::to_string(value);
  };
  add(RPR::HAVE_EPOCH, "epoch", r.epoch);
  add(RPR::HAVE_TZOFFSET, "off", r.tzOffset);
  if (r.have & RPR::HAVE_TZNAM) out += std::string(out.empty() ? "" : " ") + "tz='" + std::string(r.tzName.view()) + "'";
  add(RPR::HAVE_YEAR, "year", r.year);
  add(RPR::HAVE_CENTURY, "century", r.century);
  add(RPR::HAVE_SHORTYEAR, "yy", r.shortYear);
  add(RPR::HAVE_MONTH, "mon", r.month);
  add(RPR::HAVE_MDAY, "mday", r.mday);
  add(RPR::HAVE_HOUR24, "hour", r.hour24);
  add(RPR::HAVE_HOUR12, "hour12", r.hour12);
  add(RPR::HAVE_AMPM, "pm", r.pm);
  add(RPR::HAVE_MINUTE, "min", r.minute);
  add(RPR::HAVE_SECOND, "sec", r.second);
  add(RPR::HAVE_SUBSEC, "usec", r.subsecUsec);
  add(RPR::HAVE_SUBSEC, "digits", r.subsecDigits);
  add(RPR::HAVE_ISOYEAR, "isoyear", r.isoYear);
  add(RPR::HAVE_ISOSHORTYEAR, "isoyy", r.isoShortYear);
  add(RPR::HAVE_SUNDAYWEEK, "uweek", r.sundayWeek);
  add(RPR::HAVE_MONDAYWEEK, "wweek", r.mondayWeek);
  add(RPR::HAVE_ISOWEEK, "vweek", r.isoWeek);
  add(RPR::HAVE_MONTHWEEK, "mweek", r.monthWeek);
  add(RPR::HAVE_YDAY, "yday", r.yday);
  add(RPR::HAVE_WDAY, "wday", r.wday);
  if (r.conflicts != 0) out += " conflicts=" + std::to_string(r.conflicts);
  return out;
}

// Bytes consumed, or -1 when rawParse fails.
long parse(const TimeFormat& f, const std::string& text, RPR* r) {
  const char* end = f.rawParse(r, text.data(), text.data() + text.size());
  if (end == nullptr) return -1;
  EXPECT_TRUE(end >= text.data() && end <= text.data() + text.size()) << text;
  return end - text.data();
}

struct ParseCase {
  const char* format;
  const char* text;
  long used;  // -1: the parse fails
  const char* fields;
};

void runCases(const ParseCase* begin, const ParseCase* end) {
  for (const ParseCase* c = begin; c != end; ++c) {
    TimeFormat f;
    ASSERT_TRUE(f.setFtime(c->format)) << c->format;
    RPR r;
    const std::string text = c->text;
    EXPECT_EQ(c->used, parse(f, text, &r)) << c->format << " on \"" << c->text << "\"";
    if (c->used >= 0) {
      EXPECT_EQ(c->fields, describe(r)) << c->format << " on \"" << c->text << "\"";
    }
  }
}

TEST(TimeFormatParse, CutsRunsAtTheWidthWhenDigitsFollow) {
  const ParseCase kCases[] = {
      {"%H%M", "1234", 4, "hour=12 min=34"}, {"%H%M", "123", 3, "hour=12 min=3"},
      {"%H%M", " 1234", 5, "hour=12 min=34"},
      {"%H:%M", "7:05", 4, "hour=7 min=5"},  // a run may be shorter than the width
      {"%Y%m%d%H%M%S", "20231115034320", 14, "year=2023 mon=10 mday=15 hour=3 min=43 sec=20"},
      {"%s%3N", "1700000000123", 13, "epoch=1700000000 usec=123000 digits=3"},
      {"%Y%j", "2023032", 7, "year=2023 yday=31"}, {"%C%y", "2023", 4, "century=20 yy=23"},
      {"%e%H", " 512", 4, "mday=5 hour=12"},  // a space-padded width counts the blank
      {"%H%M%S.%3N", "235959.999", 10, "hour=23 min=59 sec=59 usec=999000 digits=3"},
      {"%m%d1", "12311", 5, "mon=11 mday=31"},  // a literal digit needs digits too
      {"%:::z%H", "+0512", 5, "off=18000 hour=12"},  // TZ_AS_NEEDEDOFFSET cut at 2
      {"%:::z%H", "+05:3012", 8, "off=19800 hour=12"},
      {"%3N%S", "12345", 5, "sec=45 usec=123000 digits=3"},
  };
  runCases(std::begin(kCases), std::end(kCases));
}

TEST(TimeFormatParse, BacksOffLargeValues) {
  const ParseCase kCases[] = {
      {"%-d", "32", 1, "mday=3"},
      {"%d", "32", -1, ""},  // the width holds it at two digits
      {"%e", "32", -1, ""},      {"%-m", "13", 1, "mon=0"},    {"%H", "123", 2, "hour=12"},
      {"%M", "60", -1, ""},      {"%-M", "61", 1, "min=6"},
      {"%S", "60", 2, "sec=60"},  // a leap second is a second
      {"%j", "366", 3, "yday=365"}, {"%j", "367", -1, ""}, {"%-j", "367", 2, "yday=35"},
      {"%w", "7", -1, ""},
      {"%u", "7", 1, "wday=6"},  // %u keeps its value less one
      {"%u", "1", 1, "wday=0"},  {"%-I", "13", 1, "hour12=1"}, {"%I", "12", 2, "hour12=0"},
      {"%U %W %V", "53 0 53", 7, "uweek=53 wweek=0 vweek=53"},
      {"%V", "0", -1, ""},       {"%y", "999", 2, "yy=99"},
  };
  runCases(std::begin(kCases), std::end(kCases));
}

TEST(TimeFormatParse, ChecksRanges) {
  const ParseCase kCases[] = {
      {"%Y", "1970", -1, ""},       {"%Y", "3000", -1, ""},     {"%Y", "1971", 4, "year=1971"},
      {"%Y", "2999", 4, "year=2999"},
      {"%Y", "20231", -1, ""},  // a year has no limit to back off to
      {"%G", "1970", -1, ""},       {"%C", "18", -1, ""},       {"%C", "29", 2, "century=29"},
      {"%m", "00", -1, ""},         {"%d", "00", -1, ""},       {"%H", "24", -1, ""},
      {"%s", "4294967299", 10, "epoch=4294967299"},
      {"%s", "4294967300", -1, ""},  // more than 32 bits before the last digit
      {"%s", "-86400", 6, "epoch=-86400"}, {"%s", "+5", 2, "epoch=5"}, {"%s", "-", -1, ""},
      {"%d", "-5", -1, ""},  // only offsets and epochs take a sign
      {"%H", "x", -1, ""},
  };
  runCases(std::begin(kCases), std::end(kCases));
}

TEST(TimeFormatParse, ReadsZoneOffsets) {
  const ParseCase kCases[] = {
      {"%z", "+0530", 5, "off=19800"}, {"%z", "-0800", 5, "off=-28800"},
      {"%z", "+05", 3, "off=18000"},   {"%z", "-5", 2, "off=-18000"},
      {"%z", "+530", 4, "off=19800"},  {"%z", "0100", 4, "off=3600"},
      {"%z", "+2359", 5, "off=86340"}, {"%z", "+2400", -1, ""},
      {"%z", "+0560", -1, ""},         {"%z", "+05300", -1, ""},        {"%z", "+", -1, ""},
      {"%z", "+05:30", 3, "off=18000"},  // %z takes no colon
      {"%:z", "+05:30", 6, "off=19800"},
      {"%:z", "+0530", -1, ""},          // the colon is required
      {"%:z", "+05:3", -1, ""},        {"%:z", "+05:60", -1, ""},
      {"%:z", "-05:30:15", 6, "off=-19800"}, {"%::z", "+05:30:15", 9, "off=19815"},
      {"%::z", "+05:30", -1, ""},      {"%:::z", "+05", 3, "off=18000"},
      {"%:::z", "-05:30", 6, "off=-19800"}, {"%:::z", "+05:30:15", 9, "off=19815"},
      {"%Ez", "-420", 4, "off=-25200"}, {"%Ez", "+1439", 5, "off=86340"},
      {"%Ez", "1440", -1, ""},         {"%Ez", "0", 1, "off=0"},
      {"%z %z", "+0100 -0100", 11, "off=3600 conflicts=1"},
      {"%z %:z", "+0100 +01:00", 12, "off=3600"},
  };
  runCases(std::begin(kCases), std::end(kCases));
}

TEST(TimeFormatParse, ReadsSubseconds) {
  const ParseCase kCases[] = {
      {"%S.%3N", "12", 2, "sec=12"},               // no fraction: absent
      {"%S.%3N", "12,345", 6, "sec=12 usec=345000 digits=3"},
      {"%S,%3N", "12.345", 6, "sec=12 usec=345000 digits=3"},
      {"%S.%3N", "12 rest", 2, "sec=12"},         // the fraction is absent, the parse ends
      {"%S.%3N %H", "12 07", 5, "hour=7 sec=12"},  // and goes on with what follows it
      {"%S.%3N", "12.", -1, ""}, {"%S.%3N", "12.5", 4, "sec=12 usec=500000 digits=1"},
      {"%S.%3N", "12.1234567", 10, "sec=12 usec=123456 digits=6"},
      {"%S.%N", "12.000000001", 12, "sec=12 usec=0 digits=6"},
      // At the end of the text only a "." literal may be absent: the second
      // byte test keeps a lone "," from being treated like ".".
      {"%H:%M:%S,%3N", "10:11:12", -1, ""},
      {"%H:%M:%S,%3N", "10:11:12 x", 8, "hour=10 min=11 sec=12"},
      {"%H:%M:%S.%l", "10:11:12.345", 12, "hour=10 min=11 sec=12 usec=345000 digits=3"},
      {"%l:%M", "3:45", 4, "hour12=3 min=45"},
      {"%s.%l", "1700000000.5", 12, "epoch=1700000000 usec=500000 digits=1"},
      {"%S%3N", "12", -1, ""},                     // no literal in front: required
      {"%Q", "", -1, ""}, {"%S.%3N%n", "12", 2, "sec=12"},
  };
  runCases(std::begin(kCases), std::end(kCases));
}

// The renderer's own names ("Tuesday", "Nov", "PM") are covered by the
// round trip below; these are the other spellings a reader meets.
TEST(TimeFormatParse, ReadsNames) {
  const ParseCase kCases[] = {
      {"%b", "JanFoo", 3, "mon=0"},
      {"%b", "JANFOO", 6, "mon=0"},  // all capitals: one word
      {"%b%a", "JanMon", 6, "mon=0 wday=1"}, {"%b", "january", 7, "mon=0"},
      {"%b", "Sept", 4, "mon=8"},
      {"%b", "Ja", 2, ""},          // too short: passes without a month
      {"%b", "Jab", -1, ""},     {"%b", "3", 0, ""},
      {"%B", "sep", 3, "mon=8"}, {"%B", "Sept", -1, ""},    {"%B", "Septembre", -1, ""},
      {"%a", "Monday", 6, "wday=1"}, {"%a", "THURSDAY", 8, "wday=4"},
      {"%a", "Mo", 2, "wday=1"}, {"%a", "Sa", 2, "wday=6"},  {"%a", "Xy", -1, ""},
      {"%a", "M", 1, ""},        {"%A", "Tues", 4, "wday=2"}, {"%A", "Thur", 4, "wday=4"},
      {"%A", "wednesday", 9, "wday=3"}, {"%A", "Wed", 3, "wday=3"},
      {"%A", "Wedn", -1, ""},    {"%A", "Wednesdays", -1, ""},
      {"%3b%a", "JANMON", 6, "mon=0 wday=1"},  // cut at the width before a name
      {"%p", "pm", 2, "pm=1"},   {"%p", "a.m.", 4, "pm=0"},   {"%p", "P.M. x", 4, "pm=1"},
      {"%p", "p.x.", -1, ""},    {"%p", "pz", -1, ""},        {"%p", "a", -1, ""},
      {"%p", "\xE4\xB8\x8A\xE5\x8D\x88", 6, "pm=0"}, {"%p", "\xE4\xB8\x8B\xE5\x8D\x88", 6, "pm=1"},
      {"%p", "\xE4\xB8\x8C\xE5\x8D\x88", -1, ""},
      {"%I:%M %p", "12:30 am", 8, "hour12=0 pm=0 min=30"},
  };
  runCases(std::begin(kCases), std::end(kCases));
}

TEST(TimeFormatParse, ReadsZoneNames) {
  const ParseCase kCases[] = {
      {"%Z", "America/Port-au-Prince x", 22, "tz='America/Port-au-Prince'"},
      {"%Z", "Etc/GMT+5", 9, "tz='Etc/GMT+5'"},
      {"%Z", "PST. x", 4, "tz='PST'"},         // the dot is read but is no part of the name
      {"%Z", "PST.x", 3, "tz='PST'"},
      {"%Z", "Pacific Standard Time x", 21, "tz='Pacific Standard Time'"},
      {"%Z", "Pacific Daylight Time", 21, "tz='Pacific Daylight Time'"},
      {"%Z", "Central Standard Time (Mexico) x", 30, "tz='Central Standard Time (Mexico)'"},
      {"%Z", "Mexico Standard Time 2", 22, "tz='Mexico Standard Time 2'"},
      {"%Z", "Mexico Standard Time 23", 20, "tz='Mexico Standard Time'"},
      {"%Z", "W. Europe Standard Time", 23, "tz='W. Europe Standard Time'"},
      {"%Z", "E. South America Standard Time", 30, "tz='E. South America Standard Time'"},
      {"%Z", "Eastern Standard", 7, "tz='Eastern'"},
      {"%Z", "Eastern Summer Time", 7, "tz='Eastern'"},
      {"%Z %Y", "UTC 2023", 8, "tz='UTC' year=2023"},
      {"%Z", "+05:30", 6, "off=19800"}, {"%Z", "-0800", 5, "off=-28800"},
      {"%Z", "+2500", -1, ""},          {"%Z", "(UTC)", -1, ""},          {"%Z", "", -1, ""},
      {"%Z|%Z", "EST|Eastern Standard Time", 25, "tz='Eastern Standard Time'"},
      {"%Z|%Z", "Eastern Standard Time|EST", 25, "tz='Eastern Standard Time'"},
      // The look-ahead runs word by word from the first name.
      {"%Z", "EST Eastern Standard Time", 25, "tz='EST Eastern Standard Time'"},
  };
  runCases(std::begin(kCases), std::end(kCases));
}

TEST(TimeFormatParse, HandlesWhiteSpaceAndLiterals) {
  const ParseCase kCases[] = {
      {"%H", " \t\r\n7", 5, "hour=7"}, {"%H%n%M", "12 \t 34", 7, "hour=12 min=34"},
      {"%H%n%M", "1234", 4, "hour=12 min=34"},   // none is fine
      {"%H%n %M", "12\n 34", 6, "hour=12 min=34"},  // compared as a literal
      {"%H%n %M", "12  34", -1, ""},   {"%H:%M%n", "12:34", 5, "hour=12 min=34"},
      {"%H:%M%t%n", "12:34", 5, "hour=12 min=34"}, {"%H:%M %Y", "12:34", -1, ""},
      {"%H:%M", "12 :34", -1, ""},                 // literals skip nothing
      {"%d %b", "1  Jan", 6, "mon=0 mday=1"}, {"at %H%%", "at 5%", 5, "hour=5"},
      {"at %H", "At 5", -1, ""},      {"%H %H", "12 13", 5, "hour=12 conflicts=1"},
      {"", "anything", 0, ""},        {"%T", "1:2:3", 5, "hour=1 min=2 sec=3"},
  };
  runCases(std::begin(kCases), std::end(kCases));
}

// The fields of `t` as the C library breaks it down into `g`, flagged as
// `r` flags them: the expectation for describe().
RPR fieldsFromTheCLibrary(const RPR& r, long t, const tm& g, unsigned long usec, int digits,
                          bool weekdayFromU) {
  const auto cField = [&g](const char* directive) {
    char buf[16];
    std::strftime(buf, sizeof buf, directive, &g);
    return std::atoi(buf);
  };
  long scale = 1;
  for (int i = digits; i < 6; ++i) scale *= 10;
  RPR e;
  e.have = r.have;
  e.epoch = t;
  e.tzOffset = g.tm_gmtoff;
  e.tzName = StrSegment(g.tm_zone);
  e.year = g.tm_year + 1900;
  e.century = e.year / 100;
  e.shortYear = e.year % 100;
  e.month = g.tm_mon;
  e.mday = g.tm_mday;
  e.hour24 = g.tm_hour;
  e.hour12 = g.tm_hour % 12;
  e.pm = g.tm_hour >= 12;
  e.minute = g.tm_min;
  e.second = g.tm_sec;
  e.subsecUsec = static_cast<long>(usec) / scale * scale;
  e.subsecDigits = digits;
  e.isoYear = cField("%G");
  e.isoShortYear = cField("%g");
  e.sundayWeek = cField("%U");
  e.mondayWeek = cField("%W");
  e.isoWeek = cField("%V");
  e.yday = g.tm_yday;
  e.wday = weekdayFromU ? (g.tm_wday + 6) % 7 : g.tm_wday;
  return e;
}

TEST(TimeFormatParse, RenderThenParseGivesTheFieldsBack) {
  typedef RPR R;
  const uint32_t kDate = R::HAVE_YEAR | R::HAVE_MONTH | R::HAVE_MDAY;
  const uint32_t kTime = R::HAVE_HOUR24 | R::HAVE_MINUTE | R::HAVE_SECOND;
  const uint32_t kTime12 = R::HAVE_HOUR12 | R::HAVE_AMPM | R::HAVE_MINUTE | R::HAVE_SECOND;
  const struct {
    const char* format;
    uint32_t have;
    int digits = 0;             // subsecond digits kept
    bool weekdayFromU = false;  // %u stores its value less one
    bool epochRange = false;    // the text holds an epoch: 32 bits at most
  } kFormats[] = {
      {"%Y-%m-%d %H:%M:%S.%3N %z", kDate | kTime | R::HAVE_SUBSEC | R::HAVE_TZOFFSET, 3},
      {"%b %d %H:%M:%S", R::HAVE_MONTH | R::HAVE_MDAY | kTime},
      {"%d/%b/%Y:%H:%M:%S %z", kDate | kTime | R::HAVE_TZOFFSET},
      {"%Y-%m-%dT%H:%M:%S.%6N%:z", kDate | kTime | R::HAVE_SUBSEC | R::HAVE_TZOFFSET, 6},
      {"%c", kDate | kTime | R::HAVE_WDAY},
      {"%m/%d/%y %I:%M:%S %p", R::HAVE_MONTH | R::HAVE_MDAY | R::HAVE_SHORTYEAR | kTime12},
      {"%s.%3N", R::HAVE_EPOCH | R::HAVE_SUBSEC, 3, false, true},
      {"%s", R::HAVE_EPOCH, 0, false, true}, {"%Y%m%d%H%M%S", kDate | kTime},
      {"%A, %B %d, %Y %l:%M %p",
       kDate | R::HAVE_WDAY | R::HAVE_HOUR12 | R::HAVE_AMPM | R::HAVE_MINUTE},
      {"%d %b %Y %H:%M:%S,%l", kDate | kTime | R::HAVE_SUBSEC, 3},
      {"%F %T %Z", kDate | kTime | R::HAVE_TZNAM},
      {"%G-W%V-%u", R::HAVE_ISOYEAR | R::HAVE_ISOWEEK | R::HAVE_WDAY, 0, true},
      {"%g %V", R::HAVE_ISOSHORTYEAR | R::HAVE_ISOWEEK},
      {"%Y %U %w %j", R::HAVE_YEAR | R::HAVE_SUNDAYWEEK | R::HAVE_WDAY | R::HAVE_YDAY},
      {"%Y %W %a", R::HAVE_YEAR | R::HAVE_MONDAYWEEK | R::HAVE_WDAY},
      {"%y%m%d %k:%M:%S", R::HAVE_SHORTYEAR | R::HAVE_MONTH | R::HAVE_MDAY | kTime},
      {"%e-%b-%Y %T", kDate | kTime},
      {"%C%y-%m-%d", R::HAVE_CENTURY | R::HAVE_SHORTYEAR | R::HAVE_MONTH | R::HAVE_MDAY},
      {"%H:%M:%S %Ez", kTime | R::HAVE_TZOFFSET}, {"%F %T %::z", kDate | kTime | R::HAVE_TZOFFSET},
      {"%F %T %:::z", kDate | kTime | R::HAVE_TZOFFSET},
      {"%Y%j%H%M%S%3N", R::HAVE_YEAR | R::HAVE_YDAY | kTime | R::HAVE_SUBSEC, 3},
      {"%x %X", R::HAVE_SHORTYEAR | R::HAVE_MONTH | R::HAVE_MDAY | kTime}, {"%B %e, %Y", kDate},
      {"%F %T.%N", kDate | kTime | R::HAVE_SUBSEC, 6}, {"%I%M%S%p", kTime12},
      {"[%d/%b/%Y %H:%M:%S.%q]", kDate | kTime | R::HAVE_SUBSEC, 6},
      {"%a, %d %b %Y %T %z", kDate | kTime | R::HAVE_WDAY | R::HAVE_TZOFFSET}, {"%r", kTime12},
  };
  std::mt19937_64 rng(31337);
  for (const char* zone : {"UTC", "America/New_York", "Asia/Kolkata", "Australia/Lord_Howe"}) {
    ScopedTz tz(zone);
    for (const auto& row : kFormats) {
      TimeFormat f;
      ASSERT_TRUE(f.setFtime(row.format)) << row.format;
      for (int i = 0; i < 300; ++i) {
        const long hi = row.epochRange ? 4294967295L : 32503679999L;  // the end of 2999
        const long t = std::uniform_int_distribution<long>(31536000L + 86400, hi)(rng);
        const unsigned long usec = std::uniform_int_distribution<unsigned long>(0, 999999)(rng);
        LocalStructTm lt;
        ASSERT_TRUE(lt.fromUnixTime(t));
        Str text;
        f.render(text, lt, usec, lt.getRenderOps());
        const std::string what = std::string(row.format) + " on \"" + text + "\" in " + zone;
        RPR r;
        ASSERT_EQ(static_cast<long>(text.size()), parse(f, text, &r)) << what;
        // %Z reads a numeric zone name ("+11") as an offset.
        uint32_t have = row.have;
        if ((have & R::HAVE_TZNAM) && (lt.tm_zone[0] == '+' || lt.tm_zone[0] == '-')) {
          have = (have & ~R::HAVE_TZNAM) | R::HAVE_TZOFFSET;
        }
        ASSERT_EQ(have, r.have) << what;
        EXPECT_EQ(describe(fieldsFromTheCLibrary(r, t, lt, usec, row.digits, row.weekdayFromU)),
                  describe(r))
            << what;
      }
    }
  }
}

TEST(TimeFormatParse, UnsetFormatFails) {
  TimeFormat f;
  RPR r;
  const char text[] = "12";
  EXPECT_EQ(nullptr, f.rawParse(&r, text, text + 2));
  EXPECT_EQ(0u, r.have);
}

TEST(TimeFormatParse, NeverReadsPastTheEnd) {
  // Each prefix of a text is parsed from a copy of its own size, so that
  // the address sanitizer sees any read beyond it.
  const struct { const char* format; const char* text; } kCases[] = {
      {"%a %b %e %H:%M:%S %Z %Y", "Tue Nov 14 22:13:20 Pacific Standard Time (Mexico) 2023"},
      {"%p %Z", "a.m. Mexico Standard Time 2"},
      {"%F %T,%3N %:::z", "2023-11-14 22:13:20,123 +05:30:15"}, {"%p", "\xE4\xB8\x8B\xE5\x8D\x88"},
  };
  for (const auto& c : kCases) {
    TimeFormat f;
    ASSERT_TRUE(f.setFtime(c.format));
    const size_t n = std::strlen(c.text);
    for (size_t len = 0; len <= n; ++len) {
      std::unique_ptr<char[]> copy(new char[len == 0 ? 1 : len]);
      std::memcpy(copy.get(), c.text, len);
      RPR r;
      const char* end = f.rawParse(&r, copy.get(), copy.get() + len);
      if (end != nullptr) {
        EXPECT_TRUE(end >= copy.get() && end <= copy.get() + len) << c.text;
      }
    }
  }
}

}  // namespace
