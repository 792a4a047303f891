// FishState: a file's tracking position carried on an event through the
// pipeline, so that the position is committed to FileTracker only once the
// event has really been processed.
#pragma once

#include <cstdint>

#include "util/FishRecord.h"
#include "util/Str.h"

class CowPipelineData;
class PipelineData;

// A plain value; one owner at a time. The event keys are PipelineData's
// _startOffsetKey ("_startOffset"), _fishKey, _seekCrcKey, _fnameCrcKey and
// _modTimeKey, each a decimal text; _controlKey ("_control") marks a pure
// control event.
class FishState {
 public:
  static const char* const FISH_STATE_CONTROL_VALUE;  // "FishStateControlValue"

  // The empty state: key zero, nothing to commit.
  FishState() = default;
  // A key of zero logs "Invalid FishState constructed: %s" with toString(),
  // and the state stays as given (empty, since the key is what counts).
  FishState(CRC_t key, int64_t startOffset, CRC_t seekCrc, CRC_t filenameCrc, int64_t modTime);

  // The state an event carries. Empty when "_startOffset" is absent. With
  // it present, the other four are read with PipelineData::get, which
  // throws KeyNotFoundException for a missing one. A value that is not a
  // decimal number logs "failed to convert string to int: %s" with it and
  // gives the empty state, so that a damaged event never commits a position.
  static FishState fromPData(const CowPipelineData& event);
  // Writes the five keys when the key is not zero; with `control`, also
  // _controlKey = FISH_STATE_CONTROL_VALUE. Otherwise touches nothing.
  // REQUIRES: `pd` unshared.
  void populatePData(PipelineData* pd, bool control) const;
  // Whether the event carries "_startOffset".
  static bool hasFishState(const CowPipelineData& event);
  // Removes each of the five keys that is present, and _controlKey only
  // when it holds FISH_STATE_CONTROL_VALUE (the key has other uses, e.g.
  // "_shutdown_control"). The event is copied first when shared, and only
  // when something is removed.
  static void removeFromPData(CowPipelineData& event);

  bool isEmpty() const { return _key.isBlank(); }
  // "key=0x1f sptr=1024 scrc=0xab fnamecrc=0xcd modtime=1700000000".
  Str toString() const;

  CRC_t _key;
  int64_t _startOffset = 0;
  CRC_t _seekCrc;
  CRC_t _fnameCrc;
  int64_t _modTime = 0;
};
