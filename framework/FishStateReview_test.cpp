// FishState on an event at its edges: unsigned text forms of signed fields,
// decimal texts over the full 64-bit range, each missing key, and removal
// that compares the control value exactly.
#include "framework/FishState.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "framework/PipelineData.h"

namespace {

struct Field {
  const PipelineData::predefined_key* key;
  const char* name;
};

const Field kFields[] = {
    {&PipelineData::_startOffsetKey, "startOffset"}, {&PipelineData::_fishKey, "fish"},
    {&PipelineData::_seekCrcKey, "seekCrc"},         {&PipelineData::_fnameCrcKey, "fnameCrc"},
    {&PipelineData::_modTimeKey, "modTime"},
};

bool sameState(const FishState& a, const FishState& b) {
  return a._key == b._key && a._startOffset == b._startOffset && a._seekCrc == b._seekCrc &&
         a._fnameCrc == b._fnameCrc && a._modTime == b._modTime;
}

}  // namespace

TEST(FishStateReview, ToStringFormsEachField) {
  const struct { FishState s; const char* text; } kCases[] = {
      {FishState(CRC_t(0x1f), 1024, CRC_t(0xab), CRC_t(0xcd), 1700000000),
       "key=0x1f sptr=1024 scrc=0xab fnamecrc=0xcd modtime=1700000000"},
      {FishState(), "key=0x0 sptr=0 scrc=0x0 fnamecrc=0x0 modtime=0"},
      {FishState(CRC_t(UINT64_MAX), 0, CRC_t(UINT64_MAX), CRC_t(1), 0),
       "key=0xffffffffffffffff sptr=0 scrc=0xffffffffffffffff fnamecrc=0x1 modtime=0"},
      // The offset and the time print unsigned.
      {FishState(CRC_t(2), -1, CRC_t(3), CRC_t(4), -2),
       "key=0x2 sptr=18446744073709551615 scrc=0x3 fnamecrc=0x4 modtime=18446744073709551614"},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.text, std::string(c.s.toString()));
}

TEST(FishStateReview, DecimalTextsRoundTripOverTheFullRange) {
  const struct {
    FishState s;
    const char* texts[5];  // startOffset, key, seekCrc, fnameCrc, modTime
  } kCases[] = {
      {FishState(CRC_t(0x1f), 1024, CRC_t(0xab), CRC_t(0xcd), 1700000000),
       {"1024", "31", "171", "205", "1700000000"}},
      // CRCs above the signed range stay unsigned.
      {FishState(CRC_t(UINT64_MAX), INT64_MAX, CRC_t(0x8000000000000000ull),
                 CRC_t(0xfedcba9876543210ull), 0),
       {"9223372036854775807", "18446744073709551615", "9223372036854775808",
        "18364758544493064720", "0"}},
      // Signed fields keep their sign.
      {FishState(CRC_t(5), -5, CRC_t(6), CRC_t(7), -7), {"-5", "5", "6", "7", "-7"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.s.toString());
    for (bool control : {false, true}) {
      CowPipelineData event;
      c.s.populatePData(event.writable(), control);
      for (size_t i = 0; i < 5; ++i) {
        const Str* v = event->getIfAvail(*kFields[i].key);
        ASSERT_NE(nullptr, v) << kFields[i].name;
        EXPECT_EQ(c.texts[i], std::string(*v)) << kFields[i].name;
      }
      const Str* ctl = event->getIfAvail(PipelineData::_controlKey);
      if (control) {
        ASSERT_NE(nullptr, ctl);
        EXPECT_EQ("FishStateControlValue", std::string(*ctl));
      } else {
        EXPECT_EQ(nullptr, ctl);
      }
      EXPECT_TRUE(FishState::hasFishState(event));
      EXPECT_TRUE(sameState(c.s, FishState::fromPData(event)));
    }
  }
  EXPECT_STREQ("FishStateControlValue", FishState::FISH_STATE_CONTROL_VALUE);
}

TEST(FishStateReview, HalfFilledEventThrows) {
  for (size_t missing = 1; missing < 5; ++missing) {
    SCOPED_TRACE(kFields[missing].name);
    CowPipelineData event;
    FishState(CRC_t(9), 1, CRC_t(2), CRC_t(3), 4).populatePData(event.writable(), false);
    event.writable()->remove(*kFields[missing].key);
    EXPECT_THROW(FishState::fromPData(event), KeyNotFoundException);
  }
}

TEST(FishStateReview, RemovalSparesForeignControlValuesAndSharedCopies) {
  const struct { const char* control; bool controlStays; } kCases[] = {
      {"FishStateControlValue", false},
      {"_shutdown_control", true},
      {"fishstatecontrolvalue", true},  // the comparison is exact
      {nullptr, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.control != nullptr ? c.control : "(none)");
    CowPipelineData event;
    FishState(CRC_t(9), 1, CRC_t(2), CRC_t(3), 4).populatePData(event.writable(), false);
    if (c.control != nullptr) event.writable()->put(PipelineData::_controlKey, c.control);
    event.writable()->put(PipelineData::_pathKey, "/kept");
    const CowPipelineData other = event;  // shared now
    FishState::removeFromPData(event);
    for (const Field& f : kFields) {
      EXPECT_EQ(nullptr, event->getIfAvail(*f.key)) << f.name;
      EXPECT_NE(nullptr, other->getIfAvail(*f.key)) << f.name;
    }
    const Str* ctl = event->getIfAvail(PipelineData::_controlKey);
    EXPECT_EQ(c.controlStays, ctl != nullptr);
    if (c.controlStays) {
      EXPECT_EQ(c.control, std::string(*ctl));
    }
    if (c.control != nullptr) {
      ASSERT_NE(nullptr, other->getIfAvail(PipelineData::_controlKey));
      EXPECT_EQ(c.control, std::string(other->get(PipelineData::_controlKey)));
    }
    EXPECT_EQ("/kept", std::string(event->get(PipelineData::_pathKey)));
    EXPECT_FALSE(FishState::hasFishState(event));
    EXPECT_TRUE(FishState::hasFishState(other));
  }
}

