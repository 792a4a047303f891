// DateParseException: the one failure of loading a timestamp pattern file.
#pragma once

#include <stdexcept>

#include "util/Str.h"

class Logger;

// Immutable once thrown; safe from any thread.
class DateParseException : public std::runtime_error {
 public:
  // Keeps `text` and, when `logger` is not null, logs it at error level on
  // that logger. A null `text` reads as "".
  DateParseException(Logger* logger, const char* text);

  // The text, as given.
  const char* what() const noexcept override { return _text.c_str(); }
  const Str& text() const { return _text; }

 private:
  Str _text;
};
