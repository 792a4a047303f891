// The back that dateprobe runs with until the date parser is wired in: it
// reads no configuration and finds no timestamp in any line.
#pragma once

#include "tools/dateprobe/MDateprobeBack.h"

// Finds nothing, ever. It has no state, so it is safe from any thread.
class NullDateprobeBack : public MDateprobeBack {
 public:
  // Do nothing.
  void initProcess() override;
  void setUp(const Str& context) override;
  void setSource(const Str& text) override;
  // Return false and leave *out alone.
  bool parse(const Str& line, const Timeval& now, Timeval* out) override;
  bool parseDetailed(const Str& line, const Timeval& now, DateprobeParse* out) override;
  // Empty: no pattern was ever used.
  Str lastPatternName() const override;
};
