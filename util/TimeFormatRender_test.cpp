#include "util/TimeFormat.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/DateTime.h"
#include "util/testing/ScopedTz.h"

namespace {

// Directives that render as the C library's strftime does, each with the
// flag and width variants that agree too. "-" only goes without a width:
// with one the C library still pads, and here no padding means none.
std::vector<std::string> sharedDirectives() {
  std::vector<std::string> out;
  for (const char* d : {"C", "d", "e", "g", "G", "H", "I", "j", "k", "m", "M", "S", "u", "U",
                        "V", "w", "W", "y", "Y"}) {
    for (const char* flags : {"", "_", "-", "0", "5", "_5", "05", "^", "_12"}) {
      out.push_back(std::string("%") + flags + d);
    }
  }
  for (const char* flags : {"", "_", "-", "0", "5", "_4", "04"}) out.push_back(std::string("%") + flags + "l");
  for (const char* d : {"a", "A", "b", "h", "B", "p", "Z"}) {
    for (const char* flags : {"", "^", "12", "_12", "^12"}) out.push_back(std::string("%") + flags + d);
  }
  // The C library keeps %P lower case even under "^".
  for (const char* d : {"%P", "%12P", "%_12P"}) out.push_back(d);
  for (const char* d : {"%#Z", "%#p", "%z", "%0z", "%c", "%D", "%F", "%T", "%R", "%r", "%x",
                        "%X", "%Ec", "%Ex", "%EX", "%Ey", "%EY", "%EC", "%Od", "%Oe", "%OH", "%OI",
                        "%Om", "%OM", "%OS", "%Ou", "%OU", "%OV", "%Ow", "%OW", "%Oy", "%OB", "%n",
                        "%t", "%%", "%h"}) {
    out.push_back(d);
  }
  return out;
}

// The shared directives, each compiled once.
struct Compiled {
  std::string text;
  TimeFormat format;
};
std::vector<Compiled> compiledSharedDirectives() {
  std::vector<Compiled> out;
  for (const std::string& d : sharedDirectives()) {
    out.push_back({d, TimeFormat(d.c_str())});
    EXPECT_TRUE(out.back().format.isSet()) << d;
  }
  return out;
}

std::string renderCompiled(const TimeFormat& f, const StructTm& t, const render_tm_ops* ops) {
  Str out;
  f.render(out, t, 0, ops);
  return out;
}

std::string cStrftime(const char* format, const tm& t) {
  char buffer[512];
  const size_t n = std::strftime(buffer, sizeof buffer, format, &t);
  return std::string(buffer, n);
}

std::string render(const char* format, const StructTm& t, unsigned long usec,
                   const render_tm_ops* ops) {
  TimeFormat f;
  EXPECT_TRUE(f.setFtime(format)) << format;
  Str out;
  if (f.isSet()) f.render(out, t, usec, ops);
  return out;
}

// Random instants from 1971 to the end of 2999.
long randomInstant(std::mt19937_64& rng) {
  return std::uniform_int_distribution<long>(31536000L, 32535215999L)(rng);
}

TEST(TimeFormatRender, AgreesWithStrftimeInGmt) {
  ScopedTz tz("UTC");  // so that strftime's %s, which uses mktime, agrees
  const std::vector<Compiled> directives = compiledSharedDirectives();
  std::mt19937_64 rng(20240229);
  for (int i = 0; i < 3000; ++i) {
    GmtStructTm t;
    ASSERT_TRUE(t.fromUnixTime(randomInstant(rng)));
    for (const Compiled& d : directives) {
      ASSERT_EQ(cStrftime(d.text.c_str(), t), renderCompiled(d.format, t, t.getRenderOps()))
          << d.text << " at " << t.asctime();
    }
    ASSERT_EQ(cStrftime("%s", t), render("%s", t, 0, t.getRenderOps())) << t.asctime();
  }
}

TEST(TimeFormatRender, AgreesWithStrftimeInLocalZones) {
  const std::vector<Compiled> directives = compiledSharedDirectives();
  std::mt19937_64 rng(7);
  for (const char* zone : {"America/New_York", "Asia/Kolkata", "Australia/Lord_Howe",
                           "America/St_Johns", "Europe/London"}) {
    ScopedTz tz(zone);
    for (int i = 0; i < 700; ++i) {
      LocalStructTm t;
      ASSERT_TRUE(t.fromUnixTime(randomInstant(rng)));
      for (const Compiled& d : directives) {
        ASSERT_EQ(cStrftime(d.text.c_str(), t), renderCompiled(d.format, t, t.getRenderOps()))
            << d.text << " in " << zone << " at " << t.asctime();
      }
      for (const char* d : {"%s", "%12s", "%_12s"}) {
        ASSERT_EQ(cStrftime(d, t), render(d, t, 0, t.getRenderOps())) << d << " in " << zone;
      }
    }
  }
}

// Whole formats built from random shared pieces and literal text.
TEST(TimeFormatRender, AgreesWithStrftimeOnRandomFormats) {
  ScopedTz tz("America/Los_Angeles");
  std::vector<std::string> pieces = sharedDirectives();
  for (const char* literal : {" ", ":", "-", "/", ", ", "T", ".", "[", "] ", "at "}) pieces.push_back(literal);
  std::mt19937_64 rng(99);
  for (int i = 0; i < 5000; ++i) {
    std::string format;
    const int n = std::uniform_int_distribution<int>(1, 8)(rng);
    for (int k = 0; k < n; ++k) {
      std::string piece = pieces[rng() % pieces.size()];
      if (piece.find('l') != std::string::npos) piece = "%I";  // %l might read as milliseconds
      format += piece;
    }
    LocalStructTm t;
    ASSERT_TRUE(t.fromUnixTime(randomInstant(rng)));
    ASSERT_EQ(cStrftime(format.c_str(), t), render(format.c_str(), t, 0, t.getRenderOps()))
        << format << " at " << t.asctime();
  }
}

// A view with a chosen offset and zone name, for the offset forms.
struct FixedOps : render_tm_ops {
  long offset;
  const char* zone;
};
long fixedEpoch(const render_tm_ops*, const StructTm*) { return 1234567890; }
bool fixedName(const render_tm_ops* ops, const StructTm*, char* buffer, size_t size) {
  const char* zone = static_cast<const FixedOps*>(ops)->zone;
  if (zone == nullptr) return false;
  std::strncpy(buffer, zone, size);
  buffer[size - 1] = '\0';
  return true;
}
long fixedOffset(const render_tm_ops* ops, const StructTm*) {
  return static_cast<const FixedOps*>(ops)->offset;
}
FixedOps fixedOps(long offset, const char* zone = "ZN") {
  FixedOps ops;
  ops.to_epoch = &fixedEpoch;
  ops.get_tzname = &fixedName;
  ops.tz_sec_offset = &fixedOffset;
  ops.offset = offset;
  ops.zone = zone;
  return ops;
}

TEST(TimeFormatRender, WritesEveryOffsetForm) {
  const struct { const char* format; long offset; const char* text; } kCases[] = {
      {"%z", 19800, "+0530"},      {"%z", -28800, "-0800"},     {"%z", 0, "+0000"},
      {"%-z", 19800, "+530"},      {"%-z", -3600, "-100"},
      {"%-z", 0, "+000"},  // one zero dropped; the C library drops all but one
      {"%_z", 19800, "+0530"},  // the C library writes "+ 530"
      {"%8z", 19800, "+0000530"},  {"%_8z", 19800, "   +0530"},
      {"%:z", 19800, "+05:30"},    {"%:z", -34200, "-09:30"},   {"%-:z", 19800, "+5:30"},
      {"%::z", 19815, "+05:30:15"}, {"%::z", -3600, "-01:00:00"}, {"%:::z", 18000, "+05"},
      {"%:::z", 19800, "+05:30"},  {"%:::z", 19815, "+05:30:15"}, {"%:::z", -45, "-00:00:45"},
      {"%Ez", -25200, "-420"},     {"%Ez", 0, "+0"},            {"%Ez", 3600, "+60"},
      {"%Ez", 19800, "+330"},      {"%0Ez", 3600, "+060"},
      {"%6Ez", -300, "-5"},      // no padding: the width does nothing
      {"%_6Ez", -300, "  -005"},  // only "no padding" drops the zeros
      {"%z%:z", TimeFormat::UNKNOWN_TZ_OFFSET, ""},
      {"%Ez|%::z|%:::z", TimeFormat::UNKNOWN_TZ_OFFSET, "||"},
  };
  GmtStructTm t;
  ASSERT_TRUE(t.fromUnixTime(1234567890));
  for (const auto& c : kCases) {
    const FixedOps ops = fixedOps(c.offset);
    EXPECT_EQ(c.text, render(c.format, t, 0, &ops)) << c.format << " " << c.offset;
  }
}

TEST(TimeFormatRender, CutsSubsecondsWithoutRounding) {
  const struct { const char* format; unsigned long usec; const char* text; } kCases[] = {
      {"%3N", 123456, "123"},      {"%3N", 999999, "999"},       {"%1N", 999999, "9"},
      {"%N", 123456, "123456000"}, {"%6N", 7, "000007"},         {"%Q", 5000, "005"},
      {"%f", 5, "000005"},         {"%q", 120000, "120000"},     {"%12N", 1, "000001000000"},
      {"%S.%l", 250000, "07.250"}, {"%S,%3N", 0, "07,000"}, {"%s.%l", 987654, "1234567890.987"},
      {"%3N", 1500000, "999"},  // past a second: the largest fraction
  };
  GmtStructTm t;
  ASSERT_TRUE(t.fromUnixTime(1234567867));  // 23:31:07
  for (const auto& c : kCases) {
    const FixedOps ops = fixedOps(0);
    EXPECT_EQ(c.text, render(c.format, t, c.usec, &ops)) << c.format << " " << c.usec;
  }
}

TEST(TimeFormatRender, WritesItsOwnDirectivesAndCases) {
  const struct { const char* format; const char* text; } kCases[] = {
      {"%l", "11"},  // at the start %l is the hour
      {"%H:%M:%S %l", "23:31:07 11"},
      {"%-5d|%-10a|%-9B", "13|Fri|February"},  // no padding means none at any width
      {"%#a %#b %#A %#B", "fRI fEB fRIDAY fEBRUARY"}, {"%^P %#P %P %^p %#p", "PM PM pm PM pm"},
      {"%+", "Fri Feb 13 23:31:07 ZN 2009"}, {"%v", "13-Feb-2009"}, {"%o", "2009"},
      {"%#c", "Friday, February 13, 2009, 23:31:07"}, {"%#x", "Friday, February 13, 2009"},
      {"%Z|%5Z|%-5Z|%#Z", "ZN|   ZN|ZN|zn"},
  };
  GmtStructTm t;
  ASSERT_TRUE(t.fromUnixTime(1234567867));
  for (const auto& c : kCases) {
    const FixedOps ops = fixedOps(0);
    EXPECT_EQ(c.text, render(c.format, t, 0, &ops)) << c.format;
  }
}

TEST(TimeFormatRender, MarksNamesOutOfRange) {
  const struct { int wday, mon, hour; const char* format; const char* text; } kCases[] = {
      {7, 0, 0, "%a", "???"},      {-1, 0, 0, "%A", "???"},     {7, 0, 0, "%2a", "??"},
      {7, 0, 0, "%5a", "  ???"},   {0, 12, 0, "%b|%B|%^h", "???|???|???"},
      {0, -1, 0, "%10B", "       ???"},
      {0, 0, 24, "%p", "??"},  // %p is two wide
      {0, 0, -1, "%3P", "???"}, {6, 11, 23, "%a %b %p", "Sat Dec PM"},
  };
  for (const auto& c : kCases) {
    GmtStructTm t;
    t.tm_wday = c.wday;
    t.tm_mon = c.mon;
    t.tm_hour = c.hour;
    t.tm_mday = 1;
    const FixedOps ops = fixedOps(0);
    EXPECT_EQ(c.text, render(c.format, t, 0, &ops)) << c.format;
  }
}

TEST(TimeFormatRender, ZoneNameFromTheView) {
  GmtStructTm t;
  ASSERT_TRUE(t.fromUnixTime(0));
  const FixedOps none = fixedOps(0, nullptr);
  EXPECT_EQ("[]", render("[%Z]", t, 0, &none));
  EXPECT_EQ("[]", render("[%8Z]", t, 0, &none));  // nothing at all, not even padding
  const FixedOps longName = fixedOps(0, "ABCDEFGHIJKLMNOP");
  EXPECT_EQ("ABCDEFGHIJ", render("%Z", t, 0, &longName));  // 11 bytes with the terminator
}

TEST(TimeFormatRender, AppendsToWhatIsThere) {
  GmtStructTm t;
  ASSERT_TRUE(t.fromUnixTime(86400 * 365));
  const TimeFormat f("%Y");
  Str out("year ");
  f.render(out, t, 0, t.getRenderOps());
  f.render(out, t, 0, t.getRenderOps());
  EXPECT_EQ("year 19711971", out);
}

TEST(TimeFormatRenderDeathTest, UnsetFormatAsserts) {
  GmtStructTm t;
  TimeFormat f;
  Str out;
  EXPECT_DEATH(f.render(out, t, 0, t.getRenderOps()), "_atoms != __null");
}

}  // namespace
