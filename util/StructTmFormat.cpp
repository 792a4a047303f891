// StructTm::appendFtime with a compiled TimeFormat: each view renders
// through its own render_tm_ops, the Hires views with their microseconds.
#include "util/DateTime.h"

#include "util/TimeFormat.h"

void GmtStructTm::appendFtime(Str& out, const TimeFormat& format) const {
  format.render(out, *this, 0, getRenderOps());
}

void LocalStructTm::appendFtime(Str& out, const TimeFormat& format) const {
  format.render(out, *this, 0, getRenderOps());
}

void LocalStructTmHires::appendFtime(Str& out, const TimeFormat& format) const {
  format.render(out, *this, static_cast<unsigned long>(microseconds), getRenderOps());
}

void StructTmInTimezone::appendFtime(Str& out, const TimeFormat& format) const {
  format.render(out, *this, 0, getRenderOps());
}

void StructTmInTimezoneHires::appendFtime(Str& out, const TimeFormat& format) const {
  format.render(out, *this, static_cast<unsigned long>(microseconds), getRenderOps());
}
