#include "framework/FishState.h"

#include <gtest/gtest.h>

#include <string>

#include "framework/PipelineData.h"
#include "util/testing/LogCapture.h"

namespace {

const PipelineData::predefined_key* const kFishKeys[] = {
    &PipelineData::_startOffsetKey, &PipelineData::_fishKey, &PipelineData::_seekCrcKey,
    &PipelineData::_fnameCrcKey, &PipelineData::_modTimeKey};

bool sameState(const FishState& a, const FishState& b) {
  return a._key == b._key && a._startOffset == b._startOffset && a._seekCrc == b._seekCrc &&
         a._fnameCrc == b._fnameCrc && a._modTime == b._modTime;
}

TEST(FishState, EventRoundTripWritesDecimalTexts) {
  const struct {
    FishState state;
    const char* texts[5];  // _startOffset, _fishKey, _seekCrc, _fnameCrc, _modTime
  } kCases[] = {
      {FishState(CRC_t(0x1f), 1024, CRC_t(0xab), CRC_t(0xcd), 1700000000),
       {"1024", "31", "171", "205", "1700000000"}},
      {FishState(CRC_t(UINT64_MAX), INT64_MAX, CRC_t(UINT64_MAX), CRC_t(0), -1),
       {"9223372036854775807", "18446744073709551615", "18446744073709551615", "0", "-1"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.state.toString().c_str());
    CowPipelineData ev;
    c.state.populatePData(ev.writable(), false);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(c.texts[i], ev->get(*kFishKeys[i]));
    EXPECT_FALSE(ev->contains(PipelineData::_controlKey));
    EXPECT_TRUE(FishState::hasFishState(ev));
    EXPECT_TRUE(sameState(c.state, FishState::fromPData(ev)));
  }
}

TEST(FishState, ControlMarksTheEvent) {
  CowPipelineData ev;
  FishState(CRC_t(1), 2, CRC_t(3), CRC_t(4), 5).populatePData(ev.writable(), true);
  EXPECT_EQ("FishStateControlValue", ev->get(PipelineData::_controlKey));
}

TEST(FishState, ZeroKeyIsLoggedAndNeverWritten) {
  ScopedLogCapture log("FileTracker");
  const FishState s(CRC_t(0), 7, CRC_t(1), CRC_t(2), 3);
  EXPECT_EQ("WARN Invalid FishState constructed: key=0x0 sptr=7 scrc=0x1 fnamecrc=0x2 modtime=3\n",
            log.text());
  EXPECT_TRUE(s.isEmpty());
  CowPipelineData ev;
  s.populatePData(ev.writable(), true);
  EXPECT_FALSE(FishState::hasFishState(ev));
  EXPECT_FALSE(ev->contains(PipelineData::_controlKey));
  EXPECT_TRUE(FishState::fromPData(ev).isEmpty());
}

TEST(FishState, DamagedEventGivesTheEmptyState) {
  // One key at a time replaced by a bad text; the first failure is the one logged.
  for (int i = 0; i < 5; ++i) {
    for (const char* bad : {"12x", "", " 12", "+1", "0x10", "99999999999999999999"}) {
      SCOPED_TRACE(std::to_string(i) + " '" + bad + "'");
      CowPipelineData ev;
      FishState(CRC_t(1), 2, CRC_t(3), CRC_t(4), 5).populatePData(ev.writable(), false);
      ev.writable()->put(*kFishKeys[i], bad);
      ScopedLogCapture log("FileTracker");
      EXPECT_TRUE(FishState::fromPData(ev).isEmpty());
      EXPECT_EQ("WARN failed to convert string to int: " + std::string(bad) + "\n", log.text());
    }
  }
  // A negative CRC text is refused; a negative offset is a number.
  CowPipelineData ev;
  FishState(CRC_t(1), 2, CRC_t(3), CRC_t(4), 5).populatePData(ev.writable(), false);
  ev.writable()->put(PipelineData::_seekCrcKey, "-3");
  EXPECT_TRUE(FishState::fromPData(ev).isEmpty());
}

TEST(FishState, HalfFilledEventThrows) {
  CowPipelineData ev;
  ev.writable()->put(PipelineData::_startOffsetKey, "10");
  EXPECT_TRUE(FishState::hasFishState(ev));
  EXPECT_THROW(FishState::fromPData(ev), KeyNotFoundException);
  CowPipelineData none;
  none.writable()->put(PipelineData::_fishKey, "10");  // no _startOffset: no state
  EXPECT_FALSE(FishState::hasFishState(none));
  EXPECT_TRUE(FishState::fromPData(none).isEmpty());
}

TEST(FishState, RemoveTakesOurKeysAndOnlyOurControlValue) {
  const struct {
    const char* control;  // null: no _control key
    bool remains;
  } kCases[] = {{"FishStateControlValue", false}, {"_shutdown_control", true}, {nullptr, false}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.control != nullptr ? c.control : "none");
    CowPipelineData ev;
    FishState(CRC_t(1), 2, CRC_t(3), CRC_t(4), 5).populatePData(ev.writable(), false);
    if (c.control != nullptr) ev.writable()->put(PipelineData::_controlKey, c.control);
    ev.writable()->put(PipelineData::_indexKey, "main");
    const CowPipelineData shared(ev);  // removal must copy, not change this one
    FishState::removeFromPData(ev);
    for (const auto* key : kFishKeys) EXPECT_FALSE(ev->contains(*key)) << key->data();
    EXPECT_EQ(c.remains, ev->contains(PipelineData::_controlKey));
    EXPECT_EQ("main", ev->get(PipelineData::_indexKey));
    EXPECT_NE(shared.get(), ev.get());
    EXPECT_TRUE(FishState::hasFishState(shared));
  }
  // Nothing to remove: a shared event stays shared.
  CowPipelineData plain;
  plain.writable()->put(PipelineData::_controlKey, "_shutdown_control");
  const CowPipelineData other(plain);
  FishState::removeFromPData(plain);
  EXPECT_EQ(other.get(), plain.get());
}

}  // namespace
