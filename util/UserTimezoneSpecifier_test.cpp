#include "util/UserTimezoneSpecifier.h"

#include <gtest/gtest.h>

#include "util/LineReader.h"
#include "util/Pathname.h"
#include "util/StrVector.h"
#include "util/Timeval.h"

namespace {

void fixedClock(Timeval* out) { *out = Timeval(1718000000, 0); }  // June 2024

class UserTimezoneSpecifierTest : public ::testing::Test {
 protected:
  void SetUp() override { _previous = setTimevalClock(&fixedClock); }
  void TearDown() override { setTimevalClock(_previous); }
  TimevalClock _previous = nullptr;
};

Str serialized(const char* rule) {
  Timezone zone;
  EXPECT_TRUE(zone.fromPosixString(rule)) << rule;
  StrVector lines;
  zone.serialize(lines);
  Str text;
  lines.joinInto(text, '\n');
  return text;
}

TEST_F(UserTimezoneSpecifierTest, ASettingIsProposedAsItStands) {
  UserTimezoneSpecifier user;
  Pathname tz("untouched");
  EXPECT_FALSE(user.guessTzVariable(&tz));
  EXPECT_EQ("untouched", tz);
  user.set("Europe/Paris");
  ASSERT_TRUE(user.guessTzVariable(&tz));
  EXPECT_EQ("Europe/Paris", tz);
  EXPECT_EQ(nullptr, user.resurrectedZone());
}

TEST_F(UserTimezoneSpecifierTest, AResurrectedZoneIsProposedAsARule) {
  UserTimezoneSpecifier user;
  user.set("Europe/Paris");
  const Str text = serialized("AEST-10AEDT,M10.1.0,M4.1.0/3");
  StringLineReader reader(text);
  ASSERT_TRUE(user.resurrect(reader));
  EXPECT_TRUE(user.setting().empty());
  ASSERT_NE(nullptr, user.resurrectedZone());
  Pathname tz;
  ASSERT_TRUE(user.guessTzVariable(&tz));
  EXPECT_EQ("AEST-10AEDT,M10.1.0,M4.1.0/3", tz);
  user.set("UTC");
  EXPECT_EQ(nullptr, user.resurrectedZone());
}

TEST_F(UserTimezoneSpecifierTest, ARefusedRecordChangesNothing) {
  UserTimezoneSpecifier user;
  user.set("Asia/Tokyo");
  StringLineReader reader(StrSegment("Y0 NW\n@5 3\n$\n"));
  EXPECT_FALSE(user.resurrect(reader));
  EXPECT_EQ("Asia/Tokyo", user.setting());
  Pathname tz;
  ASSERT_TRUE(user.guessTzVariable(&tz));
  EXPECT_EQ("Asia/Tokyo", tz);
}

}  // namespace
