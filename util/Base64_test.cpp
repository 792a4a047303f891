#include "util/Base64.h"

#include <gtest/gtest.h>

namespace {

TEST(Base64, Rfc4648VectorsBothWays) {
  const struct {
    const char* bytes;
    const char* text;
  } kCases[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.text, Base64::encode(Str(c.bytes))) << c.bytes;
    Str out("junk");
    ASSERT_TRUE(Base64::decode(Str(c.text), out)) << c.text;
    EXPECT_EQ(c.bytes, out) << c.text;
  }
}

TEST(Base64, EveryByteRoundTrips) {
  Str all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  for (size_t len = 0; len <= all.size(); len += 37) {
    Str out;
    ASSERT_TRUE(Base64::decode(Base64::encode(all.substr(0, len)), out));
    EXPECT_EQ(all.substr(0, len), out) << len;
  }
}

TEST(Base64, RejectsMalformedAndLeavesOutputAlone) {
  for (const char* bad : {"Zg=", "Zg", "Z===", "Zm9v!A==", "Zg==Zg==", "=Zg=", "Zm 9"}) {
    Str out("kept");
    EXPECT_FALSE(Base64::decode(Str(bad), out)) << bad;
    EXPECT_EQ("kept", out) << bad;
  }
}

}  // namespace
