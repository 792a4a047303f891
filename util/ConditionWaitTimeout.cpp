#include "util/ConditionWaitTimeout.h"

#include <unistd.h>

#include "util/Timeval.h"

bool ConditionWaitTimeout::set(const Str& text) {
  unsigned long long ms = 0;
  unsigned long consumed = 0;
  if (!convert_string_to_milliseconds(text.c_str(), &ms, &consumed)) return false;
  if (consumed != text.size()) return false;
  _seconds = static_cast<int64_t>(ms / 1000);
  _nanoseconds = static_cast<int64_t>(ms % 1000) * 1000000;
  return true;
}

Str ConditionWaitTimeout::asStr() const {
  Str out;
  out.format("%u", static_cast<unsigned>(_seconds));
  const unsigned ns = static_cast<unsigned>(_nanoseconds);
  if (ns == 0) return out;
  if (ns % 1000000 == 0) {
    out.appendFormat(".%03u", ns / 1000000);
  } else if (ns % 1000 == 0) {
    out.appendFormat(".%06u", ns / 1000);
  } else {
    out.appendFormat(".%09u", ns);
  }
  return out;
}

void ConditionWaitTimeout::sleep() const {
  if (_nanoseconds != 0) {
    ::usleep(static_cast<useconds_t>(_seconds * 1000000 + _nanoseconds / 1000));
  } else {
    ::sleep(static_cast<unsigned>(_seconds));
  }
}
