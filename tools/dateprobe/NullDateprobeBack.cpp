#include "tools/dateprobe/NullDateprobeBack.h"

void NullDateprobeBack::initProcess() {}

void NullDateprobeBack::setUp(const Str&) {}

void NullDateprobeBack::setSource(const Str&) {}

bool NullDateprobeBack::parse(const Str&, const Timeval&, Timeval*) { return false; }

bool NullDateprobeBack::parseDetailed(const Str&, const Timeval&, DateprobeParse*) {
  return false;
}

Str NullDateprobeBack::lastPatternName() const { return Str(); }
