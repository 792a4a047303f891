// Test helper: sets the TZ variable for one scope and restores it, so tests
// can compare local-time code against the C library in chosen zones.
#pragma once

#include <cstdlib>
#include <ctime>
#include <string>

class ScopedTz {
 public:
  explicit ScopedTz(const char* zone) {
    const char* old = std::getenv("TZ");
    _had = old != nullptr;
    if (_had) _old = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTz() {
    if (_had) {
      setenv("TZ", _old.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  ScopedTz(const ScopedTz&) = delete;
  ScopedTz& operator=(const ScopedTz&) = delete;

 private:
  bool _had;
  std::string _old;
};
