#include "framework/FishState.h"

#include "framework/PipelineData.h"
#include "util/Logger.h"

namespace {

Logger gLogger("FileTracker");

// Decimal texts only: strtoll's leading white space and "+" are refused,
// as is anything after the digits.
bool toUnsigned64(const Str& text, uint64_t* out) {
  unsigned long long v = 0;
  if (text.empty() || text[0] < '0' || text[0] > '9' || !text.tryToUnsignedLongLong(v)) {
    gLogger.warn("failed to convert string to int: %s", text.c_str());
    return false;
  }
  *out = v;
  return true;
}

bool toSigned64(const Str& text, int64_t* out) {
  long long v = 0;
  const bool digitFirst = !text.empty() && ((text[0] >= '0' && text[0] <= '9') || text[0] == '-');
  if (!digitFirst || !text.tryToLongLong(v)) {
    gLogger.warn("failed to convert string to int: %s", text.c_str());
    return false;
  }
  *out = v;
  return true;
}

Str decimal(uint64_t v) { return Str().format("%llu", static_cast<unsigned long long>(v)); }

Str decimal(int64_t v) { return Str().format("%lld", static_cast<long long>(v)); }

}  // namespace

const char* const FishState::FISH_STATE_CONTROL_VALUE = "FishStateControlValue";

FishState::FishState(CRC_t key, int64_t startOffset, CRC_t seekCrc, CRC_t filenameCrc,
                     int64_t modTime)
    : _key(key),
      _startOffset(startOffset),
      _seekCrc(seekCrc),
      _fnameCrc(filenameCrc),
      _modTime(modTime) {
  if (_key.isBlank()) gLogger.warn("Invalid FishState constructed: %s", toString().c_str());
}

FishState FishState::fromPData(const CowPipelineData& event) {
  const Str* start = event->getIfAvail(PipelineData::_startOffsetKey);
  if (start == nullptr) return FishState();
  FishState s;
  uint64_t key = 0, seekCrc = 0, fnameCrc = 0;
  const bool ok = toSigned64(*start, &s._startOffset) &&
                  toUnsigned64(event->get(PipelineData::_fishKey), &key) &&
                  toUnsigned64(event->get(PipelineData::_seekCrcKey), &seekCrc) &&
                  toUnsigned64(event->get(PipelineData::_fnameCrcKey), &fnameCrc) &&
                  toSigned64(event->get(PipelineData::_modTimeKey), &s._modTime);
  if (!ok) return FishState();
  s._key = CRC_t(key);
  s._seekCrc = CRC_t(seekCrc);
  s._fnameCrc = CRC_t(fnameCrc);
  return s;
}

void FishState::populatePData(PipelineData* pd, bool control) const {
  if (isEmpty()) return;
  pd->put(PipelineData::_startOffsetKey, decimal(_startOffset));
  pd->put(PipelineData::_fishKey, decimal(_key._crc));
  pd->put(PipelineData::_seekCrcKey, decimal(_seekCrc._crc));
  pd->put(PipelineData::_fnameCrcKey, decimal(_fnameCrc._crc));
  pd->put(PipelineData::_modTimeKey, decimal(_modTime));
  if (control) pd->put(PipelineData::_controlKey, Str(FISH_STATE_CONTROL_VALUE));
}

bool FishState::hasFishState(const CowPipelineData& event) {
  return event->contains(PipelineData::_startOffsetKey);
}

void FishState::removeFromPData(CowPipelineData& event) {
  const PipelineData::predefined_key* const keys[] = {
      &PipelineData::_startOffsetKey, &PipelineData::_fishKey, &PipelineData::_seekCrcKey,
      &PipelineData::_fnameCrcKey, &PipelineData::_modTimeKey};
  for (const PipelineData::predefined_key* key : keys) {
    if (event->contains(*key)) event.writable()->remove(*key);
  }
  const Str* control = event->getIfAvail(PipelineData::_controlKey);
  if (control != nullptr && *control == FISH_STATE_CONTROL_VALUE) {
    event.writable()->remove(PipelineData::_controlKey);
  }
}

Str FishState::toString() const {
  return Str().format("key=0x%llx sptr=%llu scrc=0x%llx fnamecrc=0x%llx modtime=%llu",
                      static_cast<unsigned long long>(_key._crc),
                      static_cast<unsigned long long>(_startOffset),
                      static_cast<unsigned long long>(_seekCrc._crc),
                      static_cast<unsigned long long>(_fnameCrc._crc),
                      static_cast<unsigned long long>(_modTime));
}
