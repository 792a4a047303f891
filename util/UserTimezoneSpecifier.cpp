#include "util/UserTimezoneSpecifier.h"

#include "util/LineReader.h"
#include "util/Pathname.h"
#include "util/Timeval.h"

void UserTimezoneSpecifier::set(const Str& setting) {
  _setting = setting;
  _zone.reset();
}

bool UserTimezoneSpecifier::resurrect(LineReader& in) {
  std::unique_ptr<Timezone> zone = resurrectTimezone(in);
  if (zone == nullptr) return false;
  _setting.clear();
  _zone = std::move(zone);
  return true;
}

bool UserTimezoneSpecifier::guessTzVariable(Pathname* out) const {
  if (!_setting.empty()) {
    *out = Pathname(_setting);
    return true;
  }
  if (_zone == nullptr) return false;
  const Str estimate = _zone->estimatedTzVariable(Timeval::now().tv_sec);
  if (estimate.empty()) return false;
  *out = Pathname(estimate);
  return true;
}
