// The serialized form: exact lines, round trips of every staged zone, and
// records damaged in every field.
#include <gtest/gtest.h>

#include <string>

#include "util/LineReader.h"
#include "util/StrVector.h"
#include "util/Timezone.h"
#include "util/testing/TimezoneTestSupport.h"

namespace {

StrVector lines(std::initializer_list<const char*> items) {
  StrVector out;
  for (const char* s : items) out.append(s);
  return out;
}

TEST(TimezoneSerialize, WritesTheDocumentedLines) {
  Timezone gmt;
  ASSERT_TRUE(gmt.setToGmt());
  StrVector out;
  gmt.serialize(out);
  EXPECT_EQ(lines({"C0", "Y0 NG 47 4D 54", "$"}), out);

  TzifParts s;
  s.types = {{3600, 0, 0}, {7200, 1, 4}};
  s.chars = std::string("CET\0CEST\0", 9);
  s.times = {100, -200};  // the second goes back and is cut
  s.indices = {1, 0};
  s.isstd = {1, 0};
  const std::string bytes = buildTzif(s);
  Timezone zone;
  ASSERT_TRUE(zone.fromZoneinfoData(bytes.data(), bytes.size(), true));
  out.clear();
  zone.serialize(out);
  // The leading entry stands for the time before the first transition.
  EXPECT_EQ(lines({"C7200", "Y3600 NS 43 45 54", "Y7200 YW 43 45 53 54",
                   "@-9223372036854775808 0", "@100 1", "$"}),
            out);

  Timezone fresh;
  out.clear();
  fresh.serialize(out);
  EXPECT_EQ(lines({"Z", "B", "F", "$"}), out);
}

TEST(TimezoneSerialize, EveryStagedZoneRoundTrips) {
  const Pathname dir = stagedZoneinfoDir();
  ASSERT_FALSE(dir.empty()) << "build the stage_zoneinfo target";
  for (const std::string& name : zoneNamesUnder(dir)) {
    Timezone zone, back;
    ASSERT_TRUE(zone.fromExactZoneinfoPath(dir / name.c_str(), true)) << name;
    StrVector first, second;
    zone.serialize(first);
    ASSERT_TRUE(back.setFromSerializedData(first)) << name;
    back.serialize(second);
    ASSERT_EQ(first, second) << name;
    EXPECT_EQ(zone.firstCycle(), back.firstCycle()) << name;
    EXPECT_EQ(zone.lastCycle(), back.lastCycle()) << name;
    EXPECT_EQ(zone.constantOffset(), back.constantOffset()) << name;
    EXPECT_TRUE(zone.isSimilarTo(back, 1700000000)) << name;
  }
}

TEST(TimezoneSerialize, AcceptsEachLineShape) {
  const struct { const char* what; StrVector in; uint32_t types, times; long constant; } kCases[] = {
      {"constant only", lines({"C-3600", "Y-3600 NW", "$"}), 1, 0, -3600},
      {"placeholder type", lines({"Z", "@0 0", "$"}), 1, 1, Timezone::NO_CONSTANT_OFFSET},
      {"lower-case hex", lines({"Y60 YG 6a 6B", "@5 0", "@5 0", "$"}), 1, 2,
       Timezone::NO_CONSTANT_OFFSET},
      {"extremes", lines({"Y-9223372036854775808 NW", "@9223372036854775807 0", "$"}), 1, 1,
       Timezone::NO_CONSTANT_OFFSET},
      {"cycle flags", lines({"C0", "Y0 NW", "B", "F", "$"}), 1, 0, 0},
  };
  for (const auto& c : kCases) {
    Timezone zone;
    ASSERT_TRUE(zone.setFromSerializedData(c.in)) << c.what;
    EXPECT_EQ(c.types, zone.typecnt()) << c.what;
    EXPECT_EQ(c.times, zone.timecnt()) << c.what;
    EXPECT_EQ(c.constant, zone.constantOffset()) << c.what;
  }
  Timezone flags;
  ASSERT_TRUE(flags.setFromSerializedData(lines({"C0", "Y0 NW", "F", "$"})));
  EXPECT_FALSE(flags.firstCycle());
  EXPECT_TRUE(flags.lastCycle());
}

TEST(TimezoneSerialize, RefusesDamagedRecords) {
  const struct { const char* what; StrVector in; } kCases[] = {
      {"nothing", lines({})}, {"no end", lines({"C0", "Y0 NW"})},
      {"line after the end", lines({"C0", "Y0 NW", "$", "C0"})},
      {"empty line", lines({"C0", "", "Y0 NW", "$"})},
      {"unknown letter", lines({"C0", "Y0 NW", "X", "$"})}, {"no type", lines({"C0", "$"})},
      {"neither transitions nor constant", lines({"Y0 NW", "$"})},
      {"Z after a type", lines({"Y0 NW", "Z", "@0 0", "$"})},
      {"type after Z", lines({"Z", "Y0 NW", "@0 0", "$"})},
      {"Z twice", lines({"Z", "Z", "@0 0", "$"})},
      {"times going back", lines({"Y0 NW", "@10 0", "@9 0", "$"})},
      {"type index out of range", lines({"Y0 NW", "@10 1", "$"})},
      {"type index past 255", lines({"Y0 NW", "@10 256", "$"})},
      {"negative type index", lines({"Y0 NW", "@10 -1", "$"})},
      {"constant with text", lines({"C0x", "Y0 NW", "$"})},
      {"constant empty", lines({"C", "Y0 NW", "$"})},
      {"constant overflowing", lines({"C9223372036854775808", "Y0 NW", "$"})},
      {"isdst letter", lines({"C0", "Y0 XW", "$"})}, {"kind letter", lines({"C0", "Y0 NX", "$"})},
      {"no kind", lines({"C0", "Y0 N", "$"})}, {"no blank", lines({"C0", "Y0NW", "$"})},
      {"odd hex", lines({"C0", "Y0 NW 4", "$"})}, {"bad hex", lines({"C0", "Y0 NW 4G", "$"})},
      {"NUL in the abbreviation", lines({"C0", "Y0 NW 00", "$"})},
      {"hex without blank", lines({"C0", "Y0 NW 4142", "$"})},
      {"transition without type", lines({"Y0 NW", "@10", "$"})},
      {"transition with text", lines({"Y0 NW", "@10 0 x", "$"})},
      {"B with text", lines({"C0", "Y0 NW", "Bx", "$"})},
      {"end with text", lines({"C0", "Y0 NW", "$$"})},
  };
  for (const auto& c : kCases) {
    Timezone zone;
    EXPECT_FALSE(zone.setFromSerializedData(c.in)) << c.what;
    EXPECT_EQ(0u, zone.typecnt()) << c.what;
    EXPECT_EQ(0u, zone.timecnt()) << c.what;
  }
  StrVector nul = lines({"C0", "Y0 NW", "$"});
  nul[0].push_back('\0');
  Timezone zone;
  EXPECT_FALSE(zone.setFromSerializedData(nul));
}

TEST(TimezoneSerialize, EnforcesTheTableLimits) {
  StrVector types = lines({"C0"});
  for (int i = 0; i < 257; ++i) types.append("Y0 NW 41");
  types.append("$");
  Timezone zone;
  EXPECT_FALSE(zone.setFromSerializedData(types));
  types.erase(types.begin() + 1);
  EXPECT_TRUE(zone.setFromSerializedData(types));
  EXPECT_EQ(256u, zone.typecnt());

  StrVector times = lines({"Y0 NW"});
  for (int i = 0; i < 1201; ++i) times.append(Str().format("@%d 0", i));
  times.append("$");
  EXPECT_FALSE(zone.setFromSerializedData(times));
  times.erase(times.begin() + 1);
  EXPECT_TRUE(zone.setFromSerializedData(times));
  EXPECT_EQ(1200u, zone.timecnt());
}

TEST(TimezoneSerialize, ResurrectReadsUpToTheEnd) {
  Timezone ny;
  ASSERT_TRUE(loadStagedZone("America/New_York", &ny));
  StrVector out;
  serializeTimezone(&ny, out);
  serializeTimezone(nullptr, out);  // adds nothing
  Str text;
  out.joinInto(text, '\n');
  text += "\nnext record\n";
  StringLineReader reader(text);
  std::unique_ptr<Timezone> back = resurrectTimezone(reader);
  ASSERT_NE(nullptr, back);
  EXPECT_EQ(ny.timecnt(), back->timecnt());
  Str rest;
  ASSERT_TRUE(reader.readline(rest));
  EXPECT_EQ("next record", rest);
}

TEST(TimezoneSerialize, ResurrectRefusesCutAndDamagedRecords) {
  for (const char* text : {"", "C0\nY0 NW\n", "C0\nY0 NW\nQ\n$\n", "$\n"}) {
    StringLineReader reader{StrSegment(text)};
    EXPECT_EQ(nullptr, resurrectTimezone(reader)) << text;
  }
  // More lines than any zone writes, with no end in sight.
  Str endless;
  for (int i = 0; i < 3000; ++i) endless += "B\n";
  StringLineReader reader(endless);
  EXPECT_EQ(nullptr, resurrectTimezone(reader));
}

}  // namespace
